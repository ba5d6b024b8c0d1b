// Sample intake: one H.264 NAL unit or one audio frame is checked against the
// MP4 handle, described by an index record and handed with its bytes to the
// data buffer. Nothing is written to the file here; the writer thread writes
// the bytes and brings the index up to date once they are on the card.
#include <cstdlib>
#include <cstring>

#include "buffer/data_buffer.h"
#include "mp4/handle.h"
#include "mp4/nal.h"

using mp4rec::kNalIdr;
using mp4rec::kNalPicture;
using mp4rec::kNalPps;
using mp4rec::kNalSps;
using mp4rec::NalClass;

extern "C" {

int mp4_write_one_h264(unsigned char *data, int length, int timestamp, mp4_handle *handle) {
  if (handle == nullptr || data == nullptr || handle->file == nullptr || length < 4 ||
      timestamp < 0) {
    MP4_ERR("mp4 write video : param error\n");
    free_mp4_h264(handle);
    return -1;
  }
  const int sc = mp4rec::nal_start_code_length(data, length);
  if (sc == 0) {
    MP4_ERR("mp4 write video : h264 nal head error\n");
    free_mp4_h264(handle);
    return -1;
  }
  const NalClass nal = mp4rec::classify_nal(data[sc]);
  const auto unit_len = static_cast<uint32_t>(length - sc);
  if (nal == kNalSps &&
      !mp4rec::keep_first_parameter_set(handle->sps, handle->spsLen, data + sc, unit_len)) {
    MP4_ERR("mp4 write video : malloc sps space error\n");
    free_mp4_h264(handle);
    return -1;
  }
  if (nal == kNalPps &&
      !mp4rec::keep_first_parameter_set(handle->pps, handle->ppsLen, data + sc, unit_len)) {
    MP4_ERR("mp4 write video : malloc pps space\n");
    free_mp4_h264(handle);
    return -1;
  }
  // Parameter sets, SEI and every other kind of unit never reach mdat.
  if (nal != kNalPicture && nal != kNalIdr) return 0;

  if (mp4rec::relaxed(handle->videoCount) >= handle->maxVideoFrames) {
    MP4_ERR("mp4 write video : frame number out of range\n");
    return -5;
  }
  auto *node = static_cast<videoNode *>(std::malloc(sizeof(videoNode)));
  if (node == nullptr) {
    MP4_ERR("mp4 write video : malloc videoNode list space error\n");
    free_mp4_h264(handle);
    return -1;
  }
  // Stored with a 4-byte length in place of the start code, whatever its size.
  const uint32_t stored = unit_len + 4;
  *node = videoNode{nal, stored, static_cast<uint32_t>(timestamp), 0, nullptr};
  if (handle->dataBuffer == nullptr) {
    MP4_ERR("mp4 write video : data buffer is NULL!\n");
    std::free(node);
    return -1;
  }
  const int r =
      mp4_write_data_buffer_write_video_index(handle->dataBuffer, data + sc, node, handle);
  if (r != 0) {
    MP4_ERR("mp4 write video : put frame into buffer error\n");
    std::free(node);
    return r;
  }
  // The node belongs to the data buffer now and may already be gone.
  handle->videoCount.fetch_add(1, std::memory_order_relaxed);
  handle->mediaBytes.fetch_add(stored, std::memory_order_relaxed);
  return 0;
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
  auto *node = static_cast<audioNode *>(std::malloc(sizeof(audioNode)));
  if (node == nullptr) {
    MP4_ERR("mp4 write audio : malloc error\n");
    return -1;
  }
  const auto bytes = static_cast<uint32_t>(size);
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
