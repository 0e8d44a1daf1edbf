#include <gtest/gtest.h>

#include <string>

#include "Core/Ptr.h"
#include "Platform/Network/Url.h"

namespace Net = Platform::Network;

namespace {

TEST(Url, CutsAddressIntoParts) {
    struct Case {
        const char *input, *scheme, *host;
        uint32_t port;
        const char *path, *query, *fragment;
        bool defaultPort;
    } cases[] = {
        {"C:\\data\\tiles", "file", "localhost", 0, "C:/data/tiles", "", "", true},
        {"\\\\?\\C:\\x\\y", "file", "localhost", 0, "//?/C:/x/y", "", "", true},
        {"\\\\?\\C:\\x\\\\y?q#f", "file", "localhost", 0, "//?/C:/x/y", "q", "f", true},
        {"http://a:8080/b//c?x=1#f", "http", "a", 8080, "b/c", "x=1", "f", false},
        {"http://a/b#f", "http", "a", 80, "b#f", "", "", true},
        {"http://a?x=1", "http", "a?x=1", 80, "", "", "", true},
        {"http://a:b:c/", "http", "a", 80, "", "", "", true},
        {"HTTP://a/", "HTTP", "a", 0, "", "", "", true},
        {"http://", "http", "localhost", 80, "", "", "", true},
        {"custom://h:1234/p", "custom", "h", 1234, "p", "", "", false},
        {"http://a//", "http", "a", 80, "/", "", "", true},
        {"https://h:443/p?", "https", "h", 443, "p", "", "", true},
        {"https://h:80/p", "https", "h", 80, "p", "", "", false},
        {"ftp://:21/x", "ftp", "21", 21, "x", "", "", true},
        {"ssh://h/", "ssh", "h", 22, "", "", "", true},
        {"sftp://h:22", "sftp", "h", 22, "", "", "", true},
        {"http://h/a/b?c?d#e#f", "http", "h", 80, "a/b", "c?d", "e#f", true},
        {"http://h/%20a?%41", "http", "h", 80, "%20a", "%41", "", true},
        {"http://h/a\\b", "http", "h", 80, "a\\b", "", "", true},
        {"http://h:8080abc/", "http", "h", 8080, "", "", "", false},
        {"ab", "file", "localhost", 0, "ab", "", "", true},
        {"", "file", "localhost", 0, "", "", "", true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.input);
        auto url = Net::ParseUrl(c.input);
        EXPECT_STREQ(url->GetScheme(), c.scheme);
        EXPECT_STREQ(url->GetHost(), c.host);
        EXPECT_EQ(url->GetPort(), c.port);
        EXPECT_STREQ(url->GetPath(), c.path);
        EXPECT_STREQ(url->GetQuery(), c.query);
        EXPECT_STREQ(url->GetFragment(), c.fragment);
        EXPECT_EQ(url->IsDefaultPort(), c.defaultPort);
    }
}

TEST(Url, FailuresReportTheirTextAndKeepWhatWasAssigned) {
    struct Case {
        const char *input, *message;
    } cases[] = {{"http://h:x/", "invalid stoi argument"},
                 {"http://h:99999999999/", "stoi argument out of range"},
                 {nullptr, "Pointer of char must not be null!"}};
    for (const auto& c : cases) {
        Core::Ptr<Platform::Interfaces::IUrl> url = Net::ParseUrl("http://a/");
        Core::Ptr<Core::IErrorCode> error;
        EXPECT_FALSE(url->Parse(c.input, error.ReceiveAddress()));
        ASSERT_TRUE(error.Raw());
        EXPECT_STREQ(error->GetMessage(), c.message);
        EXPECT_FALSE(url->Parse(c.input, nullptr));
    }
    auto url = Net::ParseUrl("ftp://a/");
    EXPECT_FALSE(url->Parse("http://h:x/", nullptr));
    EXPECT_STREQ(url->GetScheme(), "http");
    EXPECT_STREQ(url->GetHost(), "h");
    EXPECT_FALSE(Net::CreateUrl(nullptr));
    EXPECT_THROW(Net::ParseUrl("http://h:x/"), std::runtime_error);
}

TEST(Url, SecondParseOverwritesOnlyWhatItReaches) {
    auto url = Net::ParseUrl("http://a/p?q#f");
    ASSERT_TRUE(url->Parse("https://b:8443", nullptr));
    EXPECT_STREQ(url->GetHost(), "b");
    EXPECT_EQ(url->GetPort(), 8443u);
    EXPECT_STREQ(url->GetPath(), "p");
    EXPECT_STREQ(url->GetFragment(), "f");
    ASSERT_TRUE(url->Parse("http://c/x", nullptr));
    EXPECT_STREQ(url->GetPath(), "x");
    EXPECT_STREQ(url->GetQuery(), "q");
}

TEST(UrlHelpers, TrimLeadingAndSplitQuirks) {
    using Net::impl::SplitNonEmpty;
    using Net::impl::TrimLeading;
    EXPECT_EQ(TrimLeading("/", "/"), "");
    EXPECT_EQ(TrimLeading("//", "/"), "//");
    EXPECT_EQ(TrimLeading("//a", "/"), "a");
    EXPECT_EQ(SplitNonEmpty(":8080", ":"), (std::vector<std::string_view>{"8080"}));
    EXPECT_EQ(SplitNonEmpty(":", ":"), (std::vector<std::string_view>{":"}));
    EXPECT_EQ(SplitNonEmpty("a\r\n\r\nb\r\n\r\n", "\r\n"), (std::vector<std::string_view>{"a", "b"}));
}

TEST(ServerUrl, FindsHostPortAndSecurity) {
    struct Case {
        const char *input, *host;
        uint32_t port;
        bool secure;
    } cases[] = {{"server:8080/x", "server", 8080, true}, {"http://a", "a", 80, false},
                 {"https://a:8443/p/q", "a", 8443, true}, {"https://a", "a", 443, true},
                 {"a", "a", 443, true},                   {"http://a:b:c/", "", 80, false},
                 {"http://a:x", "a", 0, false},
                 // The prefix is found anywhere but the first seven bytes are what goes.
                 {"xyzabcdhttp://h", "http", 80, false}};
    for (const auto& c : cases) {
        Net::ServerUrl server;
        ASSERT_TRUE(Net::ParseServerUrl(c.input, server)) << c.input;
        EXPECT_EQ(server.host, c.host) << c.input;
        EXPECT_EQ(server.port, c.port) << c.input;
        EXPECT_EQ(server.secure, c.secure) << c.input;
    }
}

TEST(ServiceUrl, SeparatesServerAndPath) {
    struct Case {
        const char *address, *server, *path;
    } cases[] = {{"https://h/a/b", "https://h", "/a/b"}, {"HTTP://h/a/", "http://h", "/a/"},
                 {"http://h", "http://h", ""},           {"a/b/c", "https://b", "/b/c"},
                 {"http://h//wms//x", "http://h", "/wms/x"}, {"single", "unset", "unset"},
                 {"", "unset", "unset"}};
    for (const auto& c : cases) {
        std::string server = "unset", path = "unset";
        Net::SplitServiceUrl(c.address, server, path);
        EXPECT_EQ(server, c.server) << c.address;
        EXPECT_EQ(path, c.path) << c.address;
    }
}

} // namespace
