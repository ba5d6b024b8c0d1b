#include "record.h"

#include <mp4rec/mp4rec.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <iostream>
#include <map>
#include <mutex>
#include <optional>
#include <sstream>
#include <thread>
#include <vector>

#include "decode_check.h"
#include "file_check.h"
#include "sample.h"
#include "streams.h"

namespace fs = std::filesystem;

namespace mp4tool {

namespace {

using Clock = std::chrono::steady_clock;

// ---- the library's log messages ----

// The library logs through the host's swLogWrite (the tool's, in main.cpp,
// hands the messages here). Errors are kept, shown with --verbose at once and
// otherwise only when the run fails.
struct LibraryLog {
  std::mutex mutex;
  std::vector<std::string> errors;  // distinct texts, in order
  std::map<std::string, int> seen;
  bool echo = false;
};
LibraryLog &library_log() {
  static LibraryLog log;
  return log;
}

std::atomic<bool> g_stop{false};
void on_stop_signal(int) {
  g_stop.store(true);
}

// ---- errors of the run ----

struct WriteFailure : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// H.264 pictures of several slices are refused.
std::string several_slices(int slices) {
  return "pictures of " + std::to_string(slices) +
         " slices: the recorder keeps one H.264 NAL unit per sample, so the stream must have one "
         "slice per picture (H.265 pictures may have several)";
}

std::string trim(std::string s) {
  while (!s.empty() && (s.back() == '\n' || s.back() == ' ')) s.pop_back();
  return s;
}

// ---- the recorder ----

// One file of the recording: its session (popped from the base once opened),
// its handler and what went into it.
struct Segment {
  mp4_session *session = nullptr;
  mp4_handler *handler = nullptr;
  int number = 0;
  std::string tmp_mp4, tmp_mp2;
  std::time_t started = 0;
  long video_frames = 0, audio_frames = 0;
  uint64_t bytes = 0;
  long long first_ts = -1, last_ts = -1;
};

class Recorder {
 public:
  Recorder(const RecordOptions &opt, int width, int height, double fps, int audio_format,
           int sample_rate)
      : opt_(opt),
        width_(width),
        height_(height),
        fps_(fps),
        video_format_(opt.mjpeg  ? 1
                      : opt.hevc ? 3
                                 : 2),
        audio_format_(audio_format),
        sample_rate_(sample_rate) {
    planned_ = opt.planned;
    if (planned_ <= 0) {
      planned_ = opt.segment > 0
                     ? static_cast<int>(std::ceil(std::max(2 * opt.segment, opt.segment + 10)))
                     : 600;
    }
    // Without segments a file ends at the first IDR picture after its planned
    // length; the reserved tables hold 10% and a second more.
    rotate_after_ms_ = static_cast<long long>((opt.segment > 0 ? opt.segment : planned_) * 1000);
    preopen_after_ms_ = opt.segment > 0 ? 0 : rotate_after_ms_ / 2;
  }

  ~Recorder() {
    shutdown();
    {
      std::lock_guard<std::mutex> lock(watch_mutex_);
      watch_stop_ = true;
    }
    watch_cv_.notify_all();
    if (watch_thread_.joinable()) watch_thread_.join();
  }

  void start() {
    watch_thread_ = std::thread([this] { watchdog(); });
    base_ = mp4_base_new();
    if (!base_) throw WriteFailure("the recorder base could not be started");
    mp4_session *s = new_session(1);
    if (mp4_write_open_first(base_, s, width_, height_, video_format_, audio_format_) != 0)
      throw WriteFailure("the first file could not be created in " + opt_.out_dir);
    spare_posted_ = true;  // open_first returns once the file is ready
    open_next();
  }

  // Feeds one access unit; a file ends before an IDR (H.265: IRAP) picture once
  // it is long enough. Throws WriteFailure when the library refuses the picture.
  void video_access_unit(const AccessUnit &au, long long ts) {
    if (au.idr && cur_.first_ts >= 0 && (ts - cur_.first_ts >= rotate_after_ms_ || full_)) rotate();
    if (full_) {
      ++dropped_video_;
      return;
    }
    maybe_preopen(ts);
    // The splitter cuts start codes in the first 200 bytes only, and passes a
    // buffer that begins with a picture that is not a sync sample on whole: an
    // access unit goes in one call when all its pieces begin there and it
    // holds one slice, others NAL unit by NAL unit (the slice segments of an
    // H.265 picture join its sample).
    const size_t limit = std::min<size_t>(au.bytes.size(), 200);
    bool splittable = au.slices == 1;
    for (const auto &n : au.nals) {
      if (n.offset != 0 && n.offset + 3 >= limit) splittable = false;
    }
    if (au.bipred)
      throw InputError(
          "a B picture: the recorder writes pictures in decoding order without "
          "composition offsets, so the stream must have no B pictures");
    if (au.slices != 1 && video_format_ == 2) throw InputError(several_slices(au.slices));
    int r;
    if (splittable) {
      r = retry_busy([&] {
        return mp4_write_splite_sps_pps_i(const_cast<uint8_t *>(au.bytes.data()),
                                          static_cast<int>(au.bytes.size()), static_cast<int>(ts),
                                          cur_.handler);
      });
    } else {
      r = 0;
      for (const auto &n : au.nals) {
        r = retry_busy([&] {
          return mp4_write_video(const_cast<uint8_t *>(au.bytes.data() + n.offset),
                                 static_cast<int>(n.size), static_cast<int>(ts), cur_.handler);
        });
        if (r != 0) break;
      }
    }
    account_video(r, au.bytes.size(), ts);
  }

  void video_jpeg(const JpegPicture &pic, long long ts) {
    if (cur_.first_ts >= 0 && (ts - cur_.first_ts >= rotate_after_ms_)) rotate();
    maybe_preopen(ts);
    const int r = retry_busy([&] {
      return mp4_write_video(const_cast<uint8_t *>(pic.bytes.data()),
                             static_cast<int>(pic.bytes.size()), static_cast<int>(ts),
                             cur_.handler);
    });
    account_video(r, pic.bytes.size(), ts);
  }

  void audio(const std::vector<uint8_t> &frame, long long ts) {
    if (cur_.video_frames == 0 && video_format_ != 1) {
      ++dropped_audio_early_;  // a file begins with its IDR picture
      return;
    }
    const int r = retry_busy([&] {
      return mp4_write_audio(const_cast<uint8_t *>(frame.data()), static_cast<int>(frame.size()),
                             static_cast<int>(ts), cur_.handler);
    });
    if (r == 0) {
      ++cur_.audio_frames;
      ++audio_total_;
      cur_.bytes += frame.size();
      bytes_total_ += frame.size();
    } else if (r == -5) {
      ++dropped_audio_;
    } else {
      fail_frame(r, "audio frame");
    }
  }

  // Closes the last file and discards the one prepared ahead.
  void finish() {
    close_current();
    discard_spare();
  }

  // Closes what is still open, discards the file prepared ahead and stops the base.
  void shutdown() {
    if (cur_.handler) {
      try {
        close_current();
      } catch (const WriteFailure &) {
      }
    }
    discard_spare();
    if (base_) mp4_base_free(base_);
    base_ = nullptr;
  }

  const std::vector<std::string> &files() const { return files_; }
  const std::vector<std::string> &problems() const { return problems_; }
  std::string summary() const { return summary_.str(); }
  long video_total() const { return video_total_; }
  long audio_total() const { return audio_total_; }
  long dropped_video() const { return dropped_video_; }
  long dropped_audio() const { return dropped_audio_ + dropped_audio_early_; }
  long busy() const { return busy_; }
  long io_errors() const { return io_errors_; }
  long writes() const { return writes_.load(std::memory_order_relaxed); }
  uint64_t bytes() const { return bytes_total_; }
  int file_count() const { return static_cast<int>(files_.size()) + (cur_.handler ? 1 : 0); }

 private:
  // Runs one library call under the watchdog (see Watchdog).
  template <typename F>
  int guarded(F &&call) {
    call_started_ms_.store(now_ms(), std::memory_order_relaxed);
    const int r = call();
    call_started_ms_.store(-1, std::memory_order_relaxed);
    return r;
  }

  template <typename F>
  int retry_busy(F &&call) {
    int r = guarded(call);
    for (int tries = 0; r == -4 && tries < 3 && !g_stop.load(); ++tries) {
      ++busy_;
      r = guarded(call);
    }
    if (r == -4) ++busy_;
    return r;
  }

  void account_video(int r, size_t size, long long ts) {
    if (r == 0) {
      if (cur_.first_ts < 0) {
        cur_.first_ts = ts;
        cur_.started = std::time(nullptr);
      }
      cur_.last_ts = ts;
      ++cur_.video_frames;
      ++video_total_;
      cur_.bytes += size;
      bytes_total_ += size;
    } else if (r == -5) {
      // The reserved tables are full: the file ends at the next IDR picture.
      full_ = true;
      ++dropped_video_;
    } else {
      fail_frame(r, "video frame");
    }
  }

  [[noreturn]] void fail_frame(int r, const char *what) {
    if (r == -2) {
      ++io_errors_;
      io_failed_ = true;
      throw WriteFailure(std::string("writing to the card failed (a ") + what +
                         " was refused with an I/O error; the card may be full)");
    }
    if (r == -4)
      throw WriteFailure(std::string("the card is too slow: a ") + what +
                         " found the buffer busy four times in a row");
    // -1: the library released the file's writer context.
    handle_lost_ = true;
    throw WriteFailure(std::string("the library refused a ") + what + " (result " +
                       std::to_string(r) + ")");
  }

  mp4_session *new_session(int number) {
    const std::string base =
        opt_.out_dir + "/unfinished-" + std::to_string(getpid()) + "-" + std::to_string(number);
    const std::string mp4 = base + ".mp4", mp2 = base + ".mp2";
    if (mp4.size() >= 256) throw WriteFailure("the output directory's path is too long");
    mp4_session *s = mp4_session_new(0, mp4.c_str(), mp2.c_str());
    if (!s) throw WriteFailure("a recording session could not be created");
    if (opt_.durability >= 0 && mp4_set_durability(s, opt_.durability, 0) != 0) {
      mp4_session_free(s);
      throw WriteFailure("the durability mode could not be set");
    }
    mp4_stream_info *info = s->stream_info;
    info->record_duration = static_cast<uint32_t>(planned_);
    info->audio_timestamp_mode = opt_.audio_timestamps ? 1 : 0;
    info->video_prealloc = opt_.prealloc ? 1 : 0;
    info->audio_prealloc = opt_.prealloc ? 1 : 0;
    info->audio_sample_rate = sample_rate_;
    info->video_frame_rate = std::max(1, static_cast<int>(std::ceil(fps_ - 1e-6)));
    next_number_ = number;
    return s;
  }

  static void on_write(void *self) {
    static_cast<Recorder *>(self)->writes_.fetch_add(1, std::memory_order_relaxed);
  }

  // A request posted a moment ago may not have reached the pre-open thread:
  // open would then find no file and no generation under way, and free the
  // session the thread is about to read. Give the thread time to take it.
  void wait_for_spare() const {
    std::this_thread::sleep_until(posted_at_ + std::chrono::milliseconds(200));
  }

  void post_spare(int number) {
    mp4_session *s = new_session(number);
    if (mp4_write_pre_open(base_, s, width_, height_, video_format_, audio_format_) != 0) {
      mp4_session_free(s);
      throw WriteFailure("the next file could not be requested");
    }
    spare_posted_ = true;
    posted_at_ = Clock::now();
  }

  // Takes the prepared file, asking again while it is still being made.
  int take_spare(mp4_handler *&h, char (&mp4_path)[256], char (&mp2_path)[256]) {
    int r;
    wait_for_spare();
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    while ((r = mp4_write_open(base_, mp4_path, mp2_path, &h)) == 1 && Clock::now() < deadline)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    spare_posted_ = false;
    return r;
  }

  // Opens the next file from the prepared one.
  void open_next() {
    char mp4_path[256] = {0}, mp2_path[256] = {0};
    mp4_handler *h = nullptr;
    const int r = take_spare(h, mp4_path, mp2_path);
    if (r != 0 || !h)
      throw WriteFailure("the next file could not be prepared in " + opt_.out_dir +
                         " (is the card full or read-only?)");
    mp4_write_register(base_, &Recorder::on_write, this);
    cur_ = Segment{};
    cur_.session = mp4_session_pop(base_);
    cur_.handler = h;
    cur_.number = next_number_;
    cur_.tmp_mp4 = mp4_path;
    cur_.tmp_mp2 = mp2_path;
    cur_.started = std::time(nullptr);
    full_ = false;
    set_emergency_names(
        cur_.tmp_mp4, opt_.out_dir + "/" + expand_pattern(opt_.pattern, cur_.started, cur_.number));
  }

  void maybe_preopen(long long ts) {
    if (spare_posted_ || cur_.first_ts < 0 || ts - cur_.first_ts < preopen_after_ms_) return;
    post_spare(cur_.number + 1);
  }

  void rotate() {
    close_current();
    if (!spare_posted_) post_spare(next_number_ + 1);
    open_next();
  }

  // Moves the finished file to its name; the session's paths are then empty
  // and freeing the session deletes only the side file.
  void keep_file(Segment &seg, bool playable) {
    std::error_code ec;
    if (seg.video_frames == 0 && seg.audio_frames == 0) return;  // nothing worth keeping
    if (!fs::exists(seg.tmp_mp4, ec)) return;
    std::string name = opt_.out_dir + "/" + expand_pattern(opt_.pattern, seg.started, seg.number);
    for (int k = 2; fs::exists(name, ec); ++k) {
      const fs::path p = opt_.out_dir + "/" + expand_pattern(opt_.pattern, seg.started, seg.number);
      name =
          (p.parent_path() / (p.stem().string() + "-" + std::to_string(k) + p.extension().string()))
              .string();
    }
    fs::rename(seg.tmp_mp4, name, ec);
    if (ec) {
      std::cerr << "mp4rec: cannot rename " << seg.tmp_mp4 << " to " << name << ": " << ec.message()
                << "\n";
      name = seg.tmp_mp4;
      seg.tmp_mp4.clear();
    }
    files_.push_back(name);
    verify(name, seg);
    const double secs = seg.first_ts >= 0 ? (seg.last_ts - seg.first_ts) / 1000.0 + 1.0 / fps_ : 0;
    summary_ << name << ": " << seg.video_frames << " video frames, " << seg.audio_frames
             << " audio frames, " << std::fixed;
    summary_.precision(2);
    summary_ << secs << " s, " << seg.bytes / 1000 << " kB of media"
             << (playable ? "" : " (index as of its last update)") << "\n";
  }

  // Reads the closed file's index back: a card that filled up while the last
  // batches were written shows as frames missing from the index.
  void verify(const std::string &name, const Segment &seg) {
    const Inspection ins = inspect_file(name);
    uint64_t video = 0, audio = 0;
    for (const auto &t : ins.tracks) (t.handler == "soun" ? audio : video) += t.present;
    if (!ins.consistent()) {
      problems_.push_back(name + ": its index does not match its bytes (the card may be full)");
    } else if (video < static_cast<uint64_t>(seg.video_frames) ||
               audio < static_cast<uint64_t>(seg.audio_frames)) {
      problems_.push_back(name + ": only " + std::to_string(video) + " of " +
                          std::to_string(seg.video_frames) + " video frames and " +
                          std::to_string(audio) + " of " + std::to_string(seg.audio_frames) +
                          " audio frames reached the file (the card may be full); it plays up "
                          "to there");
    }
  }

  // Whatever the frame calls answered, the close is the next step, and the
  // session's end after it: a close that meets a card error answers -1, and
  // the library keeps the file as it stood at its last batch until the
  // session is freed.
  void close_current() {
    if (!cur_.handler) return;
    mp4_handler *h = cur_.handler;
    cur_.handler = nullptr;
    const bool closed = guarded([&] { return mp4_write_close(h); }) == 0;
    // A file whose writer let go of it after a refused frame was drained first.
    const bool complete = closed || handle_lost_;
    const bool newly_failed = !complete && !io_failed_;
    if (newly_failed) {
      ++io_errors_;
      io_failed_ = true;
    }
    keep_file(cur_, complete);
    mp4_session_free(cur_.session);
    cur_.session = nullptr;
    if (newly_failed)
      throw WriteFailure("closing " + cur_.tmp_mp4 + " failed (the card may be full)");
  }

  void discard_spare() {
    if (!spare_posted_ || !base_) return;
    // The prepared file is taken and closed empty; freeing its session deletes it.
    char mp4_path[256] = {0}, mp2_path[256] = {0};
    mp4_handler *h = nullptr;
    const int r = take_spare(h, mp4_path, mp2_path);
    if (r == 0 && h) mp4_write_close(h);
    if (mp4_session *s = mp4_session_pop(base_)) mp4_session_free(s);
  }

  static long long now_ms() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
        .count();
  }

  // The library bounds its waits on the card, but an MJPEG picture is written
  // from the caller's thread: a card write that never returns would hold the
  // tool for good. The watchdog gives the current file its name and ends the
  // process.
  void watchdog() {
    std::unique_lock<std::mutex> lock(watch_mutex_);
    while (!watch_cv_.wait_for(lock, std::chrono::milliseconds(500), [&] { return watch_stop_; })) {
      const long long started = call_started_ms_.load(std::memory_order_relaxed);
      if (started < 0 || now_ms() - started < kStuckMs) continue;
      std::string where = watch_from_;
      if (!watch_from_.empty() && std::rename(watch_from_.c_str(), watch_to_.c_str()) == 0)
        where = watch_to_;
      std::fprintf(stderr,
                   "mp4rec: the library has not returned for %lld s, a card write never came "
                   "back; %s keeps its index as of the last batch\n",
                   kStuckMs / 1000, where.c_str());
      std::fflush(stdout);
      std::_Exit(1);
    }
  }

  void set_emergency_names(const std::string &from, const std::string &to) {
    std::lock_guard<std::mutex> lock(watch_mutex_);
    watch_from_ = from;
    watch_to_ = to;
  }

  static constexpr long long kStuckMs = 20000;
  std::atomic<long long> call_started_ms_{-1};
  std::mutex watch_mutex_;
  std::condition_variable watch_cv_;
  bool watch_stop_ = false;
  std::string watch_from_, watch_to_;
  std::thread watch_thread_;

  const RecordOptions &opt_;
  int width_, height_;
  double fps_;
  int video_format_, audio_format_, sample_rate_;
  int planned_;
  long long rotate_after_ms_, preopen_after_ms_;
  mp4_base *base_ = nullptr;
  Segment cur_;
  bool spare_posted_ = false;
  Clock::time_point posted_at_{};
  int next_number_ = 1;
  bool full_ = false, io_failed_ = false, handle_lost_ = false;
  std::vector<std::string> files_, problems_;
  std::ostringstream summary_;
  long video_total_ = 0, audio_total_ = 0, dropped_video_ = 0, dropped_audio_ = 0,
       dropped_audio_early_ = 0, busy_ = 0, io_errors_ = 0;
  uint64_t bytes_total_ = 0;
  std::atomic<long> writes_{0};
};

// ---- the progress line ----

class Progress {
 public:
  explicit Progress(bool on) : on_(on), start_(Clock::now()) {}
  void restart() { start_ = Clock::now(); }
  void update(const Recorder &r, bool force = false) {
    if (!on_) return;
    const auto now = Clock::now();
    if (!force && now - last_ < std::chrono::milliseconds(100)) return;
    last_ = now;
    const double secs = std::chrono::duration<double>(now - start_).count();
    char line[200];
    std::snprintf(
        line, sizeof line,
        "\rfiles %d  frames %ld video %ld audio  %.2f MB  %02d:%04.1f  writes %ld  busy %ld"
        "  io errors %ld ",
        r.file_count(), r.video_total(), r.audio_total(), r.bytes() / 1e6,
        static_cast<int>(secs / 60), std::fmod(secs, 60.0), r.writes(), r.busy(), r.io_errors());
    std::cerr << line << std::flush;
    shown_ = true;
  }
  void end() {
    if (shown_) std::cerr << "\n";
    shown_ = false;
  }

 private:
  bool on_;
  bool shown_ = false;
  Clock::time_point start_, last_{};
};

// ---- inputs ----

std::unique_ptr<ByteSource> source_for(const std::string &path, std::span<const uint8_t> builtin) {
  if (path.empty()) return memory_source(builtin);
  return open_source(path);
}

// Checks that the output directory exists (it is made) and takes files.
void prepare_directory(const std::string &dir) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec) throw WriteFailure("cannot create the output directory " + dir + ": " + ec.message());
  const std::string probe = dir + "/.mp4rec-probe-" + std::to_string(getpid());
  FILE *f = std::fopen(probe.c_str(), "wb");
  if (!f)
    throw WriteFailure("cannot write to the output directory " + dir + ": " + std::strerror(errno));
  std::fclose(f);
  std::remove(probe.c_str());
}

// ---- one run of `mp4rec record`, step by step ----

// Without an audio input the files get silence: the library always writes an
// audio track, and players refuse one that has no samples at all.
constexpr uint8_t kSilentAdts[] = {0xFF, 0xF1, 0x60, 0x40, 0x01, 0x7F,
                                   0xFC, 0x01, 0x18, 0x20, 0x07};  // AAC LC, 16 kHz

// The steps of a run: open the inputs (look at them before any file is made),
// open the recorder (its first file), feed the frames in time-stamp order (the
// recorder rotates to the next file as it goes), close, report.
class RecordRun {
 public:
  explicit RecordRun(const RecordOptions &opt)
      : opt_(opt),
        builtin_(opt.video.empty()),
        video_name_(builtin_ ? "the built-in sample"
                             : (opt.video == "-" ? "standard input" : opt.video)),
        audio_name_(opt.audio.empty() ? "the built-in sample's audio"
                                      : (opt.audio == "-" ? "standard input" : opt.audio)),
        progress_(opt.progress && isatty(STDERR_FILENO) != 0) {
    if (builtin_ && opt_.planned == 0 && opt_.segment == 0)
      opt_.planned = 10;  // the sample is five seconds long
  }

  void open_inputs() {
    width_ = opt_.width, height_ = opt_.height;
    fps_ = opt_.fps;
    if (opt_.mjpeg) {
      open_jpeg();
    } else {
      open_access_units();
    }
    if (fps_ <= 0) fps_ = 30;
    open_audio();
  }

  void open_recorder() {
    prepare_directory(opt_.out_dir);
    const int audio_format = opt_.mjpeg ? (opt_.pcm_bits == 8 ? 1 : 2) : 3;
    rec_ = std::make_unique<Recorder>(opt_, width_, height_, fps_, audio_format, sample_rate_);
    rec_->start();
    say("recording " + video_name_ + " (" + std::to_string(width_) + "x" + std::to_string(height_) +
        ", " + std::to_string(fps_).substr(0, 5) + " fps" +
        (silence_ ? ", silence for audio" : (opt_.mjpeg ? ", PCM audio" : ", AAC audio")) +
        ") into " + opt_.out_dir + "\n");
    if (skipped_)
      say("skipped " + std::to_string(skipped_) + " pictures before the first " +
          (opt_.hevc ? "IRAP" : "IDR") + " picture\n");
  }

  // Frames in time-stamp order, video first on a tie, until the inputs end or
  // a signal stops the run.
  void feed() {
    progress_.restart();
    const auto t0 = Clock::now();
    const double audio_frame_ms = opt_.mjpeg ? 1152 * 1000.0 / 16000 : 1024 * 1000.0 / sample_rate_;
    long vk = 0, ak = 0;
    after_ = au_ ? next_video_au() : std::nullopt;
    while (!g_stop.load()) {
      const bool v_more = opt_.mjpeg ? next_pic_.has_value() : au_.has_value();
      const bool a_more = next_aac_.has_value() || next_pcm_.has_value() || (silence_ && v_more);
      if (!v_more && !a_more) break;
      const double v_due = vk * 1000.0 / fps_;
      const double a_due = ak * audio_frame_ms;
      const bool take_video = v_more && (!a_more || v_due <= a_due);
      const double due = take_video ? v_due : a_due;
      long long ts = std::llround(due);
      if (opt_.realtime) {
        std::this_thread::sleep_until(t0 + std::chrono::microseconds(std::llround(due * 1000)));
        ts = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t0).count();
      }
      if (take_video) {
        if (!feed_video(ts)) continue;
        ++vk;
      } else {
        feed_audio(ts);
        ++ak;
      }
      progress_.update(*rec_);
    }
    progress_.update(*rec_, true);
    if (g_stop.load()) {
      progress_.end();
      say("stopped by a signal; closing the file\n");
    }
  }

  // Closes the last file; an input cut inside a frame fails the run.
  void close() {
    rec_->finish();
    if (jpeg_ && jpeg_->trailing_bytes()) {
      truncated_video_ = true;
      truncation_ = "the last JPEG picture has no end of image";
    }
    if (truncated_video_)
      fail(video_name_ + " ends inside a picture (" + truncation_ +
           "): the stream is cut short; the pictures before it were recorded");
    if (aac_ && aac_->trailing_bytes())
      fail(audio_name_ + " ends inside an ADTS frame (" + std::to_string(aac_->trailing_bytes()) +
           " bytes left over)");
  }

  void fail(const std::string &why) {
    status_ = 1;
    error_ += std::string(error_.empty() ? "" : "; ") + why;
  }

  // Stops the recorder, prints the summary and what went wrong; the exit status.
  int report() {
    progress_.end();
    if (rec_) {
      rec_->shutdown();  // closes what is still open and stops the base
      if (!opt_.quiet) std::cout << rec_->summary();
      if (rec_->dropped_video())
        std::cerr << "mp4rec: " << rec_->dropped_video()
                  << " pictures did not fit into a file's reserved index and were dropped\n";
      if (rec_->dropped_audio())
        std::cerr
            << "mp4rec: note: " << rec_->dropped_audio()
            << " audio frames were not recorded (before the first picture, or a full index)\n";
      for (const auto &p : rec_->problems()) {
        status_ = 1;
        error_ += std::string(error_.empty() ? "" : "\nmp4rec: ") + p;
      }
      if (rec_->files().empty() && status_ == 0) fail("nothing was recorded");
    }
    if (status_ != 0) {
      auto &log = library_log();
      std::lock_guard<std::mutex> lock(log.mutex);
      if (!log.echo)
        for (const auto &m : log.errors) std::cerr << "mp4rec: library: " << m << "\n";
      std::cerr << "mp4rec: " << error_ << "\n";
    }
    return status_;
  }

 private:
  void say(const std::string &s) const {
    if (!opt_.quiet) std::cout << s << std::flush;
  }

  // Reads from one input; its bad bytes are reported under its name.
  template <typename Read>
  static auto from(const std::string &name, Read &&read) {
    try {
      return read();
    } catch (const InputError &e) {
      throw InputError(name + ": " + e.what());
    }
  }
  std::optional<AccessUnit> next_video_au() {
    return from(video_name_, [&] { return h264_->next(); });
  }
  std::optional<JpegPicture> next_picture() {
    return from(video_name_, [&] { return jpeg_->next(); });
  }
  std::optional<AdtsFrame> next_aac_frame() {
    return from(audio_name_, [&] { return aac_->next(); });
  }

  void open_jpeg() {
    jpeg_.emplace(open_source(opt_.video));
    next_pic_ = next_picture();
    if (!next_pic_) throw InputError(video_name_ + ": no whole JPEG picture");
    if (!width_) width_ = next_pic_->width, height_ = next_pic_->height;
  }

  // A file starts with an IDR (H.265: IRAP) picture behind its parameter sets:
  // the pictures before the first one are skipped.
  void open_access_units() {
    h264_.emplace(source_for(opt_.video, sample_h264()), opt_.hevc);
    const char *codec = opt_.hevc ? "H.265" : "H.264";
    const int sps_type = opt_.hevc ? 33 : 7;
    std::optional<SpsInfo> sps;
    bool have_vps = !opt_.hevc, have_sps = false, have_pps = false;
    while ((au_ = next_video_au())) {
      for (const auto &n : au_->nals) {
        if ((au_->bytes[n.offset + (au_->bytes[n.offset + 2] == 1 ? 3 : 4)] & 0x80) != 0)
          throw InputError(video_name_ + ": not an " + codec +
                           " stream (a NAL unit header is invalid)");
        if (n.type == sps_type && !sps) {
          const std::span<const uint8_t> unit(au_->bytes.data() + n.offset, n.size);
          sps = opt_.hevc ? parse_hevc_sps(unit) : parse_sps(unit);
        }
      }
      have_vps |= au_->has_vps;
      have_sps |= au_->has_sps;
      have_pps |= au_->has_pps;
      if (au_->idr && have_vps && have_sps && have_pps) break;
      if (au_->has_picture) ++skipped_;
      if (skipped_ > 100000) break;
    }
    if (!au_ || !au_->idr)
      throw InputError(video_name_ +
                       (opt_.hevc ? " holds no IRAP picture with its VPS, SPS and PPS"
                                  : " holds no IDR picture with its SPS and PPS") +
                       ": not an " + codec + " stream a recording can start on");
    if (au_->slices != 1 && !opt_.hevc)
      throw InputError(video_name_ + ": " + several_slices(au_->slices));
    if (!width_) {
      if (!sps || sps->width <= 0 || sps->height <= 0)
        throw InputError("the picture size cannot be read from the SPS; give --size WxH");
      width_ = sps->width, height_ = sps->height;
    }
    if (fps_ <= 0 && sps && sps->fps > 0 && sps->fps <= 240) fps_ = sps->fps;
  }

  void open_audio() {
    sample_rate_ = opt_.sample_rate;
    const size_t pcm_block = opt_.pcm_bits == 8 ? 576 : 2304;
    const bool have_audio = builtin_ || !opt_.audio.empty();
    if (have_audio && !opt_.mjpeg) {
      aac_.emplace(source_for(opt_.audio, sample_aac()));
      next_aac_ = next_aac_frame();
      if (!next_aac_) throw InputError(audio_name_ + ": no whole ADTS frame");
      if (!sample_rate_) sample_rate_ = next_aac_->sample_rate;
      if (next_aac_->sample_rate != 16000 || next_aac_->channels != 1)
        std::cerr << "mp4rec: note: the audio is " << next_aac_->sample_rate << " Hz with "
                  << next_aac_->channels
                  << " channels; the files' AAC configuration says 16000 Hz mono\n";
    } else if (have_audio) {
      pcm_.emplace(open_source(opt_.audio), pcm_block);
      next_pcm_ = pcm_->next();
      if (!next_pcm_) throw InputError(audio_name_ + ": shorter than one block of PCM");
    }
    if (!sample_rate_) sample_rate_ = 16000;
    silence_ = !have_audio;
    silent_frame_ = opt_.mjpeg
                        ? std::vector<uint8_t>(pcm_block, opt_.pcm_bits == 8 ? 0x80 : 0)
                        : std::vector<uint8_t>(std::begin(kSilentAdts), std::end(kSilentAdts));
  }

  // One picture; false when the last access unit was cut short and dropped.
  bool feed_video(long long ts) {
    if (opt_.mjpeg) {
      rec_->video_jpeg(*next_pic_, ts);
      next_pic_ = next_picture();
      return true;
    }
    if (au_->idr) gop_.clear();
    gop_.push_back(au_->bytes);
    if (!after_) {
      // The last picture: a stream cut inside it is not recorded.
      const std::string why = last_picture_error(gop_, opt_.hevc);
      if (!why.empty() || !au_->has_picture) {
        truncated_video_ = true;
        truncation_ = why.empty() ? "parameter sets without a picture at the end"
                                  : "the decoder reports: " + why;
        au_.reset();
        return false;
      }
    }
    if (au_->has_picture) rec_->video_access_unit(*au_, ts);
    au_ = std::move(after_);
    after_ = au_ ? next_video_au() : std::nullopt;
    return true;
  }

  void feed_audio(long long ts) {
    if (silence_) {
      rec_->audio(silent_frame_, ts);
    } else if (next_aac_) {
      rec_->audio(next_aac_->bytes, ts);
      next_aac_ = next_aac_frame();
    } else {
      rec_->audio(*next_pcm_, ts);
      next_pcm_ = pcm_->next();
    }
  }

  RecordOptions opt_;
  const bool builtin_;
  const std::string video_name_, audio_name_;
  Progress progress_;
  int status_ = 0;
  std::string error_;
  std::unique_ptr<Recorder> rec_;

  std::optional<AccessUnitReader> h264_;
  std::optional<JpegReader> jpeg_;
  std::optional<AdtsReader> aac_;
  std::optional<PcmReader> pcm_;
  int width_ = 0, height_ = 0;
  double fps_ = 0;
  int sample_rate_ = 0;
  long skipped_ = 0;
  bool silence_ = false;
  std::vector<uint8_t> silent_frame_;

  // The next inputs: the access unit to feed and the one behind it (its
  // absence marks the last picture), the JPEG picture, AAC frame or PCM block.
  std::optional<AccessUnit> au_, after_;
  std::optional<JpegPicture> next_pic_;
  std::optional<AdtsFrame> next_aac_;
  std::optional<std::vector<uint8_t>> next_pcm_;
  std::vector<std::vector<uint8_t>> gop_;  // since the last IDR, for the truncation check
  bool truncated_video_ = false;
  std::string truncation_;
};

}  // namespace

int run_record(const RecordOptions &opt) {
  library_log().echo = opt.verbose;
  std::signal(SIGXFSZ, SIG_IGN);  // a file size limit shows as a write error, like a full card
  std::signal(SIGINT, on_stop_signal);
  std::signal(SIGTERM, on_stop_signal);
  RecordRun run(opt);
  try {
    run.open_inputs();
    run.open_recorder();
    run.feed();
    run.close();
  } catch (const std::exception &e) {  // bad input, a write failure or anything else
    run.fail(e.what());
  }
  return run.report();
}

void note_library_message(int level, const char *function, const char *text) {
  if (level > 3) return;
  auto &log = library_log();
  std::lock_guard<std::mutex> lock(log.mutex);
  const std::string msg = std::string(function ? function : "?") + ": " + trim(text);
  if (log.seen[msg]++ == 0) {
    log.errors.push_back(msg);
    if (log.echo) std::fprintf(stderr, "mp4rec: library: %s\n", msg.c_str());
  }
}

}  // namespace mp4tool
