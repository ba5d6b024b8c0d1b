// Fallback for the host's log function. A host executable that defines
// swLogWrite itself takes precedence through ordinary symbol interposition.
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

#include "common/internal.h"

extern "C" __attribute__((weak)) void swLogWrite(int level, int module, const char *function,
                                                 int line, const char *format, ...) {
  if (level > mp4rec::kLogError) return;
  std::fprintf(stderr, "mp4rec[%d:%d] %s:%d: ", level, module, function ? function : "?", line);
  va_list ap;
  va_start(ap, format);
  std::vfprintf(stderr, format, ap);
  va_end(ap);
}

namespace mp4rec {

namespace {
struct Logged {
  const void *record;
  uint32_t what;
};
std::mutex g_once_mutex;
// What each live file has logged once; a few entries at most.
std::vector<Logged> *g_once = nullptr;
}  // namespace

bool first_time(const void *record, LogOnce what) {
  std::lock_guard<std::mutex> lock(g_once_mutex);
  if (g_once == nullptr) g_once = new std::vector<Logged>;
  for (Logged &l : *g_once) {
    if (l.record != record) continue;
    const bool first = (l.what & what) == 0;
    l.what |= what;
    return first;
  }
  g_once->push_back({record, what});
  return true;
}

void forget_once(const void *record) {
  std::lock_guard<std::mutex> lock(g_once_mutex);
  if (g_once == nullptr) return;
  std::erase_if(*g_once, [&](const Logged &l) { return l.record == record; });
}

}  // namespace mp4rec
