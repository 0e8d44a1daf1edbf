#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Data/Interfaces/IString.h"

namespace Platform::Interfaces {

// A file descriptor of the operating system.
using FileHandle = int;
inline constexpr FileHandle InvalidFileHandle = -1;

// One open file, owned by the object.
struct IFile : Core::IObject {
    virtual uint64_t GetSize() = 0;
    virtual FileHandle GetHandle() = 0;
    // The file's mode bits (type and permissions), read by path.
    virtual uint32_t _abi_GetAttributes(Core::IErrorCode** ppError) = 0;
    // Sets the permission bits of the file.
    virtual bool _abi_SetAttributes(uint32_t attributes, Core::IErrorCode** ppError) = 0;
    virtual bool _abi_GetPath(Data::Interfaces::IString** ppPath, Core::IErrorCode** ppError) = 0;
    virtual uint32_t GetDesiredAccess() = 0;
    virtual uint32_t GetShareMode() = 0;
};

// A file with blocking reads and writes.
struct ISynchrounousFile : IFile {
    virtual uint32_t _abi_Read(void* buffer, uint64_t size, Core::IErrorCode** ppError) = 0;
    virtual uint32_t _abi_Write(const void* buffer, uint64_t size, Core::IErrorCode** ppError) = 0;
    virtual bool _abi_Seek(int64_t position, Core::IErrorCode** ppError) = 0;
    virtual bool _abi_SeekToEnd(Core::IErrorCode** ppError) = 0;
    virtual uint64_t _abi_GetPosition(Core::IErrorCode** ppError) = 0;
};

} // namespace Platform::Interfaces
