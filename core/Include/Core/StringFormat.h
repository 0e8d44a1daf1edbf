#pragma once
#include <cstdarg>
#include <string>

namespace Core {

// printf-style formatting into a string, measured first and then written.
std::string StringFormat(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string StringFormatV(const char* format, va_list args) __attribute__((format(printf, 1, 0)));

} // namespace Core
