#pragma once
// Reference handling of plain variants, shared by the value library and the wrappers.
#include "Data/Structures.h"

namespace Data::Structures {

inline uint32_t VariantHoldingOf(const VARIANT& v) noexcept { return v.type & 0xFFFF0000u; }
inline uint16_t VariantTagOf(const VARIANT& v) noexcept { return static_cast<uint16_t>(v.type & 0xFFFFu); }

// Drops the reference an owned payload holds and leaves the empty variant.
inline void VariantClear(VARIANT& v) noexcept {
    if (VariantHoldingOf(v) == VariantOwnedObject && v.payload.object) v.payload.object->Release();
    v = VARIANT{};
}

// Copies a variant; an owned payload gains a reference for the copy.
inline VARIANT VariantCopy(const VARIANT& v) noexcept {
    VARIANT copy = v;
    if (VariantHoldingOf(v) == VariantOwnedObject && v.payload.object) v.payload.object->AddReference();
    return copy;
}

} // namespace Data::Structures
