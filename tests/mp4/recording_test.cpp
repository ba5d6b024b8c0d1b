// The recording road at handle level: head, data buffer, every NAL unit and
// AAC frame of 20 s of camera media, sync, release. The file must play in
// tools nobody here wrote. (That it plays at every moment while it grows is
// the cut-replay test's, tests/tools/cut_replay_test.cpp.)
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "buffer/data_buffer.h"
#include "front_index_support.h"
#include "support/av_feed.h"
#include "support/log_capture.h"

namespace {

TEST(Recording, TwentySecondsPlay) {
  const auto feed = testsupport::make_av_feed(testsupport::h264_stream(640, 480, 30, 20, 30),
                                              testsupport::aac_stream(16000, 20), 30, 600);
  ASSERT_EQ(feed.pictures, 600);
  ASSERT_GT(feed.audio_frames, 300);

  testsupport::TempDir dir;
  const std::string path = dir.file("rec.mp4");
  auto info = fitest::make_info({.seconds = 30, .fps = 30, .rate = 16000});
  mp4_handle *h =
      mp4_write_head_h264_index(path.c_str(), dir.file("rec.mp2").c_str(), 640, 480, 3, info.get());
  ASSERT_NE(h, nullptr);
  mp4_data_buffer *data = mp4_write_data_buffer_create(262144, 16384);
  ASSERT_NE(data, nullptr);
  ASSERT_EQ(mp4_set_data_buffer(h, data), 0);

  testsupport::LogCapture log;
  for (const auto &u : feed.units) {
    auto bytes = u.bytes;
    const int r =
        u.video
            ? mp4_write_one_h264(bytes.data(), static_cast<int>(bytes.size()), u.ts, h)
            : mp4_write_audio_frame_realtime(h, bytes.data(), static_cast<int>(bytes.size()), u.ts);
    ASSERT_EQ(r, 0) << log.dump();
  }
  EXPECT_EQ(h->videoCount.load(), 600u);
  EXPECT_EQ(h->audioCount.load(), static_cast<uint32_t>(feed.audio_frames));
  ASSERT_EQ(mp4_sync_data_buffer(h), 0);
  EXPECT_EQ(h->videoSampleNumber, 600u);
  free_mp4_h264(h);
  EXPECT_EQ(mp4_write_data_buffer_delete(data), 0);
  for (const auto &e : log.entries()) EXPECT_GT(e.level, 3) << log.dump();

  EXPECT_EQ(testsupport::ffprobe_frames(path, "v"), 600);
  EXPECT_EQ(testsupport::ffprobe_frames(path, "a"), feed.audio_frames);
  EXPECT_EQ(testsupport::ffmpeg_decode_errors(path), "");
}

}  // namespace
