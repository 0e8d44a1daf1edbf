#include <gtest/gtest.h>

#include <climits>
#include <string>
#include <unordered_map>
#include <vector>

#include "Core/Checked.h"
#include "Core/Fnv1a.h"
#include "Core/StringFormat.h"
#include "Core/TypeName.h"
#include "MessageOf.h"
#include "TestObjects.h"

using TestSupport::MessageOf;

TEST(StringFormat, FormatsAnyLength) {
    EXPECT_EQ(Core::StringFormat("%s-%d-%u", "a", -3, 4u), "a--3-4");
    EXPECT_EQ(Core::StringFormat("%.3f %s", 2.0166666, "minutes"), "2.017 minutes");
    const std::string big(100000, 'x');
    EXPECT_EQ(Core::StringFormat("[%s]", big.c_str()).size(), big.size() + 2);
}

TEST(TypeName, InterfacesClassesAndPlainTypes) {
    EXPECT_EQ(Core::TypeName<Tellar::Interfaces::IMapService>(), "struct Tellar::Interfaces::IMapService");
    EXPECT_EQ(Core::TypeName<TestSupport::Counted>(), "class TestSupport::Counted");
    EXPECT_EQ(Core::TypeName<const char>(), "char");
    TestSupport::Counted object;
    const Tellar::Interfaces::IMapService& asInterface = object;
    EXPECT_EQ(Core::RuntimeTypeName(asInterface), "class TestSupport::Counted");
}

TEST(Fnv1a, KnownValues) {
    EXPECT_EQ(Core::Fnv1a64(""), 0xcbf29ce484222325ULL);
    EXPECT_EQ(Core::Fnv1a64("foobar"), 0x85944171f73967e8ULL);
    const unsigned char bytes[] = {'f', 'o', 'o', 'b', 'a', 'r'};
    EXPECT_EQ(Core::Fnv1a64(bytes, sizeof bytes), Core::Fnv1a64("foobar"));
}

TEST(Checked, ConversionsCarryTheFixedTexts) {
    EXPECT_EQ(Core::Stoi(" 42abc"), 42);
    EXPECT_EQ(MessageOf([] { Core::Stoi("abc"); }), "invalid stoi argument");
    EXPECT_EQ(MessageOf([] { Core::Stoi(""); }), "invalid stoi argument");
    EXPECT_EQ(MessageOf([] { Core::Stoi("2147483648"); }), "stoi argument out of range");
    EXPECT_EQ(MessageOf([] { Core::Stoi("-99999999999999999999"); }), "stoi argument out of range");

    EXPECT_EQ(Core::Stoll("9223372036854775807"), LLONG_MAX);
    EXPECT_EQ(MessageOf([] { Core::Stoll("x1"); }), "invalid stoll argument");
    EXPECT_EQ(MessageOf([] { Core::Stoll("9223372036854775808"); }), "stoll argument out of range");

    size_t used = 0;
    EXPECT_DOUBLE_EQ(Core::Stod("-180.5 90", &used), -180.5);
    EXPECT_EQ(used, 6u);
    EXPECT_EQ(MessageOf([] { Core::Stod("north"); }), "invalid stod argument");
    EXPECT_EQ(MessageOf([] { Core::Stod("1e999"); }), "stod argument out of range");
}

TEST(Checked, IndexAndKeyLookups) {
    std::vector<int> values{1, 2};
    EXPECT_EQ(Core::At(values, 1), 2);
    EXPECT_EQ(MessageOf([&] { Core::At(values, 2); }), "invalid vector subscript");
    std::unordered_map<std::string, int> map{{"a", 1}};
    EXPECT_EQ(Core::MapAt(map, std::string("a")), 1);
    EXPECT_EQ(MessageOf([&] { Core::MapAt(map, std::string("b")); }), "invalid unordered_map<K, T> key");
}
