#pragma once
#include <cstdint>

#include "Core/IObject.h"

namespace Data::Interfaces {

// A point in time in UTC, to the nanosecond.
struct IDateTime : Core::IObject {
    virtual int32_t GetYear() const noexcept = 0;
    virtual int32_t GetMonth() const noexcept = 0;
    virtual int32_t GetDay() const noexcept = 0;
    virtual int32_t GetHour() const noexcept = 0;
    virtual int32_t GetMinute() const noexcept = 0;
    virtual int32_t GetSecond() const noexcept = 0;
    virtual int32_t GetNanoseconds() const noexcept = 0;
};

} // namespace Data::Interfaces
