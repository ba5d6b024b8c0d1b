// The data buffer: six fixed storage nodes (three video, three audio), the
// queues that pass them between the caller's thread and the writer thread, and
// the two locks and the condition variable of the hand-over.
//
// Lock order is signal_lock, then queue_lock; only the writer thread ever holds
// both. The writer thread holds signal_lock for as long as it is draining, so a
// producer that signals after handing over a node waits until the writer is idle
// again: that is the buffer's flow control.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "common/internal.h"

// Media types of a buffer node, and the kinds DataBuffer_fwrite takes.
inline constexpr int32_t kMediaAudio = 0;
inline constexpr int32_t kMediaVideo = 1;

// Values of buffer_status.
inline constexpr int32_t kBufferOk = 0;
inline constexpr int32_t kBufferIoError = -2;
inline constexpr int32_t kBufferExit = -3;

struct mp4_buffer_node {
  uint8_t *buf;          // video_buf_size or audio_buf_size bytes, owned by the node
  uint32_t frame_count;  // index nodes attached
  uint32_t data_len;     // bytes from the start of buf that the writer writes
  uint32_t write_pos;    // where the next bytes go
  int32_t media_type;    // 1 video, 0 audio; fixed at creation
  videoNode *nal_head;   // index records of the video frames held
  videoNode *nal_tail;
  audioNode *aac_head;  // index records of the audio frames held
  audioNode *aac_tail;
  mp4_handle *mp4;        // whose index receives this node's frames
  mp4_buffer_node *next;  // link within the queue that holds the node
};

struct mp4_data_buffer {
  mp4_buffer_node *bufnode[6];   // 0-2 video, 3-5 audio
  mp4_buffer_node *write_queue;  // full nodes waiting for the writer, oldest first
  mp4_buffer_node *video_queue;  // free video nodes; the head is being filled
  int32_t video_buf_size;
  FILE *video_file;
  mp4_buffer_node *audio_queue;  // free audio nodes; the head is being filled
  int32_t audio_buf_size;
  FILE *audio_file;
  pthread_t thread;
  pthread_mutex_t queue_lock;   // queue heads, next links, buffer_status
  pthread_cond_t cond;          // wakes the writer thread
  pthread_mutex_t signal_lock;  // paired with cond; held by the writer except while waiting
  // 0 normal, -2 I/O error, -3 exit command. Written under queue_lock, read by
  // the writer thread outside it.
  std::atomic<int32_t> buffer_status;
  void *record_time_arg;
  void (*record_time_cb)(void *);
  // Start-up handshake: set by the writer thread under signal_lock before its
  // first wait, so that whoever sees it under signal_lock knows the thread is
  // waiting on cond.
  int32_t thread_started;
};

static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t));

namespace mp4rec {

// Node storage sizes that sessions use.
inline constexpr int32_t kVideoNodeBytes = 262144;
inline constexpr int32_t kAudioNodeBytes = 16384;

// QueueTop's patience: 15 looks, 200 ms apart.
inline constexpr int kQueueTopLooks = 15;
inline constexpr useconds_t kQueueTopPauseUs = 200000;

// Scoped ownership of a pthread mutex, for the places where a lock is simply
// held for a block.
class MutexLock {
 public:
  explicit MutexLock(pthread_mutex_t &m) : m_(m) { pthread_mutex_lock(&m_); }
  ~MutexLock() { pthread_mutex_unlock(&m_); }
  MutexLock(const MutexLock &) = delete;
  MutexLock &operator=(const MutexLock &) = delete;

 private:
  pthread_mutex_t &m_;
};

// Wakes the writer thread: takes signal_lock (and so waits until the writer is
// idle), signals cond and lets go.
void wake_writer(mp4_data_buffer *data);

// Pushes a node at the tail of the write queue under queue_lock.
void push_to_write_queue(mp4_data_buffer *data, mp4_buffer_node *node);

// Unlinks the head of a media queue under queue_lock; the node's next is cleared.
void unlink_queue_head(mp4_data_buffer *data, mp4_buffer_node *&queue);

// Empties a node for reuse: positions, counts, link and handle cleared.
void reset_node(mp4_buffer_node *node);

}  // namespace mp4rec
