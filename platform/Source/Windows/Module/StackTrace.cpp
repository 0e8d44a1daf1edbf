#include <backtrace.h>
#include <dlfcn.h>

#include <cinttypes>
#include <mutex>
#include <string>
#include <vector>

#include "Core/AbiGuard.h"
#include "Core/StringFormat.h"
#include "Core/TypeName.h"
#include "Platform/Module.h"

namespace Platform::Windows::Module {

namespace {

// Symbol tables are read once per process; the state lives as long as the process.
backtrace_state* SymbolState() {
    static backtrace_state* state = backtrace_create_state(
        nullptr, 1, [](void*, const char*, int) {}, nullptr);
    return state;
}

// Serialises symbol look-ups; capturing itself needs no lock.
std::mutex symbolMutex;

struct FrameBuffer {
    std::vector<void*> addresses = std::vector<void*>(64);
};

// Per-thread buffer, so a trace on a failure path need not allocate; it grows, never shrinks.
thread_local FrameBuffer frames;

std::string FileName(const char* path) {
    std::string name = path ? path : "";
    const size_t slash = name.find_last_of("/\\");
    return slash == std::string::npos ? name : name.substr(slash + 1);
}

std::string ModuleName(const std::string& fileName) {
    const size_t dot = fileName.find(".so");
    return dot == std::string::npos ? fileName : fileName.substr(0, dot);
}

// Name of the function holding `pc` from the symbol tables (local and hidden ones included).
std::string SymbolName(uintptr_t pc) {
    std::string name;
    backtrace_syminfo(
        SymbolState(), pc,
        [](void* data, uintptr_t, const char* symbol, uintptr_t, uintptr_t) {
            if (symbol) *static_cast<std::string*>(data) = symbol;
        },
        [](void*, const char*, int) {}, &name);
    if (name.empty()) return name;
    return name.rfind("_Z", 0) == 0 ? Core::DemangleTypeName(name.c_str()) : name;
}

} // namespace

StackTraceResult CaptureStackTrace(unsigned skip, int depth) {
    StackTraceResult result;
    if (depth <= 0) return result;
    const auto wanted = static_cast<size_t>(depth);
    if (frames.addresses.size() < wanted) frames.addresses.resize(wanted);

    // Walks the unwind tables directly; skip 0 starts at our caller.
    struct Walk {
        void** out;
        size_t capacity;
        size_t count;
        bool failed;
    } walk{frames.addresses.data(), wanted, 0, false};
    backtrace_simple(
        SymbolState(), static_cast<int>(skip) + 1,
        [](void* data, uintptr_t pc) {
            auto* w = static_cast<Walk*>(data);
            if (w->count >= w->capacity) return 1;
            w->out[w->count++] = reinterpret_cast<void*>(pc);
            return 0;
        },
        [](void* data, const char*, int) { static_cast<Walk*>(data)->failed = true; }, &walk);
    const size_t captured = walk.count;
    if (walk.failed && captured == 0) {
        result.error = Core::MakeErrorCode(0, "The call stack could not be captured.");
        return result;
    }

    std::lock_guard lock(symbolMutex);
    int index = 0;
    for (size_t i = 0; i < captured; ++i, ++index) {
        void* address = frames.addresses[i];
        result.text += Core::StringFormat("\t[%d]. [0x%016" PRIXPTR "]", index, reinterpret_cast<uintptr_t>(address));
        Dl_info info{};
        // The walk reports return addresses; look up the call just before each.
        const uintptr_t pc = reinterpret_cast<uintptr_t>(address) - 1;
        const std::string symbol = SymbolName(pc);
        if (dladdr(reinterpret_cast<void*>(pc), &info) != 0 && info.dli_fname && !symbol.empty()) {
            const std::string file = FileName(info.dli_fname);
            result.text += Core::StringFormat(", [%s], %s!%s", ModuleName(file).c_str(), file.c_str(), symbol.c_str());
        } else {
            result.text += ", (Symbols not loaded)";
        }
        result.text += "\n";
    }
    return result;
}

} // namespace Platform::Windows::Module
