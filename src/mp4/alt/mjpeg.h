// The MJPEG writer's per-file context and its two sample lists. Pictures go
// straight into mdat as they arrive; audio is kept as MP2 frames in the side
// file and copied behind the pictures when the file is finished, followed by
// the complete index.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <optional>
#include <span>

#include "common/internal.h"

// One accepted picture: its bytes in mdat and the caller's time stamp (ms).
struct jpegNode {
  uint32_t size;
  uint32_t timeStamp;
  jpegNode *next;
};

// One MP2 frame copied from the side file at the end.
struct mp2Node {
  uint32_t size;
  mp2Node *next;
};

// The first fields mirror the MP4 handle's; there are no parameter-set copies,
// no data buffer and no patch positions. Nothing here is shared between
// threads: calls on one context come from one thread at a time.
struct mp4_mjpeg_ctx {
  FILE *file;                  // the .mp4 file ("wb")
  FILE *mp2File;               // the MP2 side file ("wb+"), read back at the end
  uint32_t creationTime;       // fixed, seconds since 1904-01-01
  uint32_t mdatPos;            // 40 once the head is written
  uint32_t mediaBytes;         // picture bytes, then MP2 frame bytes, placed in mdat
  jpegNode *videoHead;         // picture list
  jpegNode *videoTail;         //
  uint32_t videoCount;         // pictures accepted
  int32_t width;               // pixels
  int32_t height;              //
  uint32_t mp2DataPos;         // start of the audio run (the one audio chunk)
  mp2Node *audioHead;          // MP2 frame list, filled by the end step
  mp2Node *audioTail;          //
  uint32_t audioCount;         // MP2 frames placed in mdat
  uint32_t durationPad;        // 50, not read
  uint32_t audioFrameSamples;  // 1152
  uint32_t movieTimeScale;     // 1000
  uint32_t moovEnable;         // fixed 1
  uint32_t audioKHz;           // fixed 16: audio samples per millisecond
  uint32_t videoTimeScale;     // 1000
  uint32_t sampleRate;         // 16000
  uint32_t audioFormat;        // 1 (8-bit PCM) or 2 (16-bit PCM)
  void *mp2Encoder;            // 16000 Hz, 64 kbit/s, mono
  int32_t writeStatus;         // error sum of every write, seek and size patch
};

namespace mp4rec {

// Creation time of every MJPEG file (2009-08-30 07:43:45 UTC); this writer
// never reads the clock.
inline constexpr uint32_t kMjpegCreationTime = 0xC6BFDE31u;

// Finds FF <marker> where exactly one 0xFF stands in front of the marker byte
// (two or more 0xFF fill bytes hide it), scanning from `from`. Returns the
// index of the marker byte.
constexpr std::optional<size_t> find_jpeg_marker(std::span<const uint8_t> bytes, size_t from,
                                                 uint8_t marker) {
  unsigned ff = 0;
  for (size_t i = from; i < bytes.size(); ++i) {
    if (bytes[i] == 0xFF) {
      ++ff;
      continue;
    }
    if (bytes[i] == marker && ff == 1) return i;
    ff = 0;
  }
  return std::nullopt;
}

// The picture inside a caller's buffer: from the start marker's 0xFF to the end
// marker's 0xD9 inclusive.
struct JpegSpan {
  size_t start;
  size_t size;
};
enum class JpegScan { kPicture, kNoStart, kNoEnd };
struct JpegFound {
  JpegScan result;
  JpegSpan span;
};
constexpr JpegFound find_jpeg_picture(std::span<const uint8_t> bytes) {
  const auto soi = find_jpeg_marker(bytes, 0, 0xD8);
  if (!soi) return {JpegScan::kNoStart, {}};
  const size_t start = *soi - 1;
  const auto eoi = find_jpeg_marker(bytes, start + 2, 0xD9);
  if (!eoi) return {JpegScan::kNoEnd, {}};
  return {JpegScan::kPicture, {start, *eoi - start + 1}};
}

// Closes both streams, frees the picture and MP2 lists, closes the encoder and
// frees the record. Also the release of an abandoned MJPEG recording.
void mjpeg_release(mp4_mjpeg_ctx *ctx);

// mp4_write_one_jpeg and mp4_write_pcm_jpeg, telling the caller whether the
// context was released (it is gone then). A picture or block that would take
// the finished file past kMaxFileBytes is refused with -5.
[[nodiscard]] int mjpeg_write_one(unsigned char *data, int length, int timestamp,
                                  mp4_mjpeg_ctx *ctx, bool *released);
[[nodiscard]] int mjpeg_write_pcm(unsigned char *data, int length, mp4_mjpeg_ctx *ctx,
                                  bool *released);

}  // namespace mp4rec
