#pragma once
#include <cstdint>
#include <string>
#include <vector>

namespace TellarMaps {

// PNG file bytes of an RGBA image with 8 bits per sample, rows top first.
std::string EncodeRgbaPng(const std::vector<uint8_t>& rgba, uint32_t width, uint32_t height);

} // namespace TellarMaps
