// Decides whether the last picture of an H.264 or H.265 stream is whole, by decoding
// its group of pictures with libavcodec: a stream cut inside a picture leaves
// a slice whose data runs out before its last macroblock.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace mp4tool {

// `gop`: access units (Annex B) from an IDR (H.265: IRAP) picture to the end
// of the stream. Returns an empty string when the last one decodes cleanly,
// else what the decoder reported. Without the codec's decoder in libavcodec
// it says so once on standard error and returns an empty string.
std::string last_picture_error(const std::vector<std::vector<uint8_t>> &gop, bool hevc = false);

}  // namespace mp4tool
