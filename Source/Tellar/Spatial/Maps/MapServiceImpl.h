#pragma once
#include "Tellar/Spatial/Maps/GenericMapServiceT.h"

namespace Tellar::Spatial::Maps::impl {

// The map service of a tile server.
class MapServiceImpl final : public GenericMapServiceT<Tellar::Interfaces::IMapService> {
public:
    using GenericMapServiceT::GenericMapServiceT;
};

} // namespace Tellar::Spatial::Maps::impl
