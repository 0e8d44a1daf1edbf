#include <cstring>
#include <new>
#include <stdexcept>
#include <vector>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Data/Exports.h"

namespace Data::impl {
namespace {

class ArrayImpl final : public Core::ObjectImplBase<Interfaces::IArray> {
public:
    ArrayImpl(uint32_t elementSize, uint64_t count) : elementSize_(elementSize) { Resize(count); }

    void* GetData() noexcept override { return bytes_.data(); }
    uint64_t GetSizeInBytes() const noexcept override { return bytes_.size(); }
    uint32_t GetElementSize() const noexcept override { return elementSize_; }
    uint64_t GetCount() const noexcept override { return elementSize_ ? bytes_.size() / elementSize_ : 0; }

    bool _abi_Resize(uint64_t count, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard([&] { Resize(count); }, ppError);
    }

private:
    void Resize(uint64_t count) {
        if (elementSize_ != 0 && count > SIZE_MAX / elementSize_) throw std::length_error("Array size too large");
        bytes_.resize(static_cast<size_t>(count * elementSize_));
    }

    uint32_t elementSize_;
    std::vector<unsigned char> bytes_;
};

} // namespace
} // namespace Data::impl

bool Data_CreateArray(uint32_t elementSize, uint64_t count, Data::Interfaces::IArray** ppArray,
                      Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppArray);
            if (elementSize == 0) throw std::invalid_argument("Array element size must not be 0!");
            *ppArray = new Data::impl::ArrayImpl(elementSize, count);
        },
        ppError);
}
