// The card-side half of the data buffer: the writer thread that drains the
// write queue, the node writer that brings the reserved index up to date after
// each complete node, the finish of a file in the caller's thread, and the
// bindings the front end uses.
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "buffer/data_buffer.h"
#include "buffer/durability.h"
#include "mp4/handle.h"

using namespace mp4rec;

namespace {

// Empties a written node and returns it to the tail of its own queue
// (queue_lock held).
void recycle(mp4_data_buffer *data, mp4_buffer_node *node) {
  restore_storage(data, node);
  reset_node(node);
  node->for_finish = 0;
  if (node->media_type == kMediaVideo) {
    DataBuffer_FreeVideoTrack(node);
    DataBuffer_QueuePush(&data->video_queue, node);
  } else {
    DataBuffer_FreeAACTrack(node);
    DataBuffer_QueuePush(&data->audio_queue, node);
  }
}

// Writes every node of the write queue in order (queue_lock held on entry and
// on return; released around each write). After a card error or an exit
// command it leaves at once, the queue as it stands: it never waits holding
// queue_lock.
void drain(mp4_data_buffer *data) {
  for (;;) {
    mp4_buffer_node *node = data->write_queue;
    if (node == nullptr) {
      data->wake_pending = 0;  // the next node handed over wakes the writer again
      return;
    }
    if (data->buffer_status.load(std::memory_order_relaxed) != kBufferOk) return;
    const bool video = node->media_type == kMediaVideo;
    FILE *file = video ? data->video_file : data->audio_file;
    const int kind = video ? kMediaVideo : kMediaAudio;
    data->writing = node;
    data->write_started_ms = monotonic_ms();
    pthread_mutex_unlock(&data->queue_lock);
    const int r = DataBuffer_fwrite(node, file, kind);
    pthread_mutex_lock(&data->queue_lock);
    data->writing = nullptr;
    data->write_started_ms = 0;
    if (r == -2) {
      data->buffer_status.store(kBufferIoError, std::memory_order_relaxed);
      data->progress.bump();
      return;  // the failed node stays at the head of the write queue
    }
    if (r != 0) continue;
    data->write_queue = node->next;
    const bool for_finish = node->for_finish != 0;
    recycle(data, node);
    if (data->record_time_cb != nullptr && !for_finish) data->record_time_cb(data->record_time_arg);
    data->progress.bump();
  }
}

// Ends the writer thread; whoever deletes the buffer learns of it first.
[[noreturn]] void exit_writer(mp4_data_buffer *data) {
  if (data != nullptr) {
    data->writer_ended.store(true, std::memory_order_release);
    data->progress.bump();
  }
  pthread_exit(nullptr);
}

}  // namespace

extern "C" {

int DataBuffer_fwrite(mp4_buffer_node *node, FILE *file, int media_type) {
  if (node == nullptr || file == nullptr || node->data_len == 0) return 0;
  uint32_t written = 0;
  int tries = 0;
  // The node's bytes are flushed before its index is touched, so that an index
  // entry never names bytes still waiting in the stream's buffer. After a
  // failed write a buffered stream may count bytes that never reached the file
  // (they were lost with its buffer): a retry resumes from where the file
  // really ends, never behind a hole.
  const long start = std::ftell(file);
  // errno is deliberately not cleared: whatever it holds takes part in the
  // checks below as it stands.
  for (;;) {
    const uint32_t n = node->data_len - written;
    const int r = static_cast<int>(std::fwrite(node->buf + written, 1, n, file));
    if (r < 0 && errno != EINTR && errno != EAGAIN) {
      MP4_ERR("ferror, stop writing! error:%s\n", std::strerror(errno));
      return -2;
    }
    // The index follows the node's bytes, at once or at the durable mode's
    // next commit.
    if (static_cast<uint32_t>(r) == n && std::fflush(file) == 0)
      return durability_node_written(node, media_type) ? 0 : -2;
    if (errno == EBADF) {
      MP4_LOG38(kLogError, "[%d] ret:%d error(%d):%s\n\n", r, errno, std::strerror(errno));
      return -2;
    }
    if (++tries == 4) {
      MP4_LOG(kLogProgress, kModRecorder, " try fwrite %d time, ret = %d < data length\n", tries,
              static_cast<int>(written) + r);
      return -2;
    }
    if (r > 0) written += static_cast<uint32_t>(r);
    const long at = std::ftell(file);
    if (start >= 0 && at >= start && at - start < static_cast<long>(written))
      written = static_cast<uint32_t>(at - start);
  }
}

void *DataBuffer_Proc(void *arg) {
  auto *data = static_cast<mp4_data_buffer *>(arg);
  if (data == nullptr) {
    MP4_ERR("arg == NULL!\n");
    exit_writer(nullptr);
  }
  MP4_LOG(kLogProgress, kModRecorder, " buffer start!\n");
  // signal_lock is held from here on and given up only inside the wait on cond.
  pthread_mutex_lock(&data->signal_lock);
  data->thread_started = 1;
  int32_t status = data->buffer_status.load(std::memory_order_relaxed);
  for (;;) {
    // An exit command seen before waiting ends the thread still owning
    // signal_lock. After a drain the status read there is the one tested here.
    if (status == kBufferExit) {
      MP4_LOG(kLogProgress, kModAudio, " we get exit comand,exit here!\n");
      exit_writer(data);
    }
    pthread_cond_wait(&data->cond, &data->signal_lock);
    if (data->buffer_status.load(std::memory_order_relaxed) == kBufferExit) {
      MP4_LOG(kLogProgress, kModRecorder, " we get exit comand,exit here!\n");
      pthread_mutex_unlock(&data->signal_lock);
      exit_writer(data);
    }
    pthread_mutex_lock(&data->queue_lock);
    drain(data);
    pthread_mutex_unlock(&data->queue_lock);
    status = data->buffer_status.load(std::memory_order_relaxed);
    if (status == kBufferExit) {
      MP4_LOG(kLogFrames, kModRecorder, " we get exit comand,exit here!\n");
      pthread_mutex_unlock(&data->signal_lock);
      exit_writer(data);
    }
  }
}

int mp4_write_data_buffer_finish(mp4_data_buffer *data) {
  if (data == nullptr) {
    MP4_ERR("arg error\n");
    return -1;
  }
  // Waits while the writer thread drains the queue, then hands it the two
  // half-filled heads and waits for them too: every card write stays on the
  // writer thread, so a write that never returns cannot hold the caller. The
  // wait gives up when one node's write takes longer than the bound.
  const int64_t start = monotonic_ms();
  mp4_buffer_node *heads[2] = {nullptr, nullptr};  // video, audio
  mp4_buffer_node *finals[2] = {nullptr, nullptr};
  bool handed = false;
  for (;;) {
    const uint64_t seen = data->progress.seen();
    bool io_error = false, empty = false, writing = false, stalled = false, failed_final = false;
    {
      MutexLock lock(data->queue_lock);
      io_error = data->buffer_status.load(std::memory_order_relaxed) == kBufferIoError;
      empty = data->write_queue == nullptr;
      writing = data->writing != nullptr;
      failed_final = io_error && handed && data->write_queue != nullptr &&
                     (data->write_queue == finals[0] || data->write_queue == finals[1]);
      const int64_t started = data->write_started_ms;
      stalled = !io_error && writing && monotonic_ms() - started > stall_bound_ms();
      if (stalled) data->buffer_status.store(kBufferIoError, std::memory_order_relaxed);
    }
    if (failed_final) return -2;  // a last write failed; the node writer has said why
    if (io_error || stalled) {
      MP4_ERR("sd card error happened!\n");
      return -1;
    }
    if (empty && handed) {
      // As before the writer thread did the last writes: each queue holds its
      // old head alone until the next init.
      mp4_handle *bound = nullptr;
      {
        MutexLock lock(data->queue_lock);
        bound = data->bound;
        data->video_queue = heads[0];
        data->audio_queue = heads[1];
        for (mp4_buffer_node *head : heads)
          if (head != nullptr) head->next = nullptr;
      }
      // The last node committed and revealed what the durable mode kept back;
      // without a last node to write that happens here.
      return durability_finish(data, bound);
    }
    if (empty) {
      const int64_t polls = (monotonic_ms() - start) / kQueueTopLookMs;
      if (polls >= kQueueTopLooks) {
        MP4_LOG(kLogFrames, kModAudio, " fwrite busy, wait %d times!\n", static_cast<int>(polls));
      }
      // The writer thread is idle now: the heads are handed to it in this order.
      MutexLock lock(data->queue_lock);
      int n = 0;
      heads[0] = data->video_queue;
      heads[1] = data->audio_queue;
      for (mp4_buffer_node **queue : {&data->video_queue, &data->audio_queue}) {
        mp4_buffer_node *head = *queue;
        if (head == nullptr) continue;
        if (head->data_len == 0) {  // nothing to write: emptied where it stands
          head->media_type == kMediaVideo ? DataBuffer_FreeVideoTrack(head)
                                          : DataBuffer_FreeAACTrack(head);
          mp4_buffer_node *next = head->next;
          reset_node(head);
          head->next = next;
          continue;
        }
        *queue = head->next;
        head->next = nullptr;
        head->for_finish = 1;
        DataBuffer_QueuePush(&data->write_queue, head);
        finals[n++] = head;
      }
      if (n > 0) finals[n - 1]->for_finish = mp4rec::kLastOfFile;  // written last
      handed = true;
      if (n == 0) continue;
    }
    if (!writing) wake_writer(data);  // a node waits and the writer is idle
    data->progress.wait(seen, std::min(monotonic_ms() + kQueueTopLookMs, stall_deadline(data)));
  }
}

int mp4_set_data_buffer(mp4_handle *handle, mp4_data_buffer *data) {
  if (handle == nullptr || data == nullptr) {
    MP4_ERR("mp4 prepare buffer : param error\n");
    return -1;
  }
  if (handle->file == nullptr) {
    MP4_ERR("mp4 prepare : file path param error\n");
    return -1;
  }
  // A file still bound to the buffer lets go of it first; the writer thread
  // must not be inside a write of that file while the queues are rebuilt.
  mp4_handle *previous = nullptr;
  {
    MutexLock lock(data->queue_lock);
    previous = data->bound;
  }
  if (previous != nullptr && previous != handle && !unbind_handle(data, previous)) {
    MP4_ERR("mp4 prepare buffer : the card has not finished the previous file\n");
    return -1;
  }
  handle->dataBuffer = data;
  mp4_write_data_buffer_init(data, handle->file, handle->file);
  MutexLock lock(data->queue_lock);
  data->bound = handle;
  return 0;
}

int mp4_sync_data_buffer(mp4_handle *handle) {
  if (handle == nullptr) return -1;
  if (handle->dataBuffer == nullptr) {
    std::printf("mp4_write_data_buffer_finish:args error!\n");
    return -1;
  }
  if (mp4_write_data_buffer_finish(handle->dataBuffer) < 0) {
    std::printf("mp4_write_data_buffer_finish:buffer_video error!\n");
    return -2;
  }
  return 0;
}

int mp4_write_data_record_time_cb_register(mp4_data_buffer *data, void (*cb)(void *), void *arg) {
  if (data == nullptr || cb == nullptr || arg == nullptr) {
    MP4_ERR("arg error\n");
    return -1;
  }
  // The writer thread reads the pair under queue_lock.
  MutexLock lock(data->queue_lock);
  data->record_time_arg = arg;
  data->record_time_cb = cb;
  return 0;
}

}  // extern "C"
