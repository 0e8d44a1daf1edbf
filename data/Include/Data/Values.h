#pragma once
// Value wrappers over the objects of libTellarData.so. Each is one Ptr and behaves like it;
// failures of the value library come back as std::runtime_error.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Core/Ptr.h"
#include "Data/Interfaces/IArray.h"
#include "Data/Interfaces/IDateTime.h"
#include "Data/Interfaces/IObjectList.h"
#include "Data/Interfaces/IString.h"
#include "Data/Interfaces/IVariantDictionary.h"
#include "Data/Variant.h"

namespace Data {

class Array : public Core::Ptr<Interfaces::IArray> {
public:
    using Ptr::Ptr;
    Array() = default;
    Array(Core::Ptr<Interfaces::IArray> other) noexcept : Ptr(std::move(other)) {}

    // A byte array of the given size, zero-filled.
    static Array Create(uint64_t sizeInBytes);
    uint8_t* GetData() const { return static_cast<uint8_t*>(Get()->GetData()); }
    uint64_t GetSizeInBytes() const { return Get()->GetSizeInBytes(); }
    void Resize(uint64_t count) const;
};

class String : public Core::Ptr<Interfaces::IString> {
public:
    using Ptr::Ptr;
    String() = default;
    String(Core::Ptr<Interfaces::IString> other) noexcept : Ptr(std::move(other)) {}

    static String Create(std::string_view text = {});
    void Assign(const char* text, uint64_t length) const;
    void Assign(std::string_view text) const { Assign(text.data(), text.size()); }
    std::string_view View() const { return {Get()->GetText(), static_cast<size_t>(Get()->GetLength())}; }
};

class DateTime : public Core::Ptr<Interfaces::IDateTime> {
public:
    using Ptr::Ptr;
    DateTime() = default;
    DateTime(Core::Ptr<Interfaces::IDateTime> other) noexcept : Ptr(std::move(other)) {}

    static DateTime Now();
    static DateTime FromIso8601(const char* text);
    std::string Format() const;
};

class ObjectList : public Core::Ptr<Interfaces::IObjectList> {
public:
    using Ptr::Ptr;
    ObjectList() = default;
    ObjectList(Core::Ptr<Interfaces::IObjectList> other) noexcept : Ptr(std::move(other)) {}

    static ObjectList Create();
    uint64_t GetCount() const { return Get()->GetCount(); }
    // Borrowed item; an index at or above the count is an error.
    Core::IObject* GetItem(uint64_t index) const;
    void Append(Core::IObject* item) const;
};

class VariantDictionary : public Core::Ptr<Interfaces::IVariantDictionary> {
public:
    using Ptr::Ptr;
    VariantDictionary() = default;
    VariantDictionary(Core::Ptr<Interfaces::IVariantDictionary> other) noexcept : Ptr(std::move(other)) {}

    static VariantDictionary Create();
    void Set(const char* key, const Variant& value) const;
    std::optional<Variant> Find(const char* key) const;
};

} // namespace Data
