#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Data/Structures.h"

namespace Data::Interfaces {

// String-keyed dictionary of variants. Owned object payloads keep one reference each.
struct IVariantDictionary : Core::IObject {
    virtual uint64_t GetCount() const noexcept = 0;
    virtual bool HasKey(const char* key) const noexcept = 0;
    virtual bool _abi_Set(const char* key, const Structures::VARIANT* value, Core::IErrorCode** ppError) noexcept = 0;
    // Copies the value into *value (an owned object gains a reference); false when absent.
    virtual bool _abi_Get(const char* key, Structures::VARIANT* value, Core::IErrorCode** ppError) noexcept = 0;
    virtual bool Remove(const char* key) noexcept = 0;
};

} // namespace Data::Interfaces
