// PCM to MP2 conversion: the block sizes of the two PCM widths and the
// widening of 8-bit PCM, shared by the converters and their tests.
#pragma once

#include <cstdint>
#include <span>

#include "audio/mp2_encoder.h"

namespace mp4rec {

inline constexpr int kPcm8BlockBytes = kMp2FrameSamples / 2;                      // 576
inline constexpr int kPcm16BlockBytes = kMp2FrameSamples * int{sizeof(int16_t)};  // 2304
// Frame buffer the converters hand to the encoder.
inline constexpr int kMp2FrameBufferBytes = 2304;

// One 8-bit sample (unsigned, centre 128) as a 16-bit sample: (u - 128) * 256.
constexpr int16_t widen_pcm8(uint8_t u) {
  return static_cast<int16_t>(static_cast<uint16_t>((u + 128) << 8));
}

// Widens a block of 8-bit PCM, each byte written twice in a row.
void widen_pcm8_block(std::span<const uint8_t, kPcm8BlockBytes> in,
                      std::span<int16_t, kMp2FrameSamples> out);

}  // namespace mp4rec
