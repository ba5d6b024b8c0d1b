#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "mp4/handle.h"
#include "support/media.h"

namespace {

TEST(Handle, RecordsAreStandardLayoutInFieldOrder) {
  static_assert(std::is_standard_layout_v<mp4_handle>);
  static_assert(std::is_standard_layout_v<updatePos>);
  static_assert(offsetof(mp4_handle, file) == 0);
  static_assert(offsetof(mp4_handle, mp2File) < offsetof(mp4_handle, creationTime));
  static_assert(offsetof(mp4_handle, mediaBytes) < offsetof(mp4_handle, sps));
  static_assert(offsetof(mp4_handle, writeStatus) < offsetof(mp4_handle, moovPos));
  static_assert(offsetof(mp4_handle, maxVideoFrames) < offsetof(mp4_handle, maxAudioFrames));
  static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t));
  static_assert(offsetof(updatePos, dataPos) > offsetof(updatePos, audioPos));
  static_assert(offsetof(videoNode, next) == 4 * sizeof(uint32_t));
  static_assert(offsetof(audioNode, reserved) == 2 * sizeof(uint32_t));
}

TEST(Handle, CapacitiesFollowThePlannedLength) {
  struct Case {
    uint32_t seconds, fps, rate, video, audio;
  };
  const Case cases[] = {
      {2000, 30, 16000, 66030, 33015},  // the stream-info defaults
      {600, 30, 16000, 661 * 30, 661 * 15},
      {10, 25, 8000, 12 * 25, 12 * 7},
      {1, 30, 1000, 2 * 30, 0},  // below 1024 Hz no audio frame fits
  };
  for (const auto &c : cases) {
    const auto cap = mp4rec::table_capacities(c.seconds, c.fps, c.rate);
    EXPECT_EQ(cap.video, c.video) << c.seconds;
    EXPECT_EQ(cap.audio, c.audio) << c.seconds;
  }
}

TEST(Handle, FreeReleasesEverythingItOwns) {
  testsupport::TempDir dir;
  mp4_handle *h = mp4rec::handle_alloc();
  h->file = mp4_fopen(dir.file("a.mp4").c_str(), "wb");
  h->mp2File = mp4_fopen(dir.file("a.mp2").c_str(), "wb+");
  h->sps = static_cast<uint8_t *>(std::malloc(10));
  h->spsLen = 10;
  h->updatePos = static_cast<updatePos *>(std::calloc(1, sizeof(updatePos)));
  h->updatePos->videoPos = static_cast<uint32_t *>(std::calloc(kVideoPosSlots, 4));
  h->updatePos->audioPos = static_cast<uint32_t *>(std::calloc(kAudioPosSlots, 4));
  h->mp2Encoder = MP2_encode_init(16000, 24000, 1);
  ASSERT_NE(h->mp2Encoder, nullptr);
  free_mp4_h264(h);

  // Nothing seen, nothing to free; a null handle is ignored.
  free_mp4_h264(mp4rec::handle_alloc());
  free_mp4_h264(nullptr);
  EXPECT_EQ(free_mp4(nullptr), -1);
}

}  // namespace
