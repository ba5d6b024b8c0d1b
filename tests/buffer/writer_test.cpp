// The writer side: node writes, and the writer thread's order and callback.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "buffer_helpers.h"
#include "support/card_stream.h"
#include "support/log_capture.h"

namespace {

using namespace buffertest;
using testsupport::CardStream;
using testsupport::LogCapture;

// A node has at most four fwrite calls; each complete node is followed by its
// index update (here there is no index: the update fails, the write does not).
TEST(NodeWrite, ShortWritesAreRetriedUpToFourCalls) {
  struct Case {
    uint32_t length;
    std::vector<long> limits;  // bytes the card takes on each write; -1 fails
    int error;                 // errno of a failed write
    int result, calls;
    std::string message;  // "" when the write succeeds
  };
  const std::string ebadf = "] ret:0 error(9):" + std::string(std::strerror(EBADF)) + "\n\n";
  const Case cases[] = {
      {100, {}, 0, 0, 1, ""},
      {100, {10, 10, 10}, 0, 0, 4, ""},
      {100, {10, 10, 10, 10}, 0, -2, 4, " try fwrite 4 time, ret = 40 < data length\n"},
      {100, {-1}, EBADF, -2, 1, ebadf},
      {0, {}, 0, 0, 0, ""},  // nothing to write: no write, no index update
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.limits.size());
    Bytes storage = pattern(c.length, 0x11);
    mp4_buffer_node node{};
    node.buf = storage.data();
    node.data_len = c.length;
    CardStream card;
    card.script(c.limits, c.error);
    LogCapture log;
    errno = 0;
    EXPECT_EQ(DataBuffer_fwrite(&node, card.file(), 1), c.result);
    EXPECT_EQ(card.write_calls(), c.calls);
    if (c.result == 0) {
      EXPECT_EQ(card.bytes(), storage);
      EXPECT_EQ(log.count("write video index error\n"), c.length > 0 ? 1 : 0) << log.dump();
    } else {
      ASSERT_EQ(log.entries().size(), 1u) << log.dump();
      const auto e = log.entries()[0];
      EXPECT_NE(e.text.find(c.message), std::string::npos) << e.text;
      EXPECT_EQ(e.level, c.error == EBADF ? 3 : 7);
      EXPECT_EQ(e.module, c.error == EBADF ? 38 : 37);
    }
  }
}

void count_call(void *arg) {
  static_cast<std::atomic<int> *>(arg)->fetch_add(1, std::memory_order_relaxed);
}

// One producer, video and audio interleaved: the card receives whole nodes in
// hand-over order, then the two heads that finish writes. The callback runs
// once per node the writer thread wrote, not for those of finish.
TEST(Writer, NodesReachTheCardInHandOverOrder) {
  constexpr size_t kVideo = 40, kAudio = 24;
  Buffer data(kVideo, kAudio);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  std::atomic<int> calls{0};
  ASSERT_EQ(mp4_write_data_record_time_cb_register(data, count_call, &calls), 0);
  Bytes expect, video_node, audio_node;
  int handed_over = 0;
  auto add = [&](Bytes &node, const Bytes &stored, size_t capacity) {
    if (node.size() + stored.size() > capacity) {
      expect.insert(expect.end(), node.begin(), node.end());
      node.clear();
      ++handed_over;
    }
    node.insert(node.end(), stored.begin(), stored.end());
  };
  for (int i = 0; i < 80; ++i) {
    const Bytes v = pattern(static_cast<size_t>(1 + i % 17), static_cast<uint8_t>(i));
    add(video_node, stored_video(v), kVideo);
    ASSERT_EQ(put_video(data, v), 0);
    if (i % 3 == 0) {
      const Bytes a = pattern(static_cast<size_t>(3 + i % 11), static_cast<uint8_t>(0x80 + i));
      add(audio_node, a, kAudio);
      ASSERT_EQ(put_audio(data, a), 0);
    }
  }
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  expect.insert(expect.end(), video_node.begin(), video_node.end());
  expect.insert(expect.end(), audio_node.begin(), audio_node.end());
  EXPECT_EQ(card.bytes(), expect);
  EXPECT_EQ(calls.load(), handed_over);
}

// A video and an audio producer in two threads, each kind to its own stream:
// every byte arrives in order whatever the interleaving.
TEST(Writer, TwoProducerThreadsKeepEachStreamInOrder) {
  Buffer data(16384, 2048);
  CardStream video_card, audio_card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, video_card.file(), audio_card.file()), 0);
  auto video_frame = [](int i) { return pattern(size_t(1 + (i * 37) % 700), uint8_t(i)); };
  auto audio_frame = [](int i) { return pattern(size_t(1 + (i * 13) % 200), uint8_t(i * 7)); };
  Bytes video_expect, audio_expect;
  for (int i = 0; i < 3000; ++i) {
    const Bytes v = stored_video(video_frame(i)), a = audio_frame(i);
    video_expect.insert(video_expect.end(), v.begin(), v.end());
    audio_expect.insert(audio_expect.end(), a.begin(), a.end());
  }
  std::atomic<int> failures{0};
  std::thread video([&] {
    for (int i = 0; i < 3000; ++i) failures += put_video(data, video_frame(i)) != 0;
  });
  std::thread audio([&] {
    for (int i = 0; i < 3000; ++i) failures += put_audio(data, audio_frame(i)) != 0;
  });
  video.join();
  audio.join();
  EXPECT_EQ(failures.load(), 0);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(video_card.bytes(), video_expect);
  EXPECT_EQ(audio_card.bytes(), audio_expect);
}

}  // namespace
