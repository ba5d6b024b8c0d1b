// Helpers of the data buffer tests: an owning buffer, frames with recognisable
// bytes, index records, and waits on the writer thread.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "buffer/data_buffer.h"

namespace buffertest {

using Bytes = std::vector<uint8_t>;

// A data buffer deleted at the end of the test.
struct Buffer {
  Buffer(int video, int audio) : data(mp4_write_data_buffer_create(video, audio)) {}
  ~Buffer() {
    if (data != nullptr) mp4_write_data_buffer_delete(data);
  }
  Buffer(const Buffer &) = delete;
  Buffer &operator=(const Buffer &) = delete;
  mp4_data_buffer *operator->() const { return data; }
  operator mp4_data_buffer *() const { return data; }
  mp4_data_buffer *data;
};

// `n` bytes counting up from `first`.
inline Bytes pattern(size_t n, uint8_t first) {
  Bytes b(n);
  for (size_t i = 0; i < n; ++i) b[i] = static_cast<uint8_t>(first + i);
  return b;
}

// A video frame as it stands in mdat: 4-byte big-endian length, then payload.
inline Bytes stored_video(const Bytes &payload) {
  const auto len = static_cast<uint32_t>(payload.size());
  Bytes b{static_cast<uint8_t>(len >> 24), static_cast<uint8_t>(len >> 16),
          static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)};
  b.insert(b.end(), payload.begin(), payload.end());
  return b;
}

inline videoNode *video_node(uint32_t size, uint32_t ts = 0, int32_t type = 0) {
  auto *v = static_cast<videoNode *>(std::malloc(sizeof(videoNode)));
  *v = videoNode{type, size, ts, 0, nullptr};
  return v;
}

inline audioNode *audio_node(uint32_t size, uint32_t ts = 0) {
  auto *a = static_cast<audioNode *>(std::malloc(sizeof(audioNode)));
  *a = audioNode{size, ts, 0, nullptr};
  return a;
}

// Enqueues a video payload with its own index record; frees the record when
// the buffer refuses it.
inline int put_video(mp4_data_buffer *data, Bytes payload, mp4_handle *handle = nullptr,
                     uint32_t ts = 0, int32_t type = 0) {
  videoNode *v = video_node(static_cast<uint32_t>(payload.size() + 4), ts, type);
  const int r = mp4_write_data_buffer_write_video_index(data, payload.data(), v, handle);
  if (r != 0) std::free(v);
  return r;
}

inline int put_audio(mp4_data_buffer *data, Bytes frame, mp4_handle *handle = nullptr,
                     uint32_t ts = 0) {
  audioNode *a = audio_node(static_cast<uint32_t>(frame.size()), ts);
  const int r = mp4_write_data_buffer_write_audio_index(data, frame.data(), a, handle);
  if (r != 0) std::free(a);
  return r;
}

inline int32_t status(mp4_data_buffer *data) {
  mp4rec::MutexLock lock(data->queue_lock);
  return data->buffer_status.load();
}

// Waits (up to ten seconds) until buffer_status takes `value`.
inline bool wait_status(mp4_data_buffer *data, int32_t value) {
  for (int i = 0; i < 10000; ++i) {
    if (status(data) == value) return true;
    usleep(1000);
  }
  return false;
}

// The nodes of a queue, front to back.
inline std::vector<mp4_buffer_node *> queue_nodes(mp4_data_buffer *data,
                                                  mp4_buffer_node *mp4_data_buffer::*queue) {
  mp4rec::MutexLock lock(data->queue_lock);
  std::vector<mp4_buffer_node *> out;
  for (mp4_buffer_node *n = data->*queue; n != nullptr; n = n->next) out.push_back(n);
  return out;
}

}  // namespace buffertest
