// The recording front end: takes the pre-opened file, binds it to the session's
// data buffer and dispatches every frame and the close to the writer of the
// handler's video format (1 MJPEG; 3 H.265 and anything else H.264, both with
// the index in front).
#include <pthread.h>

#include <cstdlib>
#include <cstring>

#include "buffer/data_buffer.h"
#include "common/internal.h"
#include "mp4/alt/mjpeg.h"
#include "mp4/handle.h"
#include "mp4/hevc.h"
#include "mp4/intake.h"
#include "session/front_end.h"
#include "session/pre_open.h"

namespace {

bool is_jpeg(const mp4_handler *handler) {
  return handler->video_format == mp4rec::kVideoJpeg;
}

mp4_handle *h264_of(const mp4_handler *handler) {
  return static_cast<mp4_handle *>(handler->mp4_handle);
}
mp4_mjpeg_ctx *jpeg_of(const mp4_handler *handler) {
  return static_cast<mp4_mjpeg_ctx *>(handler->mp4_handle);
}

// The data buffer a handler's file is bound to, or null.
mp4_data_buffer *buffer_of(const mp4_handler *handler) {
  if (is_jpeg(handler) || handler->mp4_handle == nullptr) return nullptr;
  return h264_of(handler)->dataBuffer;
}

// A close that met a card error keeps the handler (the host may still abandon
// it); the library remembers it with the data buffer, whose session's end or
// next file releases it.
void keep(mp4_handler *handler) {
  if (mp4_data_buffer *data = buffer_of(handler)) {
    mp4rec::MutexLock lock(data->queue_lock);
    data->kept_handler = handler;
  }
}
void forget(mp4_handler *handler) {
  if (mp4_data_buffer *data = buffer_of(handler)) {
    mp4rec::MutexLock lock(data->queue_lock);
    if (data->kept_handler == handler) data->kept_handler = nullptr;
  }
}

// The per-call texts of one frame call. The card's two failure texts are
// crossed on purpose: -2 (I/O error) reads "busy", -4 (busy) reads "io error".
struct FrameTexts {
  const char *out_of_frames;
  const char *busy_text;    // logged for -2
  const char *io_text;      // logged for -4
  const char *frame_error;  // any other negative result
};
constexpr FrameTexts kVideoTexts{
    "mp4 write video : out of frame number\n", "mp4 write video : write sdcard busy\n",
    "mp4 write video : write sdcard io error\n", "mp4 write video : write one frame error\n"};
constexpr FrameTexts kAudioTexts{
    "mp4 write audio : out of frame number\n", "mp4 write audio : write sdcard busy\n",
    "mp4 write audio : write sdcard io error\n", "mp4 write audio : write one frame error\n"};

// Logs a writer's result under the calling front-end function; returns it unchanged.
int report(const char *function, const FrameTexts &texts, int result) {
  using namespace mp4rec;
  if (result >= 0) return result;
  switch (result) {
    case -5:
      MP4_LOG_AS(function, kLogFrames, kModRecorder, "%s", texts.out_of_frames);
      break;
    case -2:
      MP4_LOG_AS(function, kLogError, kModRecorder, "%s", texts.busy_text);
      break;
    case -4:
      MP4_LOG_AS(function, kLogError, kModRecorder, "%s", texts.io_text);
      break;
    default:
      MP4_LOG_AS(function, kLogError, kModRecorder, "%s", texts.frame_error);
      break;
  }
  return result;
}

// An ADTS frame carries a 7-byte header in front of the raw AAC payload.
constexpr int kAdtsHeader = 7;

}  // namespace

namespace mp4rec {

void release_context(mp4_handler &handler) {
  if (handler.mp4_handle == nullptr) return;
  if (is_jpeg(&handler))
    mjpeg_release(jpeg_of(&handler));
  else
    free_mp4(handler.mp4_handle);
  handler.mp4_handle = nullptr;
}

void release_kept_handler(mp4_data_buffer *data) {
  if (data == nullptr) return;
  mp4_handler *handler = nullptr;
  {
    MutexLock lock(data->queue_lock);
    handler = static_cast<mp4_handler *>(data->kept_handler);
    data->kept_handler = nullptr;
  }
  if (handler == nullptr) return;
  release_context(*handler);
  std::free(handler);
}

}  // namespace mp4rec

extern "C" MP4REC_API int mp4_write_open(mp4_base *base, char *mp4_path_out, char *mp2_tmp_path_out,
                                         mp4_handler **handler_out) {
  // A missing base is refused like a missing result pointer rather than crashed on.
  if (handler_out == nullptr || base == nullptr) {
    MP4_ERR("arg NULL\n");
    if (handler_out != nullptr) *handler_out = nullptr;
    return -1;
  }
  // The pre-open thread holds its mutex for as long as it makes a file.
  if (pthread_mutex_trylock(&g_mp4_open.mutex) != 0) {
    MP4_LOG(mp4rec::kLogProgress, mp4rec::kModRecorder, "mp4 handler generating...\n");
    *handler_out = nullptr;
    return 1;
  }
  pthread_mutex_unlock(&g_mp4_open.mutex);

  mp4_handler *handler = mp4_pre_open_get();
  mp4_session *session = base->mp4_session;
  if (handler == nullptr) {
    MP4_ERR("mp4 open failed\n");
    MP4_ERR("handler NULL\n");
  } else if (session == nullptr) {
    MP4_ERR("mp4 open failed\n");
    MP4_ERR("mp4_base->mp4_session NULL\n");
    mp4_pre_open_init();
  } else if (const int rc = mp4_write_prepare(session, handler); rc != 0) {
    MP4_ERR("mp4_write_prepare failed.the error code is %d\n", rc);
  } else {
    MP4_LOG(mp4rec::kLogProgress, mp4rec::kModRecorder, "mp4 open: get pre-open file success.\n");
    if (mp4_path_out != nullptr) std::memcpy(mp4_path_out, session->mp4_path, 256);
    if (mp2_tmp_path_out != nullptr) std::memcpy(mp2_tmp_path_out, session->mp2_tmp_path, 256);
    *handler_out = handler;
    return 0;
  }

  // A failed open costs the file and the session: the host makes a new session
  // and posts a new pre-open.
  *handler_out = nullptr;
  if (handler != nullptr) {
    mp4rec::release_context(*handler);
    std::free(handler);
  }
  if (session != nullptr) {
    mp4_session_free(session);
    base->mp4_session = nullptr;
  }
  return -1;
}

extern "C" MP4REC_API int mp4_write_prepare(mp4_session *session, mp4_handler *handler) {
  if (session == nullptr || handler == nullptr) {
    MP4_ERR("mp4 prepare : param error\n");
    return -1;
  }
  // A handler that a failed close left with this session's buffer goes now.
  mp4rec::release_kept_handler(session->data_buffer);
  // An MJPEG file is written straight from the caller's thread; only the H.264
  // road goes through the session's data buffer.
  if (is_jpeg(handler)) return 0;
  if (mp4_set_data_buffer(h264_of(handler), session->data_buffer) < 0) {
    MP4_ERR("mp4 prepare : set data buffer error\n");
    return -1;
  }
  return 0;
}

extern "C" MP4REC_API int mp4_write_video(unsigned char *data, int length, int timestamp,
                                          mp4_handler *handler) {
  if (handler == nullptr) {
    MP4_ERR("mp4 write video : param error\n");
    return -1;
  }
  // A writer that released its context says so: the handler then holds none,
  // and every later call on it is refused until the close frees it.
  bool released = false;
  const int result =
      is_jpeg(handler)
          ? mp4rec::mjpeg_write_one(data, length, timestamp, jpeg_of(handler), &released)
      : handler->video_format == mp4rec::kVideoH265
          ? mp4rec::write_one_h265(data, length, timestamp, h264_of(handler), &released)
          : mp4rec::write_one_h264(data, length, timestamp, h264_of(handler), &released);
  if (released) handler->mp4_handle = nullptr;
  return report(__func__, kVideoTexts, result);
}

extern "C" MP4REC_API int mp4_write_audio(unsigned char *data, int length, int timestamp,
                                          mp4_handler *handler) {
  if (handler == nullptr) {
    MP4_ERR("mp4 write audio : param error\n");
    return -1;
  }
  int result = -1;
  if (is_jpeg(handler)) {
    // PCM; its time follows from the amount of samples alone.
    bool released = false;
    result = mp4rec::mjpeg_write_pcm(data, length, jpeg_of(handler), &released);
    if (released) handler->mp4_handle = nullptr;
  } else if (length > kAdtsHeader) {
    unsigned char *payload = data != nullptr ? data + kAdtsHeader : nullptr;
    result =
        mp4_write_audio_frame_realtime(h264_of(handler), payload, length - kAdtsHeader, timestamp);
  }
  return report(__func__, kAudioTexts, result);
}

extern "C" MP4REC_API int mp4_write_close(mp4_handler *handler) {
  if (handler == nullptr) {
    MP4_ERR("MP4 encoder handler is NULL\n");
    return -1;
  }
  int result;
  if (is_jpeg(handler)) {
    result = handler->mp4_handle != nullptr ? mp4_write_end_jpeg(jpeg_of(handler)) : -1;
  } else {
    // Whatever the data buffer still holds reaches the card first; after an I/O
    // error the handler and its file stay as they are.
    if (mp4_sync_data_buffer(h264_of(handler)) == -2) {
      MP4_ERR("mp4_sync_data_buffer IO error happened!\n");
      keep(handler);
      return -1;
    }
    MP4_LOG(mp4rec::kLogProgress, mp4rec::kModRecorder, "close with index in the front\n");
    forget(handler);
    result = free_mp4(handler->mp4_handle);
  }
  std::free(handler);
  return result;
}

extern "C" MP4REC_API int mp4_write_close_without_end(mp4_handler *handler) {
  if (handler == nullptr) {
    MP4_ERR("MP4 encoder handler is NULL\n");
    return -1;
  }
  int result;
  if (is_jpeg(handler)) {
    result = handler->mp4_handle != nullptr ? 0 : -1;
    if (handler->mp4_handle != nullptr) mp4rec::mjpeg_release(jpeg_of(handler));
  } else {
    // The writer thread lets go of the file first (a write in progress is
    // waited for within the bound, queued frames are dropped).
    forget(handler);
    result = mp4_close_without_end(h264_of(handler));
  }
  // The record itself survives with no context; the host frees it.
  handler->mp4_handle = nullptr;
  return result;
}
