#pragma once
#include <cstdint>

#include "Data/Values.h"
#include "Platform/Threading/AsyncTask.h"
#include "Tellar/Interfaces/IOgcMapService.h"
#include "Tellar/Spatial/Maps/GenericMapServiceT.h"

namespace MapServices::impl {
class ServiceTileFetcherBase;
}

namespace Tellar::Spatial::Maps::impl {

// What the WMS and WCS services share: pictures and data of a box through the service fetcher,
// each wrapped in a task that completes on the dispatcher of the fetcher.
template <class I>
class GenericOgcMapServiceT : public GenericMapServiceT<I> {
public:
    using GenericMapServiceT<I>::GenericMapServiceT;

    void SetCrs(Tellar::Interfaces::ICrs* crs) override { this->ReplaceServiceCrs(crs); }
    bool GetMapSync(int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
                    TellarImaging::ITiffImage** ppImage, Core::IErrorCode** ppError) override;
    bool GetMapAsync(const char* layer, int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
                     Data::Interfaces::IDateTime* time, Platform::Interfaces::IAsyncTask** ppTask,
                     Core::IErrorCode** ppError) override;
    bool GetMapSimpleAsync(int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
                           Platform::Interfaces::IAsyncTask** ppTask, Core::IErrorCode** ppError) override;
    bool GetDataAsync(const char* layer, int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
                      Data::Interfaces::IDateTime* time, Platform::Interfaces::IAsyncTask** ppTask,
                      Core::IErrorCode** ppError) override;

    // The task of a picture; its result is the image, as a TIFF image.
    Platform::Threading::AsyncTaskWithResultBase<Core::Ptr<TellarImaging::IImage>> GetMap(
        const char* layer, int32_t width, int32_t height, Tellar::Interfaces::IBoundingBox2d* box,
        Data::Interfaces::IDateTime* time);
    // The task of the server's bytes.
    Platform::Threading::AsyncTaskWithResultBase<Data::Array> GetData(const char* layer, int32_t width,
                                                                      int32_t height,
                                                                      Tellar::Interfaces::IBoundingBox2d* box,
                                                                      Data::Interfaces::IDateTime* time);

protected:
    ~GenericOgcMapServiceT() override = default;

    // "CRS:84" for a 4326 service, else "EPSG:<code>".
    std::string RequestCrsName();

private:
    // A new task, the request, and `fetch` of the service fetcher with a handler whose function
    // hands the result to `complete(task, layer name, result)` on the dispatcher.
    template <class Handler, class Function>
    Platform::Threading::AsyncTask Start(const char* layer, int32_t width, int32_t height,
                                         Tellar::Interfaces::IBoundingBox2d* box, Data::Interfaces::IDateTime* time,
                                         void (MapServices::impl::ServiceTileFetcherBase::*fetch)(Handler),
                                         Function complete);
};

} // namespace Tellar::Spatial::Maps::impl
