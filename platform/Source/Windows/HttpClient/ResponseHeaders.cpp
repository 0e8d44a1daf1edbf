#include "Platform/Network/Http/ResponseHeaders.h"

#include <algorithm>
#include <cctype>

namespace Platform::Network::Http {

namespace {
constexpr std::string_view kWhitespace = "\t\n\v\f\r ";
constexpr std::string_view kNewline = "\r\n";
constexpr std::string_view kStatusName = "Response";

bool EqualNoCase(std::string_view a, std::string_view b) noexcept {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) == std::tolower(static_cast<unsigned char>(y));
           });
}
} // namespace

ResponseHeaders::ResponseHeaders(std::string text) : text_(std::move(text)) {
    lines_.reserve(static_cast<size_t>(std::count(text_.begin(), text_.end(), '\n')) + 1);
    const std::string_view view(text_);
    // Zeros go in only where a line's parts end: at its colon and after its trimmed value, both
    // within the line or on its line end, never ahead of the search for the next line.
    const auto take = [&](size_t start, size_t end) {
        if (lines_.empty()) {
            lines_.push_back(Line{kStatusName.data(), 0, kStatusName.size(), start, end - start});
            if (end < text_.size()) text_[end] = '\0';
            return;
        }
        const std::string_view line = view.substr(start, end - start);
        const size_t colon = line.find(':');
        Line entry{nullptr, start, colon == std::string_view::npos ? line.size() : colon, end, 0};
        if (colon != std::string_view::npos) {
            const std::string_view value = line.substr(colon + 1);
            const size_t first = value.find_first_not_of(kWhitespace);
            if (first != std::string_view::npos) {
                entry.value = start + colon + 1 + first;
                entry.valueLength = value.find_last_not_of(kWhitespace) - first + 1;
            }
        }
        const size_t nameEnd = start + entry.nameLength;
        const size_t valueEnd = entry.value + entry.valueLength;
        if (nameEnd < text_.size()) text_[nameEnd] = '\0';
        if (valueEnd < text_.size()) text_[valueEnd] = '\0';
        lines_.push_back(entry);
    };
    size_t start = 0;
    while (start <= view.size()) {
        const size_t found = view.find(kNewline, start);
        const size_t end = found == std::string_view::npos ? view.size() : found;
        if (end > start) take(start, end);
        if (found == std::string_view::npos) break;
        start = found + kNewline.size();
    }
    if (lines_.empty() && !text_.empty()) lines_.push_back(Line{kStatusName.data(), 0, kStatusName.size(), 0, text_.size()});
}

void ResponseHeaders::EnterMissing(const char* name) {
    if (Find(name)) return;
    // The value is the zero that ends the text.
    lines_.push_back(Line{name, 0, std::char_traits<char>::length(name), text_.size(), 0});
}

std::string_view ResponseHeaders::NameAt(size_t index) const noexcept {
    const Line& line = lines_[index];
    return {line.fixedName ? line.fixedName : text_.c_str() + line.name, line.nameLength};
}

const char* ResponseHeaders::Find(std::string_view name) const noexcept {
    for (size_t i = lines_.size(); i-- > 0;)
        if (EqualNoCase(NameAt(i), name)) return ValueAt(i);
    return nullptr;
}

} // namespace Platform::Network::Http
