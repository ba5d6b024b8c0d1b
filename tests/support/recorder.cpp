#include "support/recorder.h"

extern "C" {
#include <libavutil/mem.h>
#include <libavutil/sha.h>
}

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "buffer/data_buffer.h"
#include "mp4/handle.h"
#include "support/box_reader.h"
#include "support/side_file.h"

namespace testsupport {

namespace {

struct InfoFree {
  void operator()(mp4_stream_info *p) const { std::free(p); }
};

std::string sample_path(const char *name) {
  return std::string(MP4REC_SOURCE_DIR) + "/tools/sample/" + name;
}

// Zeroes the creation and modification times (the two words behind version
// and flags) of every box of `type` under `boxes`.
void zero_times(const std::vector<Box> &boxes, std::vector<uint8_t> &bytes) {
  for (const Box &b : boxes) {
    if ((b.type == "mvhd" || b.type == "tkhd" || b.type == "mdhd") && b.offset + 20 <= bytes.size())
      std::fill_n(bytes.begin() + static_cast<long>(b.offset + 12), 8, 0);
    zero_times(b.children, bytes);
  }
}

}  // namespace

AvFeed sample_feed() {
  return make_av_feed(sample_path("sample.h264"), sample_path("sample.aac"), 15, 75);
}

std::string record_front_index(const std::string &mp4, const std::string &mp2, const AvFeed &feed,
                               const FrontRoad &road) {
  std::unique_ptr<mp4_stream_info, InfoFree> info(mp4_create_stream_info());
  info->record_duration = 10;
  info->video_frame_rate = 15;
  info->audio_sample_rate = 16000;
  info->audio_timestamp_mode = road.time_stamps ? 1 : 0;
  info->video_prealloc = info->audio_prealloc = road.prealloc ? 1 : 0;
  mp4_handle *h = mp4_write_head_h264_index(mp4.c_str(), mp2.c_str(), 320, 240, 3, info.get());
  if (h == nullptr) return "no head";
  mp4_data_buffer *data = mp4_write_data_buffer_create(road.video_node, road.audio_node);
  if (data == nullptr ||
      !mp4rec::durability_set(data->durability, road.durability, road.interval_ms) ||
      mp4_set_data_buffer(h, data) != 0) {
    free_mp4_h264(h);
    mp4_write_data_buffer_delete(data);
    return "no data buffer";
  }
  std::string error;
  for (const auto &u : feed.units) {
    if (u.picture && road.pace_ms > 0) usleep(static_cast<useconds_t>(road.pace_ms) * 1000);
    auto bytes = u.bytes;
    const int n = static_cast<int>(bytes.size());
    const int r = u.video ? mp4_write_one_h264(bytes.data(), n, u.ts, h)
                          : mp4_write_audio_frame_realtime(h, bytes.data(), n, u.ts);
    if (r != 0) {
      error = "frame refused with " + std::to_string(r);
      break;
    }
  }
  if (mp4_sync_data_buffer(h) != 0 && error.empty()) error = "sync failed";
  free_mp4_h264(h);
  mp4_write_data_buffer_delete(data);
  return error;
}

std::vector<std::vector<uint8_t>> synthetic_pictures(int n) {
  std::vector<std::vector<uint8_t>> out;
  for (int i = 0; i < n; ++i) {
    std::vector<uint8_t> picture{0xFF, 0xD8};
    for (int k = 0; k < 900 + 37 * (i % 11); ++k) {
      const auto b = static_cast<uint8_t>(k * 7 + i);
      picture.push_back(b == 0xFF ? 0xFE : b);
    }
    picture.push_back(0xFF);
    picture.push_back(0xD9);
    out.push_back(std::move(picture));
  }
  return out;
}

std::string record_mjpeg(const std::string &mp4, const std::string &mp2,
                         const std::vector<std::vector<uint8_t>> &pictures) {
  mp4_mjpeg_ctx *ctx = mp4_write_head_jpeg(mp4.c_str(), mp2.c_str(), 320, 240, 2);
  if (ctx == nullptr) return "no head";
  std::vector<uint8_t> pcm(2304);
  for (size_t i = 0; i < pictures.size(); ++i) {
    auto picture = pictures[i];
    if (mp4_write_one_jpeg(picture.data(), static_cast<int>(picture.size()),
                           1000 + 40 * static_cast<int>(i), ctx) != 0)
      return "picture refused";
    for (size_t k = 0; k < pcm.size(); k += 2) {
      const int v = static_cast<int>((k + 64 * i) % 200) * 100 - 10000;
      pcm[k] = static_cast<uint8_t>(v & 0xFF);
      pcm[k + 1] = static_cast<uint8_t>((v >> 8) & 0xFF);
    }
    if (mp4_write_pcm_jpeg(pcm.data(), static_cast<int>(pcm.size()), ctx) != 0)
      return "pcm refused";
  }
  return mp4_write_end_jpeg(ctx) == 0 ? "" : "end failed";
}

std::string record_index_at_end(const std::string &mp4, const std::string &mp2, const AvFeed &feed,
                                bool whole_frames) {
  audioTimeStampFlag.store(0);  // this writer's head takes the process-wide flag
  mp4_handle *h = mp4_write_head_h264(mp4.c_str(), mp2.c_str(), 320, 240, 3);
  if (h == nullptr) return "no head";
  for (const auto &u : feed.units) {
    if (!u.video) continue;
    auto bytes = u.bytes;
    if (mp4_write_video_node(bytes.data(), static_cast<int>(bytes.size()), u.ts, h) != 0) {
      free_mp4_h264(h);
      return "video refused";
    }
  }
  for (const auto &frame : split_adts(read_file(sample_path("sample.aac")))) {
    if (whole_frames && sidefile::cut_elsewhere(frame)) continue;
    auto bytes = frame;
    if (mp4_write_pcm_h264(bytes.data(), static_cast<int>(bytes.size()), h) != 0)
      return "audio refused";
  }
  return mp4_write_end_h264(h) == 0 ? "" : "end failed";
}

std::string digest_without_times(const std::vector<uint8_t> &bytes) {
  std::vector<uint8_t> copy = bytes;
  zero_times(BoxFile(bytes).top(), copy);
  std::unique_ptr<AVSHA, decltype(&av_free)> sha(av_sha_alloc(), &av_free);
  av_sha_init(sha.get(), 256);
  av_sha_update(sha.get(), copy.data(), static_cast<unsigned>(copy.size()));
  uint8_t out[32];
  av_sha_final(sha.get(), out);
  std::string hex;
  char two[3];
  for (uint8_t b : out) {
    std::snprintf(two, sizeof two, "%02x", b);
    hex += two;
  }
  return hex;
}

}  // namespace testsupport
