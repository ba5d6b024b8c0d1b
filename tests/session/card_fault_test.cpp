// Card faults on the public road, through the simulated card: the K-th card
// write fails once (EIO) or from then on (ENOSPC, a full card) for every K of a
// short recording, and one write never returns. Every call comes back within
// its bound with one of its documented codes, and the file left behind is
// never corrupt: it holds every accepted frame, or plays cleanly up to its last
// committed batch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include "buffer/data_buffer.h"
#include "buffer/stall.h"
#include "file_check.h"
#include "mp4/handle.h"
#include "session/session_support.h"
#include "support/box_reader.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/sim_card.h"

namespace {

using namespace sessiontest;
using testsupport::SimCard;
using testsupport::TempDir;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr long kStep = 3;  // the sanitizer builds sample every third write
#else
constexpr long kStep = 1;
#endif

// What one recording did.
struct Outcome {
  int open_rc = -1;
  int close_rc = 0;
  long accepted = 0;                  // pictures the frame calls took
  int64_t longest_ms = 0;             // the slowest public call
  std::vector<int> codes;             // every frame call's result
  std::string kept;                   // the file, moved away before the session was freed
  mp4_data_buffer *buffer = nullptr;  // the session's (valid after its end only if left behind)
  long head_writes = 0;               // card writes up to the open
  uint32_t head_chunks = 0;           // chunks the fresh head declares for its video track
};

// Records `m` into a new file, as a host does, until a frame call refuses.
// With `abandon` set, a handler that a failed close kept is abandoned at once
// (mp4_write_close_without_end, then mp4_write_close frees the record).
Outcome record(mp4_base *base, const TempDir &dir, const std::string &name, const AvMedia &m,
               const SimCard &card, bool abandon = false) {
  Outcome o;
  const long before = card.writes();
  auto timed = [&](auto call) {
    const auto start = Clock::now();
    const int r = call();
    o.longest_ms = std::max<int64_t>(
        o.longest_ms,
        std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count());
    return r;
  };
  OpenFile f = post_and_open(base, dir, name, 2, 3, 25, 4);
  o.open_rc = f.opened.rc;
  if (o.open_rc != 0) {
    end_file(base, f);
    return o;
  }
  mp4_handler *h = f.opened.handler;
  o.buffer = f.session->data_buffer;
  o.head_writes = card.writes() - before;
  const testsupport::BoxFile head(f.opened.mp4_path);
  // An empty track may also be hidden altogether: then it declares nothing.
  const testsupport::Box *stco = head.find("moov/trak[0]/mdia/minf/stbl/stco");
  o.head_chunks = stco != nullptr ? head.entry_count(*stco) : 0;
  size_t j = 0;
  for (size_t i = 0; i < m.units.size(); ++i) {
    Bytes au = m.units[i];
    int r = timed([&] {
      return mp4_write_splite_sps_pps_i(au.data(), static_cast<int>(au.size()),
                                        static_cast<int>(i * 40), h);
    });
    o.codes.push_back(r);
    if (r != 0) break;
    ++o.accepted;
    for (; r == 0 && j < m.aac.size() && j * 64 <= i * 40; ++j) {
      Bytes frame = m.aac[j];
      r = timed([&] {
        return mp4_write_audio(frame.data(), static_cast<int>(frame.size()),
                               static_cast<int>(j * 64), h);
      });
      o.codes.push_back(r);
    }
    if (r != 0) break;
  }
  // Whatever a frame call answered, the close is the next step; then the
  // session's end (which releases a handler the close kept).
  o.close_rc = timed([&] { return mp4_write_close(h); });
  if (o.close_rc != 0 && abandon) {
    EXPECT_EQ(timed([&] { return mp4_write_close_without_end(h); }), 0);
    EXPECT_EQ(mp4_write_close(h), -1);
  }
  o.kept = dir.file(name + "-kept.mp4");
  timed([&] {
    end_file(base, f, o.kept);
    return 0;
  });
  return o;
}

// The file as a player and the index checker see it.
struct FileState {
  long frames = -1;
  std::string errors;  // ffmpeg's
  bool consistent = false;
  uint64_t samples = 0;  // indexed, in the tracks that readers see
};
FileState look_at(const std::string &path) {
  FileState s;
  s.frames = testsupport::ffprobe_frames(path, "v");
  s.errors = testsupport::ffmpeg_decode_errors(path);
  const mp4tool::Inspection ins = mp4tool::inspect_file(path);
  s.consistent = ins.consistent();
  for (const auto &t : ins.tracks)
    if (!t.hidden) s.samples += t.samples;
  for (const auto &e : ins.errors) s.errors += "inspect: " + e + "\n";
  return s;
}

TEST(CardFault, EveryWriteFailingOnceOrForGood) {
  const AvMedia m = load_av(320, 240, 25, 2.0, 5);
  ASSERT_GE(m.units.size(), 50u);
  TempDir dir;
  testsupport::LogCapture log;
  SimCard card;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);

  // A clean recording first: it counts the card writes to sweep, and tells
  // which of them patch the index in front of the samples.
  const long before = card.writes();
  const Outcome clean = record(base, dir, "clean", m, card);
  ASSERT_EQ(clean.close_rc, 0) << log.dump();
  const long writes = card.writes() - before;
  ASSERT_GT(writes, 10);
  const FileState whole = look_at(clean.kept);
  ASSERT_EQ(whole.frames, static_cast<long>(m.units.size()));
  ASSERT_EQ(whole.errors, "");
  // The card's writes, without its syncs (the durable mode's).
  std::vector<testsupport::CardEvent> events;
  for (auto &e : card.log(dir.file("clean.mp4")))
    if (!e.sync) events.push_back(std::move(e));
  ASSERT_EQ(static_cast<long>(events.size()), writes);
  uint64_t samples_start = 0;  // the head ends where the samples begin
  for (long i = 0; i < clean.head_writes; ++i)
    samples_start = std::max<uint64_t>(samples_start, events[i].offset + events[i].bytes.size());
  auto in_index_update = [&](long k) {
    return k > clean.head_writes && events[k - 1].offset < samples_start;
  };
  // A fresh head that declares no chunk for its empty tracks comes with an
  // update that enters entries before counts and stops at a failed write:
  // then every file left plays up to its last committed batch. Without it, a
  // file whose close failed is only checked for its index where no update was
  // cut short.
  const bool every_state_plays = clean.head_chunks == 0;

  int runs = 0;
  for (const auto &[mode, error] :
       {std::pair{SimCard::Fault::kOnce, EIO}, std::pair{SimCard::Fault::kSticky, ENOSPC}}) {
    for (long k = 1; k <= writes; k += kStep) {
      SCOPED_TRACE((mode == SimCard::Fault::kOnce ? "EIO once at write " : "ENOSPC from write ") +
                   std::to_string(k));
      card.fault(card.writes() + k, mode, error);
      const std::string name = "k" + std::to_string(runs++);
      const Outcome o = record(base, dir, name, m, card);
      card.fault(0, SimCard::Fault::kNone);
      EXPECT_LT(o.longest_ms, mp4rec::kStallBoundMs);
      for (const int code : o.codes) EXPECT_TRUE(code == 0 || code == -2) << code;
      if (o.open_rc != 0) {  // the head did not reach the card: no file
        EXPECT_EQ(o.open_rc, -1);
        EXPECT_LE(k, clean.head_writes);
        continue;
      }
      ASSERT_TRUE(o.close_rc == 0 || o.close_rc == -1) << o.close_rc;
      const FileState s = look_at(o.kept);
      if (o.close_rc == 0) {  // said to be whole: it is
        EXPECT_EQ(s.frames, o.accepted);
        EXPECT_EQ(s.errors, "");
        EXPECT_TRUE(s.consistent);
      } else if (every_state_plays) {
        EXPECT_TRUE(s.samples == 0 || s.errors.empty()) << s.errors;  // nothing to decode
        EXPECT_TRUE(s.consistent) << s.errors;
        EXPECT_LE(s.frames, o.accepted);
      } else if (!in_index_update(k)) {
        EXPECT_TRUE(s.consistent) << s.errors;
      }
    }
  }
  mp4_base_free(base);
}

// A base on a simulated card whose stuck writes are given up after one second.
class StuckCard : public testing::Test {
 protected:
  StuckCard() { mp4rec::set_stall_bound_ms(1000); }
  ~StuckCard() override { mp4rec::set_stall_bound_ms(0); }
  void SetUp() override { ASSERT_NE(base, nullptr); }
  TempDir dir;
  testsupport::LogCapture log;
  SimCard card;
  mp4_base *base = mp4_base_new();
};

// A card write that never returns: the frame calls answer busy, the close gives
// up with -1, the abandon leaves the file to the writer thread and the
// session's end leaves the thread behind, each within its bound; the file
// holds what was committed before.
TEST_F(StuckCard, AWriteThatNeverReturns) {
  const AvMedia m = load_av(640, 480, 25, 4.0, 25);  // more video than the buffer holds
  // The clean run tells how many writes the head takes: the writer thread's
  // first node write comes right behind them.
  const Outcome clean = record(base, dir, "clean", m, card);
  ASSERT_EQ(clean.close_rc, 0);
  card.fault(card.writes() + clean.head_writes + 2, SimCard::Fault::kBlock);
  const Outcome o = record(base, dir, "stuck", m, card, /*abandon=*/true);
  ASSERT_TRUE(card.wait_blocked(0));
  EXPECT_EQ(o.open_rc, 0);
  EXPECT_EQ(o.close_rc, -1);
  EXPECT_EQ(o.codes.back(), -4);               // busy: no node came back in time
  EXPECT_LT(o.longest_ms, 3200 + 1000 + 500);  // a busy frame call: 3 s and the bound
  EXPECT_TRUE(
      log.has("DataBuffer Delete: a card write has not returned, the writer thread and its "
              "buffer are left behind\n"))
      << log.dump();
  const FileState s = look_at(o.kept);
  EXPECT_TRUE(s.consistent) << s.errors;
  EXPECT_LT(s.frames, o.accepted);
  // The write comes back: the thread left behind finishes and ends; its file
  // (left open for it) is closed here while the card still exists.
  card.release();
  ASSERT_TRUE(eventually([&] { return o.buffer->writer_ended.load(); }));
  mp4_fclose(o.buffer->bound->file);
  mp4_base_free(base);
}

// The pre-open thread stuck in a head write: open answers 1 (the file is being
// made) and the base's end leaves the thread behind within the bound.
TEST_F(StuckCard, TheBaseEndsWhileAHeadWriteNeverReturns) {
  card.fault(card.writes() + 3, SimCard::Fault::kBlock);
  mp4_session *s = new_session(dir.file("a.mp4"), dir.file("a.mp2"));
  ASSERT_EQ(mp4_write_pre_open(base, s, 320, 240, 2, 3), 0);
  ASSERT_TRUE(card.wait_blocked(10000));
  char mp4_path[256], mp2_path[256];
  mp4_handler *h = nullptr;
  EXPECT_EQ(mp4_write_open(base, mp4_path, mp2_path, &h), 1);
  const auto start = Clock::now();
  EXPECT_EQ(mp4_base_free(base), 0);  // frees the attached session too
  EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(1500));
  EXPECT_TRUE(
      log.has("mp4_base_free: a card write of the pre-open thread has not returned, the "
              "thread is left behind\n"))
      << log.dump();
  // The write comes back: the thread drops the file of the freed session and ends.
  card.release();
  ASSERT_TRUE(eventually([] { return !mp4rec::pre_open_thread_running(); }));
  EXPECT_FALSE(exists(dir.file("a.mp4")));
}

}  // namespace
