#pragma once
#include <cstdint>

#include "Core/IObject.h"

namespace Data::Structures {

// A UUID in the layout of its text form: 32-bit, two 16-bit fields, then eight bytes.
struct Uuid {
    uint32_t data1;
    uint16_t data2;
    uint16_t data3;
    uint8_t data4[8];
};

// How a variant holds its payload: the high 16 bits of `type`.
enum VariantHolding : uint32_t {
    VariantValue = 0,
    VariantOwnedObject = 0x10000,
    VariantBorrowedObject = 0x20000,
};

// Tags: the low 16 bits of `type`.
enum VariantTag : uint16_t {
    TagEmpty = 2,
    TagInt16 = 3,
    TagInt32 = 4,
    TagInt64 = 5,
    TagInt128 = 6,
    TagUInt16 = 7,
    TagUInt32 = 8,
    TagUInt64 = 9,
    TagUInt128 = 10,
    TagUInt8 = 11,
    TagInt8 = 12,
    TagDouble = 13,
    TagFloat = 14,
    TagBool = 15,
    TagObject = 17,
    TagArray = 18,
    TagString = 19,
    TagDateTime = 20,
    TagJsonDocument = 21,
    TagXmlDocument = 22,
    TagUuid = 23,
    TagErrorCode = 24,
    TagObjectList = 25,
};

// The plain tagged value that crosses module boundaries. A value sits in its own width at the
// start of the payload; an object pointer in its first 8 bytes.
struct _VARIANT {
    uint32_t type = TagEmpty;
    uint32_t reserved = 0;
    union {
        uint8_t bytes[16];
        Core::IObject* object;
    } payload{};
};
static_assert(sizeof(_VARIANT) == 24);

using VARIANT = _VARIANT;

} // namespace Data::Structures
