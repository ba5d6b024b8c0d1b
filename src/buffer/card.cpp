// The card seam: fopen, pwrite and fflush + fdatasync, unless a test has put
// its own simulated card in their place.
#include "buffer/card.h"

#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>

namespace mp4rec::card {

namespace {
std::atomic<OpenFn> g_open{nullptr};
std::atomic<SyncFn> g_sync{nullptr};
std::atomic<WriteAtFn> g_write_at{nullptr};

// A stream without a descriptor (a cookie stream): there and back, which
// flushes the bytes as one write.
int write_through_stream(FILE *file, const void *data, size_t size, uint64_t offset) {
  const off_t back = ftello(file);
  if (back < 0 || fseeko(file, static_cast<off_t>(offset), SEEK_SET) != 0) return -1;
  const bool written = std::fwrite(data, 1, size, file) == size;
  const bool returned = fseeko(file, back, SEEK_SET) == 0;
  return written && returned ? 0 : -1;
}
}  // namespace

void set_hooks(const Hooks &hooks) {
  g_open.store(hooks.open, std::memory_order_release);
  g_sync.store(hooks.sync, std::memory_order_release);
  g_write_at.store(hooks.write_at, std::memory_order_release);
}

int write_at(FILE *file, const void *data, size_t size, uint64_t offset) {
  if (file == nullptr || (data == nullptr && size > 0)) {
    errno = EINVAL;
    return -1;
  }
  if (std::fflush(file) != 0) return -1;
  if (const WriteAtFn fn = g_write_at.load(std::memory_order_acquire))
    return fn(file, data, size, offset);
  const int fd = fileno(file);
  if (fd < 0) return write_through_stream(file, data, size, offset);
  const auto *bytes = static_cast<const uint8_t *>(data);
  while (size > 0) {
    const ssize_t n = ::pwrite(fd, bytes, size, static_cast<off_t>(offset));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      if (n == 0) errno = EIO;
      return -1;
    }
    bytes += n;
    size -= static_cast<size_t>(n);
    offset += static_cast<uint64_t>(n);
  }
  return 0;
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
