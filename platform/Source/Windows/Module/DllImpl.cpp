#include <dlfcn.h>

#include <cerrno>
#include <filesystem>
#include <string>
#include <unordered_map>

#include "Core/AbiGuard.h"
#include "Core/Fnv1a.h"
#include "Core/ObjectImplBase.h"
#include "Core/StringFormat.h"
#include "Platform/Log.h"
#include "Platform/Module.h"
#include "Platform/RichError.h"

namespace Platform::Windows::Module::impl {

namespace {

// errno rarely says why dlopen failed; "not found" is the honest default.
uint32_t LastLoadError() { return errno != 0 ? static_cast<uint32_t>(errno) : static_cast<uint32_t>(ENOENT); }

// Directory of the library this code is linked into, the counterpart of "next to the DLL".
std::filesystem::path OwnDirectory() {
    Dl_info info{};
    if (dladdr(reinterpret_cast<void*>(&OwnDirectory), &info) == 0 || !info.dli_fname) return {};
    return std::filesystem::path(info.dli_fname).parent_path();
}

} // namespace

class DllImpl final : public Core::ObjectImplBase<Interfaces::IDll> {
public:
    explicit DllImpl(std::string name) : name_(std::move(name)), symbols_(8) {
        symbols_.max_load_factor(1.0f);
        // Already in the process: use it and leave it loaded when we go.
        module_ = dlopen(name_.c_str(), RTLD_NOW | RTLD_NOLOAD);
        if (!module_) {
            errno = 0;
            module_ = dlopen(name_.c_str(), RTLD_NOW);
            owned_ = true;
        }
        if (!module_ && name_.find('/') == std::string::npos) {
            LogMessage(
                LogDebug, "Platform::Windows::Module::impl::DllImpl::DllImpl", "", 0,
                Core::StringFormat("Failed to load dll [%s] directly. Trying with LOAD_LIBRARY_SEARCH_DLL_LOAD_DIR",
                                   name_.c_str()));
            const std::filesystem::path beside = OwnDirectory() / name_;
            if (!beside.parent_path().empty()) module_ = dlopen(beside.c_str(), RTLD_NOW);
        }
        if (!module_) RichError::ThrowWin32(LastLoadError(), "Failed to load library: " + name_);
    }

    ~DllImpl() override {
        // A handle from the no-load probe holds a count too; closing it never unloads a
        // library that someone else loaded.
        if (module_) dlclose(module_);
    }

    const char* GetName() override { return name_.c_str(); }
    void* GetHandle() override { return module_; }
    bool Owned() const { return owned_; }

    void* _abi_GetSymbol(const char* symbol, Core::IErrorCode** ppError) override {
        void* address = nullptr;
        Core::AbiGuard(
            [&] {
                Core::ThrowIfNull(symbol);
                if (auto it = symbols_.find(symbol); it != symbols_.end()) {
                    address = it->second;
                    return;
                }
                void* found = dlsym(module_, symbol);
                if (!found) RichError::ThrowWin32(static_cast<uint32_t>(ENOENT), symbol);
                symbols_.emplace(symbol, found);
                address = found;
            },
            ppError);
        return address;
    }

    bool HasSymbol(const char* symbol) override { return symbol && dlsym(module_, symbol) != nullptr; }

private:
    void* module_ = nullptr;
    std::string name_;
    bool owned_ = false;
    std::unordered_map<std::string, void*, Core::Fnv1aHash, std::equal_to<>> symbols_;
};

} // namespace Platform::Windows::Module::impl

namespace Platform::Windows::Module {

bool CreateDll(const char* name, Interfaces::IDll** ppDll, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(name);
            Core::CheckResultAddress(ppDll);
            *ppDll = new impl::DllImpl(name);
        },
        ppError);
}

} // namespace Platform::Windows::Module
