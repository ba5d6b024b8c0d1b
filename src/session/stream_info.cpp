// The stream info record: the per-session recording parameters and their defaults.
#include <cstdlib>

#include "common/internal.h"

extern "C" mp4_stream_info *mp4_create_stream_info(void) {
  auto *info = static_cast<mp4_stream_info *>(std::malloc(sizeof(mp4_stream_info)));
  if (info == nullptr) {
    MP4_ERR("MP4 alloc stream info error\n");
    return nullptr;
  }
  // Words 5, 6 and 10 are reserved and left as allocated.
  info->record_duration = 2000;
  info->audio_timestamp_mode = 0;
  info->video_prealloc = 0;
  info->audio_prealloc = 0;
  info->movie_time_scale = 1000;
  info->audio_sample_rate = 16000;
  info->video_frame_rate = 30;
  info->buffer_hint = 8192;
  return info;
}
