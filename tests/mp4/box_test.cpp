// Byte-level checks of the shared box writers and of the status sum.
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
Bytes text(const std::string &s) {
  return Bytes(s.begin(), s.end());
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

TEST(BoxBytes, FtypIsTheSameWithAndWithoutSizePatch) {
  const Bytes expect = cat({be32(32), text("ftypisom"), be32(0x200), text("isomiso2avc1mp41")});
  for (bool patched : {false, true}) {
    const auto w = write_to_file([&](Sink &s) { return write_ftyp(s, patched); });
    EXPECT_EQ(w.bytes, expect) << patched;
    EXPECT_EQ(w.result, 0);
    EXPECT_EQ(w.status, 0);
  }
}

TEST(BoxBytes, MvhdFieldsAndMarks) {
  uint32_t box = 0, dur = 0;
  const auto w = write_to_file([&](Sink &s) {
    s.zeros(4);
    return write_mvhd(s, {.creation_time = 0xC6BFDE31, .time_scale = 1000, .duration = 72},
                      {&box, &dur});
  });
  ASSERT_EQ(w.bytes.size(), 4u + kMvhdSize);
  EXPECT_EQ(box, 4u);
  EXPECT_EQ(dur, 4u + 24);
  const Bytes expect =
      cat({be32(108),        text("mvhd"), be32(0),          be32(0xC6BFDE31), be32(0xC6BFDE31),
           be32(1000),       be32(72),     be32(0x00010000), {0x01, 0x00},     Bytes(10, 0),
           be32(0x00010000), be32(0),      be32(0),          be32(0),          be32(0x00010000),
           be32(0),          be32(0),      be32(0),          be32(0x40000000), Bytes(24, 0),
           be32(3)});
  EXPECT_EQ(Bytes(w.bytes.begin() + 4, w.bytes.end()), expect);
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

TEST(BoxBytes, TkhdWidthAndHeightInBothForms) {
  for (bool fixed : {true, false}) {
    uint32_t dur = 0;
    const auto w = write_to_file([&](Sink &s) {
      return write_tkhd(s,
                        {.creation_time = 7,
                         .track_id = 2,
                         .duration = 50,
                         .volume = 0x0100,
                         .width = 640,
                         .height = 480,
                         .fixed_point = fixed},
                        {nullptr, &dur});
    });
    testsupport::BoxFile f(w.bytes);
    ASSERT_EQ(w.bytes.size(), kTkhdSize);
    EXPECT_EQ(f.u32(8), 0x0000000Fu);  // version 0, flags 15
    EXPECT_EQ(f.u32(20), 2u);          // track ID
    EXPECT_EQ(dur, 28u);
    EXPECT_EQ(f.u32(28), 50u);
    EXPECT_EQ(f.u16(44), 0x0100);  // volume
    EXPECT_EQ(f.u32(84), fixed ? 640u << 16 : 640u);
    EXPECT_EQ(f.u32(88), fixed ? 480u << 16 : 480u);
  }
}

TEST(BoxBytes, ContainersOfFixedSize) {
  // The boxes whose sizes the moov layout counts on, and their children.
  struct Case {
    const char *name;
    std::function<int32_t(Sink &)> write;
    uint32_t size;
    const char *child;  // path of a child box that must parse, or null
  };
  const Case cases[] = {
      {"edts", [](Sink &s) { return write_edts(s, 130); }, kEdtsSize, "edts/elst"},
      {"mdhd", [](Sink &s) { return write_mdhd(s, 1, 16000, 0); }, kMdhdSize, nullptr},
      {"hdlr", [](Sink &s) { return write_hdlr(s, "soun"); }, kHdlrSize, nullptr},
      {"vmhd", [](Sink &s) { return write_vmhd(s); }, kVmhdSize, nullptr},
      {"smhd", [](Sink &s) { return write_smhd(s); }, kSmhdSize, nullptr},
      {"dinf", [](Sink &s) { return write_dinf(s); }, kDinfSize, "dinf/dref/url "},
      {"udta", [](Sink &s) { return write_udta(s); }, kUdtaSize, "udta/meta/ilst/\xA9too/data"},
      {"esds mp2", [](Sink &s) { return write_esds_audio(s, 1, 16000); }, 35, nullptr},
      {"esds aac", [](Sink &s) { return write_esds_audio(s, 3, 16000); }, 39, nullptr},
      {"esds jpeg", [](Sink &s) { return write_esds_jpeg(s); }, 44, nullptr},
  };
  for (const auto &c : cases) {
    const auto w = write_to_file(c.write);
    EXPECT_EQ(w.result, 0) << c.name;
    ASSERT_EQ(w.bytes.size(), c.size) << c.name;
    testsupport::BoxFile f(w.bytes);
    EXPECT_EQ(f.u32(0), c.size) << c.name;
    if (c.child != nullptr) {
      EXPECT_NE(f.find(c.child), nullptr) << c.name << "\n" << f.dump();
    }
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

TEST(BoxBytes, SampleEntryFieldsAndAvcConfig) {
  auto w = write_to_file([](Sink &s) {
    write_visual_entry_fields(s, 1280, 720);
    write_audio_entry_fields(s, 16000);
    return s.status();
  });
  ASSERT_EQ(w.bytes.size(), kVisualEntryFieldsSize + kAudioEntryFieldsSize);
  testsupport::BoxFile v(w.bytes);
  EXPECT_EQ(v.u32(24), 1280u << 16 | 720u);  // 16-bit width and height
  EXPECT_EQ(v.u16(74), 0x0018);              // depth
  EXPECT_EQ(v.u32(78 + 24), 16000u << 16);   // sample rate as 16.16

  const Bytes sps = {0x67, 0x4D, 0x40, 0x1F, 0xAA}, pps = {0x68, 0xEE};
  w = write_to_file([&](Sink &s) {
    write_avc_config(s, sps, pps);
    return s.status();
  });
  EXPECT_EQ(w.bytes,
            cat({{0x01, 0x4D, 0x40, 0x1F, 0xFF, 0xE1, 0x00, 0x05}, sps, {0x01, 0x00, 0x02}, pps}));
  EXPECT_EQ(w.bytes.size(), avc_config_size(5, 2));
  // Without parameter sets: a record that says so.
  EXPECT_EQ(avc_config({}, {}), (Bytes{0x01, 0x4D, 0x40, 0x1F, 0xFF, 0xE0, 0x00}));
  EXPECT_EQ(avc_config_size(0, 0), 7u);
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
