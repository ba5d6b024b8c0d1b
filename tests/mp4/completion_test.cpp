#include <gtest/gtest.h>

#include <filesystem>
#include <vector>

#include "front_index_support.h"
#include "mp4/alt/at_end_boxes.h"
#include "mp4/handle.h"
#include "support/box_reader.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/side_file.h"

namespace {

using Bytes = std::vector<uint8_t>;
using testsupport::BoxFile;
using testsupport::TempDir;

constexpr uint32_t kAreaEnd = 0x40020;

// An index-at-end handle whose file is given an index area by hand: ftyp,
// a free box from `moov_pos` to the end of the area, the mdat header behind.
struct AreaFile {
  TempDir dir;
  std::string mp4 = dir.file("rec.mp4");
  std::string mp2 = dir.file("rec.mp2");
  mp4_handle *h = nullptr;

  explicit AreaFile(uint32_t moov_pos) {
    h = mp4_write_head_h264(mp4.c_str(), mp2.c_str(), 160, 120, 3);
    if (h == nullptr) return;
    std::fseek(h->file, 32, SEEK_SET);
    if (moov_pos > 32) {  // a filler between ftyp and the area
      mp4_put_be32(h->file, moov_pos - 32);
      mp4_put_tag(h->file, "free");
      for (uint32_t i = 40; i < moov_pos; ++i) mp4_put_byte(h->file, 0);
    }
    mp4_put_be32(h->file, kAreaEnd - moov_pos);
    mp4_put_tag(h->file, "free");
    for (uint32_t i = moov_pos + 8; i < kAreaEnd; ++i) mp4_put_byte(h->file, 0xEE);
    h->mdatPos = kAreaEnd;
    mp4_put_be32(h->file, 0);
    mp4_put_tag(h->file, "mdat");
    h->moovPos = moov_pos;
  }

  // Real x264 samples and ADTS frames (those the side-file reader keeps whole).
  int feed() {
    const auto nals = testsupport::split_annexb(
        testsupport::read_file(testsupport::h264_stream(160, 120, 25, 1, 25)));
    int pictures = 0;
    for (auto n : nals) {
      if (mp4_write_video_node(n.bytes.data(), static_cast<int>(n.bytes.size()), pictures * 40, h))
        return -1;
      pictures += n.type() == 1 || n.type() == 5;
    }
    for (auto f :
         testsupport::split_adts(testsupport::read_file(testsupport::aac_stream(16000, 1)))) {
      if (sidefile::cut_elsewhere(f)) continue;
      if (mp4_write_pcm_h264(f.data(), static_cast<int>(f.size()), h) != 0) return -1;
    }
    return pictures;
  }
};

// Size of the index that add_index writes for the media of AreaFile::feed.
uint32_t fed_index_size() {
  AreaFile a(32);
  if (a.h == nullptr || a.feed() < 0 || mp4_append_mp2(a.h) != 0) return 0;
  const uint32_t size = mp4rec::alt::moov_size(*a.h);
  free_mp4_h264(a.h);
  return size;
}

TEST(AddIndex, FillsTheAreaUpToItsFixedEnd) {
  // The room behind the last child becomes a free box; fewer than 8 bytes go
  // into udta, as zeros behind its handler's name.
  const uint32_t index = fed_index_size();
  ASSERT_GT(index, 0u);
  struct Case {
    uint32_t moov_pos;
    bool free_box;  // behind udta
  };
  const Case cases[] = {
      {32, true}, {100, true}, {kAreaEnd - index - 8, true}, {kAreaEnd - index - 1, false}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.moov_pos);
    AreaFile a(c.moov_pos);
    ASSERT_NE(a.h, nullptr);
    const int pictures = a.feed();
    ASSERT_EQ(pictures, 25);
    ASSERT_EQ(mp4_append_mp2(a.h), 0);
    const uint32_t media = a.h->mediaBytes.load();
    ASSERT_EQ(mp4_write_add_index(a.h), 0);

    BoxFile f(a.mp4);
    const auto &moov = f.at("moov");
    EXPECT_EQ(moov.offset, c.moov_pos);
    EXPECT_EQ(moov.size, 262176u - c.moov_pos);
    EXPECT_EQ(f.u32(kAreaEnd), media + 8);
    EXPECT_EQ(f.str(kAreaEnd + 4, 4), "mdat");
    const auto &last = moov.children.back();
    EXPECT_EQ(last.type, c.free_box ? "free" : "udta") << f.dump();
    EXPECT_EQ(last.end(), kAreaEnd);
    EXPECT_EQ(moov.children.end()[-1 - c.free_box].type, "udta");
    EXPECT_EQ(f.stco(f.at("moov/trak[0]/mdia/minf/stbl/stco")),
              std::vector<uint32_t>{kAreaEnd + 8});
    EXPECT_EQ(testsupport::validate(a.mp4), "");
    EXPECT_EQ(testsupport::ffprobe_packets(a.mp4, "v"), pictures);
  }
}

TEST(AddIndex, RefusesWithoutAnIndexAreaAndKeepsTheFile) {
  TempDir dir;
  const std::string mp4 = dir.file("a.mp4");
  mp4_handle *h = mp4_write_head_h264(mp4.c_str(), dir.file("a.mp2").c_str(), 160, 120, 3);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(h->moovPos, 0xFFFFFFFFu);  // this road has no area in front
  Bytes idr = {0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84};
  ASSERT_EQ(mp4_write_video_node(idr.data(), static_cast<int>(idr.size()), 0, h), 0);
  std::fflush(h->file);
  const auto before = testsupport::read_file(mp4);
  EXPECT_EQ(mp4_write_add_index(h), -1);  // and the handle is released
  EXPECT_EQ(testsupport::read_file(mp4), before);
}

TEST(AddIndex, RefusesToWriteOverMediaData) {
  struct Case {
    const char *name;
    uint32_t moov_pos, mdat_pos;
    const char *message;
  };
  const Case cases[] = {
      {"mdat inside the area", 32, 4096, "mp4 add index : media data inside the index area\n"},
      {"area already passed", kAreaEnd + 8, 32, "mp4 add index : index larger than its area\n"},
      {"index too large", kAreaEnd - 600, kAreaEnd, "mp4 add index : index larger than its area\n"},
  };
  for (const auto &c : cases) {
    AreaFile a(32);
    ASSERT_NE(a.h, nullptr);
    ASSERT_EQ(a.feed(), 25);
    a.h->moovPos = c.moov_pos;
    a.h->mdatPos = c.mdat_pos;
    testsupport::LogCapture log;
    EXPECT_EQ(mp4_write_add_index(a.h), -1) << c.name;
    EXPECT_TRUE(log.has(c.message, 3, 37)) << c.name << log.dump();
    EXPECT_EQ(BoxFile(a.mp4).find("moov"), nullptr) << c.name;
  }
}

TEST(AddIndex, NeedsAHandleWithVideo) {
  EXPECT_EQ(mp4_write_add_index(nullptr), -1);
  AreaFile a(32);
  ASSERT_NE(a.h, nullptr);
  EXPECT_EQ(mp4_write_add_index(a.h), -1);
}

TEST(CloseWithoutEnd, LeavesTheFileAsWritten) {
  EXPECT_EQ(mp4_close_without_end(nullptr), -1);
  TempDir dir;
  const std::string mp4 = dir.file("a.mp4");
  mp4_handle *h = mp4_write_head_h264(mp4.c_str(), dir.file("a.mp2").c_str(), 160, 120, 2);
  ASSERT_NE(h, nullptr);
  Bytes idr = {0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84};
  ASSERT_EQ(mp4_write_video_node(idr.data(), static_cast<int>(idr.size()), 0, h), 0);
  ASSERT_EQ(mp4_write_pcm_h264(Bytes(2304).data(), 2304, h), 0);
  EXPECT_EQ(mp4_close_without_end(h), 0);
  const auto bytes = testsupport::read_file(mp4);
  ASSERT_EQ(bytes.size(), 48u + 7);
  EXPECT_EQ(BoxFile(bytes).u32(40), 0u);  // mdat never patched: nothing is written at close
  EXPECT_TRUE(std::filesystem::exists(dir.file("a.mp2")));
}

// A front-index handle fed one sample at a time: the bytes go to the end of
// the file through the index-at-end calls, the index through the per-sample
// update.
struct PerSample {
  TempDir dir;
  std::string mp4 = dir.file("rec.mp4");
  fitest::InfoPtr info;
  mp4_handle *h = nullptr;

  explicit PerSample(fitest::InfoParams params = {}) : info(fitest::make_info(params)) {
    h = mp4_write_head_h264_index(mp4.c_str(), dir.file("rec.mp2").c_str(), 160, 120, 3,
                                  info.get());
  }
  // One NAL unit; pictures are entered into the index.
  int video(const Bytes &nal, int ts) {
    Bytes b = nal;
    if (mp4_write_video_node(b.data(), static_cast<int>(b.size()), ts, h) != 0) return -100;
    const int type = b[b[2] == 1 ? 3 : 4] & 0x1F;
    if (type != 1 && type != 5) return 0;
    videoNode node = *h->videoTail;  // what the host knows: kind, size, time
    return mp4_write_moov_update(1, ts, &node, h, 0);
  }
  int audio(const Bytes &adts, int ts) {
    Bytes b = adts;
    if (mp4_write_one_aac(b.data(), static_cast<unsigned>(b.size()), ts, h) != 0) return -100;
    return mp4_write_moov_update(2, ts, nullptr, h, static_cast<int>(b.size()) - 7);
  }
};

const Bytes kSps = {0x00, 0x00, 0x00, 0x01, 0x67, 0x4D, 0x40, 0x1F, 0xAA};
const Bytes kPps = {0x00, 0x00, 0x00, 0x01, 0x68, 0xEE, 0x3C};
const Bytes kIdr = {0x00, 0x00, 0x00, 0x01, 0x65, 0x88, 0x84, 0x21};
const Bytes kSlice = {0x00, 0x00, 0x01, 0x41, 0x9A, 0x02};

TEST(MoovUpdate, EntersOneSampleAtATime) {
  PerSample p;
  ASSERT_NE(p.h, nullptr);
  ASSERT_EQ(p.video(kSps, 0), 0);
  ASSERT_EQ(p.video(kPps, 0), 0);
  ASSERT_EQ(p.video(kIdr, 1000), 0);
  ASSERT_EQ(p.video(kSlice, 1040), 0);
  std::fflush(p.h->file);
  BoxFile f(p.mp4);
  const std::string v = "moov/trak[0]/mdia/minf/stbl/";
  // Each delta is the distance from the previous sample; the previous time
  // starts at all-ones, so the first is the time plus one.
  EXPECT_EQ(f.stts(f.at(v + "stts")),
            (std::vector<std::pair<uint32_t, uint32_t>>{{1, 1001}, {1, 40}}));
  EXPECT_EQ(f.stss(f.at(v + "stss")), std::vector<uint32_t>{1});
  EXPECT_EQ(f.stsz(f.at(v + "stsz")), (std::vector<uint32_t>{8, 7}));
  const uint32_t data = p.h->mdatPos + 8;
  EXPECT_EQ(f.stco(f.at(v + "stco")), (std::vector<uint32_t>{data, data + 8}));
  EXPECT_EQ(f.u32(f.at("moov/trak[0]/tkhd").offset + 28), 1090u);  // value + 50
  EXPECT_EQ(f.u32(f.at("moov/mvhd").offset + 24), 1090u);
  EXPECT_EQ(f.u32(p.h->mdatPos), 8u + 15);
  EXPECT_EQ(f.stsc(f.at(v + "stsc")), (std::vector<BoxFile::Stsc>{{1, 1, 1}}));
  EXPECT_EQ(f.at(v + "stsd/avc1/avcC").size, 8u + 11 + 5 + 3);
  EXPECT_EQ(p.h->updatePos->dataPos, data + 15);
  EXPECT_EQ(mp4_close_without_end(p.h), 0);
}

TEST(MoovUpdate, RefusesWhatItCannotIndex) {
  EXPECT_EQ(mp4_write_moov_update(1, 0, nullptr, nullptr, 0), -1);
  PerSample p({.seconds = 1, .fps = 2});  // room for 4 video samples
  ASSERT_NE(p.h, nullptr);
  videoNode node{1, 8, 0, 0, nullptr};
  EXPECT_EQ(mp4_write_moov_update(1, 0, nullptr, p.h, 0), -1);  // a video sample needs its node
  for (int i = 0; i < 4; ++i) EXPECT_EQ(mp4_write_moov_update(1, i * 500, &node, p.h, 0), 0);
  testsupport::LogCapture log;
  EXPECT_EQ(mp4_write_moov_update(1, 2000, &node, p.h, 0), -1);
  EXPECT_TRUE(log.has("mp4 write index : frame number out of range\n", 3, 37)) << log.dump();
  EXPECT_EQ(p.h->videoSampleNumber, 4u);
  mp4_close_without_end(p.h);

  // A handle without reserved tables.
  TempDir dir;
  mp4_handle *h =
      mp4_write_head_h264(dir.file("a.mp4").c_str(), dir.file("a.mp2").c_str(), 160, 120, 3);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(mp4_write_moov_update(2, 0, nullptr, h, 10), -1);
  mp4_close_without_end(h);
}

TEST(MoovUpdate, AbandonedFileOpensAsLastPatched) {
  const auto nals = testsupport::split_annexb(
      testsupport::read_file(testsupport::h264_stream(160, 120, 25, 2, 25)));
  const auto aac =
      testsupport::split_adts(testsupport::read_file(testsupport::aac_stream(16000, 2)));
  PerSample p;
  ASSERT_NE(p.h, nullptr);
  int pictures = 0;
  size_t next_audio = 0;
  for (const auto &n : nals) {
    const int ts = pictures * 40;
    ASSERT_EQ(p.video(n.bytes, ts), 0);
    if (n.type() != 1 && n.type() != 5) continue;
    ++pictures;
    // AAC frames of 64 ms up to this picture's time.
    while (next_audio < aac.size() && static_cast<int>(next_audio) * 64 <= ts) {
      ASSERT_EQ(p.audio(aac[next_audio], static_cast<int>(next_audio) * 64), 0);
      ++next_audio;
    }
  }
  std::fflush(p.h->file);
  const auto patched = testsupport::read_file(p.mp4);
  ASSERT_EQ(mp4_close_without_end(p.h), 0);
  EXPECT_EQ(testsupport::read_file(p.mp4), patched);

  EXPECT_EQ(testsupport::validate(p.mp4), "");
  EXPECT_EQ(testsupport::ffprobe_packets(p.mp4, "v"), pictures);
  EXPECT_EQ(testsupport::ffprobe_packets(p.mp4, "a"), static_cast<long>(next_audio));
}

}  // namespace
