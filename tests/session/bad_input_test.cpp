// Bad input in the middle of a recording, followed by each call a host may make
// next: another frame, the close, or the abandon (then the close, which frees
// the handler record). Whatever the frame call answered, the next call is safe
// (the sanitizer builds check memory and leaks), and the file as it stood
// before the bad input still plays.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "buffer/data_buffer.h"
#include "mp4/handle.h"
#include "session/session_support.h"
#include "support/log_capture.h"
#include "support/media.h"

namespace {

using namespace sessiontest;
using Bytes = std::vector<uint8_t>;
using testsupport::TempDir;

enum class Next { kFrame, kClose, kAbandon };

struct BadInput {
  const char *name;
  int video_format;             // 2: H.264 + AAC; 3: H.265 + AAC; 1: MJPEG + 16-bit PCM
  int (*call)(mp4_handler *h);  // hands the bad input in; answers -1
  bool released;                // the writer lets go of the file
};

int video(Bytes b, int ts, mp4_handler *h) {
  return mp4_write_video(b.data(), static_cast<int>(b.size()), ts, h);
}

const BadInput kInputs[] = {
    {"null", 2, [](mp4_handler *h) { return mp4_write_video(nullptr, 100, 9000, h); }, true},
    {"too short", 2,
     [](mp4_handler *h) {
       return video({0, 0}, 9000, h);
     },
     true},
    {"start code only", 2,
     [](mp4_handler *h) {
       return video({0, 0, 1}, 9000, h);
     },
     true},
    {"4-byte start code only", 2,
     [](mp4_handler *h) {
       return video({0, 0, 0, 1}, 9000, h);
     },
     true},
    {"negative time stamp", 2, [](mp4_handler *h) { return video(slice(100), -1, h); }, true},
    {"oversize frame", 2,
     [](mp4_handler *h) { return video(slice(mp4rec::kLargestVideoFrame + 1), 9000, h); }, false},
    {"ADTS shorter than 8 bytes", 2,
     [](mp4_handler *h) {
       Bytes adts = {0xFF, 0xF1, 0x60, 0x40, 0x00, 0xFF, 0xFC};
       return mp4_write_audio(adts.data(), 7, 9000, h);
     },
     false},
    {"wrong PCM block size", 1,
     [](mp4_handler *h) {
       Bytes pcm(2300);
       return mp4_write_audio(pcm.data(), 2300, 9000, h);
     },
     true},
    {"JPEG without markers", 1, [](mp4_handler *h) { return video(Bytes(500, 0x11), 9000, h); },
     true},
    {"H.265 header of one byte", 3,
     [](mp4_handler *h) {
       return video({0, 0, 1, 0x26}, 9000, h);
     },
     true},
    {"H.265 slice that would outgrow a buffer node", 3,
     [](mp4_handler *h) {
       Bytes slice(300000, 0x11);  // continues the picture before it
       std::copy_n(Bytes{0, 0, 1, 0x02, 0x01, 0x00}.begin(), 6, slice.begin());
       return video(slice, 9000, h);
     },
     false},
};

TEST(BadInput, EveryNextCallIsSafeAndTheFilePlays) {
  const auto units = testsupport::access_units(testsupport::split_annexb(
      testsupport::read_file(testsupport::h264_stream(160, 120, 25, 1.0, 25))));
  const auto hevc_units = testsupport::access_units(
      testsupport::split_annexb(
          testsupport::read_file(testsupport::hevc_stream(160, 120, 25, 1.0, 25))),
      true);
  const auto aac =
      testsupport::split_adts(testsupport::read_file(testsupport::aac_stream(16000, 1.0)));
  const auto pictures =
      testsupport::split_jpeg(testsupport::read_file(testsupport::mjpeg_stream(160, 120, 25, 1.0)));
  ASSERT_GE(units.size(), 20u);
  ASSERT_GE(hevc_units.size(), 20u);
  ASSERT_GE(aac.size(), 10u);
  ASSERT_GE(pictures.size(), 10u);
  TempDir dir;
  testsupport::LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);

  // Access units [from, to) with the AAC frames that fall due before them.
  size_t next_aac = 0;
  auto feed_front = [&](mp4_handler *h, const auto &stream, size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
      Bytes au = joined(stream[i]);
      ASSERT_EQ(mp4_write_splite_sps_pps_i(au.data(), static_cast<int>(au.size()),
                                           static_cast<int>(i * 40), h),
                0);
      for (; next_aac < aac.size() && next_aac * 64 <= i * 40; ++next_aac) {
        Bytes f = aac[next_aac];
        ASSERT_EQ(mp4_write_audio(f.data(), static_cast<int>(f.size()),
                                  static_cast<int>(next_aac * 64), h),
                  0);
      }
    }
  };

  int n = 0;
  for (const BadInput &input : kInputs) {
    for (const Next next : {Next::kFrame, Next::kClose, Next::kAbandon}) {
      SCOPED_TRACE(std::string(input.name) + ", next " + std::to_string(static_cast<int>(next)));
      const std::string name = "f" + std::to_string(n++);
      OpenFile f =
          post_and_open(base, dir, name, input.video_format, input.video_format != 1 ? 3 : 2);
      ASSERT_EQ(f.opened.rc, 0) << log.dump();
      mp4_handler *h = f.opened.handler;
      const bool front = input.video_format != 1;
      const auto &au = input.video_format == 3 ? hevc_units : units;
      // H.264 and H.265: ten pictures committed, five more waiting in the data buffer.
      next_aac = 0;
      if (front) {
        feed_front(h, au, 0, 10);
        ASSERT_EQ(mp4_sync_data_buffer(static_cast<mp4_handle *>(h->mp4_handle)), 0);
        feed_front(h, au, 10, 15);
      } else {
        for (size_t i = 0; i < 5; ++i) {
          Bytes pic = pictures[i], pcm(2304);
          ASSERT_EQ(video(pic, static_cast<int>(i * 40), h), 0);
          ASSERT_EQ(mp4_write_audio(pcm.data(), 2304, 0, h), 0);
        }
      }

      ASSERT_EQ(input.call(h), -1);
      EXPECT_EQ(h->mp4_handle == nullptr, input.released);
      const int expect = input.released ? -1 : 0;
      long frames = 15;
      switch (next) {
        case Next::kFrame: {
          Bytes more = front ? joined(au[15]) : pictures[5];
          EXPECT_EQ(
              front ? mp4_write_splite_sps_pps_i(more.data(), static_cast<int>(more.size()), 600, h)
                    : video(more, 600, h),
              expect);
          if (!input.released) ++frames;
          EXPECT_EQ(mp4_write_close(h), expect);
          break;
        }
        case Next::kClose:
          EXPECT_EQ(mp4_write_close(h), expect);
          break;
        case Next::kAbandon:
          EXPECT_EQ(mp4_write_close_without_end(h), expect);
          if (!input.released) frames = 10;   // the frames still buffered are dropped
          EXPECT_EQ(mp4_write_close(h), -1);  // frees the record
          break;
      }
      const std::string kept = dir.file(name + "-kept.mp4");
      end_file(base, f, kept);
      if (!front) continue;  // an MJPEG file is indexed only by its close
      EXPECT_EQ(testsupport::ffprobe_frames(kept, "v"), frames);
      EXPECT_EQ(testsupport::ffmpeg_decode_errors(kept), "");
    }
  }
  EXPECT_EQ(log.count("mp4 write video : a frame of 4194305 bytes is larger than the largest "
                      "frame (4194304 bytes)\n"),
            3);
  mp4_base_free(base);
}

}  // namespace
