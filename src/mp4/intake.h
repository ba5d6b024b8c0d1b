// The sample intake as the front end calls it.
#pragma once

#include "common/internal.h"

namespace mp4rec {

// mp4_write_one_h264, telling the caller whether the handle was released (a
// parameter, start-code or allocation error): it is gone then, and nothing of
// the data buffer points at it any more.
int write_one_h264(unsigned char *data, int length, int timestamp, mp4_handle *handle,
                   bool *released);

}  // namespace mp4rec
