// Feeds arbitrary bytes to the WCS capabilities reader and walks what it yields.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string_view>

#include "MapServices/Wcs/WcsCapabilities.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        const MapServices::Wcs::WcsCapabilities caps(std::string_view(reinterpret_cast<const char*>(data), size));
        for (const auto& layer : caps.layers)
            for (const auto& time : layer->times) (void)time.Format();
    } catch (const std::exception&) {
    }
    return 0;
}
