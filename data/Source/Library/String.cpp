#include <cstdio>
#include <string>

#include "Core/AbiGuard.h"
#include "Core/ObjectImplBase.h"
#include "Data/Exports.h"

namespace Data::impl {
namespace {

class StringImpl final : public Core::ObjectImplBase<Interfaces::IString> {
public:
    const char* GetText() const noexcept override { return text_.c_str(); }
    uint64_t GetLength() const noexcept override { return text_.size(); }
    bool _abi_Assign(const char* text, uint64_t length, Core::IErrorCode** ppError) noexcept override {
        return Core::AbiGuard(
            [&] {
                if (length != 0) Core::ThrowIfNull(text);
                text_.assign(text ? text : "", static_cast<size_t>(length));
            },
            ppError);
    }

private:
    std::string text_;
};

} // namespace
} // namespace Data::impl

bool Data_CreateString(Data::Interfaces::IString** ppString, Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::CheckResultAddress(ppString);
            *ppString = new Data::impl::StringImpl();
        },
        ppError);
}

bool Data_UuidToString(const Data::Structures::Uuid* uuid, Data::Interfaces::IString** ppString,
                       Core::IErrorCode** ppError) {
    return Core::AbiGuard(
        [&] {
            Core::ThrowIfNull(uuid);
            Core::CheckResultAddress(ppString);
            char text[37];
            std::snprintf(text, sizeof text, "%08x-%04x-%04x-%02x%02x-%02x%02x%02x%02x%02x%02x", uuid->data1,
                          uuid->data2, uuid->data3, uuid->data4[0], uuid->data4[1], uuid->data4[2], uuid->data4[3],
                          uuid->data4[4], uuid->data4[5], uuid->data4[6], uuid->data4[7]);
            auto string = Core::Ptr<Data::Interfaces::IString>::Attach(new Data::impl::StringImpl());
            Core::Ptr<Core::IErrorCode> error;
            string->_abi_Assign(text, 36, error.ReceiveAddress());
            Core::ThrowIfError(error);
            *ppString = string.Detach();
        },
        ppError);
}
