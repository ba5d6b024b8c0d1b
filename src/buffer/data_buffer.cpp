// Data buffer life cycle: create (with its writer thread), init per file,
// delete, and the node and list helpers shared by the enqueue and writer sides.
#include "buffer/data_buffer.h"

#include <sched.h>

#include <new>

#include "mp4/handle.h"

using namespace mp4rec;

namespace mp4rec {

void reset_node(mp4_buffer_node *node) {
  node->write_pos = 0;
  node->data_len = 0;
  node->frame_count = 0;
  node->next = nullptr;
  node->mp4 = nullptr;
}

int64_t stall_deadline(mp4_data_buffer *data) {
  int64_t started = 0;
  {
    MutexLock lock(data->queue_lock);
    started = data->write_started_ms;
  }
  return (started != 0 ? started : monotonic_ms()) + stall_bound_ms();
}

void wake_writer(mp4_data_buffer *data) {
  if (!lock_until(data->signal_lock, stall_deadline(data))) return;
  pthread_cond_signal(&data->cond);
  pthread_mutex_unlock(&data->signal_lock);
}

void restore_storage(mp4_data_buffer *data, mp4_buffer_node *node) {
  if (node->own_buf == nullptr) return;
  delete[] node->buf;
  node->buf = node->own_buf;
  node->own_buf = nullptr;
  data->grown_nodes.fetch_sub(1, std::memory_order_relaxed);
}

void push_to_write_queue(mp4_data_buffer *data, mp4_buffer_node *node) {
  MutexLock lock(data->queue_lock);
  DataBuffer_QueuePush(&data->write_queue, node);
}

void unlink_queue_head(mp4_data_buffer *data, mp4_buffer_node *&queue) {
  MutexLock lock(data->queue_lock);
  mp4_buffer_node *node = queue;
  if (node == nullptr) return;
  queue = node->next;
  node->next = nullptr;
}

}  // namespace mp4rec

namespace {

// What create has set up so far, so that a failure undoes exactly that.
struct Setup {
  bool queue_lock = false;
  bool cond = false;
  bool signal_lock = false;
};

void free_node(mp4_buffer_node *node) {
  if (node == nullptr) return;
  delete[] node->buf;
  delete[] node->own_buf;
  delete node;
}

void release(mp4_data_buffer *data, const Setup &setup) {
  if (setup.queue_lock) pthread_mutex_destroy(&data->queue_lock);
  if (setup.cond) pthread_cond_destroy(&data->cond);
  if (setup.signal_lock) pthread_mutex_destroy(&data->signal_lock);
  for (mp4_buffer_node *&node : data->bufnode) {
    free_node(node);
    node = nullptr;
  }
  delete data;
}

// Makes one node of a kind; null (with its message logged) on failure.
mp4_buffer_node *make_node(int32_t media_type, int32_t size) {
  const bool video = media_type == kMediaVideo;
  auto *node = new (std::nothrow) mp4_buffer_node{};
  if (node == nullptr) {
    MP4_LOG_AS("mp4_write_data_buffer_create", kLogError, kModRecorder,
               video ? " malloc video bufnode fail!\n" : " malloc audio bufnode fail!\n");
    return nullptr;
  }
  node->media_type = media_type;
  node->buf = new (std::nothrow) uint8_t[static_cast<size_t>(size)]();
  if (node->buf == nullptr) {
    MP4_LOG_AS("mp4_write_data_buffer_create", kLogError, kModRecorder,
               video ? " malloc video buf fail!\n" : " malloc audio buf fail!\n");
    delete node;
    return nullptr;
  }
  return node;
}

// Empties a node, dropping whatever frames it holds.
void empty_node(mp4_data_buffer *data, mp4_buffer_node *node) {
  DataBuffer_FreeVideoTrack(node);
  DataBuffer_FreeAACTrack(node);
  restore_storage(data, node);
  reset_node(node);
}

// Empties a node and appends it to a media queue (init).
void rebind_node(mp4_data_buffer *data, mp4_buffer_node *node, mp4_buffer_node **queue) {
  empty_node(data, node);
  DataBuffer_QueuePush(queue, node);
}

mp4_buffer_node **queue_of(mp4_data_buffer *data, const mp4_buffer_node *node) {
  return node->media_type == kMediaVideo ? &data->video_queue : &data->audio_queue;
}

// Waits (until `deadline_ms`) for the writer thread to end; true when it did.
bool await_writer_end(mp4_data_buffer *data, int64_t deadline_ms) {
  for (;;) {
    const uint64_t seen = data->progress.seen();
    if (data->writer_ended.load(std::memory_order_acquire)) return true;
    if (!data->progress.wait(seen, deadline_ms) &&
        !data->writer_ended.load(std::memory_order_acquire)) {
      return false;
    }
  }
}

// Returns once the writer thread has announced itself under signal_lock: from
// then on it is inside its wait on cond whenever signal_lock is free, so an exit
// command can no longer reach it before its first wait.
void await_writer_start(mp4_data_buffer *data) {
  for (;;) {
    pthread_mutex_lock(&data->signal_lock);
    const bool started = data->thread_started != 0;
    pthread_mutex_unlock(&data->signal_lock);
    if (started) return;
    sched_yield();
  }
}

}  // namespace

extern "C" {

mp4_data_buffer *mp4_write_data_buffer_create(int video_buf_size, int audio_buf_size) {
  if (video_buf_size <= 0 || audio_buf_size <= 0) {
    MP4_ERR(" para  error!\n");
    return nullptr;
  }
  auto *data = new (std::nothrow) mp4_data_buffer{};
  if (data == nullptr) {
    MP4_ERR(" malloc fail!\n");
    return nullptr;
  }
  Setup setup;
  setup.queue_lock = pthread_mutex_init(&data->queue_lock, nullptr) == 0;
  setup.cond = pthread_cond_init(&data->cond, nullptr) == 0;
  setup.signal_lock = pthread_mutex_init(&data->signal_lock, nullptr) == 0;
  if (!setup.queue_lock || !setup.cond || !setup.signal_lock) {
    MP4_ERR(" lock init fail!\n");
    release(data, setup);
    return nullptr;
  }
  data->video_buf_size = video_buf_size;
  for (int i = 0; i < 3; ++i) {
    data->bufnode[i] = make_node(kMediaVideo, video_buf_size);
    if (data->bufnode[i] == nullptr) {
      release(data, setup);
      return nullptr;
    }
  }
  data->audio_buf_size = audio_buf_size;
  for (int i = 3; i < 6; ++i) {
    data->bufnode[i] = make_node(kMediaAudio, audio_buf_size);
    if (data->bufnode[i] == nullptr) {
      release(data, setup);
      return nullptr;
    }
  }
  data->buffer_status.store(kBufferOk, std::memory_order_relaxed);
  if (pthread_create(&data->thread, nullptr, DataBuffer_Proc, data) != 0) {
    MP4_ERR("Create DataBuffer_Proc failed \n");
    release(data, setup);
    return nullptr;
  }
  await_writer_start(data);
  return data;
}

int mp4_write_data_buffer_init(mp4_data_buffer *data, FILE *video_file, FILE *audio_file) {
  if (data == nullptr || video_file == nullptr || audio_file == nullptr) {
    MP4_ERR(" arg error\n");
    return -1;
  }
  MutexLock lock(data->queue_lock);
  data->video_file = video_file;
  data->audio_file = audio_file;
  data->buffer_status.store(kBufferOk, std::memory_order_relaxed);
  data->write_queue = nullptr;
  data->wake_pending = 0;
  data->record_time_arg = nullptr;
  data->record_time_cb = nullptr;
  durability_discard(data->durability);  // chunks of an abandoned file
  data->video_queue = nullptr;
  for (int i = 0; i < 3; ++i) rebind_node(data, data->bufnode[i], &data->video_queue);
  data->audio_queue = nullptr;
  for (int i = 3; i < 6; ++i) rebind_node(data, data->bufnode[i], &data->audio_queue);
  return 0;
}

int mp4_write_data_buffer_delete(mp4_data_buffer *data) {
  if (data == nullptr) {
    MP4_ERR("DataBuffer Delete,arg == NULL!\n");
    return -1;
  }
  // The writer stops after the node it is writing; if that one write does not
  // come back within the bound, the thread and the buffer are left to it.
  const int64_t deadline = stall_deadline(data);
  {
    MutexLock lock(data->queue_lock);
    data->buffer_status.store(kBufferExit, std::memory_order_relaxed);
  }
  wake_writer(data);
  MP4_LOG(kLogProgress, kModAudio, "pthread_join start\n");
  if (!await_writer_end(data, deadline)) {
    pthread_detach(data->thread);
    {
      MutexLock lock(data->queue_lock);
      data->record_time_cb = nullptr;  // the host's callback is not called any more
    }
    abandon(data, __func__,
            "DataBuffer Delete: a card write has not returned, the writer thread and its buffer "
            "are left behind\n");
    return 0;
  }
  pthread_join(data->thread, nullptr);
  MP4_LOG(kLogProgress, kModAudio, "pthread_join end\n");
  // The index records still attached to nodes (frames never written) belong
  // to the buffer; they go with it. A file still bound lets go of it.
  if (data->bound != nullptr) data->bound->dataBuffer = nullptr;
  for (mp4_buffer_node *node : data->bufnode) {
    DataBuffer_FreeVideoTrack(node);
    DataBuffer_FreeAACTrack(node);
  }
  durability_discard(data->durability);
  release(data, Setup{true, true, true});
  return 0;
}

}  // extern "C"

namespace mp4rec {

bool unbind_handle(mp4_data_buffer *data, mp4_handle *handle) {
  const int64_t deadline = stall_deadline(data);
  for (;;) {
    const uint64_t seen = data->progress.seen();
    {
      MutexLock lock(data->queue_lock);
      if (data->writing == nullptr || data->writing->mp4 != handle) {
        // Queued nodes of the file are dropped and go back to their queues;
        // a head node being filled for it is emptied where it stands.
        for (mp4_buffer_node **link = &data->write_queue; *link != nullptr;) {
          mp4_buffer_node *node = *link;
          if (node->mp4 != handle) {
            link = &node->next;
            continue;
          }
          *link = node->next;
          empty_node(data, node);
          DataBuffer_QueuePush(queue_of(data, node), node);
        }
        for (mp4_buffer_node *queue : {data->video_queue, data->audio_queue}) {
          if (queue != nullptr && queue->mp4 == handle) {
            mp4_buffer_node *next = queue->next;
            empty_node(data, queue);
            queue->next = next;
          }
        }
        if (data->bound == handle) {
          data->bound = nullptr;
          data->video_file = nullptr;
          data->audio_file = nullptr;
        }
        handle->dataBuffer = nullptr;
        return true;
      }
    }
    if (monotonic_ms() >= deadline) return false;
    data->progress.wait(seen, deadline);
  }
}

}  // namespace mp4rec

extern "C" {

int DataBuffer_FreeVideoTrack(mp4_buffer_node *node) {
  if (node == nullptr || node->nal_head == nullptr) return 0;
  list_free(node->nal_head, node->nal_tail);
  return 0;
}

int DataBuffer_FreeAACTrack(mp4_buffer_node *node) {
  if (node == nullptr || node->aac_head == nullptr) return 0;
  list_free(node->aac_head, node->aac_tail);
  return 0;
}

int DataBuffer_QueuePush(mp4_buffer_node **queue, mp4_buffer_node *node) {
  if (queue == nullptr || node == nullptr) return -1;
  mp4_buffer_node **link = queue;
  while (*link != nullptr) link = &(*link)->next;
  *link = node;
  return 0;
}

}  // extern "C"
