// The front-index file head: box tree, sizes, recorded positions, both
// preallocation modes, and the failures of head creation.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <ctime>
#include <string>

#include "front_index_support.h"
#include "mp4/box.h"
#include "mp4/head.h"
#include "support/box_reader.h"
#include "support/log_capture.h"
#include "support/media.h"

namespace {

using fitest::HandlePtr;
using fitest::InfoParams;
using testsupport::BoxFile;

constexpr const char *kV = "moov/trak[0]/mdia/minf/stbl/";
constexpr const char *kA = "moov/trak[1]/mdia/minf/stbl/";

std::string vbox(const std::string &b) {
  return kV + b;
}
std::string abox(const std::string &b) {
  return kA + b;
}

struct Head {
  testsupport::TempDir dir;
  std::string path = dir.file("rec.mp4");
  HandlePtr h;
  uint32_t nv = 0, na = 0;

  Head(int audio_format, const InfoParams &params, int width = 640, int height = 480) {
    auto info = fitest::make_info(params);
    h.reset(mp4_write_head_h264_index(path.c_str(), dir.file("rec.mp2").c_str(), width, height,
                                      audio_format, info.get()));
    if (h) {
      nv = h->maxVideoFrames;
      na = h->maxAudioFrames;
    }
  }
  // Closes the file and reads it, its hidden tracks as tracks.
  BoxFile close() {
    h.reset();
    return BoxFile::revealed(path);
  }
};

TEST(Head, MoovSizeFollowsTheFormulaForEveryAudioFormatAndMode) {
  for (int format : {1, 2, 3}) {
    for (int stamps : {0, 1}) {
      for (int prealloc : {0, 1}) {
        SCOPED_TRACE("format " + std::to_string(format) + " stamps " + std::to_string(stamps) +
                     " prealloc " + std::to_string(prealloc));
        Head head(format, {.seconds = 10,
                           .fps = 25,
                           .time_stamps = stamps,
                           .video_prealloc = prealloc,
                           .audio_prealloc = prealloc});
        ASSERT_TRUE(head.h);
        const uint32_t nv = 12 * 25, na = 12 * 15;
        ASSERT_EQ(head.nv, nv);
        ASSERT_EQ(head.na, na);
        const uint32_t s = format == 3 ? 91 : 87;
        const uint32_t n = stamps ? na : 1;
        const uint32_t moov = 1577 + s + 32 * nv + 8 * n + 20 * na;
        EXPECT_EQ(head.h->writeStatus, 0);
        EXPECT_EQ(head.h->mdatPos, 40 + moov);
        EXPECT_EQ(head.h->updatePos->dataPos, 48 + moov);
        EXPECT_EQ(head.h->updatePos->videoPos[kVChunkOffset], 48 + moov);
        EXPECT_EQ(mp4_ftell(head.h->file), static_cast<int>(48 + moov));  // first sample byte

        const BoxFile f = head.close();
        ASSERT_EQ(f.bytes().size(), 48u + moov);
        ASSERT_EQ(f.top().size(), 4u) << f.dump();
        EXPECT_EQ(f.top()[0].type, "ftyp");
        EXPECT_EQ(f.top()[0].size, 32u);
        EXPECT_EQ(f.at("moov").offset, 32u);
        EXPECT_EQ(f.at("moov").size, moov);
        EXPECT_EQ(f.top()[2].type, "free");
        EXPECT_EQ(f.top()[2].size, 8u);
        EXPECT_EQ(f.top()[3].type, "mdat");
        EXPECT_EQ(f.u32(40 + moov), 0u);  // mdat size 0 until the first update
        EXPECT_EQ(f.at(abox("stsd")).size, 16 + 36 + mp4rec::box::esds_audio_size(format));
        EXPECT_EQ(f.at(abox("stts")).size, 16 + 8 * n);
      }
    }
  }
}

TEST(Head, ReservedMoovAtTheDefaults) {
  struct Case {
    int format, stamps;
    uint32_t moov;
  };
  for (const Case c : {Case{1, 0, 2774932}, Case{2, 1, 3039044}}) {
    Head head(c.format, {.seconds = 2000, .fps = 30, .rate = 16000, .time_stamps = c.stamps});
    ASSERT_TRUE(head.h);
    EXPECT_EQ(head.nv, 66030u);
    EXPECT_EQ(head.na, 33015u);
    EXPECT_EQ(mp4rec::reserved_moov_size(c.format, c.stamps == 1, 66030, 33015), c.moov);
    const BoxFile f = head.close();
    EXPECT_EQ(f.at("moov").size, c.moov);
    EXPECT_EQ(f.bytes().size(), 48u + c.moov);
  }
}

TEST(Head, FieldValuesOfAnEmptyFile) {
  const uint32_t before = static_cast<uint32_t>(std::time(nullptr)) + mp4rec::kMp4EpochOffset;
  Head head(3, {.seconds = 10, .fps = 25, .time_stamps = 1}, 1280, 720);
  ASSERT_TRUE(head.h);
  const uint32_t created = head.h->creationTime;
  EXPECT_GE(created, before);
  EXPECT_LE(created, before + 5);
  EXPECT_EQ(head.h->audioFrameSamples, 1024u);
  const uint32_t nv = head.nv, na = head.na;
  const BoxFile f = head.close();

  EXPECT_EQ(f.u32(f.at("moov/mvhd").offset + 12), created);
  // No chunk and no sample declared yet: every count is 0 but the audio stts
  // count, which counts its reserved entries (whose sample counts are 0). The
  // room for SPS and PPS: a configuration without parameter sets, and a free
  // box over the rest.
  EXPECT_EQ(f.fields("moov"), R"(moov 16308
  mvhd 108 scale=1000 duration=64 next=3
  trak 10609
    tkhd 92 id=1 duration=50 volume=0 size=1280x720 fixed
    edts 36
      elst 28 duration=50 media=0
    mdia 10473
      mdhd 32 scale=1000 duration=0 lang=21956
      hdlr 55 vide
      minf 10378
        vmhd 20
        dinf 36
          dref 28
            url  12
        stbl 10314
          stsd 622
            avc1 606 1280x720
              avcC 15
              free 505
          stts 2416 n=0
          stss 1216 n=0
          stsc 3616 n=0
          stsz 1220 n=0
          stco 1216 n=0
  trak 5462
    tkhd 92 id=2 duration=64 volume=256 size=0x0
    mdia 5362
      mdhd 32 scale=16000 duration=0 lang=21956
      hdlr 55 soun
      minf 5267
        smhd 16
        dinf 36
          dref 28
            url  12
        stbl 5207
          stsd 91
            mp4a 75 rate=16000
              esds 39
          stts 1456 n=180: 0x1024 0x1024 0x1024 0x1024 0x1024 0x1024 0x1024 ... 0x1024
          stsc 2176 n=0
          stsz 740 n=0
          stco 736 n=0
  udta 121
    meta 113
      hdlr 33 mdir
      ilst 68
)"
                              "        \xA9too 60\n"
                              R"(          data 52
)");
  EXPECT_EQ(na, 180u);
  EXPECT_EQ(f.slice(f.at(vbox("stsd/avc1/avcC")).offset + 8, 7),
            (std::vector<uint8_t>{0x01, 0x4D, 0x40, 0x1F, 0xFF, 0xE0, 0x00}));

  // Both tracks are hidden until their first chunk: readers see a file
  // without streams, not tracks whose empty tables they refuse.
  std::vector<std::string> children;
  const BoxFile raw(head.path);
  for (const auto &b : raw.at("moov").children) children.push_back(b.type);
  EXPECT_EQ(children, (std::vector<std::string>{"mvhd", "free", "free", "udta"}));

  const auto &stsc = f.at(vbox("stsc"));
  EXPECT_EQ(stsc.size, 16u + 12 * nv);
  for (uint32_t i = 0; i < nv; ++i) {
    EXPECT_EQ(f.u32(stsc.offset + 16 + 12 * i), 1u);
    EXPECT_EQ(f.u32(stsc.offset + 24 + 12 * i), 1u);
  }
}

// SOURCE_DATE_EPOCH fixes the creation time (reproducible recordings). What
// the 32-bit field cannot hold is clamped and logged, never wrapped round; a
// value that is no number is logged and the clock used.
TEST(Head, CreationTimeFromSourceDateEpoch) {
  const uint32_t now = static_cast<uint32_t>(std::time(nullptr)) + mp4rec::kMp4EpochOffset;
  const struct {
    const char *value;
    uint32_t min, max;
    bool logged;
  } cases[] = {
      {"1700000000", 3782844800u, 3782844800u, false},
      {"2300000000", UINT32_MAX, UINT32_MAX, true},  // 2042-11-19
      {"yesterday", now, now + 5, true},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.value);
    ::setenv("SOURCE_DATE_EPOCH", c.value, 1);
    testsupport::LogCapture log;
    const uint32_t t = mp4rec::creation_time(mp4rec::kMp4EpochOffset);
    EXPECT_GE(t, c.min);
    EXPECT_LE(t, c.max);
    EXPECT_EQ(!log.entries().empty(), c.logged) << log.dump();
  }
  ::unsetenv("SOURCE_DATE_EPOCH");
}

TEST(Head, EveryPositionSlotPointsAtItsBoxOrField) {
  Head head(1, {.seconds = 3, .fps = 10, .time_stamps = 1});
  ASSERT_TRUE(head.h);
  updatePos pos = *head.h->updatePos;
  std::vector<uint32_t> v(pos.videoPos, pos.videoPos + kVideoPosSlots);
  std::vector<uint32_t> a(pos.audioPos, pos.audioPos + kAudioPosSlots);
  const uint32_t data = pos.dataPos;
  const BoxFile f = head.close();
  auto off = [&](const std::string &path, uint32_t plus = 0) {
    return static_cast<uint32_t>(f.at(path).offset + plus);
  };

  EXPECT_EQ(pos.moovPos, 32u);
  EXPECT_EQ(pos.mvhdPos, off("moov/mvhd"));
  EXPECT_EQ(pos.mvhdDurationPos, off("moov/mvhd", 24));
  EXPECT_EQ(pos.firstVideoTs, kUnknownTs);
  EXPECT_EQ(pos.firstAudioTs, kUnknownTs);
  EXPECT_EQ(pos.lastVideoTs, kUnknownTs);
  EXPECT_EQ(pos.lastAudioTs, kUnknownTs);

  const std::string vt = "moov/trak[0]", at = "moov/trak[1]";
  struct Slot {
    int slot;
    uint32_t expect;
  };
  const Slot video[] = {
      {kVChunkCounter, 0},
      {kVTrak, off(vt)},
      {kVTkhd, off(vt + "/tkhd")},
      {kVTkhdDuration, off(vt + "/tkhd", 28)},
      {kVEdts, off(vt + "/edts")},
      {kVElstDuration, off(vt + "/edts/elst", 16)},
      {kVMdia, off(vt + "/mdia")},
      {kVMdhd, off(vt + "/mdia/mdhd")},
      {kVMdhdDuration, off(vt + "/mdia/mdhd", 24)},
      {kVHdlr, off(vt + "/mdia/hdlr")},
      {kVMinf, off(vt + "/mdia/minf")},
      {kVVmhd, off(vt + "/mdia/minf/vmhd")},
      {kVDinf, off(vt + "/mdia/minf/dinf")},
      {kVDref, off(vt + "/mdia/minf/dinf/dref")},
      {kVDrefCount, off(vt + "/mdia/minf/dinf/dref", 12)},
      {kVStbl, off(vt + "/mdia/minf/stbl")},
      {kVStsd, off(vbox("stsd"))},
      {kVStsdCount, off(vbox("stsd"), 12)},
      {kVAvc1, off(vbox("stsd/avc1"))},
      {kVAvcC, off(vbox("stsd/avc1/avcC"))},
      {kVAvcCDataPos, off(vbox("stsd/avc1/avcC"), 8)},
      {kVAvcCDataEnd, off(vbox("stsd/avc1/avcC"), 8)},
      {kVSttsStssStart, off(vbox("stss"))},
      {kVSttsCount, off(vbox("stts"), 12)},
      {kVSttsNext, off(vbox("stts"), 16)},
      {kVStssCount, off(vbox("stss"), 12)},
      {kVStssNext, off(vbox("stss"), 16)},
      {kVStscStart, off(vbox("stsc"))},
      {kVStscCount, off(vbox("stsc"), 12)},
      {kVStscNext, off(vbox("stsc"), 16)},
      {kVStszCount, off(vbox("stsz"), 16)},
      {kVStszNext, off(vbox("stsz"), 20)},
      {kVStcoStart, off(vbox("stco"))},
      {kVStcoCount, off(vbox("stco"), 12)},
      {kVStcoNext, off(vbox("stco"), 16)},
      {kVChunkOffset, data},
  };
  for (const auto &s : video) EXPECT_EQ(v[s.slot], s.expect) << "video slot " << s.slot;

  const Slot audio[] = {
      {kATrak, off(at)},
      {kAChunkCounter, 0},
      {kATkhd, off(at + "/tkhd")},
      {kATkhdDuration, off(at + "/tkhd", 28)},
      {kAMdia, off(at + "/mdia")},
      {kAMdhd, off(at + "/mdia/mdhd")},
      {kAMdhdDuration, off(at + "/mdia/mdhd", 24)},
      {kAHdlr, off(at + "/mdia/hdlr")},
      {kAMinf, off(at + "/mdia/minf")},
      {kADinf, off(at + "/mdia/minf/dinf")},
      {kADref, off(at + "/mdia/minf/dinf/dref")},
      {kADrefCount, off(at + "/mdia/minf/dinf/dref", 12)},
      {kAStbl, off(at + "/mdia/minf/stbl")},
      {kAStsd, off(abox("stsd"))},
      {kAStsdCount, off(abox("stsd"), 12)},
      {kAMp4a, off(abox("stsd/mp4a"))},
      {kASttsStart, off(abox("stts"))},
      {kASttsCount, off(abox("stts"), 12)},
      {kASttsNext, off(abox("stts"), 16)},
      {kAStscStart, off(abox("stsc"))},
      {kAStscCount, off(abox("stsc"), 12)},
      {kAStscNext, off(abox("stsc"), 16)},
      {kAStszStart, off(abox("stsz"))},
      {kAStszCount, off(abox("stsz"), 16)},
      {kAStszNext, off(abox("stsz"), 20)},
      {kAStcoStart, off(abox("stco"))},
      {kAStcoCount, off(abox("stco"), 12)},
      {kAStcoNext, off(abox("stco"), 16)},
  };
  for (const auto &s : audio) EXPECT_EQ(a[s.slot], s.expect) << "audio slot " << s.slot;
}

// Creation times differ between two heads made a second apart.
std::vector<uint8_t> without_times(const BoxFile &f) {
  std::vector<uint8_t> b = f.bytes();
  for (const char *p : {"moov/mvhd", "moov/trak[0]/tkhd", "moov/trak[1]/tkhd",
                        "moov/trak[0]/mdia/mdhd", "moov/trak[1]/mdia/mdhd"}) {
    std::fill_n(b.begin() + static_cast<long>(f.at(p).offset + 12), 8, 0);
  }
  return b;
}

TEST(Head, PreallocationChangesOnlyTheSttsEntries) {
  for (int stamps : {0, 1}) {
    SCOPED_TRACE(stamps);
    const InfoParams params{.seconds = 5, .fps = 30, .time_stamps = stamps};
    InfoParams holes = params;
    holes.video_prealloc = holes.audio_prealloc = 1;
    Head full(2, params), hole(2, holes);
    ASSERT_TRUE(full.h && hole.h);
    const uint32_t nv = full.nv, na = full.na, n = stamps ? na : 1;
    const BoxFile ff = full.close(), hf = hole.close();
    const auto fb = without_times(ff), hb = without_times(hf);
    ASSERT_EQ(fb.size(), hb.size());

    const uint64_t vs = ff.at(vbox("stts")).offset + 16, as = ff.at(abox("stts")).offset + 16;
    for (size_t i = 0; i < fb.size(); ++i) {
      const bool in_stts = (i >= vs && i < vs + 8 * nv) || (i >= as && i < as + 8 * n);
      if (!in_stts) {
        ASSERT_EQ(fb[i], hb[i]) << "byte " << i;
      }
    }
    // Full: (1, 0) per video entry, (0, 1152) per audio entry. Holes: zeros
    // and a last (1, 0).
    for (uint32_t i = 0; i < nv; ++i) {
      EXPECT_EQ(ff.u32(vs + 8 * i), 1u);
      EXPECT_EQ(ff.u32(vs + 8 * i + 4), 0u);
      EXPECT_EQ(hf.u32(vs + 8 * i), i + 1 == nv ? 1u : 0u);
    }
    for (uint32_t i = 0; i < n; ++i) {
      EXPECT_EQ(ff.u32(as + 8 * i), 0u);
      EXPECT_EQ(ff.u32(as + 8 * i + 4), 1152u);
      EXPECT_EQ(hf.u32(as + 8 * i), i + 1 == n ? 1u : 0u);
      EXPECT_EQ(hf.u32(as + 8 * i + 4), 0u);
    }
  }
}

TEST(Head, FlagsCapacitiesAndPlannedLengthFromTheStreamInfo) {
  testsupport::TempDir dir;
  auto info = fitest::make_info({.seconds = 0,
                                 .fps = 30,
                                 .rate = 22050,
                                 .time_stamps = 1,
                                 .video_prealloc = 1,
                                 .audio_prealloc = 2});
  info->movie_time_scale = 600;
  HandlePtr h(mp4_write_head_h264_index(dir.file("a.mp4").c_str(), dir.file("a.mp2").c_str(), 320,
                                        240, 2, info.get()));
  ASSERT_TRUE(h);
  EXPECT_EQ(info->record_duration, 600u);  // 0 means 600, written back
  EXPECT_EQ(h->maxVideoFrames, 661u * 30);
  EXPECT_EQ(h->maxAudioFrames, 661u * 21);
  EXPECT_EQ(videoPreallocFlag.load(), 1);
  EXPECT_EQ(audioPreallocFlag.load(), 0);  // only 1 means yes
  EXPECT_EQ(audioTimeStampFlag.load(), 1);
  EXPECT_EQ(h->movieTimeScale, 600u);
  EXPECT_EQ(h->sampleRate, 22050u);
  EXPECT_EQ(h->width, 320u);
  EXPECT_EQ(h->audioFormat, 2u);
  EXPECT_EQ(h->audioFrameSamples, 1152u);
  EXPECT_EQ(h->durationPad, 50u);
  EXPECT_EQ(h->moovEnable, 1u);
  EXPECT_EQ(h->audioKHz, 16u);
  EXPECT_EQ(h->videoTimeScale, 1000u);
  EXPECT_NE(h->mp2File, nullptr);
  EXPECT_NE(h->mp2Encoder, nullptr);

  // The next head's stream info wins.
  auto plain = fitest::make_info({.seconds = 1});
  HandlePtr h2(mp4_write_head_h264_index(dir.file("b.mp4").c_str(), dir.file("b.mp2").c_str(), 2, 2,
                                         1, plain.get()));
  ASSERT_TRUE(h2);
  EXPECT_EQ(videoPreallocFlag.load(), 0);
  EXPECT_EQ(audioTimeStampFlag.load(), 0);
}

TEST(Head, FailuresLogReleaseAndLeaveNoOpenFile) {
  testsupport::TempDir dir;
  const std::string mp4 = dir.file("f.mp4"), mp2 = dir.file("f.mp2");
  const std::string missing = dir.file("no/such/dir/f.mp4");
  struct Case {
    const char *message;
    const char *mp4_path;
    const char *mp2_path;
    int width, height, format;
    uint32_t seconds;
    bool null_info = false;
  };
  const Case cases[] = {
      {"mp4 open write head : param error\n", mp4.c_str(), mp2.c_str(), 640, 480, 1, 10, true},
      {"mp4 open write head : file path error\n", nullptr, mp2.c_str(), 640, 480, 1, 10},
      {"mp4 open write head : file path error\n", mp4.c_str(), nullptr, 640, 480, 1, 10},
      {"mp4 open write head : audio format error\n", mp4.c_str(), mp2.c_str(), 640, 480, 4, 10},
      {"mp4 open write head : audio format error\n", mp4.c_str(), mp2.c_str(), 640, 480, 0, 10},
      {"mp4 open write head : video width or height error\n", mp4.c_str(), mp2.c_str(), 0, 480, 1,
       10},
      {"mp4 open write head : video width or height error\n", mp4.c_str(), mp2.c_str(), 640, -1, 3,
       10},
      {"mp4 open write head : open mp4 file failed\n", missing.c_str(), mp2.c_str(), 640, 480, 1,
       10},
      {"mp4 open write head : open tmp mp2 file failed\n", mp4.c_str(), missing.c_str(), 640, 480,
       1, 10},
      // A planned length whose index could not be addressed with 32-bit offsets.
      {"mp4 open write head : param error\n", mp4.c_str(), mp2.c_str(), 640, 480, 1, 4000000},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.message);
    auto info = fitest::make_info({.seconds = c.seconds});
    const int fds = fitest::open_fds();
    testsupport::LogCapture log;
    mp4_handle *h = mp4_write_head_h264_index(c.mp4_path, c.mp2_path, c.width, c.height, c.format,
                                              c.null_info ? nullptr : info.get());
    EXPECT_EQ(h, nullptr);
    const auto e = log.find(c.message);
    EXPECT_EQ(e.text, c.message) << log.dump();
    EXPECT_EQ(e.level, 3);
    EXPECT_EQ(e.module, 37);
    EXPECT_EQ(e.function, "mp4_write_head_h264_index");
    EXPECT_EQ(log.entries().size(), 1u) << log.dump();
    EXPECT_EQ(fitest::open_fds(), fds);
    struct stat st;
    EXPECT_NE(stat(mp4.c_str(), &st), 0) << "a failed head leaves no file behind";
  }
}

TEST(Head, MoovInitRefusesMissingArguments) {
  testsupport::TempDir dir;
  FILE *f = mp4_fopen(dir.file("x").c_str(), "wb");
  mp4_handle *h = mp4rec::handle_alloc();
  updatePos pos{};
  EXPECT_EQ(mp4_write_moov_init(nullptr, h, &pos), -1);
  EXPECT_EQ(mp4_write_moov_init(f, nullptr, &pos), -1);
  EXPECT_EQ(mp4_write_moov_init(f, h, nullptr), -1);
  EXPECT_EQ(mp4_write_moov_init(f, h, &pos), -1);  // no position tables
  EXPECT_EQ(mp4_ftell(f), 0);
  mp4_fclose(f);
  free_mp4_h264(h);
}

}  // namespace
