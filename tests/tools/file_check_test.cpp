// `mp4rec inspect` on files that ffmpeg made, and on copies cut short or with a
// damaged index, as a card taken out after a power cut would hold them.
#include <gtest/gtest.h>

#include <filesystem>
#include <sstream>

#include "common/internal.h"
#include "file_check.h"
#include "support/box_reader.h"
#include "support/media.h"
#include "tool_support.h"

namespace {

using mp4tool::inspect_file;
using testsupport::BoxFile;

const mp4tool::TrackInfo *track(const mp4tool::Inspection &ins, const std::string &handler) {
  for (const auto &t : ins.tracks)
    if (t.handler == handler) return &t;
  return nullptr;
}

std::string report(const mp4tool::Inspection &ins) {
  std::ostringstream s;
  mp4tool::print_inspection(ins, s, true);
  return s.str();
}

class InspectFfmpeg : public ::testing::TestWithParam<bool> {};

TEST_P(InspectFfmpeg, AgreesWithFfprobe) {
  const std::string file = tooltest::ffmpeg_mp4(GetParam());
  const auto ins = inspect_file(file);
  ASSERT_TRUE(ins.consistent()) << report(ins);
  const auto *v = track(ins, "vide");
  const auto *a = track(ins, "soun");
  ASSERT_NE(v, nullptr);
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(v->samples, static_cast<uint64_t>(testsupport::ffprobe_packets(file, "v")));
  EXPECT_EQ(a->samples, static_cast<uint64_t>(testsupport::ffprobe_packets(file, "a")));
  EXPECT_EQ(v->samples, 60u);
  EXPECT_EQ(v->key_frames, 4u);  // one IDR picture a second
  EXPECT_FALSE(v->all_key);
  EXPECT_TRUE(a->all_key);
  EXPECT_EQ(v->codec, "avc1");
  EXPECT_EQ(v->format, "320x240");
  EXPECT_NEAR(v->seconds(), 4.0, 0.1);
  EXPECT_GT(v->chunks, 0u);
  EXPECT_EQ(ins.indexed_bytes, ins.mdat_payload);
  const BoxFile f(file);
  EXPECT_EQ(v->chunks, f.entry_count(f.at("moov/trak[0]/mdia/minf/stbl/stco")));
  const std::string text = report(ins);
  EXPECT_NE(text.find("index: consistent"), std::string::npos) << text;
  EXPECT_NE(text.find("    trak"), std::string::npos) << text;
}

INSTANTIATE_TEST_SUITE_P(IndexInFrontAndAtEnd, InspectFfmpeg, ::testing::Bool());

// A file cut in the middle of mdat: with the index in front it names samples
// that are gone; with the index at the end there is no index at all.
TEST(Inspect, CutInsideMdatIsInconsistent) {
  testsupport::TempDir dir;
  for (const bool faststart : {true, false}) {
    const std::string src = tooltest::ffmpeg_mp4(faststart);
    const BoxFile f(src);
    const auto &mdat = f.at("mdat");
    const std::string cut = dir.file(faststart ? "front.mp4" : "end.mp4");
    tooltest::truncate_copy(src, cut, mdat.offset + mdat.size / 2);
    const auto ins = inspect_file(cut);
    EXPECT_FALSE(ins.consistent()) << report(ins);
    const std::string text = report(ins);
    EXPECT_NE(text.find("index: INCONSISTENT"), std::string::npos) << text;
    if (faststart)
      EXPECT_NE(text.find("beyond the end of the file"), std::string::npos) << text;
    else
      EXPECT_NE(text.find("no moov box"), std::string::npos) << text;
  }
}

// mdat declares more than the index uses (a recorder's buffer that never reached
// the index); the file is cut after the last indexed sample: still consistent.
TEST(Inspect, CutAfterTheIndexedDataIsFine) {
  testsupport::TempDir dir;
  const std::string src = tooltest::ffmpeg_mp4(true);
  auto bytes = testsupport::read_file(src);
  const BoxFile f(bytes);
  const auto &mdat = f.at("mdat");
  ASSERT_EQ(mdat.end(), bytes.size());  // mdat is last
  const uint32_t bigger = static_cast<uint32_t>(mdat.size + 100000);
  for (int i = 0; i < 4; ++i) bytes[mdat.offset + i] = static_cast<uint8_t>(bigger >> (24 - 8 * i));
  bytes.insert(bytes.end(), 3000, 0xAB);  // a part of the unindexed tail reached the card
  const std::string file = dir.file("tail.mp4");
  testsupport::write_file(file, bytes);

  const auto ins = inspect_file(file);
  EXPECT_TRUE(ins.consistent()) << report(ins);
  const std::string text = report(ins);
  EXPECT_NE(text.find("mdat declares"), std::string::npos) << text;
  EXPECT_NE(text.find("3000 bytes of mdat are not in the index"), std::string::npos) << text;
  EXPECT_EQ(track(ins, "vide")->samples, 60u);

  // The same past 2 GiB (the tail is a hole here): a 32-bit build measures
  // the file with a 64-bit size too.
  const uint64_t big = 3ull << 30;
  const auto to_end = static_cast<uint32_t>(big - mdat.offset);
  for (int i = 0; i < 4; ++i) bytes[mdat.offset + i] = static_cast<uint8_t>(to_end >> (24 - 8 * i));
  testsupport::write_file(file, bytes);
  std::filesystem::resize_file(file, big);
  const auto large = inspect_file(file);
  EXPECT_TRUE(large.consistent()) << report(large);
  EXPECT_EQ(large.file_size, big);
}

// Damage to the index itself, one field at a time.
TEST(Inspect, DamagedIndexIsReported) {
  testsupport::TempDir dir;
  const std::string src = tooltest::ffmpeg_mp4(true);
  const auto original = testsupport::read_file(src);
  const BoxFile f(original);
  const auto &stco = f.at("moov/trak[0]/mdia/minf/stbl/stco");
  const auto &stsz = f.at("moov/trak[0]/mdia/minf/stbl/stsz");
  const auto &stss = f.at("moov/trak[0]/mdia/minf/stbl/stss");
  const auto &stsc = f.at("moov/trak[0]/mdia/minf/stbl/stsc");
  const auto &avcc = f.at("moov/trak[0]/mdia/minf/stbl/stsd/avc1/avcC");
  const uint32_t chunks = f.entry_count(stco), runs = f.entry_count(stsc);
  const uint32_t sizes = f.entry_count(stsz), syncs = f.entry_count(stss);
  struct Case {
    const char *name;
    uint64_t offset;
    uint32_t value;
    const char *expect;
  } cases[] = {
      {"chunk beyond the file", stco.offset + 16, 0x7FFFFFF0u, "beyond the end of the file"},
      {"chunk inside moov", stco.offset + 16, 40u, "outside mdat"},
      {"sizes beyond the box", stsz.offset + 16, 0x00FFFFFFu, "declares"},
      {"stss falling", stss.offset + 20, 1u, "not rising"},
      // What demuxers refuse: a track whose chunks have no sizes (or sizes
      // without chunks) is dropped, a run naming a chunk that stco lacks
      // makes the file unreadable, a key frame beyond the samples, a video
      // sample that nothing can decode.
      {"chunks without sizes", stsz.offset + 16, 0u, "incomplete tables"},
      {"sizes without chunks", stco.offset + 12, 0u, "incomplete tables"},
      {"stsc beyond stco", stsc.offset + 16 + 12 * (runs - 1), chunks + 5, "stsc names chunk"},
      {"stss beyond stsz", stss.offset + 12 + 4 * syncs, sizes + 10, "beyond the"},
      {"avcC empty", avcc.offset + 8, 0u, "no decoder configuration"},
  };
  for (const auto &c : cases) {
    auto bytes = original;
    for (int i = 0; i < 4; ++i) bytes[c.offset + i] = static_cast<uint8_t>(c.value >> (24 - 8 * i));
    const std::string file = dir.file("damaged.mp4");
    testsupport::write_file(file, bytes);
    const auto ins = inspect_file(file);
    const std::string text = report(ins);
    EXPECT_FALSE(ins.consistent()) << c.name << "\n" << text;
    EXPECT_NE(text.find(c.expect), std::string::npos) << c.name << "\n" << text;
  }
}

// A file of ours before its first batch: reserved tables, no samples yet.
TEST(Inspect, FreshHeadDeclaresNoSamples) {
  testsupport::TempDir dir;
  std::unique_ptr<mp4_stream_info, decltype(&std::free)> info(mp4_create_stream_info(), &std::free);
  ASSERT_NE(info, nullptr);
  info->record_duration = 10;
  for (const int prealloc : {0, 1}) {
    info->video_prealloc = info->audio_prealloc = prealloc;
    const std::string file = dir.file("head.mp4");
    mp4_handle *h = mp4_write_head_h264_index(file.c_str(), dir.file("head.mp2").c_str(), 320, 240,
                                              3, info.get());
    ASSERT_NE(h, nullptr);
    free_mp4_h264(h);
    const auto ins = inspect_file(file);
    EXPECT_TRUE(ins.consistent()) << report(ins);
    ASSERT_EQ(ins.tracks.size(), 2u) << report(ins);
    for (const auto &t : ins.tracks) {
      EXPECT_TRUE(t.hidden) << report(ins);
      EXPECT_EQ(t.samples, 0u) << report(ins);
    }
  }
}

TEST(Inspect, NotAnMp4) {
  testsupport::TempDir dir;
  const std::string file = dir.file("text.mp4");
  testsupport::write_file(file, std::vector<uint8_t>(100, 'x'));
  EXPECT_FALSE(inspect_file(file).consistent());
  EXPECT_FALSE(inspect_file(dir.file("missing.mp4")).consistent());
  const auto empty = dir.file("empty.mp4");
  testsupport::write_file(empty, {});
  EXPECT_FALSE(inspect_file(empty).consistent());
}

}  // namespace
