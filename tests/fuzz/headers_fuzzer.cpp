// Feeds arbitrary bytes to the response header reader as a raw CRLF header block, checks the
// reader a response keeps against the table it gives, then takes the status code from its status
// line and the body length from Content-Length the way a response stream does, enters the parsed
// lines into a request header set and reads them back, and adds accept types by number. The status
// line has no reader of its own: it is the block's first line.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#include "Core/Ptr.h"
#include "HeadersImpl.h"
#include "Platform/Network/Http/Headers.h"
#include "Platform/Network/Http/ResponseHeaders.h"
#include "ResponseStreams.h"

namespace Http = Platform::Network::Http;
namespace Impl = Platform::Windows::Network::Http;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static constexpr std::string_view blanks = "\t\n\v\f\r ";
    const std::string_view text(reinterpret_cast<const char*>(data), size);

    const Http::HeaderTable table = Http::ParseResponseHeaders(text);
    for (const auto& [name, value] : table) {
        if (value.size() > size) __builtin_trap();
        // Header values are trimmed; the status line is kept as it came.
        if (!value.empty() && !Http::HeaderNameEqual()(name, "Response") &&
            (blanks.find(value.front()) != std::string_view::npos ||
             blanks.find(value.back()) != std::string_view::npos))
            __builtin_trap();
    }
    // The reader a response keeps answers as the table does, and keeps its values in place when
    // a missing length is entered.
    Http::ResponseHeaders block{std::string(text)};
    for (const auto& [name, value] : table) {
        const char* found = block.Find(name);
        if (!found || std::string_view(found) != std::string_view(value.c_str())) __builtin_trap();
    }
    const char* statusLine = block.Find("Response");
    block.EnterMissing("Content-Length");
    if (block.Find("Response") != statusLine || !block.Find("content-length")) __builtin_trap();
    if (auto status = table.find("Response"); status != table.end()) (void)Impl::ParseStatusCode(status->second);
    if (auto length = table.find("content-length"); length != table.end())
        (void)Impl::ParseContentLength(length->second);
    (void)Impl::ParseStatusCode(std::string(text.substr(0, text.find("\r\n"))));

    // A number spelled out must read back as itself.
    if (size >= sizeof(uint64_t)) {
        uint64_t number;
        std::memcpy(&number, data, sizeof number);
        if (Impl::ParseContentLength(std::to_string(number)) != number) __builtin_trap();
    }

    // Names the parsed table holds once each, so the header set takes each value as it is.
    Core::Ptr<Platform::Interfaces::IHttpHeaders> headers;
    if (!Http::CreateHttpHeaders(headers.ReceiveAddress())) __builtin_trap();
    for (const auto& [name, value] : table) headers->Add(name.c_str(), value.c_str());
    if (headers->GetCount() > table.size()) __builtin_trap();
    // A zero byte cuts a name short at the interface, and two names may then meet.
    if (std::memchr(data, 0, size) == nullptr)
        for (const auto& [name, value] : table)
            if (value != headers->Get(name.c_str())) __builtin_trap();
    for (uint64_t i = 0; i < headers->GetCount(); ++i)
        if (!headers->GetNameAt(i)) __builtin_trap();
    if (headers->GetNameAt(headers->GetCount())) __builtin_trap();

    Core::Ptr<Platform::Interfaces::IAcceptTypes> types;
    if (!Http::CreateAcceptTypes(types.ReceiveAddress())) __builtin_trap();
    for (size_t i = 0; i < size && i < 16; ++i) Http::AddContentType(types.Raw(), data[i] % 20);
    if (types->GetCount() > 32) __builtin_trap();
    types->Clear();
    if (types->GetCount() != 0) __builtin_trap();
    return 0;
}
