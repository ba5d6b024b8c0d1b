// Helpers shared by the audio tests: numbered module-38 messages, side files
// and a look at the spectrum of decoded audio.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <numbers>
#include <regex>
#include <string>
#include <vector>

#include "support/log_capture.h"
#include "support/media.h"

namespace audiotest {

using Bytes = std::vector<uint8_t>;

struct FileCloser {
  void operator()(FILE *f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

inline File open_file(const std::string &path, const char *mode) {
  return File(std::fopen(path.c_str(), mode));
}

// How many messages read "[<line>] <text>" at level 3, module 38, from `function`.
inline int numbered_messages(const testsupport::LogCapture &log, const std::string &text,
                             const std::string &function) {
  static const std::regex prefix(R"(^\[[0-9]+\] )");
  int n = 0;
  for (const auto &e : log.entries()) {
    std::smatch m;
    if (e.level == 3 && e.module == 38 && e.function == function &&
        std::regex_search(e.text, m, prefix) && e.text.substr(m.length()) == text)
      ++n;
  }
  return n;
}

// Decodes an audio file with ffmpeg to signed 16-bit mono samples.
inline std::vector<int16_t> decode_s16(const std::string &path) {
  const std::string raw = path + ".decoded.raw";
  const auto r = testsupport::run_command("ffmpeg -nostdin -hide_banner -v error -y -i '" + path +
                                          "' -f s16le -ac 1 '" + raw + "'");
  if (r.status != 0) return {};
  const Bytes bytes = testsupport::read_file(raw);
  std::vector<int16_t> out(bytes.size() / 2);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = static_cast<int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8));
  std::remove(raw.c_str());
  return out;
}

// Power of one frequency in the samples (Goertzel).
inline double tone_power(const std::vector<int16_t> &s, size_t from, double hz, double rate) {
  const double k = 2 * std::cos(2 * std::numbers::pi * hz / rate);
  double s1 = 0, s2 = 0;
  for (size_t i = from; i < s.size(); ++i) {
    const double s0 = s[i] + k * s1 - s2;
    s2 = s1;
    s1 = s0;
  }
  return s1 * s1 + s2 * s2 - k * s1 * s2;
}

// The strongest frequency on a 50 Hz grid below the Nyquist frequency,
// leaving out the first `skip` samples (the encoder's start).
inline double dominant_frequency(const std::vector<int16_t> &s, double rate, size_t skip = 2048) {
  double best_hz = 0, best = -1;
  for (double hz = 100; hz < rate / 2 - 50; hz += 50) {
    const double p = tone_power(s, skip, hz, rate);
    if (p > best) best = p, best_hz = hz;
  }
  return best_hz;
}

}  // namespace audiotest
