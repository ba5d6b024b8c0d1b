// Box writers of the files whose index is written once the samples are known
// (the MJPEG file and the H.264 file with the index at the end): every table
// holds exactly the entries that exist and every size is final when written.
// Each track is indexed as one chunk.
#pragma once

#include <cstdint>

#include "audio/pcm_to_mp2.h"
#include "mp4/alt/mjpeg.h"
#include "mp4/box.h"
#include "mp4/handle.h"

namespace mp4rec::alt {

// The one buffer through which the side file's frames are copied at the end.
inline constexpr unsigned kSideFileBufferBytes = 65536;

// moovPos of a file without an index area in front of its media.
inline constexpr uint32_t kNoIndexArea = 0xFFFFFFFFu;

// Head: ftyp, free and the mdat header (size 0 until the end). Sets mdatPos.
[[nodiscard]] int32_t write_head(box::Sink &s, mp4_mjpeg_ctx &ctx);
[[nodiscard]] int32_t write_head(box::Sink &s, mp4_handle &h);

// Patches the mdat size to mediaBytes + 8 and writes moov at the current
// position (behind the last sample).
[[nodiscard]] int32_t write_end(box::Sink &s, mp4_mjpeg_ctx &ctx);
[[nodiscard]] int32_t write_end(box::Sink &s, mp4_handle &h);

// The children of an H.264 moov (mvhd, video trak, audio trak, udta), written
// at the current position from the handle's own lists; `udta_padding` as for
// box::write_udta.
[[nodiscard]] int32_t write_moov_children(box::Sink &s, const mp4_handle &h,
                                          uint32_t udta_padding = 0);

// Exact size of the moov that write_end / write_moov_children produce for a
// handle (the moov header included).
uint32_t moov_size(const mp4_handle &h);

// Ends an H.264 file whose index has been written: a non-zero writeStatus
// releases the handle and gives -1; otherwise the file is closed, the handle
// released, and the result is 0, or -1 when the close failed.
[[nodiscard]] int close_and_release(mp4_handle *h);

// Creation time of a new file in seconds since 1904-01-01 (see creation_time).
uint32_t creation_time_now();

}  // namespace mp4rec::alt
