// The bench's own checks: the input is cut as every back end expects it, and
// every back end (plain and into a paced stream) makes a file that ffmpeg
// reads back with every frame.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <string>

#include "backend.h"
#include "input.h"
#include "measure.h"
#include "support/media.h"

namespace {

constexpr int kWidth = 320, kHeight = 240, kFps = 30;
constexpr double kSeconds = 2.0;

bench::Input small_input() {
  return bench::load_input(testsupport::h264_stream(kWidth, kHeight, kFps, kSeconds, 30),
                           testsupport::aac_stream(16000, kSeconds), kWidth, kHeight, kFps);
}

uint32_t be32(const uint8_t *p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

TEST(BenchInput, CutsAccessUnitsAndAdtsFramesInTimeStampOrder) {
  const bench::Input in = small_input();
  const auto adts =
      testsupport::split_adts(testsupport::read_file(testsupport::aac_stream(16000, kSeconds)));
  ASSERT_EQ(in.video_frames, size_t(kFps * kSeconds));
  ASSERT_EQ(in.audio_frames, adts.size());
  EXPECT_EQ(in.sample_rate, 16000);
  EXPECT_EQ(in.aac_config[0], 0x14);  // AAC LC, 16 kHz
  EXPECT_EQ(in.aac_config[1], 0x08);  // mono

  size_t video = 0, audio = 0, bytes = 0;
  uint32_t last_ts = 0;
  for (const auto &u : in.units) {
    EXPECT_GE(u.ts, last_ts);
    last_ts = u.ts;
    EXPECT_EQ(u.sample_off, bytes);
    bytes += u.sample_len;
    const auto s = in.sample(u);
    if (u.video) {
      EXPECT_EQ(u.ts, video * 1000 / kFps);
      EXPECT_EQ(u.key, video % 30 == 0) << "frame " << video;
      // One picture NAL behind its 4-byte length; parameter sets stay out.
      ASSERT_GE(s.size(), 5u);
      EXPECT_EQ(be32(s.data()) + 4, s.size());
      EXPECT_EQ(s[4] & 0x1F, u.key ? 5 : 1);
      EXPECT_EQ(u.nal_count, u.key ? 3u : 1u);  // SPS, PPS, IDR
      ++video;
    } else {
      EXPECT_EQ(u.ts, audio * 64);
      ASSERT_EQ(u.adts_len, adts[audio].size());
      EXPECT_EQ(s.size(), adts[audio].size() - 7);  // the raw frame without its header
      EXPECT_TRUE(std::equal(s.begin(), s.end(), adts[audio].begin() + 7));
      ++audio;
    }
  }
  EXPECT_EQ(bytes, in.media_bytes);
  EXPECT_EQ(in.samples.size(), in.media_bytes);
}

TEST(BenchInput, PacedStreamKeepsWritesAndSeeks) {
  testsupport::TempDir dir;
  const std::string path = dir.file("paced.bin");
  FILE *plain = std::fopen(path.c_str(), "wb+");
  ASSERT_NE(plain, nullptr);
  FILE *f = bench::paced_stream(dup(fileno(plain)), 1e9, 4096);
  std::fclose(plain);
  ASSERT_NE(f, nullptr);
  std::string data(100000, 'a');
  ASSERT_EQ(std::fwrite(data.data(), 1, data.size(), f), data.size());
  ASSERT_EQ(std::fseek(f, 10, SEEK_SET), 0);
  ASSERT_EQ(std::fwrite("XYZ", 1, 3, f), 3u);
  ASSERT_EQ(std::fseek(f, 0, SEEK_END), 0);
  EXPECT_EQ(std::ftell(f), long(data.size()));
  ASSERT_EQ(std::fclose(f), 0);
  data.replace(10, 3, "XYZ");
  const auto bytes = testsupport::read_file(path);
  EXPECT_EQ(std::string(bytes.begin(), bytes.end()), data);
}

struct Case {
  const char *backend;
  double throttle;  // bytes/s, 0 = plain file
};

void PrintTo(const Case &c, std::ostream *os) {
  *os << c.backend << (c.throttle > 0 ? " into a paced stream" : "");
}

class BenchBackend : public testing::TestWithParam<Case> {};

TEST_P(BenchBackend, RecordsEveryFrameIntoAReadableFile) {
  const Case c = GetParam();
  const bench::BackendInfo *info = bench::find_backend(c.backend);
  if (!info) GTEST_SKIP() << c.backend << " is not built";
  bench::Input in = small_input();
  testsupport::TempDir dir;
  bench::Options opt;
  opt.out_path = dir.file("out.mp4");
  opt.throttle_bytes_per_s = c.throttle;
  {
    auto backend = info->make(opt);
    backend->setup(opt, in);
    backend->open();
    for (const auto &u : in.units)
      ASSERT_EQ(u.video ? backend->video(in, u) : backend->audio(in, u), 0);
    backend->close();
    backend->teardown();
  }
  if (std::string(c.backend).rfind("fwrite", 0) == 0) {
    EXPECT_EQ(testsupport::read_file(opt.out_path), in.samples);
    return;
  }
  EXPECT_EQ(testsupport::ffprobe_frames(opt.out_path, "v"), long(in.video_frames));
  EXPECT_EQ(testsupport::ffprobe_frames(opt.out_path, "a"), long(in.audio_frames));
  EXPECT_EQ(testsupport::ffmpeg_decode_errors(opt.out_path), "");
}

INSTANTIATE_TEST_SUITE_P(All, BenchBackend,
                         testing::Values(Case{"fwrite", 0}, Case{"fwrite", 50e6},
                                         Case{"fwrite-thread", 0}, Case{"lavf", 0},
                                         Case{"lavf", 50e6}, Case{"lavf-faststart", 0},
                                         Case{"lavf-frag", 0}, Case{"lavf-frag", 50e6},
                                         Case{"mp4rec", 0}, Case{"mp4rec", 50e6}),
                         [](const testing::TestParamInfo<Case> &p) {
                           std::string n = p.param.backend;
                           for (char &ch : n)
                             if (ch == '-') ch = '_';
                           return n + (p.param.throttle > 0 ? "_paced" : "");
                         });

}  // namespace
