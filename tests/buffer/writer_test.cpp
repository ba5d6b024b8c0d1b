// The writer side: node writes, the writer thread's order and callback,
// finish, and the bindings to an MP4 handle.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "buffer_helpers.h"
#include "mp4/handle.h"
#include "support/card_stream.h"
#include "support/log_capture.h"

namespace {

using namespace buffertest;
using testsupport::CardStream;
using testsupport::LogCapture;

// A node of its own with `n` bytes of content, outside any buffer.
struct LooseNode {
  explicit LooseNode(uint32_t n, int32_t media_type = 1) : storage(pattern(n, 0x11)) {
    node.buf = storage.data();
    node.data_len = n;
    node.write_pos = n;
    node.media_type = media_type;
  }
  Bytes storage;
  mp4_buffer_node node{};
};

TEST(NodeWrite, ShortWritesAreRetriedUpToFourCalls) {
  struct Case {
    std::vector<long> limits;  // bytes the card takes on each write
    int result;
    int calls;
    const char *message;  // logged at level 7 when the node fails
  };
  const Case cases[] = {
      {{}, 0, 1, nullptr},
      {{10}, 0, 2, nullptr},
      {{10, 10, 10}, 0, 4, nullptr},
      {{10, 10, 10, 10}, -2, 4, " try fwrite 4 time, ret = 40 < data length\n"},
      {{0, 0, 0, 0}, -2, 4, " try fwrite 4 time, ret = 0 < data length\n"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.limits.size());
    LooseNode n(100);
    CardStream card;
    card.script(c.limits);
    LogCapture log;
    errno = 0;
    EXPECT_EQ(DataBuffer_fwrite(&n.node, card.file(), 1), c.result);
    EXPECT_EQ(card.write_calls(), c.calls);
    if (c.result == 0) {
      EXPECT_EQ(card.bytes(), n.storage);
      // A complete node has its index brought up to date (here there is none).
      EXPECT_EQ(log.count("write video index error\n"), 1) << log.dump();
    } else {
      EXPECT_TRUE(log.has(c.message, 7, 37)) << log.dump();
      EXPECT_EQ(log.count("write video index error\n"), 0);
    }
  }
}

TEST(NodeWrite, BadDescriptorStopsAtOnce) {
  LooseNode n(64);
  CardStream card;
  card.fail_with(EBADF);
  LogCapture log;
  EXPECT_EQ(DataBuffer_fwrite(&n.node, card.file(), 0), -2);
  const auto entries = log.entries();
  ASSERT_EQ(entries.size(), 1u) << log.dump();
  EXPECT_EQ(entries[0].level, 3);
  EXPECT_EQ(entries[0].module, 38);
  EXPECT_EQ(entries[0].function, "DataBuffer_fwrite");
  const std::string tail = "] ret:0 error(9):" + std::string(std::strerror(EBADF)) + "\n\n";
  EXPECT_EQ(entries[0].text.rfind('[', 0), 0u);
  EXPECT_NE(entries[0].text.find(tail), std::string::npos) << entries[0].text;
}

TEST(NodeWrite, NothingToWriteMeansNoWriteAndNoIndexUpdate) {
  CardStream card;
  LooseNode empty(0);
  LogCapture log;
  EXPECT_EQ(DataBuffer_fwrite(&empty.node, card.file(), 1), 0);
  EXPECT_EQ(DataBuffer_fwrite(nullptr, card.file(), 1), 0);
  LooseNode n(8);
  EXPECT_EQ(DataBuffer_fwrite(&n.node, nullptr, 1), 0);
  EXPECT_EQ(card.write_calls(), 0);
  EXPECT_TRUE(log.entries().empty()) << log.dump();
}

TEST(NodeWrite, EachKindUpdatesItsOwnTrack) {
  struct Case {
    int kind;
    const char *message;
  };
  const Case cases[] = {
      {1, "write video index error\n"}, {0, "write audio index error\n"}, {7, "data type error\n"}};
  for (const auto &c : cases) {
    LooseNode n(8);
    CardStream card;
    LogCapture log;
    EXPECT_EQ(DataBuffer_fwrite(&n.node, card.file(), c.kind), 0) << c.kind;
    EXPECT_TRUE(log.has(c.message, 3, 37)) << log.dump();
    EXPECT_EQ(log.find(c.message).function, "DataBuffer_fwrite");
  }
}

void count_call(void *arg) {
  static_cast<std::atomic<int> *>(arg)->fetch_add(1, std::memory_order_relaxed);
}

// Single producer, video and audio interleaved: the card receives whole nodes
// in the order they were handed over, then the two heads written by finish.
// The callback runs once per node the writer thread wrote.
TEST(Writer, NodesReachTheCardInHandOverOrder) {
  constexpr int kVideo = 40, kAudio = 24;
  Buffer data(kVideo, kAudio);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  std::atomic<int> calls{0};
  ASSERT_EQ(mp4_write_data_record_time_cb_register(data, count_call, &calls), 0);

  Bytes expect, video_node, audio_node;
  int handed_over = 0;
  for (int i = 0; i < 80; ++i) {
    const Bytes v = pattern(static_cast<size_t>(1 + i % 17), static_cast<uint8_t>(i));
    const Bytes stored = stored_video(v);
    if (video_node.size() + stored.size() > kVideo) {
      expect.insert(expect.end(), video_node.begin(), video_node.end());
      video_node.clear();
      ++handed_over;
    }
    video_node.insert(video_node.end(), stored.begin(), stored.end());
    ASSERT_EQ(put_video(data, v, nullptr, static_cast<uint32_t>(i)), 0);
    if (i % 3 == 0) {
      const Bytes a = pattern(static_cast<size_t>(3 + i % 11), static_cast<uint8_t>(0x80 + i));
      if (audio_node.size() + a.size() > kAudio) {
        expect.insert(expect.end(), audio_node.begin(), audio_node.end());
        audio_node.clear();
        ++handed_over;
      }
      audio_node.insert(audio_node.end(), a.begin(), a.end());
      ASSERT_EQ(put_audio(data, a), 0);
    }
  }
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  expect.insert(expect.end(), video_node.begin(), video_node.end());
  expect.insert(expect.end(), audio_node.begin(), audio_node.end());
  EXPECT_EQ(card.bytes(), expect);
  EXPECT_EQ(calls.load(), handed_over);
}

// A video and an audio producer in two threads, each kind going to its own
// stream: every byte arrives in order, whatever the interleaving.
TEST(Writer, TwoProducerThreadsKeepEachStreamInOrder) {
  Buffer data(16384, 2048);
  CardStream video_card, audio_card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, video_card.file(), audio_card.file()), 0);
  std::atomic<int> calls{0};
  ASSERT_EQ(mp4_write_data_record_time_cb_register(data, count_call, &calls), 0);
  Bytes video_expect, audio_expect;
  for (int i = 0; i < 3000; ++i) {
    const Bytes v =
        stored_video(pattern(static_cast<size_t>(1 + (i * 37) % 700), static_cast<uint8_t>(i)));
    video_expect.insert(video_expect.end(), v.begin(), v.end());
  }
  for (int i = 0; i < 3000; ++i) {
    const Bytes a = pattern(static_cast<size_t>(1 + (i * 13) % 200), static_cast<uint8_t>(i * 7));
    audio_expect.insert(audio_expect.end(), a.begin(), a.end());
  }
  std::thread video([&] {
    for (int i = 0; i < 3000; ++i) {
      ASSERT_EQ(put_video(data, pattern(static_cast<size_t>(1 + (i * 37) % 700),
                                        static_cast<uint8_t>(i))),
                0);
    }
  });
  std::thread audio([&] {
    for (int i = 0; i < 3000; ++i) {
      ASSERT_EQ(put_audio(data, pattern(static_cast<size_t>(1 + (i * 13) % 200),
                                        static_cast<uint8_t>(i * 7))),
                0);
    }
  });
  video.join();
  audio.join();
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(video_card.bytes(), video_expect);
  EXPECT_EQ(audio_card.bytes(), audio_expect);
  EXPECT_GT(calls.load(), 100);
}

// A real device that refuses every write: the writer thread stops with -2.
TEST(Writer, FullDeviceStopsTheWriter) {
  FILE *full = std::fopen("/dev/full", "w");
  if (full == nullptr) GTEST_SKIP() << "no /dev/full";
  Buffer data(65536, 16384);
  ASSERT_EQ(mp4_write_data_buffer_init(data, full, full), 0);
  LogCapture log;
  ASSERT_EQ(put_video(data, pattern(40000, 1)), 0);
  ASSERT_EQ(put_video(data, pattern(40000, 2)), 0);  // hands the first node over
  ASSERT_TRUE(wait_status(data, -2)) << log.dump();
  EXPECT_EQ(put_video(data, pattern(100, 3)), -2);
  EXPECT_EQ(put_audio(data, pattern(100, 3)), -2);
  EXPECT_EQ(mp4_write_data_buffer_finish(data), -1);
  EXPECT_EQ(log.count("write video index error\n"), 0) << log.dump();
  ASSERT_EQ(mp4_write_data_buffer_init(data, full, full), 0);  // drop what is queued
  std::fclose(full);
}

TEST(Writer, CardErrorStopsFinishAndSync) {
  Buffer data(16, 16);
  CardStream card;
  mp4_handle *handle = mp4rec::handle_alloc();
  ASSERT_NE(handle, nullptr);
  handle->file = card.file();
  ASSERT_EQ(mp4_set_data_buffer(handle, data), 0);
  EXPECT_EQ(handle->dataBuffer, data.data);
  card.fail_with(EIO);
  ASSERT_EQ(put_audio(data, pattern(10, 0)), 0);
  ASSERT_EQ(put_audio(data, pattern(10, 0)), 0);
  ASSERT_TRUE(wait_status(data, -2));

  LogCapture log;
  EXPECT_EQ(mp4_write_data_buffer_finish(data), -1);
  EXPECT_TRUE(log.has("sd card error happened!\n", 3, 37)) << log.dump();
  testing::internal::CaptureStdout();
  EXPECT_EQ(mp4_sync_data_buffer(handle), -2);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(),
            "mp4_write_data_buffer_finish:buffer_video error!\n");
  EXPECT_TRUE(card.bytes().empty());
  handle->file = nullptr;  // the card stream is closed by its owner
  free_mp4_h264(handle);
}

TEST(Writer, FinishLeavesOneEmptyHeadPerKind) {
  Buffer data(16, 16);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  const Bytes a = pattern(12, 0x40);
  ASSERT_EQ(put_audio(data, a), 0);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), a);
  for (auto queue : {&mp4_data_buffer::video_queue, &mp4_data_buffer::audio_queue}) {
    const auto nodes = queue_nodes(data, queue);
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(nodes[0]->data_len, 0u);
    EXPECT_EQ(nodes[0]->frame_count, 0u);
    EXPECT_EQ(nodes[0]->aac_head, nullptr);
  }
  // Finish with nothing buffered writes nothing.
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.write_calls(), 1);
}

TEST(Writer, BindingsRefuseBadArguments) {
  Buffer data(16, 16);
  mp4_handle *handle = mp4rec::handle_alloc();
  ASSERT_NE(handle, nullptr);
  LogCapture log;
  EXPECT_EQ(mp4_set_data_buffer(nullptr, data), -1);
  EXPECT_EQ(mp4_set_data_buffer(handle, nullptr), -1);
  EXPECT_EQ(log.count("mp4 prepare buffer : param error\n"), 2) << log.dump();
  EXPECT_EQ(mp4_set_data_buffer(handle, data), -1);  // no file
  EXPECT_TRUE(log.has("mp4 prepare : file path param error\n", 3, 37));
  EXPECT_EQ(handle->dataBuffer, nullptr);

  EXPECT_EQ(mp4_sync_data_buffer(nullptr), -1);
  testing::internal::CaptureStdout();
  EXPECT_EQ(mp4_sync_data_buffer(handle), -1);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "mp4_write_data_buffer_finish:args error!\n");

  EXPECT_EQ(mp4_write_data_buffer_finish(nullptr), -1);
  EXPECT_TRUE(log.has("arg error\n", 3, 37));
  int arg = 0;
  EXPECT_EQ(mp4_write_data_record_time_cb_register(nullptr, count_call, &arg), -1);
  EXPECT_EQ(mp4_write_data_record_time_cb_register(data, nullptr, &arg), -1);
  EXPECT_EQ(mp4_write_data_record_time_cb_register(data, count_call, nullptr), -1);
  EXPECT_EQ(log.count("arg error\n"), 4);
  free_mp4_h264(handle);
}

}  // namespace
