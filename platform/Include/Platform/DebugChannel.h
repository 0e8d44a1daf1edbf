#pragma once
#include <functional>
#include <string_view>

namespace Platform::DebugChannel {

// Side channel for diagnostics that go to a debugger rather than the log (the logger's copy
// of every line, thread start and stop notes). Nothing listens by default.
void Write(std::string_view text);

// Installs the process-wide listener; an empty function removes it.
void SetListener(std::function<void(std::string_view)> listener);

} // namespace Platform::DebugChannel
