// Sizes and constants of the front-index file head, shared by the head writer,
// the in-place index update and the tests.
#pragma once

#include <cstdint>
#include <vector>

#include "common/internal.h"

namespace mp4rec {

// The 50 ms that every duration adds for the newest sample.
inline constexpr uint32_t kDurationPadMs = 50;
// Bytes reserved behind the avcC (H.264) or hvcC (H.265) header for the
// decoder configuration. They hold the box's content, a configuration record
// (without parameter sets until they are known), and a free box over the
// rest, so that a parser walking the sample entry skips the room. Fewer than
// 8 bytes left cannot hold a box: they stay inside the configuration box as
// zero padding behind the record.
inline constexpr uint32_t kAvcCReserve = 512;
// Bytes of avcC or hvcC content (the record and its padding) for a record of
// `record` bytes; the free box takes the rest of the reserve.
constexpr uint32_t avcc_content_size(uint32_t record) {
  return kAvcCReserve - record < 8 ? kAvcCReserve : record;
}
// Largest reserved moov that the head writer accepts: file offsets are 32-bit
// and positions signed, and the samples still have to fit behind it.
inline constexpr uint64_t kMaxReservedMoov = 512u << 20;

// Size of the reserved moov for the given capacities: 1577 + S + 32 Nv + 8 n +
// 20 Na, S = 87 for MPEG-1 audio and 91 for AAC, n = Na with time-stamped
// audio, else 1.
uint64_t reserved_moov_size(uint32_t audio_format, bool audio_time_stamps, uint64_t video_frames,
                            uint64_t audio_frames);

// The decoder configuration box of a video codec (kVideoH264 or kVideoH265):
// "avcC" or "hvcC", its record without parameter sets, and the handle's full
// record, which is empty while a parameter set the codec needs is missing.
const char *config_box(uint32_t codec);
std::vector<uint8_t> empty_config(uint32_t codec);
std::vector<uint8_t> full_config(const mp4_handle *h);

// mp4_write_head_h264_index for an H.265 file: the same head with an hvc1
// sample entry and a reserved hvcC, and "hvc1" in place of "avc1" among the
// compatible brands. Its messages are logged under its own name.
mp4_handle *mp4_write_head_h265_index(const char *mp4_path, const char *mp2_tmp_path, int width,
                                      int height, int audio_format, mp4_stream_info *info);

}  // namespace mp4rec
