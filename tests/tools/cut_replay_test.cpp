// Every state that a kill or a power cut can leave on the card while the
// library records. The simulated card logs every write the process issues;
// each prefix of the log is what a kill (or an in-order power cut) leaves, a
// write longer than a sector may also land torn, and in the durable mode any
// subset of the writes between two syncs may land. Every such state of the
// front-index road must be a file that `inspect` finds consistent and ffmpeg
// decodes without a complaint, never holding fewer frames than the state
// before; `repair` must turn any state of any writer into a file that decodes
// cleanly and holds at least the frames the cut file indexed.
#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <random>
#include <sstream>

#include "common/internal.h"
#include "file_check.h"
#include "repair.h"
#include "support/box_reader.h"
#include "support/media.h"
#include "support/recorder.h"
#include "support/sim_card.h"
#include "tool_support.h"

namespace {

using testsupport::CardEvent;
using testsupport::FrontRoad;

constexpr size_t kSector = 512;

// ffmpeg's complaints while it decodes a file, and the video frames it decoded.
struct Decoded {
  std::string errors;
  long frames = 0;
};
Decoded decode(const std::string &path) {
  const auto r = testsupport::run_command("ffmpeg -nostdin -v error -i '" + path +
                                          "' -f null - -progress pipe:1");
  Decoded d;
  std::istringstream lines(r.output);
  for (std::string line; std::getline(lines, line);) {
    const auto eq = line.find('=');
    const bool progress = eq != std::string::npos && eq > 0 &&
                          line.find_first_not_of("abcdefghijklmnopqrstuvwxyz_0123456789") == eq;
    if (!progress) {
      d.errors += line + "\n";
    } else if (line.rfind("frame=", 0) == 0) {
      d.frames = std::stol(line.substr(6));
    }
  }
  if (r.status != 0 && d.errors.empty()) d.errors = "exit status " + std::to_string(r.status);
  return d;
}

std::string report(const mp4tool::Inspection &ins) {
  std::ostringstream s;
  mp4tool::print_inspection(ins, s, false);
  return s.str();
}

struct Variant {
  const char *name;
  char writer;  // 'f' front index, 'j' MJPEG, 'e' index at end
  FrontRoad road;
  int decode_every;  // ffmpeg on every n-th state (and on the states around each sync)
  int subsets;       // durable mode: random subsets tried per stretch between two syncs
};

class CutReplay : public ::testing::TestWithParam<Variant> {
 protected:
  void SetUp() override {
    const Variant &v = GetParam();
    testsupport::SimCard card;
    std::string error;
    if (v.writer == 'f') {
      FrontRoad road = v.road;
      road.video_node = 12288;
      error = testsupport::record_front_index(mp4_, mp2_, testsupport::sample_feed(), road);
    } else if (v.writer == 'j') {
      const auto stream = testsupport::read_file(testsupport::mjpeg_stream(320, 240, 25, 1.2));
      error = testsupport::record_mjpeg(mp4_, mp2_, testsupport::split_jpeg(stream));
    } else {
      error = testsupport::record_index_at_end(mp4_, mp2_, testsupport::sample_feed(), true);
    }
    ASSERT_EQ(error, "");
    log_ = card.log(mp4_);
    ASSERT_FALSE(log_.empty());
    finished_ = testsupport::read_file(mp4_);
  }

  // The first state whose head is complete: for the front index, the reserved
  // moov and the mdat header; for the others, ftyp, free and the mdat header.
  size_t first_state() const {
    const testsupport::BoxFile f(finished_);
    const uint64_t head = f.top()[0].size + f.top()[1].size + f.top()[2].size + 8;
    for (size_t n = 1; n <= log_.size(); ++n) {
      const auto image = testsupport::replay(log_, n);
      if (image.size() < head) continue;
      if (std::equal(image.begin(), image.begin() + 32, finished_.begin()) &&
          testsupport::BoxFile(image).find("mdat") != nullptr)
        return n;
    }
    return log_.size();
  }

  // Checks one state of the front-index road; returns its video samples.
  // `decoded` holds the frames ffmpeg played in the last state decoded.
  long check_front_state(const std::vector<uint8_t> &image, const std::string &what, bool decode_it,
                         long previous, long *decoded = nullptr) {
    testsupport::write_file(state_, image);
    const auto ins = mp4tool::inspect_file(state_);
    EXPECT_TRUE(ins.consistent()) << what << "\n" << report(ins);
    long video = 0;
    bool visible = false;
    for (const auto &t : ins.tracks) {
      if (t.hidden) continue;
      visible = true;
      if (t.handler == "vide") video = static_cast<long>(t.present);
    }
    EXPECT_GE(video, previous) << what << ": fewer frames than the state before";
    if (decode_it && visible) {
      ++decoded_;
      const Decoded d = decode(state_);
      // A chunk appended behind one with more samples takes that one's run
      // until its own is counted: ffmpeg then says so, and still plays every
      // sample (no order of two count words avoids that moment).
      const bool claims_more = report(ins).find("the chunks claim") != std::string::npos;
      if (!(claims_more &&
            strip_addresses(d.errors) == "[mov,mp4,m4a,3gp,3g2,mj2 @ X] wrong sample count\n"))
        EXPECT_EQ(strip_addresses(d.errors), "") << what << "\n" << report(ins);
      else
        ++claims_more_states_;
      // Until the durations follow the counts, the edit list still ends at
      // the previous batch and ffmpeg plays that far.
      EXPECT_LE(d.frames, video) << what;
      if (decoded != nullptr) {
        EXPECT_GE(d.frames, *decoded) << what << ": ffmpeg plays fewer frames than before";
        *decoded = d.frames;
      }
    }
    return video;
  }

  static std::string strip_addresses(const std::string &s) {
    std::string out;
    for (size_t i = 0; i < s.size(); ++i) {
      if (s.compare(i, 4, "@ 0x") == 0) {
        out += "@ X";
        i += 4;
        while (i < s.size() && std::isxdigit(static_cast<unsigned char>(s[i])) && s[i] != ']') ++i;
        --i;
        continue;
      }
      out += s[i];
    }
    return out;
  }

  // Repairs a state and checks the result: it decodes cleanly and holds at
  // least the frames that the state indexed.
  void check_repair(const std::vector<uint8_t> &image, const std::string &what, long indexed) {
    testsupport::write_file(state_, image);
    mp4tool::RepairOptions opt;
    opt.in = state_;
    opt.out = repaired_;
    if (GetParam().writer != 'f') {
      opt.audio = mp2_;
      opt.fps = 25;
    }
    if (GetParam().writer == 'e') opt.params = MP4REC_SAMPLE_DIR "/sample.h264";
    mp4tool::RepairReport rep;
    std::string error;
    testsupport::write_file(repaired_, {});
    if (mp4tool::repair_file(opt, rep, error) != 0) {
      // Only a state without a single whole picture is refused.
      EXPECT_EQ(indexed, 0) << what << ": " << error;
      return;
    }
    ++repaired_count_;
    const std::string file = rep.written.empty() ? state_ : repaired_;
    const Decoded d = decode(file);
    EXPECT_EQ(strip_addresses(d.errors), "") << what << " repaired";
    EXPECT_GE(d.frames, indexed) << what << " repaired";
  }

  testsupport::TempDir dir_;
  std::string mp4_ = dir_.file("rec.mp4"), mp2_ = dir_.file("rec.mp2");
  std::string state_ = dir_.file("state.mp4"), repaired_ = dir_.file("repaired.mp4");
  std::vector<CardEvent> log_;
  std::vector<uint8_t> finished_;
  long decoded_ = 0, repaired_count_ = 0, claims_more_states_ = 0;
};

TEST_P(CutReplay, EveryStateIsValidAndRepairs) {
  const Variant &v = GetParam();
  const size_t first = first_state();
  ASSERT_LT(first, log_.size());
  long states = 0, previous = 0, played = 0;
  // ffmpeg runs on a sample of the states (sparser under the sanitizers and
  // the emulator); inspect on every one.
  const bool slow_build = MP4REC_SANITIZED || std::string(MP4REC_LAUNCHER) != "";
  const size_t every = static_cast<size_t>(v.decode_every) * (slow_build ? 3 : 1);
  for (size_t n = first; n <= log_.size(); ++n) {
    const bool last_is_sync = log_[n - 1].sync;
    const bool decode_it =
        n == log_.size() || (n - first) % every == 0 || (n < log_.size() && log_[n].sync);
    const auto image = testsupport::replay(log_, n);
    const std::string what = std::string(v.name) + " after " + std::to_string(n) + " of " +
                             std::to_string(log_.size()) + " events";
    if (v.writer == 'f') {
      previous = check_front_state(image, what, decode_it && !last_is_sync, previous, &played);
      if (!log_[n - 1].sync && log_[n - 1].bytes.size() > kSector) {
        check_front_state(testsupport::replay(log_, n, kSector), what + " (torn)", false, 0);
        ++states;
      }
    }
    ++states;
    if ((n - first) % (every * 4) == 0 || n == first) check_repair(image, what, previous);
  }

  // The durable mode: between two syncs any subset of the writes may land.
  long subsets = 0;
  std::mt19937 rng(15);
  size_t epoch_start = 0;
  bool head_synced = false;
  for (size_t i = 0; v.subsets > 0 && i < log_.size(); ++i) {
    if (!log_[i].sync) continue;
    if (head_synced && i > epoch_start + 1) {
      for (int k = 0; k < v.subsets; ++k) {
        auto image = testsupport::replay(log_, epoch_start);
        for (size_t e = epoch_start; e < i; ++e) {
          if (log_[e].sync || rng() % 2 == 0) continue;
          const auto &w = log_[e];
          if (image.size() < w.offset + w.bytes.size()) image.resize(w.offset + w.bytes.size());
          std::copy(w.bytes.begin(), w.bytes.end(), image.begin() + static_cast<long>(w.offset));
        }
        check_front_state(
            image, std::string(v.name) + " subset of the writes before sync " + std::to_string(i),
            k == 0, 0);
        ++subsets;
      }
    }
    head_synced = true;
    epoch_start = i + 1;
  }
  const Decoded finished = decode(mp4_);
  EXPECT_EQ(finished.errors, "");
  if (v.writer == 'f') {
    EXPECT_EQ(finished.frames, previous);
  }
  std::cout << "[ states   ] " << v.name << ": " << states << " states and " << subsets
            << " subsets checked by inspect, " << decoded_ << " decoded by ffmpeg ("
            << claims_more_states_ << " with a chunk claiming more samples), " << repaired_count_
            << " repaired\n";
}

INSTANTIATE_TEST_SUITE_P(
    Writers, CutReplay,
    ::testing::Values(
        Variant{"front", 'f', {}, 3, 0},
        Variant{"front_holes_stamped", 'f', {.prealloc = true, .time_stamps = true}, 7, 0},
        // Durable: a commit after every node, and one commit for all nodes at
        // the close (many chunks, whose counts go chunk by chunk).
        Variant{"front_durable", 'f', {.durability = 1, .interval_ms = 1}, 7, 2},
        Variant{"front_durable_batched", 'f', {.durability = 1, .interval_ms = 60000}, 7, 3},
        Variant{"mjpeg", 'j', {}, 2, 0}, Variant{"index_at_end", 'e', {}, 2, 0}),
    [](const auto &p) { return std::string(p.param.name); });

}  // namespace

namespace {

// repair refuses what it cannot make a recording of, and writes nothing then.
TEST(Repair, RefusesWhatIsNotARecordingOfOurs) {
  testsupport::TempDir dir;
  std::vector<uint8_t> noise(5000);
  std::mt19937 rng(7);
  for (auto &b : noise) b = static_cast<uint8_t>(rng());
  const std::string random = dir.file("random.mp4"), head = dir.file("head.mp4");
  testsupport::write_file(random, noise);
  std::unique_ptr<mp4_stream_info, decltype(&std::free)> info(mp4_create_stream_info(), &std::free);
  free_mp4_h264(mp4_write_head_h264_index(head.c_str(), dir.file("head.mp2").c_str(), 320, 240, 3,
                                          info.get()));
  struct Case {
    std::string in;
    const char *why;
  };
  for (const auto &c : {Case{random, "not an MP4 file"},
                        Case{tooltest::ffmpeg_mp4(true), "written by another program"},
                        Case{tooltest::ffmpeg_mp4(false), "written by another program"},
                        Case{head, "nothing recorded yet"}}) {
    mp4tool::RepairOptions opt;
    opt.in = c.in;
    opt.out = dir.file("out.mp4");
    mp4tool::RepairReport rep;
    std::string error;
    const auto before = testsupport::read_file(c.in);
    EXPECT_EQ(mp4tool::repair_file(opt, rep, error), 1) << c.in;
    EXPECT_NE(error.find(c.why), std::string::npos) << error;
    EXPECT_FALSE(std::filesystem::exists(opt.out)) << c.in;
    EXPECT_EQ(testsupport::read_file(c.in), before);
  }
}

// The command: inspect points at repair; repair writes beside its input
// unless told to mend the input itself.
TEST(Repair, TheCommandWritesIntoItsInputOnlyWhenTold) {
  testsupport::TempDir dir;
  const std::string mp4 = dir.file("rec.mp4");
  std::vector<CardEvent> log;
  {
    testsupport::SimCard card;
    ASSERT_EQ(testsupport::record_front_index(mp4, dir.file("rec.mp2"), testsupport::sample_feed(),
                                              {.video_node = 12288}),
              "");
    log = card.log(mp4);
  }
  // The moment the last video node's bytes are on the card and its index is not.
  const uint64_t media = testsupport::BoxFile(mp4).at("mdat").offset + 8;
  size_t cut = 0;
  for (size_t i = 0; i + 1 < log.size(); ++i)
    if (!log[i].sync && log[i].offset >= media && log[i].bytes.size() > 4096) cut = i + 1;
  const std::string in = dir.file("cut.mp4");
  testsupport::write_file(in, testsupport::replay(log, cut));
  const auto before = testsupport::read_file(in);

  const auto inspected = tooltest::run_tool("inspect -q '" + in + "'");
  EXPECT_EQ(inspected.status, 0) << inspected.output;
  EXPECT_NE(inspected.output.find("repair: its index stops"), std::string::npos)
      << inspected.output;

  const auto beside = tooltest::run_tool("repair '" + in + "'");
  EXPECT_EQ(beside.status, 0) << beside.output;
  EXPECT_NE(beside.output.find("recovered from behind the index"), std::string::npos)
      << beside.output;
  EXPECT_EQ(testsupport::read_file(in), before);
  const std::string out = dir.file("cut-repaired.mp4");
  EXPECT_EQ(testsupport::ffmpeg_decode_errors(out), "");
  EXPECT_GT(testsupport::ffprobe_frames(out, "v"), mp4tool::inspect_file(in).tracks[0].samples);

  const auto in_place = tooltest::run_tool("repair --in-place '" + in + "'");
  EXPECT_EQ(in_place.status, 0) << in_place.output;
  EXPECT_EQ(testsupport::read_file(in), testsupport::read_file(out));
  EXPECT_EQ(tooltest::run_tool("repair '" + in + "' a b").status, 2);
}

}  // namespace
