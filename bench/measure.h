// Measuring helpers: clocks, the process's write-call counters, a paced
// ("slow card") stream, and percentiles.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace bench {

int64_t mono_ns();
int64_t process_cpu_ns();  // all threads of the process
int64_t thread_cpu_ns();   // the calling thread
void sleep_until_ns(int64_t deadline);

// user and system CPU of the whole process (getrusage), in nanoseconds.
struct UserSys {
  int64_t user = 0, sys = 0;
};
UserSys rusage_self();

// Counters of /proc/self/io for the whole process: write system calls
// (write, pwrite, writev...) and the bytes they were given.
struct IoCounters {
  uint64_t syscw = 0, wchar = 0;
};
IoCounters io_counters();

// A card that transfers `bytes_per_second`: every write returns only once
// its bytes would have been transferred, less 1 ms, since the previous write
// ended (or now, when the card was idle). Seeks are free.
class Pacer {
 public:
  explicit Pacer(double bytes_per_second) : rate_(bytes_per_second) {}
  void pay(size_t bytes);
  // A sync: returns once every write so far has passed and the card has then
  // been busy `latency_ns` more (committing its cache).
  void flush(int64_t latency_ns);

 private:
  double rate_;
  int64_t busy_until_ = 0;
};

// A stdio stream over `fd` whose writes go through a Pacer. The stream owns
// the descriptor (closed with the stream) and uses a buffer of `buffer_size`
// bytes, as the real file's stream would.
FILE *paced_stream(int fd, double bytes_per_second, size_t buffer_size);
// A sync of a paced stream: flushes it and waits as Pacer::flush does.
// -1 for a stream that is not paced.
int paced_sync(FILE *stream, int64_t latency_ns);
// Writes all of `n` bytes to `fd` (retrying short writes); false on error.
bool write_all(int fd, const void *data, size_t n);

// Percentile of sorted values: the value below which a fraction q lies.
int64_t percentile(const std::vector<int64_t> &sorted, double q);
double median(std::vector<double> v);

}  // namespace bench
