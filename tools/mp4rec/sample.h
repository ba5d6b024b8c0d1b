// The built-in sample (H.264 + AAC, a few seconds), assembled into the tool.
#pragma once

#include <cstdint>
#include <span>

namespace mp4tool {

std::span<const uint8_t> sample_h264();
std::span<const uint8_t> sample_aac();

}  // namespace mp4tool
