#include <vector>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Data/Exports.h"

namespace Data::impl {
namespace {

class ObjectListImpl final : public Core::ObjectImplBase<Interfaces::IObjectList> {
public:
    uint64_t GetCount() const noexcept override { return items_.size(); }
    Core::IObject* GetItem(uint64_t index) const noexcept override {
        return index < items_.size() ? items_[index].Raw() : nullptr;
    }
    bool _abi_Append(Core::IObject* item, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard([&] { items_.emplace_back(item); }, ppError);
    }

private:
    std::vector<Core::Ptr<Core::IObject>> items_;
};

} // namespace
} // namespace Data::impl

bool Data_CreateObjectList(Data::Interfaces::IObjectList** ppList, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppList);
            *ppList = new Data::impl::ObjectListImpl();
        },
        ppError);
}
