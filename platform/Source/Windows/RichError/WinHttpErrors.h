#pragma once
#include <cstdint>

namespace Platform::Windows::RichError {

// Text of a transport error number (the WinHTTP numbering), or null for an unknown number.
const char* WinHttpErrorText(uint32_t code) noexcept;

} // namespace Platform::Windows::RichError
