// `mp4rec repair`: makes a playable file from a recording of this library that
// was cut by a kill or a power loss, without a reference file.
//
// - Index in front (the main road): the index as far as it was committed is
//   kept (with chunks whose entries were written behind the counts, when the
//   bytes agree), and the whole H.264 samples that lie behind it are found by
//   their length prefixes and indexed; audio behind the index is given up.
// - MJPEG and H.264 with the index at the end: a new index is built from the
//   pictures or samples in mdat, with the audio of the side file when it
//   stands beside the file (or the audio already copied behind the video).
#pragma once

#include <string>

namespace mp4tool {

struct RepairOptions {
  std::string in;
  std::string out;     // empty: IN with "-repaired" before its extension
  std::string audio;   // side file; empty: IN with .mp2, or IN.mp2, if present
  std::string params;  // H.264 stream or MP4 to take SPS and PPS from, if the file lost them
  bool in_place = false;
  double fps = 0;  // picture rate where the file keeps no time stamps (0: guess)
};

struct RepairReport {
  std::string kind;          // "index in front", "MJPEG", "index at end"
  long video_indexed = 0;    // samples the cut file's index held
  long video_recovered = 0;  // samples in the repaired file
  long audio_recovered = 0;
  double seconds = 0;
  long long bytes_lost = 0;  // bytes of mdat that no index describes any more
  std::string notes;         // assumptions and losses, one per line
  std::string written;       // the repaired file
};

// 0: repaired (or nothing to repair, with nothing written); 1: refused or
// failed, with the reason in `error`.
int repair_file(const RepairOptions &opt, RepairReport &report, std::string &error);

// Entry point of the sub-command; returns the exit status (0, 1, 2 for usage).
int repair_main(int argc, char **argv);

}  // namespace mp4tool
