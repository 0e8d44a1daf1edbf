#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "MapServices/Common/BoundingBoxValue.h"
#include "MapServices/Geometry.h"
#include "MapServices/Interfaces/ITileFetcher.h"
#include "Tellar/Interfaces/ICrs.h"
#include "Tellar/Interfaces/IMapService.h"
#include "Tellar/Interfaces/ITileResponse.h"
#include "Tellar/Spatial/Maps/CrsTransformationHolder.h"

namespace MapServices::Wmts {
struct WmtsTileMatrix;
}

namespace Tellar::Spatial::Maps::impl {

// The directory of the cache files a list's tiles would have, looked at once per directory: when
// it is missing none of its tiles is cached, and they are not looked for one by one.
class CacheDirectoryMemo {
public:
    // False when the directory of `path` is known to be missing.
    bool MayHold(const std::string& path);

private:
    std::string directory_;
    bool known_ = false;
    bool present_ = true;
};

// The map service over one tile fetcher: tile addressing, the caller's CRS, tile requests and
// mosaics. `I` is the caller-facing interface the service implements.
template <class I>
class GenericMapServiceT : public Core::ObjectImplBase<I> {
public:
    using Fetcher = MapServices::Interfaces::ITileFetcher;

    // Turns the fetcher's cache off; a factory turns it on again for a cached service.
    GenericMapServiceT(Core::Ptr<Fetcher> fetcher, Core::Ptr<Tellar::Interfaces::ICrs> serviceCrs);

    bool GetTile(int32_t zoom, int64_t x, int64_t y, Tellar::Interfaces::ITileRequest** ppRequest,
                 Core::IErrorCode** ppError) override;
    bool GetTilesForBox(int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box, Data::Interfaces::IObjectList** ppList,
                        Core::IErrorCode** ppError) override;
    bool GetTilesForRange(int32_t zoom, int64_t minX, int64_t minY, int64_t maxX, int64_t maxY,
                          Data::Interfaces::IObjectList** ppList, Core::IErrorCode** ppError) override;
    bool GetImage(int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box, TellarImaging::ITiffImage** ppImage,
                  Core::IErrorCode** ppError) override;
    const char* GetServiceUrl() override;
    const char* GetLayerName() override;
    Tellar::Interfaces::ICrs* GetCrs() override;
    Tellar::Interfaces::ICrs* GetTargetCrs() override { return targetCrs_.Raw(); }
    void SetTargetCrs(Tellar::Interfaces::ICrs* crs) override;
    Platform::Interfaces::IHttpClient* GetHttpClient() override;
    bool GetImageBestEffort(int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box, TellarImaging::ITiffImage** ppImage,
                            Core::IErrorCode** ppError) override;

    // The tiles that cover a box given in the caller's CRS.
    MapServices::TileRange BoxToTileRange(int32_t zoom, MapServices::BoundingBoxValue box);
    // The box of a tile rectangle: degrees for the 4326 and 3857 services.
    MapServices::BoundingBoxValue TileRangeToBox(int32_t zoom, const MapServices::TileRange& range);
    // The tiles of a WMTS tile matrix that cover a box in the matrix's CRS.
    static MapServices::TileRange TileMatrixRange(const MapServices::Wmts::WmtsTileMatrix& matrix,
                                                  const MapServices::BoundingBoxValue& box);

    Fetcher* GetFetcher() const { return fetcher_.Raw(); }

protected:
    ~GenericMapServiceT() override = default;

    // Installs a new service CRS and renews the transformation.
    void ReplaceServiceCrs(Tellar::Interfaces::ICrs* crs);

private:
    Core::Ptr<Tellar::Interfaces::ITileRequest> MakeTileRequest(int32_t zoom, int64_t x, int64_t y,
                                                                CacheDirectoryMemo* memo = nullptr);
    Core::Ptr<Data::Interfaces::IObjectList> MakeTileList(int32_t zoom, const MapServices::TileRange& range);
    bool MosaicCall(int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box, TellarImaging::ITiffImage** ppImage,
                    Core::IErrorCode** ppError, bool bestEffort);
    TellarImaging::ITiffImage* MakeMosaic(int32_t zoom, const MapServices::BoundingBoxValue& box, bool bestEffort);
    void RenewTransformation();
    MapServices::Wmts::WmtsTileMatrix WmtsMatrix(int32_t zoom);

    Core::CheckedPtr<Fetcher> fetcher_;
    Core::Ptr<Tellar::Interfaces::ICrs> serviceCrs_;
    Core::Ptr<Tellar::Interfaces::ICrs> targetCrs_;
    CrsTransformationHolder transformation_;
    // Keep the texts handed out by GetServiceUrl and GetLayerName alive until the next call.
    std::string serviceUrl_;
    std::string layerName_;
};

} // namespace Tellar::Spatial::Maps::impl
