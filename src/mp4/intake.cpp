// Sample intake: one H.264 NAL unit (H.265: see hevc.cpp) or one audio frame
// is checked against the MP4 handle, described by an index record and handed
// with its bytes to the data buffer. Nothing is written to the file here; the writer thread writes
// the bytes and brings the index up to date once they are on the card.
#include <cstdlib>
#include <cstring>

#include "buffer/data_buffer.h"
#include "mp4/handle.h"
#include "mp4/intake.h"
#include "mp4/nal.h"

namespace {

// Whether `bytes` more would still keep the file below its size limit.
bool file_has_room(const mp4_handle *handle, uint32_t bytes) {
  return uint64_t{handle->mdatPos} + 8 + mp4rec::relaxed(handle->mediaBytes) + bytes <=
         mp4rec::kMaxFileBytes;
}

// Refuses a frame of a full file: -5, and one line per file saying why.
int file_full(mp4_handle *handle, const char *message) {
  if (mp4rec::first_time(handle, mp4rec::kOnceFileFull)) MP4_ERR("%s", message);
  return -5;
}

}  // namespace

namespace mp4rec {

int refuse_when_full(mp4_handle *handle, uint32_t bytes) {
  return file_has_room(handle, bytes) ? 0 : file_full(handle, "mp4 write video : file is full\n");
}

int release_handle(mp4_handle *handle, bool *released) {
  if (handle != nullptr && handle->dataBuffer != nullptr) mp4_sync_data_buffer(handle);
  free_mp4_h264(handle);
  *released = true;
  return -1;
}

int checked_start_code(const char *name, const char *head_error, unsigned char *data, int length,
                       int timestamp, mp4_handle *handle, int header, bool *released) {
  *released = false;
  if (handle == nullptr || data == nullptr || handle->file == nullptr || length < 4 ||
      timestamp < 0) {
    MP4_LOG_AS(name, kLogError, kModRecorder, "mp4 write video : param error\n");
    release_handle(handle, released);
    return 0;
  }
  const int sc = nal_start_code_length(data, length);
  if (sc == 0 || length - sc < header) {
    MP4_LOG_AS(name, kLogError, kModRecorder, "%s", head_error);
    release_handle(handle, released);
    return 0;
  }
  return sc;
}

int enqueue_picture(const char *name, mp4_handle *handle, unsigned char *payload, uint32_t unit_len,
                    NalClass kind, int timestamp, bool *released) {
  if (relaxed(handle->videoCount) >= handle->maxVideoFrames) {
    MP4_LOG_AS(name, kLogError, kModRecorder, "mp4 write video : frame number out of range\n");
    return -5;
  }
  // Stored with a 4-byte length in place of the start code, whatever its size.
  const uint32_t stored = unit_len + 4;
  if (const int full = refuse_when_full(handle, stored); full != 0) return full;
  auto *node = static_cast<videoNode *>(std::malloc(sizeof(videoNode)));
  if (node == nullptr) {
    MP4_LOG_AS(name, kLogError, kModRecorder,
               "mp4 write video : malloc videoNode list space error\n");
    return release_handle(handle, released);
  }
  *node = videoNode{kind, stored, static_cast<uint32_t>(timestamp), 0, nullptr};
  if (handle->dataBuffer == nullptr) {
    MP4_LOG_AS(name, kLogError, kModRecorder, "mp4 write video : data buffer is NULL!\n");
    std::free(node);
    return -1;
  }
  const int r = mp4_write_data_buffer_write_video_index(handle->dataBuffer, payload, node, handle);
  if (r != 0) {
    MP4_LOG_AS(name, kLogError, kModRecorder, "mp4 write video : put frame into buffer error\n");
    std::free(node);
    return r;
  }
  // The node belongs to the data buffer now and may already be gone.
  handle->videoCount.fetch_add(1, std::memory_order_relaxed);
  handle->mediaBytes.fetch_add(stored, std::memory_order_relaxed);
  return 0;
}

int write_one_h264(unsigned char *data, int length, int timestamp, mp4_handle *handle,
                   bool *released) {
  const int sc = checked_start_code(__func__, "mp4 write video : h264 nal head error\n", data,
                                    length, timestamp, handle, 1, released);
  if (sc == 0) return -1;
  const NalClass nal = classify_nal(data[sc]);
  const auto unit_len = static_cast<uint32_t>(length - sc);
  if (nal == kNalSps &&
      !keep_first_parameter_set(handle->sps, handle->spsLen, data + sc, unit_len)) {
    MP4_ERR("mp4 write video : malloc sps space error\n");
    return release_handle(handle, released);
  }
  if (nal == kNalPps &&
      !keep_first_parameter_set(handle->pps, handle->ppsLen, data + sc, unit_len)) {
    MP4_ERR("mp4 write video : malloc pps space\n");
    return release_handle(handle, released);
  }
  // Parameter sets, SEI and every other kind of unit never reach mdat.
  if (nal != kNalPicture && nal != kNalIdr) return 0;
  return enqueue_picture(__func__, handle, data + sc, unit_len, nal, timestamp, released);
}

}  // namespace mp4rec

extern "C" {

int mp4_write_one_h264(unsigned char *data, int length, int timestamp, mp4_handle *handle) {
  bool released = false;
  return mp4rec::write_one_h264(data, length, timestamp, handle, &released);
}

int mp4_write_audio_frame_realtime(mp4_handle *handle, unsigned char *data, int size,
                                   int timestamp) {
  if (handle == nullptr || data == nullptr) {
    MP4_ERR("mp4 write audio : param error\n");
    return -1;
  }
  if (handle->dataBuffer == nullptr) {
    MP4_ERR("mp4 write audio : data buffer is NULL!\n");
    return -1;
  }
  if (mp4rec::relaxed(handle->audioCount) >= handle->maxAudioFrames) {
    MP4_ERR("mp4 write audio : frame number out of range\n");
    return -5;
  }
  const auto bytes = static_cast<uint32_t>(size);
  if (size >= 0 && !file_has_room(handle, bytes))
    return file_full(handle, "mp4 write audio : file is full\n");
  auto *node = static_cast<audioNode *>(std::malloc(sizeof(audioNode)));
  if (node == nullptr) {
    MP4_ERR("mp4 write audio : malloc error\n");
    return -1;
  }
  *node = audioNode{bytes, static_cast<uint32_t>(timestamp), 0, nullptr};
  const int r = mp4_write_data_buffer_write_audio_index(handle->dataBuffer, data, node, handle);
  if (r != 0) {
    MP4_ERR("mp4 write audio : put one frame into buffer error, return %d\n", r);
    std::free(node);
    return r;
  }
  handle->audioCount.fetch_add(1, std::memory_order_relaxed);
  handle->mediaBytes.fetch_add(bytes, std::memory_order_relaxed);
  return 0;
}

}  // extern "C"
