// Sample intake: checks of H.264 units and audio frames, parameter sets,
// capacities, and the hand-over to the data buffer.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "buffer/data_buffer.h"
#include "front_index_support.h"
#include "support/log_capture.h"

namespace {

using Bytes = std::vector<uint8_t>;
using testsupport::LogCapture;

// A front-index head bound to a fresh data buffer.
struct Recording {
  explicit Recording(const fitest::InfoParams &plan = {}, bool bind = true) {
    auto info = fitest::make_info(plan);
    handle = mp4_write_head_h264_index(path.c_str(), dir.file("rec.mp2").c_str(), 640, 480, 3,
                                       info.get());
    data = mp4_write_data_buffer_create(mp4rec::kVideoNodeBytes, mp4rec::kAudioNodeBytes);
    if (bind) mp4_set_data_buffer(handle, data);
  }
  ~Recording() {
    free_mp4_h264(handle);
    mp4_write_data_buffer_delete(data);
  }
  testsupport::TempDir dir;
  std::string path = dir.file("rec.mp4");
  mp4_handle *handle = nullptr;
  mp4_data_buffer *data = nullptr;
};

// A unit: start code of `sc` bytes, NAL header, then `rest` filler bytes.
Bytes unit(int sc, uint8_t header, size_t rest, uint8_t fill = 0x5A) {
  Bytes b(static_cast<size_t>(sc - 1), 0);
  b.push_back(1);
  b.push_back(header);
  b.insert(b.end(), rest, fill);
  return b;
}

int feed(mp4_handle *h, Bytes b, int ts = 0) {
  return mp4_write_one_h264(b.data(), static_cast<int>(b.size()), ts, h);
}

TEST(Intake, BadUnitsReleaseTheHandle) {
  const std::string head_error = "mp4 write video : h264 nal head error\n";
  const std::string param_error = "mp4 write video : param error\n";
  const struct {
    Bytes bytes;
    int ts;
    const std::string &message;
  } cases[] = {
      {{0, 0, 0, 1}, 0, head_error},  // a 4-byte start code needs a byte behind it
      {{1, 0, 0, 1, 0x65}, 0, head_error}, {{0, 0, 2, 0x65, 0}, 0, head_error},
      {{0, 0, 1}, 0, param_error},         {unit(4, 0x65, 10), -1, param_error},
  };
  for (const auto &c : cases) {
    Recording rec;
    ASSERT_NE(rec.handle, nullptr);
    LogCapture log;
    EXPECT_EQ(feed(rec.handle, c.bytes, c.ts), -1) << c.message;
    EXPECT_TRUE(log.has(c.message, 3, 37)) << log.dump();
    rec.handle = nullptr;  // released by the call (the leak checker agrees)
  }
}

TEST(Intake, ThreeAndFourByteStartCodesStoreTheSameForm) {
  Recording rec;
  ASSERT_NE(rec.handle, nullptr);
  ASSERT_EQ(feed(rec.handle, unit(3, 0x65, 96), 1000), 0);  // 100 bytes
  ASSERT_EQ(feed(rec.handle, unit(4, 0x41, 95), 1040), 0);  // 100 bytes
  const mp4_buffer_node *node = rec.data->bufnode[0];
  const videoNode *v = node->nal_head;
  ASSERT_TRUE(v != nullptr && v->next != nullptr);
  EXPECT_EQ(std::vector<uint32_t>({uint32_t(v->type), v->size, v->timeStamp}),
            std::vector<uint32_t>({1, 101, 1000}));
  EXPECT_EQ(std::vector<uint32_t>({uint32_t(v->next->type), v->next->size}),
            std::vector<uint32_t>({0, 100}));
  EXPECT_EQ(rec.handle->videoCount.load(), 2u);
  EXPECT_EQ(rec.handle->mediaBytes.load(), 201u);
  // In the node: a 4-byte big-endian NAL length, then the NAL unit.
  EXPECT_EQ(Bytes(node->buf, node->buf + 5), (Bytes{0, 0, 0, 97, 0x65}));
  EXPECT_EQ(Bytes(node->buf + 101, node->buf + 106), (Bytes{0, 0, 0, 96, 0x41}));
  EXPECT_EQ(node->data_len, 201u);
}

TEST(Intake, ParameterSetsAreKeptOnceAndNothingButPicturesIsStored) {
  Recording rec;
  ASSERT_NE(rec.handle, nullptr);
  const Bytes sps = unit(4, 0x67, 12, 0xA1), pps = unit(3, 0x68, 3, 0xB1);
  for (const Bytes &b : {sps, pps, unit(4, 0x67, 20, 0xA2), unit(4, 0x68, 5, 0xB2),
                         unit(4, 0x06, 30), unit(4, 0x09, 1)}) {
    EXPECT_EQ(feed(rec.handle, b), 0);
  }
  EXPECT_EQ(Bytes(rec.handle->sps, rec.handle->sps + rec.handle->spsLen),
            Bytes(sps.begin() + 4, sps.end()));
  EXPECT_EQ(Bytes(rec.handle->pps, rec.handle->pps + rec.handle->ppsLen),
            Bytes(pps.begin() + 3, pps.end()));
  EXPECT_EQ(rec.handle->videoCount.load(), 0u);
  EXPECT_EQ(rec.handle->mediaBytes.load(), 0u);
  EXPECT_EQ(rec.data->bufnode[0]->data_len, 0u);
}

TEST(Intake, FullTablesRefuseWithMinusFiveAndKeepTheHandle) {
  // One second planned: (1 + 0 + 1) x 2 = 4 pictures, 2 x (16000 / 1024) = 30 frames.
  Recording rec({.seconds = 1, .fps = 2, .rate = 16000});
  ASSERT_NE(rec.handle, nullptr);
  ASSERT_EQ(rec.handle->maxVideoFrames, 4u);
  ASSERT_EQ(rec.handle->maxAudioFrames, 30u);
  for (int i = 0; i < 4; ++i) ASSERT_EQ(feed(rec.handle, unit(4, 0x41, 10), i * 500), 0);
  LogCapture log;
  EXPECT_EQ(feed(rec.handle, unit(4, 0x41, 10), 2000), -5);
  EXPECT_EQ(feed(rec.handle, unit(4, 0x65, 10), 2500), -5);
  EXPECT_EQ(log.count("mp4 write video : frame number out of range\n"), 2) << log.dump();
  Bytes frame(20, 0x33);
  for (int i = 0; i < 30; ++i) {  // audio goes on, with any time stamp
    EXPECT_EQ(mp4_write_audio_frame_realtime(rec.handle, frame.data(), 20, i * 64 - 100), 0);
  }
  EXPECT_EQ(mp4_write_audio_frame_realtime(rec.handle, frame.data(), 20, 3000), -5);
  EXPECT_TRUE(log.has("mp4 write audio : frame number out of range\n", 3, 37));
  EXPECT_EQ(rec.handle->videoCount.load(), 4u);
  EXPECT_EQ(rec.handle->audioCount.load(), 30u);
  EXPECT_EQ(rec.handle->mediaBytes.load(), 4u * 15 + 30u * 20);
  EXPECT_EQ(mp4_sync_data_buffer(rec.handle), 0);
}

// Positions are signed 32-bit: a frame that would take the file past 2 GiB is
// refused with -5 (the handle kept), and the log says why once per file.
TEST(Intake, AFrameThatWouldCrossTwoGiBIsRefused) {
  Recording rec;
  ASSERT_NE(rec.handle, nullptr);
  // 100 bytes of room left (the bytes are only counted, never buffered).
  rec.handle->mediaBytes.store(
      static_cast<uint32_t>(mp4rec::kMaxFileBytes - (rec.handle->mdatPos + 8) - 100));
  LogCapture log;
  EXPECT_EQ(feed(rec.handle, unit(4, 0x41, 90)), 0);  // 95 bytes stored
  EXPECT_EQ(feed(rec.handle, unit(4, 0x41, 2)), -5);  // 7 more do not fit
  Bytes frame(6, 1);
  EXPECT_EQ(mp4_write_audio_frame_realtime(rec.handle, frame.data(), 6, 0), -5);
  EXPECT_EQ(mp4_write_audio_frame_realtime(rec.handle, frame.data(), 5, 0), 0);  // exactly full
  EXPECT_EQ(log.count("mp4 write video : file is full\n"), 1) << log.dump();
  EXPECT_FALSE(log.has("mp4 write audio : file is full\n"));
}

// Without a data buffer, or when the buffer refuses, the handle stays.
TEST(Intake, MissingOrRefusingBufferKeepsTheHandle) {
  Bytes frame(10, 1);
  {
    Recording rec({}, /*bind=*/false);
    LogCapture log;
    EXPECT_EQ(feed(rec.handle, unit(4, 0x65, 50)), -1);
    EXPECT_EQ(mp4_write_audio_frame_realtime(rec.handle, frame.data(), 10, 0), -1);
    EXPECT_TRUE(log.has("mp4 write video : data buffer is NULL!\n", 3, 37)) << log.dump();
    EXPECT_TRUE(log.has("mp4 write audio : data buffer is NULL!\n", 3, 37));
    EXPECT_EQ(feed(rec.handle, unit(4, 0x67, 8)), 0);  // still usable
  }
  Recording rec;
  {
    mp4rec::MutexLock lock(rec.data->queue_lock);
    rec.data->buffer_status.store(-2);  // as after a failed card write
  }
  LogCapture log;
  EXPECT_EQ(feed(rec.handle, unit(4, 0x65, 50)), -2);
  EXPECT_EQ(mp4_write_audio_frame_realtime(rec.handle, frame.data(), 10, 0), -2);
  EXPECT_TRUE(log.has("mp4 write video : put frame into buffer error\n", 3, 37)) << log.dump();
  EXPECT_TRUE(log.has("mp4 write audio : put one frame into buffer error, return -2\n", 3, 37));
  EXPECT_EQ(rec.handle->videoCount.load() + rec.handle->audioCount.load(), 0u);
  EXPECT_EQ(rec.handle->mediaBytes.load(), 0u);
}

}  // namespace
