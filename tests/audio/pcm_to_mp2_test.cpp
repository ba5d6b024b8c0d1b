#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "audio/pcm_to_mp2.h"
#include "audio_test_util.h"
#include "common/internal.h"

namespace {

using audiotest::Bytes;
using audiotest::numbered_messages;

constexpr const char *kParamError = "mp4:mp2 eocoder:input param error!\n\n";
constexpr const char *kEncodeError = "mp4:mp2 encode error!\n\n";
constexpr const char *kWriteError = "mp4:mp2 encode:write file error!\n\n";

struct EncoderCloser {
  void operator()(void *ctx) const { MP2_encode_close(ctx); }
};
using Encoder = std::unique_ptr<void, EncoderCloser>;

using Convert = int (*)(FILE *, unsigned char *, int, void *);

// Runs a converter on a fresh side file; returns its result and the file.
std::pair<int, Bytes> convert(Convert fn, Bytes pcm, int rate, int bitrate) {
  testsupport::TempDir dir;
  const std::string path = dir.file("side.mp2");
  Encoder enc(MP2_encode_init(rate, bitrate, 1));
  EXPECT_TRUE(enc);
  int r;
  {
    auto f = audiotest::open_file(path, "wb");
    r = fn(f.get(), pcm.data(), static_cast<int>(pcm.size()), enc.get());
  }
  return {r, testsupport::read_file(path)};
}

// 16-bit native PCM bytes of the given samples.
Bytes pcm16_bytes(const std::vector<int16_t> &samples) {
  Bytes out(samples.size() * 2);
  std::memcpy(out.data(), samples.data(), out.size());
  return out;
}

TEST(PcmToMp2, EightBitSamplesAreWidenedAroundTheCentre) {
  const struct {
    uint8_t in;
    int16_t out;
  } cases[] = {{0x80, 0}, {0x00, -32768}, {0xFF, 32512}, {0x81, 256}, {0x7F, -256}, {0x40, -16384}};
  for (const auto &c : cases) EXPECT_EQ(mp4rec::widen_pcm8(c.in), c.out) << int(c.in);

  std::array<uint8_t, 576> in{};
  for (size_t i = 0; i < in.size(); ++i) in[i] = static_cast<uint8_t>(i * 7);
  std::array<int16_t, 1152> out{};
  mp4rec::widen_pcm8_block(in, out);
  for (size_t i = 0; i < in.size(); ++i) {
    ASSERT_EQ(out[2 * i], mp4rec::widen_pcm8(in[i])) << i;
    ASSERT_EQ(out[2 * i + 1], out[2 * i]) << i;
  }
}

// Through the encoder: 8-bit input gives exactly the frames of the 16-bit
// input that holds each widened byte twice.
TEST(PcmToMp2, EightBitInputEncodesAsItsWidenedSamples) {
  Bytes pcm8(1152);  // two frames
  std::vector<int16_t> widened;
  for (size_t i = 0; i < pcm8.size(); ++i) {
    pcm8[i] = static_cast<uint8_t>(128 + 100 * std::sin(i * 0.3) + (i % 5));
    const int16_t s = static_cast<int16_t>((pcm8[i] - 128) * 256);
    widened.insert(widened.end(), {s, s});
  }
  const auto [r8, side8] = convert(mp4_pcm_to_mp2, pcm8, 16000, 64000);
  const auto [r16, side16] = convert(mp4_pcm_to_mp2_2, pcm16_bytes(widened), 16000, 64000);
  EXPECT_EQ(r8, 0);
  EXPECT_EQ(r16, 0);
  EXPECT_EQ(side8.size(), 2u * 576);
  EXPECT_EQ(side8, side16);
}

TEST(PcmToMp2, RefusesBadInputAndWritesNothing) {
  testsupport::TempDir dir;
  Encoder enc(MP2_encode_init(16000, 24000, 1));
  auto f = audiotest::open_file(dir.file("side.mp2"), "wb");
  Bytes pcm(4608, 0x80);
  const struct {
    const char *name;
    Convert fn;
    FILE *file;
    unsigned char *pcm;
    int len;
    void *ctx;
  } cases[] = {
      {"8-bit, 575 bytes", mp4_pcm_to_mp2, f.get(), pcm.data(), 575, enc.get()},
      {"8-bit, 0 bytes", mp4_pcm_to_mp2, f.get(), pcm.data(), 0, enc.get()},
      {"8-bit, -576 bytes", mp4_pcm_to_mp2, f.get(), pcm.data(), -576, enc.get()},
      {"8-bit, 577 bytes", mp4_pcm_to_mp2, f.get(), pcm.data(), 577, enc.get()},
      {"8-bit, null file", mp4_pcm_to_mp2, nullptr, pcm.data(), 576, enc.get()},
      {"8-bit, null pcm", mp4_pcm_to_mp2, f.get(), nullptr, 576, enc.get()},
      {"16-bit, 2303 bytes", mp4_pcm_to_mp2_2, f.get(), pcm.data(), 2303, enc.get()},
      {"16-bit, 576 bytes", mp4_pcm_to_mp2_2, f.get(), pcm.data(), 576, enc.get()},
      {"16-bit, 0 bytes", mp4_pcm_to_mp2_2, f.get(), pcm.data(), 0, enc.get()},
      {"16-bit, null file", mp4_pcm_to_mp2_2, nullptr, pcm.data(), 2304, enc.get()},
      {"16-bit, null pcm", mp4_pcm_to_mp2_2, f.get(), nullptr, 2304, enc.get()},
      {"16-bit, null encoder", mp4_pcm_to_mp2_2, f.get(), pcm.data(), 2304, nullptr},
  };
  for (const auto &c : cases) {
    testsupport::LogCapture log;
    EXPECT_EQ(c.fn(c.file, c.pcm, c.len, c.ctx), -1) << c.name;
    const char *function = c.fn == mp4_pcm_to_mp2 ? "mp4_pcm_to_mp2" : "mp4_pcm_to_mp2_2";
    EXPECT_EQ(numbered_messages(log, kParamError, function), 1) << c.name << "\n" << log.dump();
    EXPECT_EQ(log.entries().size(), 1u) << c.name;
  }
  EXPECT_EQ(std::ftell(f.get()), 0);
}

// The 8-bit converter does not look at the encoder: without one no frame
// comes out, which is an encoding error.
TEST(PcmToMp2, EightBitWithoutEncoderIsAnEncodingError) {
  testsupport::LogCapture log;
  const auto [r, side] = convert([](FILE *f, unsigned char *pcm, int len,
                                    void *) { return mp4_pcm_to_mp2(f, pcm, len, nullptr); },
                                 Bytes(576, 0x80), 16000, 24000);
  EXPECT_EQ(r, -1);
  EXPECT_TRUE(side.empty());
  EXPECT_EQ(numbered_messages(log, kEncodeError, "mp4_pcm_to_mp2"), 1) << log.dump();
}

// A side file that fills up: the frames written before stay in it.
TEST(PcmToMp2, WriteErrorKeepsTheFramesWritten) {
  const struct {
    Convert fn;
    const char *name;
    size_t block;
  } cases[] = {{mp4_pcm_to_mp2, "mp4_pcm_to_mp2", 576},
               {mp4_pcm_to_mp2_2, "mp4_pcm_to_mp2_2", 2304}};
  for (const auto &c : cases) {
    Encoder enc(MP2_encode_init(16000, 24000, 1));
    std::array<char, 300> mem{};
    audiotest::File f(fmemopen(mem.data(), mem.size(), "w"));
    ASSERT_TRUE(f);
    std::setvbuf(f.get(), nullptr, _IONBF, 0);
    Bytes pcm(c.block * 3, 0x80);
    testsupport::LogCapture log;
    EXPECT_EQ(c.fn(f.get(), pcm.data(), static_cast<int>(pcm.size()), enc.get()), -1);
    EXPECT_EQ(numbered_messages(log, kWriteError, c.name), 1) << log.dump();
    EXPECT_EQ(static_cast<uint8_t>(mem[0]), 0xFF);
    EXPECT_EQ(static_cast<uint8_t>(mem[1]), 0xF5);
  }
}

// The side file of a 1 kHz tone at both recorder settings (H.264 files: 16-bit
// input, 24 kbit/s; MJPEG files: 8-bit input, 64 kbit/s): ffprobe reads it as
// MP2, 16000 Hz, mono, one frame per block, it decodes to a 1 kHz tone, and
// the reader cuts it back into the frames written.
// The 8-bit input holds every other sample, as each byte fills two.
TEST(PcmToMp2, SineSideFileDecodesAsTheTone) {
  const Bytes pcm16 = testsupport::read_file(testsupport::pcm16_stream(16000, 2.304));
  ASSERT_GE(pcm16.size(), 32u * 2304);
  Bytes pcm8(32 * 576);
  for (size_t i = 0; i < pcm8.size(); ++i)
    pcm8[i] = static_cast<uint8_t>(
        (static_cast<int16_t>(pcm16[4 * i] | pcm16[4 * i + 1] << 8) >> 8) + 128);
  const struct {
    Convert fn;
    Bytes pcm;
    int bitrate;
    size_t frame_bytes;
  } cases[] = {{mp4_pcm_to_mp2_2, Bytes(pcm16.begin(), pcm16.begin() + 32 * 2304), 24000, 216},
               {mp4_pcm_to_mp2, pcm8, 64000, 576}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.bitrate);
    testsupport::TempDir dir;
    const std::string path = dir.file("side.mp2");
    {
      Encoder enc(MP2_encode_init(16000, c.bitrate, 1));
      auto f = audiotest::open_file(path, "wb");
      // As a host delivers it: a few blocks per call.
      const size_t step = c.pcm.size() / 8;
      for (size_t pos = 0; pos < c.pcm.size(); pos += step)
        ASSERT_EQ(c.fn(f.get(), const_cast<uint8_t *>(c.pcm.data()) + pos, static_cast<int>(step),
                       enc.get()),
                  0);
    }
    EXPECT_EQ(testsupport::read_file(path).size(), 32 * c.frame_bytes);
    EXPECT_EQ(testsupport::ffprobe_stream_field(path, "a", "codec_name"), "mp2");
    EXPECT_EQ(testsupport::ffprobe_stream_field(path, "a", "sample_rate"), "16000");
    EXPECT_EQ(testsupport::ffprobe_stream_field(path, "a", "channels"), "1");
    EXPECT_EQ(testsupport::ffprobe_frames(path, "a"), 32);
    EXPECT_EQ(testsupport::ffmpeg_decode_errors(path), "");
    const auto decoded = audiotest::decode_s16(path);
    EXPECT_EQ(decoded.size(), 32u * 1152);
    EXPECT_EQ(audiotest::dominant_frequency(decoded, 16000), 1000);

    // The side file's reader cuts it back into the 32 frames written.
    auto f = audiotest::open_file(path, "rb");
    ASSERT_EQ(mp4_handle_mp2_head(f.get()), 0);
    std::vector<unsigned char> buf(65536);
    std::vector<unsigned int> lengths;
    for (unsigned int n; mp4_read_mp2_frame(f.get(), buf.data(), 65536, &n) == 0;)
      lengths.push_back(n);
    EXPECT_EQ(lengths, std::vector<unsigned int>(32, static_cast<unsigned int>(c.frame_bytes)));
  }
}

}  // namespace
