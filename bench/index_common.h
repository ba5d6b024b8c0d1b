// Shared by the head and index-update commands: the stream parameters of the
// files they make.
#pragma once

#include <cstdlib>
#include <memory>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "common/internal.h"

namespace bench {

constexpr int kWidth = 1920, kHeight = 1080, kFps = 30, kRate = 16000, kAudioAac = 3;

inline std::vector<int> int_list(const std::string &s) {
  std::vector<int> out;
  std::stringstream ss(s);
  std::string item;
  while (std::getline(ss, item, ','))
    if (!item.empty()) out.push_back(std::stoi(item));
  return out;
}

struct StreamInfoDeleter {
  void operator()(mp4_stream_info *p) const { std::free(p); }
};
using StreamInfoPtr = std::unique_ptr<mp4_stream_info, StreamInfoDeleter>;

inline StreamInfoPtr stream_info(int seconds, bool prealloc) {
  StreamInfoPtr info(mp4_create_stream_info());
  if (!info) throw std::runtime_error("mp4_create_stream_info failed");
  info->record_duration = uint32_t(seconds);
  info->video_frame_rate = kFps;
  info->audio_sample_rate = kRate;
  info->video_prealloc = prealloc ? 1 : 0;
  info->audio_prealloc = prealloc ? 1 : 0;
  return info;
}

}  // namespace bench
