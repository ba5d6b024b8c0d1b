// The pre-open thread: it creates the next file and writes its head ahead of
// time, then parks the handler in the process-wide slot for mp4_write_open.
#include "session/pre_open.h"

#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <memory>

#include "common/internal.h"

namespace {

// A request is flagged as well as signalled (both under the block's mutex), so
// that a spurious wake-up of the thread never makes a file by itself.
bool g_request_pending = false;

// The thread's own name in its log lines.
constexpr const char *kThreadName = "mp4_write_pre_open_thread";

// mp4_write_open_first looks at the slot 22 times, sleeping 1 s in between.
constexpr int kOpenFirstLastLook = 20;

// The request as the thread takes it after a wake-up: the newest words win.
struct Request {
  mp4_session *session;
  const char *mp4_path;
  const char *mp2_tmp_path;
  int32_t width;
  int32_t height;
  int32_t video_format;
  int32_t audio_format;
};

Request take_request() {
  pthread_mutex_lock(&mutex_mp4_open);
  const Request req{g_mp4_session,          g_mp4_open.mp4_path, g_mp4_open.mp2_tmp_path,
                    g_mp4_open.width,       g_mp4_open.height,   g_mp4_open.video_format,
                    g_mp4_open.audio_format};
  pthread_mutex_unlock(&mutex_mp4_open);
  return req;
}

struct FreeHandler {
  void operator()(mp4_handler *h) const { std::free(h); }
};
using HandlerPtr = std::unique_ptr<mp4_handler, FreeHandler>;

// Makes the file of one request; null when the request cannot be served.
HandlerPtr generate(const Request &req, HandlerPtr handler) {
  switch (static_cast<uint32_t>(req.video_format)) {
    case mp4rec::kVideoH264: {
      mp4_stream_info *info = req.session != nullptr ? req.session->stream_info : nullptr;
      handler->video_format = mp4rec::kVideoH264;
      handler->mp4_handle = mp4_write_head_h264_index(req.mp4_path, req.mp2_tmp_path, req.width,
                                                      req.height, req.audio_format, info);
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
    handler = generate(take_request(), std::move(handler));
    if (handler == nullptr) continue;

    // A handler that was never taken is replaced as it stands.
    pthread_mutex_lock(&mutex_mp4_open);
    g_mp4_handler = handler.release();
    pthread_mutex_unlock(&mutex_mp4_open);
  }
}

extern "C" MP4REC_API int mp4_pre_open_start(mp4_session *session, char *mp4_path,
                                             char *mp2_tmp_path, int width, int height,
                                             int video_format, int audio_format) {
  pthread_mutex_lock(&mutex_mp4_open);
  g_mp4_session = session;
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
