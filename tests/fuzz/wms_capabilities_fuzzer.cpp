// Feeds arbitrary bytes to the WMS capabilities reader and walks what it yields. A reader
// failure is an exception derived from std::exception; anything else ends the run.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "MapServices/Wms/WmsCapabilities.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        const MapServices::Wms::WmsCapabilities caps(std::string(reinterpret_cast<const char*>(data), size));
        for (const auto& layer : caps.GetLayers()) {
            if (caps.GetLayer(layer->name).IsNull()) __builtin_trap();
            (void)layer->GetElevationDimension();
            if (layer->GetTimeDimension()) layer->TimeDimension().current = "now";
        }
    } catch (const std::exception&) {
    }
    return 0;
}
