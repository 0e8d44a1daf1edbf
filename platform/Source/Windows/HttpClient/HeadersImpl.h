#pragma once
#include <string>
#include <vector>

#include "Core/ObjectImplBase.h"
#include "Platform/Interfaces/IHttpHeaders.h"
#include "Platform/Network/Http/Headers.h"

namespace Platform::Windows::Network::Http {

using Platform::Network::Http::HeaderTable;

class HttpHeadersImpl final : public Core::ObjectImplBase<Interfaces::IHttpHeaders> {
public:
    void Add(const char* name, const char* value) override;
    const char* Get(const char* name) override;
    const char* GetNameAt(uint64_t index) override;
    uint64_t GetCount() override { return table_.size(); }

    const HeaderTable& Table() const { return table_; }

private:
    HeaderTable table_;
};

class AcceptTypesImpl final : public Core::ObjectImplBase<Interfaces::IAcceptTypes> {
public:
    int64_t GetCount() override { return static_cast<int64_t>(types_.size()); }
    void Clear() override { types_.clear(); }
    void Add(const char* type) override {
        if (types_.empty()) types_.reserve(4); // a request names a few types at most
        types_.emplace_back(type ? type : "");
    }

    const std::vector<std::string>& Types() const { return types_; }

private:
    std::vector<std::string> types_;
};

} // namespace Platform::Windows::Network::Http
