// Data buffer life cycle: create, init and delete.
#include <gtest/gtest.h>

#include "buffer_helpers.h"
#include "support/card_stream.h"
#include "support/log_capture.h"

namespace {

using namespace buffertest;

TEST(DataBuffer, CreateRefusesSizesNotAboveZero) {
  for (const auto &[video, audio] : {std::pair{0, 16}, {16, 0}, {-1, 16}, {16, -4096}}) {
    testsupport::LogCapture log;
    EXPECT_EQ(mp4_write_data_buffer_create(video, audio), nullptr) << video << "/" << audio;
    EXPECT_TRUE(log.has(" para  error!\n", 3, 37)) << log.dump();
  }
}

void count_call(void *arg) {
  ++*static_cast<int *>(arg);
}

// Init queues the nodes in element order; whatever a previous file left
// (half-filled nodes, an undrained write queue, a callback) is dropped unwritten.
TEST(DataBuffer, InitQueuesEveryNodeEmptyInElementOrder) {
  Buffer data(64, 32);
  testsupport::CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  int calls = 0;
  ASSERT_EQ(mp4_write_data_record_time_cb_register(data, count_call, &calls), 0);
  ASSERT_EQ(put_video(data, pattern(20, 1)), 0);
  ASSERT_EQ(put_video(data, pattern(10, 1)), 0);
  ASSERT_EQ(put_audio(data, pattern(10, 1)), 0);
  mp4rec::unlink_queue_head(data, data->video_queue);  // abandoned on the write queue
  mp4rec::push_to_write_queue(data, data->bufnode[0]);

  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  EXPECT_EQ(data->write_queue, nullptr);
  EXPECT_EQ(data->record_time_cb, nullptr);
  std::vector<mp4_buffer_node *> order;
  for (auto *q : {data->video_queue, data->audio_queue}) {
    for (mp4_buffer_node *n = q; n != nullptr; n = n->next) order.push_back(n);
  }
  ASSERT_EQ(order.size(), 6u);
  for (int i = 0; i < 6; ++i) {
    EXPECT_EQ(order[i], data->bufnode[i]);
    EXPECT_EQ(order[i]->media_type, i < 3 ? 1 : 0);
    EXPECT_EQ(order[i]->data_len, 0u);
    EXPECT_EQ(order[i]->frame_count, 0u);
    EXPECT_EQ(order[i]->nal_head, nullptr);  // freed: the leak checker agrees
    EXPECT_EQ(order[i]->aac_head, nullptr);
  }
  EXPECT_EQ(DataBuffer_QueueTop(data, 1), data->bufnode[0]);
  EXPECT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_TRUE(card.bytes().empty());
  EXPECT_EQ(calls, 0);
}

// The writer thread waits on its condition variable by the time create
// returns, so a delete right after it always reaches the thread.
TEST(DataBuffer, ThousandCreateDeleteCyclesNeverHang) {
  for (int i = 0; i < 1000; ++i) {
    mp4_data_buffer *data = mp4_write_data_buffer_create(64, 32);
    ASSERT_NE(data, nullptr) << i;
    ASSERT_EQ(mp4_write_data_buffer_delete(data), 0) << i;
  }
  testsupport::LogCapture log;
  EXPECT_EQ(mp4_write_data_buffer_delete(mp4_write_data_buffer_create(64, 32)), 0);
  EXPECT_TRUE(log.has(" we get exit comand,exit here!\n", 7, 37)) << log.dump();
  EXPECT_TRUE(log.has("pthread_join end\n", 7, 38));
}

}  // namespace
