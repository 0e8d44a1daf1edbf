#pragma once
// --log FILE and --log-level N: opens the process logger of libTellarPlatform.so, which the
// map-service library writes to, and marks it failed when the command fails. The log closes at
// exit, with the termination line (and the "Failed_" rename for a failed run).
#include <cstdint>
#include <optional>
#include <string>

namespace TellarMaps {

class LogFile {
public:
    // Opens and enables the log when `path` is given; false when the file cannot be opened.
    bool Open(const std::optional<std::string>& path, std::optional<uint32_t> level);
    void MarkFailed() const;

private:
    bool open_ = false;
};

} // namespace TellarMaps
