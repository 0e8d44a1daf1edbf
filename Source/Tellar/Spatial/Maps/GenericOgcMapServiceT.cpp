#include "Tellar/Spatial/Maps/GenericOgcMapServiceT.h"

#include <fmt/format.h>

#include <exception>
#include <string>

#include "Common/ServiceTileFetcherBase.h"
#include "Core/AbiGuard.h"
#include "Core/ErrorCodeImpl.h"
#include "Platform/Log.h"
#include "Platform/Threading/AsyncTaskImpl.h"
#include "Private/Spatial/Raster/ImageBase.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Tellar/Interfaces/ICrs.h"

namespace Tellar::Spatial::Maps::impl {

namespace {

using Platform::Threading::impl::AsyncTaskImpl;

constexpr uint32_t WaitForever = 0xFFFFFFFFu;
constexpr const char* SourceName = "Tellar\\Spatial\\Maps\\Maps";
constexpr const char* MapFunction =
    "Tellar::Spatial::Maps::impl::GenericOgcMapServiceT<struct Tellar::Interfaces::IOgcMapService>::GetMap::<lambda_1>"
    "::operator ()";
constexpr const char* DataFunction =
    "Tellar::Spatial::Maps::impl::GenericOgcMapServiceT<struct Tellar::Interfaces::IOgcMapService>::GetData::<lambda_1>"
    "::operator ()";
constexpr int MapLine = 539;
constexpr int DataLine = 557;

// Where a completion reports its failure.
struct FailureSite {
    const char* function;
    int line;
};

void Complete(AsyncTaskImpl& task, const Data::Variant& result) {
    task.SetResult(&result.Raw());
    task.SetState(Platform::Interfaces::AsyncTaskCompleted);
    task.Signal();
}

// Ends the task as failed: the error object as its result (unless one is there), the record, state 6.
void Fail(AsyncTaskImpl& task, const std::string& text, FailureSite site) {
    if (task.ResultIsEmpty()) {
        const Data::Variant error =
            Data::Variant::FromObject(Core::Ptr<Core::IErrorCode>(Core::MakeObject<Core::impl::ErrorCodeImpl>(0, text)));
        task.SetResult(&error.Raw());
    }
    Platform::Interfaces::AsyncTaskErrorRecord record;
    record.success = 0;
    record.message = text.c_str();
    record.function = site.function;
    record.file = SourceName;
    record.line = site.line;
    task.SetError(&record);
    task.SetState(Platform::Interfaces::AsyncTaskFailed);
    task.Signal();
}

// Nothing came: the line in the log and the task failed with the same text.
void FailDownload(AsyncTaskImpl& task, const std::string& name, FailureSite site) {
    const std::string text = fmt::format("Failed to download data from WCS service {}", name);
    Platform::LogMessage(Platform::LogError, site.function, SourceName, site.line, text);
    Fail(task, text, site);
}

// The guards of a call that hands out a task, then the task that `start` makes.
template <class Start>
bool TaskCall(Tellar::Interfaces::IBoundingBox2d* box, Platform::Interfaces::IAsyncTask** ppTask,
              Core::IErrorCode** ppError, Start&& start) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(box);
            Core::CheckResultAddress(ppTask);
            *ppTask = start().Detach();
        },
        ppError);
}

} // namespace

template <class I>
template <class Handler, class Function>
Platform::Threading::AsyncTask GenericOgcMapServiceT<I>::Start(const char* layer, int32_t width, int32_t height,
                                                               Tellar::Interfaces::IBoundingBox2d* box,
                                                               Data::Interfaces::IDateTime* time,
                                                               void (MapServices::impl::ServiceTileFetcherBase::*fetch)(Handler),
                                                               Function complete) {
    auto task = Core::MakeObject<AsyncTaskImpl>();
    Core::Ptr<MapServices::Interfaces::IServiceRequest> request = this->CreateRequest(layer, width, height, box, time);
    std::string name = this->GetFetcher()->GetLayerName();
    auto* fetcher = Core::Ptr<MapServices::Interfaces::ITileFetcher>(this->GetFetcher())
                        .template Cast<MapServices::impl::ServiceTileFetcherBase>();
    (fetcher->*fetch)(Handler{request, [task, name, complete](auto result) { complete(*task, name, result); }});
    return Platform::Threading::AsyncTask(Core::Ptr<Platform::Interfaces::IAsyncTask>(task));
}

template <class I>
std::string GenericOgcMapServiceT<I>::RequestCrsName() {
    const uint32_t code = this->GetCrs()->GetEpsgCode();
    return code == 4326 ? std::string("CRS:84") : fmt::format("EPSG:{}", code);
}

template <class I>
Platform::Threading::AsyncTaskWithResultBase<Core::Ptr<TellarImaging::IImage>> GenericOgcMapServiceT<I>::GetMap(
    const char* layer, int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
    Data::Interfaces::IDateTime* time) {
    return Start<MapServices::impl::ServiceImageRequestHandler>(
        layer, width, height, box, time, &MapServices::impl::ServiceTileFetcherBase::GetMapAsync,
        [](AsyncTaskImpl& task, const std::string& name, TellarImaging::IImage* image) {
            if (!image) {
                FailDownload(task, name, {MapFunction, MapLine});
                return;
            }
            // Pictures come back as TIFF images, whatever the server's format.
            try {
                const Core::Ptr<TellarImaging::IImage> tiff = TellarImaging::ToTiffImageBase(image).image;
                Complete(task, Data::Variant::Owned(tiff.Raw(), Data::Structures::TagObject));
            } catch (const std::exception& e) {
                Fail(task, e.what(), {MapFunction, MapLine});
            }
        });
}

template <class I>
Platform::Threading::AsyncTaskWithResultBase<Data::Array> GenericOgcMapServiceT<I>::GetData(
    const char* layer, int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
    Data::Interfaces::IDateTime* time) {
    return Start<MapServices::impl::ServiceDataRequestHandler>(
        layer, width, height, box, time, &MapServices::impl::ServiceTileFetcherBase::GetDataAsync,
        [](AsyncTaskImpl& task, const std::string& name, const Data::Array& data) {
            if (data.IsNull() || data.GetSizeInBytes() == 0) {
                FailDownload(task, name, {DataFunction, DataLine});
                return;
            }
            Complete(task, Data::Variant::FromObject(Core::Ptr<Data::Interfaces::IArray>(data)));
        });
}

template <class I>
bool GenericOgcMapServiceT<I>::GetMapSync(int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
                                          TellarImaging::ITiffImage** ppImage, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(box);
            Core::CheckResultAddress(ppImage);
            const auto task = GetMap(nullptr, width, height, box, nullptr);
            task->Wait(WaitForever);
            const Core::Ptr<TellarImaging::IImage> image = task.GetResult();
            *ppImage = Core::Ptr<TellarImaging::ITiffImage>(image.template Cast<TellarImaging::ITiffImage>()).Detach();
        },
        ppError);
}

template <class I>
bool GenericOgcMapServiceT<I>::GetMapAsync(const char* layer, int32_t width, int32_t height,
                                           Tellar::Interfaces::IBoundingBox2d* box, Data::Interfaces::IDateTime* time,
                                           Platform::Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    return TaskCall(box, ppTask, ppError, [&] { return GetMap(layer, width, height, box, time); });
}

template <class I>
bool GenericOgcMapServiceT<I>::GetMapSimpleAsync(int32_t width, int32_t height,
                                                 Tellar::Interfaces::IBoundingBox2d* box,
                                                 Platform::Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    return GetMapAsync(nullptr, width, height, box, nullptr, ppTask, ppError);
}

template <class I>
bool GenericOgcMapServiceT<I>::GetDataAsync(const char* layer, int32_t width, int32_t height,
                                            Tellar::Interfaces::IBoundingBox2d* box, Data::Interfaces::IDateTime* time,
                                            Platform::Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) {
    return TaskCall(box, ppTask, ppError, [&] { return GetData(layer, width, height, box, time); });
}

template class GenericOgcMapServiceT<Tellar::Interfaces::IOgcMapService>;

} // namespace Tellar::Spatial::Maps::impl
