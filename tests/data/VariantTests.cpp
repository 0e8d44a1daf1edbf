#include <gtest/gtest.h>

#include <cmath>
#include <string>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Data/Values.h"
#include "Data/Variant.h"
#include "MessageOf.h"

using TestSupport::MessageOf;

using Data::Variant;
namespace S = Data::Structures;

namespace {

class JsonDoc final : public Core::ObjectImplBase<Data::Interfaces::IJsonDocument> {
public:
    explicit JsonDoc(std::string text, bool counted = true) : text_(std::move(text)), counted_(counted) {}
    const char* GetText() const noexcept override { return text_.c_str(); }
    uint64_t GetSize() const noexcept override { return counted_ ? text_.size() + 1 : 0; }

private:
    std::string text_;
    bool counted_;
};

} // namespace

TEST(Variant, NumericConversionsReadTheirOwnWidth) {
    EXPECT_EQ(Variant(int32_t{-5}).ToInt64(), 0xFFFFFFFBLL) << "an int32 read as int64 keeps its 32 bits";
    EXPECT_EQ(Variant(uint8_t{200}).ToInt8(), -56);
    EXPECT_EQ(Variant(int64_t{1} << 40).ToInt32(), 0);
    EXPECT_EQ(Variant(true).ToInt32(), 1);
    EXPECT_EQ(Variant(3.9).ToInt32(), 3);
    EXPECT_EQ(Variant(-3.9).ToInt32(), -3);
    EXPECT_EQ(Variant(2.5f).ToUInt16(), 2);
    EXPECT_EQ(Variant(1.8446744073709550e19).ToUInt64(), 18446744073709549568ULL);
    EXPECT_EQ(Variant(std::nan("")).ToInt32(), 0);
    EXPECT_EQ(Variant(int16_t{-2}).ToDouble(), -2.0);
    EXPECT_FLOAT_EQ(Variant(uint64_t{3}).ToFloat(), 3.0f);
    EXPECT_EQ(Variant::FromInt128(5, 1).ToDouble(), 5.0 + std::ldexp(1.0, 64));
    EXPECT_EQ(Variant::FromUInt128(0, 2).ToDouble(), std::ldexp(2.0, 64));
}

TEST(Variant, ConversionFailuresHaveTheirTexts) {
    auto string = Data::String::Create("12");
    Variant owned = Variant::FromObject(string);
    EXPECT_EQ(owned.GetType(), 0x10013u);
    EXPECT_EQ(MessageOf([&] { owned.ToInt32(); }), "Must be value type!");
    EXPECT_EQ(MessageOf([&] { owned.ToDouble(); }), "Must be value type!");

    S::VARIANT plainString{};
    plainString.type = S::TagString;
    Variant valueString = Variant::CopyFrom(plainString);
    EXPECT_EQ(MessageOf([&] { valueString.ToInt32(); }), "String cannot be converted to the primitive type!");
    EXPECT_EQ(MessageOf([&] { valueString.ToFloat(); }), "String cannot be converted to the primitive type!");

    Variant empty;
    EXPECT_EQ(MessageOf([&] { empty.ToInt32(); }), "Must be value type!");
    EXPECT_EQ(MessageOf([&] { empty.ToDouble(); }), "Invalid value!");
    EXPECT_EQ(MessageOf([&] { Variant::FromUuid({}).ToDouble(); }), "Invalid value!");
    EXPECT_EQ(Variant::FromUuid({0x01020304, 0, 0, {}}).ToInt16(), 0x0304);

    EXPECT_EQ(empty.ToObject(), nullptr);
    EXPECT_EQ(MessageOf([] { Variant(1).ToObject(); }),
              "Must be reference type! Meaning: Must implement Core::IObject interface");
    EXPECT_EQ(MessageOf([] { Variant(1).ToArray(); }),
              "Must be reference type! Must implement Core::IObject interface!");
    EXPECT_EQ(MessageOf([&] { owned.ToArray(); }),
              "Cannot cast to desired interface: Interface: struct Core::IObject Implementation: struct "
              "Data::Interfaces::IArray");
    EXPECT_TRUE(Variant::Owned(nullptr, S::TagArray).ToArray().IsNull());

    EXPECT_EQ(MessageOf([] { Variant(1).ToDateTime(); }),
              "Must be datetime type! Meaning: Must implement Data::IDateTime interface");
    EXPECT_EQ(MessageOf([&] { Variant::Owned(string.Raw(), S::TagDateTime).ToDateTime(); }),
              "Object does not implement Interfaces::IDateTime interface!");
    EXPECT_TRUE(empty.ToDateTime().IsNull());
    EXPECT_EQ(MessageOf([] { Variant(1).ToDataString(); }), "Must be string, json or xml!");
}

TEST(Variant, OwnedPayloadKeepsOneReferencePerCopy) {
    auto array = Data::Array::Create(4);
    {
        Variant a = Variant::FromObject(array);
        EXPECT_EQ(a.GetType(), 0x10012u);
        Variant b = a;
        Variant c = std::move(b);
        array->AddReference();
        EXPECT_EQ(array->Release(), 3u);
        Variant borrowed = Variant::Borrowed(array.Raw(), S::TagArray);
        EXPECT_EQ(borrowed.GetHolding(), 0x20000u);
        EXPECT_EQ(borrowed.ToArray().Raw(), array.Raw());
        a = Variant(5);
    }
    array->AddReference();
    EXPECT_EQ(array->Release(), 1u);

    auto error = Core::MakeErrorCode(2, "failed");
    Variant errorValue = Variant::FromObject(error);
    EXPECT_EQ(errorValue.GetType(), 0x10018u);
    EXPECT_STREQ(errorValue.ToErrorCode()->GetMessage(), "failed");
}

TEST(Variant, TextForms) {
    EXPECT_EQ(Data::ToString(Variant(int16_t{-3})), "-3");
    EXPECT_EQ(Data::ToString(Variant(uint8_t{255})), "255");
    EXPECT_EQ(Data::ToString(Variant(uint64_t{18446744073709551615ULL})), "18446744073709551615");
    EXPECT_EQ(Data::ToString(Variant(1.5)), "1.500000");
    EXPECT_EQ(Data::ToString(Variant(0.25f)), "0.250000");
    EXPECT_EQ(Data::ToString(Variant(true)), "true");
    EXPECT_EQ(Data::ToString(Variant::FromInt128(1, 0)), "Int128_ToStringNotImplemented");
    EXPECT_EQ(Data::ToString(Variant::FromUInt128(1, 0)), "UInt128_ToStringNotImplemented");
    EXPECT_EQ(Data::ToString(Variant::FromUuid({0x12345678, 0x9abc, 0xdef0, {1, 2, 3, 4, 5, 6, 7, 8}})),
              "12345678-9abc-def0-0102-030405060708");

    EXPECT_EQ(Data::ToString(Variant::FromObject(Data::Array::Create(12))), "[Array] (Stride: 1, Count: 12)");
    EXPECT_EQ(Data::ToString(Variant::FromObject(Data::String::Create("hello"))), "hello");
    EXPECT_EQ(Data::ToString(Variant::FromObject(Core::MakeErrorCode(0, "bad"))), "bad");
    EXPECT_EQ(Data::ToString(Variant::FromObject(Data::DateTime::FromIso8601("2024-02-29T23:59:59.999999999Z"))),
              "2024-02-29T23:59:59.999Z");
    EXPECT_EQ(Data::ToString(Variant::Owned(nullptr, S::TagObject)), "null");

    auto list = Data::ObjectList::Create();
    list.Append(Data::String::Create("x").Raw());
    list.Append(Data::Array::Create(1).Raw());
    const std::string listText = Data::ToString(Variant::FromObject(list));
    EXPECT_EQ(listText.substr(0, 2), "[ ");
    EXPECT_NE(listText.find("StringImpl "), std::string::npos) << listText;
    EXPECT_NE(listText.find("ArrayImpl "), std::string::npos) << listText;
    EXPECT_EQ(listText.back(), ']');

    Core::Ptr<Data::Interfaces::IJsonDocument> json = Core::MakeObject<JsonDoc>("{\"a\":1}");
    EXPECT_EQ(Data::ToString(Variant::FromObject(json)), "{\"a\":1}");
    EXPECT_EQ(Variant::FromObject(json).ToDataString()->GetLength(), 7u);
    Core::Ptr<Data::Interfaces::IJsonDocument> emptyJson = Core::MakeObject<JsonDoc>("", false);
    EXPECT_EQ(Data::ToString(Variant::FromObject(emptyJson)), "{}");
    EXPECT_EQ(Data::ToString(Variant::Owned(nullptr, S::TagXmlDocument)), "<?xml version=\"1.0\" encoding=\"UTF-8\"?>");
}
