// The card-side half of the data buffer: the writer thread that drains the
// write queue, the node writer that brings the reserved index up to date after
// each complete node, the finish of a file in the caller's thread, and the
// bindings the front end uses.
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "buffer/data_buffer.h"
#include "mp4/handle.h"

using namespace mp4rec;

namespace {

// Brings the index up to date for the frames of a node whose bytes are now in
// the file. A failed update does not fail the write.
void update_index(mp4_buffer_node *node, int media_type) {
  if (media_type == kMediaVideo) {
    if (mp4_write_moov_update_buffer(1, node->nal_head, node->nal_tail, node->mp4,
                                     node->data_len) != 0) {
      MP4_LOG_AS("DataBuffer_fwrite", kLogError, kModRecorder, "write video index error\n");
    }
  } else if (media_type == kMediaAudio) {
    if (mp4_write_moov_update_buffer(2, node->aac_head, node->aac_tail, node->mp4,
                                     node->data_len) != 0) {
      MP4_LOG_AS("DataBuffer_fwrite", kLogError, kModRecorder, "write audio index error\n");
    }
  } else {
    MP4_LOG_AS("DataBuffer_fwrite", kLogError, kModRecorder, "data type error\n");
  }
}

// Empties a written node and returns it to the tail of its own queue
// (queue_lock held).
void recycle(mp4_data_buffer *data, mp4_buffer_node *node) {
  reset_node(node);
  if (node->media_type == kMediaVideo) {
    DataBuffer_FreeVideoTrack(node);
    DataBuffer_QueuePush(&data->video_queue, node);
  } else {
    DataBuffer_FreeAACTrack(node);
    DataBuffer_QueuePush(&data->audio_queue, node);
  }
}

// Writes every node of the write queue in order (queue_lock held on entry and
// on return; released around each write). While buffer_status is not 0 and a
// node waits, it keeps re-checking with queue_lock held: after a card error or
// an exit command the writer stops there and takes nothing further.
void drain(mp4_data_buffer *data) {
  for (;;) {
    mp4_buffer_node *node = data->write_queue;
    if (node == nullptr) return;
    if (data->buffer_status.load(std::memory_order_relaxed) != kBufferOk) continue;
    const bool video = node->media_type == kMediaVideo;
    FILE *file = video ? data->video_file : data->audio_file;
    const int kind = video ? kMediaVideo : kMediaAudio;
    pthread_mutex_unlock(&data->queue_lock);
    const int r = DataBuffer_fwrite(node, file, kind);
    pthread_mutex_lock(&data->queue_lock);
    if (r == -2) {
      data->buffer_status.store(kBufferIoError, std::memory_order_relaxed);
      return;  // the failed node stays at the head of the write queue
    }
    if (r != 0) continue;
    data->write_queue = node->next;
    recycle(data, node);
    if (data->record_time_cb != nullptr) data->record_time_cb(data->record_time_arg);
  }
}

[[noreturn]] void exit_writer() {
  pthread_exit(nullptr);
}

}  // namespace

extern "C" {

int DataBuffer_fwrite(mp4_buffer_node *node, FILE *file, int media_type) {
  if (node == nullptr || file == nullptr || node->data_len == 0) return 0;
  uint32_t written = 0;
  int tries = 0;
  // errno is deliberately not cleared: whatever it holds takes part in the
  // checks below as it stands.
  for (;;) {
    const uint32_t n = node->data_len - written;
    const int r = static_cast<int>(std::fwrite(node->buf + written, 1, n, file));
    if (r < 0 && errno != EINTR && errno != EAGAIN) {
      MP4_ERR("ferror, stop writing! error:%s\n", std::strerror(errno));
      return -2;
    }
    if (static_cast<uint32_t>(r) == n) {
      update_index(node, media_type);
      return 0;
    }
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
  }
}

void *DataBuffer_Proc(void *arg) {
  auto *data = static_cast<mp4_data_buffer *>(arg);
  if (data == nullptr) {
    MP4_ERR("arg == NULL!\n");
    exit_writer();
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
      exit_writer();
    }
    pthread_cond_wait(&data->cond, &data->signal_lock);
    if (data->buffer_status.load(std::memory_order_relaxed) == kBufferExit) {
      MP4_LOG(kLogProgress, kModRecorder, " we get exit comand,exit here!\n");
      pthread_mutex_unlock(&data->signal_lock);
      exit_writer();
    }
    pthread_mutex_lock(&data->queue_lock);
    drain(data);
    pthread_mutex_unlock(&data->queue_lock);
    status = data->buffer_status.load(std::memory_order_relaxed);
    if (status == kBufferExit) {
      MP4_LOG(kLogFrames, kModRecorder, " we get exit comand,exit here!\n");
      pthread_mutex_unlock(&data->signal_lock);
      exit_writer();
    }
  }
}

int mp4_write_data_buffer_finish(mp4_data_buffer *data) {
  if (data == nullptr) {
    MP4_ERR("arg error\n");
    return -1;
  }
  int polls = 0;
  for (;;) {
    bool io_error = false;
    bool empty = false;
    {
      MutexLock lock(data->queue_lock);
      io_error = data->buffer_status.load(std::memory_order_relaxed) == kBufferIoError;
      empty = data->write_queue == nullptr;
    }
    if (io_error) {
      MP4_ERR("sd card error happened!\n");
      return -1;
    }
    if (empty) break;
    usleep(kQueueTopPauseUs);
    ++polls;
  }
  if (polls >= kQueueTopLooks) {
    MP4_LOG(kLogFrames, kModAudio, " fwrite busy, wait %d times!\n", polls);
  }
  // The writer thread is idle now; the two half-filled heads are written here.
  if (mp4_buffer_node *video = DataBuffer_QueueTop(data, kMediaVideo)) {
    const int r = DataBuffer_fwrite(video, data->video_file, kMediaVideo);
    if (r < 0) return r;
    reset_node(video);
    DataBuffer_FreeVideoTrack(video);
  }
  if (mp4_buffer_node *audio = DataBuffer_QueueTop(data, kMediaAudio)) {
    const int r = DataBuffer_fwrite(audio, data->audio_file, kMediaAudio);
    if (r < 0) return r;
    reset_node(audio);
    DataBuffer_FreeAACTrack(audio);
  }
  return 0;
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
  handle->dataBuffer = data;
  mp4_write_data_buffer_init(data, handle->file, handle->file);
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
