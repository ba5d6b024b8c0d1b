// The pre-open thread: it creates the next file and writes its head ahead of
// time, then parks the handler in the process-wide slot for mp4_write_open.
#include "session/pre_open.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>

#include "buffer/stall.h"
#include "common/internal.h"
#include "mp4/alt/mjpeg.h"
#include "mp4/head.h"
#include "session/front_end.h"

namespace {

// A request is flagged as well as signalled, so that a spurious wake-up of the
// thread never makes a file by itself, and a request posted while the thread
// is busy for longer than the bound is seen without the signal.
std::atomic<bool> g_request_pending{false};
// Set by mp4_base_free: the thread ends at its next look, even when the
// base could not take the block's mutex to signal it.
std::atomic<bool> g_stop{false};
// Whether the thread has ended. The thread raises g_thread_progress when it
// is ready, when it parks a file and when it ends: whoever waits for one of
// these looks again then.
std::atomic<bool> g_thread_ended{true};
// Never destroyed: a thread left behind in a card write may still raise it
// while the process ends.
mp4rec::Progress &g_thread_progress = *new mp4rec::Progress;
// The session whose file stands in the slot (guarded by mutex_mp4_open).
const mp4_session *g_parked_for = nullptr;

// The thread's own name in its log lines.
constexpr const char *kThreadName = "mp4_write_pre_open_thread";

// mp4_write_open_first looks at the slot 22 times, waiting up to 1 s in
// between (less when a file is parked meanwhile).
constexpr int kOpenFirstLastLook = 20;
constexpr int64_t kOpenFirstLookMs = 1000;

// A request's path words point at a session's 256-byte path fields.
constexpr size_t kPathSize = sizeof(mp4_session::mp4_path);

// The request as the thread takes it after a wake-up: the newest words win.
// Paths and stream info are copied while mutex_mp4_open is held, so the file is
// made from the copies even if the session is freed meanwhile.
struct Request {
  mp4_session *session = nullptr;
  std::array<char, kPathSize> mp4_path_copy{};
  std::array<char, kPathSize> mp2_tmp_path_copy{};
  mp4_stream_info info_copy{};
  const char *mp4_path = nullptr;      // mp4_path_copy, or null when the word was null
  const char *mp2_tmp_path = nullptr;  // mp2_tmp_path_copy, or null
  mp4_stream_info *info = nullptr;     // &info_copy, or null without a session
  uint32_t taken_duration = 0;         // record_duration as it stood when taken
  int32_t width = 0;
  int32_t height = 0;
  int32_t video_format = 0;
  int32_t audio_format = 0;

  Request() = default;
  Request(const Request &) = delete;
  Request &operator=(const Request &) = delete;
};

// The generation in flight (guarded by mutex_mp4_open): the session it serves
// and whether that session was freed while its file was being made.
mp4_session *g_serving = nullptr;
bool g_serving_cancelled = false;
// Set when the session of the posted request is freed before the thread took
// it (guarded by mutex_mp4_open); a new request clears it.
bool g_request_withdrawn = false;

const char *copy_path(std::array<char, kPathSize> &field, const char *path) {
  if (path == nullptr) return nullptr;
  const size_t len = strnlen(path, kPathSize - 1);
  std::memcpy(field.data(), path, len);
  field[len] = '\0';
  return field.data();
}

// Copies the posted request; false when it was withdrawn by a session free.
bool take_request(Request &req) {
  pthread_mutex_lock(&mutex_mp4_open);
  if (g_request_withdrawn) {
    pthread_mutex_unlock(&mutex_mp4_open);
    return false;
  }
  req.session = g_mp4_session;
  req.mp4_path = copy_path(req.mp4_path_copy, g_mp4_open.mp4_path);
  req.mp2_tmp_path = copy_path(req.mp2_tmp_path_copy, g_mp4_open.mp2_tmp_path);
  if (req.session != nullptr && req.session->stream_info != nullptr) {
    req.info_copy = *req.session->stream_info;
    req.info = &req.info_copy;
    req.taken_duration = req.info_copy.record_duration;
  }
  req.width = g_mp4_open.width;
  req.height = g_mp4_open.height;
  req.video_format = g_mp4_open.video_format;
  req.audio_format = g_mp4_open.audio_format;
  g_serving = req.session;
  g_serving_cancelled = false;
  pthread_mutex_unlock(&mutex_mp4_open);
  return true;
}

struct FreeHandler {
  void operator()(mp4_handler *h) const { std::free(h); }
};
using HandlerPtr = std::unique_ptr<mp4_handler, FreeHandler>;

using mp4rec::release_context;

// Waits on the block's condition variable for at most a second: flags set by
// a caller that could not take the mutex in time are seen without a signal.
void wait_a_second() {
  timespec at{};
  clock_gettime(CLOCK_REALTIME, &at);
  at.tv_sec += 1;
  pthread_cond_timedwait(&g_mp4_open.cond, &g_mp4_open.mutex, &at);
}

// Ends the thread: lets go of the block's mutex and says so.
void *end_thread() {
  pthread_mutex_unlock(&g_mp4_open.mutex);
  g_thread_ended.store(true, std::memory_order_release);
  g_thread_progress.bump();
  return nullptr;
}

// Makes the file of one request; null when the request cannot be served.
HandlerPtr generate(const Request &req, HandlerPtr handler) {
  switch (static_cast<uint32_t>(req.video_format)) {
    case mp4rec::kVideoH264:
    case mp4rec::kVideoH265: {
      const bool hevc = req.video_format == static_cast<int32_t>(mp4rec::kVideoH265);
      handler->video_format = static_cast<uint32_t>(req.video_format);
      handler->mp4_handle = (hevc ? mp4rec::mp4_write_head_h265_index : mp4_write_head_h264_index)(
          req.mp4_path, req.mp2_tmp_path, req.width, req.height, req.audio_format, req.info);
      if (handler->mp4_handle == nullptr) {
        MP4_LOG_AS(kThreadName, mp4rec::kLogError, mp4rec::kModRecorder,
                   hevc ? "mp4 open : write head of h265 error\n"
                        : "mp4 open : write head of h264 error\n");
        return nullptr;
      }
      return handler;
    }
    case mp4rec::kVideoJpeg:
      handler->video_format = mp4rec::kVideoJpeg;
      handler->mp4_handle =
          mp4_write_head_jpeg(req.mp4_path, req.mp2_tmp_path, req.width, req.height,
                              static_cast<unsigned int>(req.audio_format));
      if (handler->mp4_handle == nullptr) {
        MP4_LOG_AS(kThreadName, mp4rec::kLogError, mp4rec::kModRecorder,
                   "mp4 open : write head of jpeg error\n");
        return nullptr;
      }
      return handler;
    default:
      MP4_LOG_AS(kThreadName, mp4rec::kLogError, mp4rec::kModRecorder,
                 "mp4 open : video format error\n");
      return nullptr;
  }
}

}  // namespace

namespace mp4rec {
void pre_open_reset_request() {
  g_request_pending.store(false);
  g_stop.store(false);
  g_thread_ended.store(false);
  pthread_mutex_lock(&mutex_mp4_open);
  g_request_withdrawn = false;
  g_serving = nullptr;
  g_serving_cancelled = false;
  pthread_mutex_unlock(&mutex_mp4_open);
}

void pre_open_forget_session(const mp4_session *session) {
  HandlerPtr parked;
  pthread_mutex_lock(&mutex_mp4_open);
  if (g_mp4_session == session) {
    g_mp4_session = nullptr;
    g_mp4_open.mp4_path = nullptr;
    g_mp4_open.mp2_tmp_path = nullptr;
    g_request_withdrawn = true;
  }
  if (g_serving == session) {
    g_serving = nullptr;
    g_serving_cancelled = true;
  }
  // A file parked for this session goes with it (the session deletes its
  // files); it can never be handed to the next session.
  if (g_mp4_handler != nullptr && g_parked_for == session) {
    parked.reset(g_mp4_handler);
    g_mp4_handler = nullptr;
    g_parked_for = nullptr;
  }
  pthread_mutex_unlock(&mutex_mp4_open);
  if (parked != nullptr) release_context(*parked);
}

void pre_open_release_parked() {
  pthread_mutex_lock(&mutex_mp4_open);
  HandlerPtr parked(g_mp4_handler);
  g_mp4_handler = nullptr;
  g_parked_for = nullptr;
  pthread_mutex_unlock(&mutex_mp4_open);
  if (parked != nullptr) release_context(*parked);
}

bool pre_open_stop_thread() {
  // The thread holds the block's mutex for as long as it makes a file; a head
  // write that never returns must not hold the base's end.
  const int64_t deadline = monotonic_ms() + stall_bound_ms();
  g_stop.store(true);
  if (lock_until(g_mp4_open.mutex, deadline)) {
    g_pre_open_thread_status = 0;
    pthread_cond_signal(&g_mp4_open.cond);
    pthread_mutex_unlock(&g_mp4_open.mutex);
  }
  for (;;) {
    const uint64_t seen = g_thread_progress.seen();
    if (g_thread_ended.load(std::memory_order_acquire)) break;
    if (!g_thread_progress.wait(seen, deadline) &&
        !g_thread_ended.load(std::memory_order_acquire)) {
      pthread_detach(g_mp4_open.thread);
      abandon(&g_mp4_open, "mp4_base_free",
              "mp4_base_free: a card write of the pre-open thread has not returned, the thread is "
              "left behind\n");
      return false;
    }
  }
  pthread_join(g_mp4_open.thread, nullptr);
  return true;
}

bool pre_open_wait(bool (*done)(), int64_t deadline_ms) {
  for (;;) {
    const uint64_t seen = g_thread_progress.seen();
    if (done()) return true;
    if (monotonic_ms() >= deadline_ms) return false;
    g_thread_progress.wait(seen, deadline_ms);
  }
}

bool pre_open_busy() {
  if (g_request_pending.load()) return true;
  if (pthread_mutex_trylock(&g_mp4_open.mutex) != 0) return true;
  pthread_mutex_unlock(&g_mp4_open.mutex);
  return g_request_pending.load();
}

void pre_open_thread_not_started() {
  g_thread_ended.store(true, std::memory_order_release);
}

bool pre_open_thread_running() {
  return !g_thread_ended.load(std::memory_order_acquire);
}

}  // namespace mp4rec

extern "C" MP4REC_API void *mp4_write_pre_open_thread(void * /*unused*/) {
  // The block's mutex is held at all times except inside the wait, so a try-lock
  // on it tells whether a file is being made right now.
  pthread_mutex_lock(&g_mp4_open.mutex);
  g_mp4_open.ready = 1;
  g_thread_progress.bump();
  for (;;) {
    while (!g_request_pending.load() && g_pre_open_thread_status != 0 && !g_stop.load())
      wait_a_second();
    if (g_pre_open_thread_status == 0 || g_stop.load()) return end_thread();
    g_request_pending.store(false);

    HandlerPtr handler{static_cast<mp4_handler *>(std::malloc(sizeof(mp4_handler)))};
    if (handler == nullptr) {
      // That request is dropped; the thread waits for the next one.
      MP4_ERR("mp4 open : info struct error\n");
      continue;
    }
    Request req;
    if (!take_request(req)) continue;  // its session is gone: nothing to make
    handler = generate(req, std::move(handler));

    pthread_mutex_lock(&mutex_mp4_open);
    const bool cancelled = g_serving_cancelled;
    if (!cancelled) {
      // The head writer turns a planned length of 0 into 600; the session sees it.
      if (req.info != nullptr && req.info_copy.record_duration != req.taken_duration &&
          req.session->stream_info != nullptr)
        req.session->stream_info->record_duration = req.info_copy.record_duration;
      // A handler that was never taken is replaced as it stands.
      if (handler != nullptr) {
        g_mp4_handler = handler.release();
        g_parked_for = req.session;
      }
    }
    g_serving = nullptr;
    g_serving_cancelled = false;
    pthread_mutex_unlock(&mutex_mp4_open);
    g_thread_progress.bump();  // a file is parked (or the request is done with)

    if (cancelled) {
      // The session was freed while its file was made: its owner wants the
      // files gone, so nothing is parked.
      if (handler != nullptr) release_context(*handler);
      handler.reset();
      for (const char *path : {req.mp4_path, req.mp2_tmp_path})
        if (path != nullptr && path[0] != '\0') unlink(path);
    }
  }
}

extern "C" MP4REC_API int mp4_pre_open_start(mp4_session *session, char *mp4_path,
                                             char *mp2_tmp_path, int width, int height,
                                             int video_format, int audio_format) {
  pthread_mutex_lock(&mutex_mp4_open);
  g_mp4_session = session;
  g_request_withdrawn = false;
  g_mp4_open.mp4_path = mp4_path;
  g_mp4_open.mp2_tmp_path = mp2_tmp_path;
  g_mp4_open.width = width;
  g_mp4_open.height = height;
  g_mp4_open.video_format = video_format;
  g_mp4_open.audio_format = audio_format;
  pthread_mutex_unlock(&mutex_mp4_open);

  // The thread holds the block's mutex while it works, so this waits until it
  // waits again. A thread busy for longer than the bound is not waited for: it
  // finds the flag when it comes back (it looks at least once a second), so
  // the request is never lost.
  if (mp4rec::lock_until(g_mp4_open.mutex, mp4rec::monotonic_ms() + mp4rec::stall_bound_ms())) {
    g_request_pending.store(true);
    pthread_cond_signal(&g_mp4_open.cond);
    pthread_mutex_unlock(&g_mp4_open.mutex);
  } else {
    g_request_pending.store(true);
  }
  return 0;
}

extern "C" MP4REC_API mp4_handler *mp4_pre_open_get(void) {
  pthread_mutex_lock(&mutex_mp4_open);
  mp4_handler *handler = g_mp4_handler;
  g_mp4_handler = nullptr;
  g_parked_for = nullptr;
  pthread_mutex_unlock(&mutex_mp4_open);
  return handler;
}

extern "C" MP4REC_API int mp4_pre_open_init(void) {
  // Empties the slot; a handler standing there is not released.
  pthread_mutex_lock(&mutex_mp4_open);
  g_mp4_handler = nullptr;
  g_parked_for = nullptr;
  pthread_mutex_unlock(&mutex_mp4_open);
  return 0;
}

namespace {

// Attaches the session to the base and posts its request to the thread.
void attach_and_request(mp4_base *base, mp4_session *session, int width, int height,
                        int video_format, int audio_format) {
  base->mp4_session = session;
  mp4_pre_open_start(session, session->mp4_path, session->mp2_tmp_path, width, height, video_format,
                     audio_format);
}

}  // namespace

extern "C" MP4REC_API int mp4_write_pre_open(mp4_base *base, mp4_session *session, int width,
                                             int height, int video_format, int audio_format) {
  if (base == nullptr) {
    MP4_ERR("mp4_base NULL\n");
    return -1;
  }
  if (base->mp4_session != nullptr) {
    MP4_ERR("mp4_base->mp4_session not NULL\n");
    return -1;
  }
  if (session == nullptr) {
    MP4_ERR("input mp4_session NULL\n");
    return -1;
  }
  attach_and_request(base, session, width, height, video_format, audio_format);
  return 0;
}

extern "C" MP4REC_API int mp4_write_open_first(mp4_base *base, mp4_session *session, int width,
                                               int height, int video_format, int audio_format) {
  if (base == nullptr) {
    MP4_ERR("mp4_base NULL\n");
    return -1;
  }
  if (session == nullptr) {
    MP4_ERR("input mp4_session NULL\n");
    return -1;
  }
  // Replaces whatever session was attached.
  attach_and_request(base, session, width, height, video_format, audio_format);

  const auto parked = [] {
    pthread_mutex_lock(&mutex_mp4_open);
    const bool ready = g_mp4_handler != nullptr;
    pthread_mutex_unlock(&mutex_mp4_open);
    return ready;
  };
  for (int look = 0;;) {
    if (parked()) return 0;
    MP4_LOG(mp4rec::kLogProgress, mp4rec::kModRecorder, "wait...%d\n", look);
    if (look++ > kOpenFirstLastLook) {
      // The request stays posted and the session attached.
      MP4_ERR("mp4_write_open_first time out\n");
      return -1;
    }
    // The next look comes when the thread has parked a file, or a second on.
    if (mp4rec::pre_open_wait(parked, mp4rec::monotonic_ms() + kOpenFirstLookMs)) {
      // Returned once the thread waits again, as after a whole second: an
      // mp4_write_open right behind finds it idle and takes the file.
      if (mp4rec::lock_until(g_mp4_open.mutex, mp4rec::monotonic_ms() + mp4rec::stall_bound_ms()))
        pthread_mutex_unlock(&g_mp4_open.mutex);
      return 0;
    }
  }
}
