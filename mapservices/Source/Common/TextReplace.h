#pragma once
#include <string>
#include <string_view>

namespace MapServices {

// Replaces every occurrence of `mark`, left to right, going on behind each replacement (so a
// value that holds the mark is not replaced again). An empty mark changes nothing.
inline void ReplaceAll(std::string& text, std::string_view mark, std::string_view value) {
    if (mark.empty()) return;
    for (size_t at = text.find(mark); at != std::string::npos; at = text.find(mark, at + value.size()))
        text.replace(at, mark.size(), value);
}

} // namespace MapServices
