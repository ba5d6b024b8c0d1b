// The pre-open thread: it creates the next file and writes its head ahead of
// time, then parks the handler in the process-wide slot for mp4_write_open.
#include "session/pre_open.h"

#include <pthread.h>
#include <unistd.h>

#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "common/internal.h"
#include "mp4/alt/mjpeg.h"

namespace {

// A request is flagged as well as signalled (both under the block's mutex), so
// that a spurious wake-up of the thread never makes a file by itself.
bool g_request_pending = false;

// The thread's own name in its log lines.
constexpr const char *kThreadName = "mp4_write_pre_open_thread";

// mp4_write_open_first looks at the slot 22 times, sleeping 1 s in between.
constexpr int kOpenFirstLastLook = 20;

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

// Releases the writer context of a handler that is not parked.
void release_context(mp4_handler &handler) {
  if (handler.mp4_handle == nullptr) return;
  if (handler.video_format == mp4rec::kVideoJpeg)
    mp4rec::mjpeg_release(static_cast<mp4_mjpeg_ctx *>(handler.mp4_handle));
  else
    free_mp4(handler.mp4_handle);
  handler.mp4_handle = nullptr;
}

// Makes the file of one request; null when the request cannot be served.
HandlerPtr generate(const Request &req, HandlerPtr handler) {
  switch (static_cast<uint32_t>(req.video_format)) {
    case mp4rec::kVideoH264: {
      handler->video_format = mp4rec::kVideoH264;
      handler->mp4_handle = mp4_write_head_h264_index(req.mp4_path, req.mp2_tmp_path, req.width,
                                                      req.height, req.audio_format, req.info);
      if (handler->mp4_handle == nullptr) {
        MP4_LOG_AS(kThreadName, mp4rec::kLogError, mp4rec::kModRecorder,
                   "mp4 open : write head of h264 error\n");
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
  g_request_pending = false;
  pthread_mutex_lock(&mutex_mp4_open);
  g_request_withdrawn = false;
  g_serving = nullptr;
  g_serving_cancelled = false;
  pthread_mutex_unlock(&mutex_mp4_open);
}

void pre_open_forget_session(const mp4_session *session) {
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
  pthread_mutex_unlock(&mutex_mp4_open);
}
}  // namespace mp4rec

extern "C" MP4REC_API void *mp4_write_pre_open_thread(void * /*unused*/) {
  // The block's mutex is held at all times except inside the wait, so a try-lock
  // on it tells whether a file is being made right now.
  pthread_mutex_lock(&g_mp4_open.mutex);
  g_mp4_open.ready = 1;
  for (;;) {
    do {
      pthread_cond_wait(&g_mp4_open.cond, &g_mp4_open.mutex);
    } while (!g_request_pending && g_pre_open_thread_status != 0);
    if (g_pre_open_thread_status == 0) {
      pthread_mutex_unlock(&g_mp4_open.mutex);
      return nullptr;
    }
    g_request_pending = false;

    HandlerPtr handler{static_cast<mp4_handler *>(std::malloc(sizeof(mp4_handler)))};
    if (handler == nullptr) {
      // The thread ends still holding the block's mutex: later requests block.
      MP4_ERR("mp4 open : info struct error\n");
      return nullptr;
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
      if (handler != nullptr) g_mp4_handler = handler.release();
    }
    g_serving = nullptr;
    g_serving_cancelled = false;
    pthread_mutex_unlock(&mutex_mp4_open);

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
  // waits again: the request is never lost.
  pthread_mutex_lock(&g_mp4_open.mutex);
  g_request_pending = true;
  pthread_cond_signal(&g_mp4_open.cond);
  pthread_mutex_unlock(&g_mp4_open.mutex);
  return 0;
}

extern "C" MP4REC_API mp4_handler *mp4_pre_open_get(void) {
  pthread_mutex_lock(&mutex_mp4_open);
  mp4_handler *handler = g_mp4_handler;
  g_mp4_handler = nullptr;
  pthread_mutex_unlock(&mutex_mp4_open);
  return handler;
}

extern "C" MP4REC_API int mp4_pre_open_init(void) {
  // Empties the slot; a handler standing there is not released.
  pthread_mutex_lock(&mutex_mp4_open);
  g_mp4_handler = nullptr;
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

  for (int look = 0;;) {
    pthread_mutex_lock(&mutex_mp4_open);
    const bool ready = g_mp4_handler != nullptr;
    pthread_mutex_unlock(&mutex_mp4_open);
    if (ready) return 0;
    MP4_LOG(mp4rec::kLogProgress, mp4rec::kModRecorder, "wait...%d\n", look);
    if (look++ > kOpenFirstLastLook) {
      // The request stays posted and the session attached.
      MP4_ERR("mp4_write_open_first time out\n");
      return -1;
    }
    sleep(1);
  }
}
