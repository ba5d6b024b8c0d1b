// MPEG audio layer II encoding over libavcodec's "mp2" encoder, behind the
// library's own checks of channel count, sample rate and bit rate.
#include <algorithm>
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

int mp2_lsf_for_rate(int sample_rate) {
  for (int lsf = 0; lsf < 2; ++lsf) {
    for (uint16_t f : mpa_freq_tab) {
      if (sample_rate == (f >> lsf)) return lsf;
    }
  }
  return -1;
}

bool mp2_bitrate_allowed(int lsf, int bitrate) {
  const int kbps = bitrate / 1000;
  if (kbps == 0) return true;  // free format
  const auto &layer2 = mpa_bitrate_tab[lsf][1];
  return std::find(std::begin(layer2) + 1, std::end(layer2), kbps) != std::end(layer2);
}

namespace {

// Frees the libavcodec objects and the context itself; the context is plain
// calloc'd memory because it starts with the C bit writer record.
struct EncoderDeleter {
  void operator()(Mp2Encoder *enc) const {
    av_packet_free(&enc->packet);
    av_frame_free(&enc->frame);
    avcodec_free_context(&enc->codec);
    std::free(enc);
  }
};
using EncoderPtr = std::unique_ptr<Mp2Encoder, EncoderDeleter>;

// Opens libavcodec's encoder and the frame and packet that carry one frame.
bool open_codec(Mp2Encoder &enc) {
  const AVCodec *codec = avcodec_find_encoder_by_name("mp2");
  if (codec == nullptr || (enc.codec = avcodec_alloc_context3(codec)) == nullptr) return false;
  AVCodecContext *c = enc.codec;
  c->sample_fmt = AV_SAMPLE_FMT_S16;
  c->sample_rate = enc.sample_rate;
  // Below 1 kbit/s is free format: the encoder then picks its own rate.
  c->bit_rate = enc.bitrate / 1000 == 0 ? 0 : enc.bitrate;
  av_channel_layout_default(&c->ch_layout, enc.channels);
  if (avcodec_open2(c, codec, nullptr) < 0 || c->frame_size != kMp2FrameSamples) return false;

  enc.frame = av_frame_alloc();
  enc.packet = av_packet_alloc();
  if (enc.frame == nullptr || enc.packet == nullptr) return false;
  enc.frame->format = AV_SAMPLE_FMT_S16;
  enc.frame->nb_samples = kMp2FrameSamples;
  enc.frame->sample_rate = enc.sample_rate;
  return av_channel_layout_copy(&enc.frame->ch_layout, &c->ch_layout) >= 0 &&
         av_frame_get_buffer(enc.frame, 0) >= 0;
}

}  // namespace

}  // namespace mp4rec

using mp4rec::Mp2Encoder;

extern "C" void *MP2_encode_init(int sample_rate, int bitrate, int channels) {
  if (channels >= 3 || channels < 1) return nullptr;
  mp4rec::EncoderPtr enc(static_cast<Mp2Encoder *>(std::calloc(1, sizeof(Mp2Encoder))));
  if (!enc) return nullptr;
  const int lsf = mp4rec::mp2_lsf_for_rate(sample_rate);
  if (lsf < 0 || !mp4rec::mp2_bitrate_allowed(lsf, bitrate)) return nullptr;
  enc->channels = channels;
  enc->sample_rate = sample_rate;
  enc->bitrate = bitrate;
  if (!mp4rec::open_codec(*enc)) return nullptr;
  return enc.release();
}

extern "C" int MP2_encode_frame(void *ctx, unsigned int *out_length, unsigned char *out,
                                int /*out_size*/, short *samples) {
  auto *enc = static_cast<Mp2Encoder *>(ctx);
  if (out_length != nullptr) *out_length = 0;
  if (enc == nullptr || out == nullptr || samples == nullptr || out_length == nullptr) return 1;
  // The output buffer is taken to hold one frame at its largest, whatever
  // size the caller gives (callers pass more).
  init_put_bits(&enc->bits, out, mp4rec::kMp2MaxFrameBytes);

  AVFrame *f = enc->frame;
  if (av_frame_make_writable(f) == 0) {
    std::memcpy(f->data[0], samples,
                sizeof(int16_t) * mp4rec::kMp2FrameSamples * static_cast<size_t>(enc->channels));
    f->pts = enc->samples_encoded;
    // The layer II encoder has no delay: one frame in gives one packet out.
    if (avcodec_send_frame(enc->codec, f) == 0 &&
        avcodec_receive_packet(enc->codec, enc->packet) == 0) {
      const int n = std::min(enc->packet->size, mp4rec::kMp2MaxFrameBytes);
      std::memcpy(out, enc->packet->data, static_cast<size_t>(n));
      enc->bits.buf_ptr = out + n;
      *out_length = static_cast<unsigned int>(n);
      av_packet_unref(enc->packet);
    }
  }
  enc->samples_encoded += mp4rec::kMp2FrameSamples;
  return 1;
}

extern "C" void MP2_encode_close(void *ctx) {
  if (ctx != nullptr) mp4rec::EncoderDeleter()(static_cast<Mp2Encoder *>(ctx));
}
