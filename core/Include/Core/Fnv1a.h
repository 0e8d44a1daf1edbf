#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Core {

inline constexpr uint64_t Fnv1aOffsetBasis = 0xcbf29ce484222325ULL;
inline constexpr uint64_t Fnv1aPrime = 0x100000001b3ULL;

// FNV-1a of 64 bits over bytes: the one hash of the library (cache names, hash maps).
constexpr uint64_t Fnv1a64(const unsigned char* data, size_t size, uint64_t hash = Fnv1aOffsetBasis) {
    for (size_t i = 0; i < size; ++i) {
        hash ^= data[i];
        hash *= Fnv1aPrime;
    }
    return hash;
}

inline uint64_t Fnv1a64(const void* data, size_t size, uint64_t hash = Fnv1aOffsetBasis) {
    return Fnv1a64(static_cast<const unsigned char*>(data), size, hash);
}

constexpr uint64_t Fnv1a64(std::string_view text) {
    uint64_t hash = Fnv1aOffsetBasis;
    for (char c : text) {
        hash ^= static_cast<unsigned char>(c);
        hash *= Fnv1aPrime;
    }
    return hash;
}

// Hash functor for unordered containers keyed by strings.
struct Fnv1aHash {
    using is_transparent = void;
    size_t operator()(std::string_view text) const noexcept { return static_cast<size_t>(Fnv1a64(text)); }
};

} // namespace Core
