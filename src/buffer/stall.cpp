// Clock, bound and the registry of abandoned objects.
#include "buffer/stall.h"

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <vector>

#include "common/internal.h"

namespace mp4rec {

namespace {

std::atomic<int32_t> g_bound_ms{0};  // 32-bit: lock-free on every target

std::mutex g_abandoned_mutex;
// Objects left to threads that never came back from a card write.
std::vector<const void *> *g_abandoned = nullptr;

}  // namespace

int64_t monotonic_ms() {
  const auto t = std::chrono::steady_clock::now().time_since_epoch();
  const int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(t).count();
  return ms > 0 ? ms : 1;
}

int64_t stall_bound_ms() {
  const int64_t ms = g_bound_ms.load(std::memory_order_relaxed);
  return ms > 0 ? ms : kStallBoundMs;
}

void set_stall_bound_ms(int64_t ms) {
  g_bound_ms.store(static_cast<int32_t>(ms), std::memory_order_relaxed);
}

bool lock_until(pthread_mutex_t &m, int64_t deadline_ms) {
  if (pthread_mutex_trylock(&m) == 0) return true;
  int64_t left = deadline_ms - monotonic_ms();
  if (left <= 0) return false;
  timespec at{};
  clock_gettime(CLOCK_REALTIME, &at);
  at.tv_sec += static_cast<time_t>(left / 1000);
  at.tv_nsec += static_cast<long>((left % 1000) * 1000000);
  if (at.tv_nsec >= 1000000000L) {
    at.tv_sec += 1;
    at.tv_nsec -= 1000000000L;
  }
  int r;
  while ((r = pthread_mutex_timedlock(&m, &at)) == EINTR) {
  }
  return r == 0;
}

uint64_t Progress::seen() const {
  std::lock_guard<std::mutex> lock(m_);
  return count_;
}

void Progress::bump() {
  std::lock_guard<std::mutex> lock(m_);
  ++count_;
  cv_.notify_all();
}

bool Progress::wait(uint64_t seen, int64_t deadline_ms) {
  std::unique_lock<std::mutex> lock(m_);
  const int64_t left = deadline_ms - monotonic_ms();
  if (left > 0) cv_.wait_for(lock, std::chrono::milliseconds(left), [&] { return count_ != seen; });
  return count_ != seen;
}

void abandon(const void *object, const char *function, const char *what) {
  {
    std::lock_guard<std::mutex> lock(g_abandoned_mutex);
    if (g_abandoned == nullptr) g_abandoned = new std::vector<const void *>;
    g_abandoned->push_back(object);
  }
  MP4_LOG_AS(function, kLogError, kModRecorder, "%s", what);
}

}  // namespace mp4rec
