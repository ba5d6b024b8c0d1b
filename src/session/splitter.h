// Cutting an H.264 access unit into its NAL units.
#pragma once

#include <cstdint>

#include "common/internal.h"

namespace mp4rec {

// Start codes are looked for only this far into an access unit: parameter sets
// and SEI are short, and the slice behind them runs to the end of the buffer.
inline constexpr int kSplitSearchWindow = 200;

// Receives one NAL unit (with its start code) and its time stamp.
using NalSink = int (*)(unsigned char *data, int length, int timestamp, mp4_handler *handler);

// Hands the NAL units of one access unit to `sink`, stamping them timestamp,
// timestamp + 1, ...; returns the last piece's result, or -1 when an earlier
// piece failed or the arguments are bad.
int split_access_unit(unsigned char *data, int length, int timestamp, mp4_handler *handler,
                      NalSink sink);

}  // namespace mp4rec
