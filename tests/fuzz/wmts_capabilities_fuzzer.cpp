// Feeds arbitrary bytes to the WMTS capabilities reader and exercises the layers' choices.
#include <cstddef>
#include <cstdint>
#include <exception>
#include <string>

#include "MapServices/Wmts/WmtsCapabilities.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        const MapServices::Wmts::WmtsCapabilities caps(std::string(reinterpret_cast<const char*>(data), size));
        for (const auto& set : caps.tileMatrixSets) (void)set->GetTileMatrices();
        for (const auto& layer : caps.layers) {
            // The defaults always name entries of their maps, except a format when there is none.
            (void)layer->GetCurrentStyle();
            if (layer->GetCurrentTileMatrixSet()->GetTileMatrices().empty()) __builtin_trap();
            if (!layer->tileResources.empty()) (void)layer->GetCurrentResource();
            for (const auto& style : layer->GetStyles()) layer->SetStyle(style.identifier);
            for (const auto& resource : layer->GetTileResources()) layer->SetFormat(resource.format);
            for (const auto& set : layer->GetTileMatrixSets()) layer->SetTileMatrixSet(set->identifier);
        }
    } catch (const std::exception&) {
    }
    return 0;
}
