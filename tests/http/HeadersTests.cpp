#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Core/Ptr.h"
#include "HeadersImpl.h"
#include "Platform/Network/Http/Headers.h"

namespace Http = Platform::Network::Http;
using Platform::Windows::Network::Http::AcceptTypesImpl;

namespace {

Core::Ptr<Platform::Interfaces::IHttpHeaders> NewHeaders() {
    Core::Ptr<Platform::Interfaces::IHttpHeaders> headers;
    EXPECT_TRUE(Http::CreateHttpHeaders(headers.ReceiveAddress()));
    return headers;
}

TEST(HttpHeaders, AddJoinsValuesOfOneNameInAnyCase) {
    auto headers = NewHeaders();
    headers->Add("Accept", "a");
    headers->Add("accept", "b");
    ASSERT_EQ(headers->GetCount(), 1u);
    EXPECT_STREQ(headers->GetNameAt(0), "Accept");
    EXPECT_STREQ(headers->Get("ACCEPT"), "a;b");
    EXPECT_EQ(headers->GetNameAt(1), nullptr);
}

TEST(HttpHeaders, AddAfterEmptyValueSetsIt) {
    auto headers = NewHeaders();
    headers->Add("X", "");
    headers->Add("x", "v");
    EXPECT_STREQ(headers->Get("X"), "v");
}

TEST(HttpHeaders, GetOfUnknownNameEntersIt) {
    auto headers = NewHeaders();
    EXPECT_STREQ(headers->Get("Missing"), "");
    EXPECT_EQ(headers->GetCount(), 1u);
    EXPECT_STREQ(headers->GetNameAt(0), "Missing");
    EXPECT_EQ(headers->GetNameAt(headers->GetCount()), nullptr);
}

TEST(HttpHeaders, GetNameAtWalksEveryEntryOnceThroughRehash) {
    auto headers = NewHeaders();
    std::vector<std::string> names;
    for (int i = 0; i < 40; ++i) {
        names.push_back("Name-" + std::to_string(i));
        headers->Add(names.back().c_str(), "v");
    }
    std::vector<std::string> seen;
    for (uint64_t i = 0; i < headers->GetCount(); ++i) seen.emplace_back(headers->GetNameAt(i));
    std::sort(seen.begin(), seen.end());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(seen, names);
}

TEST(HeaderTable, HashesLowerCasedBytesWithFnv1a) {
    Http::HeaderNameHash hash;
    EXPECT_EQ(hash("Content-Type"), hash("content-type"));
    EXPECT_EQ(hash("content-type"), static_cast<size_t>(Core::Fnv1a64("content-type")));
    Http::HeaderTable table;
    EXPECT_GE(table.bucket_count(), 8u);
    EXPECT_FLOAT_EQ(table.max_load_factor(), 1.0f);
}

struct ParseCase {
    const char* name;
    const char* text;
    std::vector<std::pair<const char*, const char*>> expected;
};

class ResponseHeaderParse : public testing::TestWithParam<ParseCase> {};

TEST_P(ResponseHeaderParse, BuildsTheTable) {
    const Http::HeaderTable table = Http::ParseResponseHeaders(GetParam().text);
    EXPECT_EQ(table.size(), GetParam().expected.size());
    for (const auto& [name, value] : GetParam().expected) {
        auto it = table.find(name);
        ASSERT_NE(it, table.end()) << name;
        EXPECT_EQ(it->second, value) << name;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Lines, ResponseHeaderParse,
    testing::Values(
        ParseCase{"Empty", "", {}},
        ParseCase{"StatusOnly", "HTTP/1.1 204 No Content\r\n\r\n", {{"Response", "HTTP/1.1 204 No Content"}}},
        ParseCase{"TwoSetCookieKeepsSecond",
                  "HTTP/1.1 200 OK\r\nSet-Cookie: a=1\r\nset-cookie: b=2\r\n\r\n",
                  {{"Response", "HTTP/1.1 200 OK"}, {"Set-Cookie", "b=2"}}},
        ParseCase{"ColonInValue", "HTTP/1.1 200 OK\r\nX: a:b\r\n", {{"Response", "HTTP/1.1 200 OK"}, {"x", "a:b"}}},
        ParseCase{"ValueTrimmedKeyNot",
                  "HTTP/1.1 200 OK\r\nName:   value  \r\n Key :\t\r\n",
                  {{"Response", "HTTP/1.1 200 OK"}, {"Name", "value"}, {" Key ", ""}}},
        ParseCase{"LineWithoutColon", "HTTP/1.1 200 OK\r\nnocolon\r\n", {{"Response", "HTTP/1.1 200 OK"}, {"nocolon", ""}}},
        ParseCase{"BlankLinesSkipped", "S\r\n\r\n\r\nA: 1\r\n\r\n", {{"Response", "S"}, {"A", "1"}}}),
    [](const testing::TestParamInfo<ParseCase>& info) { return std::string(info.param.name); });

TEST(AcceptTypes, AddContentTypeByNumber) {
    const std::vector<std::vector<std::string>> expected = {
        {},
        {"*/*"},
        {"text/plain"},
        {"text/html"},
        {"text/xml"},
        {"text/json"},
        {"text/*"},
        {"image/*;q=0.8", "image/jpeg;q=0.8"},
        {"image/jpeg;q=0.8"},
        {"image/png"},
        {"image/webp"},
        {"image/tiff"},
        {"image/gif"},
        {"application/*"},
        {"application/xml"},
        {"application/json"},
        {},
    };
    for (uint32_t number = 0; number < expected.size(); ++number) {
        Core::Ptr<Platform::Interfaces::IAcceptTypes> types;
        ASSERT_TRUE(Http::CreateAcceptTypes(types.ReceiveAddress()));
        Http::AddContentType(types.Raw(), number);
        EXPECT_EQ(static_cast<AcceptTypesImpl*>(types.Raw())->Types(), expected[number]) << number;
        EXPECT_EQ(types->GetCount(), static_cast<int64_t>(expected[number].size()));
    }
    EXPECT_FALSE(Http::CreateAcceptTypes(nullptr));
}

TEST(AcceptTypes, ClearRemovesAllAndOrderIsKept) {
    Core::Ptr<Platform::Interfaces::IAcceptTypes> types;
    ASSERT_TRUE(Http::CreateAcceptTypes(types.ReceiveAddress()));
    types->Add("b");
    types->Add("a");
    EXPECT_EQ(static_cast<AcceptTypesImpl*>(types.Raw())->Types(), (std::vector<std::string>{"b", "a"}));
    types->Clear();
    EXPECT_EQ(types->GetCount(), 0);
}

} // namespace
