// A simulated memory card for the library's recordings. While a SimCard lives,
// every file the library opens whose path ends in the chosen suffix goes through
// it: the bytes land in the real file at that path (so tools can read it at any
// moment), every write the process issues (positional ones included) is logged
// with its offset, syncs are logged, and a chosen write can fail once, fail
// from then on (a full card), or block until released. The stream is buffered like a regular file,
// so the log holds the writes a real process would issue.
#pragma once

#include <cerrno>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

// One event on a simulated file: a write of `bytes` at `offset`, or a sync.
struct CardEvent {
  bool sync = false;
  uint64_t offset = 0;
  std::vector<uint8_t> bytes;
};

class SimCard {
 public:
  enum class Fault { kNone, kOnce, kSticky, kBlock };

  explicit SimCard(std::string suffix = ".mp4");
  ~SimCard();  // lets a blocked write go on, restores the library's defaults
  SimCard(const SimCard &) = delete;
  SimCard &operator=(const SimCard &) = delete;

  // The k-th write (1-based, counted over every file of the card) fails with
  // `error` (kOnce), fails with every later write too (kSticky: a full card),
  // or waits until release() (kBlock) and then goes through.
  void fault(long k, Fault mode, int error = EIO);
  // Every sync fails with `error` from now on (0: syncs succeed again).
  void fail_syncs(int error);
  void release();
  // Waits until a write is blocked; false after `ms` milliseconds.
  bool wait_blocked(int ms);

  long writes() const;  // write calls so far, failed ones included
  long syncs() const;
  std::vector<std::string> paths() const;  // files opened, in order
  std::vector<CardEvent> log(const std::string &path) const;

 private:
  struct File;
  static FILE *open_hook(const char *path, const char *mode);
  static int sync_hook(FILE *file);
  static int write_at_hook(FILE *file, const void *data, size_t size, uint64_t offset);
  static ssize_t write_cb(void *cookie, const char *buf, size_t size);
  static ssize_t read_cb(void *cookie, char *buf, size_t size);
  static int seek_cb(void *cookie, off64_t *offset, int whence);
  static int close_cb(void *cookie);
  ssize_t write(File &f, const char *buf, size_t size, uint64_t at);

  std::string suffix_;
  mutable std::mutex mutex_;
  std::condition_variable cv_;
  std::vector<std::unique_ptr<File>> files_;
  std::map<FILE *, File *> streams_;
  long writes_ = 0;
  long syncs_ = 0;
  long fault_at_ = 0;
  Fault fault_ = Fault::kNone;
  int fault_error_ = EIO;
  int sync_error_ = 0;
  bool released_ = false;
  int blocked_ = 0;
};

// The file as it stands after the first `n` events of `log` (a sync changes
// nothing); with `torn` set, the n-th write landed with only its first `torn`
// bytes.
std::vector<uint8_t> replay(const std::vector<CardEvent> &log, size_t n,
                            size_t torn = static_cast<size_t>(-1));

}  // namespace testsupport
