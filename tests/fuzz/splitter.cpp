// The access-unit splitter: any buffer is cut into pieces that lie inside it,
// follow each other without gap, and carry rising time stamps.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "session/splitter.h"

namespace {

struct Cut {
  const unsigned char *base;
  int length;
  int next;  // where the next piece must begin
  int calls;
  int fail_at;
};
Cut g_cut;

int sink(unsigned char *data, int length, int timestamp, mp4_handler *) {
  if (data != g_cut.base + g_cut.next || length < 0 || g_cut.next + length > g_cut.length ||
      timestamp != 1000 + g_cut.calls)
    std::abort();
  volatile unsigned sum = 0;
  for (int i = 0; i < length; ++i) sum = sum + data[i];  // every byte is readable
  g_cut.next += length;
  return g_cut.calls++ == g_cut.fail_at ? -4 : 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size < 1 || size > 1 << 16) return 0;
  // The first byte picks the piece whose sink call fails (255: none).
  std::vector<unsigned char> buffer(bytes + 1, bytes + size);  // exact size: over-reads show
  mp4_handler handler{2, nullptr};
  g_cut = {buffer.data(), static_cast<int>(buffer.size()), 0, 0, bytes[0]};
  const int r = mp4rec::split_access_unit(buffer.empty() ? nullptr : buffer.data(),
                                          static_cast<int>(buffer.size()), 1000, &handler, sink);
  if (r == 0 && !buffer.empty() && g_cut.next != g_cut.length) std::abort();
  return 0;
}
