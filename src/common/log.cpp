// Fallback for the host's log function. A host executable that defines
// swLogWrite itself takes precedence through ordinary symbol interposition.
#include <cstdarg>
#include <cstdio>

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
