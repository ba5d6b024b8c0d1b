// mp4rec through its public road: base, session, a pre-opened file with the
// index reserved in front, open, one mp4_write_video per NAL unit and one
// mp4_write_audio per ADTS frame, close. The head is written by the pre-open
// thread before the timed part, as a camera has it written ahead of time; its
// cost is reported on its own.
//
// For the slow-card runs the prepared file's stream is replaced, before the
// open binds it to the data buffer, by a paced stream over the same file: the
// writer thread and the index update then write through it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <stdexcept>
#include <string>

#include "backend.h"
#include "buffer/card.h"
#include "buffer/data_buffer.h"
#include "common/internal.h"
#include "measure.h"
#include "mp4/handle.h"

namespace bench {
namespace {

constexpr int kVideoH264 = 2;
constexpr int kVideoH265 = 3;
constexpr int kAudioAac = 3;

// What one sync costs on the slow card (set per recording; one per process).
int64_t g_sync_ns = 0;
int sync_slow_card(FILE *file) {
  return paced_sync(file, g_sync_ns);
}

class Mp4recBackend final : public Backend {
 public:
  explicit Mp4recBackend(const Options &opt) : opt_(opt) {}
  ~Mp4recBackend() override { teardown(); }

  void setup(const Options &, Input &in) override {
    base_ = mp4_base_new();
    if (!base_) throw std::runtime_error("mp4_base_new failed");
    const std::string mp2 = opt_.out_path + ".mp2";
    session_ = mp4_session_new(0, opt_.out_path.c_str(), mp2.c_str());
    if (!session_) throw std::runtime_error("mp4_session_new failed");
    mp4_stream_info *info = session_->stream_info;
    info->record_duration = uint32_t(opt_.record_duration);
    info->video_frame_rate = in.fps;
    info->audio_sample_rate = in.sample_rate;
    info->video_prealloc = opt_.prealloc ? 1 : 0;
    info->audio_prealloc = opt_.prealloc ? 1 : 0;
    if (opt_.durability >= 0 && mp4_set_durability(session_, opt_.durability, 0) != 0)
      throw std::runtime_error("mp4_set_durability failed");

    const int64_t cpu0 = process_cpu_ns();
    const int64_t t0 = mono_ns();
    if (mp4_write_open_first(base_, session_, in.width, in.height,
                             in.hevc ? kVideoH265 : kVideoH264, kAudioAac) != 0)
      throw std::runtime_error("mp4_write_open_first failed");
    if (opt_.throttle_bytes_per_s > 0) {
      pace_prepared_file();
      g_sync_ns = int64_t(opt_.sync_ms * 1e6);
      mp4rec::card::set_hooks({nullptr, &sync_slow_card});
    }
    char path[256], mp2_path[256];
    int r;
    while ((r = mp4_write_open(base_, path, mp2_path, &handler_)) == 1)
      sleep_until_ns(mono_ns() + 1000000);
    if (r != 0 || !handler_) throw std::runtime_error("mp4_write_open failed");
    head_cpu_ = process_cpu_ns() - cpu0;
    // From the request to the open file: the head, and the hand-over of the file.
    head_wall_ = mono_ns() - t0;
  }

  void open() override {}

  int video(Input &in, const Unit &u) override {
    for (uint32_t k = u.nal_first; k < u.nal_first + u.nal_count; ++k) {
      const auto nal = in.nals[k];
      const int rc = mp4_write_video(nal.data(), int(nal.size()), int(u.ts), handler_);
      if (rc < 0) return rc;
    }
    return 0;
  }

  int audio(Input &in, const Unit &u) override {
    return mp4_write_audio(in.adts_frame(u), int(u.adts_len), int(u.ts), handler_);
  }

  void close() override {
    const int rc = mp4_write_close(handler_);
    if (rc != 0) throw std::runtime_error("mp4_write_close returned " + std::to_string(rc));
    handler_ = nullptr;
    syncs_ = session_->data_buffer->durability.syncs;
  }

  // Freeing a session deletes the files at its paths: the recording is moved
  // aside first and put back afterwards.
  void teardown() override {
    if (opt_.throttle_bytes_per_s > 0) mp4rec::card::set_hooks({});
    if (!base_) return;
    const std::string aside = opt_.out_path + ".aside";
    const bool moved = std::rename(opt_.out_path.c_str(), aside.c_str()) == 0;
    if (mp4_session *s = mp4_session_pop(base_)) mp4_session_free(s);
    mp4_base_free(base_);
    base_ = nullptr;
    if (moved) std::rename(aside.c_str(), opt_.out_path.c_str());
  }

  int64_t setup_cpu_ns() const override { return head_cpu_; }
  int64_t setup_wall_ns() const override { return head_wall_; }
  int64_t syncs() const override { return syncs_; }

 private:
  // Puts a paced stream over the prepared file in place of the stream the head
  // writer opened, at the same position.
  void pace_prepared_file() {
    pthread_mutex_lock(&mutex_mp4_open);
    mp4_handler *ready = g_mp4_handler;
    pthread_mutex_unlock(&mutex_mp4_open);
    if (!ready || !ready->mp4_handle) throw std::runtime_error("no prepared file");
    auto *h = static_cast<mp4_handle *>(ready->mp4_handle);
    if (std::fflush(h->file) != 0) throw std::runtime_error("flush failed");
    const int fd = dup(fileno(h->file));
    if (fd < 0) throw std::runtime_error("dup failed");
    struct stat st {};
    fstat(fd, &st);
    std::fclose(h->file);  // the duplicate keeps the file and its offset
    h->file = paced_stream(fd, opt_.throttle_bytes_per_s, size_t(st.st_blksize));
    if (!h->file) throw std::runtime_error("paced stream failed");
  }

  Options opt_;
  mp4_base *base_ = nullptr;
  mp4_session *session_ = nullptr;
  mp4_handler *handler_ = nullptr;
  int64_t head_cpu_ = 0, head_wall_ = 0;
  int64_t syncs_ = 0;
};

const RegisterBackend mp4rec_backend({"mp4rec", "mp4rec, index reserved in front, public road",
                                      [](const Options &o) {
                                        return std::make_unique<Mp4recBackend>(o);
                                      }});
// The two durability modes, set explicitly (mp4rec above runs the default).
const RegisterBackend mp4rec_mode0({"mp4rec-m0", "mp4rec, durability mode 0 (index at once)",
                                    [](const Options &o) {
                                      Options m = o;
                                      m.durability = 0;
                                      return std::make_unique<Mp4recBackend>(m);
                                    }});
const RegisterBackend mp4rec_mode1({"mp4rec-m1", "mp4rec, durability mode 1 (ordered commits, 1 s)",
                                    [](const Options &o) {
                                      Options m = o;
                                      m.durability = 1;
                                      return std::make_unique<Mp4recBackend>(m);
                                    }});

}  // namespace
}  // namespace bench
