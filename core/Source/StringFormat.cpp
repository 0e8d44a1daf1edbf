#include "Core/StringFormat.h"

#include <cstdio>
#include <cstdlib>

namespace Core {

namespace {
[[noreturn]] void FormatAssertionFailed() {
    std::fputs("Assertion failed: -1 != result\n", stderr);
    std::abort();
}
} // namespace

std::string StringFormatV(const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    const int result = std::vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (-1 == result) FormatAssertionFailed();

    std::string text;
    text.resize(static_cast<size_t>(result));
    const int written = std::vsnprintf(text.data(), text.size() + 1, format, args);
    if (-1 == written) FormatAssertionFailed();
    return text;
}

std::string StringFormat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    std::string text = StringFormatV(format, args);
    va_end(args);
    return text;
}

} // namespace Core
