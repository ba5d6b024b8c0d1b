// Bounded waits on the card. One card write may take up to a bound (five
// seconds) before whoever waits for it gives up; a thread that is still inside
// such a write is left to finish it on its own, and whatever it may still touch
// is handed to abandon() instead of being freed under it.
#pragma once

#include <pthread.h>

#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace mp4rec {

// Milliseconds of a monotonic clock (never 0).
int64_t monotonic_ms();

// How long one card write may take before a wait on it gives up. A 256 KiB
// node takes well under a second even on a slow card.
inline constexpr int64_t kStallBoundMs = 5000;
int64_t stall_bound_ms();
// Tests shorten the bound; 0 restores kStallBoundMs.
void set_stall_bound_ms(int64_t ms);

// Takes `m`, giving up at `deadline_ms` (monotonic). True when taken.
bool lock_until(pthread_mutex_t &m, int64_t deadline_ms);

// A counter that a worker thread raises whenever it moves on, and that other
// threads wait on with a deadline.
class Progress {
 public:
  uint64_t seen() const;
  void bump();
  // Waits until the counter differs from `seen` or `deadline_ms` passes;
  // true when it moved.
  bool wait(uint64_t seen, int64_t deadline_ms);

 private:
  mutable std::mutex m_;
  std::condition_variable cv_;
  uint64_t count_ = 0;
};

// Keeps an object that a thread stuck in a card write may still use: it is
// never freed and stays reachable. `what` is logged (level 3) under `function`.
void abandon(const void *object, const char *function, const char *what);

}  // namespace mp4rec
