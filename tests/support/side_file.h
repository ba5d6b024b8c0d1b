// Helpers for tests that feed the MP2/AAC side file.
#pragma once

#include <cstdint>
#include <vector>

namespace sidefile {

// True when the side-file reader, which finds frames by their sync pair alone,
// would cut this frame somewhere else than at its own boundaries: a sync pair
// (exactly one 0xFF, then `second`) inside the payload, or a last byte 0xFF
// that hides the next frame's sync.
inline bool cut_elsewhere(const std::vector<uint8_t> &frame, uint8_t second = 0xF1) {
  unsigned ff = 0;
  for (size_t i = 2; i < frame.size(); ++i) {
    if (frame[i] == 0xFF) {
      ++ff;
      continue;
    }
    if (frame[i] == second && ff == 1) return true;
    ff = 0;
  }
  return frame.back() == 0xFF;
}

}  // namespace sidefile
