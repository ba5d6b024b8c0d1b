#include <gtest/gtest.h>

#include <cstring>
#include <filesystem>
#include <vector>

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

const Bytes kSps = {0x00, 0x00, 0x00, 0x01, 0x67, 0x4D, 0x40, 0x1F, 0xAA};
const Bytes kPps = {0x00, 0x00, 0x01, 0x68, 0xEE, 0x3C};

Bytes nal(uint8_t header, size_t body, int start_code = 4) {
  Bytes b(static_cast<size_t>(start_code - 1), 0x00);
  b.push_back(0x01);
  b.push_back(header);
  b.insert(b.end(), body, 0x5A);
  return b;
}

// An ADTS frame of `length` bytes, header included.
Bytes adts(size_t length) {
  Bytes b{0xFF, 0xF1, 0x60, 0x40};
  b.resize(length, 0x21);
  return b;
}

struct Recording {
  TempDir dir;
  std::string mp4 = dir.file("rec.mp4");
  std::string mp2 = dir.file("rec.mp2");
  mp4_handle *h = nullptr;

  explicit Recording(int audio_format, int w = 640, int h_ = 480) {
    h = mp4_write_head_h264(mp4.c_str(), mp2.c_str(), w, h_, audio_format);
  }
  int video(Bytes b, int ts) {
    return mp4_write_video_node(b.data(), static_cast<int>(b.size()), ts, h);
  }
  int side(Bytes b) { return mp4_write_pcm_h264(b.data(), static_cast<int>(b.size()), h); }
};

TEST(IndexAtEndHead, RefusesBadArgumentsWithTheirMessages) {
  TempDir dir;
  const std::string mp4 = dir.file("a.mp4"), mp2 = dir.file("a.mp2");
  struct Case {
    const char *mp4, *mp2;
    int w, h, format;
    const char *message;
  };
  const Case cases[] = {
      {nullptr, mp2.c_str(), 640, 480, 1, "mp4 open write head : file path error\n"},
      {mp4.c_str(), mp2.c_str(), 640, 480, 4, "mp4 open write head : audio format error\n"},
      {mp4.c_str(), mp2.c_str(), 0, 480, 3, "mp4 open write head : video width or height error\n"},
      {"/nonexistent/a.mp4", mp2.c_str(), 640, 480, 3,
       "mp4 open write head : open mp4 file failed\n"},
      {mp4.c_str(), "/nonexistent/a.mp2", 640, 480, 3,
       "mp4 open write head : open tmp mp2 file failed\n"},
  };
  for (const auto &c : cases) {
    testsupport::LogCapture log;
    EXPECT_EQ(mp4_write_head_h264(c.mp4, c.mp2, c.w, c.h, c.format), nullptr) << c.message;
    EXPECT_TRUE(log.has(c.message, 3, 37)) << log.dump();
    EXPECT_EQ(log.find(c.message).function, "mp4_write_head_h264");
  }
}

// The time a new file is made (the finished-file digests leave times out).
TEST(IndexAtEndHead, CreationTimeIsNow) {
  Recording r(3);
  ASSERT_NE(r.h, nullptr);
  const uint32_t now = static_cast<uint32_t>(std::time(nullptr)) + 2082844800u;
  EXPECT_LE(r.h->creationTime - now + 2, 4u);
  free_mp4_h264(r.h);
}
TEST(IndexAtEndVideo, NalUnitsBecomeLengthPrefixedSamples) {
  Recording r(3);
  ASSERT_NE(r.h, nullptr);
  EXPECT_EQ(r.video(kSps, 0), 0);
  EXPECT_EQ(r.video(kPps, 0), 0);
  EXPECT_EQ(r.video(nal(0x67, 20), 0), 0);  // a second SPS does not replace the first
  EXPECT_EQ(r.video(nal(0x06, 5), 0), 0);   // SEI: dropped
  EXPECT_EQ(r.video(nal(0x65, 100, 3), 1000), 0);
  EXPECT_EQ(r.video(nal(0x41, 50, 4), 1040), 0);
  EXPECT_EQ(r.h->spsLen, 5u);
  EXPECT_EQ(r.h->ppsLen, 3u);
  EXPECT_EQ(r.h->videoCount.load(), 2u);
  ASSERT_NE(r.h->videoHead, nullptr);
  EXPECT_EQ(r.h->videoHead->type, 1);
  EXPECT_EQ(r.h->videoHead->size, 105u);  // 101-byte NAL + 4-byte length
  EXPECT_EQ(r.h->videoTail->type, 0);
  EXPECT_EQ(r.h->videoTail->size, 55u);
  EXPECT_EQ(r.h->mediaBytes.load(), 160u);

  // Refused input keeps the handle and writes nothing.
  testsupport::LogCapture log;
  EXPECT_EQ(r.video(Bytes{0x00, 0x00, 0x00, 0x01}, 0), -1);
  EXPECT_EQ(r.video(Bytes{0x00, 0x01, 0x65, 0x00, 0x00}, 0), -1);
  EXPECT_EQ(r.video(nal(0x65, 4), -1), -1);
  EXPECT_EQ(mp4_write_video_node(nullptr, 10, 0, r.h), -1);
  EXPECT_EQ(mp4_write_video_node(nullptr, 10, 0, nullptr), -1);
  EXPECT_TRUE(log.has("mp4 write video node : start code error\n", 3, 37)) << log.dump();
  EXPECT_EQ(log.count("mp4 write video node : start code error\n"), 2);
  EXPECT_EQ(log.count("mp4 write video node : param error\n"), 3);
  EXPECT_EQ(r.h->videoCount.load(), 2u);
  ASSERT_EQ(mp4_write_end_h264(r.h), 0);

  // The stored form: a 4-byte length instead of the start code (the boxes
  // are the finished-file digest's).
  BoxFile f(r.mp4);
  EXPECT_EQ(f.u32(48), 101u);
  EXPECT_EQ(f.u8(52), 0x65);
  EXPECT_EQ(f.u32(48 + 105), 51u);
}

TEST(IndexAtEndAudio, SideFileAacFramesLoseTheirHeaderAndShortOnesAreSkipped) {
  Recording r(3);
  ASSERT_NE(r.h, nullptr);
  ASSERT_EQ(r.video(kSps, 0), 0);
  ASSERT_EQ(r.video(kPps, 0), 0);
  ASSERT_EQ(r.video(nal(0x65, 30), 0), 0);
  for (size_t len : {20, 7, 8, 1024, 3}) ASSERT_EQ(r.side(adts(len)), 0) << len;
  ASSERT_EQ(mp4_write_end_h264(r.h), 0);

  BoxFile f(r.mp4);
  const std::string a = "moov/trak[1]/mdia/minf/stbl/";
  EXPECT_EQ(f.stsz(f.at(a + "stsz")), (std::vector<uint32_t>{13, 1, 1017}));
  EXPECT_EQ(f.stco(f.at(a + "stco")), std::vector<uint32_t>{48 + 35});
  EXPECT_EQ(f.u8(48 + 35), 0x21);  // the first stored byte follows the header
  EXPECT_EQ(f.stts(f.at(a + "stts")), (std::vector<std::pair<uint32_t, uint32_t>>{{3, 1024}}));
  EXPECT_EQ(f.at(a + "stsd/mp4a/esds").size, 39u);
  EXPECT_EQ(f.u32(40), 8u + 35 + 13 + 1 + 1017);
  EXPECT_EQ(f.u32(f.at("moov/trak[1]/mdia/mdhd").offset + 24), 3u * 1024);
  EXPECT_EQ(f.u32(f.at("moov/trak[1]/tkhd").offset + 28), 3u * 1024 / 16);
}

TEST(IndexAtEndAudio, SideFileRefusalsRelease) {
  struct Case {
    const char *name;
    Bytes frame;
  };
  const Case cases[] = {
      {"1025 bytes", adts(1025)},
      {"no F1", Bytes{0xFF, 0xF5, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00}},
      {"empty", Bytes{}},
  };
  for (const auto &c : cases) {
    Recording r(3);
    ASSERT_NE(r.h, nullptr);
    EXPECT_EQ(r.side(c.frame), -1) << c.name;  // the handle is gone (sanitizers check)
  }
  Recording pcm(1);
  ASSERT_NE(pcm.h, nullptr);
  EXPECT_EQ(pcm.side(Bytes(575)), -1);
}

TEST(IndexAtEndAudio, AacGoesToABoundDataBuffer) {
  Recording r(3);
  ASSERT_NE(r.h, nullptr);
  mp4_data_buffer *db = mp4_write_data_buffer_create(262144, 16384);
  ASSERT_NE(db, nullptr);
  ASSERT_EQ(mp4_set_data_buffer(r.h, db), 0);
  EXPECT_EQ(r.side(adts(40)), 0);  // the buffer's result, the handle kept
  EXPECT_EQ(std::filesystem::file_size(r.mp2), 0u);
  EXPECT_EQ(r.video(nal(0x65, 30), 0), -1);  // samples go one way only
  EXPECT_EQ(mp4_write_data_buffer_delete(db), 0);
  free_mp4_h264(r.h);
}

TEST(IndexAtEndAudio, PcmIsEncodedToMp2) {
  Recording r(2);
  ASSERT_NE(r.h, nullptr);
  ASSERT_NE(r.h->mp2Encoder, nullptr);
  ASSERT_EQ(r.video(kSps, 0), 0);
  ASSERT_EQ(r.video(kPps, 0), 0);
  ASSERT_EQ(r.video(nal(0x65, 30), 0), 0);
  for (int i = 0; i < 10; ++i) ASSERT_EQ(r.side(Bytes(2304)), 0);
  ASSERT_EQ(mp4_write_end_h264(r.h), 0);
  BoxFile f(r.mp4);
  const std::string a = "moov/trak[1]/mdia/minf/stbl/";
  EXPECT_EQ(f.entry_count(f.at(a + "stsz")), 10u);
  EXPECT_EQ(f.stts(f.at(a + "stts")), (std::vector<std::pair<uint32_t, uint32_t>>{{10, 1152}}));
  EXPECT_EQ(f.at(a + "stsd/mp4a/esds").size, 35u);
  EXPECT_EQ(f.u32(f.at("moov/trak[1]/tkhd").offset + 28), 720u);
}

TEST(IndexAtEndAudio, DirectAacFramesAndTimeStampedDurations) {
  audioTimeStampFlag.store(1);
  Recording r(3);
  ASSERT_NE(r.h, nullptr);
  ASSERT_EQ(r.video(kSps, 0), 0);
  ASSERT_EQ(r.video(kPps, 0), 0);
  ASSERT_EQ(r.video(nal(0x65, 30), 0), 0);
  Bytes frame = adts(7);
  ASSERT_EQ(mp4_write_one_aac(frame.data(), 7, 100, r.h), 0);  // empty frame
  EXPECT_EQ(r.h->audioTail->size, 0u);
  EXPECT_EQ(r.h->audioTail->reserved, 48u + 35);  // where it was written
  frame = adts(27);
  ASSERT_EQ(mp4_write_one_aac(frame.data(), 27, 164, r.h), 0);
  EXPECT_EQ(r.h->audioTail->size, 20u);
  ASSERT_EQ(r.side(adts(30)), 0);  // copied at the end with time stamp 0
  ASSERT_EQ(mp4_write_end_h264(r.h), 0);
  BoxFile f(r.mp4);
  const std::string a = "moov/trak[1]/mdia/minf/stbl/";
  // (164 - 100) x 16000 / 1000 = 1024; (0 - 164) x 16000 kept to 32 bits / 1000; last 1024.
  const uint32_t back = static_cast<uint32_t>((0u - 164u) * 16000u) / 1000u;
  EXPECT_EQ(f.stts(f.at(a + "stts")),
            (std::vector<std::pair<uint32_t, uint32_t>>{{1, 1024}, {1, back}, {1, 1024}}));
  EXPECT_EQ(f.stsz(f.at(a + "stsz")), (std::vector<uint32_t>{0, 20, 23}));
  // The media duration is the sum of those deltas.
  EXPECT_EQ(f.u32(f.at("moov/trak[1]/mdia/mdhd").offset + 24), 1024 + back + 1024);
}

TEST(IndexAtEndEnd, NeedsVideoAndParameterSets) {
  {
    Recording r(3);
    ASSERT_NE(r.h, nullptr);
    EXPECT_EQ(mp4_write_end_h264(r.h), -1);  // no video sample
  }
  {
    Recording r(3);
    ASSERT_NE(r.h, nullptr);
    EXPECT_EQ(mp4_append_mp2(r.h), -1);
  }
  {
    Recording r(3);
    ASSERT_NE(r.h, nullptr);
    ASSERT_EQ(r.video(nal(0x65, 30), 0), 0);
    EXPECT_EQ(mp4_write_end_h264(r.h), -1);  // avcC cannot be made
    BoxFile f(r.mp4);
    EXPECT_EQ(f.at("moov/trak[0]/mdia/minf/stbl/stsd/avc1/avcC").size, 8u);
  }
}

TEST(IndexAtEndEnd, MoovSizeMatchesWhatIsWritten) {
  for (int format : {1, 3}) {
    for (int flag : {0, 1}) {
      audioTimeStampFlag.store(flag);
      Recording r(format);
      ASSERT_NE(r.h, nullptr);
      ASSERT_EQ(r.video(kSps, 0), 0);
      ASSERT_EQ(r.video(kPps, 0), 0);
      for (int i = 0; i < 7; ++i) ASSERT_EQ(r.video(nal(i % 3 ? 0x41 : 0x65, 30), i * 33), 0);
      if (format == 3) {
        for (int i = 0; i < 4; ++i) ASSERT_EQ(r.side(adts(40)), 0);
      } else {
        ASSERT_EQ(r.side(Bytes(576 * 4)), 0);
      }
      ASSERT_EQ(mp4_append_mp2(r.h), 0);
      const uint32_t expected = mp4rec::alt::moov_size(*r.h);
      mp4rec::box::Sink s{r.h->file, r.h->writeStatus};
      s.add(mp4rec::alt::write_end(s, *r.h));
      EXPECT_EQ(r.h->writeStatus, 0);
      free_mp4_h264(r.h);
      BoxFile f(r.mp4);
      EXPECT_EQ(f.at("moov").size, expected) << format << flag;
      EXPECT_EQ(f.stss(f.at("moov/trak[0]/mdia/minf/stbl/stss")), (std::vector<uint32_t>{1, 4, 7}));
    }
  }
}

}  // namespace
