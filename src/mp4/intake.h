// The sample intake as the front end calls it, and what the intakes of the two
// video codecs share.
#pragma once

#include <cstdint>

#include "common/internal.h"
#include "mp4/nal.h"

namespace mp4rec {

// mp4_write_one_h264, telling the caller whether the handle was released (a
// parameter, start-code or allocation error): it is gone then, and nothing of
// the data buffer points at it any more.
[[nodiscard]] int write_one_h264(unsigned char *data, int length, int timestamp, mp4_handle *handle,
                                 bool *released);

// Releases the handle after a refused unit: the file is first brought to the
// state a close leaves (every frame already accepted written and indexed),
// then the data buffer lets go of it, then it is freed. Sets `released`;
// returns -1.
int release_handle(mp4_handle *handle, bool *released);

// The checks a video intake makes first: handle, data, open file, a length of
// at least 4 and a time stamp not below 0 ("mp4 write video : param error"),
// then an Annex B start code with at least `header` bytes behind it
// (`head_error`). Returns the start code's length, or 0 when the unit is
// refused: logged under `name`, and the handle released.
[[nodiscard]] int checked_start_code(const char *name, const char *head_error, unsigned char *data,
                                     int length, int timestamp, mp4_handle *handle, int header,
                                     bool *released);

// -5, with "mp4 write video : file is full" logged once per file, when
// `bytes` more would take the file past its size limit; else 0.
[[nodiscard]] int refuse_when_full(mp4_handle *handle, uint32_t bytes);

// Hands one picture (`payload`: the unit behind its start code, `unit_len`
// bytes) to the data buffer as a new sample of `kind` (kNalPicture, or kNalIdr
// for a sync sample). Returns 0; -5 when the reserved tables are full or the
// file would pass its size limit; -1 when the handle has no data buffer, or
// when no index record can be allocated (the handle is released then); or
// the data buffer's refusal. Failures are logged under `name`.
[[nodiscard]] int enqueue_picture(const char *name, mp4_handle *handle, unsigned char *payload,
                                  uint32_t unit_len, NalClass kind, int timestamp, bool *released);

}  // namespace mp4rec
