// The floor: the same sample bytes gathered into 256 KiB batches and written
// with one fwrite per batch, and a baseline that does nothing at all (the
// harness's own cost and memory).
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

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
const RegisterBackend baseline_backend({"baseline", "nothing (harness cost and memory)",
                                        [](const Options &) {
                                          return std::make_unique<BaselineBackend>();
                                        }});

}  // namespace
}  // namespace bench
