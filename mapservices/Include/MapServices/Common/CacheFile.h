#pragma once
#include <string>

#include "Platform/Network/Http/HttpRequest.h"

namespace MapServices {

// Writes the body of `response` to `target` through a temporary file beside it, renamed into
// place, so that a reader never sees a partial file. A body that can't be written leaves no
// file; a failed rename throws the "rename" file-system error. Temporary files more than an
// hour old in the target's directory, left by a writer that never renamed them, are removed
// first (each directory is looked through at most once an hour).
void WriteCacheFile(const Platform::Network::Http::HttpResponse& response, const std::string& target);

// Whether a response's Content-Type names a tile body worth keeping: image types, vector tiles
// and plain bytes. A missing header is none of them.
bool IsTileContentType(const char* header);

} // namespace MapServices
