#pragma once
#include <string>

#include "Json.h"
#include "Progress.h"

namespace TellarMaps {

// Serves relief tiles it renders itself on 127.0.0.1, cuts a mosaic of the Alps out of them
// through the cached TMS factory (cache in DIR/demo-cache) and writes DIR/demo.tif and
// DIR/demo.png. Returns the mosaic's JSON.
JsonObject RunDemo(const std::string& directory, Progress& progress);

} // namespace TellarMaps
