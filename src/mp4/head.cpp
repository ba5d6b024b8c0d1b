// The head of a front-index H.264 file: ftyp, the full-size reserved moov whose
// sample tables hold room for the longest planned recording, free and the mdat
// header. Every box and field that the in-place update patches later has its
// file offset recorded in the track's position table.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <span>
#include <vector>

#include "mp4/box.h"
#include "mp4/handle.h"
#include "mp4/head.h"
#include "mp4/hevc.h"

namespace mp4rec {

using box::Scope;
using box::Sink;

uint64_t reserved_moov_size(uint32_t audio_format, bool audio_time_stamps, uint64_t video_frames,
                            uint64_t audio_frames) {
  const uint64_t stsd = audio_format == 3 ? 91 : 87;
  const uint64_t stts_entries = audio_time_stamps ? audio_frames : 1;
  return 1577 + stsd + 32 * video_frames + 8 * stts_entries + 20 * audio_frames;
}

const char *config_box(uint32_t codec) {
  return codec == kVideoH265 ? "hvcC" : "avcC";
}

std::vector<uint8_t> empty_config(uint32_t codec) {
  return codec == kVideoH265 ? hevc::config_record({}, {}, {}) : box::avc_config({}, {});
}

std::vector<uint8_t> full_config(const mp4_handle *h) {
  if (const HandleExtra &x = extra(h); x.videoCodec == kVideoH265) {
    if (!hevc::has_parameter_sets(h)) return {};
    return hevc::config_record({x.vps, x.vpsLen}, {h->sps, h->spsLen}, {h->pps, h->ppsLen});
  }
  if (h->sps == nullptr || h->spsLen == 0 || h->pps == nullptr || h->ppsLen == 0) return {};
  return box::avc_config({h->sps, h->spsLen}, {h->pps, h->ppsLen});
}

namespace {

// Reserves a table of `n` entries: with `hole` false every entry is written as
// `entry`; with `hole` true the writer seeks over n - 1 entries (which read as
// zeros) and writes `last` only. An empty table writes nothing. False when
// the seek over the hole fails.
bool reserve_entries(Sink &s, uint32_t n, std::span<const uint8_t> entry, bool hole,
                     std::span<const uint8_t> last) {
  if (n == 0) return true;
  const size_t e = entry.size();
  if (hole) {
    const uint64_t skip = uint64_t{n - 1} * e;
    if (mp4_fseek(s.file(), static_cast<int>(skip), SEEK_CUR) != 0) {
      std::printf("seek error!\n");
      return false;
    }
    s.bytes(last);
    return true;
  }
  // Many entries per write: the reserved index is megabytes long.
  constexpr uint32_t kBatchEntries = 4096;
  const uint32_t per_write = n < kBatchEntries ? n : kBatchEntries;
  std::vector<uint8_t> run(per_write * e);
  for (uint32_t i = 0; i < per_write; ++i) std::copy(entry.begin(), entry.end(), &run[i * e]);
  for (uint32_t left = n; left > 0;) {
    const uint32_t k = left < per_write ? left : per_write;
    s.bytes(std::span(run).first(k * e));
    left -= k;
  }
  return true;
}

constexpr uint8_t kZero4[4] = {};
constexpr uint8_t kOneZero[8] = {0, 0, 0, 1, 0, 0, 0, 0};  // (count 1, delta 0)
constexpr uint8_t kStscOne[12] = {0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1};
static_assert(sizeof kStscOne == 12);

uint32_t here(Sink &s) {
  return static_cast<uint32_t>(s.tell());
}

// The reserved decoder configuration (avcC or hvcC): a record without
// parameter sets and a free box over the rest of the reserve, until the
// parameter sets are known.
int32_t write_config_reserved(Sink &s, const mp4_handle *h, uint32_t *vpos) {
  const std::vector<uint8_t> empty = empty_config(extra(h).videoCodec);
  {
    Scope config(s, config_box(extra(h).videoCodec));
    if (!config.ok()) return -1;
    vpos[kVAvcC] = config.start();
    vpos[kVAvcCDataPos] = vpos[kVAvcCDataEnd] = here(s);
    s.bytes(empty);
    s.add(config.close());
  }
  const uint32_t room = kAvcCReserve - static_cast<uint32_t>(empty.size());
  Scope free(s, "free", room);
  if (!free.ok()) return -1;
  s.zeros(room - 8);
  return free.close();
}

int32_t write_video_stsd(Sink &s, const mp4_handle *h, uint32_t *vpos) {
  Scope stsd(s, "stsd");
  if (!stsd.ok()) return -1;
  vpos[kVStsd] = stsd.start();
  s.full(0, 0);
  vpos[kVStsdCount] = here(s);
  s.u32(1);
  {
    Scope entry(s, extra(h).videoCodec == kVideoH265 ? "hvc1" : "avc1");
    if (!entry.ok()) return -1;
    vpos[kVAvc1] = entry.start();
    box::write_visual_entry_fields(s, h->width, h->height);
    s.add(write_config_reserved(s, h, vpos));
    s.add(entry.close());
  }
  return stsd.close();
}

// A reserved sample table: header, count, and the entries. `count_slot` and
// `next_slot` receive the offsets of the count field and of the first entry.
struct TableSpec {
  const char *type;
  uint32_t count;    // initial entry count
  bool sample_size;  // stsz: a sample-size word before the count
  uint32_t entries;  // reserved entries
  std::span<const uint8_t> entry;
  bool hole;  // preallocate as a hole
  std::span<const uint8_t> last;
};

int32_t write_table(Sink &s, const TableSpec &t, uint32_t *start_slot, uint32_t *count_slot,
                    uint32_t *next_slot, uint32_t fixed_size = Scope::kPatched) {
  Scope table(s, t.type, fixed_size);
  if (!table.ok()) return -1;
  box::mark(start_slot, table.start());
  s.full(0, 0);
  if (t.sample_size) s.u32(0);
  box::mark(count_slot, here(s));
  s.u32(t.count);
  box::mark(next_slot, here(s));
  if (!reserve_entries(s, t.entries, t.entry, t.hole, t.last)) return -1;
  // Written with its size; patched once more like every table.
  if (fixed_size != Scope::kPatched) s.add(table.patch());
  return table.close();
}

// Until the first update an empty track declares no chunk and no sample:
// every count is 0 (the audio stts without time stamps holds its one entry
// with no frames). The first chunk raises them from the next-entry offsets.
int32_t write_video_stbl(Sink &s, const mp4_handle *h, uint32_t *vpos) {
  const uint32_t nv = h->maxVideoFrames;
  const bool hole = h->videoPrealloc == 1;
  Scope stbl(s, "stbl");
  if (!stbl.ok()) return -1;
  vpos[kVStbl] = stbl.start();
  s.add(write_video_stsd(s, h, vpos));
  s.add(write_table(s, {"stts", 0, false, nv, kOneZero, hole, kOneZero}, &vpos[kVSttsStssStart],
                    &vpos[kVSttsCount], &vpos[kVSttsNext]));
  s.add(write_table(s, {"stss", 0, false, nv, kZero4, hole, kZero4}, &vpos[kVSttsStssStart],
                    &vpos[kVStssCount], &vpos[kVStssNext]));
  vpos[kVChunkCounter] = 0;
  s.add(write_table(s, {"stsc", 0, false, nv, kStscOne, false, kStscOne}, &vpos[kVStscStart],
                    &vpos[kVStscCount], &vpos[kVStscNext]));
  s.add(write_table(s, {"stsz", 0, true, nv, kZero4, hole, kZero4}, nullptr, &vpos[kVStszCount],
                    &vpos[kVStszNext]));
  s.add(write_table(s, {"stco", 0, false, nv, kZero4, hole, kZero4}, &vpos[kVStcoStart],
                    &vpos[kVStcoCount], &vpos[kVStcoNext]));
  return stbl.close();
}

// A track is written hidden (typed "free") until its first chunk is indexed.
constexpr const char *kHiddenTrak = "free";

int32_t write_video_trak(Sink &s, const mp4_handle *h, uint32_t *vpos) {
  Scope trak(s, kHiddenTrak);
  if (!trak.ok()) return -1;
  vpos[kVTrak] = trak.start();
  s.add(box::write_tkhd(s,
                        {.creation_time = h->creationTime,
                         .track_id = 1,
                         .duration = kDurationPadMs,
                         .volume = 0,
                         .width = h->width,
                         .height = h->height,
                         .fixed_point = true,
                         .guard = h->moovEnable},
                        {&vpos[kVTkhd], &vpos[kVTkhdDuration]}));
  s.add(box::write_edts(s, kDurationPadMs, {&vpos[kVEdts], &vpos[kVElstDuration]}));
  {
    Scope mdia(s, "mdia");
    if (!mdia.ok()) return -1;
    vpos[kVMdia] = mdia.start();
    s.add(box::write_mdhd(s, h->creationTime, h->videoTimeScale, 0,
                          {&vpos[kVMdhd], &vpos[kVMdhdDuration]}));
    s.add(box::write_hdlr(s, "vide", &vpos[kVHdlr]));
    {
      Scope minf(s, "minf");
      if (!minf.ok()) return -1;
      vpos[kVMinf] = minf.start();
      s.add(box::write_vmhd(s, &vpos[kVVmhd]));
      s.add(box::write_dinf(s, {&vpos[kVDinf], &vpos[kVDref], &vpos[kVDrefCount]}));
      s.add(write_video_stbl(s, h, vpos));
      s.add(minf.close());
    }
    s.add(mdia.close());
  }
  return trak.close();
}

int32_t write_audio_stbl(Sink &s, const mp4_handle *h, uint32_t *apos) {
  const uint32_t na = h->maxAudioFrames;
  const bool hole = h->audioPrealloc == 1;
  const bool time_stamps = h->audioTimeStamps == 1;
  const uint32_t n = time_stamps ? na : 1;
  Scope stbl(s, "stbl");
  if (!stbl.ok()) return -1;
  apos[kAStbl] = stbl.start();
  {
    Scope stsd(s, "stsd");
    if (!stsd.ok()) return -1;
    apos[kAStsd] = stsd.start();
    s.full(0, 0);
    apos[kAStsdCount] = here(s);
    s.u32(1);
    {
      Scope mp4a(s, "mp4a");
      if (!mp4a.ok()) return -1;
      apos[kAMp4a] = mp4a.start();
      box::write_audio_entry_fields(s, h->sampleRate);
      s.add(box::write_esds_audio(s, h->audioFormat, h->sampleRate));
      s.add(mp4a.close());
    }
    s.add(stsd.close());
  }
  const uint8_t frame_entry[8] = {0,
                                  0,
                                  0,
                                  0,
                                  uint8_t(h->audioFrameSamples >> 24),
                                  uint8_t(h->audioFrameSamples >> 16),
                                  uint8_t(h->audioFrameSamples >> 8),
                                  uint8_t(h->audioFrameSamples)};
  s.add(write_table(s, {"stts", n, false, n, frame_entry, hole, kOneZero}, &apos[kASttsStart],
                    &apos[kASttsCount], &apos[kASttsNext], 16 + 8 * n));
  apos[kAChunkCounter] = 0;
  s.add(write_table(s, {"stsc", 0, false, na, kStscOne, false, kStscOne}, &apos[kAStscStart],
                    &apos[kAStscCount], &apos[kAStscNext]));
  s.add(write_table(s, {"stsz", 0, true, na, kZero4, hole, kZero4}, &apos[kAStszStart],
                    &apos[kAStszCount], &apos[kAStszNext]));
  s.add(write_table(s, {"stco", 0, false, na, kZero4, hole, kZero4}, &apos[kAStcoStart],
                    &apos[kAStcoCount], &apos[kAStcoNext]));
  return stbl.close();
}

uint32_t audio_frame_ms(const mp4_handle *h) {
  return h->audioKHz == 0 ? 0 : h->audioFrameSamples / h->audioKHz;
}

int32_t write_audio_trak(Sink &s, const mp4_handle *h, uint32_t *apos) {
  Scope trak(s, kHiddenTrak);
  if (!trak.ok()) return -1;
  apos[kATrak] = trak.start();
  s.add(box::write_tkhd(s,
                        {.creation_time = h->creationTime,
                         .track_id = 2,
                         .duration = audio_frame_ms(h),
                         .volume = 0x0100,
                         .width = 0,
                         .height = 0,
                         .fixed_point = true,
                         .guard = h->audioKHz},
                        {&apos[kATkhd], &apos[kATkhdDuration]}));
  {
    Scope mdia(s, "mdia");
    if (!mdia.ok()) return -1;
    apos[kAMdia] = mdia.start();
    s.add(box::write_mdhd(s, h->creationTime, h->sampleRate, 0,
                          {&apos[kAMdhd], &apos[kAMdhdDuration]}));
    s.add(box::write_hdlr(s, "soun", &apos[kAHdlr]));
    {
      Scope minf(s, "minf");
      if (!minf.ok()) return -1;
      apos[kAMinf] = minf.start();
      s.add(box::write_smhd(s));
      s.add(box::write_dinf(s, {&apos[kADinf], &apos[kADref], &apos[kADrefCount]}));
      s.add(write_audio_stbl(s, h, apos));
      s.add(minf.close());
    }
    s.add(mdia.close());
  }
  return trak.close();
}

struct HandleRelease {
  void operator()(mp4_handle *h) const { free_mp4_h264(h); }
};
using HandlePtr = std::unique_ptr<mp4_handle, HandleRelease>;

// Removes a file that a failed head created (it holds nothing yet).
void discard(FILE *&file, const char *path) {
  if (file == nullptr) return;
  mp4_fclose(file);
  file = nullptr;
  std::remove(path);
}

}  // namespace
}  // namespace mp4rec

using namespace mp4rec;

extern "C" int mp4_write_moov_init(FILE *file, mp4_handle *handle, updatePos *pos) {
  if (file == nullptr || handle == nullptr || pos == nullptr || pos->videoPos == nullptr ||
      pos->audioPos == nullptr) {
    return -1;
  }
  Sink s{file, handle->writeStatus};
  Scope moov(s, "moov");
  if (!moov.ok()) return -1;
  pos->moovPos = handle->moovPos = moov.start();
  const uint32_t frame_ms = audio_frame_ms(handle);
  s.add(box::write_mvhd(s,
                        {.creation_time = handle->creationTime,
                         .time_scale = handle->movieTimeScale,
                         .duration = frame_ms > kDurationPadMs ? frame_ms : kDurationPadMs,
                         .moov_enable = handle->moovEnable,
                         .audio_khz = handle->audioKHz},
                        {&pos->mvhdPos, &pos->mvhdDurationPos}));
  s.add(write_video_trak(s, handle, pos->videoPos));
  s.add(write_audio_trak(s, handle, pos->audioPos));
  handle->indexState = kHiddenVideo | kHiddenAudio;
  s.add(box::write_udta(s));
  return moov.close();
}

namespace mp4rec {

namespace {

// The head writer of both codecs; its messages are logged under `name`.
#define HEAD_ERR(message) MP4_LOG_AS(name, kLogError, kModRecorder, message)

mp4_handle *write_head_index(const char *name, uint32_t codec, const char *mp4_path,
                             const char *mp2_tmp_path, int width, int height, int audio_format,
                             mp4_stream_info *info) {
  if (info == nullptr) {
    HEAD_ERR("mp4 open write head : param error\n");
    return nullptr;
  }
  HandlePtr h(handle_alloc());
  if (!h) {
    HEAD_ERR("mp4 open write head : param error\n");
    return nullptr;
  }
  extra(h.get()).videoCodec = codec;
  // The record is attached at once so that every failure below releases it
  // with the handle.
  auto *pos = static_cast<updatePos *>(std::calloc(1, sizeof(updatePos)));
  h->updatePos = pos;
  if (pos != nullptr) {
    pos->videoPos = static_cast<uint32_t *>(std::calloc(kVideoPosSlots, sizeof(uint32_t)));
    if (pos->videoPos != nullptr) {
      pos->audioPos = static_cast<uint32_t *>(std::calloc(kAudioPosSlots, sizeof(uint32_t)));
    }
  }
  if (pos == nullptr || pos->videoPos == nullptr || pos->audioPos == nullptr) {
    HEAD_ERR("mp4 open write head : updatePos malloc error\n");
    return nullptr;
  }

  if (info->record_duration == 0) info->record_duration = 600;
  h->width = 640;
  h->height = 480;
  h->durationPad = kDurationPadMs;
  h->audioFrameSamples = 1152;
  h->movieTimeScale = static_cast<uint32_t>(info->movie_time_scale);
  h->moovEnable = 1;
  h->audioKHz = 16;
  h->videoTimeScale = 1000;
  h->sampleRate = static_cast<uint32_t>(info->audio_sample_rate);
  const auto cap =
      table_capacities(info->record_duration, static_cast<uint32_t>(info->video_frame_rate),
                       static_cast<uint32_t>(info->audio_sample_rate));
  h->maxVideoFrames = cap.video;
  h->maxAudioFrames = cap.audio;
  pos->firstVideoTs = pos->firstAudioTs = kUnknownTs;
  pos->lastVideoTs = pos->lastAudioTs = kUnknownTs;
  h->creationTime = creation_time(kMp4EpochOffset);

  if (mp4_path == nullptr || mp2_tmp_path == nullptr) {
    HEAD_ERR("mp4 open write head : file path error\n");
    return nullptr;
  }
  if (audio_format < 1 || audio_format > 3) {
    HEAD_ERR("mp4 open write head : audio format error\n");
    return nullptr;
  }
  h->audioFormat = static_cast<uint32_t>(audio_format);
  if (audio_format == 3) h->audioFrameSamples = 1024;
  if (width < 1 || height < 1) {
    HEAD_ERR("mp4 open write head : video width or height error\n");
    return nullptr;
  }
  h->width = static_cast<uint32_t>(width);
  h->height = static_cast<uint32_t>(height);
  // Offsets and box sizes are 32-bit and positions signed: a planned length
  // whose reserved index cannot be addressed is refused before any file is made.
  const bool stamps = info->audio_timestamp_mode == 1;
  const uint64_t span = uint64_t{info->record_duration} + info->record_duration / 10 + 1;
  if (reserved_moov_size(
          h->audioFormat, stamps, span * static_cast<uint32_t>(info->video_frame_rate),
          span * (static_cast<uint32_t>(info->audio_sample_rate) / 1024)) > kMaxReservedMoov) {
    HEAD_ERR("mp4 open write head : param error\n");
    return nullptr;
  }

  h->file = mp4_fopen(mp4_path, "wb");
  if (h->file == nullptr) {
    HEAD_ERR("mp4 open write head : open mp4 file failed\n");
    return nullptr;
  }
  h->mp2File = mp4_fopen(mp2_tmp_path, "wb+");
  if (h->mp2File == nullptr) {
    HEAD_ERR("mp4 open write head : open tmp mp2 file failed\n");
    discard(h->file, mp4_path);
    return nullptr;
  }
  // The MP2 encoder is opened for the MPEG audio formats only: an AAC
  // recording never touches it, and its codec's pages stay out of the
  // process.
  if (audio_format != 3) h->mp2Encoder = MP2_encode_init(static_cast<int>(h->sampleRate), 24000, 1);
  if (audio_format != 3 && h->mp2Encoder == nullptr) {
    HEAD_ERR("mp4 open write head : mp2 encoder init error!\n");
    discard(h->file, mp4_path);
    discard(h->mp2File, mp2_tmp_path);
    return nullptr;
  }

  // This file keeps its own flags; the process-wide ones follow the last head.
  h->videoPrealloc = info->video_prealloc == 1 ? 1 : 0;
  h->audioPrealloc = info->audio_prealloc == 1 ? 1 : 0;
  h->audioTimeStamps = stamps ? 1 : 0;
  videoPreallocFlag.store(static_cast<int32_t>(h->videoPrealloc), std::memory_order_relaxed);
  audioPreallocFlag.store(static_cast<int32_t>(h->audioPrealloc), std::memory_order_relaxed);
  audioTimeStampFlag.store(static_cast<int32_t>(h->audioTimeStamps), std::memory_order_relaxed);

  Sink s{h->file, h->writeStatus};
  s.add(box::write_ftyp(s, false, codec == kVideoH265 ? "hvc1" : "avc1"));
  s.add(mp4_write_moov_init(h->file, h.get(), pos));
  s.add(box::write_free_mdat(s, &h->mdatPos));
  // A head that did not reach the file fails it: nothing recorded behind it
  // could ever be read.
  if (h->writeStatus != 0 || std::fflush(h->file) != 0) {
    MP4_ERR("mp4 open write head : write head error\n");
    discard(h->file, mp4_path);
    discard(h->mp2File, mp2_tmp_path);
    return nullptr;
  }
  pos->dataPos = h->mdatPos + 8;
  pos->videoPos[kVChunkOffset] = pos->dataPos;
  return h.release();
}

#undef HEAD_ERR

}  // namespace

mp4_handle *mp4_write_head_h265_index(const char *mp4_path, const char *mp2_tmp_path, int width,
                                      int height, int audio_format, mp4_stream_info *info) {
  return write_head_index(__func__, kVideoH265, mp4_path, mp2_tmp_path, width, height, audio_format,
                          info);
}

}  // namespace mp4rec

extern "C" mp4_handle *mp4_write_head_h264_index(const char *mp4_path, const char *mp2_tmp_path,
                                                 int width, int height, int audio_format,
                                                 mp4_stream_info *info) {
  return write_head_index(__func__, kVideoH264, mp4_path, mp2_tmp_path, width, height, audio_format,
                          info);
}
