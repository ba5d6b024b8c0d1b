// Helpers of the data buffer tests: an owning buffer, frames with recognisable
// bytes, and waits on the writer thread.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "buffer/data_buffer.h"

namespace buffertest {

using Bytes = std::vector<uint8_t>;

struct Buffer {  // deleted at the end of the test
  Buffer(int video, int audio) : data(mp4_write_data_buffer_create(video, audio)) {}
  ~Buffer() { mp4_write_data_buffer_delete(data); }
  mp4_data_buffer *operator->() const { return data; }
  operator mp4_data_buffer *() const { return data; }
  mp4_data_buffer *data;
};

inline Bytes pattern(size_t n, uint8_t first) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(first + i);
  return b;
}

// A video frame as it stands in mdat: 4-byte big-endian length, then payload.
inline Bytes stored_video(const Bytes &payload) {
  const auto n = static_cast<uint32_t>(payload.size());
  Bytes b{uint8_t(n >> 24), uint8_t(n >> 16), uint8_t(n >> 8), uint8_t(n)};
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}

// Enqueues a frame with its own index record, which is freed when refused.
inline int put_video(mp4_data_buffer *data, Bytes payload) {
  auto *v = static_cast<videoNode *>(std::malloc(sizeof(videoNode)));
  *v = videoNode{0, static_cast<uint32_t>(payload.size() + 4), 0, 0, nullptr};
  const int r = mp4_write_data_buffer_write_video_index(data, payload.data(), v, nullptr);
  if (r != 0) std::free(v);
  return r;
}

inline int put_audio(mp4_data_buffer *data, Bytes frame) {
  auto *a = static_cast<audioNode *>(std::malloc(sizeof(audioNode)));
  *a = audioNode{static_cast<uint32_t>(frame.size()), 0, 0, nullptr};
  const int r = mp4_write_data_buffer_write_audio_index(data, frame.data(), a, nullptr);
  if (r != 0) std::free(a);
  return r;
}

// Waits (up to ten seconds) until buffer_status takes `value`.
inline bool wait_status(mp4_data_buffer *data, int32_t value) {
  for (int i = 0; i < 10000; ++i) {
    {
      mp4rec::MutexLock lock(data->queue_lock);
      if (data->buffer_status.load() == value) return true;
    }
    usleep(1000);
  }
  return false;
}

}  // namespace buffertest
