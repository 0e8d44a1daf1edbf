#pragma once
#include <cstdint>

#include "Core/ErrorCode.h"
#include "Core/IObject.h"
#include "Data/Structures.h"
#include "Platform/Interfaces/IAsyncTask.h"

namespace Platform::Interfaces {

// A function posted across a module boundary: it gets the posted value (or null) and may
// leave an error object, which is logged and released.
using ThreadFunction = void (*)(const Data::Structures::VARIANT* param, Core::IErrorCode** ppError);

// A thread that runs posted functions: a worker that owns its thread, or a dispatcher that
// stands for the thread that made it. Methods named _abi_ report failure through ppError.
struct IThread : Core::IObject {
    virtual bool _abi_Start(Core::IErrorCode** ppError) = 0;
    virtual bool _abi_Stop(IAsyncTask** ppTask, Core::IErrorCode** ppError) = 0;
    virtual bool _abi_Post(ThreadFunction function, const Data::Structures::VARIANT* param, IAsyncTask** ppTask,
                           Core::IErrorCode** ppError) = 0;
    // Always fails with "Function not implemented".
    virtual bool _abi_Unsupported(Core::IErrorCode** ppError) = 0;
    virtual void SetShouldDetach(bool shouldDetach) = 0;
    virtual bool IsRunning() = 0;
    virtual bool _abi_SetName(const char* name, Core::IErrorCode** ppError) = 0;
    virtual const char* GetName() = 0;
    virtual uint32_t GetThreadId() = 0;
    // Opaque handle of the thread, valid while this object lives.
    virtual void* GetThreadHandle() = 0;
    virtual bool _abi_SetTimeout(uint32_t timeout, Core::IErrorCode** ppError) = 0;
    virtual bool HasCrashed() = 0;
    // No posted function is waiting or running.
    virtual bool IsIdle() = 0;
};

} // namespace Platform::Interfaces
