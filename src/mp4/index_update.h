// Patch writers of the reserved front index, shared by the batch update
// (mp4_write_moov_update_buffer) and the per-sample update.
//
// Each takes the file, the handle and the track's position table, seeks to a
// recorded position and writes there. It returns the handle's writeStatus after
// adding its writes' results, or -1 when a seek fails (after logging
// "mp4 write index : mp4_fseek error\n" under its own name). The caller adds
// the return into writeStatus. None of them restores the file position: the
// caller remembers it and seeks back at the end.
#pragma once

#include <cstdint>
#include <cstdio>

#include "mp4/handle.h"

namespace mp4rec {

// Video track duration fields: tkhd, elst segment duration, mdhd.
int32_t mp4_write_tkhd_tag_update(FILE *file, mp4_handle *h, uint32_t *videoPos, uint32_t duration);
int32_t mp4_write_edts_tag_update(FILE *file, mp4_handle *h, uint32_t *videoPos, uint32_t duration);
int32_t mp4_write_mdhd_tag_update(FILE *file, mp4_handle *h, uint32_t *videoPos, uint32_t duration);
// Audio track duration fields: tkhd, mdhd.
int32_t mp4_write_trak_tag_2_update(FILE *file, mp4_handle *h, uint32_t *audioPos,
                                    uint32_t duration);
int32_t mp4_write_mdhd_tag_2_update(FILE *file, mp4_handle *h, uint32_t *audioPos,
                                    uint32_t duration);

// Writes the avcC decoder configuration into the reserved avcC once: only while
// nothing has been written there yet and both SPS and PPS are known (else 0).
// The avcC box grows to the record and the free box behind it shrinks to the
// rest of the reserve (see kAvcCReserve). A configuration that does not fit
// the reserve is not written: it logs and returns -1.
int32_t mp4_write_stsd_tag_update(FILE *file, mp4_handle *h, uint32_t *videoPos);

// Writes maxDuration at the mvhd duration field (the write's result goes into
// writeStatus). False, with nothing logged, when the seek fails; the caller
// logs under its own name.
bool patch_mvhd_duration(FILE *file, mp4_handle *h);
// Writes mediaBytes + 8 as the mdat size. False when the seek fails.
bool patch_mdat_size(FILE *file, mp4_handle *h);

}  // namespace mp4rec
