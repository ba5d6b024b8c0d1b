// A camera's frame sequence made from test media: every NAL unit of an H.264
// stream and every AAC frame (ADTS header stripped) with realistic time stamps,
// interleaved in time-stamp order as a recorder hands them over.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/media.h"

namespace testsupport {

struct TimedUnit {
  bool video = false;
  std::vector<uint8_t> bytes;  // video: with its start code; audio: raw AAC frame
  int ts = 0;                  // milliseconds
  bool picture = false;        // a slice that becomes a sample (NAL type 1 or 5)
};

struct AvFeed {
  std::vector<TimedUnit> units;
  long pictures = 0;
  long audio_frames = 0;
};

// Cycles through the H.264 stream until `pictures` pictures were taken (each
// pass starts again at its first SPS, PPS and IDR), and through the AAC stream
// for the same span. Pictures are `fps` per second from `base_ts`; AAC frames
// carry 1024 samples at `sample_rate`.
inline AvFeed make_av_feed(const std::string &h264_path, const std::string &aac_path, int fps,
                           long pictures, int sample_rate = 16000, int base_ts = 1000) {
  const auto nals = split_annexb(read_file(h264_path));
  const auto adts = split_adts(read_file(aac_path));
  AvFeed feed;
  std::vector<TimedUnit> video, audio;
  long p = 0;
  while (p < pictures && !nals.empty()) {
    for (const auto &nal : nals) {
      if (p >= pictures) break;
      const int type = nal.type();
      TimedUnit u;
      u.video = true;
      u.bytes = nal.bytes;
      u.ts = base_ts + static_cast<int>(int64_t{p} * 1000 / fps);
      u.picture = type == 1 || type == 5;
      if (u.picture) ++p;
      video.push_back(std::move(u));
    }
  }
  feed.pictures = p;
  // 64-bit arithmetic: j * 1024 * 1000 leaves a 32-bit long after 134 s at 16 kHz.
  const int64_t span_ms = int64_t{pictures} * 1000 / fps;
  for (int64_t j = 0; !adts.empty(); ++j) {
    const int64_t ts = j * 1024 * 1000 / sample_rate;
    if (ts >= span_ms) break;
    const auto &frame = adts[static_cast<size_t>(j) % adts.size()];
    const size_t header = (frame[1] & 1) ? 7 : 9;  // protection_absent
    TimedUnit u;
    u.bytes.assign(frame.begin() + static_cast<long>(header), frame.end());
    u.ts = base_ts + static_cast<int>(ts);
    audio.push_back(std::move(u));
  }
  feed.audio_frames = static_cast<long>(audio.size());
  size_t v = 0, a = 0;
  while (v < video.size() || a < audio.size()) {
    if (a == audio.size() || (v < video.size() && video[v].ts <= audio[a].ts)) {
      feed.units.push_back(std::move(video[v++]));
    } else {
      feed.units.push_back(std::move(audio[a++]));
    }
  }
  return feed;
}

}  // namespace testsupport
