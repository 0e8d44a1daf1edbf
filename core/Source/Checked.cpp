#include "Core/Checked.h"

#include <cerrno>
#include <climits>
#include <cstdlib>

namespace Core {

namespace {

// Shared shape of the conversions: the C parser, then the fixed texts for "nothing read"
// and "out of range".
template <class T, class Parse>
T Convert(const std::string& text, size_t* consumed, Parse parse, const char* invalid, const char* range) {
    const char* begin = text.c_str();
    char* end = nullptr;
    int& err = errno;
    const int saved = err;
    err = 0;
    auto value = parse(begin, &end);
    if (end == begin) {
        err = saved;
        throw std::invalid_argument(invalid);
    }
    if (err == ERANGE) {
        err = saved;
        throw std::out_of_range(range);
    }
    err = saved;
    if (consumed) *consumed = static_cast<size_t>(end - begin);
    return value;
}

} // namespace

int Stoi(const std::string& text, size_t* consumed) {
    const long long value = Convert<long long>(
        text, consumed, [](const char* b, char** e) { return std::strtoll(b, e, 10); }, "invalid stoi argument",
        "stoi argument out of range");
    if (value < INT_MIN || value > INT_MAX) throw std::out_of_range("stoi argument out of range");
    return static_cast<int>(value);
}

int64_t Stoll(const std::string& text, size_t* consumed) {
    return Convert<int64_t>(
        text, consumed, [](const char* b, char** e) { return static_cast<int64_t>(std::strtoll(b, e, 10)); },
        "invalid stoll argument", "stoll argument out of range");
}

double Stod(const std::string& text, size_t* consumed) {
    return Convert<double>(
        text, consumed, [](const char* b, char** e) { return std::strtod(b, e); }, "invalid stod argument",
        "stod argument out of range");
}

void ThrowInvalidSubscript() { throw std::out_of_range("invalid vector subscript"); }

void ThrowInvalidKey() { throw std::out_of_range("invalid unordered_map<K, T> key"); }

} // namespace Core

namespace Core {

void ThrowFileSystemError(const char* operation, const std::string& path, std::error_code error) {
    throw std::runtime_error(std::string(operation) + ": " + error.message() + ": \"" + path + "\"");
}

} // namespace Core
