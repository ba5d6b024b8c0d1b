// PCM to MP2: each block of PCM becomes one MP2 frame appended to the side file.
#include "audio/pcm_to_mp2.h"

#include <array>
#include <cstdio>
#include <cstring>

namespace mp4rec {

void widen_pcm8_block(std::span<const uint8_t, kPcm8BlockBytes> in,
                      std::span<int16_t, kMp2FrameSamples> out) {
  for (size_t i = 0; i < in.size(); ++i) out[2 * i] = out[2 * i + 1] = widen_pcm8(in[i]);
}

namespace {

// Room for a frame of two channels, so that a stereo context given to a
// converter reads silence rather than past the block.
using SampleBlock = std::array<int16_t, 2 * kMp2FrameSamples>;

// Encodes the samples of one block and appends the frame to the side file;
// messages carry the converter's name.
int encode_block(const char *name, FILE *file, void *ctx, SampleBlock &samples) {
  std::array<unsigned char, kMp2FrameBufferBytes> frame;
  unsigned int length = 0;
  MP2_encode_frame(ctx, &length, frame.data(), kMp2FrameBufferBytes, samples.data());
  if (length == 0) {
    MP4_LOG_AS(name, kLogError, kModAudio, "[%d] mp4:mp2 encode error!\n\n", __LINE__);
    return -1;
  }
  if (std::fwrite(frame.data(), 1, length, file) != length) {
    MP4_LOG_AS(name, kLogError, kModAudio, "[%d] mp4:mp2 encode:write file error!\n\n", __LINE__);
    return -1;
  }
  return 0;
}

}  // namespace

}  // namespace mp4rec

using namespace mp4rec;

extern "C" int mp4_pcm_to_mp2(FILE *file, unsigned char *pcm, int len, void *ctx) {
  if (file == nullptr || pcm == nullptr || len <= 0 || len % kPcm8BlockBytes != 0) {
    MP4_LOG38(kLogError, "[%d] mp4:mp2 eocoder:input param error!\n\n");
    return -1;
  }
  SampleBlock samples{};
  for (int pos = 0; pos < len; pos += kPcm8BlockBytes) {
    widen_pcm8_block(std::span<const uint8_t, kPcm8BlockBytes>(pcm + pos, kPcm8BlockBytes),
                     std::span<int16_t, kMp2FrameSamples>(samples.data(), kMp2FrameSamples));
    if (encode_block(__func__, file, ctx, samples) != 0) return -1;
  }
  return 0;
}

extern "C" int mp4_pcm_to_mp2_2(FILE *file, unsigned char *pcm, int len, void *ctx) {
  if (file == nullptr || pcm == nullptr || ctx == nullptr || len <= 0 ||
      len % kPcm16BlockBytes != 0) {
    MP4_LOG38(kLogError, "[%d] mp4:mp2 eocoder:input param error!\n\n");
    return -1;
  }
  SampleBlock samples{};
  for (int pos = 0; pos < len; pos += kPcm16BlockBytes) {
    // Native 16-bit samples as they stand; copied, as the input need not be aligned.
    std::memcpy(samples.data(), pcm + pos, kPcm16BlockBytes);
    if (encode_block(__func__, file, ctx, samples) != 0) return -1;
  }
  return 0;
}
