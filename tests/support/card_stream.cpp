#include "support/card_stream.h"

#include <cerrno>
#include <chrono>

namespace testsupport {

CardStream::CardStream() {
  cookie_io_functions_t io{nullptr, &CardStream::write_cb, nullptr, nullptr};
  file_ = fopencookie(this, "w", io);
  if (file_ != nullptr) setvbuf(file_, nullptr, _IONBF, 0);
}

CardStream::~CardStream() {
  release();
  close();
}

int CardStream::close() {
  if (file_ == nullptr) return 0;
  const int r = fclose(file_);
  file_ = nullptr;
  return r;
}

void CardStream::script(std::vector<long> limits, int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  script_.assign(limits.begin(), limits.end());
  script_error_ = error;
}

void CardStream::fail_with(int error) {
  std::lock_guard<std::mutex> lock(mutex_);
  fail_error_ = error;
}

void CardStream::hold() {
  std::lock_guard<std::mutex> lock(mutex_);
  held_ = true;
}

void CardStream::release() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    held_ = false;
  }
  cv_.notify_all();
}

bool CardStream::wait_for_held_write(int ms) {
  std::unique_lock<std::mutex> lock(mutex_);
  return cv_.wait_for(lock, std::chrono::milliseconds(ms), [this] { return waiting_ > 0; });
}

std::vector<uint8_t> CardStream::bytes() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return bytes_;
}

int CardStream::write_calls() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return calls_;
}

ssize_t CardStream::write_cb(void *cookie, const char *buf, size_t size) {
  return static_cast<CardStream *>(cookie)->write(buf, size);
}

ssize_t CardStream::write(const char *buf, size_t size) {
  std::unique_lock<std::mutex> lock(mutex_);
  ++calls_;
  if (held_) {
    ++waiting_;
    cv_.notify_all();
    cv_.wait(lock, [this] { return !held_; });
    --waiting_;
  }
  // A failed write takes nothing and leaves its errno (the stream library
  // mishandles a -1 from an unbuffered cookie stream).
  if (fail_error_ != 0) {
    errno = fail_error_;
    return 0;
  }
  size_t n = size;
  if (!script_.empty()) {
    const long limit = script_.front();
    script_.pop_front();
    if (limit < 0) {
      errno = script_error_;
      return 0;
    }
    if (static_cast<size_t>(limit) < n) n = static_cast<size_t>(limit);
  }
  bytes_.insert(bytes_.end(), buf, buf + n);
  return static_cast<ssize_t>(n);
}

}  // namespace testsupport
