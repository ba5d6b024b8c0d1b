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
  // A failed head write does not fail the call: it stays in writeStatus and
  // fails the end step.
  mp4rec::box::Sink s{ctx->file, ctx->writeStatus};
  s.add(mp4rec::alt::write_head(s, *ctx));
  return ctx;
}

extern "C" int mp4_write_one_jpeg(unsigned char *data, int length, int timestamp,
                                  mp4_mjpeg_ctx *ctx) {
  if (ctx == nullptr) return -1;  // e.g. an abandoned handler: nothing to release
  if (data == nullptr || ctx->file == nullptr || length < 1 || timestamp < 0) {
    mjpeg_release(ctx);
    return -1;
  }
  const std::span<const uint8_t> bytes(data, static_cast<size_t>(length));
  const auto found = mp4rec::find_jpeg_picture(bytes);
  if (found.result == mp4rec::JpegScan::kNoStart) {
    mjpeg_release(ctx);
    return -1;
  }
  if (found.result == mp4rec::JpegScan::kNoEnd) return 0;  // dropped: nothing written or counted

  auto *node = static_cast<jpegNode *>(std::malloc(sizeof(jpegNode)));
  if (node == nullptr) {
    mjpeg_release(ctx);
    return -1;
  }
  node->size = static_cast<uint32_t>(found.span.size);
  node->timeStamp = static_cast<uint32_t>(timestamp);
  mp4rec::append_node(ctx->videoHead, ctx->videoTail, ctx->videoCount, node);
  // A failed write shows at the end; the picture is counted either way.
  mp4rec::box::Sink s{ctx->file, ctx->writeStatus};
  s.add(mp4_put_buffer(ctx->file, data + found.span.start, node->size));
  ctx->mediaBytes += node->size;
  return 0;
}

extern "C" int mp4_write_pcm_jpeg(unsigned char *data, int length, mp4_mjpeg_ctx *ctx) {
  if (ctx == nullptr) return -1;
  const int block = ctx->audioFormat == 1 ? mp4rec::kPcm8BlockBytes : mp4rec::kPcm16BlockBytes;
  if (data == nullptr || ctx->mp2File == nullptr || length < 1 || length % block != 0) {
    mjpeg_release(ctx);
    return -1;
  }
  const int r = ctx->audioFormat == 1
                    ? mp4_pcm_to_mp2(ctx->mp2File, data, length, ctx->mp2Encoder)
                    : mp4_pcm_to_mp2_2(ctx->mp2File, data, length, ctx->mp2Encoder);
  if (r != -1) return 0;
  if (ctx->audioFormat == 1) {
    mjpeg_release(ctx);
    return -1;
  }
  // 16-bit input: streams, lists and encoder go, the record stays allocated in
  // an empty state. The caller's close (mp4_write_end_jpeg) or abandon then
  // frees it without touching anything else.
  mp4rec::release_contents(ctx);
  return -1;
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
