#pragma once
#include <cstdint>
#include <cstring>
#include <string>
#include <type_traits>

#include "Core/ErrorCode.h"
#include "Core/Ptr.h"
#include "Data/Interfaces/IArray.h"
#include "Data/Interfaces/IDateTime.h"
#include "Data/Interfaces/IObjectList.h"
#include "Data/Interfaces/IString.h"
#include "Data/Structures.h"
#include "Data/VariantOps.h"

namespace Data {

// The tag a variant gets for an object of interface I.
template <class I>
constexpr uint16_t VariantTagFor() {
    using namespace Structures;
    if constexpr (std::is_same_v<I, Interfaces::IArray>)
        return TagArray;
    else if constexpr (std::is_same_v<I, Interfaces::IString>)
        return TagString;
    else if constexpr (std::is_same_v<I, Interfaces::IDateTime>)
        return TagDateTime;
    else if constexpr (std::is_same_v<I, Interfaces::IJsonDocument>)
        return TagJsonDocument;
    else if constexpr (std::is_same_v<I, Interfaces::IXmlDocument>)
        return TagXmlDocument;
    else if constexpr (std::is_same_v<I, Core::IErrorCode>)
        return TagErrorCode;
    else if constexpr (std::is_same_v<I, Interfaces::IObjectList>)
        return TagObjectList;
    else
        return TagObject;
}

namespace detail {
[[noreturn]] void ThrowMustBeValueType();
[[noreturn]] void ThrowStringToPrimitive();
[[noreturn]] void ThrowInvalidValue();
[[noreturn]] void ThrowMustBeReferenceForCast();
[[noreturn]] void ThrowVariantCannotCast(const std::string& interfaceName);
} // namespace detail

// Owning wrapper of the plain variant: an owned object payload is released with it.
class Variant {
public:
    Variant() noexcept = default;
    ~Variant() { Structures::VariantClear(v_); }

    Variant(const Variant& other) noexcept : v_(Structures::VariantCopy(other.v_)) {}
    Variant(Variant&& other) noexcept : v_(other.v_) { other.v_ = Structures::VARIANT{}; }
    Variant& operator=(const Variant& other) noexcept {
        Variant(other).Swap(*this);
        return *this;
    }
    Variant& operator=(Variant&& other) noexcept {
        Variant(std::move(other)).Swap(*this);
        return *this;
    }
    void Swap(Variant& other) noexcept { std::swap(v_, other.v_); }

    Variant(int8_t value) noexcept { SetValue(Structures::TagInt8, value); }
    Variant(uint8_t value) noexcept { SetValue(Structures::TagUInt8, value); }
    Variant(int16_t value) noexcept { SetValue(Structures::TagInt16, value); }
    Variant(uint16_t value) noexcept { SetValue(Structures::TagUInt16, value); }
    Variant(int32_t value) noexcept { SetValue(Structures::TagInt32, value); }
    Variant(uint32_t value) noexcept { SetValue(Structures::TagUInt32, value); }
    Variant(int64_t value) noexcept { SetValue(Structures::TagInt64, value); }
    Variant(uint64_t value) noexcept { SetValue(Structures::TagUInt64, value); }
    Variant(float value) noexcept { SetValue(Structures::TagFloat, value); }
    Variant(double value) noexcept { SetValue(Structures::TagDouble, value); }
    Variant(bool value) noexcept { SetValue(Structures::TagBool, value); }

    static Variant FromInt128(uint64_t low, int64_t high) noexcept;
    static Variant FromUInt128(uint64_t low, uint64_t high) noexcept;
    static Variant FromUuid(const Structures::Uuid& uuid) noexcept;

    // A variant that holds its own reference to the object; the tag follows the interface.
    template <class I>
    static Variant FromObject(const Core::Ptr<I>& object) noexcept {
        return Owned(object.Raw(), VariantTagFor<I>());
    }
    static Variant Owned(Core::IObject* object, uint16_t tag) noexcept;
    // A variant that only points at an object someone else keeps alive.
    static Variant Borrowed(Core::IObject* object, uint16_t tag) noexcept;

    // Copies a plain variant (taking a reference of its own) or adopts one (taking over its reference).
    static Variant CopyFrom(const Structures::VARIANT& raw) noexcept;
    static Variant Adopt(const Structures::VARIANT& raw) noexcept;

    uint32_t GetType() const noexcept { return v_.type; }
    uint16_t GetTag() const noexcept { return Structures::VariantTagOf(v_); }
    uint32_t GetHolding() const noexcept { return Structures::VariantHoldingOf(v_); }
    bool IsEmpty() const noexcept { return v_.type == Structures::TagEmpty; }
    const Structures::VARIANT& Raw() const noexcept { return v_; }
    // Hands the plain variant and its reference to the caller, leaving this one empty.
    Structures::VARIANT Detach() noexcept {
        Structures::VARIANT raw = v_;
        v_ = Structures::VARIANT{};
        return raw;
    }

    int8_t ToInt8() const { return ToIntegral<int8_t>(); }
    uint8_t ToUInt8() const { return ToIntegral<uint8_t>(); }
    int16_t ToInt16() const { return ToIntegral<int16_t>(); }
    uint16_t ToUInt16() const { return ToIntegral<uint16_t>(); }
    int32_t ToInt32() const { return ToIntegral<int32_t>(); }
    uint32_t ToUInt32() const { return ToIntegral<uint32_t>(); }
    int64_t ToInt64() const { return ToIntegral<int64_t>(); }
    uint64_t ToUInt64() const { return ToIntegral<uint64_t>(); }
    bool ToBool() const { return ToIntegral<uint8_t>() != 0; }
    float ToFloat() const { return static_cast<float>(ToDouble()); }
    double ToDouble() const;

    // The object held, borrowed; null for the empty variant.
    Core::IObject* ToObject() const;

    // The object held, cast to I, with a reference of its own; empty for a null payload.
    template <class I>
    Core::Ptr<I> ToInterface() const {
        if (GetHolding() != Structures::VariantOwnedObject && GetHolding() != Structures::VariantBorrowedObject)
            detail::ThrowMustBeReferenceForCast();
        Core::IObject* object = v_.payload.object;
        if (!object) return {};
        I* cast = dynamic_cast<I*>(object);
        if (!cast) detail::ThrowVariantCannotCast(Core::TypeName<I>());
        return Core::Ptr<I>(cast);
    }
    Core::Ptr<Core::IErrorCode> ToErrorCode() const { return ToInterface<Core::IErrorCode>(); }
    Core::Ptr<Interfaces::IArray> ToArray() const { return ToInterface<Interfaces::IArray>(); }
    Core::Ptr<Interfaces::IObjectList> ToObjectList() const { return ToInterface<Interfaces::IObjectList>(); }

    Core::Ptr<Interfaces::IDateTime> ToDateTime() const;
    // A string object for string, JSON and XML variants.
    Core::Ptr<Interfaces::IString> ToDataString() const;

private:
    template <class T>
    void SetValue(uint16_t tag, T value) noexcept {
        v_.type = tag;
        std::memcpy(v_.payload.bytes, &value, sizeof value);
    }

    template <class T>
    T ToIntegral() const;

    Structures::VARIANT v_{};
};

// Text form of a variant, by tag.
std::string ToString(const Variant& value);

// "YYYY-MM-DDThh:mm:ss.mmmZ", the milliseconds truncated from the nanoseconds.
std::string FormatDateTime(const Interfaces::IDateTime& dateTime);

} // namespace Data
