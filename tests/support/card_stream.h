// A stdio stream over a scriptable fake memory card (fopencookie): its writes
// can be held back, shortened, or made to fail with a chosen errno, and every
// byte accepted is kept for inspection. The stream is unbuffered, so each
// fwrite reaches the card as one write (or more, once a write has failed).
#pragma once

#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <mutex>
#include <vector>

namespace testsupport {

class CardStream {
 public:
  CardStream();
  ~CardStream();  // closes the stream if the test has not
  CardStream(const CardStream &) = delete;
  CardStream &operator=(const CardStream &) = delete;

  FILE *file() const { return file_; }
  // Closes the stream now (returns fclose's result).
  int close();

  // Accept at most `limit` bytes on each of the next writes, in order (a
  // negative limit fails that write with `error`: it takes nothing).
  void script(std::vector<long> limits, int error = 5 /* EIO */);
  // From now on every write fails with `error` (0: writes succeed again).
  void fail_with(int error);
  // While held, writes wait until released.
  void hold();
  void release();
  // Waits until a write is waiting on the hold; false after `ms` milliseconds.
  bool wait_for_held_write(int ms);

  std::vector<uint8_t> bytes() const;
  int write_calls() const;

 private:
  static ssize_t write_cb(void *cookie, const char *buf, size_t size);
  ssize_t write(const char *buf, size_t size);

  FILE *file_ = nullptr;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<uint8_t> bytes_;
  std::deque<long> script_;
  int script_error_ = 5;
  int fail_error_ = 0;
  bool held_ = false;
  int waiting_ = 0;
  int calls_ = 0;
};

}  // namespace testsupport
