#include "measure.h"

#include <sys/resource.h>
#include <sys/types.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>

namespace bench {
namespace {

int64_t clock_ns(clockid_t id) {
  timespec ts{};
  clock_gettime(id, &ts);
  return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

int64_t tv_ns(const timeval &tv) {
  return int64_t(tv.tv_sec) * 1000000000 + tv.tv_usec * 1000;
}

struct PacedCookie {
  int fd;
  Pacer pacer;
};

// The streams that are paced, for their syncs (a recording has one at a time).
std::mutex g_paced_mutex;
std::map<FILE *, PacedCookie *> g_paced;

ssize_t paced_write(void *c, const char *buf, size_t size) {
  auto *cookie = static_cast<PacedCookie *>(c);
  cookie->pacer.pay(size);
  return write_all(cookie->fd, buf, size) ? ssize_t(size) : -1;
}

int paced_seek(void *c, off64_t *offset, int whence) {
  auto *cookie = static_cast<PacedCookie *>(c);
  const off64_t r = lseek64(cookie->fd, *offset, whence);
  if (r < 0) return -1;
  *offset = r;
  return 0;
}

ssize_t paced_read(void *c, char *buf, size_t size) {
  return ::read(static_cast<PacedCookie *>(c)->fd, buf, size);
}

int paced_close(void *c) {
  std::unique_ptr<PacedCookie> cookie(static_cast<PacedCookie *>(c));
  {
    std::lock_guard<std::mutex> lock(g_paced_mutex);
    for (auto it = g_paced.begin(); it != g_paced.end(); ++it) {
      if (it->second == cookie.get()) {
        g_paced.erase(it);
        break;
      }
    }
  }
  return ::close(cookie->fd);
}

}  // namespace

int64_t mono_ns() {
  return clock_ns(CLOCK_MONOTONIC);
}
int64_t process_cpu_ns() {
  return clock_ns(CLOCK_PROCESS_CPUTIME_ID);
}
int64_t thread_cpu_ns() {
  return clock_ns(CLOCK_THREAD_CPUTIME_ID);
}

void sleep_until_ns(int64_t deadline) {
  timespec ts{time_t(deadline / 1000000000), long(deadline % 1000000000)};
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

UserSys rusage_self() {
  rusage ru{};
  getrusage(RUSAGE_SELF, &ru);
  return {tv_ns(ru.ru_utime), tv_ns(ru.ru_stime)};
}

IoCounters io_counters() {
  IoCounters c;
  std::ifstream f("/proc/self/io");
  std::string key;
  uint64_t value = 0;
  while (f >> key >> value) {
    if (key == "syscw:") c.syscw = value;
    if (key == "wchar:") c.wchar = value;
  }
  return c;
}

void Pacer::flush(int64_t latency_ns) {
  busy_until_ = std::max(mono_ns(), busy_until_) + latency_ns;
  sleep_until_ns(busy_until_);
}

void Pacer::pay(size_t bytes) {
  // A write returns once the card is less than 1 ms behind: small writes pass
  // at once (as into a card's own small cache), the rate holds over time.
  constexpr int64_t kSlack = 1000000;
  const int64_t now = mono_ns();
  const int64_t start = std::max(now, busy_until_);
  busy_until_ = start + int64_t(double(bytes) * 1e9 / rate_);
  if (busy_until_ - now > kSlack) sleep_until_ns(busy_until_ - kSlack);
}

bool write_all(int fd, const void *data, size_t n) {
  const auto *p = static_cast<const char *>(data);
  while (n > 0) {
    const ssize_t r = ::write(fd, p, n);
    if (r < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    p += r;
    n -= size_t(r);
  }
  return true;
}

FILE *paced_stream(int fd, double bytes_per_second, size_t buffer_size) {
  auto cookie = std::make_unique<PacedCookie>(PacedCookie{fd, Pacer(bytes_per_second)});
  const cookie_io_functions_t io{paced_read, paced_write, paced_seek, paced_close};
  FILE *f = fopencookie(cookie.get(), "w+", io);
  if (!f) return nullptr;
  {
    std::lock_guard<std::mutex> lock(g_paced_mutex);
    g_paced[f] = cookie.release();
  }
  setvbuf(f, nullptr, _IOFBF, buffer_size);
  return f;
}

int paced_sync(FILE *stream, int64_t latency_ns) {
  if (std::fflush(stream) != 0) return -1;
  PacedCookie *cookie = nullptr;
  {
    std::lock_guard<std::mutex> lock(g_paced_mutex);
    auto it = g_paced.find(stream);
    if (it == g_paced.end()) return -1;
    cookie = it->second;
  }
  cookie->pacer.flush(latency_ns);
  return 0;
}

int64_t percentile(const std::vector<int64_t> &sorted, double q) {
  if (sorted.empty()) return 0;
  size_t i = size_t(q * double(sorted.size()));
  return sorted[std::min(i, sorted.size() - 1)];
}

double median(std::vector<double> v) {
  if (v.empty()) return 0;
  std::sort(v.begin(), v.end());
  const size_t n = v.size();
  return n % 2 ? v[n / 2] : (v[n / 2 - 1] + v[n / 2]) / 2;
}

}  // namespace bench
