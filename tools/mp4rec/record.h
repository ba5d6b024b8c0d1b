// `mp4rec record`: feeds elementary streams to the library through its public
// calls, exactly as a camera's recorder process does: base, session, stream
// info, pre-open, open, frames, close, and the next file prepared ahead of time
// on the pre-open thread.
#pragma once

#include <string>

namespace mp4tool {

struct RecordOptions {
  std::string
      video;  // H.264 or H.265 Annex B or JPEG stream; "-" for standard input; empty: the sample
  std::string audio;   // ADTS AAC, or raw PCM with `pcm_bits`
  bool mjpeg = false;  // JPEG pictures + PCM (an MJPEG file)
  bool hevc = false;   // the video is H.265
  int pcm_bits = 0;    // 8 or 16 (MJPEG only)
  std::string out_dir = "recordings";
  std::string pattern = "rec-%Y%m%d-%H%M%S-{n}.mp4";
  double segment = 0;   // seconds; 0: one file (up to the planned length)
  double fps = 0;       // 0: from the stream, else 30
  int sample_rate = 0;  // 0: from the stream
  int planned = 0;      // stream info record_duration; 0: chosen from the segment length
  bool prealloc = false;
  bool audio_timestamps = false;
  int durability = -1;        // mp4_set_durability mode; -1: the library's default
  int width = 0, height = 0;  // 0: from the stream
  bool realtime = false;
  bool progress = true;
  bool quiet = false;
  bool verbose = false;
};

// Parses the command line of `mp4rec record` (without the command word);
// returns false and prints the reason for bad usage.
bool parse_record_options(int argc, char **argv, RecordOptions &opt, bool &help);

int run_record(const RecordOptions &opt);

// Keeps a message that the library logged (the tool's swLogWrite hands them
// over); errors are shown when the run fails, or at once with --verbose.
void note_library_message(int level, const char *function, const char *text);

// Entry point of the sub-command: returns the exit status (0 all recorded,
// 1 bad input or a write failure, 2 usage).
int record_main(int argc, char **argv);

// The file name for file number `n` begun at `when` (seconds since the epoch):
// strftime conversions of the local time, and {n} for the number (three digits).
std::string expand_pattern(const std::string &pattern, long long when, int n);

}  // namespace mp4tool
