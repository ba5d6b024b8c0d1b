// Frame enqueue: placement in the head node, hand-over of full nodes, the
// split of the calls without index, busy and I/O-error answers.
#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <thread>

#include "buffer_helpers.h"
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
  ASSERT_EQ(put_video(data, b), 0);  // 20 + 12 bytes: the node is exactly full
  mp4_buffer_node *first = data->bufnode[0];
  EXPECT_EQ(first->write_pos, 32u);
  EXPECT_EQ(first->data_len, 32u);
  EXPECT_EQ(first->frame_count, 2u);
  EXPECT_EQ(data->video_queue, first);

  ASSERT_EQ(put_video(data, c), 0);  // moves the full node on, goes whole into the next
  mp4_buffer_node *second = data->bufnode[1];
  EXPECT_EQ(DataBuffer_QueueTop(data, 1), second);
  EXPECT_EQ(second->write_pos, 8u);
  EXPECT_EQ(second->data_len, 8u);
  EXPECT_EQ(second->frame_count, 1u);
  ASSERT_NE(second->nal_head, nullptr);
  EXPECT_EQ(second->nal_head, second->nal_tail);
  EXPECT_EQ(second->nal_head->size, 8u);

  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), concat({stored_video(a), stored_video(b), stored_video(c)}));
  // The full node came back empty at the tail of its queue.
  EXPECT_EQ(first->data_len, 0u);
  EXPECT_EQ(first->nal_head, nullptr);
}

TEST(Enqueue, AudioFramesAreCopiedAsTheyAreAndNeverSplitWithIndex) {
  Buffer data(32, 16);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  const Bytes a = pattern(10, 0x10), empty, b = pattern(7, 0x80);
  ASSERT_EQ(put_audio(data, a), 0);
  ASSERT_EQ(put_audio(data, empty), 0);  // a frame of 0 bytes is accepted
  EXPECT_EQ(data->bufnode[3]->frame_count, 2u);
  ASSERT_EQ(put_audio(data, b), 0);  // 7 > 6 left: whole into the next node
  EXPECT_EQ(data->bufnode[4]->data_len, 7u);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), concat({a, b}));
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
  const Bytes payload = pattern(6, 0xB0);  // size 10 with its prefix 00 00 00 06
  const Case cases[] = {
      {2, {0, 0}, {0, 0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0}, 7},
      {0, {}, {0, 0, 0, 0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0}, 9},
      {3, {0, 0, 0}, {0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5, 0}, 6},
      {4, {0, 0, 0, 6}, {0xB0, 0xB1, 0xB2, 0xB3, 0xB4, 0xB5}, 6},
      {7, {0, 0, 0, 6, 0xB0, 0xB1, 0xB2}, {0xB3, 0xB4, 0xB5}, 3},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.room);
    Buffer data(16, 16);
    CardStream card;
    ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
    Bytes first = pattern(16 - 4 - c.room, 0xA0);
    ASSERT_EQ(mp4_write_data_buffer_write_video(data, first.data(), 16 - c.room), 0);
    Bytes p = payload;
    ASSERT_EQ(mp4_write_data_buffer_write_video(data, p.data(), 10), 0);
    mp4_buffer_node *next = data->bufnode[1];
    EXPECT_EQ(data->video_queue, next);
    EXPECT_EQ(next->data_len, 10 - c.room);
    EXPECT_EQ(next->write_pos, c.next_pos);
    EXPECT_EQ(next->mp4, nullptr);
    ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
    EXPECT_EQ(card.bytes(), concat({stored_video(first), c.full_tail, c.next}));
  }
}

TEST(Enqueue, AudioWithoutIndexFillsTheNodeExactlyAndCarriesTheRest) {
  Buffer data(16, 16);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  Bytes a = pattern(11, 0x10), b = pattern(12, 0x50);
  ASSERT_EQ(mp4_write_data_buffer_write_audio(data, a.data(), 11), 0);
  ASSERT_EQ(mp4_write_data_buffer_write_audio(data, b.data(), 12), 0);
  EXPECT_EQ(data->bufnode[4]->data_len, 7u);
  EXPECT_EQ(data->bufnode[4]->write_pos, 7u);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), concat({a, b}));
}

TEST(Enqueue, BadArgumentsChangeNothing) {
  Buffer data(64, 32);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  ASSERT_EQ(put_video(data, pattern(4, 1)), 0);
  ASSERT_EQ(put_audio(data, pattern(4, 1)), 0);
  Bytes bytes = pattern(80, 0);
  struct Case {
    const char *name;
    std::function<int()> call;
    const char *message;
  };
  videoNode *v4 = video_node(4), *v65 = video_node(65), *v8 = video_node(8);
  audioNode *a33 = audio_node(33), *a8 = audio_node(8);
  const Case cases[] = {
      {"video node null",
       [&] {
         return mp4_write_data_buffer_write_video_index(data, bytes.data(), nullptr, nullptr);
       },
       "mp4 write video : videoNode is NULL!\n"},
      {"video size 4",
       [&] { return mp4_write_data_buffer_write_video_index(data, bytes.data(), v4, nullptr); },
       "mp4 write video : input arg error\n"},
      {"video larger than a node",
       [&] { return mp4_write_data_buffer_write_video_index(data, bytes.data(), v65, nullptr); },
       "mp4 write video : input arg error\n"},
      {"video payload null",
       [&] { return mp4_write_data_buffer_write_video_index(data, nullptr, v8, nullptr); },
       "mp4 write video : input arg error\n"},
      {"video data null",
       [&] { return mp4_write_data_buffer_write_video_index(nullptr, bytes.data(), v8, nullptr); },
       "mp4 write video : input arg error\n"},
      {"audio node null",
       [&] {
         return mp4_write_data_buffer_write_audio_index(data, bytes.data(), nullptr, nullptr);
       },
       "mp4 write audio : audio node error\n"},
      {"audio larger than a node",
       [&] { return mp4_write_data_buffer_write_audio_index(data, bytes.data(), a33, nullptr); },
       "mp4 write audio : audio node error\n"},
      {"audio data null",
       [&] { return mp4_write_data_buffer_write_audio_index(nullptr, bytes.data(), a8, nullptr); },
       "mp4 write audio : arg == NULL!\n"},
      {"audio bytes null",
       [&] { return mp4_write_data_buffer_write_audio_index(data, nullptr, a8, nullptr); },
       "mp4 write audio : arg == NULL!\n"},
      {"plain video size 4",
       [&] { return mp4_write_data_buffer_write_video(data, bytes.data(), 4); },
       "input arg error\n"},
      {"plain video larger than a node",
       [&] { return mp4_write_data_buffer_write_video(data, bytes.data(), 65); },
       "input arg error\n"},
      {"plain video payload null",
       [&] { return mp4_write_data_buffer_write_video(data, nullptr, 8); }, "input arg error\n"},
      {"plain audio data null",
       [&] { return mp4_write_data_buffer_write_audio(nullptr, bytes.data(), 8); },
       " arg == NULL!\n"},
      {"plain audio larger than a node",
       [&] { return mp4_write_data_buffer_write_audio(data, bytes.data(), 33); },
       "input arg error\n"},
  };
  for (const auto &c : cases) {
    LogCapture log;
    EXPECT_EQ(c.call(), -1) << c.name;
    EXPECT_TRUE(log.has(c.message, 3, 37)) << c.name << "\n" << log.dump();
    EXPECT_EQ(data->bufnode[0]->data_len, 8u) << c.name;
    EXPECT_EQ(data->bufnode[0]->frame_count, 1u) << c.name;
    EXPECT_EQ(data->bufnode[3]->data_len, 4u) << c.name;
    EXPECT_EQ(data->bufnode[3]->frame_count, 1u) << c.name;
  }
  for (void *p : {static_cast<void *>(v4), static_cast<void *>(v65), static_cast<void *>(v8),
                  static_cast<void *>(a33), static_cast<void *>(a8)}) {
    std::free(p);
  }
  LogCapture log;
  DataBuffer_NalistInsert(nullptr, data->bufnode[0]);
  EXPECT_TRUE(log.has(" input arg error\n", 3, 37));
  DataBuffer_AAClistInsert(nullptr, data->bufnode[3]);
  EXPECT_TRUE(log.has("mp4 write audio : buffer insert param error\n", 7, 37));
}

// With every video node queued and the card stalled, a producer waits 15
// looks 200 ms apart and then gets -4; the data already queued is kept and
// reaches the card in order once it moves again.
TEST(Enqueue, StalledCardMakesProducersBusyAfterAboutThreeSeconds) {
  Buffer data(16, 16);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  card.hold();
  const Bytes f0 = pattern(10, 0x00), f1 = pattern(10, 0x20), f2 = pattern(10, 0x40);
  ASSERT_EQ(put_video(data, f0), 0);
  ASSERT_EQ(put_video(data, f1), 0);  // hands node 0 over; the writer blocks on the card
  ASSERT_TRUE(card.wait_for_held_write(10000));
  // The other two nodes are queued behind it as a stalled card leaves them.
  mp4rec::unlink_queue_head(data, data->video_queue);
  mp4rec::push_to_write_queue(data, data->bufnode[1]);
  ASSERT_EQ(put_video(data, f2), 0);  // goes into node 2
  mp4rec::unlink_queue_head(data, data->video_queue);
  mp4rec::push_to_write_queue(data, data->bufnode[2]);
  ASSERT_EQ(data->video_queue, nullptr);

  LogCapture log;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(put_video(data, pattern(6, 0x60)), -4);
  const auto waited = std::chrono::steady_clock::now() - start;
  EXPECT_GE(waited, std::chrono::milliseconds(2800));
  EXPECT_TRUE(log.has(" out of time\n", 3, 37)) << log.dump();
  Bytes plain = pattern(6, 0x60);
  EXPECT_EQ(mp4_write_data_buffer_write_audio(data, plain.data(), 6), 0);  // audio is not stalled

  card.release();
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  const Bytes written = card.bytes();
  // Nodes 0, 1, 2 in queue order; the audio head is written last by finish.
  EXPECT_EQ(written, concat({stored_video(f0), stored_video(f1), stored_video(f2), plain}));
}

TEST(Enqueue, AfterACardErrorEveryCallAnswersIoErrorAtOnce) {
  Buffer data(16, 16);
  CardStream card;
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
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
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
  EXPECT_EQ(log.count(" get IO error.\n"), 4) << log.dump();
  bool plain_video = false, plain_audio = false;
  for (const auto &e : log.entries()) {
    plain_video |=
        e.text.find("]  write IOERROR data->buffer_status:-2\n\n") != std::string::npos &&
        e.module == 38 && e.level == 3;
    plain_audio |= e.text.find("] io error data->buffer_status:-2\n\n") != std::string::npos &&
                   e.module == 38 && e.level == 3;
  }
  EXPECT_TRUE(plain_video && plain_audio) << log.dump();
  EXPECT_TRUE(card.bytes().empty());

  // The next init clears the error and the buffer works again.
  card.fail_with(0);
  ASSERT_EQ(mp4_write_data_buffer_init(data, card.file(), card.file()), 0);
  const Bytes f = pattern(5, 0x30);
  ASSERT_EQ(put_video(data, f), 0);
  ASSERT_EQ(mp4_write_data_buffer_finish(data), 0);
  EXPECT_EQ(card.bytes(), stored_video(f));
}

}  // namespace
