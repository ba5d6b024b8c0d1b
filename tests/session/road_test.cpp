// The whole public road, as a camera's recorder drives it: base, session,
// pre-open, open, frames, close, and the files checked by ffprobe, ffmpeg and
// GStreamer.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "mp4/handle.h"
#include "session/session_support.h"
#include "support/box_reader.h"
#include "support/log_capture.h"
#include "support/media.h"
#include "support/side_file.h"

namespace {

using namespace sessiontest;
using testsupport::LogCapture;
using testsupport::TempDir;

// Where a stream ends as a player sees it: the latest packet end, in seconds.
double stream_end(const std::string &path, const std::string &kind) {
  const auto r = testsupport::run_command(
      "ffprobe -v error -select_streams " + kind +
      ":0 -show_entries packet=pts_time,duration_time -of csv=p=0 '" + path + "'");
  double end = -1;
  std::istringstream lines(r.output);
  for (std::string line; std::getline(lines, line);) {
    const auto comma = line.find(',');
    if (comma == std::string::npos) continue;
    end = std::max(end, std::stod(line.substr(0, comma)) + std::stod(line.substr(comma + 1)));
  }
  return end;
}

// Feeds video through the splitter and audio frame by frame, in time-stamp
// order; `before_video(i)` runs ahead of each access unit and may switch files,
// or end the feed by returning false.
template <typename BeforeVideo>
void feed(const AvMedia &m, mp4_handler *&handler, BeforeVideo before_video) {
  size_t i = 0, j = 0;
  while (i < m.units.size() || j < m.aac.size()) {
    if (j >= m.aac.size() || (i < m.units.size() && m.video_ts(i) <= AvMedia::audio_ts(j))) {
      if constexpr (std::is_same_v<std::invoke_result_t<BeforeVideo, size_t>, bool>) {
        if (!before_video(i)) return;
      } else {
        before_video(i);
      }
      Bytes au = m.units[i];
      if (m.per_nal) {
        for (auto &n : testsupport::split_annexb(au))
          ASSERT_EQ(mp4_write_video(n.bytes.data(), static_cast<int>(n.bytes.size()), m.video_ts(i),
                                    handler),
                    0)
              << "access unit " << i;
      } else {
        ASSERT_EQ(mp4_write_splite_sps_pps_i(au.data(), static_cast<int>(au.size()), m.video_ts(i),
                                             handler),
                  0)
            << "access unit " << i;
      }
      ++i;
    } else {
      Bytes frame = m.aac[j];
      ASSERT_EQ(mp4_write_audio(frame.data(), static_cast<int>(frame.size()), AvMedia::audio_ts(j),
                                handler),
                0)
          << "audio frame " << j;
      ++j;
    }
  }
}

// The stream info and picture size of a recording.
struct Shape {
  uint32_t seconds = 60;  // planned length
  int fps = 25;
  int width = 320, height = 240;
  int prealloc = 0;  // both tracks' tables reserved as holes
  int audio_time_stamps = 0;
  bool hevc = false;  // H.265 (video format 3) instead of H.264
  int slices = 1;     // H.265 slice segments per picture
};

// A base with one pre-opened H.264 or H.265 (AAC) session, opened.
struct H264Recording {
  mp4_base *base = nullptr;
  mp4_session *session = nullptr;
  Opened opened;
  H264Recording(const TempDir &dir, const std::string &name, const Shape &shape,
                bool register_first = false, void (*cb)(void *) = nullptr, void *arg = nullptr) {
    base = mp4_base_new();
    if (base == nullptr) return;
    session =
        new_session(dir.file(name + ".mp4"), dir.file(name + ".mp2"), shape.fps, shape.seconds);
    if (session == nullptr) return;
    session->stream_info->video_prealloc = session->stream_info->audio_prealloc = shape.prealloc;
    session->stream_info->audio_timestamp_mode = shape.audio_time_stamps;
    if (mp4_write_pre_open(base, session, shape.width, shape.height, shape.hevc ? 3 : 2, 3) != 0)
      return;
    if (register_first) mp4_write_register(base, cb, arg);
    opened = open_when_ready(base);
  }
  mp4_handle *handle() const { return static_cast<mp4_handle *>(opened.handler->mp4_handle); }
  // Takes the session back, keeps the file under `keep` (if given) and ends all.
  void finish(const std::string &keep = "") {
    EXPECT_EQ(mp4_session_pop(base), session);
    if (!keep.empty()) {
      EXPECT_EQ(std::rename(opened.mp4_path.c_str(), keep.c_str()), 0);
    }
    EXPECT_EQ(mp4_session_free(session), 0);
    EXPECT_EQ(mp4_base_free(base), 0);
  }
};

void count_call(void *arg) {
  static_cast<std::atomic<int> *>(arg)->fetch_add(1);
}

TEST(Road, ACallbackRegisteredBeforeOpenIsCleared) {
  const AvMedia m = load_av(640, 480, 25, 4.0, 25);
  TempDir dir;
  std::atomic<int> batches{0};
  H264Recording rec(dir, "rec", {}, true, count_call, &batches);
  ASSERT_EQ(rec.opened.rc, 0);
  feed(m, rec.opened.handler, [](size_t) {});
  EXPECT_EQ(mp4_write_close(rec.opened.handler), 0);
  EXPECT_EQ(batches.load(), 0);
  rec.finish();
  EXPECT_FALSE(exists(dir.file("rec.mp4")));
}

TEST(Road, FiveFilesInARowLoseNoFrame) {
  const AvMedia m = load_av(320, 240, 25, 10.0, 25);
  ASSERT_EQ(m.units.size(), 250u);
  constexpr size_t kFiles = 5, kUnitsPerFile = 50;
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);

  auto path = [&](size_t n, const char *ext) { return dir.file("seg" + std::to_string(n) + ext); };
  // Posts the pre-open of file n; the session stays attached until the switch.
  auto pre_open = [&](size_t n) {
    mp4_session *s = new_session(path(n, ".mp4"), path(n, ".mp2"), 25, 60);
    ASSERT_NE(s, nullptr);
    ASSERT_EQ(mp4_write_pre_open(base, s, 320, 240, 2, 3), 0);
  };
  pre_open(0);
  Opened current = open_when_ready(base);
  ASSERT_EQ(current.rc, 0) << log.dump();
  mp4_session *recording = mp4_session_pop(base);
  pre_open(1);

  std::vector<std::string> kept;
  size_t file = 0;
  auto switch_file = [&] {
    ASSERT_EQ(mp4_write_close(current.handler), 0);
    kept.push_back(dir.file("kept" + std::to_string(file) + ".mp4"));
    ASSERT_EQ(std::rename(current.mp4_path.c_str(), kept.back().c_str()), 0);
    current = open_when_ready(base);  // takes the file prepared meanwhile
    ASSERT_EQ(current.rc, 0) << log.dump();
    ASSERT_EQ(mp4_session_free(recording), 0);
    recording = mp4_session_pop(base);
    ++file;
    if (file + 1 < kFiles) pre_open(file + 1);
  };
  feed(m, current.handler, [&](size_t i) {
    if (i > 0 && i % kUnitsPerFile == 0) {
      ASSERT_TRUE(m.idr[i]);
      switch_file();
    }
  });
  ASSERT_EQ(file, kFiles - 1);
  ASSERT_EQ(mp4_write_close(current.handler), 0);
  kept.push_back(dir.file("kept" + std::to_string(file) + ".mp4"));
  ASSERT_EQ(std::rename(current.mp4_path.c_str(), kept.back().c_str()), 0);
  mp4_session_free(recording);
  EXPECT_EQ(base->mp4_session, nullptr);
  mp4_base_free(base);

  long frames = 0, audio = 0;
  for (const auto &k : kept) {
    SCOPED_TRACE(k);
    const long v = testsupport::ffprobe_frames(k, "v");
    EXPECT_EQ(v, static_cast<long>(kUnitsPerFile));
    frames += v;
    audio += testsupport::ffprobe_packets(k, "a");
    EXPECT_EQ(testsupport::ffmpeg_decode_errors(k), "");
  }
  EXPECT_EQ(frames, static_cast<long>(m.units.size()));
  EXPECT_EQ(audio, static_cast<long>(m.aac.size()));
}

TEST(ResultCodes, AFullIndexAnswersMinusFiveAndKeepsWhatItHas) {
  // One second planned: room for (1 + 0 + 1) s of 30 frames and 15 AAC frames per second.
  const AvMedia m = load_av(160, 120, 30, 3.0, 30);
  ASSERT_EQ(m.units.size(), 90u);
  TempDir dir;
  LogCapture log;
  H264Recording rec(dir, "short", {.seconds = 1, .fps = 30});
  ASSERT_EQ(rec.opened.rc, 0) << log.dump();
  mp4_handler *h = rec.opened.handler;
  for (size_t i = 0; i < m.units.size(); ++i) {
    Bytes au = m.units[i];
    const int rc =
        mp4_write_splite_sps_pps_i(au.data(), static_cast<int>(au.size()), m.video_ts(i), h);
    ASSERT_EQ(rc, i < 60 ? 0 : -5) << "access unit " << i;
  }
  for (size_t j = 0; j < 31; ++j) {
    Bytes frame = m.aac[j];
    ASSERT_EQ(
        mp4_write_audio(frame.data(), static_cast<int>(frame.size()), AvMedia::audio_ts(j), h),
        j < 30 ? 0 : -5);
  }
  EXPECT_EQ(log.find("mp4 write video : out of frame number\n").level, 6);
  EXPECT_EQ(log.find("mp4 write audio : out of frame number\n").level, 6);
  for (const auto &e : log.entries()) {
    if (e.function == "mp4_write_video" || e.function == "mp4_write_audio") {
      EXPECT_NE(e.level, 3) << e.text;
    }
  }
  EXPECT_EQ(mp4_write_close(h), 0);
  const std::string kept = dir.file("kept.mp4");
  rec.finish(kept);
  EXPECT_EQ(testsupport::ffprobe_frames(kept, "v"), 60);
  EXPECT_EQ(testsupport::ffprobe_packets(kept, "a"), 30);
  EXPECT_EQ(testsupport::ffmpeg_decode_errors(kept), "");
}

TEST(ResultCodes, BusyIsLoggedAsIoErrorAndShortAudioIsRefused) {
  TempDir dir;
  LogCapture log;
  H264Recording rec(dir, "busy", {});
  ASSERT_EQ(rec.opened.rc, 0) << log.dump();
  mp4_handler *h = rec.opened.handler;

  EXPECT_EQ(mp4_write_video(nullptr, 0, 0, nullptr), -1);
  EXPECT_TRUE(log.has("mp4 write video : param error\n", 3, 37));
  EXPECT_EQ(mp4_write_audio(nullptr, 0, 0, nullptr), -1);
  EXPECT_TRUE(log.has("mp4 write audio : param error\n", 3, 37));
  EXPECT_EQ(mp4_write_close(nullptr), -1);
  EXPECT_EQ(mp4_write_close_without_end(nullptr), -1);
  EXPECT_EQ(log.count("MP4 encoder handler is NULL\n"), 2);
  EXPECT_EQ(mp4_write_prepare(nullptr, h), -1);
  EXPECT_TRUE(log.has("mp4 prepare : param error\n", 3, 37));

  // An ADTS frame needs a payload behind its 7-byte header.
  Bytes adts = {0xFF, 0xF1, 0x60, 0x40, 0x01, 0x1F, 0xFC, 0x21};
  EXPECT_EQ(mp4_write_audio(adts.data(), 7, 0, h), -1);
  EXPECT_EQ(log.find("mp4 write audio : write one frame error\n").level, 3);
  EXPECT_EQ(mp4_write_audio(adts.data(), 8, 0, h), 0);
  EXPECT_EQ(rec.handle()->audioCount.load(), 1u);
  EXPECT_EQ(rec.handle()->mediaBytes.load(), 1u);

  // After a drain the video queue holds its one head node: the frame that does
  // not fit finds no free node and is refused as busy after the wait.
  ASSERT_EQ(mp4_sync_data_buffer(rec.handle()), 0);
  int rc = 0;
  int frames = 0;
  while (rc == 0 && frames < 10) {
    Bytes big = slice(100000);
    rc = mp4_write_video(big.data(), static_cast<int>(big.size()), frames * 40, h);
    ++frames;
  }
  EXPECT_EQ(rc, -4);
  EXPECT_EQ(frames, 3);
  EXPECT_EQ(log.find("mp4 write video : write sdcard io error\n").level, 3);
  EXPECT_FALSE(log.has("mp4 write video : write sdcard busy\n"));

  EXPECT_EQ(mp4_write_close(h), 0);
  rec.finish();
}

TEST(ResultCodes, IoErrorIsLoggedAsBusyAndTheCloseKeepsTheHandler) {
  TempDir dir;
  LogCapture log;
  H264Recording rec(dir, "io", {});
  ASSERT_EQ(rec.opened.rc, 0) << log.dump();
  mp4_handler *h = rec.opened.handler;

  // The card goes away: the file's descriptor no longer takes writes.
  const int ro = open("/dev/null", O_RDONLY);
  ASSERT_GE(ro, 0);
  ASSERT_GE(dup2(ro, fileno(rec.handle()->file)), 0);
  close(ro);

  // Three big frames hand the first node to the writer, whose write fails; the
  // small frames after them stay in the second node until the failure shows.
  for (int i = 0; i < 3; ++i) {
    Bytes big = slice(100000);
    ASSERT_EQ(mp4_write_video(big.data(), static_cast<int>(big.size()), i * 40, h), 0);
  }
  int rc = 0;
  for (int i = 3; i < 500 && rc == 0; ++i) {
    Bytes small = slice(100);
    rc = mp4_write_video(small.data(), static_cast<int>(small.size()), i * 40, h);
    if (rc == 0) std::this_thread::sleep_for(10ms);
  }
  EXPECT_EQ(rc, -2);
  EXPECT_EQ(log.find("mp4 write video : write sdcard busy\n").level, 3);
  EXPECT_FALSE(log.has("mp4 write video : write sdcard io error\n"));
  Bytes adts = {0xFF, 0xF1, 0x60, 0x40, 0x01, 0x1F, 0xFC, 0x21, 0x22};
  EXPECT_EQ(mp4_write_audio(adts.data(), static_cast<int>(adts.size()), 0, h), -2);
  EXPECT_TRUE(log.has("mp4 write audio : write sdcard busy\n", 3, 37));

  // The close cannot drain: the handler and its file stay.
  EXPECT_EQ(mp4_write_close(h), -1);
  EXPECT_TRUE(log.has("mp4_sync_data_buffer IO error happened!\n", 3, 37));
  EXPECT_FALSE(log.has("close with index in the front\n"));
  EXPECT_NE(h->mp4_handle, nullptr);

  // Abandoned instead: the record survives without its context.
  EXPECT_EQ(mp4_write_close_without_end(h), 0);
  EXPECT_EQ(h->mp4_handle, nullptr);
  EXPECT_EQ(h->video_format, 2u);
  EXPECT_TRUE(exists(rec.opened.mp4_path));
  EXPECT_EQ(mp4_write_close_without_end(h), -1);
  Bytes one = slice(100);
  EXPECT_EQ(mp4_write_video(one.data(), 100, 0, h), -1);
  std::free(h);
  rec.finish();
}

TEST(ResultCodes, AnAbandonedMjpegFileStaysAsWritten) {
  const auto pictures =
      testsupport::split_jpeg(testsupport::read_file(testsupport::mjpeg_stream(320, 240, 25, 1.0)));
  TempDir dir;
  LogCapture log;
  mp4_base *base = mp4_base_new();
  ASSERT_NE(base, nullptr);
  mp4_session *s = new_session(dir.file("cam.mp4"), dir.file("cam.mp2"));
  ASSERT_NE(s, nullptr);
  ASSERT_EQ(mp4_write_pre_open(base, s, 320, 240, 1, 2), 0);
  const Opened o = open_when_ready(base);
  ASSERT_EQ(o.rc, 0) << log.dump();
  size_t bytes = 0;
  for (size_t i = 0; i < 3; ++i) {
    Bytes pic = pictures[i];
    ASSERT_EQ(mp4_write_video(pic.data(), static_cast<int>(pic.size()), static_cast<int>(i * 40),
                              o.handler),
              0);
    bytes += pic.size();
  }
  EXPECT_EQ(mp4_write_close_without_end(o.handler), 0);
  EXPECT_EQ(o.handler->mp4_handle, nullptr);
  // Frame calls on the abandoned handler are refused, not crashed.
  Bytes pic = pictures[3];
  EXPECT_EQ(mp4_write_video(pic.data(), static_cast<int>(pic.size()), 200, o.handler), -1);
  EXPECT_TRUE(log.has("mp4 write video : write one frame error\n", 3, 37));
  Bytes block(2304, 0);
  EXPECT_EQ(mp4_write_audio(block.data(), 2304, 0, o.handler), -1);
  std::free(o.handler);

  struct stat st {};
  ASSERT_EQ(stat(o.mp4_path.c_str(), &st), 0);
  EXPECT_EQ(static_cast<size_t>(st.st_size), 48 + bytes);
  EXPECT_EQ(mp4_session_pop(base), s);
  mp4_session_free(s);
  mp4_base_free(base);
}

// ---- every kind of file, read and decoded by players nobody here wrote ------

// A file made for the players, and the samples that went into it.
struct Made {
  std::string path;
  long pictures = 0;
  long audio_frames = 0;
};

// The record-time callback of the H.264 recordings: counts the batches and
// notes when the writer thread has entered the first batch of both tracks.
struct Batches {
  mp4_handle *handle = nullptr;
  std::atomic<int> count{0};
  std::atomic<bool> both_tracks{false};
};
void on_batch(void *arg) {
  auto *b = static_cast<Batches *>(arg);
  b->count.fetch_add(1);
  const updatePos *pos = b->handle->updatePos;
  if (pos->videoPos[kVChunkCounter] != 0 && pos->audioPos[kAChunkCounter] != 0)
    b->both_tracks = true;
}

// `seconds` of H.264 (or H.265) and AAC through the splitter, closed normally;
// or a copy of the file as a card pulled in the middle of ten seconds keeps it,
// after both tracks' first batch (the first 16 KiB audio node fills after
// about four). The copy is taken once the buffer is drained (the tables count
// the frames that still wait in it, which a cut file does not hold), and the
// recording is closed there.
Made record_main_road(const TempDir &dir, const Shape &shape, bool cut = false,
                      double seconds = 4.0) {
  if (cut) seconds = 10.0;
  const AvMedia m =
      load_av(shape.width, shape.height, shape.fps, seconds, shape.fps, shape.hevc, shape.slices);
  LogCapture log;
  H264Recording rec(dir, "rec", shape);
  EXPECT_EQ(rec.opened.rc, 0) << log.dump();
  if (rec.opened.rc != 0) return {};
  EXPECT_EQ(rec.opened.mp4_path, dir.file("rec.mp4"));
  EXPECT_EQ(rec.opened.mp2_tmp_path, dir.file("rec.mp2"));
  Batches batches;
  batches.handle = rec.handle();
  EXPECT_EQ(mp4_write_register(rec.base, on_batch, &batches), 0);
  // The callback looks at the index right behind each batch: mode 0 enters it
  // there (mode 1 at its next commit).
  if (cut) {
    EXPECT_EQ(mp4_set_durability(rec.session, 0, 0), 0);
  }

  Made copy;
  feed(m, rec.opened.handler, [&](size_t) {
    if (!cut || !batches.both_tracks) return true;
    EXPECT_EQ(mp4_sync_data_buffer(rec.handle()), 0);
    copy.path = dir.file("cut.mp4");
    std::filesystem::copy_file(rec.opened.mp4_path, copy.path);
    const uint32_t *a = rec.handle()->updatePos->audioPos;
    copy.pictures = rec.handle()->videoSampleNumber;
    copy.audio_frames = (a[kAStszNext] - a[kAStszCount] - 4) / 4;
    return false;
  });
  EXPECT_EQ(mp4_write_close(rec.opened.handler), 0);
  EXPECT_TRUE(log.has("close with index in the front\n", 7, 37));
  // Every full node reached the card from the writer thread: over 1 MB of video
  // in 256 KiB nodes; a cut copy is taken once both tracks have a batch, which
  // may be as early as the first audio node.
  EXPECT_GE(batches.count.load(), cut ? 2 : 4);
  const std::string kept = dir.file("kept.mp4");
  rec.finish(kept);
  EXPECT_FALSE(exists(dir.file("rec.mp2")));
  if (cut) return copy;
  const double dv = stream_end(kept, "v"), da = stream_end(kept, "a");
  EXPECT_NEAR(dv, da, 0.064) << "video " << dv << " s, audio " << da << " s";
  EXPECT_NEAR(dv, seconds, 0.1);
  return {kept, static_cast<long>(m.units.size()), static_cast<long>(m.aac.size())};
}

// Three seconds of JPEG pictures and 16-bit PCM through the public road.
Made record_mjpeg(const TempDir &dir) {
  const auto pictures =
      testsupport::split_jpeg(testsupport::read_file(testsupport::mjpeg_stream(320, 240, 25, 3.0)));
  const Bytes pcm = testsupport::read_file(testsupport::pcm16_stream(16000, 3.0));
  constexpr size_t kBlock = 2304;  // 1152 16-bit samples: one MP2 frame
  const size_t blocks = pcm.size() / kBlock;
  EXPECT_GE(pictures.size(), 70u);
  EXPECT_GE(blocks, 40u);
  LogCapture log;
  mp4_base *base = mp4_base_new();
  mp4_session *s = new_session(dir.file("cam.mp4"), dir.file("cam.mp2"));
  EXPECT_EQ(mp4_write_pre_open(base, s, 320, 240, 1, 2), 0);
  const Opened o = open_when_ready(base);
  EXPECT_EQ(o.rc, 0) << log.dump();
  if (o.rc != 0) return {};
  EXPECT_EQ(o.handler->video_format, 1u);
  size_t i = 0, j = 0;
  while (i < pictures.size() || j < blocks) {
    if (j >= blocks || (i < pictures.size() && i * 40 <= j * 72)) {
      Bytes pic = pictures[i];
      EXPECT_EQ(mp4_write_video(pic.data(), static_cast<int>(pic.size()), static_cast<int>(i * 40),
                                o.handler),
                0);
      ++i;
    } else {
      Bytes block(pcm.begin() + static_cast<long>(j * kBlock),
                  pcm.begin() + static_cast<long>((j + 1) * kBlock));
      EXPECT_EQ(mp4_write_audio(block.data(), static_cast<int>(kBlock), static_cast<int>(j * 72),
                                o.handler),
                0);
      ++j;
    }
  }
  EXPECT_EQ(mp4_write_close(o.handler), 0);
  EXPECT_FALSE(log.has("close with index in the front\n"));
  EXPECT_EQ(mp4_session_pop(base), s);
  const std::string kept = dir.file("kept.mp4");
  EXPECT_EQ(std::rename(o.mp4_path.c_str(), kept.c_str()), 0);
  mp4_session_free(s);
  mp4_base_free(base);
  const double dv = stream_end(kept, "v"), da = stream_end(kept, "a");
  EXPECT_NEAR(dv, da, 0.072) << "video " << dv << " s, audio " << da << " s";
  return {kept, static_cast<long>(pictures.size()), static_cast<long>(blocks)};
}

// Four seconds of H.264 NAL units and ADTS frames through the writer with the
// index at the end (its exported calls; the front end does not use it).
Made record_index_at_end(const TempDir &dir) {
  const auto nals = testsupport::split_annexb(
      testsupport::read_file(testsupport::h264_stream(320, 240, 25, 4, 25)));
  const auto aac =
      testsupport::split_adts(testsupport::read_file(testsupport::aac_stream(16000, 4)));
  const std::string path = dir.file("end.mp4");
  mp4_handle *h = mp4_write_head_h264(path.c_str(), dir.file("end.mp2").c_str(), 320, 240, 3);
  EXPECT_NE(h, nullptr);
  if (h == nullptr) return {};
  Made made{path};
  for (const auto &n : nals) {
    Bytes b = n.bytes;
    EXPECT_EQ(mp4_write_video_node(b.data(), static_cast<int>(b.size()),
                                   static_cast<int>(made.pictures * 40), h),
              0);
    made.pictures += n.type() == 1 || n.type() == 5;
  }
  for (const auto &frame : aac) {
    if (sidefile::cut_elsewhere(frame)) continue;  // the side-file reader would split it
    Bytes b = frame;
    EXPECT_EQ(mp4_write_pcm_h264(b.data(), static_cast<int>(b.size()), h), 0);
    ++made.audio_frames;
  }
  EXPECT_GT(made.audio_frames, 50);
  EXPECT_EQ(mp4_write_end_h264(h), 0);
  return made;
}

// ffprobe, ffmpeg and GStreamer read every kind of file the library writes,
// find both tracks with the durations of their samples, and decode every
// sample the file holds. One process per file: a base is made once per process.
// With MP4REC_PLAYERS_KEEP=DIR each file is kept there as NAME.mp4, for the
// validators that the tests do not run (scripts/validate.sh).
struct PlayerCase {
  const char *name;
  Made (*make)(const TempDir &);
  const char *video;  // ffprobe's codec name and tag of the video track
};
class Players : public ::testing::TestWithParam<PlayerCase> {};

TEST_P(Players, ReadAndDecodeEverySample) {
  TempDir dir;
  const Made made = GetParam().make(dir);
  ASSERT_FALSE(made.path.empty());
  EXPECT_EQ(testsupport::validate(made.path), "");
  EXPECT_EQ(testsupport::ffprobe_stream_field(made.path, "v", "codec_name,codec_tag_string"),
            GetParam().video);
  EXPECT_EQ(testsupport::ffprobe_packets(made.path, "v"), made.pictures);
  EXPECT_EQ(testsupport::ffprobe_packets(made.path, "a"), made.audio_frames);
  if (const char *keep = std::getenv("MP4REC_PLAYERS_KEEP")) {
    std::filesystem::create_directories(keep);
    std::filesystem::copy_file(made.path, std::string(keep) + "/" + GetParam().name + ".mp4",
                               std::filesystem::copy_options::overwrite_existing);
  }
}

constexpr Shape kVga{.width = 640, .height = 480};
constexpr Shape kVgaHevc{.width = 640, .height = 480, .hevc = true};
const PlayerCase kPlayerCases[] = {
    {"MainRoadClosed", [](const TempDir &d) { return record_main_road(d, kVga); }, "h264,avc1"},
    {"MainRoadHolesAndTimeStampedAudio",
     [](const TempDir &d) {
       return record_main_road(
           d, {.fps = 30, .width = 640, .height = 480, .prealloc = 1, .audio_time_stamps = 1});
     },
     "h264,avc1"},
    {"MainRoadCutAfterBothTracksFirstBatch",
     [](const TempDir &d) { return record_main_road(d, kVga, true); }, "h264,avc1"},
    {"H265Closed", [](const TempDir &d) { return record_main_road(d, kVgaHevc, false, 10.0); },
     "hevc,hvc1"},
    {"H265CutAfterBothTracksFirstBatch",
     [](const TempDir &d) { return record_main_road(d, kVgaHevc, true); }, "hevc,hvc1"},
    {"H265ThreeSlicesAPicture",
     [](const TempDir &d) {
       return record_main_road(d, {.width = 640, .height = 480, .hevc = true, .slices = 3}, false,
                               10.0);
     },
     "hevc,hvc1"},
    {"MjpegAndPcm", record_mjpeg, "mjpeg,mp4v"},
    {"IndexAtEnd", record_index_at_end, "h264,avc1"},
};
INSTANTIATE_TEST_SUITE_P(Files, Players, ::testing::ValuesIn(kPlayerCases),
                         [](const auto &p) { return std::string(p.param.name); });

}  // namespace
