#pragma once
// The library calls of tellar-maps: opening a service and turning the boundary convention
// (bool + IErrorCode**) into exceptions that main reports.
#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include "CommandLine.h"
#include "Core/ErrorCode.h"
#include "Platform/Interfaces/IAsyncTask.h"
#include "Core/Ptr.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Tellar/Interfaces/IEpsg.h"
#include "Tellar/Interfaces/IMapService.h"

namespace TellarMaps {

// A failure reported by one of the libraries; what() is the error object's text, unchanged.
struct LibraryFailure : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Calls `call(IErrorCode**)` and throws LibraryFailure with the error's text when it returns false.
template <class Call>
void Invoke(Call&& call) {
    Core::Ptr<Core::IErrorCode> error;
    if (std::forward<Call>(call)(error.ReceiveAddress())) return;
    if (const Core::IErrorCode* e = error.Raw())
        throw LibraryFailure(std::string(e->GetMessage(), e->GetMessageLength()));
    throw LibraryFailure("the library failed without saying why");
}

// A service and the CRS database it was made with. Members go in reverse order, so the
// database outlives the service.
struct TmsService {
    Core::Ptr<Tellar::Interfaces::IEpsg> epsg;
    Core::Ptr<Tellar::Interfaces::IMapService> service;
};

// The plain factory, or the cached one when `cacheDir` is given; then SetTargetCrs when
// `targetEpsg` is given.
TmsService OpenTmsService(const std::string& url, uint32_t epsgCode, const std::optional<std::string>& cacheDir,
                          std::optional<uint32_t> targetEpsg);

// The service the command line names (any of the four kinds), through the plain or the cached
// factory, with the target CRS set when one is given.
TmsService OpenService(const Options& options);

// Waits for a task of the library on this thread, the one that made the service: the wait is
// alertable, so the task's completion runs here. The task's failure text is thrown.
void AwaitTask(Platform::Interfaces::IAsyncTask& task);

Core::Ptr<Tellar::Interfaces::IBoundingBox2d> MakeBox(const std::array<double, 4>& values);
std::array<double, 4> BoxValues(Tellar::Interfaces::IBoundingBox2d* box);

} // namespace TellarMaps
