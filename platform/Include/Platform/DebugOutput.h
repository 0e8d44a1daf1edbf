#pragma once
#include <functional>
#include <string_view>

namespace Platform {

// The debugger channel: lines meant for a developer watching the process, not for the log.
// By default they go nowhere; a sink installed here receives each line (from any thread).
void OutputDebugText(std::string_view text);

// Installs the sink for the whole process; an empty function removes it. The sink must not
// install another sink from inside a call.
void SetDebugOutputSink(std::function<void(std::string_view)> sink);

} // namespace Platform
