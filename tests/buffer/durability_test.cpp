// The two durability modes as the card sees them: mode 0 never syncs; mode 1
// syncs data before index and commits at most once per interval however fast
// the nodes come; a card that refuses syncs is a card error.
#include <gtest/gtest.h>

#include <chrono>

#include "buffer/data_buffer.h"
#include "support/box_reader.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/recorder.h"
#include "support/sim_card.h"

namespace {

using testsupport::CardEvent;
using testsupport::FrontRoad;

// Commits in a card log: the runs of syncs that follow media writes (the
// syncs of one commit have only index writes, in front of the media, between
// them).
struct Commits {
  long commits = 0, syncs = 0;
};
Commits commits_of(const std::vector<CardEvent> &log, uint64_t media_start) {
  Commits c;
  bool media_since_sync = false;
  for (const auto &e : log) {
    if (e.sync) {
      ++c.syncs;
      if (media_since_sync) ++c.commits;
      media_since_sync = false;
    } else if (e.offset >= media_start) {
      media_since_sync = true;
    }
  }
  return c;
}

struct Paced {
  int mode;
  int interval_ms;
};

class DurabilityOnTheCard : public ::testing::TestWithParam<Paced> {};

TEST_P(DurabilityOnTheCard, SyncsAtMostOncePerIntervalOrNever) {
  const Paced p = GetParam();
  testsupport::TempDir dir;
  const std::string mp4 = dir.file("rec.mp4");
  std::vector<CardEvent> log;
  const auto start = std::chrono::steady_clock::now();
  {
    testsupport::SimCard card;
    // 75 pictures 12 ms apart: about a second, some 25 small nodes.
    const FrontRoad road{.video_node = 8192,
                         .audio_node = 1024,
                         .durability = p.mode,
                         .interval_ms = p.interval_ms,
                         .pace_ms = 12};
    ASSERT_EQ(
        testsupport::record_front_index(mp4, dir.file("rec.mp2"), testsupport::sample_feed(), road),
        "");
    log = card.log(mp4);
  }
  const auto elapsed_ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                              std::chrono::steady_clock::now() - start)
                              .count();
  const testsupport::BoxFile f(mp4);
  const Commits c = commits_of(log, f.at("mdat").offset + 8);
  const long chunks = f.entry_count(f.at("moov/trak[0]/mdia/minf/stbl/stco")) +
                      f.entry_count(f.at("moov/trak[1]/mdia/minf/stbl/stco"));
  EXPECT_GT(chunks, 20);
  if (p.mode == 0) {
    EXPECT_EQ(c.syncs, 0);
    return;
  }
  // The first commit comes with the first node, one with each of the two
  // last nodes of the file (the close).
  EXPECT_GE(c.commits, 2);
  EXPECT_LE(c.commits, elapsed_ms / p.interval_ms + 3) << elapsed_ms << " ms";
  EXPECT_LT(c.commits, chunks / 2) << "the index of several nodes goes in one commit";
  EXPECT_EQ(log.back().sync, true) << "the close ends with a sync";
  EXPECT_EQ(testsupport::ffmpeg_decode_errors(mp4), "");
}

INSTANTIATE_TEST_SUITE_P(Modes, DurabilityOnTheCard,
                         ::testing::Values(Paced{0, 1000}, Paced{1, 150}, Paced{1, 400}));

// As a failed data write: the buffer goes into its card-error state and the
// frame calls answer -2.
TEST(Durability, ACardThatRefusesSyncsIsACardError) {
  testsupport::TempDir dir;
  testsupport::SimCard card;
  card.fail_syncs(EIO);
  testsupport::LogCapture log;
  const FrontRoad road{.durability = 1, .interval_ms = 1};
  EXPECT_EQ(testsupport::record_front_index(dir.file("rec.mp4"), dir.file("rec.mp2"),
                                            testsupport::sample_feed(), road),
            "frame refused with -2");
  EXPECT_TRUE(log.has("durable commit: card sync failed: Input/output error\n", 3, 37))
      << log.dump();
}

TEST(Durability, SettingRefusesWhatIsOutOfRange) {
  mp4_session *s = mp4_session_new(0, "/nonexistent/a.mp4", "/nonexistent/a.mp2");
  ASSERT_NE(s, nullptr);
  struct Case {
    mp4_session *session;
    int mode, interval, result;
  };
  for (const Case c : {Case{nullptr, 1, 0, -1}, Case{s, 2, 0, -1}, Case{s, -1, 0, -1},
                       Case{s, 1, -5, -1}, Case{s, 0, 0, 0}, Case{s, 1, 250, 0}}) {
    testsupport::LogCapture log;
    EXPECT_EQ(mp4_set_durability(c.session, c.mode, c.interval), c.result)
        << c.mode << " " << c.interval;
    EXPECT_EQ(log.has("mp4 set durability : param error\n", 3, 37), c.result != 0);
  }
  EXPECT_EQ(s->data_buffer->durability.interval_ms.load(), 250);
  EXPECT_EQ(mp4_session_free(s), 0);
}

}  // namespace
