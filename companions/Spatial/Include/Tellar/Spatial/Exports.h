#pragma once
// Entry points of libTellar.Spatial.so, under the boundary convention: true on success, one
// owned reference in the result, failures as an error object in the last parameter.
#include "Core/ErrorCode.h"
#include "Core/Export.h"
#include "Tellar/Interfaces/IBoundingBox2d.h"

// A new, unset box.
TELLAR_API bool TellarSpatial_CreateBoundingBox2d(Tellar::Interfaces::IBoundingBox2d** ppBox,
                                                  Core::IErrorCode** ppError);
