// Front-end helpers shared with the base and the pre-open thread.
#pragma once

#include "common/internal.h"

namespace mp4rec {

// Releases a handler's writer context without finishing its file (MJPEG
// context or H.264 handle); the record itself stays.
void release_context(mp4_handler &handler);

// Releases the handler that a close failed on a card error left with this
// data buffer, if there is one (its context, then the record).
void release_kept_handler(mp4_data_buffer *data);

}  // namespace mp4rec
