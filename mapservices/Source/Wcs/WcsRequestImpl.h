#pragma once
#include <cstdint>
#include <string>

#include "Core/ObjectImplBase.h"
#include "Data/Values.h"
#include "MapServices/Interfaces/IServiceRequest.h"

namespace MapServices::Wcs::impl {

// One GetCoverage call of WCS 1.0.0, fixed at construction; the answer is asked for as TIFF.
class WcsRequestImpl : public Core::ObjectImplBase<Interfaces::IServiceRequest> {
public:
    WcsRequestImpl(std::string version, std::string coverage, std::string crs, const BoundingBoxValue& box,
                   uint32_t width, uint32_t height, Data::DateTime time);

    BoundingBoxValue GetBoundingBox() override { return boundingBox_; }
    // FNV-1a over the parameters, the time's text included when there is a time.
    uint64_t GetRequestHash() override;

    // "?SERVICE=WCS&VERSION=..&REQUEST=GetCoverage", and for GET (method 0) the whole query.
    std::string BuildQuery(int32_t method) const;
    // The XML body of a POST.
    std::string BuildXml() const;

protected:
    ~WcsRequestImpl() override = default;

private:
    uint64_t hash_ = 0;
    std::string service_ = "WCS";
    std::string version_;
    std::string request_ = "GetCoverage";
    std::string crs_;
    std::string coverage_;
    BoundingBoxValue boundingBox_;
    uint32_t width_ = 0;
    uint32_t height_ = 0;
    std::string format_ = "image/tiff";
    Data::DateTime time_;
};

} // namespace MapServices::Wcs::impl
