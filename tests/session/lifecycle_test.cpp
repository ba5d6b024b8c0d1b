// Base and sessions, the pre-open slot and the hand-over of a pre-opened file.
// Every test runs in a process of its own, so each may create the one base of
// its process.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <string>

#include "session/session_support.h"
#include "support/log_capture.h"
#include "support/media.h"

namespace {

using namespace sessiontest;
using testsupport::LogCapture;
using testsupport::TempDir;

void touch(const std::string &path) {
  testsupport::write_file(path, {1, 2, 3});
}

TEST(Session, RecordModeMustBeZeroOrOne) {
  TempDir dir;
  for (const int mode : {2, -1, 7}) {
    LogCapture log;
    EXPECT_EQ(mp4_session_new(mode, dir.file("a.mp4").c_str(), dir.file("a.mp2").c_str()), nullptr);
    EXPECT_TRUE(log.has("MP4 record mode error\n", 3, 37)) << log.dump();
  }
  for (const int mode : {0, 1}) {
    mp4_session *s = mp4_session_new(mode, dir.file("a.mp4").c_str(), dir.file("a.mp2").c_str());
    ASSERT_NE(s, nullptr);
    EXPECT_EQ(s->record_mode, mode);
    EXPECT_STREQ(s->mp4_path, dir.file("a.mp4").c_str());
    EXPECT_STREQ(s->mp2_tmp_path, dir.file("a.mp2").c_str());
    ASSERT_NE(s->stream_info, nullptr);
    EXPECT_EQ(s->stream_info->record_duration, 2000u);
    EXPECT_NE(s->data_buffer, nullptr);
    EXPECT_EQ(mp4_session_free(s), 0);
  }
}

TEST(Session, PathsThatDoNotFitAreRefused) {
  TempDir dir;
  const std::string longest = dir.path() + "/" + std::string(254 - dir.path().size(), 'p');
  ASSERT_EQ(longest.size(), 255u);
  const std::string too_long = longest + "q";
  const std::string ok = dir.file("b.mp2");
  struct Case {
    const char *mp4;
    const char *mp2;
  };
  for (const Case c : {Case{too_long.c_str(), ok.c_str()}, Case{ok.c_str(), too_long.c_str()},
                       Case{nullptr, ok.c_str()}, Case{ok.c_str(), nullptr}}) {
    LogCapture log;
    EXPECT_EQ(mp4_session_new(0, c.mp4, c.mp2), nullptr);
    EXPECT_TRUE(log.has("MP4 set record path info error\n", 3, 37)) << log.dump();
  }
  // Nothing was copied, so the refused sessions deleted nothing.
  touch(ok);
  mp4_session *s = mp4_session_new(0, longest.c_str(), ok.c_str());
  ASSERT_NE(s, nullptr);
  EXPECT_EQ(std::string(s->mp4_path), longest);
  EXPECT_EQ(s->mp4_path[255], '\0');
  mp4_session_free(s);
  EXPECT_FALSE(exists(ok));
  EXPECT_EQ(mp4_session_free(nullptr), 0);
}

TEST(Session, FreeDeletesWhatStandsAtItsPathsAndNothingElse) {
  TempDir dir;
  const std::string mp4 = dir.file("rec.mp4"), mp2 = dir.file("rec.mp2");
  const std::string neighbour = dir.file("rec.mp4.keep"), kept = dir.file("kept.mp4");

  mp4_session *s = mp4_session_new(1, mp4.c_str(), mp2.c_str());
  ASSERT_NE(s, nullptr);
  touch(mp4);
  touch(mp2);
  touch(neighbour);
  EXPECT_EQ(mp4_session_free(s), 0);
  EXPECT_FALSE(exists(mp4));
  EXPECT_FALSE(exists(mp2));
  EXPECT_TRUE(exists(neighbour));

  // A recording moved away first survives.
  s = mp4_session_new(0, mp4.c_str(), mp2.c_str());
  ASSERT_NE(s, nullptr);
  touch(mp4);
  ASSERT_EQ(std::rename(mp4.c_str(), kept.c_str()), 0);
  EXPECT_EQ(mp4_session_free(s), 0);
  EXPECT_TRUE(exists(kept));
  EXPECT_TRUE(exists(neighbour));
}

TEST(Base, PopRegisterAndASecondPreOpen) {
  TempDir dir;
  LogCapture log;
  EXPECT_EQ(mp4_session_pop(nullptr), nullptr);
  EXPECT_TRUE(log.has("arg NULL\n", 3, 37));

  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  EXPECT_EQ(base->mp4_session, nullptr);
  mp4_session *a = new_session(dir.file("a.mp4"), dir.file("a.mp2"));
  mp4_session *b = new_session(dir.file("b.mp4"), dir.file("b.mp2"));
  ASSERT_TRUE(a && b);

  auto cb = +[](void *) {};
  int arg = 0;
  EXPECT_EQ(mp4_write_register(base, cb, &arg), -1);
  EXPECT_TRUE(log.has("mp4_base->mp4_session error\n", 3, 37));
  EXPECT_EQ(mp4_write_register(base, nullptr, &arg), -1);
  EXPECT_EQ(mp4_write_register(nullptr, cb, &arg), -1);
  EXPECT_EQ(mp4_write_register(base, cb, nullptr), -1);
  EXPECT_EQ(log.count("arg error\n"), 3);

  EXPECT_EQ(mp4_write_pre_open(nullptr, a, 320, 240, 2, 3), -1);
  EXPECT_TRUE(log.has("mp4_base NULL\n", 3, 37));
  EXPECT_EQ(mp4_write_pre_open(base, nullptr, 320, 240, 2, 3), -1);
  EXPECT_TRUE(log.has("input mp4_session NULL\n", 3, 37));

  // Format 0 makes no file, so nothing is left in the slot.
  ASSERT_EQ(mp4_write_pre_open(base, a, 320, 240, 0, 3), 0);
  EXPECT_EQ(base->mp4_session, a);
  EXPECT_EQ(mp4_write_register(base, cb, &arg), 0);

  // A second pre-open is refused and posts nothing: b's file never appears.
  EXPECT_EQ(mp4_write_pre_open(base, b, 320, 240, 2, 3), -1);
  EXPECT_TRUE(log.has("mp4_base->mp4_session not NULL\n", 3, 37));
  EXPECT_EQ(base->mp4_session, a);
  ASSERT_TRUE(eventually([&] { return log.has("mp4 open : video format error\n"); }));
  std::this_thread::sleep_for(200ms);
  EXPECT_FALSE(exists(dir.file("b.mp4")));
  EXPECT_FALSE(slot_filled());

  EXPECT_EQ(mp4_session_pop(base), a);
  EXPECT_EQ(mp4_session_pop(base), nullptr);
  EXPECT_EQ(mp4_session_free(a), 0);
  EXPECT_EQ(mp4_session_free(b), 0);
  EXPECT_EQ(mp4_base_free(base), 0);
  EXPECT_EQ(mp4_base_free(nullptr), 0);
}

TEST(PreOpen, OpenFirstReplacesTheAttachedSession) {
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  mp4_session *a = new_session(dir.file("a.mp4"), dir.file("a.mp2"));
  mp4_session *b = new_session(dir.file("b.mp4"), dir.file("b.mp2"));
  ASSERT_TRUE(a && b);
  ASSERT_EQ(mp4_write_pre_open(base, a, 320, 240, 4, 3), 0);
  ASSERT_TRUE(eventually([&] { return log.has("mp4 open : video format error\n"); }));

  EXPECT_EQ(mp4_write_open_first(nullptr, b, 320, 240, 2, 3), -1);
  EXPECT_EQ(mp4_write_open_first(base, nullptr, 320, 240, 2, 3), -1);
  ASSERT_EQ(mp4_write_open_first(base, b, 320, 240, 2, 3), 0);
  EXPECT_EQ(base->mp4_session, b);
  EXPECT_TRUE(slot_filled());

  const Opened o = open_when_ready(base);
  ASSERT_EQ(o.rc, 0) << log.dump();
  EXPECT_EQ(o.mp4_path, dir.file("b.mp4"));
  EXPECT_EQ(o.mp2_tmp_path, dir.file("b.mp2"));
  ASSERT_NE(o.handler, nullptr);
  EXPECT_EQ(o.handler->video_format, 2u);
  EXPECT_TRUE(log.has("mp4 open: get pre-open file success.\n", 7, 37));
  EXPECT_EQ(mp4_write_close(o.handler), 0);
  EXPECT_TRUE(log.has("close with index in the front\n", 7, 37));

  EXPECT_EQ(mp4_session_pop(base), b);
  EXPECT_TRUE(exists(dir.file("b.mp4")));
  mp4_session_free(b);
  EXPECT_FALSE(exists(dir.file("b.mp4")));
  mp4_session_free(a);
  mp4_base_free(base);
}

TEST(PreOpen, RequestsThatMakeNoFileLeaveTheSlotEmpty) {
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  struct Case {
    int width, video_format, audio_format;
    const char *message;
  };
  for (const Case c : {Case{320, 0, 3, "mp4 open : video format error\n"},
                       Case{0, 2, 3, "mp4 open : write head of h264 error\n"},
                       Case{320, 2, 4, "mp4 open : write head of h264 error\n"},
                       Case{0, 3, 3, "mp4 open : write head of h265 error\n"},
                       Case{320, 1, 3, "mp4 open : write head of jpeg error\n"}}) {
    SCOPED_TRACE(c.message);
    const int before = log.count(c.message);
    mp4_session *s = new_session(dir.file("a.mp4"), dir.file("a.mp2"));
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(mp4_write_pre_open(base, s, c.width, 240, c.video_format, c.audio_format), 0);
    ASSERT_TRUE(eventually([&] { return log.count(c.message) == before + 1; }));
    EXPECT_EQ(log.find(c.message).function, "mp4_write_pre_open_thread");
    EXPECT_FALSE(slot_filled());
    EXPECT_EQ(mp4_session_pop(base), s);
    mp4_session_free(s);
  }
  mp4_base_free(base);
}

TEST(PreOpen, AnEmptySlotCostsTheSession) {
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  mp4_session *a = new_session(dir.file("a.mp4"), dir.file("a.mp2"));
  ASSERT_NE(a, nullptr);
  ASSERT_EQ(mp4_write_pre_open(base, a, 320, 240, 4, 3), 0);
  ASSERT_TRUE(eventually([&] { return log.has("mp4 open : video format error\n"); }));
  EXPECT_EQ(log.find("mp4 open : video format error\n").function, "mp4_write_pre_open_thread");
  touch(dir.file("a.mp4"));

  mp4_handler *handler = reinterpret_cast<mp4_handler *>(0x1);
  char p1[256], p2[256];
  EXPECT_EQ(mp4_write_open(base, p1, p2, nullptr), -1);
  EXPECT_TRUE(log.has("arg NULL\n", 3, 37));
  EXPECT_EQ(mp4_write_open(nullptr, p1, p2, &handler), -1);
  EXPECT_EQ(handler, nullptr);
  EXPECT_EQ(log.count("arg NULL\n"), 2);
  handler = reinterpret_cast<mp4_handler *>(0x1);
  EXPECT_EQ(base->mp4_session, a);

  EXPECT_EQ(mp4_write_open(base, p1, p2, &handler), -1);
  EXPECT_EQ(handler, nullptr);
  EXPECT_TRUE(log.has("mp4 open failed\n", 3, 37));
  EXPECT_TRUE(log.has("handler NULL\n", 3, 37));
  EXPECT_EQ(base->mp4_session, nullptr);  // freed, with its file
  EXPECT_FALSE(exists(dir.file("a.mp4")));

  // Until a new session is posted, every open fails.
  EXPECT_EQ(mp4_write_open(base, p1, p2, &handler), -1);
  EXPECT_EQ(log.count("handler NULL\n"), 2);

  // A ready file with no session attached is released; the popped session lives on.
  mp4_session *b = new_session(dir.file("b.mp4"), dir.file("b.mp2"));
  ASSERT_NE(b, nullptr);
  ASSERT_EQ(mp4_write_pre_open(base, b, 320, 240, 2, 3), 0);
  ASSERT_TRUE(eventually(slot_filled));
  EXPECT_EQ(mp4_session_pop(base), b);
  while (mp4_write_open(base, p1, p2, &handler) == 1) std::this_thread::sleep_for(1ms);
  EXPECT_EQ(handler, nullptr);
  EXPECT_TRUE(log.has("mp4_base->mp4_session NULL\n", 3, 37));
  EXPECT_FALSE(slot_filled());
  EXPECT_TRUE(exists(dir.file("b.mp4")));
  mp4_session_free(b);
  EXPECT_EQ(mp4_base_free(base), 0);
}

TEST(PreOpen, OpenAnswersOneWhileTheHeadIsBeingWritten) {
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  // Fully written tables for 44001 s at 30 frame/s: about 60 MB of head, which
  // keeps the thread busy long after the file has appeared.
  mp4_session *s = new_session(dir.file("big.mp4"), dir.file("big.mp2"), 30, 40000);
  ASSERT_NE(s, nullptr);
  s->stream_info->video_prealloc = 0;
  s->stream_info->audio_prealloc = 0;
  ASSERT_EQ(mp4_write_pre_open(base, s, 320, 240, 2, 3), 0);

  // The thread holds its mutex from before it creates the file until the head
  // is complete, so once the file is there and the slot is still empty, the
  // head is being written.
  ASSERT_TRUE(eventually([&] { return exists(dir.file("big.mp4")); }));
  char p1[256], p2[256];
  mp4_handler *handler = reinterpret_cast<mp4_handler *>(0x1);
  int rc;
  bool saw_one = false;
  while ((rc = mp4_write_open(base, p1, p2, &handler)) == 1) {
    saw_one = true;
    EXPECT_EQ(handler, nullptr);
    EXPECT_EQ(base->mp4_session, s);
    std::this_thread::sleep_for(1ms);
  }
  EXPECT_TRUE(saw_one) << "the head was written before it could be observed";
  EXPECT_TRUE(log.has("mp4 handler generating...\n", 7, 37));
  ASSERT_EQ(rc, 0) << log.dump();
  ASSERT_NE(handler, nullptr);
  struct stat st {};
  ASSERT_EQ(stat(dir.file("big.mp4").c_str(), &st), 0);
  EXPECT_GT(st.st_size, 40'000'000);
  EXPECT_EQ(mp4_write_close(handler), 0);
  EXPECT_EQ(mp4_session_pop(base), s);
  mp4_session_free(s);
  mp4_base_free(base);
}

TEST(PreOpen, OpenFirstGivesUpAfterTwentyTwoLooks) {
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  mp4_session *s = new_session(dir.file("a.mp4"), dir.file("a.mp2"));
  ASSERT_NE(s, nullptr);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(mp4_write_open_first(base, s, 320, 240, 0, 3), -1);
  EXPECT_GE(std::chrono::steady_clock::now() - start, 20s);
  for (int i = 0; i <= 21; ++i) {
    EXPECT_EQ(log.count("wait..." + std::to_string(i) + "\n"), 1) << i;
  }
  EXPECT_EQ(log.count("wait...22\n"), 0);
  EXPECT_TRUE(log.has("mp4_write_open_first time out\n", 3, 37));
  // The session stays attached.
  EXPECT_EQ(mp4_session_pop(base), s);
  mp4_session_free(s);
  mp4_base_free(base);
}

TEST(Base, ASecondBaseNeverMakesAFile) {
  TempDir dir;
  mp4_base *first = mp4_base_new();
  ASSERT_NE(first, nullptr);
  ASSERT_EQ(mp4_base_free(first), 0);
  EXPECT_EQ(g_pre_open_thread_status, 0);

  mp4_base *second = mp4_base_new();
  ASSERT_NE(second, nullptr);
  mp4_session *s = new_session(dir.file("a.mp4"), dir.file("a.mp2"));
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(mp4_write_pre_open(second, s, 320, 240, 2, 3), 0);
  std::this_thread::sleep_for(300ms);
  EXPECT_FALSE(exists(dir.file("a.mp4")));
  EXPECT_FALSE(slot_filled());
  // The attached session goes with the base.
  EXPECT_EQ(mp4_base_free(second), 0);
}

}  // namespace
