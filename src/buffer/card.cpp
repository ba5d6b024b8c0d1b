// The card seam: fopen and fflush + fdatasync, unless a test has put its own
// simulated card in their place.
#include "buffer/card.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>

namespace mp4rec::card {

namespace {
std::atomic<OpenFn> g_open{nullptr};
std::atomic<SyncFn> g_sync{nullptr};
}  // namespace

void set_hooks(const Hooks &hooks) {
  g_open.store(hooks.open, std::memory_order_release);
  g_sync.store(hooks.sync, std::memory_order_release);
}

FILE *open(const char *path, const char *mode) {
  if (const OpenFn fn = g_open.load(std::memory_order_acquire)) return fn(path, mode);
  return std::fopen(path, mode);
}

int sync(FILE *file) {
  if (file == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (const SyncFn fn = g_sync.load(std::memory_order_acquire)) return fn(file);
  if (std::fflush(file) != 0) return -1;
  const int fd = fileno(file);
  if (fd < 0) return 0;  // a stream without a descriptor has nothing more to push
  return fdatasync(fd) == 0 ? 0 : -1;
}

}  // namespace mp4rec::card
