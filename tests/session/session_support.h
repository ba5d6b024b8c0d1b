// Helpers of the session tests: the host's side of the public road.
#pragma once

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "common/internal.h"
#include "session/pre_open.h"
#include "support/media.h"

namespace sessiontest {

using namespace std::chrono_literals;

inline bool exists(const std::string &path) {
  return std::filesystem::exists(path);
}

// True once the pre-open slot holds a handler (looked at under its lock).
inline bool slot_filled() {
  pthread_mutex_lock(&mutex_mp4_open);
  const bool filled = g_mp4_handler != nullptr;
  pthread_mutex_unlock(&mutex_mp4_open);
  return filled;
}

// Polls `ready` every 5 ms for up to `limit`.
template <typename Pred>
bool eventually(Pred ready, std::chrono::milliseconds limit = 20s) {
  const auto end = std::chrono::steady_clock::now() + limit;
  while (!ready()) {
    if (std::chrono::steady_clock::now() > end) return false;
    std::this_thread::sleep_for(5ms);
  }
  return true;
}

// What a host does after posting a pre-open: wait for the file, then ask
// mp4_write_open until it stops answering 1.
struct Opened {
  int rc = -1;
  mp4_handler *handler = nullptr;
  std::string mp4_path;
  std::string mp2_tmp_path;
};
inline Opened open_when_ready(mp4_base *base) {
  Opened o;
  // A file that could not be made leaves the slot empty: open then says so.
  if (!eventually([] { return slot_filled() || !mp4rec::pre_open_busy(); })) return o;
  char mp4_path[256] = {};
  char mp2_path[256] = {};
  for (int i = 0; i < 2000; ++i) {
    o.rc = mp4_write_open(base, mp4_path, mp2_path, &o.handler);
    if (o.rc != 1) break;
    std::this_thread::sleep_for(2ms);
  }
  o.mp4_path = mp4_path;
  o.mp2_tmp_path = mp2_path;
  return o;
}

// A session with the stream info the tests use.
inline mp4_session *new_session(const std::string &mp4_path, const std::string &mp2_path,
                                int frame_rate = 25, uint32_t seconds = 60) {
  mp4_session *s = mp4_session_new(0, mp4_path.c_str(), mp2_path.c_str());
  if (s != nullptr) {
    s->stream_info->video_frame_rate = frame_rate;
    s->stream_info->record_duration = seconds;
    s->stream_info->audio_sample_rate = 16000;
  }
  return s;
}

// A session for `dir/name.mp4` posted on `base` and its prepared file opened;
// `opened.rc` is 0 on success. The session stays attached to the base.
struct OpenFile {
  mp4_session *session = nullptr;
  Opened opened;
};
inline OpenFile post_and_open(mp4_base *base, const testsupport::TempDir &dir,
                              const std::string &name, int video_format, int audio_format,
                              int frame_rate = 25, uint32_t seconds = 60) {
  OpenFile f;
  f.session = new_session(dir.file(name + ".mp4"), dir.file(name + ".mp2"), frame_rate, seconds);
  if (f.session == nullptr ||
      mp4_write_pre_open(base, f.session, 320, 240, video_format, audio_format) != 0)
    return f;
  f.opened = open_when_ready(base);
  return f;
}

// Ends a file as the host does: the recording moved to `keep` (if given and
// there), the session popped and freed (a failed open has freed it already).
inline void end_file(mp4_base *base, OpenFile &f, const std::string &keep = "") {
  if (!keep.empty() && exists(f.opened.mp4_path))
    std::rename(f.opened.mp4_path.c_str(), keep.c_str());
  if (f.session != nullptr && base->mp4_session == f.session)
    mp4_session_free(mp4_session_pop(base));
  f.session = nullptr;
}

// A non-IDR slice of `size` bytes with a 4-byte start code.
inline std::vector<uint8_t> slice(size_t size) {
  std::vector<uint8_t> b(size, 0x5A);
  b[0] = b[1] = b[2] = 0;
  b[3] = 1;
  b[4] = 0x41;
  return b;
}

// One access unit as an encoder hands it over: its NAL units back to back.
inline std::vector<uint8_t> joined(const std::vector<testsupport::Nal> &nals) {
  std::vector<uint8_t> out;
  for (const auto &n : nals) out.insert(out.end(), n.bytes.begin(), n.bytes.end());
  return out;
}

// H.264 or H.265 access units (joined as the encoder hands them over) and ADTS frames.
using Bytes = std::vector<uint8_t>;
struct AvMedia {
  int fps = 25;
  bool per_nal = false;  // fed NAL unit by NAL unit instead of through the splitter
  std::vector<Bytes> units;
  std::vector<bool> idr;
  std::vector<Bytes> aac;
  int video_ts(size_t i) const { return static_cast<int>(i * 1000 / static_cast<size_t>(fps)); }
  static int audio_ts(size_t j) { return static_cast<int>(j * 64); }  // 1024 samples at 16 kHz
};

inline AvMedia load_av(int width, int height, int fps, double seconds, int gop, bool hevc = false,
                       int slices = 1) {
  AvMedia m;
  m.fps = fps;
  // The splitter looks for start codes in the first 200 bytes only: the
  // slices behind the first go in one by one.
  m.per_nal = slices > 1;
  const auto nals = testsupport::split_annexb(testsupport::read_file(
      hevc ? testsupport::hevc_stream(width, height, fps, seconds, gop, slices)
           : testsupport::h264_stream(width, height, fps, seconds, gop)));
  for (const auto &au : testsupport::access_units(nals, hevc)) {
    m.units.push_back(joined(au));
    m.idr.push_back(hevc ? au.back().hevc_type() >= 16 && au.back().hevc_type() <= 21
                         : au.back().type() == 5);
  }
  m.aac = testsupport::split_adts(testsupport::read_file(testsupport::aac_stream(16000, seconds)));
  // The encoder's priming and padding frames run past the pictures; a camera's
  // audio stops with its video.
  while (!m.aac.empty() && AvMedia::audio_ts(m.aac.size() - 1) >= seconds * 1000) m.aac.pop_back();
  return m;
}

}  // namespace sessiontest
