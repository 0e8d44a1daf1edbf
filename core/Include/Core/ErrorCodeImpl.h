#pragma once
#include <cstdint>
#include <string>

#include "Core/ErrorCode.h"
#include "Core/ObjectImplBase.h"

namespace Core::impl {

// The error object handed out through IErrorCode** parameters.
class ErrorCodeImpl final : public LightObjectImplBase<IErrorCode> {
public:
    ErrorCodeImpl(uint32_t code, std::string message) : code_(code), message_(std::move(message)) {}

    const char* GetMessage() const noexcept override { return message_.c_str(); }
    uint32_t GetMessageLength() const noexcept override { return static_cast<uint32_t>(message_.size()); }
    uint32_t GetCode() const noexcept override { return code_; }

private:
    uint32_t code_;
    std::string message_;
};

} // namespace Core::impl
