#include "support/sim_card.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <stdexcept>

#include "buffer/card.h"

namespace testsupport {

namespace {
SimCard *g_card = nullptr;  // the card in use (one at a time)
}

struct SimCard::File {
  SimCard *card = nullptr;
  std::string path;
  int fd = -1;
  uint64_t pos = 0;
  uint64_t size = 0;
  std::vector<CardEvent> log;
};

SimCard::SimCard(std::string suffix) : suffix_(std::move(suffix)) {
  if (g_card != nullptr) throw std::logic_error("one SimCard at a time");
  g_card = this;
  mp4rec::card::set_hooks({&SimCard::open_hook, &SimCard::sync_hook, &SimCard::write_at_hook});
}

SimCard::~SimCard() {
  release();
  mp4rec::card::set_hooks({});
  std::lock_guard<std::mutex> lock(mutex_);
  g_card = nullptr;
  // Streams the library left open (an abandoned file) keep working on their
  // descriptors; they are closed with their FILE.
}

void SimCard::fault(long k, Fault mode, int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  fault_at_ = k;
  fault_ = mode;
  fault_error_ = error;
}

void SimCard::fail_syncs(int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  sync_error_ = error;
}

void SimCard::release() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
  }
  cv_.notify_all();
}

bool SimCard::wait_blocked(int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return blocked_ > 0; });
}

long SimCard::writes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return writes_;
}

long SimCard::syncs() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return syncs_;
}

std::vector<std::string> SimCard::paths() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  for (const auto &f : files_) out.push_back(f->path);
  return out;
}

std::vector<CardEvent> SimCard::log(const std::string &path) const {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = files_.rbegin(); it != files_.rend(); ++it)
    if ((*it)->path == path) return (*it)->log;
  return {};
}

FILE *SimCard::open_hook(const char *path, const char *mode) {
  SimCard *card = g_card;
  const std::string p = path;
  if (card == nullptr || p.size() < card->suffix_.size() ||
      p.compare(p.size() - card->suffix_.size(), card->suffix_.size(), card->suffix_) != 0) {
    return std::fopen(path, mode);
  }
  const int fd = ::open(path, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (fd < 0) return nullptr;
  auto file = std::make_unique<File>();
  file->card = card;
  file->path = p;
  file->fd = fd;
  cookie_io_functions_t io{&SimCard::read_cb, &SimCard::write_cb, &SimCard::seek_cb,
                           &SimCard::close_cb};
  FILE *stream = fopencookie(file.get(), mode, io);
  if (stream == nullptr) {
    ::close(fd);
    return nullptr;
  }
  // Buffered as a regular file on this file system would be.
  struct stat st {};
  const size_t block = fstat(fd, &st) == 0 && st.st_blksize > 0 ? st.st_blksize : BUFSIZ;
  setvbuf(stream, nullptr, _IOFBF, block);
  std::lock_guard<std::mutex> lock(card->mutex_);
  card->streams_[stream] = file.get();
  card->files_.push_back(std::move(file));
  return stream;
}

int SimCard::sync_hook(FILE *stream) {
  SimCard *card = g_card;
  if (std::fflush(stream) != 0) return -1;
  if (card == nullptr) return 0;
  std::lock_guard<std::mutex> lock(card->mutex_);
  auto it = card->streams_.find(stream);
  ++card->syncs_;
  if (card->sync_error_ != 0) {
    errno = card->sync_error_;
    return -1;
  }
  if (it != card->streams_.end()) it->second->log.push_back(CardEvent{true, 0, {}});
  return 0;
}

ssize_t SimCard::write_cb(void *cookie, const char *buf, size_t size) {
  auto *f = static_cast<File *>(cookie);
  const ssize_t n = f->card->write(*f, buf, size, f->pos);
  if (n > 0) f->pos += static_cast<uint64_t>(n);
  return n;
}

int SimCard::write_at_hook(FILE *stream, const void *data, size_t size, uint64_t offset) {
  SimCard *card = g_card;
  File *f = nullptr;
  if (card != nullptr) {
    std::lock_guard<std::mutex> lock(card->mutex_);
    auto it = card->streams_.find(stream);
    if (it != card->streams_.end()) f = it->second;
  }
  if (f == nullptr) {  // a file off the card
    const int fd = fileno(stream);
    return fd >= 0 &&
                   pwrite(fd, data, size, static_cast<off_t>(offset)) == static_cast<ssize_t>(size)
               ? 0
               : -1;
  }
  if (card->write(*f, static_cast<const char *>(data), size, offset) == static_cast<ssize_t>(size))
    return 0;
  if (errno == 0) errno = EIO;
  return -1;
}

ssize_t SimCard::write(File &f, const char *buf, size_t size, uint64_t at) {
  std::unique_lock<std::mutex> lock(mutex_);
  const long n = ++writes_;
  if (fault_ != Fault::kNone && n >= fault_at_) {
    if (fault_ == Fault::kBlock && n == fault_at_) {
      ++blocked_;
      cv_.notify_all();
      cv_.wait(lock, [this] { return released_; });
      --blocked_;
    } else if (fault_ == Fault::kSticky || (fault_ == Fault::kOnce && n == fault_at_)) {
      // A failed write takes nothing; the stream library reports the error.
      errno = fault_error_;
      return 0;
    }
  }
  if (pwrite(f.fd, buf, size, static_cast<off_t>(at)) != static_cast<ssize_t>(size)) return 0;
  f.log.push_back(CardEvent{false, at, std::vector<uint8_t>(buf, buf + size)});
  f.size = std::max(f.size, at + size);
  return static_cast<ssize_t>(size);
}

ssize_t SimCard::read_cb(void *cookie, char *buf, size_t size) {
  auto *f = static_cast<File *>(cookie);
  const ssize_t r = pread(f->fd, buf, size, static_cast<off_t>(f->pos));
  if (r > 0) f->pos += static_cast<uint64_t>(r);
  return r;
}

int SimCard::seek_cb(void *cookie, off64_t *offset, int whence) {
  auto *f = static_cast<File *>(cookie);
  int64_t base = 0;
  if (whence == SEEK_CUR) base = static_cast<int64_t>(f->pos);
  if (whence == SEEK_END) base = static_cast<int64_t>(f->size);
  const int64_t target = base + *offset;
  if (target < 0) {
    errno = EINVAL;
    return -1;
  }
  f->pos = static_cast<uint64_t>(target);
  *offset = target;
  return 0;
}

int SimCard::close_cb(void *cookie) {
  auto *f = static_cast<File *>(cookie);
  SimCard *card = f->card;
  std::lock_guard<std::mutex> lock(card->mutex_);
  for (auto it = card->streams_.begin(); it != card->streams_.end(); ++it) {
    if (it->second == f) {
      card->streams_.erase(it);
      break;
    }
  }
  const int r = ::close(f->fd);
  f->fd = -1;
  return r;
}

std::vector<uint8_t> replay(const std::vector<CardEvent> &log, size_t n, size_t torn) {
  std::vector<uint8_t> image;
  for (size_t i = 0; i < n && i < log.size(); ++i) {
    const CardEvent &e = log[i];
    if (e.sync) continue;
    const size_t len = i + 1 == n ? std::min(torn, e.bytes.size()) : e.bytes.size();
    if (image.size() < e.offset + len) image.resize(e.offset + len);
    std::copy_n(e.bytes.begin(), len, image.begin() + static_cast<ptrdiff_t>(e.offset));
  }
  return image;
}

}  // namespace testsupport
