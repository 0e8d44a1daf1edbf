#pragma once
#include <cstdint>

namespace Core {

// Root of every object that crosses a module boundary. Interfaces derive from it by single
// inheritance, so an interface pointer and the object pointer coincide.
struct IObject {
    virtual void AddReference() noexcept = 0;
    // Returns the count left; the object is gone when it reaches zero.
    virtual uint32_t Release() noexcept = 0;
    virtual void Lock() = 0;
    virtual bool TryLock() = 0;
    virtual void Unlock() = 0;

protected:
    virtual ~IObject() = default;
};

} // namespace Core
