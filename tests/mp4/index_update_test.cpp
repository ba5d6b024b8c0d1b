// The in-place index update: node lists built here stand for the batches that
// the writer thread flushes; the data bytes are written by the test.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "front_index_support.h"
#include "mp4/head.h"
#include "support/box_reader.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/sim_card.h"

namespace {

using fitest::audio_batch;
using fitest::HandlePtr;
using fitest::InfoParams;
using fitest::video_batch;
using testsupport::BoxFile;
using Entries = std::vector<std::pair<uint32_t, uint32_t>>;

constexpr const char *kV = "moov/trak[0]/mdia/minf/stbl/";
constexpr const char *kA = "moov/trak[1]/mdia/minf/stbl/";

// A head in a temporary directory, and the writer thread's side of a batch:
// the bytes go to the end of the file, then the index is updated.
struct Recording {
  testsupport::TempDir dir;
  std::string path = dir.file("rec.mp4");
  HandlePtr h;

  explicit Recording(const InfoParams &params = {}, int audio_format = 1, bool hevc = false) {
    auto info = fitest::make_info(params);
    h.reset((hevc ? mp4rec::mp4_write_head_h265_index : mp4_write_head_h264_index)(
        path.c_str(), dir.file("rec.mp2").c_str(), 320, 240, audio_format, info.get()));
  }
  uint32_t data_start() const { return h->mdatPos + 8; }

  // Accepts and writes a batch of `bytes` filler, then updates the index.
  template <typename Node>
  int flush(int track, const fitest::NodeList<Node> &batch) {
    uint32_t bytes = 0;
    for (const auto &n : batch.nodes) bytes += n->size;
    accept(track, batch);
    std::vector<uint8_t> fill(bytes, 0xAB);
    EXPECT_EQ(std::fwrite(fill.data(), 1, fill.size(), h->file), fill.size());
    return mp4_write_moov_update_buffer(track, batch.head(), batch.tail(), h.get(), bytes);
  }
  // What the sample intake counts for a batch.
  template <typename Node>
  void accept(int track, const fitest::NodeList<Node> &batch) {
    for (const auto &n : batch.nodes) {
      h->mediaBytes.fetch_add(n->size);
      (track == 1 ? h->videoCount : h->audioCount).fetch_add(1);
    }
  }
  // The file with its hidden tracks read as tracks.
  BoxFile read() {
    std::fflush(h->file);
    return BoxFile::revealed(path);
  }
};

uint8_t *heap_copy(const std::vector<uint8_t> &v) {
  auto *p = static_cast<uint8_t *>(std::malloc(v.size()));
  std::memcpy(p, v.data(), v.size());
  return p;
}

uint32_t duration_at(const BoxFile &f, const std::string &box, uint32_t plus) {
  return f.u32(f.at(box).offset + plus);
}
struct Durations {
  uint32_t tkhd, elst, mdhd, mvhd;
};
Durations video_durations(const BoxFile &f) {
  return {duration_at(f, "moov/trak[0]/tkhd", 28), duration_at(f, "moov/trak[0]/edts/elst", 16),
          duration_at(f, "moov/trak[0]/mdia/mdhd", 24), duration_at(f, "moov/mvhd", 24)};
}

TEST(IndexUpdate, FirstVideoBatchAndASecondOne) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  const uint32_t d0 = rec.data_start();
  auto first = video_batch({1000, 1040, 1080}, 100, {1, 0, 0});
  ASSERT_EQ(rec.flush(1, first), 0);
  EXPECT_EQ(mp4_ftell(rec.h->file), static_cast<int>(d0 + 300)) << "position restored";
  {
    const BoxFile f = rec.read();
    EXPECT_EQ(f.stts(f.at(std::string(kV) + "stts")), (Entries{{1, 40}, {1, 40}, {1, 50}}));
    const auto d = video_durations(f);
    EXPECT_EQ(d.tkhd, 130u);
    EXPECT_EQ(d.elst, 130u);
    EXPECT_EQ(d.mdhd, 130u);
    EXPECT_EQ(d.mvhd, 130u);
    EXPECT_EQ(f.stss(f.at(std::string(kV) + "stss")), std::vector<uint32_t>{1});
    EXPECT_EQ(f.stsc(f.at(std::string(kV) + "stsc")), (std::vector<BoxFile::Stsc>{{1, 3, 1}}));
    EXPECT_EQ(f.stsz(f.at(std::string(kV) + "stsz")), (std::vector<uint32_t>{100, 100, 100}));
    EXPECT_EQ(f.stco(f.at(std::string(kV) + "stco")), std::vector<uint32_t>{d0});
    EXPECT_EQ(f.u32(rec.h->mdatPos), 308u);  // mediaBytes + 8
  }
  EXPECT_EQ(rec.h->updatePos->firstVideoTs, 1000u);
  EXPECT_EQ(rec.h->updatePos->lastVideoTs, 1080u);

  auto second = video_batch({1120}, 60, {1});
  ASSERT_EQ(rec.flush(1, second), 0);
  const BoxFile f = rec.read();
  EXPECT_EQ(f.stts(f.at(std::string(kV) + "stts")), (Entries{{1, 40}, {1, 40}, {1, 40}, {1, 50}}));
  EXPECT_EQ(video_durations(f).tkhd, 170u);
  EXPECT_EQ(video_durations(f).mvhd, 170u);
  EXPECT_EQ(f.stss(f.at(std::string(kV) + "stss")), (std::vector<uint32_t>{1, 4}));
  EXPECT_EQ(f.stsc(f.at(std::string(kV) + "stsc")),
            (std::vector<BoxFile::Stsc>{{1, 3, 1}, {2, 1, 1}}));
  EXPECT_EQ(f.stco(f.at(std::string(kV) + "stco")), (std::vector<uint32_t>{d0, d0 + 300}));
  EXPECT_EQ(rec.h->updatePos->videoPos[kVChunkOffset], d0 + 300);
  EXPECT_EQ(rec.h->updatePos->dataPos, d0 + 360);
  EXPECT_EQ(f.u32(rec.h->mdatPos), 368u);
  EXPECT_EQ(rec.h->videoSampleNumber, 4u);
}

TEST(IndexUpdate, OneChunkPerBatchInBothModesOfPreallocation) {
  for (int prealloc : {0, 1}) {
    SCOPED_TRACE(prealloc);
    Recording rec({.video_prealloc = prealloc, .audio_prealloc = prealloc});
    ASSERT_TRUE(rec.h);
    const uint32_t d0 = rec.data_start();
    uint32_t ts = 0;
    auto stamps = [&](int n) {
      std::vector<uint32_t> v;
      for (int i = 0; i < n; ++i) v.push_back(ts += 40);
      return v;
    };
    auto b1 = video_batch(stamps(5), 10, {1});
    auto b2 = video_batch(stamps(5), 20, {1});
    auto b3 = video_batch(stamps(3), 30);
    for (auto *b : {&b1, &b2, &b3}) ASSERT_EQ(rec.flush(1, *b), 0);
    const BoxFile f = rec.read();
    EXPECT_EQ(f.stsc(f.at(std::string(kV) + "stsc")),
              (std::vector<BoxFile::Stsc>{{1, 5, 1}, {2, 5, 1}, {3, 3, 1}}));
    EXPECT_EQ(f.stco(f.at(std::string(kV) + "stco")),
              (std::vector<uint32_t>{d0, d0 + 50, d0 + 150}));
    EXPECT_EQ(f.stss(f.at(std::string(kV) + "stss")), (std::vector<uint32_t>{1, 6}));
    EXPECT_EQ(f.entry_count(f.at(std::string(kV) + "stts")), 13u);
    EXPECT_EQ(f.entry_count(f.at(std::string(kV) + "stsz")), 13u);
    EXPECT_EQ(video_durations(f).tkhd, 13 * 40 - 40 + 50u);
  }
}

TEST(IndexUpdate, AudioWithoutTimeStamps) {
  Recording rec({.time_stamps = 0});
  ASSERT_TRUE(rec.h);
  const uint32_t d0 = rec.data_start();
  for (int b = 0; b < 4; ++b) {
    auto batch = audio_batch(std::vector<uint32_t>(25, 0), 48 + b);
    ASSERT_EQ(rec.flush(2, batch), 0);
  }
  const BoxFile f = rec.read();
  EXPECT_EQ(f.stts(f.at(std::string(kA) + "stts")), (Entries{{100, 1152}}));
  EXPECT_EQ(duration_at(f, "moov/trak[1]/tkhd", 28), 7200u);
  EXPECT_EQ(duration_at(f, "moov/trak[1]/mdia/mdhd", 24), 100 * 1152u);  // in samples
  EXPECT_EQ(duration_at(f, "moov/mvhd", 24), 7200u);
  const auto sizes = f.stsz(f.at(std::string(kA) + "stsz"));
  ASSERT_EQ(sizes.size(), 100u);
  EXPECT_EQ(sizes.front(), 48u);
  EXPECT_EQ(sizes.back(), 51u);
  EXPECT_EQ(f.stsc(f.at(std::string(kA) + "stsc")).size(), 4u);
  EXPECT_EQ(f.stco(f.at(std::string(kA) + "stco")),
            (std::vector<uint32_t>{d0, d0 + 1200, d0 + 2425, d0 + 3675}));
}

TEST(IndexUpdate, CountsFollowTheFramesWrittenNotThoseAccepted) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  auto batch = audio_batch({0, 0}, 40);
  rec.h->audioCount.store(5);     // three more frames still wait in the buffer
  rec.h->mediaBytes.store(1000);  // and their bytes
  ASSERT_EQ(rec.flush(2, batch), 0);
  const BoxFile f = rec.read();
  EXPECT_EQ(f.entry_count(f.at(std::string(kA) + "stsz")), 2u);
  EXPECT_EQ(f.stts(f.at(std::string(kA) + "stts")), (Entries{{2, 1152}}));
  EXPECT_EQ(duration_at(f, "moov/trak[1]/tkhd", 28), 2 * 72u);
  EXPECT_EQ(f.u32(rec.h->mdatPos), 8 + 80u);  // the mdat holds what is written
}

TEST(IndexUpdate, EachTrackAppearsWithItsFirstChunk) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  auto types = [&] {
    std::fflush(rec.h->file);
    std::vector<std::string> t;
    const BoxFile raw(rec.path);
    for (const auto &b : raw.at("moov").children) t.push_back(b.type);
    return t;
  };
  auto audio = audio_batch({0, 0}, 40);
  ASSERT_EQ(rec.flush(2, audio), 0);
  EXPECT_EQ(types(), (std::vector<std::string>{"mvhd", "free", "trak", "udta"}));
  auto video = video_batch({0, 40}, 10, {1});
  ASSERT_EQ(rec.flush(1, video), 0);
  EXPECT_EQ(types(), (std::vector<std::string>{"mvhd", "trak", "trak", "udta"}));
  EXPECT_EQ(rec.h->indexState, 0u);
}

TEST(IndexUpdate, TheFileKeepsItsTimeStampModeWhenTheNextHeadIsMade) {
  Recording rec({.time_stamps = 1});
  ASSERT_TRUE(rec.h);
  Recording next({.time_stamps = 0});  // the pre-open thread's next file
  ASSERT_TRUE(next.h);
  ASSERT_EQ(audioTimeStampFlag.load(), 0);
  auto batch = audio_batch({500, 564});
  ASSERT_EQ(rec.flush(2, batch), 0);
  const BoxFile f = rec.read();
  EXPECT_EQ(f.stts(f.at(std::string(kA) + "stts")), (Entries{{1, 1024}, {1, 800}}));
}

TEST(IndexUpdate, TimeStampedAudioInSampleUnits) {
  Recording rec({.time_stamps = 1}, 3);
  ASSERT_TRUE(rec.h);
  auto first = audio_batch({500, 564, 628});
  ASSERT_EQ(rec.flush(2, first), 0);
  auto second = audio_batch({692});
  ASSERT_EQ(rec.flush(2, second), 0);
  const BoxFile f = rec.read();
  // 64 ms at 16000 Hz are 1024 samples; the newest frame gets 50 ms (800).
  EXPECT_EQ(f.stts(f.at(std::string(kA) + "stts")),
            (Entries{{1, 1024}, {1, 1024}, {1, 1024}, {1, 800}}));
  EXPECT_EQ(duration_at(f, "moov/trak[1]/tkhd", 28), 692 - 500 + 50u);
  // The media duration is the sum of the stts deltas, in samples.
  EXPECT_EQ(duration_at(f, "moov/trak[1]/mdia/mdhd", 24), 3 * 1024 + 800u);
  EXPECT_EQ(duration_at(f, "moov/mvhd", 24), 692 - 500 + 50u);
}

TEST(IndexUpdate, BackwardTimeStampGivesAHugeUnsignedDelta) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  auto batch = video_batch({2000, 1990}, 10);
  ASSERT_EQ(rec.flush(1, batch), 0);
  const BoxFile f = rec.read();
  EXPECT_EQ(f.stts(f.at(std::string(kV) + "stts")), (Entries{{1, 0xFFFFFFF6u}, {1, 50}}));
}

TEST(IndexUpdate, MovieDurationIsTheLongerTrack) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  auto video = video_batch({0, 40}, 10);
  ASSERT_EQ(rec.flush(1, video), 0);
  auto audio = audio_batch(std::vector<uint32_t>(3, 0));
  ASSERT_EQ(rec.flush(2, audio), 0);  // 3 x 72 ms
  EXPECT_EQ(rec.h->maxDuration, 216u);
  auto more = video_batch({80}, 10);
  ASSERT_EQ(rec.flush(1, more), 0);  // video 130 ms: shorter, mvhd keeps 216
  const BoxFile f = rec.read();
  EXPECT_EQ(duration_at(f, "moov/mvhd", 24), 216u);
  EXPECT_EQ(video_durations(f).tkhd, 130u);
  // Video and audio chunks interleave in the order of the calls.
  const uint32_t d0 = rec.data_start();
  EXPECT_EQ(f.stco(f.at(std::string(kV) + "stco")), (std::vector<uint32_t>{d0, d0 + 170}));
  EXPECT_EQ(f.stco(f.at(std::string(kA) + "stco")), std::vector<uint32_t>{d0 + 20});
}

TEST(IndexUpdate, DecoderConfigurationIsWrittenOnceWhenSpsAndPpsAreKnown) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  const std::string avcc = std::string(kV) + "stsd/avc1/avcC";
  auto early = video_batch({0}, 10);
  ASSERT_EQ(rec.flush(1, early), 0);
  EXPECT_EQ(rec.read().at(avcc).size, 15u) << "no SPS/PPS yet";

  const std::vector<uint8_t> sps = {0x67, 0x4D, 0x40, 0x1F, 0xE8, 0x80}, pps = {0x68, 0xEE, 0x3C};
  rec.h->sps = heap_copy(sps);
  rec.h->spsLen = static_cast<uint32_t>(sps.size());
  auto audio = audio_batch({0});
  ASSERT_EQ(rec.flush(2, audio), 0);
  EXPECT_EQ(rec.read().at(avcc).size, 15u) << "no PPS yet, and audio never writes it";

  rec.h->pps = heap_copy(pps);
  rec.h->ppsLen = static_cast<uint32_t>(pps.size());
  auto next = video_batch({40}, 10);
  ASSERT_EQ(rec.flush(1, next), 0);
  BoxFile f = rec.read();
  const auto &box = f.at(avcc);
  EXPECT_EQ(f.tree(std::string(kV) + "stsd/avc1"), "avc1 606\n  avcC 28\n  free 492\n");
  std::vector<uint8_t> expect = {0x01, 0x4D, 0x40, 0x1F, 0xFF, 0xE1, 0x00, 0x06};
  expect.insert(expect.end(), sps.begin(), sps.end());
  expect.insert(expect.end(), {0x01, 0x00, 0x03});
  expect.insert(expect.end(), pps.begin(), pps.end());
  EXPECT_EQ(f.slice(box.offset + 8, expect.size()), expect);
  EXPECT_EQ(rec.h->updatePos->videoPos[kVAvcCDataEnd], box.offset + box.size);

  // A later SPS is not written: the first configuration stays.
  rec.h->sps[3] = 0x28;
  auto later = video_batch({80}, 10);
  ASSERT_EQ(rec.flush(1, later), 0);
  f = rec.read();
  EXPECT_EQ(f.slice(f.at(avcc).offset + 8, expect.size()), expect);
}

// The hvcC of a known VPS, SPS and PPS, field by field; written once all three
// are known, over the room reserved for it.
TEST(IndexUpdate, HevcConfigurationOfAKnownStream) {
  Recording rec({}, 1, true);
  ASSERT_TRUE(rec.h);
  const std::string entry = std::string(kV) + "stsd/hvc1";
  EXPECT_EQ(rec.read().tree(entry), "hvc1 606\n  hvcC 31\n  free 489\n");
  mp4rec::extra(rec.h.get()).vps = heap_copy(fitest::kHevcVps);
  mp4rec::extra(rec.h.get()).vpsLen = static_cast<uint32_t>(fitest::kHevcVps.size());
  rec.h->sps = heap_copy(fitest::kHevcSps);
  rec.h->spsLen = static_cast<uint32_t>(fitest::kHevcSps.size());
  auto early = video_batch({0}, 10);
  ASSERT_EQ(rec.flush(1, early), 0);
  EXPECT_EQ(rec.read().tree(entry), "hvc1 606\n  hvcC 31\n  free 489\n") << "no PPS yet";

  rec.h->pps = heap_copy(fitest::kHevcPps);
  rec.h->ppsLen = static_cast<uint32_t>(fitest::kHevcPps.size());
  auto next = video_batch({40}, 10);
  ASSERT_EQ(rec.flush(1, next), 0);
  const BoxFile f = rec.read();
  EXPECT_EQ(f.tree(entry), "hvc1 606\n  hvcC 116\n  free 404\n");
  std::vector<uint8_t> expect = {
      0x01,                                // configurationVersion
      0x24,                                // profile space 0, high tier, profile 4 (RExt)
      0x08, 0x00, 0x00, 0x00,              // compatible with profile 4
      0x9D, 0x08, 0x00, 0x00, 0x00, 0x00,  // constraint flags (the SPS's, unescaped)
      0x99,                                // level 5.1
      0xF0, 0x00,                          // min_spatial_segmentation_idc 0
      0xFC,                                // parallelismType 0
      0xFE,                                // chroma 4:2:2
      0xFA, 0xFA,                          // 10-bit luma and chroma
      0x00, 0x00,                          // avgFrameRate unspecified
      0x0F,                                // one temporal layer, nested; 4-byte lengths
      0x03,                                // three arrays
  };
  for (const auto *set : {&fitest::kHevcVps, &fitest::kHevcSps, &fitest::kHevcPps}) {
    // complete, of the set's type; one unit; its length; the unit
    expect.insert(expect.end(), {static_cast<uint8_t>(0x80 | (*set)[0] >> 1), 0x00, 0x01, 0x00,
                                 static_cast<uint8_t>(set->size())});
    expect.insert(expect.end(), set->begin(), set->end());
  }
  EXPECT_EQ(f.slice(f.at(entry + "/hvcC").offset + 8, expect.size()), expect);
}

// Whatever room the parameter sets leave of the bytes reserved for them, the
// sample entry parses at every moment of the update, as the empty
// configuration with its free box or as the written one: the rest of the
// reserve is a free box, or zero padding inside avcC when fewer than 8 bytes
// are left. The same for hvcC, whose empty record is longer.
TEST(IndexUpdate, TheRoomBehindTheDecoderConfigurationParsesAfterEveryWrite) {
  struct Case {
    bool hevc;
    uint32_t left;  // of the 512 bytes, behind the record
    std::string written;
  };
  const Case cases[] = {{false, 9, "avc1 606\n  avcC 511\n  free 9\n"},
                        {false, 8, "avc1 606\n  avcC 512\n  free 8\n"},
                        {false, 7, "avc1 606\n  avcC 520\n"},
                        {false, 1, "avc1 606\n  avcC 520\n"},
                        {false, 0, "avc1 606\n  avcC 520\n"},
                        {true, 9, "hvc1 606\n  hvcC 511\n  free 9\n"},
                        {true, 0, "hvc1 606\n  hvcC 520\n"}};
  for (const auto &c : cases) {
    SCOPED_TRACE(c.left);
    testsupport::SimCard card;
    Recording rec({}, 1, c.hevc);
    ASSERT_TRUE(rec.h);
    const std::string entry = std::string(kV) + (c.hevc ? "stsd/hvc1" : "stsd/avc1");
    const std::string empty =
        c.hevc ? "hvc1 606\n  hvcC 31\n  free 489\n" : "avc1 606\n  avcC 15\n  free 505\n";
    if (c.hevc) {
      // The record is 38 bytes, SPS and PPS, and the VPS.
      const uint32_t sps = static_cast<uint32_t>(fitest::kHevcSps.size());
      const uint32_t pps = static_cast<uint32_t>(fitest::kHevcPps.size());
      std::vector<uint8_t> vps(mp4rec::kAvcCReserve - c.left - 38 - sps - pps, 0);
      vps[0] = 0x40;
      mp4rec::extra(rec.h.get()).vps = heap_copy(vps);
      mp4rec::extra(rec.h.get()).vpsLen = static_cast<uint32_t>(vps.size());
      rec.h->sps = heap_copy(fitest::kHevcSps);
      rec.h->spsLen = sps;
      rec.h->pps = heap_copy(fitest::kHevcPps);
      rec.h->ppsLen = pps;
    } else {
      const std::vector<uint8_t> pps = {0x68, 0xEE, 0x3C};
      // The record is 14 bytes and the SPS.
      std::vector<uint8_t> sps(mp4rec::kAvcCReserve - c.left - 14, 0);
      sps[0] = 0x67;
      rec.h->sps = heap_copy(sps);
      rec.h->spsLen = static_cast<uint32_t>(sps.size());
      rec.h->pps = heap_copy(pps);
      rec.h->ppsLen = static_cast<uint32_t>(pps.size());
    }
    std::fflush(rec.h->file);
    const size_t before = card.log(rec.path).size();
    auto batch = video_batch({0}, 10);
    ASSERT_EQ(rec.flush(1, batch), 0);
    std::fflush(rec.h->file);
    const auto log = card.log(rec.path);
    for (size_t n = before; n <= log.size(); ++n) {
      const std::string tree = BoxFile::revealed(testsupport::replay(log, n)).tree(entry);
      EXPECT_TRUE(tree == empty || tree == c.written) << "after write " << n << ":\n" << tree;
    }
    EXPECT_EQ(rec.read().tree(entry), c.written);
  }
}

TEST(IndexUpdate, OversizedParameterSetsAreRefusedWithoutOverwritingTheTables) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  rec.h->sps = static_cast<uint8_t *>(std::calloc(400, 1));
  rec.h->spsLen = 400;
  rec.h->pps = static_cast<uint8_t *>(std::calloc(150, 1));
  rec.h->ppsLen = 150;
  testsupport::LogCapture log;
  auto batch = video_batch({0, 40}, 10);
  EXPECT_NE(rec.flush(1, batch), 0);
  EXPECT_TRUE(log.has("mp4 write index : write video stsd error\n", 3, 37)) << log.dump();
  auto again = video_batch({80}, 10);
  EXPECT_NE(rec.flush(1, again), 0);  // refused again, said once per file
  EXPECT_EQ(log.count("mp4 write index : sps and pps do not fit the reserved avcC\n"), 1);
  const BoxFile f = rec.read();
  EXPECT_EQ(f.at(std::string(kV) + "stsd/avc1/avcC").size, 15u);
  EXPECT_EQ(f.stts(f.at(std::string(kV) + "stts")), (Entries{{1, 40}, {1, 40}, {1, 50}}));
}

TEST(IndexUpdate, OtherTracksPatchOnlyMdatAndMvhd) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  auto batch = video_batch({0}, 10);
  rec.h->mediaBytes.store(1234);
  EXPECT_EQ(mp4_write_moov_update_buffer(3, batch.head(), batch.tail(), rec.h.get(), 10), 0);
  const BoxFile f = rec.read();
  EXPECT_EQ(f.u32(rec.h->mdatPos), 1242u);
  EXPECT_EQ(duration_at(f, "moov/mvhd", 24), 0u);  // maxDuration so far
  EXPECT_EQ(f.entry_count(f.at(std::string(kV) + "stts")), 0u);
}

TEST(IndexUpdate, BadArgumentsAreRefusedWithTheirMessages) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  auto batch = video_batch({0}, 10);
  struct Case {
    const char *message;
    void *head, *tail;
    mp4_handle *handle;
  };
  const Case cases[] = {
      {"mp4 write index : mov == NULL\n", batch.head(), batch.tail(), nullptr},
      {"mp4 write index : param error\n", nullptr, batch.tail(), rec.h.get()},
      {"mp4 write index : param error\n", batch.head(), nullptr, rec.h.get()},
  };
  for (const auto &c : cases) {
    testsupport::LogCapture log;
    EXPECT_EQ(mp4_write_moov_update_buffer(1, c.head, c.tail, c.handle, 10), -1);
    const auto e = log.find(c.message);
    EXPECT_EQ(e.text, c.message) << log.dump();
    EXPECT_EQ(e.function, "mp4_write_moov_update_buffer");
    EXPECT_EQ(e.level, 3);
    EXPECT_EQ(e.module, 37);
  }
  uint32_t *audio_table = rec.h->updatePos->audioPos;
  rec.h->updatePos->audioPos = nullptr;
  testsupport::LogCapture log;
  EXPECT_EQ(mp4_write_moov_update_buffer(1, batch.head(), batch.tail(), rec.h.get(), 10), -1);
  EXPECT_TRUE(log.has("mp4 write index : param error\n"));
  rec.h->updatePos->audioPos = audio_table;
}

TEST(IndexUpdate, FailedWritesLogEveryStepAndCarryOn) {
  Recording rec;
  ASSERT_TRUE(rec.h);
  // The file can be positioned but not written.
  std::fclose(rec.h->file);
  rec.h->file = std::fopen(rec.path.c_str(), "rb");
  ASSERT_NE(rec.h->file, nullptr);
  std::fseek(rec.h->file, 0, SEEK_END);
  auto batch = video_batch({0, 40}, 10);
  rec.accept(1, batch);
  testsupport::LogCapture log;
  EXPECT_NE(mp4_write_moov_update_buffer(1, batch.head(), batch.tail(), rec.h.get(), 20), 0);
  std::vector<std::string> texts;
  for (const auto &e : log.entries()) texts.push_back(e.text);
  // Each step logs once, in the order of the writes: the durations, then
  // each table's count once its entries are in. The decoder configuration
  // comes first and writes nothing without SPS and PPS, so it does not fail.
  const std::vector<std::string> expect = {
      "mp4 write index : write video thkd error\n", "mp4 write index : write video edts error\n",
      "mp4 write index : write video mdhd error\n", "mp4 write index : write video stts error\n",
      "mp4 write index : write video stsz error\n", "mp4 write index : write video stco error\n",
      "mp4 write index : write video stss error\n", "mp4 write index : write video stsc error\n"};
  EXPECT_EQ(texts, expect);
  // The steps still moved on: the batch counts as entered.
  EXPECT_EQ(rec.h->videoSampleNumber, 2u);
  EXPECT_EQ(rec.h->updatePos->dataPos, rec.data_start() + 20);

  auto audio = audio_batch({0});
  testsupport::LogCapture audio_log;
  EXPECT_NE(mp4_write_moov_update_buffer(2, audio.head(), audio.tail(), rec.h.get(), 50), 0);
  EXPECT_EQ(audio_log.entries().size(), 6u) << audio_log.dump();
  EXPECT_TRUE(audio_log.has("mp4 write index : write audio thkd error\n"));
  EXPECT_TRUE(audio_log.has("mp4 write index : write audio stco error\n"));
}

}  // namespace
