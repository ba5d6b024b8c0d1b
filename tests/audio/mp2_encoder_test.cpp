#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <numbers>
#include <vector>

#include "audio/mp2_encoder.h"
#include "audio_test_util.h"
#include "common/internal.h"

namespace {

using audiotest::Bytes;

struct EncoderCloser {
  void operator()(void *ctx) const { MP2_encode_close(ctx); }
};
using Encoder = std::unique_ptr<void, EncoderCloser>;

// One frame of a sine per channel, interleaved.
std::vector<int16_t> sine_frame(int channels, int rate, double hz, int frame_index = 0) {
  std::vector<int16_t> s(static_cast<size_t>(mp4rec::kMp2FrameSamples * channels));
  for (int i = 0; i < mp4rec::kMp2FrameSamples; ++i) {
    const double t = (frame_index * mp4rec::kMp2FrameSamples + i) / double(rate);
    for (int ch = 0; ch < channels; ++ch)
      s[static_cast<size_t>(i * channels + ch)] =
          static_cast<int16_t>(8000 * std::sin(2 * std::numbers::pi * hz * (ch + 1) * t));
  }
  return s;
}

Bytes encode(void *ctx, std::vector<int16_t> samples) {
  std::array<uint8_t, 2304> out{};
  unsigned int length = 12345;
  EXPECT_EQ(MP2_encode_frame(ctx, &length, out.data(), 2304, samples.data()), 1);
  return Bytes(out.data(), out.data() + std::min<size_t>(length, out.size()));
}

// Every accepted setting must also encode: the header's sync pair tells the
// MPEG version (F5 MPEG-2, FD MPEG-1, both layer II without CRC) and the frame
// length follows from the bit rate (144 * rate / sample rate, plus padding).
TEST(Mp2Encoder, InitAcceptsLayerTwoSettingsOnly) {
  const struct {
    int rate, bitrate, channels;
    bool ok;
  } cases[] = {
      {16000, 24000, 1, true},   {16000, 64000, 1, true},    {16000, 8000, 1, true},
      {16000, 160000, 2, true},  {22050, 144000, 1, true},   {24000, 40000, 2, true},
      {48000, 384000, 2, true},  {48000, 32000, 1, true},    {44100, 128000, 2, true},
      {32000, 56000, 1, true},   {16000, 24999, 1, true},    {16000, 0, 1, true},
      {48000, 0, 2, true},       {16000, 999, 1, true},      {8000, 24000, 1, false},
      {11025, 24000, 1, false},  {44000, 128000, 1, false},  {0, 24000, 1, false},
      {16000, 24000, 3, false},  {48000, 128000, 3, false},  {16000, 24000, 0, false},
      {16000, 24000, -1, false}, {16000, 192000, 1, false},  {16000, 4000, 1, false},
      {48000, 24000, 1, false},  {48000, 144000, 1, false},  {44100, 448000, 2, false},
      {32000, 1000, 1, false},   {16000, 1000000, 1, false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message()
                 << c.rate << " Hz, " << c.bitrate << " bit/s, " << c.channels << " ch");
    Encoder enc(MP2_encode_init(c.rate, c.bitrate, c.channels));
    ASSERT_EQ(enc != nullptr, c.ok);
    if (!enc) continue;
    const Bytes frame = encode(enc.get(), sine_frame(c.channels, c.rate, 440));
    ASSERT_GE(frame.size(), 4u);
    const bool mpeg1 = c.rate >= 32000;
    EXPECT_EQ(frame[0], 0xFF);
    EXPECT_EQ(frame[1], mpeg1 ? 0xFD : 0xF5);
    if (c.bitrate >= 1000) {
      const size_t bytes =
          144u * static_cast<unsigned>(c.bitrate / 1000 * 1000) / static_cast<unsigned>(c.rate);
      EXPECT_GE(frame.size(), bytes);
      EXPECT_LE(frame.size(), bytes + 1);
    }
    EXPECT_EQ(((frame[3] >> 6) == 3), c.channels == 1);  // channel mode: mono
  }
}

TEST(Mp2Encoder, FrameSizesOfTheTwoRecorderSettings) {
  const struct {
    int bitrate;
    size_t bytes;
  } cases[] = {{24000, 216}, {64000, 576}};
  for (const auto &c : cases) {
    Encoder enc(MP2_encode_init(16000, c.bitrate, 1));
    ASSERT_TRUE(enc);
    for (int i = 0; i < 5; ++i)
      EXPECT_EQ(encode(enc.get(), sine_frame(1, 16000, 1000, i)).size(), c.bytes) << c.bitrate;
  }
}

// No encoder delay: the first call already gives a frame, and N calls give N
// frames, with the context counting the samples and its bit writer pointed at
// the caller's buffer.
TEST(Mp2Encoder, EveryCallGivesOneFrame) {
  Encoder enc(MP2_encode_init(16000, 24000, 1));
  ASSERT_TRUE(enc);
  auto *ctx = static_cast<mp4rec::Mp2Encoder *>(enc.get());
  EXPECT_EQ(ctx->channels, 1);
  EXPECT_EQ(ctx->sample_rate, 16000);
  EXPECT_EQ(ctx->bitrate, 24000);
  EXPECT_EQ(ctx->samples_encoded, 0);
  std::array<uint8_t, 2304> out{};
  for (int i = 0; i < 20; ++i) {
    auto samples = sine_frame(1, 16000, 1000, i);
    unsigned int length = 0;
    ASSERT_EQ(MP2_encode_frame(enc.get(), &length, out.data(), 2304, samples.data()), 1);
    ASSERT_EQ(length, 216u) << "frame " << i;
    EXPECT_EQ(out[0], 0xFF);
    EXPECT_EQ(ctx->samples_encoded, int64_t{1152} * (i + 1));
    const auto *bits = static_cast<const mp4_bit_writer *>(enc.get());
    EXPECT_EQ(bits->buf, out.data());
    EXPECT_EQ(bits->buf_end, out.data() + 1792);
  }
}

TEST(Mp2Encoder, BadArgumentsGiveNoFrame) {
  Encoder enc(MP2_encode_init(16000, 24000, 1));
  ASSERT_TRUE(enc);
  std::array<uint8_t, 2304> out{};
  std::vector<int16_t> samples(1152);
  unsigned int length = 99;
  EXPECT_EQ(MP2_encode_frame(nullptr, &length, out.data(), 2304, samples.data()), 1);
  EXPECT_EQ(length, 0u);
  length = 99;
  EXPECT_EQ(MP2_encode_frame(enc.get(), &length, out.data(), 2304, nullptr), 1);
  EXPECT_EQ(length, 0u);
  EXPECT_EQ(MP2_encode_frame(enc.get(), nullptr, out.data(), 2304, samples.data()), 1);
  MP2_encode_close(nullptr);
  // The encoder still works after the refused calls.
  EXPECT_EQ(encode(enc.get(), samples).size(), 216u);
}

// Opening and closing leaks nothing (LeakSanitizer checks at exit in the
// sanitizer build), whether the encoder was used, refused or never used.
TEST(Mp2Encoder, OpenCloseCyclesReleaseEverything) {
  for (int i = 0; i < 50; ++i) {
    void *ctx = MP2_encode_init(i % 2 ? 16000 : 48000, i % 2 ? 24000 : 128000, 1 + i % 2);
    ASSERT_NE(ctx, nullptr);
    if (i % 3 == 0) encode(ctx, sine_frame(1 + i % 2, 16000, 1000));
    MP2_encode_close(ctx);
    EXPECT_EQ(MP2_encode_init(8000, 24000, 1), nullptr);
    EXPECT_EQ(MP2_encode_init(16000, 24000, 3), nullptr);
  }
}

}  // namespace
