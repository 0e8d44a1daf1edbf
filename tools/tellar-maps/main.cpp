// tellar-maps: the command-line host of the map-service library.
#include <cstdio>
#include <string>
#include <vector>

#include "CommandLine.h"

int main(int argc, char** argv) {
    using namespace TellarMaps;
    Options options;
    try {
        options = ParseCommandLine(std::vector<std::string>(argv + 1, argv + argc));
    } catch (const UsageError& e) {
        std::fprintf(stderr, "tellar-maps: %s\n\n%s", e.what(), UsageText);
        return 2;
    }
    if (options.help) {
        std::fputs(UsageText, stdout);
        return 0;
    }
    std::fprintf(stderr, "error: the command '%s' needs the map-service library, which this build does not have yet\n",
                 options.command.c_str());
    return 1;
}
