#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"

namespace Data::Interfaces {

// An ordered list of object references; the list holds one reference per item.
struct IObjectList : Core::IObject {
    virtual uint64_t GetCount() const noexcept = 0;
    // Borrowed item, or null for an index at or above the count.
    virtual Core::IObject* GetItem(uint64_t index) const noexcept = 0;
    virtual bool _abi_Append(Core::IObject* item, Core::IErrorCode** ppError) noexcept = 0;
};

} // namespace Data::Interfaces
