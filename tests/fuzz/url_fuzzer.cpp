// Feeds arbitrary bytes to the address parsers: the full parser (twice on one object, as a
// second Parse overwrites only what it reaches), the server-part reader and the service split.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <exception>
#include <string>
#include <string_view>

#include "Core/Ptr.h"
#include "Platform/Network/Url.h"

namespace Net = Platform::Network;

namespace {

void Read(Platform::Interfaces::IUrl* url) {
    for (const char* part : {url->GetScheme(), url->GetHost(), url->GetPath(), url->GetQuery(), url->GetFragment()})
        if (!part) __builtin_trap();
    if (url->GetPort() == 0 && !url->IsDefaultPort()) __builtin_trap();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    const std::string text(bytes); // the parser sees it up to the first zero byte

    Core::Ptr<Platform::Interfaces::IUrl> url;
    if (!Net::CreateUrl(url.ReceiveAddress())) __builtin_trap();
    Core::Ptr<Core::IErrorCode> error;
    if (url->Parse(text.c_str(), error.ReceiveAddress())) {
        if (error.Raw()) __builtin_trap();
        Read(url.Raw());
    } else if (!error.Raw()) {
        __builtin_trap();
    }
    const std::string half = text.substr(0, std::strlen(text.c_str()) / 2);
    Core::Ptr<Core::IErrorCode> second;
    url->Parse(half.c_str(), second.ReceiveAddress());
    Read(url.Raw());

    Net::ServerUrl server;
    if (Net::ParseServerUrl(bytes, server) && server.host.size() > size) __builtin_trap();

    std::string serviceServer, path;
    Net::SplitServiceUrl(bytes, serviceServer, path);
    if (path.size() > size + 1) __builtin_trap();

    for (std::string_view piece : Net::impl::SplitNonEmpty(bytes, "/"))
        if (size != 0 && (piece.empty() || (piece != bytes && piece.find('/') != std::string_view::npos)))
            __builtin_trap();
    const std::string_view trimmed = Net::impl::TrimLeading(bytes, "/");
    if (trimmed.size() > size) __builtin_trap();
    return 0;
}
