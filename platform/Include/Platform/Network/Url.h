#pragma once
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "Core/Ptr.h"
#include "Platform/Interfaces/IUrl.h"

namespace Platform::Network {

// A new, empty address object; false only for a null `ppUrl`.
bool CreateUrl(Interfaces::IUrl** ppUrl);

// Creates and parses; the text of a failure is thrown.
Core::Ptr<Interfaces::IUrl> ParseUrl(const char* text);

// Server part of a service address, as the HTTP client connects to it.
struct ServerUrl {
    std::string host;
    uint32_t port = 0;
    bool secure = false;
};

// Cuts "scheme://host:port/path" into host, port and security; the path is dropped. False
// when the address leaves nothing to take (`server` then stays as it was).
bool ParseServerUrl(std::string_view text, ServerUrl& server);

// Separates the server ("https://host") from the resource path ("/a/b") of an address.
void SplitServiceUrl(std::string_view address, std::string& server, std::string& path);

namespace impl {

// The non-empty pieces of `text` between occurrences of `delimiter`; the whole text when none.
std::vector<std::string_view> SplitNonEmpty(std::string_view text, std::string_view delimiter);

// Leading characters of `set` removed, except that one lone character in the set gives ""
// and a text made only of such characters (two or more) stays as it is.
std::string_view TrimLeading(std::string_view text, std::string_view set);

} // namespace impl

} // namespace Platform::Network
