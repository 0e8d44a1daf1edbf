#include "Tellar/Spatial/Maps/TileRequestImpl.h"

#include <filesystem>
#include <stdexcept>
#include <system_error>

#include "Core/AbiGuard.h"
#include "Core/Checked.h"
#include "Data/Values.h"
#include "MapServices/Common/CacheFile.h"
#include "Platform/Files.h"
#include "Platform/Threading/AsyncTask.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Tellar/Spatial/Maps/TileResponseImpl.h"

namespace Tellar::Spatial::Maps::impl {

namespace {

using Platform::Interfaces::AsyncTaskCompleted;
using Platform::Interfaces::AsyncTaskQueued;
using Platform::Interfaces::AsyncTaskRunning;
using Platform::Network::Http::HttpResponse;

constexpr uint32_t WaitForever = 0xFFFFFFFFu;
constexpr uint32_t ShareReadDelete = 5;

bool IsNotFound(const std::error_code& error) {
    return error == std::errc::no_such_file_or_directory || error == std::errc::not_a_directory;
}

// Makes the directory of a cache file when it is missing; false when it was there.
bool MakeParentDirectory(const std::string& path) {
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    if (parent.empty()) return false;
    std::error_code error;
    const auto status = std::filesystem::status(parent, error);
    if (error && !IsNotFound(error)) Core::ThrowFileSystemError("exists", parent.string(), error);
    if (!error && status.type() != std::filesystem::file_type::not_found) return false;
    std::filesystem::create_directories(parent, error);
    if (error) Core::ThrowFileSystemError("create_directories", parent.string(), error);
    return true;
}

// Writes a cache file. Its directory is looked for only when the write fails: most tiles go
// where others went before them.
void WriteCacheFileMakingDirectory(const HttpResponse& response, const std::string& path) {
    try {
        MapServices::WriteCacheFile(response, path);
    } catch (...) {
        if (!MakeParentDirectory(path)) throw;
        MapServices::WriteCacheFile(response, path);
    }
}

// The task's response with a reference of its own.
struct ResponseResult {
    using element_type = Platform::Interfaces::IHttpResponse;
    Core::Ptr<Platform::Interfaces::IHttpResponse> response;
    explicit ResponseResult(Core::Ptr<Platform::Interfaces::IHttpResponse> r) : response(std::move(r)) {}
};

} // namespace

TileRequestImpl::TileRequestImpl(int32_t zoom, int64_t x, int64_t y, const MapServices::BoundingBoxValue& bounds,
                                 int32_t epsgCode, std::string cacheFilePath)
    : zoom_(zoom), x_(x), y_(y), bounds_(bounds), epsgCode_(epsgCode), cacheFilePath_(std::move(cacheFilePath)) {}

TileRequestImpl::TileRequestImpl(Platform::Network::Http::HttpRequest request, int32_t zoom, int64_t x, int64_t y,
                                 const MapServices::BoundingBoxValue& bounds, int32_t epsgCode,
                                 std::string cacheFilePath)
    : httpRequest_(std::move(request)),
      zoom_(zoom),
      x_(x),
      y_(y),
      bounds_(bounds),
      epsgCode_(epsgCode),
      cacheFilePath_(std::move(cacheFilePath)) {
    if (!httpRequest_->GetResponseAsync(task_.ReceiveAddress())) throw std::runtime_error("Failed to create response!");
}

bool TileRequestImpl::IsRunning() {
    if (!task_.Raw()) return false;
    const int32_t state = task_->GetState();
    return state == AsyncTaskQueued || state == AsyncTaskRunning;
}

bool TileRequestImpl::IsFinished() {
    if (!task_.Raw()) return true;
    return task_->IsCompleted() || task_->IsCancelled();
}

void TileRequestImpl::Cancel() {
    cancelled_ = true;
    if (task_.Raw()) task_->Cancel();
}

void TileRequestImpl::Abandon() {
    Cancel();
    // Closing ends the exchange at once: the task is cancelled by the close, and the transport
    // gives back its reference to the request when the handle has closed.
    if (!httpRequest_.IsNull() && !httpRequest_->IsClosed()) httpRequest_->Close();
}

void TileRequestImpl::AwaitRelease(uint32_t timeout) {
    if (!httpRequest_.IsNull()) httpRequest_.WaitReleased(timeout);
}

Core::Ptr<Tellar::Interfaces::ITileResponse> TileRequestImpl::ReadCacheFile() const {
    Core::Ptr<Platform::Interfaces::IFile> file;
    Core::Ptr<Core::IErrorCode> error;
    const bool opened = Platform::Windows::IO::_abi_CreateFile(
        cacheFilePath_.c_str(), file.ReceiveAddress(), Platform::Windows::IO::GenericRead, ShareReadDelete,
        Platform::Windows::IO::OpenExisting, 0, 0, 0, 0, error.ReceiveAddress());
    auto* synchronous = opened ? dynamic_cast<Platform::Interfaces::ISynchrounousFile*>(file.Raw()) : nullptr;
    if (!synchronous) throw std::runtime_error("Failed to read file: " + cacheFilePath_);

    const uint64_t size = file->GetSize();
    Data::Array data = Data::Array::Create(size);
    uint64_t done = 0;
    auto* bytes = static_cast<uint8_t*>(data->GetData());
    while (done < size) {
        Core::Ptr<Core::IErrorCode> readError;
        const uint32_t read = synchronous->_abi_Read(bytes + done, size - done, readError.ReceiveAddress());
        if (readError.Raw() || read == 0) throw std::runtime_error("Failed to read file: " + cacheFilePath_);
        done += read;
    }
    return Core::MakeObject<TileResponseImpl>(Core::Ptr<Platform::Interfaces::IHttpResponse>(), std::move(data),
                                              bounds_, epsgCode_, zoom_, x_, y_);
}

Core::Ptr<Tellar::Interfaces::ITileResponse> TileRequestImpl::AwaitDownload() const {
    Core::CheckedPtr<Platform::Interfaces::IAsyncTask> task(task_);
    task->Wait(WaitForever);
    if (task->GetState() != AsyncTaskCompleted) {
        const char* text = task->GetErrorMessage();
        throw std::runtime_error(text ? text : "");
    }
    const Platform::Threading::AsyncTaskWithResultBase<ResponseResult> typed{Platform::Threading::AsyncTask(task)};
    const HttpResponse response(typed.GetResult().response.Raw());

    // Only a whole exchange of tile bytes goes to the cache, whatever its status line said: an
    // error page or an empty body served with 200 would stand there for ever.
    if (!cacheFilePath_.empty() && response.GetStatusCode() == 200 && httpRequest_->IsCompleted() &&
        response.Get()->GetBodySize() > 0 &&
        MapServices::IsTileContentType(response.Get()->GetHeader("Content-Type"))) {
        WriteCacheFileMakingDirectory(response, cacheFilePath_);
    }
    return Core::MakeObject<TileResponseImpl>(Core::Ptr<Platform::Interfaces::IHttpResponse>(response.Get()),
                                              Core::Ptr<Data::Interfaces::IArray>(), bounds_, epsgCode_, zoom_, x_, y_);
}

bool TileRequestImpl::GetResponse(Tellar::Interfaces::ITileResponse** ppResponse, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppResponse);
            if (cancelled_) throw std::runtime_error("Request was already cancelled");
            Core::Ptr<Tellar::Interfaces::ITileResponse> response =
                !task_.Raw() && !cacheFilePath_.empty() ? ReadCacheFile() : AwaitDownload();
            *ppResponse = response.Detach();
        },
        ppError);
}

bool TileRequestImpl::GetBounds(Tellar::Interfaces::IBoundingBox2d** ppBox, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppBox);
            *ppBox = MakeBoundingBox(bounds_).Detach();
        },
        ppError);
}

} // namespace Tellar::Spatial::Maps::impl
