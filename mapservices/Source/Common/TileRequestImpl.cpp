#include "TileRequestImpl.h"

#include "Platform/Threading/ThreadHelpers.h"

namespace MapServices::impl {

namespace ThreadHelpers = Platform::Windows::Threading::ThreadHelpers;

TileRequestBase::TileRequestBase(int32_t z, int32_t x, int32_t y, TileDataCallback callback)
    : z_(z), x_(x), y_(y), callback_(std::move(callback)), result_(Data::Array::Create(0)) {}

void TileRequestBase::SetTask(Core::Ptr<Platform::Interfaces::IAsyncTask> task) {
    std::lock_guard lock(mutex_);
    task_ = std::move(task);
}

void TileRequestBase::SetHttpRequest(Core::Ptr<Platform::Interfaces::IHttpRequest> request) {
    std::lock_guard lock(mutex_);
    httpRequest_ = std::move(request);
}

TileRequestBase::Stages TileRequestBase::TakeStages() {
    std::lock_guard lock(mutex_);
    return Stages{std::move(callback_), std::move(httpRequest_), std::move(spare_), std::move(task_)};
}

void TileRequestBase::Cancel() {
    Stages stages = TakeStages();
    if (stages.httpRequest.Raw()) stages.httpRequest->Close();
    if (stages.task.Raw()) stages.task->Cancel();
    cancelled_ = true;
    stages = Stages{};
    done_.Set();
}

bool TileRequestBase::Wait() { return ThreadHelpers::WaitForSingleObject(done_, ThreadHelpers::Infinite, true, true); }

void TileRequestBase::Complete(const Data::Array& result) {
    const Data::Array bytes = result; // the result field may be replaced while the callback runs
    TileDataCallback callback;
    {
        Stages stages = TakeStages();
        callback = std::move(stages.callback);
    }
    done_.Set();
    if (callback) callback(bytes);
}

} // namespace MapServices::impl
