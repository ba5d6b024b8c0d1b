// libavformat's mp4 muxer in three modes: index at the end (its default),
// +faststart (index moved to the front at the end) and fragmented
// (frag_keyframe+empty_moov). It gets the same samples as the other back ends,
// already length-prefixed with an avcC configuration (its cheapest path: no
// start-code conversion), and av_write_frame, since the frames come in time
// stamp order.
extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>

#include "backend.h"
#include "measure.h"

namespace bench {
namespace {

std::string av_error(int code) {
  char buf[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, buf, sizeof buf);
  return buf;
}

void check(int r, const char *what) {
  if (r < 0) throw std::runtime_error(std::string(what) + ": " + av_error(r));
}

uint8_t *copy_extradata(const uint8_t *data, size_t n) {
  auto *p = static_cast<uint8_t *>(av_mallocz(n + AV_INPUT_BUFFER_PADDING_SIZE));
  if (!p) throw std::runtime_error("out of memory");
  std::memcpy(p, data, n);
  return p;
}

std::vector<uint8_t> avcc_config(const Input &in) {
  std::vector<uint8_t> c = {1, in.sps[1], in.sps[2], in.sps[3], 0xFF, 0xE1};
  c.push_back(uint8_t(in.sps.size() >> 8));
  c.push_back(uint8_t(in.sps.size()));
  c.insert(c.end(), in.sps.begin(), in.sps.end());
  c.push_back(1);
  c.push_back(uint8_t(in.pps.size() >> 8));
  c.push_back(uint8_t(in.pps.size()));
  c.insert(c.end(), in.pps.begin(), in.pps.end());
  return c;
}

// The custom I/O of the slow-card runs: a paced descriptor.
struct PacedIo {
  int fd = -1;
  Pacer pacer{1};
};

int io_write(void *opaque, uint8_t *buf, int size) {
  auto *io = static_cast<PacedIo *>(opaque);
  io->pacer.pay(size_t(size));
  return write_all(io->fd, buf, size_t(size)) ? size : AVERROR(EIO);
}

int64_t io_seek(void *opaque, int64_t offset, int whence) {
  auto *io = static_cast<PacedIo *>(opaque);
  if (whence == AVSEEK_SIZE) {
    struct stat st {};
    return fstat(io->fd, &st) == 0 ? st.st_size : -1;
  }
  const off_t r = lseek(io->fd, offset, whence & ~AVSEEK_FORCE);
  return r < 0 ? AVERROR(errno) : r;
}

class LavfBackend final : public Backend {
 public:
  LavfBackend(const Options &opt, std::string movflags)
      : opt_(opt), movflags_(std::move(movflags)) {}
  ~LavfBackend() override { release(); }

  void setup(const Options &, Input &in) override {
    if (in.hevc) throw std::runtime_error("the libavformat back ends take H.264 only");
    av_log_set_level(AV_LOG_ERROR);
    in_ = &in;
    avcc_ = avcc_config(in);
    pkt_ = av_packet_alloc();
    if (!pkt_) throw std::runtime_error("out of memory");
  }

  void open() override {
    check(avformat_alloc_output_context2(&oc_, nullptr, "mp4", opt_.out_path.c_str()),
          "alloc output");
    AVStream *v = avformat_new_stream(oc_, nullptr);
    if (!v) throw std::runtime_error("new stream");
    v->time_base = {1, 1000};
    v->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    v->codecpar->codec_id = AV_CODEC_ID_H264;
    v->codecpar->width = in_->width;
    v->codecpar->height = in_->height;
    v->codecpar->extradata = copy_extradata(avcc_.data(), avcc_.size());
    v->codecpar->extradata_size = int(avcc_.size());
    if (in_->audio_frames) {
      AVStream *a = avformat_new_stream(oc_, nullptr);
      if (!a) throw std::runtime_error("new stream");
      a->time_base = {1, 1000};
      a->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
      a->codecpar->codec_id = AV_CODEC_ID_AAC;
      a->codecpar->sample_rate = in_->sample_rate;
      av_channel_layout_default(&a->codecpar->ch_layout, 1);
      a->codecpar->frame_size = 1024;
      a->codecpar->extradata = copy_extradata(in_->aac_config, 2);
      a->codecpar->extradata_size = 2;
    }
    if (opt_.throttle_bytes_per_s > 0) {
      io_.fd = ::open(opt_.out_path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
      if (io_.fd < 0) throw std::runtime_error("cannot open " + opt_.out_path);
      io_.pacer = Pacer(opt_.throttle_bytes_per_s);
      constexpr int kIoBuffer = 262144;  // the size avio_open gives a writable file
      auto *buf = static_cast<unsigned char *>(av_malloc(kIoBuffer));
      oc_->pb = avio_alloc_context(buf, kIoBuffer, 1, &io_, nullptr, io_write, io_seek);
      if (!oc_->pb) throw std::runtime_error("avio context");
      oc_->pb->min_packet_size = kIoBuffer;  // flush whole buffers only, as for a file
      custom_io_ = true;
    } else {
      check(avio_open(&oc_->pb, opt_.out_path.c_str(), AVIO_FLAG_WRITE), "avio_open");
    }
    AVDictionary *opts = nullptr;
    if (!movflags_.empty()) av_dict_set(&opts, "movflags", movflags_.c_str(), 0);
    const int r = avformat_write_header(oc_, &opts);
    av_dict_free(&opts);
    check(r, "write header");
  }

  int video(Input &in, const Unit &u) override { return write(in, u, 0); }
  int audio(Input &in, const Unit &u) override { return write(in, u, 1); }

  void close() override {
    check(av_write_trailer(oc_), "write trailer");
    release();
  }

 private:
  int write(Input &in, const Unit &u, int stream) {
    AVStream *st = oc_->streams[stream];
    pkt_->data = in.samples.data() + u.sample_off;
    pkt_->size = int(u.sample_len);
    pkt_->stream_index = stream;
    pkt_->pts = pkt_->dts = av_rescale_q(u.ts, {1, 1000}, st->time_base);
    pkt_->duration = av_rescale_q(u.duration, {1, 1000}, st->time_base);
    pkt_->flags = (stream == 1 || u.key) ? AV_PKT_FLAG_KEY : 0;
    return av_write_frame(oc_, pkt_) < 0 ? -1 : 0;
  }

  void release() {
    if (oc_) {
      if (custom_io_) {
        if (oc_->pb) av_freep(&oc_->pb->buffer);
        avio_context_free(&oc_->pb);
      } else {
        avio_closep(&oc_->pb);
      }
      avformat_free_context(oc_);
      oc_ = nullptr;
    }
    if (io_.fd >= 0) ::close(io_.fd);
    io_.fd = -1;
    av_packet_free(&pkt_);
  }

  Options opt_;
  std::string movflags_;
  Input *in_ = nullptr;
  std::vector<uint8_t> avcc_;
  AVFormatContext *oc_ = nullptr;
  AVPacket *pkt_ = nullptr;
  PacedIo io_;
  bool custom_io_ = false;
};

const RegisterBackend lavf_default({"lavf", "libavformat mp4, index at the end (default)",
                                    [](const Options &o) {
                                      return std::make_unique<LavfBackend>(o, "");
                                    }});
const RegisterBackend lavf_faststart(
    {"lavf-faststart", "libavformat mp4, +faststart",
     [](const Options &o) { return std::make_unique<LavfBackend>(o, "+faststart"); }, false});
const RegisterBackend lavf_frag({"lavf-frag", "libavformat mp4, frag_keyframe+empty_moov",
                                 [](const Options &o) {
                                   return std::make_unique<LavfBackend>(o,
                                                                        "frag_keyframe+empty_moov");
                                 }});

}  // namespace
}  // namespace bench
