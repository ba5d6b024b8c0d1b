// Sizes and constants of the front-index file head, shared by the head writer,
// the in-place index update and the tests.
#pragma once

#include <cstdint>

namespace mp4rec {

// The 50 ms that every duration adds for the newest sample.
inline constexpr uint32_t kDurationPadMs = 50;
// Bytes reserved behind the avcC header for the decoder configuration. They
// hold the avcC content, a configuration record (without parameter sets until
// SPS and PPS are known), and a free box over the rest, so that a parser
// walking the avc1 entry skips the room. Fewer than 8 bytes left cannot hold a
// box: they stay inside avcC as zero padding behind the record.
inline constexpr uint32_t kAvcCReserve = 512;
// Bytes of avcC content (the record and its padding) for a record of `record`
// bytes; the free box takes the rest of the reserve.
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

}  // namespace mp4rec
