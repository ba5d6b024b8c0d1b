#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <vector>

#include "mp4/alt/mjpeg.h"
#include "support/box_reader.h"
#include "support/media.h"

namespace {

using Bytes = std::vector<uint8_t>;
using testsupport::BoxFile;
using testsupport::TempDir;

// A minimal picture: start marker, `body` filler bytes, end marker.
Bytes picture(size_t body, uint8_t fill = 0x11) {
  Bytes b{0xFF, 0xD8};
  b.insert(b.end(), body, fill);
  b.push_back(0xFF);
  b.push_back(0xD9);
  return b;
}

struct Recording {
  TempDir dir;
  std::string mp4 = dir.file("rec.mp4");
  std::string mp2 = dir.file("rec.mp2");
  mp4_mjpeg_ctx *ctx = nullptr;

  explicit Recording(unsigned audio_format = 2, int w = 640, int h = 480) {
    ctx = mp4_write_head_jpeg(mp4.c_str(), mp2.c_str(), w, h, audio_format);
  }
  int video(Bytes b, int ts) {
    return mp4_write_one_jpeg(b.data(), static_cast<int>(b.size()), ts, ctx);
  }
  int pcm(Bytes b) { return mp4_write_pcm_jpeg(b.data(), static_cast<int>(b.size()), ctx); }
};

TEST(MjpegMarkers, ScanFollowsTheExactlyOneFillByteRule) {
  struct Case {
    const char *name;
    Bytes bytes;
    mp4rec::JpegScan result;
    size_t start, size;
  };
  const Case cases[] = {
      {"bytes around the picture",
       {0x12, 0x34, 0xFF, 0xD8, 0x01, 0xFF, 0xD9, 0x56},
       mp4rec::JpegScan::kPicture,
       2,
       5},
      {"empty picture", {0xFF, 0xD8, 0xFF, 0xD9}, mp4rec::JpegScan::kPicture, 0, 4},
      {"two fill bytes hide the start",
       {0xFF, 0xFF, 0xD8, 0x00, 0xFF, 0xD9},
       mp4rec::JpegScan::kNoStart,
       0,
       0},
      {"a later single start counts",
       {0xFF, 0xFF, 0xD8, 0x00, 0xFF, 0xD8, 0xFF, 0xD9},
       mp4rec::JpegScan::kPicture,
       4,
       4},
      {"no end marker", {0xFF, 0xD8, 0x01, 0x02}, mp4rec::JpegScan::kNoEnd, 0, 0},
      {"two fill bytes hide the end",
       {0xFF, 0xD8, 0x01, 0xFF, 0xFF, 0xD9},
       mp4rec::JpegScan::kNoEnd,
       0,
       0},
      {"end scan starts behind the start marker",
       {0xFF, 0xD8, 0xD9},
       mp4rec::JpegScan::kNoEnd,
       0,
       0},
      {"a thumbnail's end cuts the picture",
       {0xFF, 0xD8, 0x01, 0xFF, 0xD8, 0x02, 0xFF, 0xD9, 0x03, 0xFF, 0xD9},
       mp4rec::JpegScan::kPicture,
       0,
       8},
      {"nothing", {}, mp4rec::JpegScan::kNoStart, 0, 0},
  };
  for (const auto &c : cases) {
    const auto found = mp4rec::find_jpeg_picture(c.bytes);
    EXPECT_EQ(found.result, c.result) << c.name;
    if (c.result == mp4rec::JpegScan::kPicture) {
      EXPECT_EQ(found.span.start, c.start) << c.name;
      EXPECT_EQ(found.span.size, c.size) << c.name;
    }
  }
}

TEST(MjpegHead, RefusesBadArguments) {
  TempDir dir;
  const std::string mp4 = dir.file("a.mp4"), mp2 = dir.file("a.mp2");
  EXPECT_EQ(mp4_write_head_jpeg(nullptr, mp2.c_str(), 640, 480, 1), nullptr);
  EXPECT_EQ(mp4_write_head_jpeg(mp4.c_str(), nullptr, 640, 480, 1), nullptr);
  EXPECT_EQ(mp4_write_head_jpeg(mp4.c_str(), mp2.c_str(), 640, 480, 3), nullptr);
  EXPECT_EQ(mp4_write_head_jpeg(mp4.c_str(), mp2.c_str(), 0, 480, 1), nullptr);
  EXPECT_EQ(mp4_write_head_jpeg(mp4.c_str(), mp2.c_str(), 640, -1, 2), nullptr);
  EXPECT_FALSE(std::filesystem::exists(mp4));
  // The side file cannot be made: the .mp4 has been created and stays.
  EXPECT_EQ(mp4_write_head_jpeg(mp4.c_str(), dir.file("none/a.mp2").c_str(), 640, 480, 1), nullptr);
  EXPECT_TRUE(std::filesystem::exists(mp4));
}

TEST(MjpegFile, OnePictureWithoutAudio) {
  Recording r(2);
  ASSERT_NE(r.ctx, nullptr);
  Bytes buf{0x12, 0x34};
  const Bytes pic = picture(100);
  buf.insert(buf.end(), pic.begin(), pic.end());
  buf.push_back(0x56);
  ASSERT_EQ(r.video(buf, 5000), 0);
  ASSERT_EQ(mp4_write_end_jpeg(r.ctx), 0);

  BoxFile f(r.mp4);
  const auto &bytes = f.bytes();
  ASSERT_EQ(bytes.size(), 48 + pic.size() + 1091 + 12);
  EXPECT_EQ(f.str(4, 4), "ftyp");
  EXPECT_EQ(f.u32(0), 32u);
  EXPECT_EQ(f.str(36, 4), "free");
  EXPECT_EQ(f.u32(40), 8 + pic.size());  // mdat
  EXPECT_EQ(f.slice(48, pic.size()), pic);
  EXPECT_EQ(f.at("moov").size, 1091u + 12);
  EXPECT_EQ(f.u32(f.at("moov/mvhd").offset + 12), 0xC6BFDE31u);  // a fixed creation time
  // The audio track of a file without audio: one empty chunk behind the picture.
  const std::string a = "moov/trak[1]/mdia/minf/stbl/";
  EXPECT_EQ(f.stts(f.at(a + "stts")), (std::vector<std::pair<uint32_t, uint32_t>>{{0, 1152}}));
  EXPECT_EQ(f.stsc(f.at(a + "stsc")), (std::vector<BoxFile::Stsc>{{1, 0, 1}}));
  EXPECT_EQ(f.entry_count(f.at(a + "stsz")), 0u);
  EXPECT_EQ(f.stco(f.at(a + "stco")),
            std::vector<uint32_t>{48 + static_cast<uint32_t>(pic.size())});
}

TEST(MjpegFile, VideoDeltasAreTimeStampDistances) {
  Recording r(1);
  ASSERT_NE(r.ctx, nullptr);
  for (int ts : {0, 40, 100, 90}) ASSERT_EQ(r.video(picture(10), ts), 0);
  ASSERT_EQ(mp4_write_end_jpeg(r.ctx), 0);
  BoxFile f(r.mp4);
  EXPECT_EQ(
      f.stts(f.at("moov/trak[0]/mdia/minf/stbl/stts")),
      (std::vector<std::pair<uint32_t, uint32_t>>{{1, 40}, {1, 60}, {1, 0xFFFFFFF6u}, {1, 50}}));
  // Dv = last - first + 50, in the video tkhd, elst and mdhd.
  EXPECT_EQ(f.u32(f.at("moov/trak[0]/tkhd").offset + 28), 140u);
  EXPECT_EQ(f.u32(f.at("moov/trak[0]/edts/elst").offset + 16), 140u);
  EXPECT_EQ(f.u32(f.at("moov/trak[0]/mdia/mdhd").offset + 24), 140u);
}

TEST(MjpegFile, PicturesWithoutEndMarkerAreDropped) {
  Recording r(2);
  ASSERT_NE(r.ctx, nullptr);
  ASSERT_EQ(r.video(picture(20), 0), 0);
  Bytes cut = picture(30);
  cut.erase(cut.end() - 2, cut.end());
  EXPECT_EQ(r.video(cut, 40), 0);
  EXPECT_EQ(r.ctx->videoCount, 1u);
  EXPECT_EQ(r.ctx->mediaBytes, 24u);
  ASSERT_EQ(mp4_write_end_jpeg(r.ctx), 0);
  EXPECT_EQ(std::filesystem::file_size(r.mp4), 48u + 24 + 1091 + 12);
}

TEST(MjpegFile, SixteenBitPcmBecomesOneFramePerBlock) {
  Recording r(2);
  ASSERT_NE(r.ctx, nullptr);
  const int pictures = 3;
  for (int i = 0; i < pictures; ++i)
    ASSERT_EQ(r.video(picture(50 + static_cast<size_t>(i)), i * 40), 0);
  Bytes pcm(2304);
  for (size_t i = 0; i < pcm.size(); i += 2) pcm[i + 1] = static_cast<uint8_t>(i * 7);
  for (int i = 0; i < 36; ++i) ASSERT_EQ(r.pcm(pcm), 0);
  ASSERT_EQ(mp4_write_end_jpeg(r.ctx), 0);

  BoxFile f(r.mp4);
  const std::string a = "moov/trak[1]/mdia/minf/stbl/";
  const auto sizes = f.stsz(f.at(a + "stsz"));
  ASSERT_EQ(sizes.size(), 36u);
  uint32_t audio_bytes = 0;
  for (uint32_t s : sizes) audio_bytes += s;
  const uint32_t video_bytes = 54 + 55 + 56;
  const uint32_t n = pictures, m = 36;
  EXPECT_EQ(f.at("moov").size, 1091 + 12 * n + 4 * m);
  EXPECT_EQ(f.bytes().size(), 48 + video_bytes + audio_bytes + 1091 + 12 * n + 4 * m);
  EXPECT_EQ(f.u32(40), 8 + video_bytes + audio_bytes);
  EXPECT_EQ(f.stts(f.at(a + "stts")), (std::vector<std::pair<uint32_t, uint32_t>>{{36, 1152}}));
  EXPECT_EQ(f.stsc(f.at(a + "stsc")), (std::vector<BoxFile::Stsc>{{1, 36, 1}}));
  EXPECT_EQ(f.stco(f.at(a + "stco")), std::vector<uint32_t>{48 + video_bytes});
  EXPECT_EQ(f.u32(f.at("moov/trak[1]/tkhd").offset + 28), 2592u);        // Da
  EXPECT_EQ(f.u32(f.at("moov/trak[1]/mdia/mdhd").offset + 20), 16000u);  // time scale
  EXPECT_EQ(f.u32(f.at("moov/trak[1]/mdia/mdhd").offset + 24), 41472u);  // 1152 x 36
  EXPECT_EQ(f.u32(f.at("moov/mvhd").offset + 24), 2592u);                // max(Dv, Da)
  // Each stored frame starts with the MP2 sync pair.
  uint32_t off = 48 + video_bytes;
  for (uint32_t s : sizes) {
    EXPECT_EQ(f.u16(off), 0xFFF5);
    off += s;
  }
}

TEST(MjpegFile, FinishingWithoutPictureLeavesOnlyTheHead) {
  Recording r(1);
  ASSERT_NE(r.ctx, nullptr);
  ASSERT_EQ(r.pcm(Bytes(576 * 2, 0x80)), 0);
  EXPECT_EQ(mp4_write_end_jpeg(r.ctx), -1);
  const auto bytes = testsupport::read_file(r.mp4);
  ASSERT_EQ(bytes.size(), 48u);
  BoxFile f(bytes);
  EXPECT_EQ(f.u32(40), 0u);
  EXPECT_EQ(f.str(44, 4), "mdat");
  EXPECT_EQ(f.find("moov"), nullptr);
}

// Every refusal releases the context (checked for leaks and double frees by
// the sanitizer builds); the data already written stays on disk.
TEST(MjpegFile, RefusedInputReleasesTheContext) {
  struct Case {
    const char *name;
    unsigned format;
    int (*call)(Recording &);
  };
  const Case cases[] = {
      {"no start marker", 2,
       [](Recording &r) {
         return r.video({0xFF, 0xFF, 0xD8, 0xFF, 0xD9}, 0);
       }},
      {"negative time stamp", 2, [](Recording &r) { return r.video(picture(4), -1); }},
      {"null picture", 2, [](Recording &r) { return mp4_write_one_jpeg(nullptr, 10, 0, r.ctx); }},
      {"575 bytes of 8-bit PCM", 1, [](Recording &r) { return r.pcm(Bytes(575)); }},
      {"2300 bytes of 16-bit PCM", 2, [](Recording &r) { return r.pcm(Bytes(2300)); }},
      {"no PCM", 1, [](Recording &r) { return mp4_write_pcm_jpeg(nullptr, 576, r.ctx); }},
  };
  for (const auto &c : cases) {
    Recording r(c.format);
    ASSERT_NE(r.ctx, nullptr);
    ASSERT_EQ(r.video(picture(8), 0), 0);
    EXPECT_EQ(c.call(r), -1) << c.name;
    EXPECT_EQ(std::filesystem::file_size(r.mp4), 48u + 12) << c.name;
  }
}

// The finished file (pictures, the side file's audio and the index) must stay
// below 2 GiB: what would cross it is refused with -5, the context kept.
TEST(MjpegFile, WhatWouldCrossTwoGiBIsRefused) {
  Recording r(2);
  ASSERT_NE(r.ctx, nullptr);
  ASSERT_EQ(r.video(picture(8), 0), 0);
  ASSERT_EQ(r.pcm(Bytes(2304)), 0);
  r.ctx->mediaBytes = static_cast<uint32_t>(mp4rec::kMaxFileBytes - 48 - 4000);
  EXPECT_EQ(r.video(picture(4000), 40), -5);
  EXPECT_EQ(r.pcm(Bytes(2304 * 8)), -5);
  EXPECT_EQ(r.video(picture(100), 80), 0);
  r.ctx->mediaBytes = 12 + 104;  // what really went in: the end step writes a good file
  EXPECT_EQ(mp4_write_end_jpeg(r.ctx), 0);
}

TEST(MjpegFile, NullContextIsRefused) {
  Bytes pic = picture(4);
  EXPECT_EQ(mp4_write_one_jpeg(pic.data(), static_cast<int>(pic.size()), 0, nullptr), -1);
  EXPECT_EQ(mp4_write_pcm_jpeg(Bytes(576).data(), 576, nullptr), -1);
  EXPECT_EQ(mp4_write_end_jpeg(nullptr), -1);
}

TEST(MjpegFile, SixteenBitConversionFailureKeepsAnEmptyRecordForTheClose) {
  Recording r(2);
  ASSERT_NE(r.ctx, nullptr);
  ASSERT_EQ(r.video(picture(8), 0), 0);
  MP2_encode_close(r.ctx->mp2Encoder);  // the converter now refuses the block
  r.ctx->mp2Encoder = nullptr;
  EXPECT_EQ(r.pcm(Bytes(2304)), -1);
  EXPECT_EQ(r.ctx->file, nullptr);
  EXPECT_EQ(r.ctx->mp2File, nullptr);
  EXPECT_EQ(r.ctx->videoHead, nullptr);
  EXPECT_EQ(mp4_write_end_jpeg(r.ctx), -1);  // frees the record
}

}  // namespace
