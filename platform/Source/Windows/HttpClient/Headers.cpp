#include "Platform/Network/Http/Headers.h"

#include "HeadersImpl.h"
#include "Platform/Network/Http/ResponseHeaders.h"

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
    const ResponseHeaders headers{std::string(text)};
    HeaderTable table;
    for (size_t i = 0; i < headers.Count(); ++i)
        table[std::string(headers.NameAt(i))] = std::string(headers.ValueViewAt(i));
    return table;
}

} // namespace Platform::Network::Http
