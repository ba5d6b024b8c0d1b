// The index of a finished recording, written from the sample lists once they
// are complete. The MJPEG file and the H.264 file with the index at the end
// share the tree; they differ in the video sample entry (mp4v with a fixed
// JPEG esds, or avc1 with avcC), the presence of stss and udta, the form of
// the tkhd width and height, and the audio stts.
#include "mp4/alt/at_end_boxes.h"

#include <ctime>
#include <type_traits>

namespace mp4rec::alt {

namespace {

using box::Scope;
using box::Sink;

constexpr uint32_t kLastSampleDelta = 50;  // ms given to the newest video sample

uint32_t count_of(uint32_t v) {
  return v;
}
uint32_t count_of(const std::atomic<uint32_t> &v) {
  return v.load(std::memory_order_relaxed);
}

// --- Family differences, overloaded on the record -------------------------

bool size_in_fixed_point(const mp4_mjpeg_ctx &) {
  return false;
}
bool size_in_fixed_point(const mp4_handle &) {
  return true;
}
uint32_t esds_format(const mp4_mjpeg_ctx &) {
  return 1;  // always MP2
}
uint32_t esds_format(const mp4_handle &h) {
  return h.audioFormat;
}
bool audio_stts_per_frame(const mp4_handle &h) {
  return h.audioTimeStamps == 1;
}

// --- Durations --------------------------------------------------------------

// Video: last time stamp - first + 50 ms, unsigned 32-bit.
template <typename Rec>
uint32_t video_duration(const Rec &r) {
  if (r.videoHead == nullptr) return kLastSampleDelta;
  return r.videoTail->timeStamp - r.videoHead->timeStamp + kLastSampleDelta;
}

// Audio: frames x samples per frame / samples per ms, the product modulo 2^32.
template <typename Rec>
uint32_t audio_duration(const Rec &r) {
  if (r.audioKHz == 0) return 0;  // the writers that read it refuse such a record
  return count_of(r.audioCount) * r.audioFrameSamples / r.audioKHz;
}

// --- Sample tables ----------------------------------------------------------

// One entry per sample, never merged: (1, distance to the next sample's time
// stamp), and (1, 50) for the last.
template <typename Node>
int32_t write_stts_per_sample(Sink &s, const Node *head, uint32_t count, uint32_t last_delta) {
  if (!s) return -1;
  Scope box(s, "stts");
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.u32(count);
  for (const Node *n = head; n != nullptr; n = n->next) {
    s.u32(1);
    s.u32(n->next != nullptr ? n->next->timeStamp - n->timeStamp : last_delta);
  }
  return box.close();
}

// The audio stts of a recording without audio time stamps: one run of every
// frame, written with its final size.
int32_t write_stts_single_run(Sink &s, uint32_t frames, uint32_t delta) {
  if (!s) return -1;
  Scope box(s, "stts", 24);
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.u32(1);
  s.u32(frames);
  s.u32(delta);
  return box.close();
}

// A frame's audio stts delta from the time stamps, converted to sample units:
// ((next - this) x rate, kept to 32 bits) / 1000; the last frame gets one
// frame's length.
uint32_t audio_time_delta(const audioNode &n, uint32_t rate, uint32_t frame_samples) {
  return n.next != nullptr ? (n.next->timeStamp - n.timeStamp) * rate / 1000 : frame_samples;
}

// The audio stts from the frames' time stamps, written with its final size.
int32_t write_stts_audio_times(Sink &s, const audioNode *head, uint32_t frames, uint32_t rate,
                               uint32_t frame_samples) {
  if (!s) return -1;
  Scope box(s, "stts", frames * 8 + 16);
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.u32(frames);
  for (const audioNode *n = head; n != nullptr; n = n->next) {
    s.u32(1);
    s.u32(audio_time_delta(*n, rate, frame_samples));
  }
  return box.close();
}

// 1-based numbers of the IDR samples.
uint32_t sync_sample_count(const videoNode *head) {
  uint32_t k = 0;
  for (const videoNode *n = head; n != nullptr; n = n->next) k += n->type == 1;
  return k;
}
int32_t write_stss(Sink &s, const videoNode *head) {
  if (!s) return -1;
  Scope box(s, "stss");
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.u32(sync_sample_count(head));
  uint32_t number = 0;
  for (const videoNode *n = head; n != nullptr; n = n->next) {
    ++number;
    if (n->type == 1) s.u32(number);
  }
  return box.close();
}

// Every sample of the track in chunk 1.
int32_t write_stsc_one_chunk(Sink &s, uint32_t samples) {
  if (!s) return -1;
  Scope box(s, "stsc");
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.u32(1);
  s.u32(1);  // first chunk
  s.u32(samples);
  s.u32(1);  // sample description index
  return box.close();
}

template <typename Node>
int32_t write_stsz(Sink &s, const Node *head, uint32_t count) {
  if (!s) return -1;
  Scope box(s, "stsz");
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.u32(0);  // sizes differ: one entry per sample
  s.u32(count);
  for (const Node *n = head; n != nullptr; n = n->next) s.u32(n->size);
  return box.close();
}

int32_t write_stco_one_chunk(Sink &s, uint32_t offset) {
  if (!s) return -1;
  Scope box(s, "stco");
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.u32(1);
  s.u32(offset);
  return box.close();
}

// --- Sample descriptions ----------------------------------------------------

int32_t write_video_entry(Sink &s, const mp4_mjpeg_ctx &ctx) {
  Scope mp4v(s, "mp4v");
  if (!mp4v.ok()) return -1;
  box::write_visual_entry_fields(s, static_cast<uint32_t>(ctx.width),
                                 static_cast<uint32_t>(ctx.height));
  s.add(box::write_esds_jpeg(s));
  return mp4v.close();
}

// avc1 with avcC built from the handle's SPS and PPS. Without either the
// configuration stays empty and the entry reports -1.
int32_t write_video_entry(Sink &s, const mp4_handle &h) {
  Scope avc1(s, "avc1");
  if (!avc1.ok()) return -1;
  box::write_visual_entry_fields(s, h.width, h.height);
  const bool known = h.sps != nullptr && h.pps != nullptr && h.spsLen != 0 && h.ppsLen != 0;
  {
    Scope avcc(s, "avcC");
    if (!avcc.ok()) return -1;
    if (known) box::write_avc_config(s, {h.sps, h.spsLen}, {h.pps, h.ppsLen});
    s.add(avcc.close());
  }
  const int32_t r = avc1.close();
  return known ? r : -1;
}

template <typename Rec>
int32_t write_stsd(Sink &s, const Rec &r) {
  if (!s) return -1;
  Scope stsd(s, "stsd");
  if (!stsd.ok()) return -1;
  s.full(0, 0);
  s.u32(1);
  s.add(write_video_entry(s, r));
  return stsd.close();
}

template <typename Rec>
int32_t write_audio_stsd(Sink &s, const Rec &r) {
  if (!s) return -1;
  Scope stsd(s, "stsd");
  if (!stsd.ok()) return -1;
  s.full(0, 0);
  s.u32(1);
  {
    Scope mp4a(s, "mp4a");
    if (!mp4a.ok()) return -1;
    box::write_audio_entry_fields(s, r.sampleRate);
    s.add(box::write_esds_audio(s, esds_format(r), r.sampleRate));
    s.add(mp4a.close());
  }
  return stsd.close();
}

// The audio media duration in the track's time scale: the sum of the deltas
// that write_audio_stts writes.
template <typename Rec>
uint32_t audio_media_duration(const Rec &r) {
  if constexpr (std::is_same_v<Rec, mp4_handle>) {
    if (audio_stts_per_frame(r)) {
      uint32_t sum = 0;
      for (const audioNode *n = r.audioHead; n != nullptr; n = n->next) {
        sum += audio_time_delta(*n, r.sampleRate, r.audioFrameSamples);
      }
      return sum;
    }
  }
  return r.audioFrameSamples * count_of(r.audioCount);
}

template <typename Rec>
int32_t write_audio_stts(Sink &s, const Rec &r) {
  if constexpr (std::is_same_v<Rec, mp4_handle>) {
    if (audio_stts_per_frame(r)) {
      return write_stts_audio_times(s, r.audioHead, count_of(r.audioCount), r.sampleRate,
                                    r.audioFrameSamples);
    }
  }
  return write_stts_single_run(s, count_of(r.audioCount), r.audioFrameSamples);
}

// --- Tracks -----------------------------------------------------------------

template <typename Rec>
int32_t write_video_trak(Sink &s, const Rec &r, uint32_t dv) {
  if (!s) return -1;
  Scope trak(s, "trak");
  if (!trak.ok()) return -1;
  s.add(box::write_tkhd(s, {.creation_time = r.creationTime,
                            .track_id = 1,
                            .duration = dv,
                            .volume = 0,
                            .width = static_cast<uint32_t>(r.width),
                            .height = static_cast<uint32_t>(r.height),
                            .fixed_point = size_in_fixed_point(r),
                            .guard = r.moovEnable}));
  s.add(box::write_edts(s, dv));
  {
    Scope mdia(s, "mdia");
    if (!mdia.ok()) return -1;
    s.add(box::write_mdhd(s, r.creationTime, r.videoTimeScale, dv));
    s.add(box::write_hdlr(s, "vide"));
    {
      Scope minf(s, "minf");
      if (!minf.ok()) return -1;
      s.add(box::write_vmhd(s));
      s.add(box::write_dinf(s));
      {
        Scope stbl(s, "stbl");
        if (!stbl.ok()) return -1;
        const uint32_t n = count_of(r.videoCount);
        s.add(write_stsd(s, r));
        s.add(write_stts_per_sample(s, r.videoHead, n, kLastSampleDelta));
        if constexpr (std::is_same_v<Rec, mp4_handle>) s.add(write_stss(s, r.videoHead));
        s.add(write_stsc_one_chunk(s, n));
        s.add(write_stsz(s, r.videoHead, n));
        s.add(write_stco_one_chunk(s, r.mdatPos + 8));
        s.add(stbl.close());
      }
      s.add(minf.close());
    }
    s.add(mdia.close());
  }
  return trak.close();
}

template <typename Rec>
int32_t write_audio_trak(Sink &s, const Rec &r, uint32_t da) {
  if (!s) return -1;
  Scope trak(s, "trak");
  if (!trak.ok()) return -1;
  const uint32_t m = count_of(r.audioCount);
  s.add(box::write_tkhd(s, {.creation_time = r.creationTime,
                            .track_id = 2,
                            .duration = da,
                            .volume = 0x0100,
                            .width = 0,
                            .height = 0,
                            .fixed_point = size_in_fixed_point(r),
                            .guard = r.audioKHz}));
  {
    Scope mdia(s, "mdia");
    if (!mdia.ok()) return -1;
    s.add(box::write_mdhd(s, r.creationTime, r.sampleRate, audio_media_duration(r)));
    s.add(box::write_hdlr(s, "soun"));
    {
      Scope minf(s, "minf");
      if (!minf.ok()) return -1;
      s.add(box::write_smhd(s));
      s.add(box::write_dinf(s));
      {
        Scope stbl(s, "stbl");
        if (!stbl.ok()) return -1;
        s.add(write_audio_stsd(s, r));
        s.add(write_audio_stts(s, r));
        s.add(write_stsc_one_chunk(s, m));
        s.add(write_stsz(s, r.audioHead, m));
        s.add(write_stco_one_chunk(s, r.mp2DataPos));
        s.add(stbl.close());
      }
      s.add(minf.close());
    }
    s.add(mdia.close());
  }
  return trak.close();
}

template <typename Rec>
int32_t write_children(Sink &s, const Rec &r, uint32_t udta_padding = 0) {
  if (!s) return -1;
  const uint32_t dv = video_duration(r);
  const uint32_t da = audio_duration(r);
  s.add(box::write_mvhd(s, {.creation_time = r.creationTime,
                            .time_scale = r.movieTimeScale,
                            .duration = dv > da ? dv : da,
                            .moov_enable = r.moovEnable,
                            .audio_khz = r.audioKHz}));
  s.add(write_video_trak(s, r, dv));
  s.add(write_audio_trak(s, r, da));
  if constexpr (std::is_same_v<Rec, mp4_handle>) s.add(box::write_udta(s, udta_padding));
  return s.status();
}

template <typename Rec>
int32_t write_head_boxes(Sink &s, Rec &r) {
  if (!s) return -1;
  s.add(box::write_ftyp(s, true));
  return s.add(box::write_free_mdat(s, &r.mdatPos));
}

// The moov behind the samples, then the mdat size. Until that last word the
// mdat runs to the end of the file and hides whatever part of the moov is
// there, so a cut at any moment leaves either a file without index (which
// `mp4rec repair` rebuilds) or the finished one, never a broken index.
template <typename Rec>
int32_t write_end_boxes(Sink &s, Rec &r) {
  if (!s) return -1;
  {
    Scope moov(s, "moov");
    if (!moov.ok()) return -1;
    s.add(write_children(s, r));
    s.add(moov.close());
  }
  return s.add(box::write_u32_at(s, r.mdatPos, count_of(r.mediaBytes) + 8));
}

}  // namespace

int32_t write_head(Sink &s, mp4_mjpeg_ctx &ctx) {
  return write_head_boxes(s, ctx);
}
int32_t write_head(Sink &s, mp4_handle &h) {
  return write_head_boxes(s, h);
}
int32_t write_end(Sink &s, mp4_mjpeg_ctx &ctx) {
  return write_end_boxes(s, ctx);
}
int32_t write_end(Sink &s, mp4_handle &h) {
  return write_end_boxes(s, h);
}
int32_t write_moov_children(Sink &s, const mp4_handle &h, uint32_t udta_padding) {
  return write_children(s, h, udta_padding);
}

uint32_t moov_size(const mp4_handle &h) {
  const uint32_t n = count_of(h.videoCount);
  const uint32_t m = count_of(h.audioCount);
  const bool config = h.sps != nullptr && h.pps != nullptr && h.spsLen != 0 && h.ppsLen != 0;
  const uint32_t avcc = 8 + (config ? box::avc_config_size(h.spsLen, h.ppsLen) : 0);
  const uint32_t avc1 = 8 + box::kVisualEntryFieldsSize + avcc;
  const uint32_t vstbl = 8 + (16 + avc1) + (16 + 8 * n) +
                         (16 + 4 * sync_sample_count(h.videoHead)) + 28 + (20 + 4 * n) + 20;
  const uint32_t vminf = 8 + box::kVmhdSize + box::kDinfSize + vstbl;
  const uint32_t vtrak =
      8 + box::kTkhdSize + box::kEdtsSize + (8 + box::kMdhdSize + box::kHdlrSize + vminf);
  const uint32_t mp4a = 8 + box::kAudioEntryFieldsSize + box::esds_audio_size(h.audioFormat);
  const uint32_t stts_entries = audio_stts_per_frame(h) ? m : 1;
  const uint32_t astbl = 8 + (16 + mp4a) + (16 + 8 * stts_entries) + 28 + (20 + 4 * m) + 20;
  const uint32_t aminf = 8 + box::kSmhdSize + box::kDinfSize + astbl;
  const uint32_t atrak = 8 + box::kTkhdSize + (8 + box::kMdhdSize + box::kHdlrSize + aminf);
  return 8 + box::kMvhdSize + vtrak + atrak + box::kUdtaSize;
}

uint32_t creation_time_now() {
  // Seconds from 1904 to 1970 as the local time functions see them.
  std::tm epoch1970{};
  epoch1970.tm_mday = 1;
  epoch1970.tm_year = 70;
  std::tm epoch1904{};
  epoch1904.tm_mday = 1;
  epoch1904.tm_year = 4;
  const std::time_t t1970 = std::mktime(&epoch1970);
  const std::time_t t1904 = std::mktime(&epoch1904);
  const uint32_t offset =
      t1970 == static_cast<std::time_t>(-1) || t1904 == static_cast<std::time_t>(-1)
          ? kMp4EpochOffset
          : static_cast<uint32_t>(t1970 - t1904);
  return creation_time(offset);
}

}  // namespace mp4rec::alt
