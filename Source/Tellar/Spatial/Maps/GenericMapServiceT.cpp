#include "Tellar/Spatial/Maps/GenericMapServiceT.h"

#include <cmath>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "Core/AbiGuard.h"
#include "Core/TypeName.h"
#include "Data/Values.h"
#include "MapServices/Common/TileMath.h"
#include "Core/Checked.h"
#include "MapServices/Wmts/TileMatrixGeometry.h"
#include "MapServices/Wmts/WmtsCapabilities.h"
#include "Private/Spatial/Raster/ImageBase.h"
#include "Private/Spatial/Raster/RasterUtils.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Tellar/Interfaces/IOgcMapService.h"
#include "Tellar/Interfaces/ITileRequest.h"
#include "Tellar/Spatial/Maps/Mosaic.h"
#include "Tellar/Spatial/Maps/TileRequestImpl.h"
#include "Wmts/WmtsFetcherImpl.h"

namespace Tellar::Spatial::Maps::impl {

namespace {

using MapServices::BoundingBoxValue;
using MapServices::TileRange;

constexpr double EarthRadius = 6378137.0;
constexpr double HalfPi = 1.570796326794895;

double MercatorToLongitude(double x) { return x / EarthRadius * MapServices::DegreesPerRadian; }
double MercatorToLatitude(double y) {
    return (2.0 * std::atan(std::exp(y / EarthRadius)) - HalfPi) * MapServices::DegreesPerRadian;
}

BoundingBoxValue ValuesOf(Tellar::Interfaces::IBoundingBox2d& box) {
    BoundingBoxValue value;
    box.GetValues(&value.minX, &value.minY, &value.maxX, &value.maxY);
    return value;
}

// Calls f(x, y) for every tile of the range, x in the outer loop; safe at the ends of int64.
template <class F>
void ForEachTile(const TileRange& range, F&& f) {
    if (range.minX > range.maxX || range.minY > range.maxY) return;
    for (int64_t x = range.minX;; ++x) {
        for (int64_t y = range.minY;; ++y) {
            f(x, y);
            if (y == range.maxY) break;
        }
        if (x == range.maxX) break;
    }
}

// The most tiles one list or mosaic may hold; an unset box (±1.8e308) would ask for 2^128.
constexpr uint64_t MaxTiles = 1048576;

// How long a failed mosaic waits, per request, for the transport to let go of the downloads it
// closed; the transport does it as soon as it sees the close.
constexpr uint32_t AbandonPatience = 10000;

// The product of two decimal numbers, in decimal.
std::string DecimalProduct(const std::string& a, const std::string& b) {
    std::vector<int> digits(a.size() + b.size(), 0);
    for (size_t i = 0; i < a.size(); ++i)
        for (size_t j = 0; j < b.size(); ++j) digits[i + j + 1] += (a[i] - '0') * (b[j] - '0');
    for (size_t k = digits.size() - 1; k > 0; --k) {
        digits[k - 1] += digits[k] / 10;
        digits[k] %= 10;
    }
    std::string text;
    for (const int digit : digits)
        if (!text.empty() || digit != 0) text += static_cast<char>('0' + digit);
    return text.empty() ? "0" : text;
}

// Refuses a range of more than MaxTiles tiles. A side spans up to 2^64 tiles, so the count
// can pass every integer type and its text is worked out in decimal.
void CheckTileCount(const TileRange& range) {
    if (range.minX > range.maxX || range.minY > range.maxY) return;
    // A side's length less one is exact in uint64 however far apart its ends lie.
    const uint64_t columns = static_cast<uint64_t>(range.maxX) - static_cast<uint64_t>(range.minX);
    const uint64_t rows = static_cast<uint64_t>(range.maxY) - static_cast<uint64_t>(range.minY);
    if (columns < MaxTiles && rows < MaxTiles && (columns + 1) * (rows + 1) <= MaxTiles) return;
    const auto side = [](uint64_t lessOne) {
        return lessOne == UINT64_MAX ? std::string("18446744073709551616") : std::to_string(lessOne + 1);
    };
    throw std::runtime_error(fmt::format("Too many tiles requested: {}", DecimalProduct(side(columns), side(rows))));
}

// x + 1 without overflow at the top of the range: it wraps, as the tile arithmetic always has.
int64_t Next(int64_t value) { return static_cast<int64_t>(static_cast<uint64_t>(value) + 1u); }

} // namespace

bool CacheDirectoryMemo::MayHold(const std::string& path) {
    const size_t slash = path.rfind('/');
    const std::string_view directory(path.data(), slash == std::string::npos ? 0 : slash);
    if (!known_ || directory != directory_) {
        directory_.assign(directory);
        known_ = true;
        std::error_code error;
        // A directory that can't be looked at is left to the look at each file.
        present_ = directory_.empty() || std::filesystem::exists(directory_, error) || error;
    }
    return present_;
}

template <class I>
GenericMapServiceT<I>::GenericMapServiceT(Core::Ptr<Fetcher> fetcher, Core::Ptr<Tellar::Interfaces::ICrs> serviceCrs)
    : fetcher_(std::move(fetcher)), serviceCrs_(std::move(serviceCrs)) {
    fetcher_->SetCacheEnabled(false);
}

template <class I>
MapServices::TileRange GenericMapServiceT<I>::TileMatrixRange(const MapServices::Wmts::WmtsTileMatrix& matrix,
                                                              const BoundingBoxValue& box) {
    return MapServices::Wmts::TileMatrixRange(matrix, box);
}

template <class I>
MapServices::Wmts::WmtsTileMatrix GenericMapServiceT<I>::WmtsMatrix(int32_t zoom) {
    // Only a WMTS fetcher knows tile matrices: the one at index `zoom` of its current set.
    auto* wmts = dynamic_cast<MapServices::Wmts::impl::WmtsFetcherImpl*>(fetcher_.Raw());
    if (!wmts) throw std::runtime_error("Unsupported projection");
    const std::vector<MapServices::Wmts::WmtsTileMatrix> matrices =
        wmts->GetLayer()->GetCurrentTileMatrixSet()->GetTileMatrices();
    return Core::At(matrices, static_cast<size_t>(zoom));
}

template <class I>
MapServices::TileRange GenericMapServiceT<I>::BoxToTileRange(int32_t zoom, BoundingBoxValue box) {
    if (transformation_.transformation.Raw()) {
        double corners[16] = {box.minX, box.minY, 0, 0, box.minX, box.maxY, 0, 0,
                              box.maxX, box.maxY, 0, 0, box.maxX, box.minY, 0, 0};
        if (!transformation_.noOp) {
            Core::Ptr<Core::IErrorCode> error;
            if (!transformation_.transformation->TransformPoints(4, corners, error.ReceiveAddress()))
                Core::ThrowIfError(error);
        }
        box = BoundingBoxValue();
        for (int i = 0; i < 4; ++i) box.Extend(corners[i * 4], corners[i * 4 + 1]);
    }
    switch (serviceCrs_->GetEpsgCode()) {
    case 4326: return fetcher_->GetTileRange(box, zoom);
    case 3857: {
        BoundingBoxValue degrees;
        degrees.minX = MercatorToLongitude(box.minX);
        degrees.minY = MercatorToLatitude(box.minY);
        degrees.maxX = MercatorToLongitude(box.maxX);
        degrees.maxY = MercatorToLatitude(box.maxY);
        return fetcher_->GetTileRange(degrees, zoom);
    }
    default: return TileMatrixRange(WmtsMatrix(zoom), box);
    }
}

template <class I>
BoundingBoxValue GenericMapServiceT<I>::TileRangeToBox(int32_t zoom, const TileRange& range) {
    BoundingBoxValue box;
    const uint32_t code = serviceCrs_->GetEpsgCode();
    if (code == 4326 || code == 3857) {
        const double n = std::pow(2.0, zoom);
        box.Extend(MapServices::TileLongitude(static_cast<double>(range.minX), n),
                   MapServices::TileLatitude(static_cast<double>(range.minY), n));
        box.Extend(MapServices::TileLongitude(static_cast<double>(range.maxX), n),
                   MapServices::TileLatitude(static_cast<double>(range.maxY), n));
        return box;
    }
    const MapServices::Wmts::WmtsTileMatrix matrix = WmtsMatrix(zoom);
    const double size = matrix.scaleDenominator * 0.00028;
    const auto corner = [&](int64_t column, int64_t row) {
        box.Extend(static_cast<double>(column) * static_cast<double>(matrix.tileWidth) * size + matrix.topLeftX,
                   static_cast<double>(row) * -(static_cast<double>(matrix.tileHeight) * size) + matrix.topLeftY);
    };
    corner(range.minX, range.minY);
    corner(range.maxX, range.maxY);
    return box;
}

template <class I>
void GenericMapServiceT<I>::RenewTransformation() {
    if (serviceCrs_.Raw() && targetCrs_.Raw())
        transformation_ = CrsTransformationHolder(targetCrs_, serviceCrs_);
    else
        transformation_ = CrsTransformationHolder();
}

template <class I>
void GenericMapServiceT<I>::SetTargetCrs(Tellar::Interfaces::ICrs* crs) {
    targetCrs_ = Core::Ptr<Tellar::Interfaces::ICrs>(crs);
    RenewTransformation();
}

template <class I>
void GenericMapServiceT<I>::ReplaceServiceCrs(Tellar::Interfaces::ICrs* crs) {
    serviceCrs_ = Core::Ptr<Tellar::Interfaces::ICrs>(crs);
    RenewTransformation();
}

template <class I>
Tellar::Interfaces::ICrs* GenericMapServiceT<I>::GetCrs() {
    if (!serviceCrs_.Raw()) Core::detail::ThrowNullPointer(Core::TypeName<Tellar::Interfaces::ICrs>());
    return serviceCrs_.Raw();
}

template <class I>
const char* GenericMapServiceT<I>::GetServiceUrl() {
    serviceUrl_ = fetcher_->GetServiceUrl();
    return serviceUrl_.c_str();
}

template <class I>
const char* GenericMapServiceT<I>::GetLayerName() {
    layerName_ = fetcher_->GetLayerName();
    return layerName_.c_str();
}

template <class I>
Platform::Interfaces::IHttpClient* GenericMapServiceT<I>::GetHttpClient() {
    // The fetcher keeps its client, so the pointer outlives this reference. A client that
    // can't be made is no client: nothing thrown leaves the library here.
    try {
        return fetcher_->GetHttpClient().Raw();
    } catch (const std::exception&) {
        return nullptr;
    }
}

template <class I>
Core::Ptr<Tellar::Interfaces::ITileRequest> GenericMapServiceT<I>::MakeTileRequest(int32_t zoom, int64_t x, int64_t y,
                                                                                   CacheDirectoryMemo* memo) {
    TileRange range;
    range.Extend(x, y);
    range.Extend(Next(x), Next(y));
    const auto z = zoom;
    const auto column = static_cast<int32_t>(x);
    const auto row = static_cast<int32_t>(y);
    const auto epsgCode = static_cast<int32_t>(serviceCrs_->GetEpsgCode());
    const BoundingBoxValue bounds = TileRangeToBox(zoom, range);
    std::string path = fetcher_->IsCacheEnabled() ? fetcher_->GetCachedTilePath(z, column, row) : std::string();
    if (!path.empty() && (!memo || memo->MayHold(path)) && fetcher_->IsTileCached(z, column, row))
        return Core::MakeObject<TileRequestImpl>(zoom, x, y, bounds, epsgCode, std::move(path));
    Platform::Network::Http::HttpRequest request = fetcher_->CreateTileHttpRequest(z, column, row);
    return Core::MakeObject<TileRequestImpl>(std::move(request), zoom, x, y, bounds, epsgCode, std::move(path));
}

template <class I>
Core::Ptr<Data::Interfaces::IObjectList> GenericMapServiceT<I>::MakeTileList(int32_t zoom, const TileRange& range) {
    CheckTileCount(range);
    Data::ObjectList list = Data::ObjectList::Create();
    CacheDirectoryMemo memo;
    ForEachTile(range, [&](int64_t x, int64_t y) {
        Core::Ptr<Tellar::Interfaces::ITileRequest> request = MakeTileRequest(zoom, x, y, &memo);
        Core::Ptr<Core::IErrorCode> error;
        if (!list->_abi_Append(request.Raw(), error.ReceiveAddress())) Core::ThrowIfError(error);
    });
    return list;
}

template <class I>
bool GenericMapServiceT<I>::GetTile(int32_t zoom, int64_t x, int64_t y, Tellar::Interfaces::ITileRequest** ppRequest,
                                    Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppRequest);
            *ppRequest = MakeTileRequest(zoom, x, y).Detach();
        },
        ppError);
}

template <class I>
bool GenericMapServiceT<I>::GetTilesForRange(int32_t zoom, int64_t minX, int64_t minY, int64_t maxX, int64_t maxY,
                                             Data::Interfaces::IObjectList** ppList, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppList);
            *ppList = MakeTileList(zoom, TileRange{minX, minY, maxX, maxY}).Detach();
        },
        ppError);
}

template <class I>
bool GenericMapServiceT<I>::GetTilesForBox(int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box,
                                           Data::Interfaces::IObjectList** ppList, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(box);
            Core::CheckResultAddress(ppList);
            *ppList = MakeTileList(zoom, BoxToTileRange(zoom, ValuesOf(*box))).Detach();
        },
        ppError);
}

template <class I>
TellarImaging::ITiffImage* GenericMapServiceT<I>::MakeMosaic(int32_t zoom, const BoundingBoxValue& box,
                                                             bool bestEffort) {
    using Tellar::Interfaces::ITileRequest;
    using Tellar::Interfaces::ITileResponse;
    const TileRange range = BoxToTileRange(zoom, box);

    std::vector<Core::Ptr<ITileResponse>> responses;
    const auto take = [&responses](ITileRequest& request) {
        Core::Ptr<ITileResponse> response;
        Core::Ptr<Core::IErrorCode> error;
        if (!request.GetResponse(response.ReceiveAddress(), error.ReceiveAddress())) Core::ThrowIfError(error);
        responses.push_back(std::move(response));
    };
    const Core::Ptr<Data::Interfaces::IObjectList> list = MakeTileList(zoom, range);
    try {
        if (bestEffort) {
            // A second request per tile, whose failure only leaves that copy out.
            ForEachTile(range, [&](int64_t x, int64_t y) {
                Core::Ptr<ITileRequest> request = MakeTileRequest(zoom, x, y);
                Core::Ptr<ITileResponse> response;
                Core::Ptr<Core::IErrorCode> error;
                if (request->GetResponse(response.ReceiveAddress(), error.ReceiveAddress()))
                    responses.push_back(std::move(response));
            });
        }
        for (uint64_t i = 0; i < list->GetCount(); ++i) take(*dynamic_cast<ITileRequest*>(list->GetItem(i)));
    } catch (...) {
        // The downloads of the list still going would run on after the call that wanted them has
        // failed, each request held by the transport until its exchange ends (at exit, for ever).
        // They are closed, all at once, and the failure is passed on once the transport has let
        // go of them.
        std::vector<TileRequestImpl*> requests;
        for (uint64_t i = 0; i < list->GetCount(); ++i)
            if (auto* request = dynamic_cast<TileRequestImpl*>(list->GetItem(i))) requests.push_back(request);
        for (TileRequestImpl* request : requests) request->Abandon();
        for (TileRequestImpl* request : requests) request->AwaitRelease(AbandonPatience);
        throw;
    }

    const uint32_t serviceEpsg = serviceCrs_->GetEpsgCode();
    Core::Ptr<TellarImaging::IImage> cropped;
    if (transformation_.transformation.Raw()) {
        Core::Ptr<TellarImaging::IImage> image = ComposeMosaic(range, responses, serviceEpsg, zoom);
        const CrsTransformationHolder toTarget(serviceCrs_, targetCrs_);
        const TellarImaging::ImageBase reprojected = TellarImaging::CreateImageBase(
            Tellar::Spatial::Raster::RasterUtils::ReprojectImage(image.Raw(), toTarget).Raw());
        if (auto* tiff = dynamic_cast<TellarImaging::ITiffImage*>(reprojected.image.Raw()))
            tiff->SetSampleKind(TellarImaging::SampleKindSigned);
        image = reprojected.image;
        cropped = CropToBox(image.Raw(), box);
    } else {
        cropped = ComposeMosaicOfBox(range, responses, serviceEpsg, zoom, box);
    }
    if (cropped.IsNull()) return nullptr;
    auto* tiff = dynamic_cast<TellarImaging::ITiffImage*>(cropped.Raw());
    if (tiff) tiff->AddReference();
    return tiff;
}

template <class I>
bool GenericMapServiceT<I>::MosaicCall(int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box,
                                       TellarImaging::ITiffImage** ppImage, Core::IErrorCode** ppError,
                                       bool bestEffort) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(box);
            Core::CheckResultAddress(ppImage);
            *ppImage = MakeMosaic(zoom, ValuesOf(*box), bestEffort);
        },
        ppError);
}

template <class I>
bool GenericMapServiceT<I>::GetImage(int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box,
                                     TellarImaging::ITiffImage** ppImage, Core::IErrorCode** ppError) {
    return MosaicCall(zoom, box, ppImage, ppError, false);
}

template <class I>
bool GenericMapServiceT<I>::GetImageBestEffort(int32_t zoom, Tellar::Interfaces::IBoundingBox2d* box,
                                               TellarImaging::ITiffImage** ppImage, Core::IErrorCode** ppError) {
    return MosaicCall(zoom, box, ppImage, ppError, true);
}

template class GenericMapServiceT<Tellar::Interfaces::IMapService>;
template class GenericMapServiceT<Tellar::Interfaces::IOgcMapService>;

} // namespace Tellar::Spatial::Maps::impl
