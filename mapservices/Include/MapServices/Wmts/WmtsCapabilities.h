#pragma once
// The WMTS 1.0.0 capabilities document as a plain record holding shared tile matrix sets and
// layers; a layer also carries the current choice of style, format and tile matrix set.
#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <vector>

#include "Core/Fnv1a.h"
#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "MapServices/Common/BoundingBoxValue.h"

namespace MapServices::Wmts {

// Hash map keyed by strings, hashed with FNV-1a. Iteration order is not promised.
template <class T>
using StringMap = std::unordered_map<std::string, T, Core::Fnv1aHash, std::equal_to<>>;

// One "TileMatrix" element.
struct WmtsTileMatrix {
    std::string identifier;
    double scaleDenominator = 0;
    double topLeftX = 0;
    double topLeftY = 0;
    int64_t tileWidth = 256;
    int64_t tileHeight = 256;
    int64_t matrixWidth = 1;
    int64_t matrixHeight = 1;
};

// One "ResourceURL" element, or a KVP template made for a "Format" when a layer has none.
struct WmtsResourceUrl {
    std::string format;
    std::string resourceType;
    std::string urlTemplate;
};

// One "Style" element of a layer.
struct WmtsStyle {
    std::string title;
    std::string identifier;
    std::string legendUrl;
    bool isDefault = false;
};

// One "ows:BoundingBox"; the unset box with an empty CRS when the layer has none.
struct WmtsBoundingBox {
    std::string crs;
    BoundingBoxValue box;
};

namespace impl {

// One "TileMatrixSet" of the "Contents".
class TileMatrixSetImpl : public Core::ObjectImplBase<Core::IObject> {
public:
    TileMatrixSetImpl() = default;

    bool HasTileMatrix(const std::string& identifier) const { return matrices.find(identifier) != matrices.end(); }
    // The matrices from the largest scale denominator to the smallest: the index is the zoom level.
    std::vector<WmtsTileMatrix> GetTileMatrices() const;
    // Inserts by identifier; a repeated identifier overwrites the earlier matrix.
    void AddTileMatrix(WmtsTileMatrix matrix);

    StringMap<WmtsTileMatrix> matrices;
    std::string title;
    std::string abstract;
    std::string identifier;
    std::string supportedCrs;
    int32_t epsgCode = 0;

protected:
    ~TileMatrixSetImpl() override = default;
};

}  // namespace impl

using TileMatrixSet = Core::CheckedPtr<impl::TileMatrixSetImpl>;

namespace impl {

// One layer of the "Contents", with its resources, styles, linked sets and current choices.
class WmtsLayerImpl : public Core::ObjectImplBase<Core::IObject> {
public:
    // Stores everything and picks the defaults: the last default style (else the first style),
    // the first tile and feature-info formats, and the tile matrix set named like 3857/900913
    // (else the first with 256-pixel tiles at its coarsest level, else the first linked).
    // A layer without styles or links, or linking a set without matrices, is refused.
    WmtsLayerImpl(std::string title, std::string identifier, std::string capabilitiesUrl,
                  const WmtsBoundingBox& boundingBox, const BoundingBoxValue& wgs84Box,
                  const std::vector<WmtsResourceUrl>& resources, const std::vector<WmtsStyle>& styles,
                  const std::vector<TileMatrixSet>& linkedSets);

    std::vector<WmtsResourceUrl> GetTileResources() const;
    std::vector<WmtsStyle> GetStyles() const;
    std::vector<TileMatrixSet> GetTileMatrixSets() const;

    // "invalid unordered_map<K, T> key" when the current key is not in its map.
    const WmtsStyle& GetCurrentStyle() const;
    const TileMatrixSet& GetCurrentTileMatrixSet() const;
    const WmtsResourceUrl& GetCurrentResource() const;

    // Each fails with "Invalid style identifier" for a value that is not in its map.
    void SetStyle(const std::string& identifier);
    void SetFormat(const std::string& format);
    void SetTileMatrixSet(const std::string& identifier);

    std::string title;
    std::string identifier;
    std::string capabilitiesUrl;
    std::string crs;
    BoundingBoxValue box;
    BoundingBoxValue wgs84Box;
    StringMap<WmtsResourceUrl> tileResources;
    StringMap<WmtsResourceUrl> featureInfoResources;
    StringMap<WmtsStyle> styles;
    StringMap<TileMatrixSet> tileMatrixSets;
    std::string currentStyle;
    std::string currentFormat;
    std::string currentFeatureInfoFormat;
    std::string currentTileMatrixSet;

protected:
    ~WmtsLayerImpl() override = default;
};

}  // namespace impl

using WmtsLayer = Core::CheckedPtr<impl::WmtsLayerImpl>;

// A parsed WMTS GetCapabilities answer. The constructor either yields a complete record or throws.
class WmtsCapabilities {
public:
    explicit WmtsCapabilities(std::string xml);

    std::string title;
    std::string abstract;
    std::string xml;
    std::string capabilitiesUrl;
    // Document order.
    std::vector<WmtsLayer> layers;
    std::vector<TileMatrixSet> tileMatrixSets;
};

}  // namespace MapServices::Wmts
