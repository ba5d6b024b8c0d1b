// A session freed while the pre-open thread still has its request: the thread
// works from its own copies, makes nothing for a withdrawn request and deletes
// what it made for a session that went away meanwhile.
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>

#include "session/session_support.h"
#include "support/log_capture.h"
#include "support/media.h"

namespace {

using namespace sessiontest;
using testsupport::LogCapture;
using testsupport::TempDir;

// True while the thread is waiting for a request (not making a file).
bool thread_idle() {
  if (pthread_mutex_trylock(&g_mp4_open.mutex) != 0) return false;
  pthread_mutex_unlock(&g_mp4_open.mutex);
  return true;
}

mp4_session *request_session() {
  pthread_mutex_lock(&mutex_mp4_open);
  mp4_session *s = g_mp4_session;
  pthread_mutex_unlock(&mutex_mp4_open);
  return s;
}

size_t files_in(const TempDir &dir) {
  size_t n = 0;
  for ([[maybe_unused]] const auto &e : std::filesystem::directory_iterator(dir.path())) ++n;
  return n;
}

// Fully written tables for a long planned length: a head of tens of MB that
// keeps the thread busy long after the file has appeared.
mp4_session *slow_session(const TempDir &dir, const std::string &name, uint32_t seconds) {
  mp4_session *s = new_session(dir.file(name + ".mp4"), dir.file(name + ".mp2"), 30, seconds);
  if (s != nullptr) {
    s->stream_info->video_prealloc = 0;
    s->stream_info->audio_prealloc = 0;
  }
  return s;
}

TEST(PreOpenFree, AFileCancelledMidGenerationIsDeletedAndNotParked) {
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  mp4_session *s = slow_session(dir, "gone", 40000);
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(mp4_write_pre_open(base, s, 320, 240, 2, 3), 0);
  ASSERT_TRUE(eventually([&] { return exists(dir.file("gone.mp4")); }));
  ASSERT_FALSE(thread_idle()) << "the head was written before the free could cut in";

  EXPECT_EQ(mp4_session_pop(base), s);
  EXPECT_EQ(mp4_session_free(s), 0);
  EXPECT_EQ(request_session(), nullptr);

  ASSERT_TRUE(eventually(thread_idle, 60s));
  EXPECT_FALSE(slot_filled());
  EXPECT_FALSE(exists(dir.file("gone.mp4")));
  EXPECT_FALSE(exists(dir.file("gone.mp2")));
  EXPECT_EQ(files_in(dir), 0u);

  // The thread serves the next request as usual.
  mp4_session *next = new_session(dir.file("next.mp4"), dir.file("next.mp2"));
  ASSERT_NE(next, nullptr);
  ASSERT_EQ(mp4_write_pre_open(base, next, 320, 240, 2, 3), 0);
  Opened o = open_when_ready(base);
  ASSERT_EQ(o.rc, 0) << log.dump();
  EXPECT_EQ(o.mp4_path, dir.file("next.mp4"));
  EXPECT_EQ(mp4_write_close(o.handler), 0);
  EXPECT_EQ(mp4_session_pop(base), next);
  mp4_session_free(next);
  EXPECT_EQ(mp4_base_free(base), 0);
  EXPECT_EQ(files_in(dir), 0u);
}

TEST(PreOpenFree, ARequestWhoseSessionIsFreedBeforeItIsTakenMakesNoFile) {
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  // While the thread makes a's slow head, b's request is posted (its words are
  // written at once, the signal waits for the thread) and b is freed before
  // the thread can take it.
  mp4_session *a = slow_session(dir, "a", 40000);
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(mp4_write_pre_open(base, a, 320, 240, 2, 3), 0);
  ASSERT_TRUE(eventually([&] { return exists(dir.file("a.mp4")); }));
  ASSERT_FALSE(thread_idle());
  EXPECT_EQ(mp4_session_pop(base), a);

  mp4_session *b = new_session(dir.file("b.mp4"), dir.file("b.mp2"));
  ASSERT_NE(b, nullptr);
  std::thread poster([&] { EXPECT_EQ(mp4_write_pre_open(base, b, 320, 240, 2, 3), 0); });
  ASSERT_TRUE(eventually([&] { return request_session() == b; }));
  ASSERT_FALSE(thread_idle()) << "a's head was written before b could be freed";
  EXPECT_EQ(mp4_session_pop(base), b);
  EXPECT_EQ(mp4_session_free(b), 0);
  poster.join();  // b's request is flagged for the thread, which finds it withdrawn

  ASSERT_TRUE(eventually(thread_idle, 60s));
  EXPECT_FALSE(exists(dir.file("b.mp4")));
  EXPECT_FALSE(exists(dir.file("b.mp2")));
  // a's file was not affected and waits in the slot.
  mp4_handler *handler = mp4_pre_open_get();
  ASSERT_NE(handler, nullptr);
  EXPECT_EQ(handler->video_format, 2u);
  EXPECT_EQ(free_mp4(handler->mp4_handle), 0);
  std::free(handler);
  EXPECT_TRUE(exists(dir.file("a.mp4")));
  mp4_session_free(a);
  EXPECT_EQ(mp4_base_free(base), 0);
  EXPECT_EQ(files_in(dir), 0u);
}

TEST(PreOpenFree, PlanOfZeroStillReadsSixHundredAfterTheHead) {
  TempDir dir;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  mp4_session *s = new_session(dir.file("z.mp4"), dir.file("z.mp2"), 25, 0);
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(mp4_write_pre_open(base, s, 320, 240, 2, 3), 0);
  Opened o = open_when_ready(base);
  ASSERT_EQ(o.rc, 0);
  EXPECT_EQ(s->stream_info->record_duration, 600u);
  EXPECT_EQ(mp4_write_close(o.handler), 0);
  EXPECT_EQ(mp4_session_pop(base), s);
  mp4_session_free(s);
  mp4_base_free(base);
}

// A file parked for a session that is freed unopened goes with it: the next
// session's open can never be handed that (deleted) file.
TEST(PreOpenFree, AFileParkedForAFreedSessionGoesWithIt) {
  TempDir dir;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  mp4_session *a = new_session(dir.file("a.mp4"), dir.file("a.mp2"));
  ASSERT_EQ(mp4_write_pre_open(base, a, 320, 240, 2, 3), 0);
  ASSERT_TRUE(eventually(slot_filled));
  EXPECT_EQ(mp4_session_pop(base), a);
  EXPECT_EQ(mp4_session_free(a), 0);
  EXPECT_FALSE(slot_filled());
  EXPECT_EQ(files_in(dir), 0u);
  mp4_base_free(base);
}

// Many rounds of posting and opening at once, so the open's try-lock meets the
// thread before it took the request, while it makes the head and after it
// parked it. Every round ends with the session freed; nothing may be left.
TEST(PreOpenFree, PostAndOpenAtOnceManyTimes) {
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  int opened = 0, lost = 0;
  for (int round = 0; round < 200; ++round) {
    const std::string name = "r" + std::to_string(round);
    // Every fifth head is slow (fully written tables), the rest fast.
    mp4_session *s = round % 5 == 0 ? slow_session(dir, name, 1500)
                                    : new_session(dir.file(name + ".mp4"), dir.file(name + ".mp2"));
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(mp4_write_pre_open(base, s, 320, 240, 2, 3), 0);
    if (round % 3 == 1) std::this_thread::sleep_for(std::chrono::microseconds(round * 5));
    char p1[256] = {}, p2[256] = {};
    mp4_handler *handler = nullptr;
    int rc;
    while ((rc = mp4_write_open(base, p1, p2, &handler)) == 1)
      std::this_thread::sleep_for(std::chrono::microseconds(200));
    if (rc == 0) {
      ++opened;
      ASSERT_NE(handler, nullptr);
      EXPECT_EQ(std::string(p1), dir.file(name + ".mp4"));
      EXPECT_EQ(mp4_write_close(handler), 0);
      ASSERT_EQ(mp4_session_pop(base), s);
      mp4_session_free(s);
    } else {
      ++lost;
      ASSERT_EQ(rc, -1);
      EXPECT_EQ(handler, nullptr);
      EXPECT_EQ(base->mp4_session, nullptr);  // the failed open freed it
    }
  }
  ASSERT_TRUE(eventually(thread_idle, 60s));
  EXPECT_FALSE(slot_filled());
  EXPECT_EQ(mp4_base_free(base), 0);
  EXPECT_EQ(files_in(dir), 0u);
  EXPECT_EQ(opened + lost, 200);
  std::printf("opened %d, lost to the race %d\n", opened, lost);
}

}  // namespace
