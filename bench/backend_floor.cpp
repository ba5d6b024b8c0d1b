// The floor: the same sample bytes gathered into 256 KiB batches and written
// with one fwrite per batch; the same written from a writer thread through
// three rotating batches (the staging shape of mp4rec's data buffer, without
// any MP4); and a baseline that does nothing at all (the harness's own cost
// and memory).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <thread>

#include "backend.h"
#include "measure.h"

namespace bench {
namespace {

constexpr size_t kBatch = 256 * 1024;

// Opens `path` for writing as a stdio stream: the plain file, or the paced
// stream over it when a throttle is set.
FILE *open_output(const Options &opt) {
  if (opt.throttle_bytes_per_s <= 0) return std::fopen(opt.out_path.c_str(), "wb");
  const int fd = ::open(opt.out_path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  if (fd < 0) return nullptr;
  struct stat st {};
  fstat(fd, &st);
  FILE *f = paced_stream(fd, opt.throttle_bytes_per_s, size_t(st.st_blksize));
  if (!f) ::close(fd);
  return f;
}

class FloorBackend final : public Backend {
 public:
  explicit FloorBackend(const Options &opt) : opt_(opt) {}
  ~FloorBackend() override {
    if (file_) std::fclose(file_);
  }
  void open() override {
    batch_ = std::make_unique<uint8_t[]>(kBatch);
    file_ = open_output(opt_);
    if (!file_) throw std::runtime_error("cannot open " + opt_.out_path);
  }
  int video(Input &in, const Unit &u) override { return put(in.sample(u)); }
  int audio(Input &in, const Unit &u) override { return put(in.sample(u)); }
  void close() override {
    const bool ok = flush() == 0;
    const bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    if (!ok || !closed) throw std::runtime_error("write failed");
  }

 private:
  int put(std::span<const uint8_t> s) {
    if (used_ + s.size() > kBatch && flush() != 0) return -2;
    std::memcpy(batch_.get() + used_, s.data(), s.size());
    used_ += s.size();
    return 0;
  }
  int flush() {
    if (used_ == 0) return 0;
    const size_t n = std::fwrite(batch_.get(), 1, used_, file_);
    const bool ok = n == used_;
    used_ = 0;
    return ok ? 0 : -2;
  }

  Options opt_;
  FILE *file_ = nullptr;
  std::unique_ptr<uint8_t[]> batch_;
  size_t used_ = 0;
};

class ThreadedFloorBackend final : public Backend {
 public:
  explicit ThreadedFloorBackend(const Options &opt) : opt_(opt) {}
  ~ThreadedFloorBackend() override {
    stop();
    if (file_) std::fclose(file_);
  }
  void open() override {
    for (auto &b : batches_) {
      b.data = std::make_unique<uint8_t[]>(kBatch);
      free_.push_back(&b);
    }
    file_ = open_output(opt_);
    if (!file_) throw std::runtime_error("cannot open " + opt_.out_path);
    current_ = take_free();
    writer_ = std::thread([this] { run(); });
  }
  int video(Input &in, const Unit &u) override { return put(in.sample(u)); }
  int audio(Input &in, const Unit &u) override { return put(in.sample(u)); }
  void close() override {
    hand_over();
    stop();
    const bool closed = std::fclose(file_) == 0;
    file_ = nullptr;
    if (failed_ || !closed) throw std::runtime_error("write failed");
  }

 private:
  struct Batch {
    std::unique_ptr<uint8_t[]> data;
    size_t used = 0;
  };

  int put(std::span<const uint8_t> s) {
    if (current_->used + s.size() > kBatch) {
      hand_over();
      current_ = take_free();
    }
    std::memcpy(current_->data.get() + current_->used, s.data(), s.size());
    current_->used += s.size();
    return 0;
  }
  void hand_over() {
    {
      std::lock_guard lock(mutex_);
      full_.push_back(current_);
    }
    wake_.notify_one();
  }
  Batch *take_free() {
    std::unique_lock lock(mutex_);
    freed_.wait(lock, [this] { return !free_.empty(); });
    Batch *b = free_.front();
    free_.pop_front();
    return b;
  }
  void run() {
    std::unique_lock lock(mutex_);
    for (;;) {
      wake_.wait(lock, [this] { return !full_.empty() || stopping_; });
      if (full_.empty()) return;
      Batch *b = full_.front();
      full_.pop_front();
      lock.unlock();
      if (b->used && std::fwrite(b->data.get(), 1, b->used, file_) != b->used) failed_ = true;
      b->used = 0;
      lock.lock();
      free_.push_back(b);
      freed_.notify_one();
    }
  }
  void stop() {
    if (!writer_.joinable()) return;
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    wake_.notify_one();
    writer_.join();
  }

  Options opt_;
  FILE *file_ = nullptr;
  Batch batches_[3];
  Batch *current_ = nullptr;
  std::deque<Batch *> free_, full_;
  std::mutex mutex_;
  std::condition_variable wake_, freed_;
  bool stopping_ = false;
  bool failed_ = false;  // written by the writer thread, read after the join
  std::thread writer_;
};

class BaselineBackend final : public Backend {
 public:
  void open() override {}
  int video(Input &, const Unit &) override { return 0; }
  int audio(Input &, const Unit &) override { return 0; }
  void close() override {}
};

const RegisterBackend floor_backend(
    {"fwrite", "plain fwrite of the sample bytes in 256 KiB batches",
     [](const Options &o) { return std::make_unique<FloorBackend>(o); }});
const RegisterBackend threaded_floor_backend(
    {"fwrite-thread", "the floor written by a writer thread through three rotating batches",
     [](const Options &o) { return std::make_unique<ThreadedFloorBackend>(o); }});
const RegisterBackend baseline_backend({"baseline", "nothing (harness cost and memory)",
                                        [](const Options &) {
                                          return std::make_unique<BaselineBackend>();
                                        }});

}  // namespace
}  // namespace bench
