#include <gtest/gtest.h>

#include <string>

#include "Core/Ptr.h"
#include "Platform/Network/Url.h"

using Platform::Network::ParseServerUrl;
using Platform::Network::ParseUrl;
using Platform::Network::ServerUrl;
using Platform::Network::SplitServiceUrl;

namespace {

struct UrlCase {
    const char* input;
    const char* scheme;
    const char* host;
    uint32_t port;
    const char* path;
    const char* query;
    const char* fragment;
    bool defaultPort;
};

class UrlParse : public testing::TestWithParam<UrlCase> {};

TEST_P(UrlParse, CutsAddressIntoParts) {
    const UrlCase& c = GetParam();
    auto url = ParseUrl(c.input);
    EXPECT_STREQ(url->GetScheme(), c.scheme);
    EXPECT_STREQ(url->GetHost(), c.host);
    EXPECT_EQ(url->GetPort(), c.port);
    EXPECT_STREQ(url->GetPath(), c.path);
    EXPECT_STREQ(url->GetQuery(), c.query);
    EXPECT_STREQ(url->GetFragment(), c.fragment);
    EXPECT_EQ(url->IsDefaultPort(), c.defaultPort);
}

INSTANTIATE_TEST_SUITE_P(
    EdgeCases, UrlParse,
    testing::Values(
        UrlCase{"C:\\data\\tiles", "file", "localhost", 0, "C:/data/tiles", "", "", true},
        UrlCase{"\\\\?\\C:\\x\\y", "file", "localhost", 0, "//?/C:/x/y", "", "", true},
        UrlCase{"\\\\?\\C:\\x\\\\y?q#f", "file", "localhost", 0, "//?/C:/x/y", "q", "f", true},
        UrlCase{"http://a:8080/b//c?x=1#f", "http", "a", 8080, "b/c", "x=1", "f", false},
        UrlCase{"http://a/b#f", "http", "a", 80, "b#f", "", "", true},
        UrlCase{"http://a?x=1", "http", "a?x=1", 80, "", "", "", true},
        UrlCase{"http://a:b:c/", "http", "a", 80, "", "", "", true},
        UrlCase{"HTTP://a/", "HTTP", "a", 0, "", "", "", true},
        UrlCase{"http://", "http", "localhost", 80, "", "", "", true},
        UrlCase{"custom://h:1234/p", "custom", "h", 1234, "p", "", "", false},
        UrlCase{"http://a//", "http", "a", 80, "/", "", "", true},
        UrlCase{"https://h:443/p?", "https", "h", 443, "p", "", "", true},
        UrlCase{"https://h:80/p", "https", "h", 80, "p", "", "", false},
        UrlCase{"ftp://:21/x", "ftp", "21", 21, "x", "", "", true},
        UrlCase{"ssh://h/", "ssh", "h", 22, "", "", "", true},
        UrlCase{"sftp://h:22", "sftp", "h", 22, "", "", "", true},
        UrlCase{"http://h/a/b?c?d#e#f", "http", "h", 80, "a/b", "c?d", "e#f", true},
        UrlCase{"http://h/%20a?%41", "http", "h", 80, "%20a", "%41", "", true},
        UrlCase{"http://h/a\\b", "http", "h", 80, "a\\b", "", "", true},
        UrlCase{"http://h:8080abc/", "http", "h", 8080, "", "", "", false},
        UrlCase{"ab", "file", "localhost", 0, "ab", "", "", true},
        UrlCase{"", "file", "localhost", 0, "", "", "", true}));

struct UrlFailure {
    const char* input;
    const char* message;
};

class UrlParseFailure : public testing::TestWithParam<UrlFailure> {};

TEST_P(UrlParseFailure, ReportsTheConversionText) {
    Core::Ptr<Platform::Interfaces::IUrl> url;
    ASSERT_TRUE(Platform::Network::CreateUrl(url.ReceiveAddress()));
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(url->Parse(GetParam().input, error.ReceiveAddress()));
    ASSERT_TRUE(error.Raw());
    EXPECT_STREQ(error->GetMessage(), GetParam().message);
    // What was assigned before the failure stays.
    EXPECT_STREQ(url->GetScheme(), "http");
}

INSTANTIATE_TEST_SUITE_P(Ports, UrlParseFailure,
                         testing::Values(UrlFailure{"http://h:x/", "invalid stoi argument"},
                                         UrlFailure{"http://h:99999999999/", "stoi argument out of range"}));

TEST(Url, NullTextGivesGuardMessageAndNullErrorIsAllowed) {
    Core::Ptr<Platform::Interfaces::IUrl> url;
    ASSERT_TRUE(Platform::Network::CreateUrl(url.ReceiveAddress()));
    Core::Ptr<Core::IErrorCode> error;
    EXPECT_FALSE(url->Parse(nullptr, error.ReceiveAddress()));
    EXPECT_STREQ(error->GetMessage(), "Pointer of char must not be null!");
    EXPECT_FALSE(url->Parse("http://h:x/", nullptr));
    EXPECT_FALSE(Platform::Network::CreateUrl(nullptr));
    EXPECT_THROW(ParseUrl("http://h:x/"), std::runtime_error);
}

TEST(Url, SecondParseOverwritesOnlyWhatItReaches) {
    auto url = ParseUrl("http://a/p?q#f");
    ASSERT_TRUE(url->Parse("https://b:8443", nullptr));
    EXPECT_STREQ(url->GetScheme(), "https");
    EXPECT_STREQ(url->GetHost(), "b");
    EXPECT_EQ(url->GetPort(), 8443u);
    EXPECT_STREQ(url->GetPath(), "p");
    EXPECT_STREQ(url->GetQuery(), "q");
    EXPECT_STREQ(url->GetFragment(), "f");
    ASSERT_TRUE(url->Parse("http://c/x", nullptr));
    EXPECT_STREQ(url->GetPath(), "x");
    EXPECT_STREQ(url->GetQuery(), "q");
}

TEST(UrlHelpers, TrimLeadingAndSplitQuirks) {
    using Platform::Network::impl::SplitNonEmpty;
    using Platform::Network::impl::TrimLeading;
    EXPECT_EQ(TrimLeading("/", "/"), "");
    EXPECT_EQ(TrimLeading("//", "/"), "//");
    EXPECT_EQ(TrimLeading("//a", "/"), "a");
    EXPECT_EQ(TrimLeading("", "/"), "");
    EXPECT_EQ(SplitNonEmpty(":8080", ":"), (std::vector<std::string_view>{"8080"}));
    EXPECT_EQ(SplitNonEmpty("host:", ":"), (std::vector<std::string_view>{"host"}));
    EXPECT_EQ(SplitNonEmpty(":", ":"), (std::vector<std::string_view>{":"}));
    EXPECT_EQ(SplitNonEmpty("a\r\n\r\nb\r\n\r\n", "\r\n"), (std::vector<std::string_view>{"a", "b"}));
}

struct ServerCase {
    const char* input;
    const char* host;
    uint32_t port;
    bool secure;
};

class ServerUrlParse : public testing::TestWithParam<ServerCase> {};

TEST_P(ServerUrlParse, FindsHostPortAndSecurity) {
    ServerUrl server;
    ASSERT_TRUE(ParseServerUrl(GetParam().input, server));
    EXPECT_EQ(server.host, GetParam().host);
    EXPECT_EQ(server.port, GetParam().port);
    EXPECT_EQ(server.secure, GetParam().secure);
}

INSTANTIATE_TEST_SUITE_P(
    EdgeCases, ServerUrlParse,
    testing::Values(ServerCase{"server:8080/x", "server", 8080, true}, ServerCase{"http://a", "a", 80, false},
                    ServerCase{"https://a:8443/p/q", "a", 8443, true}, ServerCase{"https://a", "a", 443, true},
                    ServerCase{"a", "a", 443, true}, ServerCase{"http://a:b:c/", "", 80, false},
                    ServerCase{"http://a:x", "a", 0, false},
                    // The prefix is found anywhere but the first seven bytes are what goes.
                    ServerCase{"xyzabcdhttp://h", "http", 80, false}));

struct SplitCase {
    const char* address;
    const char* server;
    const char* path;
};

class ServiceUrlSplit : public testing::TestWithParam<SplitCase> {};

TEST_P(ServiceUrlSplit, SeparatesServerAndPath) {
    std::string server = "unset", path = "unset";
    SplitServiceUrl(GetParam().address, server, path);
    EXPECT_EQ(server, GetParam().server);
    EXPECT_EQ(path, GetParam().path);
}

INSTANTIATE_TEST_SUITE_P(
    EdgeCases, ServiceUrlSplit,
    testing::Values(SplitCase{"https://h/a/b", "https://h", "/a/b"}, SplitCase{"HTTP://h/a/", "http://h", "/a/"},
                    SplitCase{"http://h", "http://h", ""}, SplitCase{"a/b/c", "https://b", "/b/c"},
                    SplitCase{"http://h//wms//x", "http://h", "/wms/x"}, SplitCase{"single", "unset", "unset"},
                    SplitCase{"", "unset", "unset"}));

} // namespace
