// The finished files of fixed input, byte for byte (creation times aside), as
// the writers made them before the order of their writes on the card was
// reworked: how and when the index reaches the card may change, the finished
// file may not.
#include <gtest/gtest.h>

#include "support/box_reader.h"
#include "support/media.h"
#include "support/recorder.h"

namespace {

using testsupport::FrontRoad;

struct Finished {
  const char *name;
  char writer;  // 'f' front index, 'j' MJPEG, 'e' index at end
  FrontRoad road;
  const char *digest;
};

class FinishedBytes : public ::testing::TestWithParam<Finished> {};

TEST_P(FinishedBytes, AreThoseOfTheWritersBeforeTheRework) {
  const Finished &c = GetParam();
  testsupport::TempDir dir;
  const std::string mp4 = dir.file("f.mp4"), mp2 = dir.file("f.mp2");
  std::string error;
  if (c.writer == 'f')
    error = testsupport::record_front_index(mp4, mp2, testsupport::sample_feed(), c.road);
  if (c.writer == 'j')
    error = testsupport::record_mjpeg(mp4, mp2, testsupport::synthetic_pictures(60));
  if (c.writer == 'e')
    error = testsupport::record_index_at_end(mp4, mp2, testsupport::sample_feed());
  ASSERT_EQ(error, "");
  EXPECT_EQ(testsupport::digest_without_times(testsupport::read_file(mp4)), c.digest);
}

// Digests of the files as the writers made them before the rework.
constexpr const char *kFront = "aab56702c9c1f0ae25b277eccdae0e36c42ff11b80c4a9622da9cab236ce53e3";
constexpr const char *kFrontHolesStamped =
    "e1ad36cd8aec6a80c549ecc0cb38a36ae47651b8b70ecf24dbc4e1d2e545f20c";
constexpr const char *kFrontBigNodes =
    "9d875ed0ca66f39b7b965a1fd3309b6c1db86dfe930024c19f99e1d298499ce5";
constexpr const char *kMjpeg = "6d2d443ed6710fce927c3de56ad2c582b3f12188e9c1281432a59c47c4919110";
constexpr const char *kAtEnd = "f06d47f8647418a5338e134c6601dc6419955538cd659f0346416186a8311348";

constexpr FrontRoad kHolesStamped{.prealloc = true, .time_stamps = true};

// The durable mode commits at its own pace (here after every node, or only at
// the close); the finished file is the same.
INSTANTIATE_TEST_SUITE_P(
    Writers, FinishedBytes,
    ::testing::Values(
        Finished{"front", 'f', {}, kFront},
        Finished{"front_holes_stamped", 'f', kHolesStamped, kFrontHolesStamped},
        Finished{
            "front_big_nodes", 'f', {.video_node = 262144, .audio_node = 16384}, kFrontBigNodes},
        Finished{"durable_every_node", 'f', {.durability = 1, .interval_ms = 1}, kFront},
        Finished{"durable_at_close",
                 'f',
                 {.prealloc = true, .time_stamps = true, .durability = 1, .interval_ms = 600000},
                 kFrontHolesStamped},
        Finished{"mjpeg", 'j', {}, kMjpeg}, Finished{"index_at_end", 'e', {}, kAtEnd}),
    [](const auto &p) { return std::string(p.param.name); });

}  // namespace

namespace {

// The one change to a finished file: a track that never got a sample is
// declared empty (no chunk), which demuxers accept, rather than with one
// empty chunk and the reserved run count, which they refuse.
TEST(FinishedFile, ATrackThatNeverGotASampleIsDeclaredEmpty) {
  testsupport::TempDir dir;
  const std::string mp4 = dir.file("f.mp4");
  auto feed = testsupport::sample_feed();
  std::erase_if(feed.units, [](const testsupport::TimedUnit &u) { return !u.video; });
  ASSERT_EQ(testsupport::record_front_index(mp4, dir.file("f.mp2"), feed, {}), "");
  const testsupport::BoxFile f(mp4);
  const std::string a = "moov/trak[1]/mdia/minf/stbl/";
  for (const char *table : {"stco", "stsc", "stsz"})
    EXPECT_EQ(f.entry_count(f.at(a + table)), 0u) << table;
  EXPECT_EQ(f.stts(f.at(a + "stts")), (std::vector<std::pair<uint32_t, uint32_t>>{{0, 1024}}));
  EXPECT_EQ(testsupport::ffmpeg_decode_errors(mp4), "");
}

}  // namespace
