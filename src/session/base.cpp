// The recorder base (one per process, owner of the pre-open thread), the
// recording sessions, the process-wide pre-open globals and the record-time
// callback registration.
#include <pthread.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "buffer/stall.h"
#include "common/internal.h"
#include "session/front_end.h"
#include "session/pre_open.h"

extern "C" {
// The session whose file the pre-open thread prepares (guarded by mutex_mp4_open).
mp4_session *g_mp4_session = nullptr;
// The one ready pre-open handler, or null (guarded by mutex_mp4_open).
mp4_handler *g_mp4_handler = nullptr;
// The pre-open block: thread, condition variable, its mutex, request and ready word.
mp4_pre_open_block g_mp4_open = {};
// Guards g_mp4_session, g_mp4_handler and the request words of g_mp4_open.
pthread_mutex_t mutex_mp4_open = PTHREAD_MUTEX_INITIALIZER;
// 1 while the pre-open thread is to keep running; mp4_base_free clears it for good.
int32_t g_pre_open_thread_status = 1;
}

namespace {

constexpr int kVideoBufferSize = 262144;
constexpr int kAudioBufferSize = 16384;
constexpr size_t kPathField = sizeof(mp4_session::mp4_path);
static_assert(sizeof(mp4_session::mp2_tmp_path) == kPathField);

// The handshake with a freshly started pre-open thread: at most 20 rounds, and
// a ready word first seen in the last round still counts as too late.
constexpr int kReadyRounds = 20;
constexpr int64_t kReadyRoundMs = 1000;

bool path_fits(const char *path) {
  return path != nullptr && std::strlen(path) < kPathField;
}

// Zero-fills the field and copies the path with its terminator (checked to fit).
void copy_path(char (&field)[kPathField], const char *path) {
  std::memset(field, 0, kPathField);
  std::memcpy(field, path, std::strlen(path));
}

bool pre_open_thread_ready() {
  pthread_mutex_lock(&g_mp4_open.mutex);
  const bool ready = g_mp4_open.ready == 1;
  pthread_mutex_unlock(&g_mp4_open.mutex);
  return ready;
}

}  // namespace

extern "C" MP4REC_API mp4_base *mp4_base_new(void) {
  // One pre-open thread per process: while one still runs (a base not freed,
  // or a thread left in a card write), its locks must not be set up again.
  if (mp4rec::pre_open_thread_running()) {
    MP4_ERR("MP4 create open thread error\n");
    return nullptr;
  }
  auto *base = static_cast<mp4_base *>(std::malloc(sizeof(mp4_base)));
  if (base == nullptr) {
    MP4_ERR("MP4 alloc session error\n");
    return nullptr;
  }
  base->mp4_session = nullptr;

  pthread_mutex_init(&mutex_mp4_open, nullptr);
  pthread_cond_init(&g_mp4_open.cond, nullptr);
  pthread_mutex_init(&g_mp4_open.mutex, nullptr);
  g_mp4_open.ready = 0;
  mp4rec::pre_open_reset_request();

  if (pthread_create(&g_mp4_open.thread, nullptr, mp4_write_pre_open_thread, nullptr) != 0) {
    mp4rec::pre_open_thread_not_started();
    // The base word is not released on this path.
    MP4_ERR("MP4 create open thread error\n");
    return nullptr;
  }

  // Rounds are a second apart and the thread's word is looked at again as
  // soon as it says it is ready: in time up to the 19th round (18 s on).
  const int64_t deadline = mp4rec::monotonic_ms() + (kReadyRounds - 2) * kReadyRoundMs;
  if (!mp4rec::pre_open_wait(pre_open_thread_ready, deadline)) {
    // The thread keeps running; the base is not handed out.
    MP4_ERR("mp4_write_pre_open_thread error\n");
    return nullptr;
  }
  return base;
}

extern "C" MP4REC_API int mp4_base_free(mp4_base *base) {
  if (base == nullptr) return 0;

  // A handler still parked in the slot is released (its files closed; the
  // session's end deletes them). The thread stops within the bound.
  mp4rec::pre_open_release_parked();
  mp4rec::pre_open_stop_thread();

  if (base->mp4_session != nullptr) {
    mp4_session_free(base->mp4_session);
    base->mp4_session = nullptr;
  }
  std::free(base);
  return 0;
}

extern "C" MP4REC_API mp4_session *mp4_session_new(int record_mode, const char *mp4_path,
                                                   const char *mp2_tmp_path) {
  if (record_mode != 0 && record_mode != 1) {
    MP4_ERR("MP4 record mode error\n");
    return nullptr;
  }
  auto *session = static_cast<mp4_session *>(std::calloc(1, sizeof(mp4_session)));
  if (session == nullptr) {
    MP4_ERR("MP4 alloc session error\n");
    return nullptr;
  }
  // Both paths must fit their 256-byte fields with the terminator; nothing is
  // copied unless both do, so the clean-up deletes no file.
  if (!path_fits(mp4_path) || !path_fits(mp2_tmp_path)) {
    MP4_ERR("MP4 set record path info error\n");
    mp4_session_free(session);
    return nullptr;
  }
  copy_path(session->mp4_path, mp4_path);
  copy_path(session->mp2_tmp_path, mp2_tmp_path);

  session->record_mode = record_mode;
  session->stream_info = mp4_create_stream_info();
  if (session->stream_info == nullptr) {
    MP4_ERR("MP4 create stream info error\n");
    mp4_session_free(session);
    return nullptr;
  }
  session->data_buffer = mp4_write_data_buffer_create(kVideoBufferSize, kAudioBufferSize);
  if (session->data_buffer == nullptr) {
    MP4_ERR("MP4 create data buffer error\n");
    mp4_session_free(session);
    return nullptr;
  }
  return session;
}

extern "C" MP4REC_API mp4_session *mp4_session_pop(mp4_base *base) {
  if (base == nullptr) {
    MP4_ERR("arg NULL\n");
    return nullptr;
  }
  mp4_session *session = base->mp4_session;
  base->mp4_session = nullptr;
  return session;
}

extern "C" MP4REC_API int mp4_session_free(mp4_session *session) {
  if (session == nullptr) return 0;
  mp4rec::pre_open_forget_session(session);
  // A handler that a close left after a card error goes with the session.
  mp4rec::release_kept_handler(session->data_buffer);
  std::free(session->stream_info);
  session->stream_info = nullptr;
  if (session->data_buffer != nullptr && mp4_write_data_buffer_delete(session->data_buffer) == 0)
    session->data_buffer = nullptr;
  // Whatever still stands at the two paths goes with the session; a caller that
  // keeps the recording moves it away first.
  for (const char *path : {session->mp4_path, session->mp2_tmp_path}) {
    if (path[0] != '\0') unlink(path);
  }
  std::free(session);
  return 0;
}

extern "C" MP4REC_API int mp4_write_register(mp4_base *base, void (*cb)(void *), void *user_data) {
  if (base == nullptr || cb == nullptr || user_data == nullptr) {
    MP4_ERR("arg error\n");
    return -1;
  }
  if (base->mp4_session == nullptr) {
    MP4_ERR("mp4_base->mp4_session error\n");
    return -1;
  }
  return mp4_write_data_record_time_cb_register(base->mp4_session->data_buffer, cb, user_data);
}
