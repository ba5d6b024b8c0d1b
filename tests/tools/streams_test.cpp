// The tool's stream readers against streams that ffmpeg made, read whole and
// in small pieces (as a pipe delivers them).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "decode_check.h"
#include "streams.h"
#include "support/media.h"

namespace {

using namespace mp4tool;
using testsupport::read_file;

// Delivers a buffer `step` bytes at a time.
class Trickle final : public ByteSource {
 public:
  Trickle(std::vector<uint8_t> b, size_t step) : b_(std::move(b)), step_(step) {}
  size_t read(uint8_t *dst, size_t n) override {
    n = std::min({n, step_, b_.size() - pos_});
    if (n == 0) return 0;
    std::memcpy(dst, b_.data() + pos_, n);
    pos_ += n;
    return n;
  }

 private:
  std::vector<uint8_t> b_;
  size_t step_, pos_ = 0;
};

std::vector<uint8_t> strip_trailing_zeros(std::vector<uint8_t> b, int sc) {
  while (b.size() > static_cast<size_t>(sc) && b.back() == 0) b.pop_back();
  return b;
}

TEST(Streams, NalUnitsMatchAPlainSplit) {
  const auto stream = read_file(testsupport::h264_stream(320, 240, 15, 2, 15));
  const auto expected = testsupport::split_annexb(stream);
  for (const size_t step : {size_t{1}, size_t{7}, size_t{4096}, size_t{1} << 20}) {
    NalReader r(std::make_unique<Trickle>(stream, step));
    size_t i = 0;
    while (auto nal = r.next()) {
      ASSERT_LT(i, expected.size()) << "step " << step;
      EXPECT_EQ(nal->bytes, strip_trailing_zeros(expected[i].bytes, expected[i].start_code))
          << "NAL " << i << " step " << step;
      EXPECT_EQ(nal->start_code, expected[i].start_code);
      ++i;
    }
    EXPECT_EQ(i, expected.size()) << "step " << step;
  }
}

// H.264 with one slice a picture; H.265 with three slice segments a picture.
TEST(Streams, AccessUnitsArePictures) {
  for (const bool hevc : {false, true}) {
    SCOPED_TRACE(hevc ? "H.265" : "H.264");
    const std::string file = hevc ? testsupport::hevc_stream(320, 240, 15, 2, 15, 3)
                                  : testsupport::h264_stream(320, 240, 15, 2, 15);
    AccessUnitReader r(open_source(file), hevc);
    int units = 0, idr = 0;
    while (auto au = r.next()) {
      ++units;
      EXPECT_TRUE(au->has_picture);
      EXPECT_EQ(au->slices, hevc ? 3 : 1);
      EXPECT_FALSE(au->bipred);
      if (au->idr) {
        ++idr;
        EXPECT_TRUE(au->has_sps && au->has_pps && (au->has_vps || !hevc));
        EXPECT_EQ(au->nals.front().type, hevc ? 32 : 7);
        if (!hevc) {
          EXPECT_EQ(au->nals.back().type, 5);
        }
      }
    }
    EXPECT_EQ(units, testsupport::ffprobe_packets(file, "v"));
    EXPECT_EQ(idr, 2);
  }
}

TEST(Streams, SequenceParameterSets) {
  struct Case {
    int w, h, fps;
    bool hevc;
  } cases[] = {{320, 240, 15, false}, {320, 180, 30, false}, {176, 144, 25, false},
               {640, 360, 30, false}, {320, 180, 30, true},  {640, 480, 25, true}};
  for (const auto &c : cases) {
    SCOPED_TRACE(std::to_string(c.w) + "x" + std::to_string(c.h) + (c.hevc ? " H.265" : ""));
    const auto nals = testsupport::split_annexb(
        read_file(c.hevc ? testsupport::hevc_stream(c.w, c.h, c.fps, 0.2, 5)
                         : testsupport::h264_stream(c.w, c.h, c.fps, 0.2, 5)));
    ASSERT_GT(nals.size(), 1u);
    const auto &unit = nals[c.hevc ? 1 : 0];  // behind the VPS
    ASSERT_EQ(c.hevc ? unit.hevc_type() : unit.type(), c.hevc ? 33 : 7);
    const auto sps = c.hevc ? parse_hevc_sps(unit.bytes) : parse_sps(unit.bytes);
    ASSERT_TRUE(sps.has_value());
    EXPECT_EQ(sps->width, c.w);
    EXPECT_EQ(sps->height, c.h);
    EXPECT_DOUBLE_EQ(sps->fps, c.fps);
    if (c.hevc)
      EXPECT_EQ(sps->profile, 1);  // Main
    else
      EXPECT_TRUE(sps->profile == 66 || sps->profile == 77) << sps->profile;
  }
  const std::vector<uint8_t> not_sps = {0, 0, 0, 1, 0x68, 0xEE, 0x3C, 0x80};
  EXPECT_FALSE(parse_sps(not_sps).has_value());
  const std::vector<uint8_t> cut = {0, 0, 0, 1, 0x67, 0x4D};
  EXPECT_FALSE(parse_sps(cut).has_value());
  const std::vector<uint8_t> hevc_cut = {0, 0, 0, 1, 0x42, 0x01, 0x01, 0x01, 0x60};
  EXPECT_FALSE(parse_hevc_sps(hevc_cut).has_value());
}

TEST(Streams, NotH264IsRefused) {
  const std::string text = "this is a text file, not a video stream\n";
  NalReader r(std::make_unique<Trickle>(std::vector<uint8_t>(text.begin(), text.end()), 5));
  EXPECT_THROW(r.next(), InputError);
  NalReader empty(std::make_unique<Trickle>(std::vector<uint8_t>{}, 5));
  EXPECT_FALSE(empty.next().has_value());
}

TEST(Streams, AdtsFramesAndACutTail) {
  const auto stream = read_file(testsupport::aac_stream(16000, 1));
  const auto expected = testsupport::split_adts(stream);
  AdtsReader r(std::make_unique<Trickle>(stream, 100));
  size_t n = 0;
  while (auto f = r.next()) {
    ASSERT_LT(n, expected.size());
    EXPECT_EQ(f->bytes, expected[n]);
    EXPECT_EQ(f->sample_rate, 16000);
    EXPECT_EQ(f->channels, 1);
    EXPECT_EQ(f->profile, 2);  // AAC LC
    ++n;
  }
  EXPECT_EQ(n, expected.size());
  EXPECT_EQ(r.trailing_bytes(), 0u);

  auto cut = stream;
  cut.resize(cut.size() - 5);
  AdtsReader c(std::make_unique<Trickle>(cut, 4096));
  n = 0;
  while (c.next()) ++n;
  EXPECT_EQ(n, expected.size() - 1);
  EXPECT_EQ(c.trailing_bytes(), expected.back().size() - 5);

  AdtsReader bad(std::make_unique<Trickle>(std::vector<uint8_t>(64, 0x41), 64));
  EXPECT_THROW(bad.next(), InputError);
}

TEST(Streams, JpegPictures) {
  const auto stream = read_file(testsupport::mjpeg_stream(320, 240, 10, 1));
  const auto expected = testsupport::split_jpeg(stream);
  JpegReader r(std::make_unique<Trickle>(stream, 1000));
  size_t n = 0;
  while (auto p = r.next()) {
    ASSERT_LT(n, expected.size());
    EXPECT_EQ(p->bytes, expected[n]);
    EXPECT_EQ(p->width, 320);
    EXPECT_EQ(p->height, 240);
    ++n;
  }
  EXPECT_EQ(n, expected.size());
  auto cut = stream;
  cut.resize(cut.size() - expected.back().size() / 2);
  JpegReader c(memory_source(cut));
  n = 0;
  while (c.next()) ++n;
  EXPECT_EQ(n, expected.size() - 1);
  EXPECT_GT(c.trailing_bytes(), 0u);
}

TEST(Streams, PcmBlocks) {
  std::vector<uint8_t> pcm(2304 * 3 + 100, 1);
  PcmReader r(memory_source(pcm), 2304);
  int n = 0;
  while (r.next()) ++n;
  EXPECT_EQ(n, 3);
  EXPECT_EQ(r.trailing_bytes(), 100u);
}

// A stream cut inside its last picture is told apart from a whole one. The
// H.265 decoder notices a cut in the slice header, but not always one in the
// slice data.
TEST(Streams, CutLastPictureIsFound) {
  for (const bool hevc : {false, true}) {
    SCOPED_TRACE(hevc ? "H.265" : "H.264");
    const auto stream = read_file(hevc ? testsupport::hevc_stream(320, 240, 15, 2, 15)
                                       : testsupport::h264_stream(320, 240, 15, 2, 15));
    AccessUnitReader r(memory_source(stream), hevc);
    std::vector<std::vector<uint8_t>> gop;
    while (auto au = r.next()) {
      if (au->idr) gop.clear();
      gop.push_back(au->bytes);
    }
    ASSERT_GT(gop.size(), 3u);
    EXPECT_EQ(last_picture_error(gop, hevc), "");
    const size_t last = gop.back().size();
    const std::vector<size_t> keeps =
        hevc ? std::vector<size_t>{5, 8, 20}
             : std::vector<size_t>{last * 3 / 10, last * 6 / 10, last * 9 / 10};
    for (const size_t keep : keeps) {
      auto cut = gop;
      cut.back().resize(keep);
      EXPECT_NE(last_picture_error(cut, hevc), "") << "kept " << keep;
    }
  }
}

}  // namespace
