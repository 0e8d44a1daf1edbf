#include "Data/Variant.h"

#include <cmath>
#include <limits>
#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "Data/Exports.h"

namespace Data {

using namespace Structures;

namespace detail {

void ThrowMustBeValueType() { throw std::runtime_error("Must be value type!"); }
void ThrowStringToPrimitive() { throw std::runtime_error("String cannot be converted to the primitive type!"); }
void ThrowInvalidValue() { throw std::runtime_error("Invalid value!"); }
void ThrowMustBeReferenceForCast() {
    throw std::runtime_error("Must be reference type! Must implement Core::IObject interface!");
}
void ThrowVariantCannotCast(const std::string& interfaceName) {
    throw std::runtime_error("Cannot cast to desired interface: Interface: " + Core::TypeName<Core::IObject>() +
                             " Implementation: " + interfaceName);
}

} // namespace detail

namespace {

template <class T>
T ReadPayload(const VARIANT& v) noexcept {
    T value;
    std::memcpy(&value, v.payload.bytes, sizeof value);
    return value;
}

bool IsReference(const VARIANT& v) noexcept {
    const uint32_t holding = VariantHoldingOf(v);
    return holding == VariantOwnedObject || holding == VariantBorrowedObject;
}

// Truncates a floating value to an integral type without undefined behaviour: NaN reads 0,
// values past the 64-bit range saturate, narrower targets wrap like an integer conversion.
template <class T>
T TruncateFloating(double value) noexcept {
    if (std::isnan(value)) return 0;
    if constexpr (std::is_same_v<T, uint64_t>) {
        constexpr double two63 = 9223372036854775808.0;
        if (value >= 18446744073709551616.0) return std::numeric_limits<uint64_t>::max();
        if (value >= two63) return static_cast<uint64_t>(static_cast<int64_t>(value - two63)) ^ (1ULL << 63);
        if (value <= -two63) return 1ULL << 63;
        return static_cast<uint64_t>(static_cast<int64_t>(value));
    } else {
        if (value >= 9223372036854775807.0) return static_cast<T>(std::numeric_limits<int64_t>::max());
        if (value <= -9223372036854775808.0) return static_cast<T>(std::numeric_limits<int64_t>::min());
        return static_cast<T>(static_cast<int64_t>(value));
    }
}

} // namespace

template <class T>
T Variant::ToIntegral() const {
    if (GetHolding() != 0) detail::ThrowMustBeValueType();
    const uint16_t tag = GetTag();
    if (tag == TagString) detail::ThrowStringToPrimitive();
    if ((tag >= TagInt16 && tag <= TagInt8) || tag == TagBool || tag == TagUuid) return ReadPayload<T>(v_);
    if (tag == TagDouble) return TruncateFloating<T>(ReadPayload<double>(v_));
    if (tag == TagFloat) return TruncateFloating<T>(ReadPayload<float>(v_));
    detail::ThrowMustBeValueType();
}

template int8_t Variant::ToIntegral<int8_t>() const;
template uint8_t Variant::ToIntegral<uint8_t>() const;
template int16_t Variant::ToIntegral<int16_t>() const;
template uint16_t Variant::ToIntegral<uint16_t>() const;
template int32_t Variant::ToIntegral<int32_t>() const;
template uint32_t Variant::ToIntegral<uint32_t>() const;
template int64_t Variant::ToIntegral<int64_t>() const;
template uint64_t Variant::ToIntegral<uint64_t>() const;

double Variant::ToDouble() const {
    if (GetHolding() != 0) detail::ThrowMustBeValueType();
    int64_t high = 0;
    std::memcpy(&high, v_.payload.bytes + 8, sizeof high);
    switch (GetTag()) {
    case TagString: detail::ThrowStringToPrimitive();
    case TagInt16: return ReadPayload<int16_t>(v_);
    case TagInt32: return ReadPayload<int32_t>(v_);
    case TagInt64: return static_cast<double>(ReadPayload<int64_t>(v_));
    case TagInt128: return static_cast<double>(ReadPayload<uint64_t>(v_)) + std::ldexp(static_cast<double>(high), 64);
    case TagUInt16: return ReadPayload<uint16_t>(v_);
    case TagUInt32: return ReadPayload<uint32_t>(v_);
    case TagUInt64: return static_cast<double>(ReadPayload<uint64_t>(v_));
    case TagUInt128:
        return static_cast<double>(ReadPayload<uint64_t>(v_)) +
               std::ldexp(static_cast<double>(static_cast<uint64_t>(high)), 64);
    case TagUInt8: return ReadPayload<uint8_t>(v_);
    case TagInt8: return ReadPayload<int8_t>(v_);
    case TagDouble: return ReadPayload<double>(v_);
    case TagFloat: return ReadPayload<float>(v_);
    case TagBool: return ReadPayload<uint8_t>(v_) != 0 ? 1.0 : 0.0;
    default: detail::ThrowInvalidValue();
    }
}

Variant Variant::FromInt128(uint64_t low, int64_t high) noexcept {
    Variant v;
    v.v_.type = TagInt128;
    std::memcpy(v.v_.payload.bytes, &low, 8);
    std::memcpy(v.v_.payload.bytes + 8, &high, 8);
    return v;
}

Variant Variant::FromUInt128(uint64_t low, uint64_t high) noexcept {
    Variant v = FromInt128(low, static_cast<int64_t>(high));
    v.v_.type = TagUInt128;
    return v;
}

Variant Variant::FromUuid(const Uuid& uuid) noexcept {
    Variant v;
    v.SetValue(TagUuid, uuid);
    return v;
}

Variant Variant::Owned(Core::IObject* object, uint16_t tag) noexcept {
    Variant v;
    v.v_.type = VariantOwnedObject | tag;
    v.v_.payload.object = object;
    if (object) object->AddReference();
    return v;
}

Variant Variant::Borrowed(Core::IObject* object, uint16_t tag) noexcept {
    Variant v;
    v.v_.type = VariantBorrowedObject | tag;
    v.v_.payload.object = object;
    return v;
}

Variant Variant::CopyFrom(const VARIANT& raw) noexcept {
    Variant v;
    v.v_ = VariantCopy(raw);
    return v;
}

Variant Variant::Adopt(const VARIANT& raw) noexcept {
    Variant v;
    v.v_ = raw;
    return v;
}

Core::IObject* Variant::ToObject() const {
    if (IsReference(v_)) return v_.payload.object;
    if (v_.type == TagEmpty) return nullptr;
    throw std::runtime_error("Must be reference type! Meaning: Must implement Core::IObject interface");
}

Core::Ptr<Interfaces::IDateTime> Variant::ToDateTime() const {
    if (v_.type == TagEmpty) return {};
    if (GetTag() != TagDateTime)
        throw std::runtime_error("Must be datetime type! Meaning: Must implement Data::IDateTime interface");
    Core::IObject* object = IsReference(v_) ? v_.payload.object : nullptr;
    if (!object) return {};
    auto* dateTime = dynamic_cast<Interfaces::IDateTime*>(object);
    if (!dateTime) throw std::runtime_error("Object does not implement Interfaces::IDateTime interface!");
    return Core::Ptr<Interfaces::IDateTime>(dateTime);
}

namespace {

Core::Ptr<Interfaces::IString> MakeString(const char* text, uint64_t length) {
    Core::Ptr<Interfaces::IString> string;
    Core::Ptr<Core::IErrorCode> error;
    Data_CreateString(string.ReceiveAddress(), error.ReceiveAddress());
    Core::ThrowIfError(error);
    string->_abi_Assign(text, length, error.ReceiveAddress());
    Core::ThrowIfError(error);
    return string;
}

// Text of a document whose size counts its terminating zero.
template <class Document>
std::string DocumentText(Core::IObject* object, const char* whenEmpty) {
    auto* document = dynamic_cast<Document*>(object);
    if (!document || document->GetSize() == 0 || !document->GetText()) return whenEmpty;
    return std::string(document->GetText(), static_cast<size_t>(document->GetSize() - 1));
}

constexpr const char* EmptyXml = "<?xml version=\"1.0\" encoding=\"UTF-8\"?>";

} // namespace

Core::Ptr<Interfaces::IString> Variant::ToDataString() const {
    const uint16_t tag = GetTag();
    if (tag != TagString && tag != TagJsonDocument && tag != TagXmlDocument)
        throw std::runtime_error("Must be string, json or xml!");
    if (tag == TagString) return ToInterface<Interfaces::IString>();
    Core::IObject* object = IsReference(v_) ? v_.payload.object : nullptr;
    const std::string text = tag == TagJsonDocument ? DocumentText<Interfaces::IJsonDocument>(object, "{}")
                                                    : DocumentText<Interfaces::IXmlDocument>(object, EmptyXml);
    return MakeString(text.data(), text.size());
}

std::string ToString(const Variant& value) {
    const VARIANT& v = value.Raw();
    Core::IObject* object = IsReference(v) ? v.payload.object : nullptr;
    switch (value.GetTag()) {
    case TagInt16: return std::to_string(ReadPayload<int16_t>(v));
    case TagInt32: return std::to_string(ReadPayload<int32_t>(v));
    case TagInt64: return std::to_string(ReadPayload<int64_t>(v));
    case TagInt128: return "Int128_ToStringNotImplemented";
    case TagUInt16: return std::to_string(ReadPayload<uint16_t>(v));
    case TagUInt32: return std::to_string(ReadPayload<uint32_t>(v));
    case TagUInt64: return std::to_string(ReadPayload<uint64_t>(v));
    case TagUInt128: return "UInt128_ToStringNotImplemented";
    case TagUInt8: return std::to_string(ReadPayload<uint8_t>(v));
    case TagInt8: return std::to_string(ReadPayload<int8_t>(v));
    case TagDouble: return std::to_string(ReadPayload<double>(v));
    case TagFloat: return std::to_string(static_cast<double>(ReadPayload<float>(v)));
    case TagBool: return ReadPayload<uint8_t>(v) != 0 ? "true" : "false";
    case TagUuid: {
        Core::Ptr<Interfaces::IString> text;
        Core::Ptr<Core::IErrorCode> error;
        const Uuid uuid = ReadPayload<Uuid>(v);
        Data_UuidToString(&uuid, text.ReceiveAddress(), error.ReceiveAddress());
        Core::ThrowIfError(error);
        return text->GetText();
    }
    case TagJsonDocument: return DocumentText<Interfaces::IJsonDocument>(object, "{}");
    case TagXmlDocument: return DocumentText<Interfaces::IXmlDocument>(object, EmptyXml);
    default: break;
    }

    const uint16_t tag = value.GetTag();
    if (tag < TagObject || tag > TagObjectList) return {};
    if (!object) return "null";
    switch (tag) {
    case TagArray:
        if (auto* array = dynamic_cast<Interfaces::IArray*>(object))
            return Core::StringFormat("[Array] (Stride: %d, Count: %d)", static_cast<int>(array->GetElementSize()),
                                      static_cast<int>(array->GetCount()));
        break;
    case TagString:
        if (auto* string = dynamic_cast<Interfaces::IString*>(object))
            return std::string(string->GetText(), static_cast<size_t>(string->GetLength()));
        break;
    case TagDateTime:
        if (auto* dateTime = dynamic_cast<Interfaces::IDateTime*>(object)) return FormatDateTime(*dateTime);
        break;
    case TagErrorCode:
        if (auto* error = dynamic_cast<Core::IErrorCode*>(object))
            return std::string(error->GetMessage(), error->GetMessageLength());
        break;
    case TagObjectList:
        if (auto* list = dynamic_cast<Interfaces::IObjectList*>(object)) {
            std::string text = "[ ";
            for (uint64_t i = 0; i < list->GetCount(); ++i) {
                Core::IObject* item = list->GetItem(i);
                text += Core::StringFormat("%s ", item ? Core::RuntimeTypeName(*item).c_str() : "null");
            }
            return text + "]";
        }
        break;
    default: break;
    }
    return Core::StringFormat("%s", Core::RuntimeTypeName(*object).c_str());
}

std::string FormatDateTime(const Interfaces::IDateTime& dateTime) {
    return Core::StringFormat("%04d-%02d-%02dT%02d:%02d:%02d.%03dZ", dateTime.GetYear(), dateTime.GetMonth(),
                              dateTime.GetDay(), dateTime.GetHour(), dateTime.GetMinute(), dateTime.GetSecond(),
                              dateTime.GetNanoseconds() / 1000000);
}

} // namespace Data
