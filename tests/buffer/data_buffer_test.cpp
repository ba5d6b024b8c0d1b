// Data buffer life cycle: create, init, delete and the queue helpers.
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>

#include "buffer_helpers.h"
#include "support/card_stream.h"
#include "support/log_capture.h"

namespace {

using namespace buffertest;

TEST(DataBuffer, RecordsKeepTheirFieldOrder) {
  static_assert(std::is_standard_layout_v<mp4_buffer_node>);
  static_assert(std::is_standard_layout_v<mp4_data_buffer>);
  static_assert(offsetof(mp4_buffer_node, buf) == 0);
  static_assert(offsetof(mp4_buffer_node, frame_count) < offsetof(mp4_buffer_node, data_len));
  static_assert(offsetof(mp4_buffer_node, write_pos) < offsetof(mp4_buffer_node, media_type));
  static_assert(offsetof(mp4_buffer_node, nal_tail) < offsetof(mp4_buffer_node, aac_head));
  static_assert(offsetof(mp4_buffer_node, mp4) < offsetof(mp4_buffer_node, next));
  static_assert(offsetof(mp4_data_buffer, bufnode) == 0);
  static_assert(offsetof(mp4_data_buffer, write_queue) == 6 * sizeof(void *));
  static_assert(offsetof(mp4_data_buffer, video_file) < offsetof(mp4_data_buffer, audio_queue));
  static_assert(offsetof(mp4_data_buffer, queue_lock) < offsetof(mp4_data_buffer, cond));
  static_assert(offsetof(mp4_data_buffer, signal_lock) < offsetof(mp4_data_buffer, buffer_status));
  static_assert(offsetof(mp4_data_buffer, record_time_arg) <
                offsetof(mp4_data_buffer, record_time_cb));
}

TEST(DataBuffer, CreateRefusesSizesNotAboveZero) {
  const std::pair<int, int> sizes[] = {{0, 16}, {16, 0}, {-1, 16}, {16, -4096}};
  for (const auto &[video, audio] : sizes) {
    testsupport::LogCapture log;
    EXPECT_EQ(mp4_write_data_buffer_create(video, audio), nullptr) << video << "/" << audio;
    EXPECT_TRUE(log.has(" para  error!\n", 3, 37)) << log.dump();
  }
}

TEST(DataBuffer, InitQueuesEveryNodeInElementOrder) {
  Buffer data(mp4rec::kVideoNodeBytes, mp4rec::kAudioNodeBytes);
  ASSERT_NE(data.data, nullptr);
  testsupport::CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);

  const auto video = queue_nodes(data, &mp4_data_buffer::video_queue);
  const auto audio = queue_nodes(data, &mp4_data_buffer::audio_queue);
  ASSERT_EQ(video.size(), 3u);
  ASSERT_EQ(audio.size(), 3u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(video[i], data->bufnode[i]);
    EXPECT_EQ(video[i]->media_type, 1);
    EXPECT_EQ(audio[i], data->bufnode[3 + i]);
    EXPECT_EQ(audio[i]->media_type, 0);
  }
  EXPECT_EQ(data->write_queue, nullptr);
  EXPECT_EQ(DataBuffer_QueueTop(data, 1), data->bufnode[0]);
  EXPECT_EQ(DataBuffer_QueueTop(data, 0), data->bufnode[3]);
  EXPECT_EQ(data->video_buf_size, 262144);
  EXPECT_EQ(data->audio_buf_size, 16384);
}

TEST(DataBuffer, BadArgumentsAreRefusedWithTheirMessages) {
  Buffer data(64, 32);
  testsupport::CardStream card;
  testsupport::LogCapture log;
  EXPECT_EQ(mp4_write_data_buffer_init(nullptr, card.file(), card.file()), -1);
  EXPECT_EQ(mp4_write_data_buffer_init(data, nullptr, card.file()), -1);
  EXPECT_EQ(mp4_write_data_buffer_init(data, card.file(), nullptr), -1);
  EXPECT_EQ(log.count(" arg error\n"), 3) << log.dump();
  EXPECT_EQ(mp4_write_data_buffer_delete(nullptr), -1);
  EXPECT_TRUE(log.has("DataBuffer Delete,arg == NULL!\n", 3, 37));
  EXPECT_EQ(DataBuffer_QueueTop(nullptr, 1), nullptr);
  EXPECT_TRUE(log.has(" arg == NULL!\n", 3, 37));
  EXPECT_EQ(DataBuffer_QueueTop(data, 2), nullptr);
  EXPECT_TRUE(log.has(" media type error\n", 3, 37));
  EXPECT_EQ(DataBuffer_QueuePush(nullptr, data->bufnode[0]), -1);
  mp4_buffer_node *queue = nullptr;
  EXPECT_EQ(DataBuffer_QueuePush(&queue, nullptr), -1);
  EXPECT_EQ(DataBuffer_FreeVideoTrack(data->bufnode[0]), 0);  // empty list
  EXPECT_EQ(DataBuffer_FreeAACTrack(data->bufnode[3]), 0);
}

TEST(DataBuffer, QueuePushAppendsAtTheTailWithoutClearingNext) {
  mp4_buffer_node a{}, b{}, c{};
  mp4_buffer_node *queue = nullptr;
  EXPECT_EQ(DataBuffer_QueuePush(&queue, &a), 0);
  EXPECT_EQ(DataBuffer_QueuePush(&queue, &b), 0);
  c.next = &a;  // callers clear next first; the push does not
  EXPECT_EQ(DataBuffer_QueuePush(&queue, &c), 0);
  EXPECT_EQ(queue, &a);
  EXPECT_EQ(a.next, &b);
  EXPECT_EQ(b.next, &c);
  EXPECT_EQ(c.next, &a);
}

void count_call(void *arg) {
  ++*static_cast<int *>(arg);
}

// Whatever a previous file left (half-filled nodes, a write queue that was
// never drained, a registered callback) is dropped by the next init.
TEST(DataBuffer, InitDropsWhatThePreviousFileLeft) {
  Buffer data(64, 32);
  testsupport::CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  int calls = 0;
  ASSERT_EQ(mp4_write_data_record_time_cb_register(data, count_call, &calls), 0);
  ASSERT_EQ(put_video(data, pattern(20, 1)), 0);
  ASSERT_EQ(put_video(data, pattern(10, 1)), 0);
  ASSERT_EQ(put_audio(data, pattern(10, 1)), 0);
  // A node abandoned on the write queue: queued, the writer never woken.
  mp4rec::unlink_queue_head(data, data->video_queue);
  mp4rec::push_to_write_queue(data, data->bufnode[0]);
  ASSERT_EQ(data->bufnode[0]->frame_count, 2u);

  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  EXPECT_EQ(data->write_queue, nullptr);
  EXPECT_EQ(data->record_time_cb, nullptr);
  EXPECT_EQ(data->record_time_arg, nullptr);
  EXPECT_EQ(queue_nodes(data, &mp4_data_buffer::video_queue).size(), 3u);
  EXPECT_EQ(queue_nodes(data, &mp4_data_buffer::audio_queue).size(), 3u);
  for (mp4_buffer_node *node : data->bufnode) {
    EXPECT_EQ(node->data_len, 0u);
    EXPECT_EQ(node->write_pos, 0u);
    EXPECT_EQ(node->frame_count, 0u);
    EXPECT_EQ(node->nal_head, nullptr);  // the records were freed (the leak checker agrees)
    EXPECT_EQ(node->aac_head, nullptr);
    EXPECT_EQ(node->mp4, nullptr);
  }
  EXPECT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_TRUE(card.bytes().empty());
  EXPECT_EQ(calls, 0);
}

// The writer thread is waiting on its condition variable by the time create
// returns, so an immediate delete always reaches it.
TEST(DataBuffer, ThousandCreateDeleteCyclesNeverHang) {
  for (int i = 0; i < 1000; ++i) {
    mp4_data_buffer *data = mp4_write_data_buffer_create(64, 32);
    ASSERT_NE(data, nullptr) << i;
    ASSERT_EQ(mp4_write_data_buffer_delete(data), 0) << i;
  }
}

TEST(DataBuffer, DeleteLogsTheJoinAndFreesRecordsStillAttached) {
  testsupport::CardStream card;
  testsupport::LogCapture log;
  mp4_data_buffer *data = mp4_write_data_buffer_create(64, 32);
  ASSERT_NE(data, nullptr);
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  ASSERT_EQ(put_video(data, pattern(8, 1)), 0);
  ASSERT_EQ(put_audio(data, pattern(8, 1)), 0);
  EXPECT_EQ(mp4_write_data_buffer_delete(data), 0);
  EXPECT_TRUE(log.has("pthread_join start\n", 7, 38)) << log.dump();
  EXPECT_TRUE(log.has("pthread_join end\n", 7, 38));
  EXPECT_TRUE(log.has(" buffer start!\n", 7, 37));
  EXPECT_TRUE(log.has(" we get exit comand,exit here!\n", 7, 37));
  EXPECT_TRUE(card.bytes().empty());
}

}  // namespace
