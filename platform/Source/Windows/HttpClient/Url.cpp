#include "Platform/Network/Url.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <stdexcept>

#include "Core/AbiGuard.h"
#include "Core/Checked.h"
#include "UrlImpl.h"

namespace Platform::Network {

namespace impl {

std::vector<std::string_view> SplitNonEmpty(std::string_view text, std::string_view delimiter) {
    std::vector<std::string_view> pieces;
    size_t start = 0;
    while (start <= text.size()) {
        const size_t found = text.find(delimiter, start);
        const size_t end = found == std::string_view::npos ? text.size() : found;
        if (end > start) pieces.push_back(text.substr(start, end - start));
        if (found == std::string_view::npos) break;
        start = found + delimiter.size();
    }
    if (pieces.empty()) pieces.push_back(text);
    return pieces;
}

std::string_view TrimLeading(std::string_view text, std::string_view set) {
    const size_t first = text.find_first_not_of(set);
    if (first == std::string_view::npos) return text.size() == 1 ? std::string_view() : text;
    return text.substr(first);
}

namespace {

uint32_t DefaultPort(const std::string& scheme) {
    if (scheme == "http") return 80;
    if (scheme == "https") return 443;
    if (scheme == "ftp") return 21;
    if (scheme == "sftp" || scheme == "ssh") return 22;
    return 0;
}

// Removes the second of each pair of adjacent "/" from index skip + 1 on.
void Collapse(std::string& text, size_t skip) {
    if (text.size() < 2) return;
    size_t i = skip + 1;
    while (i < text.size()) {
        if (text[i] == '/' && text[i - 1] == '/')
            text.erase(i, 1);
        else
            ++i;
    }
}

std::string Lower(std::string_view text) {
    std::string result(text);
    for (char& c : result) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return result;
}

} // namespace

bool UrlImpl::IsDefaultPort() {
    if (port_ == 0) return true;
    return (scheme_ == "http" && port_ == 80) || (scheme_ == "https" && port_ == 443) ||
           (scheme_ == "ftp" && port_ == 21) || (scheme_ == "sftp" && port_ == 22) ||
           (scheme_ == "ssh" && port_ == 22);
}

bool UrlImpl::Parse(const char* text, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(text);
            ParseText(text);
        },
        ppError);
}

void UrlImpl::ParseText(const std::string& input) {
    std::string working;
    size_t separator = input.size() < 3 ? std::string::npos : input.find("://");
    if (separator == std::string::npos) {
        // A local path: the file scheme with forward slashes throughout.
        working = "file:///" + input;
        std::replace(working.begin(), working.end(), '\\', '/');
        separator = 4;
    } else {
        working = input;
    }

    scheme_ = working.substr(0, separator);
    const std::string_view rest = std::string_view(working).substr(separator + 3);
    const size_t slash = rest.find('/');
    const std::string_view authority = rest.substr(0, slash);

    const std::vector<std::string_view> hostPort =
        authority.empty() ? std::vector<std::string_view>{} : SplitNonEmpty(authority, ":");
    host_ = authority.empty() ? std::string("localhost") : std::string(hostPort[0]);
    port_ = DefaultPort(scheme_);
    if (hostPort.size() == 2) port_ = static_cast<uint32_t>(Core::Stoi(std::string(hostPort[1])));

    if (slash == std::string_view::npos) return;

    const std::string_view tail = rest.substr(slash);
    const bool longPath = Lower(tail).rfind("///?/", 0) == 0;
    const size_t skip = longPath ? 5 : 0;

    size_t question = std::string_view::npos;
    if (!tail.empty() && skip <= tail.size() - 1) question = tail.find('?', skip);

    if (question != std::string_view::npos) {
        path_ = longPath ? std::string(tail.substr(1, question - 1))
                         : std::string(TrimLeading(tail.substr(0, question), "/"));
        Collapse(path_, skip);
        const std::string_view after = tail.substr(question);
        const size_t hash = after.find('#');
        if (hash != std::string_view::npos) {
            query_ = TrimLeading(after.substr(0, hash), "?");
            fragment_ = TrimLeading(after.substr(hash), "#");
        } else {
            query_ = TrimLeading(after, "?");
        }
    } else {
        // A "#" behind a path without a query stays part of the path.
        path_ = longPath ? std::string(tail.substr(1)) : std::string(TrimLeading(tail, "/"));
        Collapse(path_, skip);
    }
}

} // namespace impl

bool CreateUrl(Interfaces::IUrl** ppUrl) {
    if (!ppUrl) return false;
    *ppUrl = new impl::UrlImpl();
    return true;
}

Core::Ptr<Interfaces::IUrl> ParseUrl(const char* text) {
    Core::Ptr<Interfaces::IUrl> url;
    if (!CreateUrl(url.ReceiveAddress())) throw std::runtime_error("Url creation failed");
    Core::Ptr<Core::IErrorCode> error;
    if (!url->Parse(text, error.ReceiveAddress())) Core::ThrowIfError(error);
    return url;
}

bool ParseServerUrl(std::string_view text, ServerUrl& server) {
    std::string_view prefix;
    if (text.find("http://") != std::string_view::npos)
        prefix = "http://";
    else if (text.find("https://") != std::string_view::npos)
        prefix = "https://";
    // The prefix is searched anywhere, but the text's first characters are what goes.
    const std::string_view remainder = text.substr(std::min(prefix.size(), text.size()));

    const std::vector<std::string_view> pieces = impl::SplitNonEmpty(remainder, "/");
    if (pieces.empty()) return false;

    const std::vector<std::string_view> hostPort = impl::SplitNonEmpty(pieces[0], ":");
    server.host = hostPort.size() <= 2 ? std::string(hostPort[0]) : std::string();

    uint32_t defaultPort = 443;
    server.secure = true;
    if (impl::Lower(prefix) == "https://") {
        defaultPort = 443;
        server.secure = true;
    } else if (prefix == "http://") {
        defaultPort = 80;
        server.secure = false;
    }
    server.port = hostPort.size() == 2 ? static_cast<uint32_t>(std::atoi(std::string(hostPort[1]).c_str()))
                                       : defaultPort;
    return true;
}

void SplitServiceUrl(std::string_view address, std::string& server, std::string& path) {
    const std::vector<std::string_view> pieces = impl::SplitNonEmpty(address, "/");
    if (pieces.size() < 2) return;
    const std::string first = impl::Lower(pieces[0]);
    size_t pathStart = 2;
    if (first == "https:") {
        server = "https://" + std::string(pieces[1]);
    } else if (first == "http:") {
        server = "http://" + std::string(pieces[1]);
    } else {
        server = "https://" + std::string(pieces[1]);
        pathStart = 1;
    }
    std::string joined;
    for (size_t i = pathStart; i < pieces.size(); ++i) {
        joined += '/';
        joined += pieces[i];
    }
    if (!address.empty() && address.back() == '/') joined += '/';
    path = std::move(joined);
}

} // namespace Platform::Network
