#pragma once
#include "Core/Ptr.h"
#include "MapServices/Interfaces/ITileRequest.h"

namespace MapServices {

// Handle to a tile request; a null handle means the tile was refused.
class TileRequest : public Core::Ptr<Interfaces::ITileRequest> {
public:
    using Ptr::Ptr;
    TileRequest() = default;
    TileRequest(Core::Ptr<Interfaces::ITileRequest> other) noexcept : Ptr(std::move(other)) {}
};

} // namespace MapServices
