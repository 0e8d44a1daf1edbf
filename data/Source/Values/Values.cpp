#include "Data/Values.h"

#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Data/Exports.h"

namespace Data {

Array Array::Create(uint64_t sizeInBytes) {
    Array array;
    Core::Ptr<Core::IErrorCode> error;
    Data_CreateArray(1, sizeInBytes, array.ReceiveAddress(), error.ReceiveAddress());
    Core::ThrowIfError(error);
    return array;
}

void Array::Resize(uint64_t count) const {
    Core::Ptr<Core::IErrorCode> error;
    Get()->_abi_Resize(count, error.ReceiveAddress());
    Core::ThrowIfError(error);
}

String String::Create(std::string_view text) {
    String string;
    Core::Ptr<Core::IErrorCode> error;
    Data_CreateString(string.ReceiveAddress(), error.ReceiveAddress());
    Core::ThrowIfError(error);
    if (!text.empty()) string.Assign(text);
    return string;
}

void String::Assign(const char* text, uint64_t length) const {
    Core::Ptr<Core::IErrorCode> error;
    Get()->_abi_Assign(text, length, error.ReceiveAddress());
    Core::ThrowIfError(error);
}

DateTime DateTime::Now() {
    DateTime dateTime;
    Core::Ptr<Core::IErrorCode> error;
    Data_CreateCurrentDateTime(dateTime.ReceiveAddress(), error.ReceiveAddress());
    Core::ThrowIfError(error);
    return dateTime;
}

DateTime DateTime::FromIso8601(const char* text) {
    DateTime dateTime;
    Core::Ptr<Core::IErrorCode> error;
    Data_CreateDateTimeFromIso8601(text, dateTime.ReceiveAddress(), error.ReceiveAddress());
    Core::ThrowIfError(error);
    return dateTime;
}

std::string DateTime::Format() const { return FormatDateTime(*Get()); }

ObjectList ObjectList::Create() {
    ObjectList list;
    Core::Ptr<Core::IErrorCode> error;
    Data_CreateObjectList(list.ReceiveAddress(), error.ReceiveAddress());
    Core::ThrowIfError(error);
    return list;
}

Core::IObject* ObjectList::GetItem(uint64_t index) const {
    if (index >= Get()->GetCount()) throw std::runtime_error("ObjectList index out of bounds");
    return Get()->GetItem(index);
}

void ObjectList::Append(Core::IObject* item) const {
    Core::Ptr<Core::IErrorCode> error;
    Get()->_abi_Append(item, error.ReceiveAddress());
    Core::ThrowIfError(error);
}

VariantDictionary VariantDictionary::Create() {
    VariantDictionary dictionary;
    Core::Ptr<Core::IErrorCode> error;
    Data_CreateVariantDictionary(dictionary.ReceiveAddress(), error.ReceiveAddress());
    Core::ThrowIfError(error);
    return dictionary;
}

void VariantDictionary::Set(const char* key, const Variant& value) const {
    Core::Ptr<Core::IErrorCode> error;
    Get()->_abi_Set(key, &value.Raw(), error.ReceiveAddress());
    Core::ThrowIfError(error);
}

std::optional<Variant> VariantDictionary::Find(const char* key) const {
    Structures::VARIANT raw{};
    Core::Ptr<Core::IErrorCode> error;
    const bool found = Get()->_abi_Get(key, &raw, error.ReceiveAddress());
    Core::ThrowIfError(error);
    if (!found) return std::nullopt;
    return Variant::Adopt(raw);
}

} // namespace Data
