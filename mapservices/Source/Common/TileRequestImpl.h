#pragma once
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>

#include "Core/ObjectImplBase.h"
#include "Data/Values.h"
#include "MapServices/Interfaces/ITileRequest.h"
#include "Platform/Interfaces/IAsyncTask.h"
#include "Platform/Interfaces/IHttpRequest.h"
#include "Platform/Threading/AlertableEvent.h"

namespace MapServices::impl {

using TileDataCallback = std::function<void(const Data::Array&)>; // same as the fetcher's

// State of one tile fetch. Its stages (caller, HTTP completion, worker, dispatcher) follow each
// other, each holding a reference, so the fields need no lock; Cancel may run at any time.
class TileRequestBase : public Interfaces::ITileRequest {
public:
    TileRequestBase(int32_t z, int32_t x, int32_t y, TileDataCallback callback);

    int32_t GetZoom() override { return z_; }
    int32_t GetX() override { return x_; }
    int32_t GetY() override { return y_; }
    bool IsCancelled() override { return cancelled_.load(); }
    void Cancel() override;
    bool Wait() override;

    // The stages' hand-overs.
    void SetTask(Core::Ptr<Platform::Interfaces::IAsyncTask> task);
    void SetHttpRequest(Core::Ptr<Platform::Interfaces::IHttpRequest> request);
    void SetResult(Data::Array result) { result_ = std::move(result); }
    const Data::Array& GetResult() const { return result_; }
    bool IsDone() const { return done_.IsSet(); }

    // Runs on the dispatcher thread: releases what the stages held, sets the done event, then
    // calls the callback (if the request was not cancelled) with `result`.
    void Complete(const Data::Array& result);
    // The same with the result field.
    void Complete() { Complete(result_); }

private:
    // Takes the callback and the stage references out under the lock.
    struct Stages {
        TileDataCallback callback;
        Core::Ptr<Platform::Interfaces::IHttpRequest> httpRequest;
        Core::Ptr<Core::IObject> spare;
        Core::Ptr<Platform::Interfaces::IAsyncTask> task;
    };
    Stages TakeStages();

    int32_t z_, x_, y_;
    std::atomic<bool> cancelled_{false};
    // Guards the hand-over of the callback and the stage references between Cancel (any
    // thread) and the stages; nothing is called under it.
    std::mutex mutex_;
    TileDataCallback callback_;
    Core::Ptr<Platform::Interfaces::IHttpRequest> httpRequest_;
    Core::Ptr<Core::IObject> spare_;
    Core::Ptr<Platform::Interfaces::IAsyncTask> task_;
    Platform::Threading::AlertableEvent done_;
    Data::Array result_;
};

class TileRequestImpl final : public Core::ObjectImplBase<TileRequestBase> {
public:
    TileRequestImpl(int32_t z, int32_t x, int32_t y, TileDataCallback callback)
        : ObjectImplBase(z, x, y, std::move(callback)) {}
};

} // namespace MapServices::impl
