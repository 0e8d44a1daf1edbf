#pragma once
#include <cstdint>

#include "Core/IObject.h"

namespace MapServices::Interfaces {

// One tile on its way from the cache or the network to a callback.
struct ITileRequest : Core::IObject {
    virtual int32_t GetZoom() = 0;
    virtual int32_t GetX() = 0;
    virtual int32_t GetY() = 0;
    virtual bool IsCancelled() = 0;
    // Stops the request: its callback never runs, and Wait returns at once.
    virtual void Cancel() = 0;
    // Waits, alertably, until the request completed or was cancelled; callbacks posted to the
    // calling thread run during the wait.
    virtual bool Wait() = 0;
};

} // namespace MapServices::Interfaces
