// Sample intake: checks of H.264 and H.265 units and audio frames, parameter
// sets, capacities, and the hand-over to the data buffer.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "buffer/data_buffer.h"
#include "front_index_support.h"
#include "mp4/head.h"
#include "mp4/hevc.h"
#include "support/box_reader.h"
#include "support/log_capture.h"

namespace {

using Bytes = std::vector<uint8_t>;
using testsupport::LogCapture;

// A front-index head (H.264, or H.265) bound to a fresh data buffer.
struct Recording {
  explicit Recording(const fitest::InfoParams &plan = {}, bool bind = true, bool hevc = false,
                     int video_node = mp4rec::kVideoNodeBytes) {
    auto info = fitest::make_info(plan);
    handle = (hevc ? mp4rec::mp4_write_head_h265_index : mp4_write_head_h264_index)(
        path.c_str(), dir.file("rec.mp2").c_str(), 640, 480, 3, info.get());
    data = mp4_write_data_buffer_create(video_node, mp4rec::kAudioNodeBytes);
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

// ---- H.265 ----------------------------------------------------------------

// An H.265 unit behind a 4-byte start code: the two-byte header of `type`
// (layer 0, temporal id 0), for a slice segment the byte that begins with
// first_slice_segment_in_pic_flag, then `rest` filler bytes.
Bytes hevc_unit(int type, size_t rest, bool first_slice = true, uint8_t fill = 0x5A) {
  Bytes b = {0, 0, 0, 1, static_cast<uint8_t>(type << 1), 0x01};
  if (type < 32) b.push_back(first_slice ? 0x80 : 0x00);
  b.insert(b.end(), rest, fill);
  return b;
}

Bytes with_start_code(const Bytes &unit) {
  Bytes b = {0, 0, 0, 1};
  b.insert(b.end(), unit.begin(), unit.end());
  return b;
}

// The H.265 intake; `released` tells whether it let go of the handle.
int feed_hevc(mp4_handle *h, Bytes b, int ts = 0, bool *released = nullptr) {
  bool gone = false;
  const int r = mp4rec::write_one_h265(b.data(), static_cast<int>(b.size()), ts, h, &gone);
  if (released != nullptr) *released = gone;
  return r;
}

void feed_parameter_sets(mp4_handle *h) {
  for (const Bytes *set : {&fitest::kHevcVps, &fitest::kHevcSps, &fitest::kHevcPps})
    ASSERT_EQ(feed_hevc(h, with_start_code(*set)), 0);
}

// Every refusal gives -1 and one line. A unit without a whole header releases
// the handle as for H.264, once the picture accepted before is in the file;
// the others keep it and leave nothing in the buffer, and the next picture is
// taken.
TEST(HevcIntake, BadUnitsAreRefusedWithALineAndLoseNothing) {
  enum Before { kNothing, kParameterSets, kPicture };  // fed before the bad unit
  const struct {
    const char *name;
    Before before;
    Bytes bytes;
    const char *message;
    bool released;
  } cases[] = {
      {"one header byte", kPicture, {0, 0, 1, 0x26}, "h265 nal head error", true},
      {"slice without a slice header",
       kPicture,
       {0, 0, 1, 0x26, 0x01},
       "h265 nal head error",
       true},
      {"picture first", kNothing, hevc_unit(19, 40), "h265 picture before its parameter sets",
       false},
      {"sps cut short",
       kNothing,
       {0, 0, 1, 0x42, 0x01, 0x01, 0x24},
       "h265 sps cannot be read",
       false},
      {"pps too large", kNothing, hevc_unit(34, mp4rec::kAvcCReserve),
       "h265 parameter sets do not fit the reserved hvcC", false},
      {"slice without the first", kParameterSets, hevc_unit(1, 40, false),
       "h265 slice of a picture that was not accepted", false},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    Recording rec({}, true, true);
    ASSERT_NE(rec.handle, nullptr);
    if (c.before != kNothing) feed_parameter_sets(rec.handle);
    if (c.before == kPicture) {
      ASSERT_EQ(feed_hevc(rec.handle, hevc_unit(19, 30), 0), 0);
    }
    LogCapture log;
    bool released = false;
    EXPECT_EQ(feed_hevc(rec.handle, c.bytes, 40, &released), -1);
    const auto entries = log.entries();
    EXPECT_EQ(std::count_if(entries.begin(), entries.end(), [](auto &e) { return e.level <= 3; }),
              1)
        << log.dump();
    EXPECT_EQ(log.find(std::string("mp4 write video : ") + c.message + "\n").function,
              "write_one_h265")
        << log.dump();
    EXPECT_EQ(released, c.released);
    if (c.released) {
      rec.handle = nullptr;  // released by the call (the leak checker agrees)
      const testsupport::BoxFile f(rec.path);
      EXPECT_EQ(f.stsz(f.at("moov/trak[0]/mdia/minf/stbl/stsz")), std::vector<uint32_t>{37});
      continue;
    }
    if (c.before == kNothing) feed_parameter_sets(rec.handle);
    ASSERT_EQ(feed_hevc(rec.handle, hevc_unit(1, 10), 80), 0);
    std::vector<uint32_t> sizes;
    for (const videoNode *v = rec.data->bufnode[0]->nal_head; v != nullptr; v = v->next)
      sizes.push_back(v->size);
    EXPECT_EQ(sizes, std::vector<uint32_t>{17});
  }
}

// Slice segments that continue a picture join its sample, each behind its own
// length; a picture moves on to the next buffer node with its new slice when
// the node has no room left, and one that would outgrow a node keeps what it
// has. The file indexes one sample per picture.
TEST(HevcIntake, TheSlicesOfAPictureAreOneSample) {
  Recording rec({}, true, true, 400);
  ASSERT_NE(rec.handle, nullptr);
  feed_parameter_sets(rec.handle);
  struct Step {
    Bytes unit;
    int result;
  };
  const Step steps[] = {
      {hevc_unit(19, 93), 0},          // IDR, 100 bytes: sample 1
      {hevc_unit(19, 43, false), 0},   // + 50
      {hevc_unit(1, 43), 0},           // P, 50 bytes: sample 2
      {hevc_unit(1, 143, false), 0},   // + 150 (the node holds 350 of 400)
      {hevc_unit(1, 93, false), 0},    // + 100: sample 2 moves to the next node
      {hevc_unit(1, 43), 0},           // sample 3, 50 bytes
      {hevc_unit(1, 393, false), -1},  // + 400: more than a node; sample 3 stays
      {hevc_unit(1, 13, false), -1},   // the picture is closed now
      {hevc_unit(1, 23), 0},           // sample 4, 30 bytes
  };
  std::vector<Bytes> samples;
  for (const auto &step : steps) {
    testsupport::LogCapture log;
    ASSERT_EQ(feed_hevc(rec.handle, step.unit), step.result) << log.dump();
    if (step.result != 0) continue;
    const bool first = (step.unit[6] & 0x80) != 0;
    if (first) samples.emplace_back();
    const uint32_t len = static_cast<uint32_t>(step.unit.size() - 4);
    samples.back().insert(samples.back().end(),
                          {0, 0, static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)});
    samples.back().insert(samples.back().end(), step.unit.begin() + 4, step.unit.end());
  }
  EXPECT_EQ(rec.handle->videoCount.load(), 4u);
  ASSERT_EQ(mp4_sync_data_buffer(rec.handle), 0);
  std::fflush(rec.handle->file);
  const testsupport::BoxFile f(rec.path);
  const auto sizes = f.stsz(f.at("moov/trak[0]/mdia/minf/stbl/stsz"));
  const auto syncs = f.stss(f.at("moov/trak[0]/mdia/minf/stbl/stss"));
  Bytes media, expect;
  std::vector<uint32_t> expect_sizes;
  for (const auto &sample : samples) {
    expect.insert(expect.end(), sample.begin(), sample.end());
    expect_sizes.push_back(static_cast<uint32_t>(sample.size()));
  }
  EXPECT_EQ(sizes, expect_sizes);
  EXPECT_EQ(syncs, std::vector<uint32_t>{1});
  EXPECT_EQ(rec.handle->mediaBytes.load(), expect.size());
  EXPECT_EQ(f.slice(f.at("mdat").offset + 8, expect.size()), expect);
}

}  // namespace
