#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iostream>

#include "record.h"

namespace mp4tool {

namespace {

bool parse_size(const std::string &s, int &w, int &h) {
  return std::sscanf(s.c_str(), "%dx%d", &w, &h) == 2 && w > 0 && h > 0;
}

void print_help() {
  std::cout <<
      R"(usage: mp4rec record [options] [VIDEO|-]

Records elementary streams through the library's public calls, as a camera's
recorder does. With no input it records the built-in sample (H.264 + AAC).

input:
  VIDEO                H.264 Annex B stream (file, or - for standard input);
                       with --hevc H.265, with --mjpeg a stream of JPEG pictures
  -a, --audio FILE     ADTS AAC (with H.264 or H.265) or raw PCM, 16000 Hz mono
                       (with --mjpeg)
      --hevc           the video is H.265 Annex B (video format 3)
      --mjpeg          the video is JPEG pictures (an MJPEG file)
      --pcm 8|16       sample width of the PCM audio (default 16)
      --fps N          frame rate (default: the stream's timing, else 30)
      --size WxH       picture size (default: from the stream)
      --realtime       pace the input like a camera and stamp frames with the clock
output:
  -o, --output DIR     output directory (default ./recordings)
  -n, --name PATTERN   file names: strftime conversions of the file's start time
                       and {n} for its number (default rec-%Y%m%d-%H%M%S-{n}.mp4)
  -s, --segment SECS   start a new file at the first IDR (H.265: IRAP) picture
                       after SECS seconds
stream info:
      --duration SECS  planned file length, sizing the reserved index
                       (default: twice the segment, at least segment + 10; else 600)
      --rate HZ        audio sample rate (default: the AAC stream's)
      --prealloc       reserve the index tables as holes (faster file creation)
      --audio-timestamps  audio durations follow the frames' time stamps
      --durability 0|1 how the index reaches the card (default 1: ordered
                       commits with syncs, once a second; 0: at once, no sync)
other:
      --no-progress    no progress line (it is shown only on a terminal)
  -q, --quiet          print only errors
  -v, --verbose        show the library's error messages as they come
Exit status: 0 recorded, 1 bad input or a write failure, 2 usage.
)";
}

}  // namespace

std::string expand_pattern(const std::string &pattern, long long when, int n) {
  std::string p;
  char num[16];
  std::snprintf(num, sizeof num, "%03d", n);
  for (size_t i = 0; i < pattern.size(); ++i) {
    if (pattern.compare(i, 3, "{n}") == 0) {
      p += num;
      i += 2;
    } else {
      p += pattern[i];
    }
  }
  const std::time_t t = static_cast<std::time_t>(when);
  std::tm tm{};
  localtime_r(&t, &tm);
  char out[512];
  const size_t len = std::strftime(out, sizeof out, p.c_str(), &tm);
  std::string name = len ? std::string(out, len) : p;
  for (auto &c : name)
    if (c == '/') c = '_';
  return name;
}

bool parse_record_options(int argc, char **argv, RecordOptions &opt, bool &help) {
  help = false;
  auto need = [&](int &i, const std::string &name) -> const char * {
    if (i + 1 >= argc) {
      std::cerr << "mp4rec record: " << name << " needs a value\n";
      return nullptr;
    }
    return argv[++i];
  };
  auto number = [](const char *s, double &out) {
    char *end = nullptr;
    out = std::strtod(s, &end);
    return end && *end == '\0' && std::isfinite(out);
  };
  bool have_video = false;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    const char *v = nullptr;
    double d = 0;
    auto bad = [&](const std::string &why) {
      std::cerr << "mp4rec record: " << a << ": " << why << "\n";
      return false;
    };
    if (a == "-h" || a == "--help") {
      help = true;
      return true;
    } else if (a == "-a" || a == "--audio") {
      if (!(v = need(i, a))) return false;
      opt.audio = v;
    } else if (a == "--mjpeg") {
      opt.mjpeg = true;
    } else if (a == "--hevc") {
      opt.hevc = true;
    } else if (a == "--pcm") {
      if (!(v = need(i, a))) return false;
      opt.pcm_bits = std::atoi(v);
      if (opt.pcm_bits != 8 && opt.pcm_bits != 16) return bad("must be 8 or 16");
    } else if (a == "--fps") {
      if (!(v = need(i, a))) return false;
      if (!number(v, d) || d <= 0 || d > 1000) return bad("needs a frame rate above 0");
      opt.fps = d;
    } else if (a == "--size") {
      if (!(v = need(i, a))) return false;
      if (!parse_size(v, opt.width, opt.height)) return bad("needs WIDTHxHEIGHT");
    } else if (a == "--realtime") {
      opt.realtime = true;
    } else if (a == "-o" || a == "--output") {
      if (!(v = need(i, a))) return false;
      opt.out_dir = v;
    } else if (a == "-n" || a == "--name") {
      if (!(v = need(i, a))) return false;
      opt.pattern = v;
      if (opt.pattern.empty()) return bad("needs a pattern");
    } else if (a == "-s" || a == "--segment") {
      if (!(v = need(i, a))) return false;
      if (!number(v, d) || d <= 0) return bad("needs a number of seconds above 0");
      opt.segment = d;
    } else if (a == "--duration") {
      if (!(v = need(i, a))) return false;
      if (!number(v, d) || d < 1 || d > 100000) return bad("needs 1 to 100000 seconds");
      opt.planned = static_cast<int>(d);
    } else if (a == "--rate") {
      if (!(v = need(i, a))) return false;
      if (!number(v, d) || d < 1000 || d > 192000) return bad("needs a sample rate in Hz");
      opt.sample_rate = static_cast<int>(d);
    } else if (a == "--prealloc") {
      opt.prealloc = true;
    } else if (a == "--audio-timestamps") {
      opt.audio_timestamps = true;
    } else if (a == "--durability") {
      if (!(v = need(i, a))) return false;
      if (!number(v, d) || (d != 0 && d != 1)) return bad("needs 0 or 1");
      opt.durability = static_cast<int>(d);
    } else if (a == "--no-progress") {
      opt.progress = false;
    } else if (a == "-q" || a == "--quiet") {
      opt.quiet = true;
      opt.progress = false;
    } else if (a == "-v" || a == "--verbose") {
      opt.verbose = true;
    } else if (a.size() > 1 && a[0] == '-') {
      return bad("unknown option");
    } else {
      if (have_video) return bad("only one video input is taken");
      opt.video = a;
      have_video = true;
    }
  }
  if (opt.pcm_bits && !opt.mjpeg) {
    std::cerr << "mp4rec record: PCM audio goes with --mjpeg; H.264 and H.265 recordings take "
                 "ADTS AAC\n";
    return false;
  }
  if (opt.mjpeg && opt.hevc) {
    std::cerr << "mp4rec record: --mjpeg and --hevc name two kinds of video\n";
    return false;
  }
  if ((opt.mjpeg || opt.hevc) && opt.video.empty()) {
    std::cerr << "mp4rec record: "
              << (opt.mjpeg ? "--mjpeg needs a JPEG stream" : "--hevc needs an H.265 stream")
              << "\n";
    return false;
  }
  if (opt.mjpeg && !opt.audio.empty() && !opt.pcm_bits) opt.pcm_bits = 16;
  if (opt.video == "-" && opt.audio == "-") {
    std::cerr << "mp4rec record: video and audio cannot both come from standard input\n";
    return false;
  }
  return true;
}

int record_main(int argc, char **argv) {
  RecordOptions opt;
  bool help = false;
  if (!parse_record_options(argc, argv, opt, help)) {
    std::cerr << "(mp4rec record --help lists the options)\n";
    return 2;
  }
  if (help) {
    print_help();
    return 0;
  }
  return run_record(opt);
}

}  // namespace mp4tool
