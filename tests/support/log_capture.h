// Captures the library's log messages: the test executables define the host's
// log function, as a camera's recorder process does.
#pragma once

#include <string>
#include <vector>

namespace testsupport {

struct LogEntry {
  int level;
  int module;
  std::string function;
  std::string text;  // the formatted message
};

// Clears the captured messages on construction; reads them afterwards.
class LogCapture {
 public:
  LogCapture();
  std::vector<LogEntry> entries() const;
  // True when some message has exactly this text (and level/module when given).
  bool has(const std::string &text, int level = -1, int module = -1) const;
  // Number of messages with exactly this text.
  int count(const std::string &text) const;
  // The first message with this text, or nullptr-like empty entry.
  LogEntry find(const std::string &text) const;
  std::string dump() const;
};

}  // namespace testsupport
