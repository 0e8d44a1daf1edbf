#include "Wms/WmsRequestImpl.h"

#include <cmath>
#include <sstream>

#include "Core/Fnv1a.h"
#include "Core/StringFormat.h"
#include "MapServices/Common/TileMath.h"

namespace MapServices::Wms::impl {

std::string DimensionValue(const WmsDimension& dimension) {
    return dimension.current.empty() ? dimension.defaultValue : dimension.current;
}

WmsRequestImpl::WmsRequestImpl(std::string url, std::vector<WmsLayer> layers, std::string style, std::string crs,
                               const BoundingBoxValue& box, uint32_t width, uint32_t height,
                               std::optional<WmsDimension> time, std::optional<WmsDimension> elevation)
    : url_(std::move(url)),
      layers_(std::move(layers)),
      style_(std::move(style)),
      crs_(std::move(crs)),
      boundingBox_(box),
      width_(width),
      height_(height) {
    hash_ = GetRequestHash();
    if (time) time_ = DimensionValue(*time);
    if (elevation) elevation_ = DimensionValue(*elevation);
}

uint64_t WmsRequestImpl::GetRequestHash() {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << url_ << request_;
    for (const WmsLayer& layer : layers_) text << layer->name;
    text << style_ << crs_ << format_ << bgColor_ << (transparent_ ? "1" : "0") << exceptions_ << width_ << height_
         << boundingBox_.minX << boundingBox_.minY << boundingBox_.maxX << boundingBox_.maxY;
    return Core::Fnv1a64(text.str());
}

std::string WmsRequestImpl::BuildUrl(bool swapAxes) const {
    std::string url = url_;
    const size_t question = url.rfind('?');
    if (question == std::string::npos)
        url += '?';
    else if (question + 1 != url.size())
        url += '&';

    url += "SERVICE=WMS&VERSION=1.3.0&REQUEST=" + request_;
    url += "&LAYERS=";
    for (size_t i = 0; i < layers_.size(); ++i) {
        if (i != 0) url += ',';
        url += layers_[i]->name;
    }
    url += "&STYLES=" + style_;
    url += "&CRS=" + crs_;
    const BoundingBoxValue& b = boundingBox_;
    url += swapAxes ? Core::StringFormat("&BBOX=%f,%f,%f,%f", b.minY, b.minX, b.maxY, b.maxX)
                    : Core::StringFormat("&BBOX=%f,%f,%f,%f", b.minX, b.minY, b.maxX, b.maxY);
    url += Core::StringFormat("&WIDTH=%u&HEIGHT=%u", width_, height_);
    url += "&FORMAT=" + format_;
    // Only the upper-case spelling of white is left out; the default is written in lower case.
    if (bgColor_ != "0xFFFFFF") url += "&BGCOLOR=" + bgColor_;
    if (transparent_) url += "&TRANSPARENT=true";
    url += "&EXCEPTIONS=" + exceptions_;
    if (!time_.empty()) url += "&TIME=" + time_;
    if (!elevation_.empty()) url += "&ELEVATION=" + elevation_;
    return url;
}

Core::Ptr<Interfaces::IServiceRequest> CreateWmsRequest(const std::string& url, const std::vector<WmsLayer>& layers,
                                                        const std::string& style, const std::string& crs,
                                                        const BoundingBoxValue& box, uint32_t width, uint32_t height,
                                                        std::optional<WmsDimension> time,
                                                        std::optional<WmsDimension> elevation) {
    return Core::MakeObject<WmsRequestImpl>(url, layers, style, crs, box, width, height, std::move(time),
                                            std::move(elevation));
}

BoundingBoxValue TileToBoundingBox(int32_t zoom, int32_t x, int32_t y) {
    const double n = std::pow(2.0, zoom);
    BoundingBoxValue box;
    box.Extend(TileLongitude(x, n), TileLatitude(y, n));
    box.Extend(TileLongitude(static_cast<double>(x) + 1, n), TileLatitude(static_cast<double>(y) + 1, n));
    return box;
}

} // namespace MapServices::Wms::impl
