#pragma once
#include <cstddef>
#include <cstdint>

#include "Core/ErrorCode.h"

namespace Platform::Interfaces {

// A byte stream with a position.
struct IStream : Core::IObject {
    virtual size_t _abi_Read(void* buffer, size_t size, Core::IErrorCode** ppError) = 0;
    virtual size_t _abi_Write(const void* buffer, size_t size, Core::IErrorCode** ppError) = 0;
    virtual uint64_t GetPosition() = 0;
    virtual bool _abi_SetPosition(uint64_t position, Core::IErrorCode** ppError) = 0;
    virtual uint64_t GetSize(Core::IErrorCode** ppError) = 0;
    virtual bool _abi_SetSize(uint64_t size, Core::IErrorCode** ppError) = 0;
    virtual bool IsSeekable() = 0;
    virtual bool CanRead() = 0;
    virtual bool CanWrite() = 0;
    virtual bool IsEndOfStream() = 0;
};

// Completion of one queued read or write: the object given when it was queued, an error (null
// on success) and the bytes transferred (0 at the end of the stream).
using AsyncIoCallback = void (*)(Core::IObject* object, Core::IErrorCode* error, uint32_t bytes);

// A stream on which buffers are queued and then waited for.
struct IAsyncStream : Core::IObject {
    virtual bool _abi_QueueReadAsync(void* buffer, uint64_t size, Core::IObject* object, uint64_t fileOffset,
                                     AsyncIoCallback callback, Core::IErrorCode** ppError) = 0;
    virtual bool _abi_QueueWriteAsync(void* buffer, uint64_t size, Core::IObject* object, uint64_t fileOffset,
                                      AsyncIoCallback callback, Core::IErrorCode** ppError) = 0;
    virtual bool WaitForCompletion(uint32_t timeoutMs, bool alertable, bool third) = 0;
    virtual bool _abi_Close(Core::IErrorCode** ppError) = 0;
    virtual uint64_t GetSize() = 0;
    virtual bool IsSeekable() = 0;
    virtual bool CanRead() = 0;
    virtual bool CanWrite() = 0;
    virtual bool IsEndOfStream() = 0;
};

} // namespace Platform::Interfaces
