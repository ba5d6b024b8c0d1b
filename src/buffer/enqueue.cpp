// Frame enqueue: the caller-side half of the data buffer. A frame is copied
// into the head node of its kind; a node that cannot take the next frame moves
// to the write queue and the writer thread is woken. The head node is filled
// without a lock: it belongs to the producer while it heads its queue.
#include <array>
#include <cstring>
#include <new>

#include "buffer/data_buffer.h"
#include "mp4/node_list.h"

using namespace mp4rec;

namespace {

// The four-byte big-endian length that replaces a start code in mdat.
std::array<uint8_t, 4> length_prefix(uint32_t size) {
  const uint32_t len = size - 4;
  return {static_cast<uint8_t>(len >> 24), static_cast<uint8_t>(len >> 16),
          static_cast<uint8_t>(len >> 8), static_cast<uint8_t>(len)};
}

// Appends one length-prefixed video frame of `size` bytes (prefix included).
void append_video(mp4_buffer_node *node, const uint8_t *payload, uint32_t size) {
  const auto prefix = length_prefix(size);
  uint8_t *dst = node->buf + node->write_pos;
  std::memcpy(dst, prefix.data(), prefix.size());
  std::memcpy(dst + 4, payload, size - 4);
  node->write_pos += size;
  node->data_len += size;
}

void append_bytes(mp4_buffer_node *node, const uint8_t *bytes, uint32_t size) {
  if (size > 0) std::memcpy(node->buf + node->write_pos, bytes, size);
  node->write_pos += size;
  node->data_len += size;
}

uint32_t room_left(const mp4_buffer_node *node, int32_t capacity) {
  return static_cast<uint32_t>(capacity) - node->write_pos;
}

int32_t status_of(mp4_data_buffer *data) {
  MutexLock lock(data->queue_lock);
  return data->buffer_status.load(std::memory_order_relaxed);
}

// Hands a full node to the writer thread: onto the write queue, then the
// wake-up unless one is pending already (the writer then finds the node when
// it looks at the queue again, without the producer waiting for it).
void hand_over(mp4_data_buffer *data, mp4_buffer_node *node) {
  bool wake = false;
  {
    MutexLock lock(data->queue_lock);
    DataBuffer_QueuePush(&data->write_queue, node);
    wake = data->wake_pending == 0;
    data->wake_pending = 1;
  }
  if (wake) wake_writer(data);
}

// The frame went into no node: -2 after a card error, else -4 (no node in time).
int refusal(mp4_data_buffer *data) {
  return status_of(data) == kBufferIoError ? -2 : -4;
}

// Splits a length-prefixed video frame between a full node with `room` bytes
// left and the next node. When the split falls inside the four prefix bytes,
// the least significant one is placed nowhere while the next node's data_len
// still counts it.
void split_video(mp4_data_buffer *data, mp4_buffer_node *node, mp4_buffer_node *next,
                 const uint8_t *payload, uint32_t size, uint32_t room) {
  const auto prefix = length_prefix(size);
  uint8_t *dst = node->buf + node->write_pos;
  for (uint32_t i = 1; i <= 4; ++i) {
    if (room >= i) dst[i - 1] = prefix[i - 1];
  }
  if (room >= 5) std::memcpy(dst + 4, payload, room - 4);
  node->write_pos += room;
  node->data_len += room;
  hand_over(data, node);

  uint8_t *out = next->buf + next->write_pos;
  uint32_t placed = 0;
  for (uint32_t i = 1; i <= 3; ++i) {
    if (i - 1 >= room) out[placed++] = prefix[i - 1];
  }
  if (room >= 5) {
    std::memcpy(out + placed, payload + (room - 4), size - room);
    placed += size - room;
  } else {
    std::memcpy(out + placed, payload, size - 4);
    placed += size - 4;
  }
  next->write_pos += placed;
  next->data_len += size - room;
}

// Makes a frame the first of a node: its bytes and its index record.
void start_video_node(mp4_buffer_node *node, const uint8_t *payload, videoNode *vnode,
                      mp4_handle *handle, uint32_t size) {
  node->write_pos = 0;
  node->data_len = 0;
  append_video(node, payload, size);
  node->frame_count = 0;
  node->mp4 = handle;
  DataBuffer_NalistInsert(vnode, node);
}

// Waits (as long as for a free node) until no other video node holds grown
// storage: the writer gives it back before it announces the node written.
// 0, or the refusal's code.
int await_no_grown_node(mp4_data_buffer *data) {
  const int64_t deadline = monotonic_ms() + kQueueTopPatienceMs;
  for (;;) {
    const uint64_t seen = data->progress.seen();
    if (data->grown_nodes.load(std::memory_order_relaxed) == 0) return 0;
    if (status_of(data) == kBufferIoError) return -2;
    if (monotonic_ms() >= deadline) return refusal(data);
    data->progress.wait(seen, deadline);
  }
}

// A video frame larger than a node: the node being filled goes to the writer
// first (file order is kept), then the next node gets storage of the frame's
// size for this frame alone and goes to the writer at once; the writer gives
// it its own storage back once it is written.
int put_grown_video(mp4_data_buffer *data, const uint8_t *payload, videoNode *vnode,
                    mp4_handle *handle, uint32_t size) {
  if (size > kLargestVideoFrame) {
    MP4_ERR("mp4 write video : a frame of %u bytes is larger than the largest frame (%u bytes)\n",
            size, kLargestVideoFrame);
    return -1;
  }
  if (const int r = await_no_grown_node(data); r != 0) return r;
  mp4_buffer_node *node = DataBuffer_QueueTop(data, kMediaVideo);
  if (node == nullptr) return refusal(data);
  if (node->data_len > 0) {
    unlink_queue_head(data, data->video_queue);
    hand_over(data, node);
    node = DataBuffer_QueueTop(data, kMediaVideo);
    if (node == nullptr) return refusal(data);
  }
  auto *storage = new (std::nothrow) uint8_t[size];
  if (storage == nullptr) {
    MP4_ERR("mp4 write video : no memory for a frame of %u bytes\n", size);
    return -1;
  }
  unlink_queue_head(data, data->video_queue);
  node->own_buf = node->buf;
  node->buf = storage;
  data->grown_nodes.fetch_add(1, std::memory_order_relaxed);
  start_video_node(node, payload, vnode, handle, size);
  hand_over(data, node);
  return 0;
}

}  // namespace

namespace mp4rec {

int join_video_frame(mp4_data_buffer *data, const uint8_t *payload, uint32_t size,
                     mp4_handle *handle) {
  mp4_buffer_node *node = nullptr;
  {
    MutexLock lock(data->queue_lock);
    node = data->video_queue;
  }
  videoNode *frame = node != nullptr ? node->nal_tail : nullptr;
  if (frame == nullptr || node->mp4 != handle) return kJoinNoFrame;
  const auto capacity = static_cast<uint32_t>(data->video_buf_size);
  if (size <= room_left(node, data->video_buf_size)) {
    append_video(node, payload, size);
    frame->size += size;
    return 0;
  }
  // The node holds frames in front of this one (else the two would not fit a
  // node): the frame goes on to the next node, the rest to the writer.
  if (uint64_t{frame->size} + size > capacity) return kJoinTooLarge;
  unlink_queue_head(data, data->video_queue);
  mp4_buffer_node *next = DataBuffer_QueueTop(data, kMediaVideo);
  if (next == nullptr) {
    hand_over(data, node);
    return refusal(data);
  }
  const uint32_t moved = frame->size;
  list_drop_tail(node->nal_head, node->nal_tail);
  node->frame_count -= 1;
  node->write_pos -= moved;
  node->data_len -= moved;
  std::memcpy(next->buf, node->buf + node->write_pos, moved);
  hand_over(data, node);
  next->write_pos = next->data_len = moved;
  next->frame_count = 0;
  next->mp4 = handle;
  DataBuffer_NalistInsert(frame, next);
  append_video(next, payload, size);
  frame->size += size;
  return 0;
}

}  // namespace mp4rec

extern "C" {

mp4_buffer_node *DataBuffer_QueueTop(mp4_data_buffer *data, int media_type) {
  if (data == nullptr) {
    MP4_ERR(" arg == NULL!\n");
    return nullptr;
  }
  if (media_type != kMediaVideo && media_type != kMediaAudio) {
    MP4_ERR(" media type error\n");
    return nullptr;
  }
  // The writer thread announces every node it gives back (and a card error):
  // the wait ends as soon as a node is free, or after the patience. The count
  // is taken before each look that may be followed by a wait, so no
  // announcement is missed; a look that finds a node costs neither.
  int64_t deadline = 0;
  uint64_t seen = 0;
  for (;;) {
    mp4_buffer_node *head = nullptr;
    bool io_error = false;
    {
      MutexLock lock(data->queue_lock);
      io_error = data->buffer_status.load(std::memory_order_relaxed) == kBufferIoError;
      if (!io_error) head = media_type == kMediaVideo ? data->video_queue : data->audio_queue;
    }
    if (io_error) {
      MP4_ERR(" get IO error.\n");
      return nullptr;
    }
    if (head != nullptr) return head;
    if (deadline == 0) {
      deadline = monotonic_ms() + kQueueTopPatienceMs;
    } else {
      if (monotonic_ms() >= deadline) break;
      data->progress.wait(seen, deadline);
    }
    seen = data->progress.seen();
  }
  MP4_ERR(" out of time\n");
  return nullptr;
}

void DataBuffer_NalistInsert(videoNode *vnode, mp4_buffer_node *node) {
  if (vnode == nullptr || node == nullptr) {
    MP4_ERR(" input arg error\n");
    return;
  }
  node->frame_count += 1;
  list_append(node->nal_head, node->nal_tail, vnode);
}

void DataBuffer_AAClistInsert(audioNode *anode, mp4_buffer_node *node) {
  if (anode == nullptr || node == nullptr) {
    MP4_LOG(kLogProgress, kModRecorder, "mp4 write audio : buffer insert param error\n");
    return;
  }
  node->frame_count += 1;
  list_append(node->aac_head, node->aac_tail, anode);
}

int mp4_write_data_buffer_write_video_index(mp4_data_buffer *data, unsigned char *payload,
                                            videoNode *vnode, mp4_handle *handle) {
  if (vnode == nullptr) {
    MP4_ERR("mp4 write video : videoNode is NULL!\n");
    return -1;
  }
  const uint32_t size = vnode->size;
  if (data == nullptr || payload == nullptr || size < 5) {
    MP4_ERR("mp4 write video : input arg error\n");
    return -1;
  }
  // A frame never spans two nodes here: one larger than a node gets a node of its own.
  if (size > static_cast<uint32_t>(data->video_buf_size))
    return put_grown_video(data, payload, vnode, handle, size);
  mp4_buffer_node *node = DataBuffer_QueueTop(data, kMediaVideo);
  if (node == nullptr) return refusal(data);
  if (size <= room_left(node, data->video_buf_size)) {
    append_video(node, payload, size);
    node->mp4 = handle;
    DataBuffer_NalistInsert(vnode, node);
    return 0;
  }
  // The frame goes whole into the next node; the full one is handed over even
  // when no next node comes, so the data already accepted is not held back.
  unlink_queue_head(data, data->video_queue);
  mp4_buffer_node *next = DataBuffer_QueueTop(data, kMediaVideo);
  node->mp4 = handle;
  hand_over(data, node);
  if (next == nullptr) return refusal(data);
  start_video_node(next, payload, vnode, handle, size);
  return 0;
}

int mp4_write_data_buffer_write_audio_index(mp4_data_buffer *data, unsigned char *bytes,
                                            audioNode *anode, mp4_handle *handle) {
  if (anode == nullptr ||
      (data != nullptr && anode->size > static_cast<uint32_t>(data->audio_buf_size))) {
    MP4_ERR("mp4 write audio : audio node error\n");
    return -1;
  }
  const uint32_t size = anode->size;
  if (data == nullptr || (bytes == nullptr && size > 0)) {
    MP4_ERR("mp4 write audio : arg == NULL!\n");
    return -1;
  }
  mp4_buffer_node *node = DataBuffer_QueueTop(data, kMediaAudio);
  if (node == nullptr) return refusal(data);
  if (size <= room_left(node, data->audio_buf_size)) {
    append_bytes(node, bytes, size);
    node->mp4 = handle;
    DataBuffer_AAClistInsert(anode, node);
    return 0;
  }
  unlink_queue_head(data, data->audio_queue);
  mp4_buffer_node *next = DataBuffer_QueueTop(data, kMediaAudio);
  node->mp4 = handle;
  hand_over(data, node);
  if (next == nullptr) return refusal(data);
  next->write_pos = 0;
  next->data_len = 0;
  append_bytes(next, bytes, size);
  next->frame_count = 0;
  next->mp4 = handle;
  DataBuffer_AAClistInsert(anode, next);
  return 0;
}

int mp4_write_data_buffer_write_video(mp4_data_buffer *data, unsigned char *payload,
                                      unsigned int size) {
  if (data == nullptr || payload == nullptr || size < 5 ||
      size > static_cast<uint32_t>(data->video_buf_size)) {
    MP4_ERR("input arg error\n");
    return -1;
  }
  mp4_buffer_node *node = DataBuffer_QueueTop(data, kMediaVideo);
  if (node != nullptr) {
    const uint32_t room = room_left(node, data->video_buf_size);
    if (size <= room) {
      append_video(node, payload, size);
      return 0;
    }
    unlink_queue_head(data, data->video_queue);
    mp4_buffer_node *next = DataBuffer_QueueTop(data, kMediaVideo);
    if (next != nullptr) {
      split_video(data, node, next, payload, size, room);
      return 0;
    }
    hand_over(data, node);
  }
  const int32_t status = status_of(data);
  if (status == kBufferIoError) {
    MP4_LOG38(kLogError, "[%d]  write IOERROR data->buffer_status:%d\n\n", status);
    return -2;
  }
  MP4_LOG38(kLogError, "[%d]  write busy data->buffer_status:%d\n\n", status);
  return -4;
}

int mp4_write_data_buffer_write_audio(mp4_data_buffer *data, unsigned char *bytes,
                                      unsigned int size) {
  if (data == nullptr || (bytes == nullptr && size > 0)) {
    MP4_ERR(" arg == NULL!\n");
    return -1;
  }
  if (size > static_cast<uint32_t>(data->audio_buf_size)) {
    MP4_ERR("input arg error\n");
    return -1;
  }
  mp4_buffer_node *node = DataBuffer_QueueTop(data, kMediaAudio);
  if (node != nullptr) {
    const uint32_t room = room_left(node, data->audio_buf_size);
    if (size <= room) {
      append_bytes(node, bytes, size);
      return 0;
    }
    unlink_queue_head(data, data->audio_queue);
    mp4_buffer_node *next = DataBuffer_QueueTop(data, kMediaAudio);
    if (next != nullptr) {
      append_bytes(node, bytes, room);
      hand_over(data, node);
      append_bytes(next, bytes + room, size - room);
      return 0;
    }
    hand_over(data, node);
  }
  const int32_t status = status_of(data);
  if (status == kBufferIoError) {
    MP4_LOG38(kLogError, "[%d] io error data->buffer_status:%d\n\n", status);
    return -2;
  }
  MP4_LOG38(kLogError, "[%d] write busy data->buffer_status:%d\n\n", status);
  return -4;
}

}  // extern "C"
