// The box writers' own behaviour: the status sum, the size patch, refusals and
// the audio descriptors by rate. The bytes of each box are checked by the
// finished-file digests (identity_test) and the head's field tree (head_test).
#include "mp4/box.h"

#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <string>
#include <vector>

#include "support/box_reader.h"
#include "support/media.h"

namespace {

using namespace mp4rec::box;
using Bytes = std::vector<uint8_t>;

// Runs `write` on a fresh file and returns what it wrote, with the status.
struct Written {
  Bytes bytes;
  int32_t result;
  int32_t status;
};
Written write_to_file(const std::function<int32_t(Sink &)> &write) {
  testsupport::TempDir dir;
  const std::string path = dir.file("box.bin");
  FILE *f = mp4_fopen(path.c_str(), "wb");
  int32_t status = 0;
  Sink s{f, status};
  const int32_t result = write(s);
  mp4_fclose(f);
  return {testsupport::read_file(path), result, status};
}

Bytes be32(uint32_t v) {
  return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)};
}
Bytes cat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

TEST(BoxStatus, SumSaturatesAndNeverWrapsToZero) {
  EXPECT_EQ(status_sum(0, 0), 0);
  EXPECT_EQ(status_sum(-1, -1), -2);
  EXPECT_EQ(status_sum(INT32_MIN, -1), INT32_MIN);
  EXPECT_EQ(status_sum(INT32_MIN, INT32_MIN), INT32_MIN);
  int32_t status = -1;
  Sink s{nullptr, status};
  for (int i = 0; i < 64; ++i) s.add(s.status());  // nested writers double it
  EXPECT_EQ(status, INT32_MIN);
}

TEST(BoxBytes, DisabledHeadersWriteNothing) {
  struct Case {
    const char *name;
    std::function<int32_t(Sink &)> write;
  };
  const Case cases[] = {
      {"mvhd moovEnable 0",
       [](Sink &s) { return write_mvhd(s, {.time_scale = 1000, .moov_enable = 0}); }},
      {"mvhd audioKHz 0",
       [](Sink &s) { return write_mvhd(s, {.time_scale = 1000, .audio_khz = 0}); }},
      {"tkhd guard 0", [](Sink &s) { return write_tkhd(s, {.track_id = 1, .guard = 0}); }},
  };
  for (const auto &c : cases) {
    const auto w = write_to_file(c.write);
    EXPECT_EQ(w.result, -1) << c.name;
    EXPECT_TRUE(w.bytes.empty()) << c.name;
  }
}

TEST(BoxBytes, EsdsDescriptors) {
  // MP2 frames below 32000 Hz are MPEG-2 audio (0x69), from 32000 Hz on MPEG-1
  // audio (0x6B); the AAC set is fixed.
  auto mpeg = [](uint8_t object_type) {
    Bytes d = {0x03, 0x15, 0x00, 0x00, 0x00, 0x04, 0x0D, 0x6B, 0x15, 0x00, 0x01, 0xA2,
               0x00, 0x02, 0x0A, 0x70, 0x00, 0x01, 0xF3, 0xF8, 0x06, 0x01, 0x02};
    d[7] = object_type;
    return d;
  };
  const Bytes aac = {0x03, 0x19, 0x00, 0x00, 0x00, 0x04, 0x11, 0x40, 0x15,
                     0x00, 0x01, 0x26, 0x00, 0x00, 0x63, 0xF0, 0x00, 0x00,
                     0x5A, 0x50, 0x05, 0x02, 0x14, 0x08, 0x06, 0x01, 0x02};
  struct Case {
    uint32_t format, rate;
    Bytes descriptors;
  };
  const Case cases[] = {{2, 16000, mpeg(0x69)},
                        {1, 31999, mpeg(0x69)},
                        {1, 32000, mpeg(0x6B)},
                        {2, 48000, mpeg(0x6B)},
                        {3, 48000, aac}};
  for (const auto &c : cases) {
    const auto w = write_to_file([&](Sink &s) { return write_esds_audio(s, c.format, c.rate); });
    EXPECT_EQ(Bytes(w.bytes.begin() + 12, w.bytes.end()), c.descriptors)
        << "format " << c.format << " at " << c.rate << " Hz";
  }
}

TEST(BoxStatus, FailedWritesAccumulateAndWritingGoesOn) {
  // A stream opened for reading refuses every write; each writer still runs
  // to its end and reports a non-zero status.
  testsupport::TempDir dir;
  const std::string path = dir.file("ro.bin");
  testsupport::write_file(path, Bytes(200, 0));
  FILE *f = mp4_fopen(path.c_str(), "rb");
  ASSERT_NE(f, nullptr);
  int32_t status = 0;
  Sink s{f, status};
  EXPECT_LT(write_tkhd(s, {.track_id = 1, .width = 2, .height = 2}), 0);
  EXPECT_LT(status, 0);
  const int32_t after_tkhd = status;
  s.add(write_dinf(s));  // nested: adds its own failures, then its result again
  EXPECT_LT(status, after_tkhd);
  mp4_fclose(f);

  int32_t none = 0;
  Sink null_sink{nullptr, none};
  EXPECT_EQ(write_udta(null_sink), -1);
  EXPECT_EQ(write_free_mdat(null_sink, nullptr), -1);
  EXPECT_EQ(none, 0);
}

TEST(BoxScopeTest, PatchedBoxGetsItsSizeAndWriterContinuesBehindIt) {
  const auto w = write_to_file([](Sink &s) {
    {
      Scope outer(s, "moov");
      {
        Scope inner(s, "trak");
        s.zeros(5);
        s.add(inner.close());
      }
      s.add(outer.close());
    }
    s.u32(0xDEADBEEF);
    return s.status();
  });
  testsupport::BoxFile f(w.bytes);
  EXPECT_EQ(f.u32(0), 21u);
  EXPECT_EQ(f.u32(8), 13u);
  EXPECT_EQ(f.u32(21), 0xDEADBEEFu);
  EXPECT_EQ(w.status, 0);

  const auto at = write_to_file([](Sink &s) {
    s.zeros(12);
    const int32_t r = write_u32_at(s, 4, 0x01020304);
    s.u8(0xFF);  // continues behind the patched word
    return r;
  });
  EXPECT_EQ(at.result, 0);
  EXPECT_EQ(at.bytes, cat({be32(0), be32(0x01020304), {0xFF, 0, 0, 0}}));
}

}  // namespace
