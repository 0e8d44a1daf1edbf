#include <string>
#include <unordered_map>

#include "Core/AbiGuard.h"
#include "Core/Fnv1a.h"
#include "Core/ObjectImplBase.h"
#include "Data/Exports.h"
#include "Data/VariantOps.h"

namespace Data::impl {
namespace {

using Structures::VARIANT;

// Owns its variants: an owned object payload keeps its reference while stored.
class VariantDictionaryImpl final : public Core::ObjectImplBase<Interfaces::IVariantDictionary> {
public:
    ~VariantDictionaryImpl() override {
        for (auto& [key, value] : values_) Structures::VariantClear(value);
    }

    uint64_t GetCount() const noexcept override { return values_.size(); }
    bool HasKey(const char* key) const noexcept override { return key && values_.count(key) != 0; }

    bool _abi_Set(const char* key, const VARIANT* value, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                Core::ThrowIfNull(key);
                Core::ThrowIfNull(value);
                auto [it, inserted] = values_.try_emplace(key);
                VARIANT copy = Structures::VariantCopy(*value);
                if (!inserted) Structures::VariantClear(it->second);
                it->second = copy;
            },
            ppError);
    }

    bool _abi_Get(const char* key, VARIANT* value, Core::IErrorCode** ppError) noexcept override {
        bool found = false;
        const bool ok = Core::AbiGuard(
            [&] {
                Core::ThrowIfNull(key);
                Core::ThrowIfNull(value);
                auto it = values_.find(key);
                if (it == values_.end()) return;
                Structures::VariantClear(*value);
                *value = Structures::VariantCopy(it->second);
                found = true;
            },
            ppError);
        return ok && found;
    }

    bool Remove(const char* key) noexcept override {
        if (!key) return false;
        auto it = values_.find(key);
        if (it == values_.end()) return false;
        Structures::VariantClear(it->second);
        values_.erase(it);
        return true;
    }

private:
    std::unordered_map<std::string, VARIANT, Core::Fnv1aHash, std::equal_to<>> values_;
};

} // namespace
} // namespace Data::impl

bool Data_CreateVariantDictionary(Data::Interfaces::IVariantDictionary** ppDictionary, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppDictionary);
            *ppDictionary = new Data::impl::VariantDictionaryImpl();
        },
        ppError);
}
