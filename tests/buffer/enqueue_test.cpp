// Frame enqueue: placement in the head node, hand-over of full nodes, the
// split of the calls without index, busy and I/O-error answers.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>

#include "buffer_helpers.h"
#include "mp4/handle.h"
#include "support/card_stream.h"
#include "support/log_capture.h"

namespace {

using namespace buffertest;
using testsupport::CardStream;
using testsupport::LogCapture;

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

TEST(Enqueue, FrameOfExactlyTheRoomLeftStaysInTheNode) {
  Buffer data(32, 16);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  const Bytes a = pattern(16, 0x10), b = pattern(8, 0x40), c = pattern(4, 0x70);
  ASSERT_EQ(put_video(data, a), 0);
  ASSERT_EQ(put_video(data, b), 0);  // 20 + 12 bytes: exactly full, still the head
  EXPECT_EQ(data->video_queue, data->bufnode[0]);
  EXPECT_EQ(data->bufnode[0]->data_len, 32u);
  ASSERT_EQ(put_video(data, c), 0);  // hands node 0 over and goes whole into node 1
  mp4_buffer_node *next = data->bufnode[1];
  EXPECT_EQ(data->video_queue, next);
  EXPECT_EQ(next->data_len, 8u);
  EXPECT_EQ(next->frame_count, 1u);
  ASSERT_NE(next->nal_head, nullptr);
  EXPECT_EQ(next->nal_head->size, 8u);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), concat({stored_video(a), stored_video(b), stored_video(c)}));
}

// A frame larger than a node goes into a node grown for it alone, behind the
// node being filled; the node gets its own storage back once written.
TEST(Enqueue, AFrameLargerThanANodeGetsANodeOfItsOwn) {
  Buffer data(32, 16);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  uint8_t *const own = data->bufnode[1]->buf;
  const Bytes a = pattern(12, 0x10), big = pattern(100, 0x40), c = pattern(4, 0x70);
  ASSERT_EQ(put_video(data, a), 0);
  ASSERT_EQ(put_video(data, big), 0);
  ASSERT_EQ(put_video(data, c), 0);  // into the next node, as after any hand-over
  EXPECT_EQ(data->video_queue, data->bufnode[2]);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), concat({stored_video(a), stored_video(big), stored_video(c)}));
  EXPECT_EQ(data->bufnode[1]->buf, own);
  EXPECT_EQ(data->grown_nodes.load(), 0);
}

// The calls without index split a frame over two nodes; inside the length
// prefix the least significant byte is lost while data_len still counts it.
TEST(Enqueue, VideoWithoutIndexSplitsOverTwoNodes) {
  struct Case {
    uint32_t room;
    Bytes full_tail;    // bytes of the split frame in the full node
    Bytes next;         // the next node's data_len bytes as written
    uint32_t next_pos;  // its write_pos
  };
  const Case cases[] = {
      {2, {0, 0}, {0, 0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0}, 7},
      {0, {}, {0, 0, 0, 0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0}, 9},
      {4, {0, 0, 0, 6}, {0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5}, 6},
      {7, {0, 0, 0, 6, 0xB0, 0xB1, 0xB2}, {0xB3, 0xB4, 0xB5}, 3},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.room);
    Buffer data(16, 16);
    CardStream card;
    ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
    Bytes first = pattern(12 - c.room, 0xA0), second = pattern(6, 0xB0);  // size 10
    ASSERT_EQ(mp4_write_data_buffer_write_video(data, first.data(), 16 - c.room), 0);
    ASSERT_EQ(mp4_write_data_buffer_write_video(data, second.data(), 10), 0);
    EXPECT_EQ(data->bufnode[1]->data_len, 10 - c.room);
    EXPECT_EQ(data->bufnode[1]->write_pos, c.next_pos);
    ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
    EXPECT_EQ(card.bytes(), concat({stored_video(first), c.full_tail, c.next}));
  }
  Buffer data(16, 16);  // audio: the node is filled exactly, the rest carried over
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  Bytes a = pattern(11, 0x10), b = pattern(12, 0x50);
  ASSERT_EQ(mp4_write_data_buffer_write_audio(data, a.data(), 11), 0);
  ASSERT_EQ(mp4_write_data_buffer_write_audio(data, b.data(), 12), 0);
  EXPECT_EQ(data->bufnode[4]->data_len, 7u);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), concat({a, b}));
}

TEST(Enqueue, FramesOfBadSizeChangeNothing) {
  Buffer data(64, 32);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  ASSERT_EQ(put_video(data, pattern(4, 1)), 0);
  LogCapture log;
  EXPECT_EQ(put_video(data, {}), -1);  // size 4
  EXPECT_EQ(put_video(data, Bytes(mp4rec::kLargestVideoFrame - 3)), -1);
  EXPECT_EQ(put_audio(data, Bytes(33)), -1);
  Bytes big(80);
  EXPECT_EQ(mp4_write_data_buffer_write_video(data, big.data(), 4), -1);
  EXPECT_EQ(mp4_write_data_buffer_write_audio(data, big.data(), 33), -1);
  EXPECT_EQ(log.count("mp4 write video : input arg error\n"), 1) << log.dump();
  EXPECT_EQ(log.count("mp4 write video : a frame of 4194305 bytes is larger than the largest "
                      "frame (4194304 bytes)\n"),
            1);
  EXPECT_EQ(log.count("mp4 write audio : audio node error\n"), 1);
  EXPECT_EQ(log.count("input arg error\n"), 2);
  EXPECT_EQ(data->bufnode[0]->data_len, 8u);
  EXPECT_EQ(data->bufnode[0]->frame_count, 1u);
  EXPECT_EQ(data->bufnode[3]->data_len, 0u);
}

// With every video node queued and the card stalled, a producer looks 15
// times 200 ms apart and gets -4; what was queued reaches the card in order
// once it moves again.
TEST(Enqueue, StalledCardMakesProducersBusyAfterAboutThreeSeconds) {
  Buffer data(16, 16);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  card.hold();
  const Bytes f0 = pattern(10, 0x00), f1 = pattern(10, 0x20), f2 = pattern(10, 0x40);
  ASSERT_EQ(put_video(data, f0), 0);
  ASSERT_EQ(put_video(data, f1), 0);  // node 0 handed over: the writer blocks on the card
  ASSERT_TRUE(card.wait_for_held_write(10000));
  mp4rec::unlink_queue_head(data, data->video_queue);  // node 1 queued behind it
  mp4rec::push_to_write_queue(data, data->bufnode[1]);
  ASSERT_EQ(put_video(data, f2), 0);
  mp4rec::unlink_queue_head(data, data->video_queue);  // and node 2
  mp4rec::push_to_write_queue(data, data->bufnode[2]);

  LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(put_video(data, pattern(6, 0x60)), -4);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(2800));
  EXPECT_TRUE(log.has(" out of time\n", 3, 37)) << log.dump();
  const Bytes a = pattern(6, 0x60);
  EXPECT_EQ(put_audio(data, a), 0);  // audio nodes are free

  card.release();
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), concat({stored_video(f0), stored_video(f1), stored_video(f2), a}));
}

// A failed card write stops the writer: producers get -2 at once, finish -1,
// sync -2, nothing reaches the card; the next init starts afresh.
TEST(Enqueue, AfterACardErrorEveryCallAnswersIoErrorAtOnce) {
  Buffer data(16, 16);
  CardStream card;
  mp4_handle *handle = mp4rec::handle_alloc();
  handle->file = card.file();
  ASSERT_EQ(mp4_set_data_buffer(handle, data), 0);
  card.fail_with(EIO);
  ASSERT_EQ(put_video(data, pattern(10, 0)), 0);
  ASSERT_EQ(put_video(data, pattern(10, 0)), 0);  // node 0 goes to the failing card
  ASSERT_TRUE(wait_status(data, -2));
  EXPECT_EQ(data->write_queue, data->bufnode[0]);  // the failed node stays queued

  LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(put_video(data, pattern(10, 0)), -2);
  EXPECT_EQ(put_audio(data, pattern(10, 0)), -2);
  Bytes bytes = pattern(10, 0);
  EXPECT_EQ(mp4_write_data_buffer_write_video(data, bytes.data(), 10), -2);
  EXPECT_EQ(mp4_write_data_buffer_write_audio(data, bytes.data(), 10), -2);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
  EXPECT_EQ(log.count(" get IO error.\n"), 4) << log.dump();
  EXPECT_EQ(mp4_write_data_buffer_finish(data), -1);
  EXPECT_TRUE(log.has("sd card error happened!\n", 3, 37));
  EXPECT_EQ(mp4_sync_data_buffer(handle), -2);
  EXPECT_TRUE(card.bytes().empty());

  card.fail_with(0);
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  ASSERT_EQ(put_video(data, pattern(5, 0x30)), 0);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), stored_video(pattern(5, 0x30)));
  handle->file = nullptr;  // the card stream closes itself
  free_mp4_h264(handle);
}

}  // namespace
