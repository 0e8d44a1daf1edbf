#include "Progress.h"

#include <fmt/core.h>
#include <unistd.h>

namespace TellarMaps {

bool Progress::Wanted(bool quiet) { return !quiet && ::isatty(STDERR_FILENO) == 1; }

void Progress::Update(const std::string& label, uint64_t done, uint64_t total) {
    if (!enabled_) return;
    constexpr int64_t Width = 30;
    const int64_t filled = total == 0 ? Width : static_cast<int64_t>(done * Width / total);
    // Tenths of a percent bound the redraws to a thousand per label.
    const int64_t permille = total == 0 ? 1000 : static_cast<int64_t>(done * 1000 / total);
    if (label == label_ && permille == shown_) return;
    label_ = label;
    shown_ = permille;
    fmt::print(stderr, "\r{} [{}{}] {}/{}\x1b[K", label, std::string(static_cast<size_t>(filled), '#'),
               std::string(static_cast<size_t>(Width - filled), '.'), done, total);
    std::fflush(stderr);
    drawn_ = true;
}

void Progress::Finish() {
    if (!drawn_) return;
    std::fputc('\n', stderr);
    std::fflush(stderr);
    drawn_ = false;
    label_.clear();
    shown_ = -1;
}

} // namespace TellarMaps
