// H.264 recording with the index written at the end: samples go straight into
// mdat, the side file's audio is copied behind them when the recording ends,
// and the complete moov, sized from the real sample counts, follows mdat.
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include "mp4/alt/at_end_boxes.h"
#include "mp4/handle.h"
#include "mp4/nal.h"

namespace mp4rec {

namespace {

constexpr int kAdtsHeader = 7;
constexpr int kMaxAacFrame = 1024;
constexpr int kH264Mp2Bitrate = 24000;  // as on the front-index road

// Copies the side file's frames behind the last sample, one audio node each.
// AAC frames lose their 7-byte header on the way and frames of 7 bytes or
// less are skipped. Returns 0, or -1 after releasing the handle.
int copy_side_file_audio(mp4_handle *h) {
  if (h == nullptr || h->file == nullptr || h->videoHead == nullptr || h->mp2File == nullptr) {
    free_mp4_h264(h);
    return -1;
  }
  std::rewind(h->mp2File);
  const int pos = mp4_ftell(h->file);
  if (pos == -1) {
    free_mp4_h264(h);
    return -1;
  }
  h->mp2DataPos = static_cast<uint32_t>(pos);

  const bool aac = h->audioFormat == 3;
  const auto head = aac ? mp4_handle_aac_head : mp4_handle_mp2_head;
  const auto read = aac ? mp4_read_aac_frame : mp4_read_mp2_frame;
  const unsigned skip = aac ? kAdtsHeader : 0;
  if (head(h->mp2File) == 0) {
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[alt::kSideFileBufferBytes]);
    if (!buf) {
      free_mp4_h264(h);
      return -1;
    }
    unsigned int len = 0;
    while (read(h->mp2File, buf.get(), alt::kSideFileBufferBytes, &len) != -1) {
      if (aac && len < kAdtsHeader + 1) continue;
      auto *node = static_cast<audioNode *>(std::malloc(sizeof(audioNode)));
      if (node == nullptr) {
        free_mp4_h264(h);
        return -1;
      }
      node->size = len - skip;
      node->timeStamp = 0;
      node->reserved = 0;
      handle_append_audio(h, node);
      box::Sink(h->file, h->writeStatus).add(mp4_put_buffer(h->file, buf.get() + skip, node->size));
      h->mediaBytes.fetch_add(node->size, std::memory_order_relaxed);
    }
  }
  const int closed = mp4_fclose(h->mp2File);
  h->mp2File = nullptr;
  if (closed != 0) {
    free_mp4_h264(h);
    return -1;
  }
  return 0;
}

}  // namespace

}  // namespace mp4rec

using namespace mp4rec;

extern "C" mp4_handle *mp4_write_head_h264(const char *mp4_path, const char *mp2_tmp_path,
                                           int width, int height, int audio_format) {
  mp4_handle *h = handle_alloc();
  if (h == nullptr) return nullptr;
  h->creationTime = alt::creation_time_now();
  h->width = 640;
  h->height = 480;
  h->durationPad = 50;
  h->audioFrameSamples = 1152;
  h->movieTimeScale = 1000;
  h->moovEnable = 1;
  h->audioKHz = 16;
  h->videoTimeScale = 1000;
  h->sampleRate = 16000;
  // No index area in front: mp4_write_add_index refuses this handle rather
  // than write an index over the head of the file.
  h->moovPos = alt::kNoIndexArea;
  // The audio time-stamp mode is this file's from its head on.
  h->audioTimeStamps = audioTimeStampFlag.load(std::memory_order_relaxed) == 1 ? 1 : 0;

  if (mp4_path == nullptr || mp2_tmp_path == nullptr) {
    MP4_ERR("mp4 open write head : file path error\n");
    free_mp4_h264(h);
    return nullptr;
  }
  if (audio_format == 3) {
    h->audioFrameSamples = 1024;
  } else if (audio_format != 1 && audio_format != 2) {
    MP4_ERR("mp4 open write head : audio format error\n");
    free_mp4_h264(h);
    return nullptr;
  }
  h->audioFormat = static_cast<uint32_t>(audio_format);
  if (width < 1 || height < 1) {
    MP4_ERR("mp4 open write head : video width or height error\n");
    free_mp4_h264(h);
    return nullptr;
  }
  h->width = static_cast<uint32_t>(width);
  h->height = static_cast<uint32_t>(height);
  h->file = mp4_fopen(mp4_path, "wb");
  if (h->file == nullptr) {
    MP4_ERR("mp4 open write head : open mp4 file failed\n");
    free_mp4_h264(h);
    return nullptr;
  }
  h->mp2File = mp4_fopen(mp2_tmp_path, "wb+");
  if (h->mp2File == nullptr) {
    MP4_ERR("mp4 open write head : open tmp mp2 file failed\n");
    free_mp4_h264(h);
    return nullptr;
  }
  // PCM is converted as it arrives, so the PCM formats need an encoder here.
  if (audio_format != 3) {
    h->mp2Encoder = MP2_encode_init(static_cast<int>(h->sampleRate), kH264Mp2Bitrate, 1);
    if (h->mp2Encoder == nullptr) {
      MP4_ERR("mp4 open write head : mp2 encoder init error!\n");
      free_mp4_h264(h);
      return nullptr;
    }
  }
  box::Sink s{h->file, h->writeStatus};
  s.add(alt::write_head(s, *h));
  return h;
}

extern "C" int mp4_write_video_node(unsigned char *data, int length, int timestamp, mp4_handle *h) {
  if (h == nullptr || data == nullptr || h->file == nullptr || length < 1 || timestamp < 0) {
    MP4_ERR("mp4 write video node : param error\n");
    return -1;
  }
  if (h->dataBuffer != nullptr) {  // its samples reach the file through the writer thread
    MP4_ERR("mp4 write video node : handle has a data buffer\n");
    return -1;
  }
  const int sc = nal_start_code_length(data, length);
  if (sc == 0) {
    MP4_ERR("mp4 write video node : start code error\n");
    return -1;
  }
  const unsigned char *nal = data + sc;
  const auto nal_len = static_cast<uint32_t>(length - sc);
  const NalClass kind = classify_nal(nal[0]);
  if (kind == kNalSps || kind == kNalPps) {
    const bool kept = kind == kNalSps ? keep_first_parameter_set(h->sps, h->spsLen, nal, nal_len)
                                      : keep_first_parameter_set(h->pps, h->ppsLen, nal, nal_len);
    if (!kept) {
      MP4_ERR("mp4 write video node : malloc error\n");
      return -1;
    }
    return 0;
  }
  if (kind != kNalPicture && kind != kNalIdr) return 0;  // not recorded
  auto *node = static_cast<videoNode *>(std::malloc(sizeof(videoNode)));
  if (node == nullptr) {
    MP4_ERR("mp4 write video node : malloc error\n");
    return -1;
  }
  node->type = kind;
  node->size = nal_len + 4;
  node->timeStamp = static_cast<uint32_t>(timestamp);
  node->reserved = 0;
  handle_append_video(h, node);
  int status = mp4_put_be32(h->file, nal_len);
  status += mp4_put_buffer(h->file, nal, nal_len);
  box::Sink(h->file, h->writeStatus).add(status);
  h->mediaBytes.fetch_add(node->size, std::memory_order_relaxed);
  if (status != 0) {
    MP4_ERR("mp4 write video node : write file error\n");
    return -2;
  }
  return 0;
}

extern "C" int mp4_write_one_aac(unsigned char *data, unsigned int length, int timestamp,
                                 mp4_handle *h) {
  if (h == nullptr || data == nullptr || h->file == nullptr ||
      static_cast<int>(length) < kAdtsHeader || timestamp < 0) {
    free_mp4_h264(h);
    return -1;
  }
  auto *node = static_cast<audioNode *>(std::malloc(sizeof(audioNode)));
  if (node == nullptr) {
    free_mp4_h264(h);
    return -1;
  }
  node->size = length - kAdtsHeader;
  node->timeStamp = static_cast<uint32_t>(timestamp);
  node->reserved = static_cast<uint32_t>(mp4_ftell(h->file));
  handle_append_audio(h, node);
  box::Sink(h->file, h->writeStatus).add(mp4_put_buffer(h->file, data + kAdtsHeader, node->size));
  h->mediaBytes.fetch_add(node->size, std::memory_order_relaxed);
  if (h->writeStatus >= 0) return 0;
  free_mp4_h264(h);
  return -1;
}

extern "C" int mp4_write_pcm_h264(unsigned char *data, int length, mp4_handle *h) {
  if (h == nullptr) return -1;
  const bool valid = data != nullptr && h->mp2File != nullptr && length >= 1;
  if (h->audioFormat == 1 || h->audioFormat == 2) {
    const int block = h->audioFormat == 1 ? kPcm8BlockBytes : kPcm16BlockBytes;
    if (!valid || length % block != 0) {
      free_mp4_h264(h);
      return -1;
    }
    const int r = h->audioFormat == 1 ? mp4_pcm_to_mp2(h->mp2File, data, length, h->mp2Encoder)
                                      : mp4_pcm_to_mp2_2(h->mp2File, data, length, h->mp2Encoder);
    if (r != -1) return 0;
    free_mp4_h264(h);
    return -1;
  }
  // AAC: one whole ADTS frame, header included.
  if (!valid || length > kMaxAacFrame || length < 2 || data[0] != 0xFF || data[1] != 0xF1) {
    free_mp4_h264(h);
    return -1;
  }
  if (h->dataBuffer != nullptr) {
    return mp4_write_data_buffer_write_audio(h->dataBuffer, data, static_cast<unsigned>(length));
  }
  return mp4_put_buffer(h->mp2File, data, static_cast<unsigned>(length)) == 0 ? 0 : -1;
}

extern "C" int mp4_append_mp2(mp4_handle *h) {
  return copy_side_file_audio(h);
}

extern "C" int mp4_write_end_h264(mp4_handle *h) {
  if (copy_side_file_audio(h) != 0) return -1;
  box::Sink s{h->file, h->writeStatus};
  s.add(alt::write_end(s, *h));
  return alt::close_and_release(h);
}

int mp4rec::alt::close_and_release(mp4_handle *h) {
  if (h->writeStatus != 0) {
    free_mp4_h264(h);
    return -1;
  }
  const int r = mp4_fclose(h->file) == 0 ? 0 : -1;
  h->file = nullptr;
  free_mp4_h264(h);
  return r;
}
