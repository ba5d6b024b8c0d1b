// MJPEG recording: JPEG pictures written straight into mdat from the caller's
// thread, PCM encoded to MP2 into the side file, and at the end the audio run
// copied behind the pictures and the whole index written after mdat.
#include "mp4/alt/mjpeg.h"

#include <cstdlib>
#include <memory>
#include <new>

#include "mp4/alt/at_end_boxes.h"

namespace mp4rec {

namespace {

constexpr int kMjpegSampleRate = 16000;
constexpr int kMjpegBitrate = 64000;
// Bytes of one MP2 frame at that rate (1152 samples), with its padding byte.
constexpr uint64_t kMjpegMp2FrameBytes = 144 * kMjpegBitrate / kMjpegSampleRate + 1;

// Whether the finished file still stays below its size limit with `picture`
// more picture bytes and `frames` more MP2 frames: pictures and the side
// file's audio run in mdat, then the index (1091 + 12 n + 4 m bytes).
bool file_has_room(mp4_mjpeg_ctx *ctx, uint64_t picture, uint64_t frames) {
  const int side = ctx->mp2File != nullptr ? mp4_ftell(ctx->mp2File) : 0;
  const uint64_t audio_frames = (side > 0 ? side / kMjpegMp2FrameBytes + 1 : 0) + frames;
  const uint64_t pictures = ctx->videoCount + (picture > 0 ? 1 : 0);
  const uint64_t end = uint64_t{ctx->mdatPos} + 8 + ctx->mediaBytes + picture +
                       (side > 0 ? side : 0) + frames * kMjpegMp2FrameBytes + 1091 + 12 * pictures +
                       4 * audio_frames;
  return end <= kMaxFileBytes;
}

// Refuses what a full file cannot take: -5, and one line per file.
int file_full(mp4_mjpeg_ctx *ctx, const char *function, const char *message) {
  if (first_time(ctx, kOnceFileFull)) MP4_LOG_AS(function, kLogError, kModRecorder, "%s", message);
  return -5;
}

// Appends at the tail: next cleared, count raised.
template <typename Node>
void append_node(Node *&head, Node *&tail, uint32_t &count, Node *node) {
  list_append(head, tail, node);
  ++count;
}

void close_stream(FILE *&f) {
  if (f != nullptr) {
    mp4_fclose(f);
    f = nullptr;
  }
}

// Everything but the record itself: streams, both lists, the encoder.
void release_contents(mp4_mjpeg_ctx *ctx) {
  close_stream(ctx->file);
  close_stream(ctx->mp2File);
  list_free(ctx->videoHead, ctx->videoTail);
  list_free(ctx->audioHead, ctx->audioTail);
  MP2_encode_close(ctx->mp2Encoder);
  ctx->mp2Encoder = nullptr;
}

mp4_mjpeg_ctx *new_context() {
  auto *ctx = static_cast<mp4_mjpeg_ctx *>(std::calloc(1, sizeof(mp4_mjpeg_ctx)));
  if (ctx == nullptr) return nullptr;
  ctx->creationTime = kMjpegCreationTime;
  ctx->width = 640;
  ctx->height = 480;
  ctx->durationPad = 50;
  ctx->audioFrameSamples = 1152;
  ctx->movieTimeScale = 1000;
  ctx->moovEnable = 1;
  ctx->audioKHz = 16;
  ctx->videoTimeScale = 1000;
  ctx->sampleRate = kMjpegSampleRate;
  return ctx;
}

}  // namespace

void mjpeg_release(mp4_mjpeg_ctx *ctx) {
  if (ctx == nullptr) return;
  forget_once(ctx);
  release_contents(ctx);
  std::free(ctx);
}

}  // namespace mp4rec

using mp4rec::mjpeg_release;

extern "C" mp4_mjpeg_ctx *mp4_write_head_jpeg(const char *mp4_path, const char *mp2_tmp_path,
                                              int width, int height, unsigned int audio_format) {
  mp4_mjpeg_ctx *ctx = mp4rec::new_context();
  if (ctx == nullptr) return nullptr;
  if (mp4_path == nullptr || mp2_tmp_path == nullptr || (audio_format != 1 && audio_format != 2) ||
      width < 1 || height < 1) {
    std::free(ctx);
    return nullptr;
  }
  ctx->audioFormat = audio_format;
  ctx->width = width;
  ctx->height = height;
  ctx->file = mp4_fopen(mp4_path, "wb");
  if (ctx->file == nullptr) {
    std::free(ctx);
    return nullptr;
  }
  ctx->mp2File = mp4_fopen(mp2_tmp_path, "wb+");
  if (ctx->mp2File == nullptr) {
    mjpeg_release(ctx);
    return nullptr;
  }
  ctx->mp2Encoder = MP2_encode_init(mp4rec::kMjpegSampleRate, mp4rec::kMjpegBitrate, 1);
  if (ctx->mp2Encoder == nullptr) {
    std::printf("mp4:mp2 encoder init error!\n");
    mjpeg_release(ctx);
    return nullptr;
  }
  // A head that did not reach the file fails the call: a recording into it
  // could never be read.
  mp4rec::box::Sink s{ctx->file, ctx->writeStatus};
  s.add(mp4rec::alt::write_head(s, *ctx));
  if (ctx->writeStatus != 0 || std::fflush(ctx->file) != 0) {
    mjpeg_release(ctx);
    return nullptr;
  }
  return ctx;
}

namespace mp4rec {

int mjpeg_write_one(unsigned char *data, int length, int timestamp, mp4_mjpeg_ctx *ctx,
                    bool *released) {
  *released = false;
  if (ctx == nullptr) return -1;  // e.g. an abandoned handler: nothing to release
  const auto release = [&] {
    mjpeg_release(ctx);
    *released = true;
    return -1;
  };
  if (data == nullptr || ctx->file == nullptr || length < 1 || timestamp < 0) return release();
  const std::span<const uint8_t> bytes(data, static_cast<size_t>(length));
  const auto found = find_jpeg_picture(bytes);
  if (found.result == JpegScan::kNoStart) return release();
  if (found.result == JpegScan::kNoEnd) return 0;  // dropped: nothing written or counted
  if (!file_has_room(ctx, found.span.size, 0))
    return file_full(ctx, "mp4_write_one_jpeg", "mp4 write video : file is full\n");

  auto *node = static_cast<jpegNode *>(std::malloc(sizeof(jpegNode)));
  if (node == nullptr) return release();
  node->size = static_cast<uint32_t>(found.span.size);
  node->timeStamp = static_cast<uint32_t>(timestamp);
  append_node(ctx->videoHead, ctx->videoTail, ctx->videoCount, node);
  // A failed write shows at the end; the picture is counted either way.
  box::Sink s{ctx->file, ctx->writeStatus};
  s.add(mp4_put_buffer(ctx->file, data + found.span.start, node->size));
  ctx->mediaBytes += node->size;
  return 0;
}

int mjpeg_write_pcm(unsigned char *data, int length, mp4_mjpeg_ctx *ctx, bool *released) {
  *released = false;
  if (ctx == nullptr) return -1;
  const int block = ctx->audioFormat == 1 ? kPcm8BlockBytes : kPcm16BlockBytes;
  if (data == nullptr || ctx->mp2File == nullptr || length < 1 || length % block != 0) {
    mjpeg_release(ctx);
    *released = true;
    return -1;
  }
  if (!file_has_room(ctx, 0, static_cast<uint64_t>(length / block)))
    return file_full(ctx, "mp4_write_pcm_jpeg", "mp4 write audio : file is full\n");
  const int r = ctx->audioFormat == 1
                    ? mp4_pcm_to_mp2(ctx->mp2File, data, length, ctx->mp2Encoder)
                    : mp4_pcm_to_mp2_2(ctx->mp2File, data, length, ctx->mp2Encoder);
  if (r != -1) return 0;
  if (ctx->audioFormat == 1) {
    mjpeg_release(ctx);
    *released = true;
    return -1;
  }
  // 16-bit input: streams, lists and encoder go, the record stays allocated in
  // an empty state. The caller's close (mp4_write_end_jpeg) or abandon then
  // frees it without touching anything else.
  release_contents(ctx);
  return -1;
}

}  // namespace mp4rec

extern "C" int mp4_write_one_jpeg(unsigned char *data, int length, int timestamp,
                                  mp4_mjpeg_ctx *ctx) {
  bool released = false;
  return mp4rec::mjpeg_write_one(data, length, timestamp, ctx, &released);
}

extern "C" int mp4_write_pcm_jpeg(unsigned char *data, int length, mp4_mjpeg_ctx *ctx) {
  bool released = false;
  return mp4rec::mjpeg_write_pcm(data, length, ctx, &released);
}

extern "C" int mp4_write_end_jpeg(mp4_mjpeg_ctx *ctx) {
  if (ctx == nullptr) return -1;
  if (ctx->mp2File == nullptr || ctx->file == nullptr || ctx->videoHead == nullptr) {
    mjpeg_release(ctx);
    return -1;
  }
  std::rewind(ctx->mp2File);
  const int pos = mp4_ftell(ctx->file);
  if (pos == -1) {
    mjpeg_release(ctx);
    return -1;
  }
  ctx->mp2DataPos = static_cast<uint32_t>(pos);
  mp4rec::box::Sink s{ctx->file, ctx->writeStatus};

  // Copy the side file's MP2 frames behind the last picture, one node each.
  // A missing sync leaves the audio track empty; any reader failure (end of
  // file, a frame longer than the buffer, a read error) ends the copy.
  if (mp4_handle_mp2_head(ctx->mp2File) == 0) {
    std::unique_ptr<uint8_t[]> buf(new (std::nothrow) uint8_t[mp4rec::alt::kSideFileBufferBytes]);
    if (!buf) {
      mjpeg_release(ctx);
      return -1;
    }
    unsigned int len = 0;
    while (mp4_read_mp2_frame(ctx->mp2File, buf.get(), mp4rec::alt::kSideFileBufferBytes, &len) !=
           -1) {
      auto *node = static_cast<mp2Node *>(std::malloc(sizeof(mp2Node)));
      if (node == nullptr) {
        mjpeg_release(ctx);
        return -1;
      }
      node->size = len;
      mp4rec::append_node(ctx->audioHead, ctx->audioTail, ctx->audioCount, node);
      s.add(mp4_put_buffer(ctx->file, buf.get(), len));
      ctx->mediaBytes += len;
    }
  }
  // The side file stays on disk; the session deletes it.
  const int closed = mp4_fclose(ctx->mp2File);
  ctx->mp2File = nullptr;
  if (closed != 0) {
    mjpeg_release(ctx);
    return -1;
  }

  s.add(mp4rec::alt::write_end(s, *ctx));
  if (ctx->writeStatus != 0) {
    mjpeg_release(ctx);  // the file keeps what was written
    return -1;
  }
  const int r = mp4_fclose(ctx->file) == 0 ? 0 : -1;
  ctx->file = nullptr;
  mjpeg_release(ctx);
  return r;
}
