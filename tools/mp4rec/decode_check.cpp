#include "decode_check.h"

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/log.h>
}

namespace mp4tool {

namespace {

// Decoder messages at error level while the last picture is decoded.
std::mutex g_log_mutex;
std::string *g_log_sink = nullptr;

void capture_log(void *, int level, const char *fmt, va_list ap) {
  if (level > AV_LOG_ERROR) return;
  char line[512];
  std::vsnprintf(line, sizeof line, fmt, ap);
  std::lock_guard<std::mutex> lock(g_log_mutex);
  if (g_log_sink && g_log_sink->empty()) *g_log_sink = line;
}

struct CodecCtxFree {
  void operator()(AVCodecContext *c) const { avcodec_free_context(&c); }
};
struct PacketFree {
  void operator()(AVPacket *p) const { av_packet_free(&p); }
};
struct FrameFree {
  void operator()(AVFrame *f) const { av_frame_free(&f); }
};

}  // namespace

std::string last_picture_error(const std::vector<std::vector<uint8_t>> &gop, bool hevc) {
  if (gop.empty()) return {};
  const AVCodec *codec = avcodec_find_decoder(hevc ? AV_CODEC_ID_HEVC : AV_CODEC_ID_H264);
  if (!codec) {
    // A libavcodec built without the decoder (the library needs only the MP2
    // encoder): nothing can be said, and the user is told so once per codec.
    static std::once_flag told[2];
    std::call_once(told[hevc ? 1 : 0], [hevc] {
      std::fprintf(stderr,
                   "mp4rec: note: this libavcodec has no %s decoder, so a stream cut inside its "
                   "last picture is not detected\n",
                   hevc ? "H.265" : "H.264");
    });
    return {};
  }
  std::unique_ptr<AVCodecContext, CodecCtxFree> ctx(avcodec_alloc_context3(codec));
  std::unique_ptr<AVPacket, PacketFree> pkt(av_packet_alloc());
  std::unique_ptr<AVFrame, FrameFree> frame(av_frame_alloc());
  if (!ctx || !pkt || !frame) return {};
  ctx->thread_count = 1;
  // The H.265 decoder conceals slice data that runs out unless told to fail.
  if (hevc) ctx->err_recognition |= AV_EF_EXPLODE;
  if (avcodec_open2(ctx.get(), codec, nullptr) < 0) return {};

  std::string error;
  size_t pictures = 0;
  auto drain = [&] {
    while (avcodec_receive_frame(ctx.get(), frame.get()) == 0) {
      if (frame->decode_error_flags && error.empty()) error = "the decoder had to conceal errors";
      av_frame_unref(frame.get());
      ++pictures;
    }
  };
  for (size_t i = 0; i < gop.size(); ++i) {
    const bool last = i + 1 == gop.size();
    if (last) {
      std::lock_guard<std::mutex> lock(g_log_mutex);
      g_log_sink = &error;
      av_log_set_callback(capture_log);
    } else {
      av_log_set_level(AV_LOG_QUIET);
    }
    if (av_new_packet(pkt.get(), static_cast<int>(gop[i].size())) == 0) {
      std::copy(gop[i].begin(), gop[i].end(), pkt->data);
      if (avcodec_send_packet(ctx.get(), pkt.get()) < 0 && last && error.empty())
        error = "the decoder refused the picture";
      av_packet_unref(pkt.get());
    }
    if (!last) drain();
  }
  avcodec_send_packet(ctx.get(), nullptr);
  drain();
  // The H.265 decoder drops a picture whose slice data runs out without a word.
  if (pictures < gop.size() && error.empty()) error = "the decoder made no picture of it";
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    g_log_sink = nullptr;
  }
  av_log_set_callback(av_log_default_callback);
  av_log_set_level(AV_LOG_INFO);
  while (!error.empty() && (error.back() == '\n' || error.back() == ' ')) error.pop_back();
  return error;
}

}  // namespace mp4tool
