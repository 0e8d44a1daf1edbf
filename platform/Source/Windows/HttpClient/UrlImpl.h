#pragma once
#include <cstdint>
#include <string>

#include "Core/ObjectImplBase.h"
#include "Platform/Interfaces/IUrl.h"

namespace Platform::Network::impl {

// The parsed address: a short sequence of plain byte searches, not a general URI parser.
class UrlImpl final : public Core::ObjectImplBase<Interfaces::IUrl> {
public:
    UrlImpl() = default;

    bool IsDefaultPort() override;
    const char* GetScheme() override { return scheme_.c_str(); }
    const char* GetHost() override { return host_.c_str(); }
    uint32_t GetPort() override { return port_; }
    const char* GetPath() override { return path_.c_str(); }
    const char* GetQuery() override { return query_.c_str(); }
    const char* GetFragment() override { return fragment_.c_str(); }
    bool Parse(const char* text, Core::IErrorCode** ppError) override;

private:
    void ParseText(const std::string& input);

    std::string scheme_;
    std::string host_;
    uint32_t port_ = 0;
    std::string path_;
    std::string query_;
    std::string fragment_;
};

} // namespace Platform::Network::impl
