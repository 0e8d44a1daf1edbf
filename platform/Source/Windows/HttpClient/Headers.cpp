#include "Platform/Network/Http/Headers.h"

#include "HeadersImpl.h"

namespace Platform::Windows::Network::Http {

void HttpHeadersImpl::Add(const char* name, const char* value) {
    std::string& entry = table_[name ? name : ""];
    if (!entry.empty()) {
        entry += ';';
        entry += value ? value : "";
    } else {
        entry = value ? value : "";
    }
}

const char* HttpHeadersImpl::Get(const char* name) { return table_[name ? name : ""].c_str(); }

const char* HttpHeadersImpl::GetNameAt(uint64_t index) {
    if (index >= table_.size()) return nullptr;
    auto it = table_.begin();
    std::advance(it, static_cast<std::ptrdiff_t>(index));
    return it->first.c_str();
}

} // namespace Platform::Windows::Network::Http

namespace Platform::Network::Http {

void AddContentType(Interfaces::IAcceptTypes* types, uint32_t number) {
    if (!types) return;
    switch (number) {
    case ContentTypeAny: types->Add("*/*"); break;
    case ContentTypePlainText: types->Add("text/plain"); break;
    case ContentTypeHtml: types->Add("text/html"); break;
    case ContentTypeXml: types->Add("text/xml"); break;
    case ContentTypeJson: types->Add("text/json"); break;
    case ContentTypeAnyText: types->Add("text/*"); break;
    case ContentTypeAnyImage: types->Add("image/*;q=0.8"); [[fallthrough]];
    case ContentTypeJpeg: types->Add("image/jpeg;q=0.8"); break;
    case ContentTypePng: types->Add("image/png"); break;
    case ContentTypeWebp: types->Add("image/webp"); break;
    case ContentTypeTiff: types->Add("image/tiff"); break;
    case ContentTypeGif: types->Add("image/gif"); break;
    case ContentTypeAnyApplication: types->Add("application/*"); break;
    case ContentTypeApplicationXml: types->Add("application/xml"); break;
    case ContentTypeApplicationJson: types->Add("application/json"); break;
    default: break;
    }
}

bool CreateAcceptTypes(Interfaces::IAcceptTypes** ppTypes) {
    if (!ppTypes) return false;
    *ppTypes = new Windows::Network::Http::AcceptTypesImpl();
    return true;
}

bool CreateHttpHeaders(Interfaces::IHttpHeaders** ppHeaders) {
    if (!ppHeaders) return false;
    *ppHeaders = new Windows::Network::Http::HttpHeadersImpl();
    return true;
}

HeaderTable ParseResponseHeaders(std::string_view text) {
    static constexpr std::string_view whitespace = "\t\n\v\f\r ";
    static constexpr std::string_view newline = "\r\n";
    HeaderTable table;
    // The first non-empty line is the status line, the others are "name: value"; text with no
    // non-empty line between its line ends is a status line all of it.
    bool statusLine = true;
    const auto take = [&](std::string_view line) {
        if (statusLine) {
            table["Response"] = std::string(line);
            statusLine = false;
            return;
        }
        const size_t colon = line.find(':');
        std::string_view name = line, value;
        if (colon != std::string_view::npos) {
            name = line.substr(0, colon);
            value = line.substr(colon + 1);
        }
        const size_t first = value.find_first_not_of(whitespace);
        if (first == std::string_view::npos) {
            value = {};
        } else {
            value = value.substr(first, value.find_last_not_of(whitespace) - first + 1);
        }
        table[std::string(name)] = std::string(value);
    };
    size_t start = 0;
    while (start <= text.size()) {
        const size_t found = text.find(newline, start);
        const size_t end = found == std::string_view::npos ? text.size() : found;
        if (end > start) take(text.substr(start, end - start));
        if (found == std::string_view::npos) break;
        start = found + newline.size();
    }
    if (statusLine && !text.empty()) take(text);
    return table;
}

} // namespace Platform::Network::Http
