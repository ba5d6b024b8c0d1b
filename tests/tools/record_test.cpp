// `mp4rec record` run as a user runs it; every file it makes is checked with
// ffprobe/ffmpeg and with the tool's own index check.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "file_check.h"
#include "record.h"
#include "support/media.h"
#include "tool_support.h"

namespace {

namespace fs = std::filesystem;
using testsupport::ffmpeg_decode_errors;
using testsupport::ffprobe_frames;
using testsupport::ffprobe_packets;
using testsupport::TempDir;
using tooltest::kExampleHost;
using tooltest::kTool;
using tooltest::run_tool;

const std::string kSampleVideo = MP4REC_SAMPLE_DIR "/sample.h264";
const std::string kSampleAudio = MP4REC_SAMPLE_DIR "/sample.aac";

std::vector<std::string> mp4_files(const std::string &dir) {
  std::vector<std::string> out;
  if (!fs::exists(dir)) return out;
  for (const auto &e : fs::directory_iterator(dir))
    if (e.path().extension() == ".mp4") out.push_back(e.path().string());
  std::sort(out.begin(), out.end());
  return out;
}

// ffprobe decodes it cleanly and the tool's index check agrees with ffprobe.
void expect_playable(const std::string &file, bool audio = true) {
  SCOPED_TRACE(file);
  EXPECT_EQ(ffmpeg_decode_errors(file), "");
  const auto ins = mp4tool::inspect_file(file);
  EXPECT_TRUE(ins.consistent());
  for (const auto &t : ins.tracks) {
    const std::string kind = t.handler == "soun" ? "a" : "v";
    if (kind == "a" && (!audio || t.present == 0)) continue;  // an empty audio track
    EXPECT_EQ(static_cast<long>(t.present), ffprobe_packets(file, kind)) << t.handler;
  }
}

long sample_pictures() {
  static const long n = ffprobe_packets(kSampleVideo, "v");
  return n;
}
long sample_aac_frames() {
  static const long n =
      static_cast<long>(testsupport::split_adts(testsupport::read_file(kSampleAudio)).size());
  return n;
}

// One run of `mp4rec record`: the files it leaves (nothing else: no side file,
// no prepared spare), each playing cleanly with what the stream info asked
// for, and together every picture and audio frame of the input.
struct RecordRun {
  const char *name;
  std::string (*command)(const std::string &dir);  // run in `dir`
  const char *out;                                 // where the files go, inside `dir`
  size_t files;
  long (*pictures)();
  bool audio;                                       // an audio input (else the files carry silence)
  long (*audio_frames)();                           // its frames, all recorded (null: not counted)
  const char *fields = nullptr, *values = nullptr;  // ffprobe video stream fields of every file
};

void PrintTo(const RecordRun &r, std::ostream *os) {
  *os << r.name;
}

class Records : public ::testing::TestWithParam<RecordRun> {};

TEST_P(Records, EveryFilePlaysAndNoFrameIsLost) {
  const RecordRun &c = GetParam();
  TempDir dir;
  const auto r = testsupport::run_command("cd '" + dir.path() + "' && " + c.command(dir.path()));
  ASSERT_EQ(r.status, 0) << r.output;
  const std::string out = dir.file(c.out);
  const auto files = mp4_files(out);
  ASSERT_EQ(files.size(), c.files) << r.output;
  EXPECT_EQ(std::distance(fs::directory_iterator(out), fs::directory_iterator()),
            static_cast<long>(c.files));
  long pictures = 0, audio = 0;
  for (const auto &f : files) {
    expect_playable(f, c.audio);
    // Every file starts with a key frame.
    EXPECT_EQ(mp4tool::inspect_file(f).warnings, std::vector<std::string>{}) << f;
    if (c.fields) {
      EXPECT_EQ(testsupport::ffprobe_stream_field(f, "v", c.fields), c.values) << f;
    }
    pictures += ffprobe_frames(f, "v");
    audio += ffprobe_frames(f, "a");
  }
  EXPECT_EQ(pictures, c.pictures());
  if (c.audio_frames) {
    EXPECT_EQ(audio, c.audio_frames());
  }
}

INSTANTIATE_TEST_SUITE_P(
    Tool, Records,
    ::testing::Values(
        // The built-in sample into ./recordings.
        RecordRun{"BuiltInSample", [](const std::string &) { return kTool + " record"; },
                  "recordings", 1, sample_pictures, true, sample_aac_frames},
        // Five seconds in files of 2 + 2 + 1.
        RecordRun{
            "Segments",
            [](const std::string &) { return kTool + " record --segment 2 -o . -n 'seg-{n}.mp4'"; },
            ".", 3, sample_pictures, true, sample_aac_frames},
        // From a pipe, with audio durations from the frames' time stamps.
        RecordRun{"StandardInput",
                  [](const std::string &) {
                    return "cat '" + kSampleVideo + "' | " + kTool +
                           " record - --audio-timestamps -a '" + kSampleAudio + "' -o . -n in.mp4";
                  },
                  ".", 1, sample_pictures, true, sample_aac_frames},
        // Video only, parameters from the stream, another size and rate, the
        // tables reserved as holes, the index written at once (mode 0).
        RecordRun{"OtherStreamWithoutAudio",
                  [](const std::string &) {
                    return kTool + " record '" + testsupport::h264_stream(640, 360, 30, 3, 30) +
                           "' --segment 1 --prealloc --durability 0 -q -o . -n 'v{n}.mp4'";
                  },
                  ".", 3, [] { return 90L; }, false, nullptr, "width,height", "640,360"},
        // H.265 of three slice segments a picture, in files of one second.
        RecordRun{"Hevc",
                  [](const std::string &) {
                    return kTool + " record --hevc '" +
                           testsupport::hevc_stream(320, 240, 25, 3, 25, 3) + "' -a '" +
                           testsupport::aac_stream(16000, 3) +
                           "' --segment 1 -q -o . -n 'h{n}.mp4'";
                  },
                  ".", 3, [] { return 75L; }, true, nullptr, "codec_name,codec_tag_string,width",
                  "hevc,hvc1,320"},
        RecordRun{
            "Mjpeg",
            [](const std::string &) {
              return kTool + " record --mjpeg '" + testsupport::mjpeg_stream(320, 240, 10, 2) +
                     "' -a '" + testsupport::pcm16_stream(16000, 2) + "' -q -o . -n m.mp4";
            },
            ".", 1, [] { return 20L; }, true,
            [] {
              return static_cast<long>(fs::file_size(testsupport::pcm16_stream(16000, 2)) / 2304);
            }}),
    [](const auto &p) { return std::string(p.param.name); });

// Time stamps from the clock, paced like a camera.
TEST(Record, Realtime) {
  TempDir dir;
  const std::string video = testsupport::h264_stream(320, 240, 15, 1, 15);
  const auto r = run_tool("record '" + video + "' --realtime -q -o '" + dir.path() + "' -n rt.mp4");
  ASSERT_EQ(r.status, 0) << r.output;
  const std::string file = dir.file("rt.mp4");
  expect_playable(file, false);
  const double seconds = std::stod(testsupport::ffprobe_stream_field(file, "v", "duration"));
  EXPECT_NEAR(seconds, 1.0, 0.25);
}

// Bad input: a clear message, a non-zero exit, no crash, and what came before
// the fault recorded and playable.
TEST(Record, BadInput) {
  TempDir dir;
  const std::string text = dir.file("notes.txt");
  testsupport::write_file(text, std::vector<uint8_t>(4000, 'a'));
  const std::string cut = dir.file("cut.h264");
  const auto sample = testsupport::read_file(kSampleVideo);
  tooltest::truncate_copy(kSampleVideo, cut, sample.size() * 6 / 10);
  const std::string cut_aac = dir.file("cut.aac");
  tooltest::truncate_copy(kSampleAudio, cut_aac, fs::file_size(kSampleAudio) - 20);
  const std::string slices = dir.file("slices.h264");
  ASSERT_EQ(testsupport::run_command(
                "ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=320x240:rate=15 -t 1 -c:v "
                "libx264 -threads 1 -preset ultrafast -bf 0 -x264-params slices=3 -f h264 '" +
                slices + "'")
                .status,
            0);
  const std::string bframes = dir.file("bframes.h264");
  ASSERT_EQ(testsupport::run_command(
                "ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=320x240:rate=15 -t 1 -c:v "
                "libx264 -threads 1 -preset ultrafast -bf 2 -f h264 '" +
                bframes + "'")
                .status,
            0);
  const std::string hevc_bframes = dir.file("bframes.hevc");
  ASSERT_EQ(testsupport::run_command(
                "ffmpeg -nostdin -v error -f lavfi -i testsrc2=size=320x240:rate=15 -t 1 -c:v "
                "libx265 -preset ultrafast -x265-params bframes=2:log-level=error -f hevc '" +
                hevc_bframes + "'")
                .status,
            0);
  const std::string file_not_dir = dir.file("plain");
  testsupport::write_file(file_not_dir, {1});
  struct Case {
    const char *name;
    std::string args;
    int status;
    const char *message;
    const char *output;  // the file recorded anyway, or ""
  } cases[] = {
      {"text", "'" + text + "'", 1, "not an H.264 Annex B stream", ""},
      {"text as audio", "'" + kSampleVideo + "' -a '" + text + "'", 1, "not an ADTS AAC stream",
       ""},
      {"several slices a picture", "'" + slices + "'", 1, "one slice per picture", ""},
      {"B pictures", "'" + bframes + "'", 1, "no B pictures", "cut.mp4"},
      {"H.265 B pictures", "--hevc '" + hevc_bframes + "'", 1, "no B pictures", "cut.mp4"},
      {"H.264 as H.265", "--hevc '" + kSampleVideo + "'", 1, "not an H.265 stream", ""},
      {"H.265 without a stream", "--hevc", 2, "--hevc needs an H.265 stream", ""},
      {"missing", "'" + dir.file("nothing.h264") + "'", 1, "cannot open", ""},
      {"truncated video", "'" + cut + "'", 1, "ends inside a picture", "cut.mp4"},
      {"truncated audio", "'" + kSampleVideo + "' -a '" + cut_aac + "'", 1,
       "ends inside an ADTS frame", "cut.mp4"},
      {"directory under a file", "-o '" + file_not_dir + "/rec'", 1,
       "cannot create the output directory", ""},
      {"unknown option", "--frobnicate", 2, "unknown option", ""},
      {"segment of 0 s", "--segment 0", 2, "needs a number of seconds", ""},
      {"durability 2", "--durability 2", 2, "needs 0 or 1", ""},
      {"PCM with H.264", "--pcm 16 -a x.raw", 2, "PCM audio goes with --mjpeg", ""},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    const std::string out = dir.file("out");
    fs::remove_all(out);
    const auto r = run_tool("record -o '" + out + "' -n cut.mp4 --no-progress " + c.args);
    EXPECT_EQ(r.status, c.status) << r.output;
    EXPECT_NE(r.output.find(c.message), std::string::npos) << r.output;
    EXPECT_EQ(r.output.find("Sanitizer"), std::string::npos) << r.output;
    if (*c.output) {
      const std::string file = out + "/" + c.output;
      ASSERT_TRUE(fs::exists(file)) << r.output;
      expect_playable(file);
    } else {
      EXPECT_TRUE(mp4_files(out).empty()) << r.output;
    }
  }
}

// The truncated stream keeps every whole picture.
TEST(Record, TruncatedStreamKeepsTheWholePictures) {
  TempDir dir;
  const std::string cut = dir.file("cut.h264");
  const auto sample = testsupport::read_file(kSampleVideo);
  tooltest::truncate_copy(kSampleVideo, cut, sample.size() / 2);
  const auto whole = testsupport::access_units(testsupport::split_annexb(
      std::vector<uint8_t>(sample.begin(), sample.begin() + static_cast<long>(sample.size() / 2))));
  const auto r = run_tool("record '" + cut + "' -q -o '" + dir.path() + "' -n c.mp4");
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_EQ(ffprobe_frames(dir.file("c.mp4"), "v"), static_cast<long>(whole.size()) - 1);
}

// A card that fills up: the file-size limit makes writes fail as a full card does.
TEST(Record, FullCard) {
  TempDir dir;
  const std::string video = testsupport::h264_stream(640, 480, 30, 6, 30);
  const auto r =
      testsupport::run_command("ulimit -f 1500 && " + kTool + " record '" + video +
                               "' --duration 20 --no-progress -o '" + dir.path() + "' -n full.mp4");
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_NE(r.output.find("card may be full"), std::string::npos) << r.output;
  const std::string file = dir.file("full.mp4");
  ASSERT_TRUE(fs::exists(file)) << r.output;
  // The audio frames wait in a 16 KiB buffer node that never filled, so no
  // audio reached the card: players name the empty audio track, and the
  // video plays up to the last batch.
  const std::string errors = ffmpeg_decode_errors(file);
  EXPECT_TRUE(errors.empty() ||
              (errors.rfind("exit", 0) != 0 &&
               errors.find("stream 1, missing mandatory atoms") != std::string::npos))
      << errors;
  const auto frames = testsupport::run_command(
      "ffprobe -v fatal -count_frames -select_streams v:0 -show_entries stream=nb_read_frames "
      "-of csv=p=0 '" +
      file + "'");
  EXPECT_GT(std::atol(frames.output.c_str()), 0) << frames.output;
  const auto ins = mp4tool::inspect_file(file);
  EXPECT_TRUE(ins.consistent());
  ASSERT_FALSE(ins.tracks.empty());
  EXPECT_GT(ins.tracks[0].present, 0u);
  EXPECT_LT(static_cast<long>(ins.tracks[0].present), 180);
}

TEST(Record, PatternsAndOptions) {
  std::tm tm{};
  tm.tm_year = 2026 - 1900;
  tm.tm_mon = 10;
  tm.tm_mday = 21;
  tm.tm_hour = 9;
  tm.tm_min = 8;
  tm.tm_sec = 7;
  tm.tm_isdst = -1;
  const long long when = std::mktime(&tm);
  EXPECT_EQ(mp4tool::expand_pattern("cam-%Y%m%d-%H%M%S-{n}.mp4", when, 7),
            "cam-20261121-090807-007.mp4");
  EXPECT_EQ(mp4tool::expand_pattern("a/b{n}{n}.mp4", when, 12), "a_b012012.mp4");

  struct Case {
    std::vector<const char *> args;
    bool ok;
  } cases[] = {
      {{"-s", "2.5", "--fps", "25", "v.h264"}, true},
      {{"--fps", "0"}, false},
      {{"--size", "320x"}, false},
      {{"--pcm", "12"}, false},
      {{"a.h264", "b.h264"}, false},
      {{"-", "-a", "-"}, false},
      {{"--mjpeg"}, false},
      {{"--duration"}, false},
  };
  for (const auto &c : cases) {
    mp4tool::RecordOptions opt;
    bool help = false;
    std::vector<char *> argv;
    for (const char *a : c.args) argv.push_back(const_cast<char *>(a));
    EXPECT_EQ(mp4tool::parse_record_options(static_cast<int>(argv.size()), argv.data(), opt, help),
              c.ok)
        << c.args.front();
  }
}

TEST(Inspect, ExitStatus) {
  TempDir dir;
  const std::string good = tooltest::ffmpeg_mp4(true);
  EXPECT_EQ(run_tool("inspect '" + good + "'").status, 0);
  const std::string cut = dir.file("cut.mp4");
  tooltest::truncate_copy(good, cut, fs::file_size(good) / 2);
  const auto r = run_tool("inspect -q '" + cut + "'");
  EXPECT_EQ(r.status, 1) << r.output;
  EXPECT_NE(r.output.find("INCONSISTENT"), std::string::npos) << r.output;
  EXPECT_EQ(run_tool("inspect").status, 2);
  EXPECT_EQ(run_tool("inspect '" + good + "' '" + cut + "'").status, 1);
  EXPECT_EQ(run_tool("frobnicate").status, 2);
}

// The README's host program records a playable file.
TEST(Example, HostProgramRecordsAPlayableFile) {
  TempDir dir;
  const std::string out = dir.file("host.mp4");
  const auto r = testsupport::run_command(kExampleHost + " '" + out + "' '" + kSampleVideo + "' '" +
                                          kSampleAudio + "'");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(ffprobe_frames(out, "v"), sample_pictures());
  EXPECT_EQ(ffprobe_frames(out, "a"), sample_aac_frames());
  expect_playable(out);
  EXPECT_FALSE(fs::exists(out + ".part"));
  EXPECT_FALSE(fs::exists(out + ".mp2"));
}

}  // namespace
