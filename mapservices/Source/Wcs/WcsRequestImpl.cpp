#include "Wcs/WcsRequestImpl.h"

#include <sstream>

#include "Common/TextReplace.h"
#include "Core/Fnv1a.h"
#include "Core/StringFormat.h"

namespace MapServices::Wcs::impl {

namespace {

constexpr const char* CoverageBody =
    "\n\t\t<?xml version=\"1.0\" encoding=\"UTF-8\"?><GetCoverage version=\"1.0.0\" service=\"WCS\" "
    "xmlns:xsi=\"http://www.w3.org/2001/XMLSchema-instance\" xmlns=\"http://www.opengis.net/wcs\" "
    "xmlns:ows=\"http://www.opengis.net/ows/1.1\" xmlns:gml=\"http://www.opengis.net/gml\" "
    "xmlns:ogc=\"http://www.opengis.net/ogc\" xsi:schemaLocation=\"http://www.opengis.net/wcs "
    "http://schemas.opengis.net/wcs/1.0.0/getCoverage.xsd\">\n"
    "\t\t  <sourceCoverage>${NAME}</sourceCoverage>\n"
    "\t\t  <domainSubset>\n"
    "\t\t\t<spatialSubset>\n"
    "\t\t\t  <gml:Envelope srsName=\"${SRS_NAME}\">\n"
    "\t\t\t\t<gml:pos>${BB_MIN_X} ${BB_MIN_Y}</gml:pos>\n"
    "\t\t\t\t<gml:pos>${BB_MAX_X} ${BB_MAX_Y}</gml:pos>\n"
    "\t\t\t  </gml:Envelope>\n"
    "\t\t\t  <gml:Grid dimension=\"2\">\n"
    "\t\t\t\t<gml:limits>\n"
    "\t\t\t\t  <gml:GridEnvelope>\n"
    "\t\t\t\t\t<gml:low>0 0</gml:low>\n"
    "\t\t\t\t\t<gml:high>${WIDTH} ${HEIGHT}</gml:high>\n"
    "\t\t\t\t  </gml:GridEnvelope>\n"
    "\t\t\t\t</gml:limits>\n"
    "\t\t\t\t<gml:axisName>E</gml:axisName>\n"
    "\t\t\t\t<gml:axisName>N</gml:axisName>\n"
    "\t\t\t  </gml:Grid>\n"
    "\t\t\t</spatialSubset>\n"
    "\t\t\t${TEMPORALSUBSET}\n"
    "\t\t  </domainSubset>\n"
    "\t\t  <output>\n"
    "\t\t\t<crs>${SRS_NAME}</crs>\n"
    "\t\t\t<format>${FORMAT}</format>\n"
    "\t\t  </output>\n"
    "\t\t</GetCoverage>";

constexpr const char* TemporalSubset =
    "\n\t\t\t<temporalSubset>\n"
    "\t\t\t  <gml:timePosition>\n"
    "\t\t\t\t${DATETIME}\n"
    "\t\t\t  </gml:timePosition>\n"
    "\t\t\t</temporalSubset>\n"
    "\t\t\n"
    "\t\t";

constexpr const char* Blanks = "\t\n\v\f\r ";

std::string Fixed(double value) { return Core::StringFormat("%f", value); }

} // namespace

WcsRequestImpl::WcsRequestImpl(std::string version, std::string coverage, std::string crs,
                               const BoundingBoxValue& box, uint32_t width, uint32_t height, Data::DateTime time)
    : version_(std::move(version)),
      crs_(std::move(crs)),
      coverage_(std::move(coverage)),
      boundingBox_(box),
      width_(width),
      height_(height) {
    // Taken before the time is stored; the cache file is named by a later call, with the time.
    hash_ = GetRequestHash();
    time_ = std::move(time);
}

uint64_t WcsRequestImpl::GetRequestHash() {
    std::ostringstream text;
    text.imbue(std::locale::classic());
    text << service_ << version_ << request_ << coverage_ << crs_ << format_ << width_ << height_
         << boundingBox_.minX << boundingBox_.minY << boundingBox_.maxX << boundingBox_.maxY;
    if (time_.Raw()) text << time_.Format();
    return Core::Fnv1a64(text.str());
}

std::string WcsRequestImpl::BuildQuery(int32_t method) const {
    std::string query = "?SERVICE=" + service_ + "&VERSION=" + version_ + "&REQUEST=" + request_;
    if (method != 0) return query;
    const BoundingBoxValue& b = boundingBox_;
    query += "&FORMAT=" + format_;
    query += "&COVERAGE=" + coverage_;
    query += "&CRS=" + crs_;
    query += Core::StringFormat("&BBOX=%f,%f,%f,%f", b.minX, b.minY, b.maxX, b.maxY);
    query += Core::StringFormat("&WIDTH=%u&HEIGHT=%u", width_, height_);
    if (time_.Raw()) query += "&TIME=" + time_.Format();
    return query;
}

std::string WcsRequestImpl::BuildXml() const {
    std::string body = CoverageBody;
    ReplaceAll(body, "${NAME}", coverage_);
    ReplaceAll(body, "${SRS_NAME}", crs_);
    ReplaceAll(body, "${BB_MIN_X}", Fixed(boundingBox_.minX));
    ReplaceAll(body, "${BB_MIN_Y}", Fixed(boundingBox_.minY));
    ReplaceAll(body, "${BB_MAX_X}", Fixed(boundingBox_.maxX));
    ReplaceAll(body, "${BB_MAX_Y}", Fixed(boundingBox_.maxY));
    ReplaceAll(body, "${WIDTH}", std::to_string(width_));
    ReplaceAll(body, "${HEIGHT}", std::to_string(height_));
    ReplaceAll(body, "${FORMAT}", format_);
    std::string temporal;
    if (time_.Raw()) {
        temporal = TemporalSubset;
        ReplaceAll(temporal, "${DATETIME}", time_.Format());
    }
    ReplaceAll(body, "${TEMPORALSUBSET}", temporal);

    const size_t first = body.find_first_not_of(Blanks);
    if (first == std::string::npos) return {};
    return body.substr(first, body.find_last_not_of(Blanks) - first + 1);
}

} // namespace MapServices::Wcs::impl
