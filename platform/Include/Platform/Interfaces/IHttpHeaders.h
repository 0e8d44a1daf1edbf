#pragma once
#include <cstdint>

#include "Core/IObject.h"

namespace Platform::Interfaces {

// Request or response headers: names compared without regard to case.
struct IHttpHeaders : Core::IObject {
    // Several values of one name are joined by ";" in one entry.
    virtual void Add(const char* name, const char* value) = 0;
    // The value; an unknown name is entered with an empty value and "" is returned.
    virtual const char* Get(const char* name) = 0;
    // The name at `index` in table order, null behind the end.
    virtual const char* GetNameAt(uint64_t index) = 0;
    virtual uint64_t GetCount() = 0;
};

// The media types a request offers when it is opened.
struct IAcceptTypes : Core::IObject {
    virtual int64_t GetCount() = 0;
    virtual void Clear() = 0;
    virtual void Add(const char* type) = 0;
};

} // namespace Platform::Interfaces
