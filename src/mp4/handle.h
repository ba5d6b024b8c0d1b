// The per-file MP4 handle of an H.264 recording, its position tables and its
// sample lists. The record keeps the field order that the camera firmware
// knows; the three counters that the caller's thread writes and the writer
// thread reads are relaxed atomics of the same width.
#pragma once

#include <atomic>
#include <cstdint>
#include <cstdio>

#include "common/internal.h"
#include "mp4/node_list.h"

// Slots of the video position table (41 words): file offsets of every box and
// field that the in-place index update reads or patches.
enum VideoPosSlot : int {
  kVChunkCounter = 0,
  kVTrak,
  kVTkhd,
  kVTkhdDuration,
  kVEdts,
  kVElstDuration,
  kVMdia,
  kVMdhd,
  kVMdhdDuration,
  kVHdlr,
  kVMinf,
  kVVmhd,
  kVDinf,
  kVDref,
  kVDrefCount,
  kVStbl,
  kVStsd,
  kVStsdCount,
  kVAvc1,
  kVAvcC,
  kVAvcCDataPos,
  kVAvcCDataEnd,
  kVSttsStssStart,  // shared by stts and stss: ends up holding the stss start
  kVSttsCount,
  kVSttsNext,
  kVStssCount,
  kVStssNext,
  kVStscStart,
  kVStscCount,
  kVStscNext,
  kVStszCount,
  kVStszNext,
  kVStcoStart,
  kVStcoCount,
  kVStcoNext,
  kVChunkOffset = 40,  // the offset most recently written into stco
  kVideoPosSlots = 41,
};

// Slots of the audio position table (40 words).
enum AudioPosSlot : int {
  kATrak = 0,
  kAChunkCounter,
  kATkhd,
  kATkhdDuration,
  kAMdia,
  kAMdhd,
  kAMdhdDuration,
  kAHdlr,
  kAMinf,
  kADinf,
  kADref,
  kADrefCount,
  kAStbl,
  kAStsd,
  kAStsdCount,
  kAMp4a,
  kASttsStart,
  kASttsCount,
  kASttsNext,
  kAStscStart,
  kAStscCount,
  kAStscNext,
  kAStszStart,
  kAStszCount,
  kAStszNext,
  kAStcoStart,
  kAStcoCount,
  kAStcoNext,
  kASttsDuration,  // time-stamped audio: sum of the stts deltas but the provisional one
  kAChunkOffset = 39,
  kAudioPosSlots = 40,
};

inline constexpr uint32_t kUnknownTs = 0xFFFFFFFFu;  // "not yet known" in updatePos

// Bits of indexState. Until a track's first chunk is indexed its trak box is
// typed "free", so that readers skip it; the one word that makes it a "trak"
// is written once the track's tables describe that chunk.
inline constexpr uint32_t kHiddenVideo = 1;
inline constexpr uint32_t kHiddenAudio = 2;
// A write or seek of the index failed: from then on nothing that readers see
// is written, so the file keeps the last valid state that reached the card.
inline constexpr uint32_t kIndexStopped = 4;

struct mp4_handle {
  FILE *file;                        // the .mp4 file ("wb")
  FILE *mp2File;                     // temporary MP2 side file ("wb+")
  uint32_t creationTime;             // seconds since 1904-01-01
  uint32_t mdatPos;                  // offset of the mdat header
  std::atomic<uint32_t> mediaBytes;  // sample bytes accepted so far
  uint8_t *sps;                      // first SPS seen (without start code)
  uint32_t spsLen;
  uint8_t *pps;  // first PPS seen
  uint32_t ppsLen;
  videoNode *videoHead;  // the handle's own video list (index-at-end writer)
  videoNode *videoTail;
  std::atomic<uint32_t> videoCount;  // video samples accepted
  uint32_t width;
  uint32_t height;
  uint32_t mp2DataPos;  // start of the audio run (index-at-end writer)
  audioNode *audioHead;
  audioNode *audioTail;
  std::atomic<uint32_t> audioCount;  // audio frames accepted
  uint32_t durationPad;              // 50, not read
  uint32_t audioFrameSamples;        // 1152, or 1024 for AAC
  uint32_t movieTimeScale;
  uint32_t moovEnable;      // fixed 1
  uint32_t audioKHz;        // fixed 16
  uint32_t videoTimeScale;  // 1000
  uint32_t sampleRate;      // Hz, audio mdhd time scale
  uint32_t audioFormat;     // 1, 2 or 3
  void *mp2Encoder;
  mp4_data_buffer *dataBuffer;
  int32_t writeStatus;  // error sum of the box writers
  uint32_t moovPos;
  struct updatePos *updatePos;  // patch positions (null on the index-at-end road)
  uint32_t maxDuration;
  uint32_t indexState;         // kHiddenVideo, kHiddenAudio, kIndexStopped
  uint32_t videoSampleNumber;  // video samples indexed so far
  // The stream info's flags as they were when this file's head was written;
  // the process-wide flags follow whichever head came last.
  uint32_t videoPrealloc;
  uint32_t audioPrealloc;
  uint32_t audioTimeStamps;
  uint32_t maxVideoFrames;  // capacity of the reserved video tables
  uint32_t maxAudioFrames;  // capacity of the reserved audio tables
};
// 39 words on a 32-bit target, as the camera firmware lays the record out.
static_assert(!mp4rec::kWords32 || sizeof(mp4_handle) == 39 * 4);

namespace mp4rec {

// Table capacities for a planned length of `seconds`: 10 % more than the
// nominal length plus one second.
struct Capacities {
  uint32_t video;
  uint32_t audio;
};
constexpr Capacities table_capacities(uint32_t seconds, uint32_t frame_rate, uint32_t sample_rate) {
  const uint32_t span = seconds + seconds / 10 + 1;
  return {span * frame_rate, span * (sample_rate / 1024)};
}

// Seconds from 1904-01-01 (MP4 epoch) to 1970-01-01.
inline constexpr uint32_t kMp4EpochOffset = 2082844800u;

// The creation time of a new file, in seconds since 1904 when `epoch_offset`
// is the number of seconds from 1904 to 1970: now, or the SOURCE_DATE_EPOCH
// of the environment when it is set (reproducible recordings). The files'
// 32-bit field ends on 2040-02-06; a later time is written as its last second,
// with a log line, rather than wrapped round.
uint32_t creation_time(uint32_t epoch_offset);

// Appends at the tail of the handle's own lists (next cleared, count raised).
void handle_append_video(mp4_handle *h, videoNode *node);
void handle_append_audio(mp4_handle *h, audioNode *node);

}  // namespace mp4rec

namespace mp4rec {

// What the library keeps per file beyond the record, which keeps its layout:
// it lies right behind the record in the same allocation.
struct HandleExtra {
  uint32_t videoCodec;  // kVideoH264 or kVideoH265
  uint8_t *vps;         // H.265: the first video parameter set (without start code)
  uint32_t vpsLen;
  // H.265: the newest picture was accepted, so its further slices join its sample.
  bool pictureOpen;
};

// A zeroed handle (null pointers, zero counters) with its extra fields;
// release with free_mp4_h264.
mp4_handle *handle_alloc();
// The extra fields of a handle made by handle_alloc.
HandleExtra &extra(mp4_handle *h);
const HandleExtra &extra(const mp4_handle *h);

}  // namespace mp4rec
