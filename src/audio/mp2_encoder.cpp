// MPEG audio layer II encoding over libavcodec's "mp2" encoder, behind the
// library's own checks of channel count, sample rate and bit rate.
#include <cstdlib>
#include <cstring>
#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
}

#include "audio/mp2_encoder.h"

extern "C" {
// Sample rates of MPEG-1; MPEG-2 low sampling frequencies are their halves.
const uint16_t mpa_freq_tab[3] = {44100, 48000, 32000};

// Bit rates in kbit/s, [MPEG-2 LSF][layer - 1][bit-rate index].
const uint16_t mpa_bitrate_tab[2][3][15] = {
    {{0, 32, 64, 96, 128, 160, 192, 224, 256, 288, 320, 352, 384, 416, 448},
     {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384},
     {0, 32, 40, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320}},
    {{0, 32, 48, 56, 64, 80, 96, 112, 128, 144, 160, 176, 192, 224, 256},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160},
     {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160}}};
}

namespace mp4rec {

namespace {

// Returns the MPEG version's LSF flag (0 MPEG-1, 1 MPEG-2) or -1 for a rate
// that layer II does not know.
int lsf_for_rate(int sample_rate) {
  for (int lsf = 0; lsf < 2; ++lsf) {
    for (uint16_t f : mpa_freq_tab) {
      if (sample_rate == (f >> lsf)) return lsf;
    }
  }
  return -1;
}

bool layer2_bitrate_ok(int lsf, int bitrate) {
  const int kbps = bitrate / 1000;
  if (kbps == 0) return true;  // free format
  for (uint16_t b : mpa_bitrate_tab[lsf][1]) {
    if (b != 0 && b == kbps) return true;
  }
  return false;
}

void release(Mp2Encoder *enc) {
  if (enc == nullptr) return;
  av_packet_free(&enc->packet);
  av_frame_free(&enc->frame);
  avcodec_free_context(&enc->codec);
  std::free(enc);
}

}  // namespace

}  // namespace mp4rec

using mp4rec::Mp2Encoder;

extern "C" void *MP2_encode_init(int sample_rate, int bitrate, int channels) {
  if (channels >= 3 || channels < 1) return nullptr;
  auto *enc = static_cast<Mp2Encoder *>(std::calloc(1, sizeof(Mp2Encoder)));
  if (enc == nullptr) return nullptr;
  const int lsf = mp4rec::lsf_for_rate(sample_rate);
  if (lsf < 0 || !mp4rec::layer2_bitrate_ok(lsf, bitrate)) {
    std::free(enc);
    return nullptr;
  }
  enc->channels = channels;
  enc->sample_rate = sample_rate;
  enc->bitrate = bitrate;

  const AVCodec *codec = avcodec_find_encoder_by_name("mp2");
  if (codec == nullptr || (enc->codec = avcodec_alloc_context3(codec)) == nullptr) {
    mp4rec::release(enc);
    return nullptr;
  }
  AVCodecContext *c = enc->codec;
  c->sample_fmt = AV_SAMPLE_FMT_S16;
  c->sample_rate = sample_rate;
  c->bit_rate = bitrate;
  av_channel_layout_default(&c->ch_layout, channels);
  if (avcodec_open2(c, codec, nullptr) < 0 || c->frame_size != mp4rec::kMp2FrameSamples) {
    mp4rec::release(enc);
    return nullptr;
  }
  enc->frame = av_frame_alloc();
  enc->packet = av_packet_alloc();
  if (enc->frame == nullptr || enc->packet == nullptr) {
    mp4rec::release(enc);
    return nullptr;
  }
  enc->frame->format = AV_SAMPLE_FMT_S16;
  enc->frame->nb_samples = mp4rec::kMp2FrameSamples;
  enc->frame->sample_rate = sample_rate;
  if (av_channel_layout_copy(&enc->frame->ch_layout, &c->ch_layout) < 0 ||
      av_frame_get_buffer(enc->frame, 0) < 0) {
    mp4rec::release(enc);
    return nullptr;
  }
  return enc;
}

extern "C" int MP2_encode_frame(void *ctx, unsigned int *out_length, unsigned char *out,
                                int /*out_size*/, short *samples) {
  auto *enc = static_cast<Mp2Encoder *>(ctx);
  if (out_length != nullptr) *out_length = 0;
  if (enc == nullptr || out == nullptr || samples == nullptr || out_length == nullptr) return 1;
  // The bit writer addresses the caller's buffer with the fixed frame bound.
  init_put_bits(&enc->bits, out, mp4rec::kMp2MaxFrameBytes);

  AVFrame *f = enc->frame;
  if (av_frame_make_writable(f) < 0) return 1;
  std::memcpy(f->data[0], samples,
              sizeof(int16_t) * mp4rec::kMp2FrameSamples * static_cast<size_t>(enc->channels));
  f->pts = enc->samples_encoded;
  // The layer II encoder has no delay: one frame in gives one packet out.
  if (avcodec_send_frame(enc->codec, f) < 0) return 1;
  if (avcodec_receive_packet(enc->codec, enc->packet) == 0) {
    const int n = enc->packet->size < mp4rec::kMp2MaxFrameBytes ? enc->packet->size
                                                                : mp4rec::kMp2MaxFrameBytes;
    std::memcpy(out, enc->packet->data, static_cast<size_t>(n));
    *out_length = static_cast<unsigned int>(n);
    av_packet_unref(enc->packet);
  }
  enc->samples_encoded += mp4rec::kMp2FrameSamples;
  return 1;
}

extern "C" void MP2_encode_close(void *ctx) {
  mp4rec::release(static_cast<Mp2Encoder *>(ctx));
}
