#pragma once
// Small checked helpers whose failures carry the library's fixed texts ("invalid stoi
// argument", "invalid vector subscript", ...) on every toolchain.
#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

namespace Core {

int Stoi(const std::string& text, size_t* consumed = nullptr);
int64_t Stoll(const std::string& text, size_t* consumed = nullptr);
double Stod(const std::string& text, size_t* consumed = nullptr);

[[noreturn]] void ThrowInvalidSubscript();
[[noreturn]] void ThrowInvalidKey();

template <class T, class A>
T& At(std::vector<T, A>& v, size_t index) {
    if (index >= v.size()) ThrowInvalidSubscript();
    return v[index];
}
template <class T, class A>
const T& At(const std::vector<T, A>& v, size_t index) {
    if (index >= v.size()) ThrowInvalidSubscript();
    return v[index];
}

template <class Map, class Key>
auto& MapAt(Map& map, const Key& key) {
    auto it = map.find(key);
    if (it == map.end()) ThrowInvalidKey();
    return it->second;
}

} // namespace Core

#include <system_error>

namespace Core {

// A file-system failure whose text begins with the operation's name ("exists",
// "create_directories", "file_size", "rename"), then the system's message and the path.
[[noreturn]] void ThrowFileSystemError(const char* operation, const std::string& path, std::error_code error);

} // namespace Core
