#pragma once
#include <cctype>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

#include "Core/Fnv1a.h"
#include "Platform/Interfaces/IHttpHeaders.h"

namespace Platform::Network::Http {

// FNV-1a of the lower-cased bytes of a header name.
struct HeaderNameHash {
    size_t operator()(const std::string& name) const noexcept {
        uint64_t hash = Core::Fnv1aOffsetBasis;
        for (char c : name) {
            hash ^= static_cast<unsigned char>(std::tolower(static_cast<unsigned char>(c)));
            hash *= Core::Fnv1aPrime;
        }
        return static_cast<size_t>(hash);
    }
};

struct HeaderNameEqual {
    bool operator()(const std::string& a, const std::string& b) const noexcept {
        if (a.size() != b.size()) return false;
        for (size_t i = 0; i < a.size(); ++i)
            if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
                return false;
        return true;
    }
};

// Header names to values, names without regard to case.
class HeaderTable : public std::unordered_map<std::string, std::string, HeaderNameHash, HeaderNameEqual> {
public:
    HeaderTable() : unordered_map(8) { max_load_factor(1.0f); }
};

// Media types by number, as AddContentType knows them.
enum ContentType : uint32_t {
    ContentTypeAny = 1,
    ContentTypePlainText = 2,
    ContentTypeHtml = 3,
    ContentTypeXml = 4,
    ContentTypeJson = 5,
    ContentTypeAnyText = 6,
    ContentTypeAnyImage = 7,
    ContentTypeJpeg = 8,
    ContentTypePng = 9,
    ContentTypeWebp = 10,
    ContentTypeTiff = 11,
    ContentTypeGif = 12,
    ContentTypeAnyApplication = 13,
    ContentTypeApplicationXml = 14,
    ContentTypeApplicationJson = 15,
};

// Adds the media type of `number` (1 to 15; anything else adds nothing). Any image (7) adds
// "image/*;q=0.8" and then the JPEG entry as well.
void AddContentType(Interfaces::IAcceptTypes* types, uint32_t number);

// A new empty accept list; false only for a null `ppTypes`.
bool CreateAcceptTypes(Interfaces::IAcceptTypes** ppTypes);

// A new empty header set; false only for a null `ppHeaders`.
bool CreateHttpHeaders(Interfaces::IHttpHeaders** ppHeaders);

// The raw CRLF-separated response header block as a table: the status line under "Response",
// each "Name: value" line under its name, the last of repeated names winning.
HeaderTable ParseResponseHeaders(std::string_view text);

} // namespace Platform::Network::Http
