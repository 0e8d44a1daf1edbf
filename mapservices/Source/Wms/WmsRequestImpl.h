#pragma once
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Core/Ptr.h"
#include "MapServices/Interfaces/IServiceRequest.h"
#include "MapServices/Wms/WmsCapabilities.h"

namespace MapServices::Wms::impl {

// One GetMap call of WMS 1.3.0, fixed at construction.
class WmsRequestImpl : public Core::ObjectImplBase<Interfaces::IServiceRequest> {
public:
    // Of each dimension present the value taken is its current one, else its default.
    WmsRequestImpl(std::string url, std::vector<WmsLayer> layers, std::string style, std::string crs,
                   const BoundingBoxValue& box, uint32_t width, uint32_t height, std::optional<WmsDimension> time,
                   std::optional<WmsDimension> elevation);

    BoundingBoxValue GetBoundingBox() override { return boundingBox_; }
    // FNV-1a over the request's parameters; time and elevation take no part.
    uint64_t GetRequestHash() override;

    // The base URL and the GetMap query, nothing percent-encoded. `swapAxes` prints the box as
    // min y, min x, max y, max x.
    std::string BuildUrl(bool swapAxes) const;

    const std::string& GetTime() const { return time_; }
    const std::string& GetElevation() const { return elevation_; }

protected:
    ~WmsRequestImpl() override = default;

private:
    uint64_t hash_ = 0;
    std::string url_;
    std::string request_ = "Getmap";
    std::vector<WmsLayer> layers_;
    std::string style_;
    std::string crs_;
    BoundingBoxValue boundingBox_;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    std::string format_ = "image/png";
    std::string bgColor_ = "0xffffff";
    bool transparent_ = true;
    std::string exceptions_ = "XML";
    std::string time_;
    std::string elevation_;
};

// A GetMap request as the service interface; the one way the fetcher and the services make one.
Core::Ptr<Interfaces::IServiceRequest> CreateWmsRequest(const std::string& url, const std::vector<WmsLayer>& layers,
                                                        const std::string& style, const std::string& crs,
                                                        const BoundingBoxValue& box, uint32_t width, uint32_t height,
                                                        std::optional<WmsDimension> time,
                                                        std::optional<WmsDimension> elevation);

// The box of a Web-Mercator tile in degrees of longitude and latitude.
BoundingBoxValue TileToBoundingBox(int32_t zoom, int32_t x, int32_t y);

// The value a dimension stands for: the current one, else the default.
std::string DimensionValue(const WmsDimension& dimension);

} // namespace MapServices::Wms::impl
