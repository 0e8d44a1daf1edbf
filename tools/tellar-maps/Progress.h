#pragma once
// A one-line progress bar on stderr, redrawn in place; silent unless switched on.
#include <cstdint>
#include <cstdio>
#include <string>

namespace TellarMaps {

class Progress {
public:
    // On only when asked for and stderr is a terminal.
    static bool Wanted(bool quiet);

    explicit Progress(bool enabled) : enabled_(enabled) {}
    ~Progress() { Finish(); }
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    // Redraws when the label or the shown fraction changed.
    void Update(const std::string& label, uint64_t done, uint64_t total);
    // Ends the line once something was drawn.
    void Finish();

private:
    bool enabled_;
    bool drawn_ = false;
    std::string label_;
    int64_t shown_ = -1;
};

} // namespace TellarMaps
