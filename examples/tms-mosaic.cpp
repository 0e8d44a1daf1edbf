// A host of libTellar.Spatial.Maps.so: opens a tile server, cuts a mosaic out of it and writes
// it as a GeoTIFF.
//
//   tms-mosaic URL OUTPUT.tif [ZOOM [MINX MINY MAXX MAXY]]
//
// URL is a tile template with {z}, {x} and {y} of a server in EPSG:4326; the box is in degrees
// (default: zoom 2, -20 -20 20 20).
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>

#include "Core/AbiGuard.h"
#include "Core/Ptr.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"
#include "Tellar/Interfaces/IEpsg.h"
#include "Tellar/Interfaces/IMapService.h"
#include "Tellar/Spatial/Exports.h"
#include "Tellar/Spatial/Maps/Exports.h"
#include "Tellar/Spatial/ProjectionExports.h"
#include "TellarImaging/Exports.h"
#include "TellarImaging/IImage.h"

namespace {

// The libraries answer false and fill the error; this turns that into an exception.
void Check(bool ok, const Core::Ptr<Core::IErrorCode>& error) {
    Core::ThrowIfError(error);
    if (!ok) throw std::runtime_error("the call failed without an error");
}

int Run(int argc, char** argv) {
    if (argc != 3 && argc != 4 && argc != 8) {
        std::fprintf(stderr, "usage: %s URL OUTPUT.tif [ZOOM [MINX MINY MAXX MAXY]]\n", argv[0]);
        return 2;
    }
    const char* url = argv[1];
    const char* output = argv[2];
    const int zoom = argc > 3 ? std::atoi(argv[3]) : 2;
    double box[4] = {-20, -20, 20, 20};
    if (argc == 8)
        for (int i = 0; i < 4; ++i) box[i] = std::atof(argv[4 + i]);

    Core::Ptr<Core::IErrorCode> error;
    Core::Ptr<Tellar::Interfaces::IEpsg> epsg;
    Check(TellarSpatialProjection_CreateEpsg(epsg.ReceiveAddress(), error.ReceiveAddress()), error);
    Core::Ptr<Tellar::Interfaces::IMapService> service;
    Check(TellarSpatialMaps_CreateMapServiceFromTmsUrl(epsg.Raw(), url, 4326, service.ReceiveAddress(),
                                                       error.ReceiveAddress()),
          error);
    std::printf("service:  %s, layer %s\n", service->GetServiceUrl(), service->GetLayerName());

    Core::Ptr<Tellar::Interfaces::IBoundingBox2d> bounds;
    Check(TellarSpatial_CreateBoundingBox2d(bounds.ReceiveAddress(), error.ReceiveAddress()), error);
    bounds->SetValues(box[0], box[1], box[2], box[3]);
    Core::Ptr<TellarImaging::ITiffImage> image;
    Check(service->GetImage(zoom, bounds.Raw(), image.ReceiveAddress(), error.ReceiveAddress()), error);
    std::printf("mosaic:   zoom %d, box %g,%g,%g,%g: %d x %d pixels, EPSG:%u\n", zoom, box[0], box[1], box[2],
                box[3], image->GetWidth(), image->GetHeight(), image->GetEpsgCode());

    Check(TellarImaging_SaveImage(image.Raw(), output, TellarImaging::ImageFileFormatTiff, error.ReceiveAddress()),
          error);
    std::printf("written:  %s\n", output);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    try {
        return Run(argc, argv);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "error: %s\n", e.what());
        return 1;
    }
}
