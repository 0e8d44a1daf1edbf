#pragma once
#include <string>

#include "Core/ErrorCode.h"
#include "Core/Ptr.h"
#include "Platform/Interfaces/IDll.h"

namespace Platform::Windows::Module {

// Loads (or finds, when already loaded) a shared library by file name or path.
bool CreateDll(const char* name, Interfaces::IDll** ppDll, Core::IErrorCode** ppError);

struct StackTraceResult {
    std::string text;
    Core::Ptr<Core::IErrorCode> error; // null on success
};

// The calling thread's stack, one line a frame:
//   "\t[i]. [0x<address>], [module], module-file!symbol\n"  or  ", (Symbols not loaded)".
StackTraceResult CaptureStackTrace(unsigned skip, int depth);

} // namespace Platform::Windows::Module
