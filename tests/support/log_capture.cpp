#include "support/log_capture.h"

#include <cstdarg>
#include <cstdio>
#include <mutex>

namespace {
std::mutex g_mutex;
std::vector<testsupport::LogEntry> g_entries;
}  // namespace

extern "C" void swLogWrite(int level, int module, const char *function, int /*line*/,
                           const char *format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  std::lock_guard<std::mutex> lock(g_mutex);
  g_entries.push_back({level, module, function ? function : "", text});
}

namespace testsupport {

LogCapture::LogCapture() {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_entries.clear();
}

std::vector<LogEntry> LogCapture::entries() const {
  std::lock_guard<std::mutex> lock(g_mutex);
  return g_entries;
}

bool LogCapture::has(const std::string &text, int level, int module) const {
  for (const auto &e : entries()) {
    if (e.text == text && (level < 0 || e.level == level) && (module < 0 || e.module == module))
      return true;
  }
  return false;
}

int LogCapture::count(const std::string &text) const {
  int n = 0;
  for (const auto &e : entries()) n += e.text == text;
  return n;
}

LogEntry LogCapture::find(const std::string &text) const {
  for (const auto &e : entries()) {
    if (e.text == text) return e;
  }
  return {-1, -1, "", ""};
}

std::string LogCapture::dump() const {
  std::string out;
  for (const auto &e : entries()) {
    out += "[" + std::to_string(e.level) + "/" + std::to_string(e.module) + "] " + e.function +
           ": " + e.text;
  }
  return out;
}

}  // namespace testsupport
