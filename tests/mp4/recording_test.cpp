// The recording road at handle level: head, data buffer, every NAL unit and
// AAC frame of 20 s of camera media, sync, release. The file must play in
// tools nobody here wrote, and be playable at every moment while it grows.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "buffer/data_buffer.h"
#include "front_index_support.h"
#include "support/av_feed.h"
#include "support/log_capture.h"

namespace {

namespace fs = std::filesystem;

// Taken on the writer thread right after a node's bytes and its index update
// reached the file: a copy of the file as it stands, and the number of video
// samples indexed at that moment.
struct Snapshots {
  mp4_handle *handle = nullptr;
  std::string path;
  std::string dir;
  int every = 4;
  int nodes = 0;
  struct Shot {
    std::string path;
    uint32_t indexed;
  };
  std::vector<Shot> shots;
};

// Decoded video frames as ffprobe counts them, from its standard output only:
// until the first audio chunk is on the card, the audio track's sample count
// (frames accepted) runs ahead of its empty chunk table and ffprobe warns that
// the audio stream is incomplete, which does not concern the video.
long video_frames(const std::string &path) {
  const auto r = testsupport::run_command(
      "{ ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames "
      "-of csv=p=0 '" +
      path + "' 2>/dev/null; }");
  return r.status == 0 && !r.output.empty() ? std::stol(r.output) : -1;
}

void take_snapshot(void *arg) {
  auto *s = static_cast<Snapshots *>(arg);
  if (++s->nodes % s->every != 0) return;
  const std::string copy = s->dir + "/snap" + std::to_string(s->shots.size()) + ".mp4";
  fs::copy_file(s->path, copy, fs::copy_options::overwrite_existing);
  s->shots.push_back({copy, s->handle->videoSampleNumber});
}

TEST(Recording, TwentySecondsPlayAndArePlayableAtEveryMoment) {
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
  Snapshots snaps;
  snaps.handle = h;
  snaps.path = path;
  snaps.dir = dir.path();
  ASSERT_EQ(mp4_write_data_record_time_cb_register(data, take_snapshot, &snaps), 0);

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

  ASSERT_GE(snaps.shots.size(), 3u) << snaps.nodes << " nodes written";
  long last = 0;
  for (const auto &shot : snaps.shots) {
    SCOPED_TRACE(shot.path);
    const long frames = video_frames(shot.path);
    EXPECT_EQ(frames, static_cast<long>(shot.indexed));
    EXPECT_GE(frames, last);
    last = frames;
  }
  EXPECT_GT(last, 0);
  EXPECT_LT(last, 600);
}

}  // namespace
