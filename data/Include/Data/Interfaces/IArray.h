#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"

namespace Data::Interfaces {

// A contiguous array of elements of a fixed size; the library uses byte arrays.
struct IArray : Core::IObject {
    virtual void* GetData() noexcept = 0;
    virtual uint64_t GetSizeInBytes() const noexcept = 0;
    virtual uint32_t GetElementSize() const noexcept = 0;
    virtual uint64_t GetCount() const noexcept = 0;
    // Keeps the first elements, fills new ones with zero bytes.
    virtual bool _abi_Resize(uint64_t count, Core::IErrorCode** ppError) noexcept = 0;
};

} // namespace Data::Interfaces
