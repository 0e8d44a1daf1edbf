#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Core/Ptr.h"
#include "HeadersImpl.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/ResponseHeaders.h"

namespace Http = Platform::Network::Http;
using Platform::Windows::Network::Http::AcceptTypesImpl;

namespace {

TEST(HttpHeaders, AddJoinsOneNameInAnyCaseAndGetEntersUnknownNames) {
    Core::Ptr<Platform::Interfaces::IHttpHeaders> headers;
    ASSERT_TRUE(Http::CreateHttpHeaders(headers.ReceiveAddress()));
    headers->Add("Accept", "a");
    headers->Add("accept", "b");
    headers->Add("X", "");
    headers->Add("x", "v"); // after an empty value: set, not joined
    EXPECT_STREQ(headers->Get("ACCEPT"), "a;b");
    EXPECT_STREQ(headers->Get("X"), "v");
    EXPECT_EQ(headers->GetCount(), 2u);
    EXPECT_STREQ(headers->Get("Missing"), "");
    EXPECT_EQ(headers->GetCount(), 3u);
    EXPECT_EQ(headers->GetNameAt(3), nullptr);

    // Every name once, through the rehashes of many additions.
    std::vector<std::string> names = {"Accept", "X", "Missing"}, seen;
    for (int i = 0; i < 40; ++i) headers->Add(names.emplace_back("Name-" + std::to_string(i)).c_str(), "v");
    for (uint64_t i = 0; i < headers->GetCount(); ++i) seen.emplace_back(headers->GetNameAt(i));
    std::sort(seen.begin(), seen.end());
    std::sort(names.begin(), names.end());
    EXPECT_EQ(seen, names);
}

TEST(ResponseHeaders, ParseBuildsTheTable) {
    struct Case {
        const char *name, *text;
        std::vector<std::pair<const char*, const char*>> expected;
    } cases[] = {
        {"Empty", "", {}},
        {"StatusOnly", "HTTP/1.1 204 No Content\r\n\r\n", {{"Response", "HTTP/1.1 204 No Content"}}},
        {"TwoSetCookieKeepsSecond", "S\r\nSet-Cookie: a=1\r\nset-cookie: b=2\r\n\r\n", {{"Response", "S"}, {"Set-Cookie", "b=2"}}},
        {"ColonInValue", "S\r\nX: a:b\r\n", {{"Response", "S"}, {"x", "a:b"}}},
        {"ValueTrimmedKeyNot", "S\r\nName:   value  \r\n Key :\t\r\n", {{"Response", "S"}, {"Name", "value"}, {" Key ", ""}}},
        {"LineWithoutColon", "S\r\nnocolon\r\n", {{"Response", "S"}, {"nocolon", ""}}},
        {"BlankLinesSkipped", "S\r\n\r\n\r\nA: 1\r\n\r\n", {{"Response", "S"}, {"A", "1"}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const Http::HeaderTable table = Http::ParseResponseHeaders(c.text);
        EXPECT_EQ(table.size(), c.expected.size());
        for (const auto& [name, value] : c.expected) {
            auto it = table.find(name);
            ASSERT_NE(it, table.end()) << name;
            EXPECT_EQ(it->second, value) << name;
        }
    }
}

TEST(ResponseHeaders, FindsTheLastValueInAnyCaseAndKeepsValuesInPlace) {
    // Short enough to sit inside the string object: moving the headers must not lose the values.
    Http::ResponseHeaders small(std::string("S\r\nA: 1"));
    const Http::ResponseHeaders moved = std::move(small);
    EXPECT_STREQ(moved.Find("a"), "1");
    EXPECT_STREQ(moved.Find("Response"), "S");

    Http::ResponseHeaders headers(std::string("HTTP/1.1 200 OK\r\nSet-Cookie: a=1 \r\nset-cookie:b=2\r\nEmpty:\r\n\r\n"));
    EXPECT_STREQ(headers.Find("SET-COOKIE"), "b=2");
    EXPECT_STREQ(headers.Find("Empty"), "");
    EXPECT_EQ(headers.Find("Content-Length"), nullptr);
    EXPECT_EQ(headers.Find("Set-Cookie: a"), nullptr);
    ASSERT_EQ(headers.Count(), 4u);
    EXPECT_EQ(headers.NameAt(1), "Set-Cookie");
    EXPECT_EQ(headers.ValueViewAt(1), "a=1");

    const char* before = headers.Find("Response");
    headers.EnterMissing("Content-Length");
    headers.EnterMissing("empty"); // present: nothing added
    EXPECT_EQ(headers.Count(), 5u);
    EXPECT_STREQ(headers.Find("content-length"), "");
    EXPECT_EQ(headers.Find("Response"), before);
    EXPECT_STREQ(before, "HTTP/1.1 200 OK");
}

TEST(AcceptTypes, AddContentTypeByNumber) {
    const std::vector<std::vector<std::string>> expected = {
        {},           {"*/*"},         {"text/plain"}, {"text/html"},  {"text/xml"},      {"text/json"},
        {"text/*"},   {"image/*;q=0.8", "image/jpeg;q=0.8"},            {"image/jpeg;q=0.8"},
        {"image/png"}, {"image/webp"}, {"image/tiff"}, {"image/gif"},  {"application/*"}, {"application/xml"},
        {"application/json"}, {},
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

} // namespace
