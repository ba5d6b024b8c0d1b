// A file on the card read (and, for repair, patched) in place with pread and
// pwrite: recordings may be larger than memory.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <string>
#include <vector>

namespace mp4tool {

class CardFile {
 public:
  explicit CardFile(const std::string &path, bool writable = false)
      : fd_(::open(path.c_str(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC)) {
    struct stat st {};
    if (fd_ >= 0 && ::fstat(fd_, &st) == 0) {
      size_ = static_cast<uint64_t>(st.st_size);
    } else if (fd_ >= 0) {  // a size that cannot be known: as unreadable, errno kept
      const int e = errno;
      ::close(fd_);
      fd_ = -1;
      errno = e;
    }
  }
  ~CardFile() {
    if (fd_ >= 0) ::close(fd_);
  }
  CardFile(const CardFile &) = delete;
  CardFile &operator=(const CardFile &) = delete;

  bool ok() const { return fd_ >= 0; }
  uint64_t size() const { return size_; }

  // Up to `n` bytes at `off` (fewer at the end of the file).
  std::vector<uint8_t> read(uint64_t off, uint64_t n) const {
    if (off >= size_) return {};
    n = std::min(n, size_ - off);
    std::vector<uint8_t> buf(n);
    uint64_t got = 0;
    while (got < n) {
      const ssize_t r = ::pread(fd_, buf.data() + got, n - got, static_cast<off_t>(off + got));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) break;
      got += static_cast<uint64_t>(r);
    }
    buf.resize(got);
    return buf;
  }
  // The big-endian word at `off`; 0 past the end.
  uint32_t u32(uint64_t off) const {
    const auto b = read(off, 4);
    return b.size() == 4 ? uint32_t{b[0]} << 24 | uint32_t{b[1]} << 16 | uint32_t{b[2]} << 8 | b[3]
                         : 0;
  }

  bool write(uint64_t off, const std::vector<uint8_t> &b) {
    uint64_t done = 0;
    while (done < b.size()) {
      const ssize_t r =
          ::pwrite(fd_, b.data() + done, b.size() - done, static_cast<off_t>(off + done));
      if (r < 0 && errno == EINTR) continue;
      if (r <= 0) return false;
      done += static_cast<uint64_t>(r);
    }
    size_ = std::max(size_, off + b.size());
    return true;
  }
  bool put_u32(uint64_t off, uint32_t v) {
    return write(off, {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)});
  }
  bool truncate(uint64_t n) {
    if (::ftruncate(fd_, static_cast<off_t>(n)) != 0) return false;
    size_ = n;
    return true;
  }
  bool sync() { return ::fsync(fd_) == 0; }

 private:
  int fd_;
  uint64_t size_ = 0;
};

}  // namespace mp4tool
