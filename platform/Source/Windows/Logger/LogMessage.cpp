#include <string>

#include "Core/StringFormat.h"
#include "Platform/Log.h"

namespace Platform {

namespace {

struct LevelStyle {
    const char* prefix;
    uint32_t colour;
};

// Prefix and console colour by level; levels without a prefix are not written.
const LevelStyle* StyleOf(uint32_t level) {
    static constexpr LevelStyle styles[] = {
        {"TRACE: ", 0x707070}, {"DEBUG: ", 0x707070}, {nullptr, 0},          {nullptr, 0},
        {"INFO: ", 0x707070},  {"WARN: ", 0x38DACD},  {"ERROR: ", 0x0F1FC5}, {"FATAL: ", 0x0F1FC5},
    };
    if (level >= std::size(styles) || !styles[level].prefix) return nullptr;
    return &styles[level];
}

} // namespace

void LogMessage(uint32_t level, const char* function, const char* file, int line, std::string_view text) {
    Core::Ptr<Interfaces::IAppLogger> logger = GetAppLogger();
    Interfaces::IAppLogger* sink = logger.Raw();
    if (!sink || sink->GetLevel() > level) return;
    const LevelStyle* style = StyleOf(level);
    if (!style) return;

    std::string entry = style->prefix;
    entry.append(text);
    if (sink->GetShowFunction()) entry += Core::StringFormat(" [%s]", function ? function : "");
    if (sink->GetShowLine() && line >= 1) entry += Core::StringFormat(" (Line: %d)", line);
    if (sink->GetShowFile() && file && *file) entry += Core::StringFormat(" (File: %s)", file);
    sink->Write(entry.c_str(), style->colour);
}

bool LogEnabled(uint32_t level) {
    Core::Ptr<Interfaces::IAppLogger> logger = GetAppLogger();
    return logger.Raw() && logger->GetLevel() <= level && StyleOf(level);
}

void LogStackTrace() {
    Core::CheckedPtr<Interfaces::IAppLogger> logger(GetAppLogger());
    logger->WriteStackTrace(2, 64);
}

} // namespace Platform
