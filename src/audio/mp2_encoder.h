// The MP2 encoder context: the bit writer first, then the encoder's settings,
// its sample count and the libavcodec objects behind it.
#pragma once

#include <cstdint>

#include "common/internal.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace mp4rec {

inline constexpr int kMp2FrameSamples = 1152;   // samples per channel in one frame
inline constexpr int kMp2MaxFrameBytes = 1792;  // bound of one encoded frame

struct Mp2Encoder {
  mp4_bit_writer bits;  // first, so the context can be handed to the bit writer
  int32_t channels;
  int32_t sample_rate;
  int32_t bitrate;
  int64_t samples_encoded;
  AVCodecContext *codec;
  AVFrame *frame;
  AVPacket *packet;
};

}  // namespace mp4rec
