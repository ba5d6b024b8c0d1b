// Helpers of the front-index writer tests: stream info records, heads made in
// a temporary directory, and node lists built by hand.
#pragma once

#include <dirent.h>

#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "mp4/handle.h"
#include "support/media.h"

namespace fitest {

struct InfoFree {
  void operator()(mp4_stream_info *p) const { std::free(p); }
};
using InfoPtr = std::unique_ptr<mp4_stream_info, InfoFree>;

struct InfoParams {
  uint32_t seconds = 10;
  int fps = 25;
  int rate = 16000;
  int time_stamps = 0;
  int video_prealloc = 0;
  int audio_prealloc = 0;
};

inline InfoPtr make_info(const InfoParams &params = {}) {
  InfoPtr info(mp4_create_stream_info());
  info->record_duration = params.seconds;
  info->video_frame_rate = params.fps;
  info->audio_sample_rate = params.rate;
  info->audio_timestamp_mode = params.time_stamps;
  info->video_prealloc = params.video_prealloc;
  info->audio_prealloc = params.audio_prealloc;
  return info;
}

struct HandleFree {
  void operator()(mp4_handle *h) const { free_mp4_h264(h); }
};
using HandlePtr = std::unique_ptr<mp4_handle, HandleFree>;

// Number of open file descriptors of this process.
inline int open_fds() {
  int n = 0;
  if (DIR *d = opendir("/proc/self/fd")) {
    while (readdir(d) != nullptr) ++n;
    closedir(d);
  }
  return n;
}

// Owns a batch of nodes linked head to tail.
template <typename Node>
struct NodeList {
  std::vector<std::unique_ptr<Node>> nodes;
  Node *head() const { return nodes.empty() ? nullptr : nodes.front().get(); }
  Node *tail() const { return nodes.empty() ? nullptr : nodes.back().get(); }
  Node &add() {
    nodes.push_back(std::make_unique<Node>());
    Node &n = *nodes.back();
    if (nodes.size() > 1) nodes[nodes.size() - 2]->next = &n;
    return n;
  }
};

inline NodeList<videoNode> video_batch(const std::vector<uint32_t> &stamps, uint32_t size = 100,
                                       std::vector<int> types = {}) {
  NodeList<videoNode> list;
  for (size_t i = 0; i < stamps.size(); ++i) {
    videoNode &n = list.add();
    n.type = i < types.size() ? types[i] : 0;
    n.size = size;
    n.timeStamp = stamps[i];
  }
  return list;
}

inline NodeList<audioNode> audio_batch(const std::vector<uint32_t> &stamps, uint32_t size = 50) {
  NodeList<audioNode> list;
  for (uint32_t ts : stamps) {
    audioNode &n = list.add();
    n.size = size;
    n.timeStamp = ts;
  }
  return list;
}

// The parameter sets of a 352x288 H.265 stream (x265: 4:2:2, 10 bits, high
// tier, level 5.1), without start codes.
inline const std::vector<uint8_t> kHevcVps = {0x40, 0x01, 0x0C, 0x01, 0xFF, 0xFF, 0x24, 0x08,
                                              0x00, 0x00, 0x03, 0x00, 0x9D, 0x08, 0x00, 0x00,
                                              0x03, 0x00, 0x00, 0x99, 0xBA, 0x02, 0x40};
inline const std::vector<uint8_t> kHevcSps = {
    0x42, 0x01, 0x01, 0x24, 0x08, 0x00, 0x00, 0x03, 0x00, 0x9D, 0x08, 0x00, 0x00, 0x03,
    0x00, 0x00, 0x99, 0xB0, 0x0B, 0x08, 0x04, 0x84, 0xD9, 0x6E, 0x92, 0x93, 0x0B, 0xC0,
    0x5A, 0x02, 0x00, 0x00, 0x03, 0x00, 0x02, 0x00, 0x00, 0x03, 0x00, 0x32, 0x10};
inline const std::vector<uint8_t> kHevcPps = {0x44, 0x01, 0xC0, 0x73, 0xC1, 0x89};

}  // namespace fitest
