// The data buffer: six fixed storage nodes (three video, three audio), the
// queues that pass them between the caller's thread and the writer thread, and
// the two locks and the condition variable of the hand-over.
//
// Lock order is signal_lock, then queue_lock; only the writer thread ever holds
// both. The writer thread holds signal_lock for as long as it is draining. A
// producer signals only when no wake-up is pending (wake_pending), so a frame
// call never waits for the writer's card writes: it waits only when no node is
// free, until the writer gives one back. That is the buffer's flow control.
#pragma once

#include <pthread.h>
#include <unistd.h>

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "buffer/durability.h"
#include "buffer/stall.h"
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
  // Beyond the record above: the node's own storage while `buf` is a larger
  // one grown for a single big frame (null otherwise), and whether the writer
  // thread writes the node for finish (no record-time callback then; the last
  // of them is marked kLastOfFile).
  uint8_t *own_buf;
  int32_t for_finish;
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

  // Bookkeeping of the bounded waits. The node the writer thread is writing,
  // when that write began (monotonic ms, 0 when idle) and the file bound by
  // mp4_set_data_buffer (all three under queue_lock); a count raised after
  // every node and when the thread ends; and whether it has ended.
  mp4_buffer_node *writing;
  int64_t write_started_ms;
  mp4rec::Progress progress;
  std::atomic<bool> writer_ended;
  mp4_handle *bound;
  // A handler whose close failed on a card error and that the library keeps
  // until the session's next file or the session's end (front end; under
  // queue_lock).
  void *kept_handler;
  // Video nodes holding grown storage right now (at most one).
  std::atomic<int32_t> grown_nodes;
  // How the index of this buffer's files reaches the card (mp4_set_durability).
  mp4rec::Durability durability;
  // Set (under queue_lock) by the producer that hands over a node and wakes
  // the writer, cleared by the writer when it finds the write queue empty:
  // while it is set, the writer will look at the queue again, so the next
  // producer hands over without waiting for the writer to be idle.
  int32_t wake_pending;
};

static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t));

namespace mp4rec {

// Node storage sizes that sessions use.
inline constexpr int32_t kVideoNodeBytes = 262144;
inline constexpr int32_t kAudioNodeBytes = 16384;

// QueueTop's patience for a free node: 3 s (15 looks of 200 ms). The wait
// ends as soon as the writer thread gives a node back.
inline constexpr int kQueueTopLooks = 15;
inline constexpr int64_t kQueueTopLookMs = 200;
inline constexpr int64_t kQueueTopPatienceMs = kQueueTopLooks * kQueueTopLookMs;

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
// idle), signals cond and lets go. When the writer is stuck in one write for
// longer than the bound, it gives up without signalling: the writer is draining
// and finds the new node when it comes back.
void wake_writer(mp4_data_buffer *data);

// Pushes a node at the tail of the write queue under queue_lock (no wake-up).
void push_to_write_queue(mp4_data_buffer *data, mp4_buffer_node *node);

// Unlinks the head of a media queue under queue_lock; the node's next is cleared.
void unlink_queue_head(mp4_data_buffer *data, mp4_buffer_node *&queue);

// What join_video_frame answers when it cannot join.
inline constexpr int kJoinNoFrame = 1;    // the newest frame is not in the node being filled
inline constexpr int kJoinTooLarge = -1;  // the frame would outgrow a node

// Appends one more NAL unit of `size` bytes (its 4-byte length included, as
// the node's `size` counts it), behind its length, to the newest video frame,
// which must stand last in the node being filled for `handle`: a picture that
// comes in several slices stays one sample. When that node has no room left
// the frame moves on with the unit to the next node, and the full node goes to
// the writer. Returns 0 (the frame's size has grown by `size`),
// kJoinNoFrame or kJoinTooLarge (nothing written), or the refusal of the data
// buffer (-2, -4) when no next node came: the full node then went to the
// writer with the frame as it stood.
int join_video_frame(mp4_data_buffer *data, const uint8_t *payload, uint32_t size,
                     mp4_handle *handle);

// Empties a node for reuse: positions, counts, link and handle cleared.
void reset_node(mp4_buffer_node *node);

// Gives a node grown for a big frame its own storage back.
void restore_storage(mp4_data_buffer *data, mp4_buffer_node *node);

// The largest video frame the buffer takes (length prefix included): a frame
// larger than a node goes into a node grown for it alone, whose extra storage
// is returned once it is written.
inline constexpr uint32_t kLargestVideoFrame = 4u << 20;

// When a wait on the writer thread gives up: the bound after the start of the
// write in progress, or after now when it is idle. Takes queue_lock.
int64_t stall_deadline(mp4_data_buffer *data);

// Lets go of a file: waits (within the bound) until the writer thread is not
// writing one of its nodes, drops every node still holding its frames, and
// clears every pointer of the buffer to it and its pointer to the buffer.
// False when the writer is still inside a write of this file at the deadline:
// the file must then stay allocated.
bool unbind_handle(mp4_data_buffer *data, mp4_handle *handle);

}  // namespace mp4rec
