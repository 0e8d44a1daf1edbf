#pragma once
#include <cstdint>
#include <string>

#include "Common/TileFetcherBase.h"
#include "Core/ObjectImplBase.h"
#include "MapServices/Wmts/WmtsCapabilities.h"

namespace MapServices::Wmts::impl {

// The fetcher of one layer of a WMTS server. Its geometry is that of the layer's current tile
// matrix set (the zoom is the index of a matrix, coarsest first); its requests fill the current
// resource's URL template. Tiles go to the "TmsCache" folder under the template's hash.
class WmtsFetcherImpl : public Core::ObjectImplBase<MapServices::impl::TileFetcherBase> {
public:
    explicit WmtsFetcherImpl(WmtsLayer layer);

    // Empty when the current set has no matrix for the zoom (by its number, or "set:number").
    Platform::Network::Http::HttpRequest CreateTileHttpRequest(int32_t zoom, int32_t x, int32_t y) override;
    // The tile's box in the set's CRS.
    BoundingBoxValue GetTileBounds(int32_t x, int32_t y, int32_t zoom) override;
    // The tiles of a box in the set's CRS, with one more row on top.
    TileRange GetTileRange(const BoundingBoxValue& box, int32_t zoom) override;
    uint64_t GetCacheHash() override;
    int32_t GetMaxZoom() override;
    // Any address is valid while there is a layer; the server judges the rest.
    bool IsTileValid(int32_t zoom, int32_t x, int32_t y) override;

    // The template with the style, the set, the matrix and the tile filled in.
    std::string BuildTileUrl(const std::string& matrixIdentifier, int32_t x, int32_t y) const;
    const WmtsLayer& GetLayer() const { return layer_; }

protected:
    ~WmtsFetcherImpl() override = default;

private:
    // The matrix at index `zoom` of the current set; "invalid vector subscript" past the end.
    WmtsTileMatrix Matrix(int32_t zoom) const;

    Core::Ptr<Platform::Interfaces::IAcceptTypes> acceptTypes_;
    WmtsLayer layer_;
};

} // namespace MapServices::Wmts::impl
