// The bench input: an H.264 (or H.265) Annex B stream and an ADTS AAC stream, read and
// cut into frames before anything is timed, with the time stamps every back
// end receives.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

namespace bench {

// One frame as the host hands it over: a video access unit or an audio frame.
struct Unit {
  bool video = false;
  bool key = false;         // IDR (H.265: IRAP) access unit
  uint32_t ts = 0;          // milliseconds from the start
  uint32_t duration = 0;    // milliseconds to the next frame of the same track
  uint32_t nal_first = 0;   // video: first of its NAL units in Input::nals
  uint32_t nal_count = 0;   // video: number of NAL units (SPS, PPS, slices...)
  size_t sample_off = 0;    // bytes of the sample as it stands in mdat
  uint32_t sample_len = 0;  //   (video: 4-byte lengths + picture NALs; audio: raw AAC)
  size_t adts_off = 0;      // audio: the ADTS frame with its 7-byte header
  uint32_t adts_len = 0;
};

struct Input {
  bool hevc = false;                     // the video is H.265
  std::vector<uint8_t> annexb;           // the video stream as read
  std::vector<uint8_t> adts;             // the AAC stream as read
  std::vector<uint8_t> samples;          // every sample as it stands in mdat, in unit order
  std::vector<std::span<uint8_t>> nals;  // NAL units with their start codes
  std::vector<Unit> units;               // video and audio frames in time stamp order
  std::vector<uint8_t> sps, pps;         // first parameter sets, without start codes
  uint8_t aac_config[2] = {0, 0};        // AudioSpecificConfig of the ADTS stream
  int width = 0, height = 0, fps = 30, sample_rate = 16000;
  size_t video_frames = 0, audio_frames = 0;
  size_t media_bytes = 0;  // sum of sample lengths

  std::span<const uint8_t> sample(const Unit &u) const {
    return {samples.data() + u.sample_off, u.sample_len};
  }
  uint8_t *adts_frame(const Unit &u) { return adts.data() + u.adts_off; }
  double seconds() const;
};

// Reads both files and cuts them; `audio_path` may be empty (video only), and
// with `hevc` the video is H.265. Throws std::runtime_error on a malformed
// stream.
Input load_input(const std::string &video_path, const std::string &audio_path, int width,
                 int height, int fps, bool hevc = false);

}  // namespace bench
