#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "Data/Exports.h"
#include "Data/Values.h"
#include "MessageOf.h"

using TestSupport::MessageOf;

TEST(ValueLibrary, CreatorsFollowTheBoundaryConvention) {
    Data::Interfaces::IArray* array = nullptr;
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(Data_CreateArray(1, 4, nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(),
                 "Pointer to a pointer of struct Data::Interfaces::IArray must not be null! Address of return must be "
                 "specified!");
    error.Reset();
    ASSERT_TRUE(Data_CreateArray(1, 4, &array, error.ReceiveAddress()));
    Data::Interfaces::IArray* stale = array;
    EXPECT_FALSE(Data_CreateArray(1, 4, &stale, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(),
                 "Pointer of struct Data::Interfaces::IArray must be null in order to avoid memory leaks!");
    EXPECT_EQ(array->Release(), 0u);

    error.Reset();
    Data::Interfaces::IDateTime* dateTime = nullptr;
    EXPECT_FALSE(Data_CreateDateTimeFromIso8601(nullptr, &dateTime, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Pointer of char must not be null!");
    EXPECT_EQ(dateTime, nullptr);
}

TEST(ValueLibrary, ObjectsCastAcrossTheModuleBoundary) {
    // The objects are made inside libTellarData.so; casts here must still find their interfaces.
    Data::String text = Data::String::Create("abc");
    Core::Ptr<Core::IObject> asObject(text.Raw());
    EXPECT_EQ(asObject.As<Data::Interfaces::IString>().Raw(), text.Raw());
    EXPECT_THROW(asObject.As<Data::Interfaces::IArray>(), std::runtime_error);
}

TEST(Array, ResizeKeepsContentAndZeroFills) {
    auto array = Data::Array::Create(3);
    std::memcpy(array.GetData(), "abc", 3);
    array.Resize(6);
    EXPECT_EQ(array.GetSizeInBytes(), 6u);
    EXPECT_EQ(std::string(reinterpret_cast<char*>(array.GetData()), 6), std::string("abc\0\0\0", 6));
    EXPECT_THROW(array.Resize(UINT64_MAX), std::runtime_error);

    Data::Interfaces::IArray* wide = nullptr;
    ASSERT_TRUE(Data_CreateArray(8, 3, &wide, nullptr));
    EXPECT_EQ(wide->GetSizeInBytes(), 24u);
    EXPECT_EQ(wide->GetCount(), 3u);
    wide->Release();
}

TEST(String, AssignCopiesBytesIncludingZeros) {
    auto text = Data::String::Create();
    EXPECT_EQ(text.View(), "");
    const char raw[] = {'a', '\0', 'b'};
    text.Assign(raw, 3);
    EXPECT_EQ(text.View(), std::string_view(raw, 3));
    EXPECT_EQ(text->GetText()[3], '\0');
    EXPECT_EQ(MessageOf([&] { text.Assign(nullptr, 2); }), "Pointer of char must not be null!");
    text.Assign(nullptr, 0);
    EXPECT_EQ(text.View(), "");
}

TEST(ObjectList, IndexOutOfBoundsAndReferences) {
    auto list = Data::ObjectList::Create();
    auto item = Data::String::Create("x");
    list.Append(item.Raw());
    EXPECT_EQ(list.GetItem(0), item.Raw());
    EXPECT_EQ(MessageOf([&] { list.GetItem(1); }), "ObjectList index out of bounds");
    item->AddReference();
    EXPECT_EQ(item->Release(), 2u) << "the list holds one reference";
    list.Reset();
    item->AddReference();
    EXPECT_EQ(item->Release(), 1u);
}

TEST(VariantDictionary, StoresCopiesAndReleasesThem) {
    auto dictionary = Data::VariantDictionary::Create();
    auto array = Data::Array::Create(1);
    dictionary.Set("a", Data::Variant::FromObject(array));
    dictionary.Set("n", Data::Variant(int32_t{9}));
    EXPECT_EQ(dictionary.Find("n")->ToInt32(), 9);
    EXPECT_FALSE(dictionary.Find("missing").has_value());
    EXPECT_EQ(dictionary.Find("a")->ToArray().Raw(), array.Raw());

    dictionary.Set("a", Data::Variant(1.0)); // replacing releases the old payload
    array->AddReference();
    EXPECT_EQ(array->Release(), 1u);
    dictionary.Set("b", Data::Variant::FromObject(array));
    EXPECT_TRUE(dictionary->Remove("b"));
    EXPECT_FALSE(dictionary->Remove("b"));
    array->AddReference();
    EXPECT_EQ(array->Release(), 1u);
}
