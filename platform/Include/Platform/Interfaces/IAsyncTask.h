#pragma once
#include <cstdint>

#include "Core/IObject.h"
#include "Data/Structures.h"

namespace Platform::Interfaces {

struct IAsyncTask;

// States of a task, in the numbers the task reports.
enum AsyncTaskState : int32_t {
    AsyncTaskCreated = 0,
    AsyncTaskQueued = 1,
    AsyncTaskRunning = 2,
    AsyncTaskCancelRequested = 3,
    AsyncTaskCancelled = 4,
    AsyncTaskCompleted = 5,
    AsyncTaskFailed = 6,
};

// How a task ended: success 1 for a normal end, 0 for an error. The strings are borrowed for
// the call; SetError copies them.
struct AsyncTaskErrorRecord {
    int32_t success = 1;
    const char* message = "";
    const char* function = "";
    const char* file = "";
    int32_t line = 0;
    int32_t reserved = 0;
};

// Told when a task reaches an end state. Nothing in the library implements it: it is for callers.
struct IAsyncTaskStatusCallback : Core::IObject {
    virtual void OnFailed(IAsyncTask* task) = 0;
    // Never called by this library.
    virtual void OnProgress(IAsyncTask* task) = 0;
    virtual void OnCompleted(IAsyncTask* task) = 0;
    virtual void OnCancelled(IAsyncTask* task) = 0;
};

// Handle to one piece of posted work. Everything but the waits reads without blocking.
struct IAsyncTask : Core::IObject {
    // State 3, the result cleared, the event set; a running body is not stopped.
    virtual void Cancel() = 0;
    // Plain wait of up to `timeout` ms; true also when the time ran out (look at IsCompleted).
    virtual bool Wait(uint32_t timeout) = 0;
    // Infinite alertable waits: the calling thread runs the functions queued to it meanwhile.
    virtual bool WaitPumping(bool pump) = 0;
    virtual bool WaitAlertable() = 0;
    virtual bool IsCompleted() = 0; // state 5 or 6
    virtual bool IsCancelled() = 0; // state 3 or 4
    virtual bool IsFailed() = 0;    // state 6
    virtual const char* GetErrorMessage() = 0;
    virtual int32_t GetState() = 0;
    // Stores a copy (with its own reference); null clears the result.
    virtual void SetResult(const Data::Structures::VARIANT* result) = 0;
    // Copies the result into *result, with a reference for the caller; throws for null.
    virtual void GetResult(Data::Structures::VARIANT* result) = 0;
    // Keeps the callback (null drops it) and reports the present state to it at once.
    virtual void SetStatusCallback(IAsyncTaskStatusCallback* callback) = 0;
    virtual void Signal() = 0;
    virtual void SetState(int32_t state) = 0;
    virtual void SetError(const AsyncTaskErrorRecord* record) = 0;
};

} // namespace Platform::Interfaces
