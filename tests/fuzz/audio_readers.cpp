// The MP2 and ADTS side-file readers: any stream is read to its end in frames
// that fit the caller's buffer and start with the sync pair.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "common/internal.h"

namespace {

using Head = int (*)(FILE *);
using Frame = int (*)(FILE *, unsigned char *, unsigned int, unsigned int *);

void read_all(std::vector<uint8_t> &stream, unsigned capacity, uint8_t sync, Head head,
              Frame frame) {
  FILE *f = fmemopen(stream.data(), stream.size(), "rb");
  if (f == nullptr) return;
  if (head(f) == 0) {
    std::vector<unsigned char> buf(capacity);  // exact size: over-writes show
    unsigned int length = 0;
    for (size_t frames = 0; frame(f, buf.data(), capacity, &length) == 0; ++frames) {
      if (length < 3 || length > capacity || buf[0] != 0xFF || buf[1] != sync ||
          frames > stream.size())
        std::abort();
    }
  }
  fclose(f);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size < 2 || size > 1 << 20) return 0;
  // The first byte sizes the caller's buffer (2 to 2050 bytes).
  const unsigned capacity = 2 + 8u * bytes[0];
  std::vector<uint8_t> stream(bytes + 1, bytes + size);
  read_all(stream, capacity, 0xF5, mp4_handle_mp2_head, mp4_read_mp2_frame);
  read_all(stream, capacity, 0xF1, mp4_handle_aac_head, mp4_read_aac_frame);
  return 0;
}
