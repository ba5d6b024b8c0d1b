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

// The MPEG version of a layer II sample rate: 0 for MPEG-1, 1 for the MPEG-2
// low sampling frequencies, -1 for a rate layer II does not know.
int mp2_lsf_for_rate(int sample_rate);
// Whether bitrate / 1000 is a layer II bit rate of that version, or 0 (free format).
bool mp2_bitrate_allowed(int lsf, int bitrate);

}  // namespace mp4rec
