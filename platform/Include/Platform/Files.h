#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Core/Result.h"
#include "Platform/Interfaces/IFile.h"

namespace Platform::Windows::IO {

// Access, share, disposition and flag values, numbered as the original file API numbers them.
inline constexpr uint32_t GenericRead = 0x80000000u;
inline constexpr uint32_t GenericWrite = 0x40000000u;
inline constexpr uint32_t FileShareRead = 1;
inline constexpr uint32_t FileShareWrite = 2;
inline constexpr uint32_t FileShareDelete = 4;
inline constexpr uint32_t CreateNew = 1;
inline constexpr uint32_t CreateAlways = 2;
inline constexpr uint32_t OpenExisting = 3;
inline constexpr uint32_t OpenAlways = 4;
inline constexpr uint32_t TruncateExisting = 5;
inline constexpr uint32_t FileFlagOverlapped = 0x40000000u;
inline constexpr uint32_t FileFlagSequentialScan = 0x08000000u;

// Opens or creates a file. A failure to open is a value: false with the error in *ppError.
// A file opened with access 0 has no read or write (IFile only); otherwise it is an
// ISynchrounousFile.
bool _abi_CreateFile(const char* path, Interfaces::IFile** ppFile, uint32_t desiredAccess, uint32_t shareMode,
                     uint32_t disposition, uint32_t attributes, uint32_t flags, uint32_t extraFlags,
                     uint32_t extraFlags2, Core::IErrorCode** ppError);

Core::Result<Interfaces::IFile> OpenFileForReading(const char* path);
Core::Result<Interfaces::IFile> CreateFileForWriting(const char* path, uint32_t shareMode);
Core::Result<Interfaces::IFile> CreateFileForStreaming(const char* path, uint32_t shareMode);

// The synchronous file of a result. A result without an object, or with one that has no reads
// and writes, gives the error value "File could not be converted to Synchronous file." (code 0).
Core::Result<Interfaces::ISynchrounousFile> AsSynchronousFile(const Core::Result<Interfaces::IFile>& result);

} // namespace Platform::Windows::IO
