// Recordings of fixed input through the library's three writers, for the tests
// that compare finished bytes or replay the writes a recording issued. The
// input never changes: the tool's committed sample for H.264 + AAC, and
// synthetic pictures and PCM for MJPEG.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "support/av_feed.h"

namespace testsupport {

// The tool's built-in sample as a camera feed: 5 s of 320x240 H.264 at 15
// frames/s and 16 kHz AAC, time stamps from 1000 ms on.
AvFeed sample_feed();

// The front-index road at handle level: head, data buffer, every unit through
// the intake, sync, release. Small nodes make many chunks per recording.
struct FrontRoad {
  bool prealloc = false;     // both tables reserved as holes
  bool time_stamps = false;  // audio durations from time stamps
  int video_node = 24576;
  int audio_node = 2048;
  int durability = 0;  // mode of the session's data buffer
  int interval_ms = 1000;
  int pace_ms = 0;  // pause before each picture, as a camera's frames come
};
// "" on success, else what went wrong.
std::string record_front_index(const std::string &mp4, const std::string &mp2, const AvFeed &feed,
                               const FrontRoad &road);

// MJPEG: the pictures 40 ms apart and one block of 16-bit PCM (72 ms) per picture.
std::string record_mjpeg(const std::string &mp4, const std::string &mp2,
                         const std::vector<std::vector<uint8_t>> &pictures);
// Pictures that the MJPEG writer takes (start and end markers around a
// pattern free of markers) but no decoder would.
std::vector<std::vector<uint8_t>> synthetic_pictures(int n);

// H.264 with the index at the end: the sample's pictures, then its AAC frames
// through the side file (with `whole_frames`, only those that the side-file
// reader, which finds frames by their sync bytes alone, takes whole).
std::string record_index_at_end(const std::string &mp4, const std::string &mp2, const AvFeed &feed,
                                bool whole_frames = false);

// SHA-256 (hex) of a file's bytes with the creation and modification times of
// mvhd, tkhd and mdhd zeroed, so that recordings made at different moments
// compare equal.
std::string digest_without_times(const std::vector<uint8_t> &bytes);

}  // namespace testsupport
