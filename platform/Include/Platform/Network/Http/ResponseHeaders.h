#pragma once
#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace Platform::Network::Http {

// The header block of one response, parsed once into one piece of memory: the status line under
// "Response", each "Name: value" line under its name, values trimmed, names compared without
// regard to case. Every line stays in order; a name given twice answers with its last value.
class ResponseHeaders {
public:
    ResponseHeaders() = default;
    // `text` is the raw CRLF-separated block; text with no non-empty line between its line ends
    // is a status line all of it.
    explicit ResponseHeaders(std::string text);

    // The value of the last line named `name`, zero-terminated; null when there is none.
    const char* Find(std::string_view name) const noexcept;

    // Adds `name` with an empty value unless a line has it. `name` is a literal, or lives as
    // long as these headers. Values found before stay where they are.
    void EnterMissing(const char* name);

    size_t Count() const noexcept { return lines_.size(); }
    std::string_view NameAt(size_t index) const noexcept;
    const char* ValueAt(size_t index) const noexcept { return text_.c_str() + lines_[index].value; }
    std::string_view ValueViewAt(size_t index) const noexcept { return {ValueAt(index), lines_[index].valueLength}; }

private:
    struct Line {
        const char* fixedName; // "Response" or an entered name, else null: the name is in the text
        size_t name, nameLength, value, valueLength;
    };

    std::string text_; // the block, a zero written where each name and each value ends
    std::vector<Line> lines_;
};

} // namespace Platform::Network::Http
