// Fallback for the host's log function. A host executable that defines
// swLogWrite itself takes precedence through ordinary symbol interposition.
#include <cstdarg>
#include <cstdio>
#include <map>
#include <mutex>

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
std::mutex g_once_mutex;
// What each live file has logged once; a few entries at most.
std::map<const void *, uint32_t> *g_once = nullptr;
}  // namespace

bool first_time(const void *record, LogOnce what) {
  std::lock_guard<std::mutex> lock(g_once_mutex);
  if (g_once == nullptr) g_once = new std::map<const void *, uint32_t>;
  uint32_t &logged = (*g_once)[record];
  const bool first = (logged & what) == 0;
  logged |= what;
  return first;
}

void forget_once(const void *record) {
  std::lock_guard<std::mutex> lock(g_once_mutex);
  if (g_once != nullptr) g_once->erase(record);
}

}  // namespace mp4rec
