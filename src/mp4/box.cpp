// Box writing shared by every MP4 writer: the sink with its status sum, the
// box scope with its size patch, and the boxes whose layout the writers share.
#include "mp4/box.h"

#include <array>

#include "buffer/card.h"

namespace mp4rec::box {

int32_t Sink::tell() const {
  return file_ == nullptr ? -1 : mp4_ftell(file_);
}

void Sink::u8(uint32_t v) {
  add(mp4_put_byte(file_, static_cast<int>(v & 0xFF)));
}
void Sink::u16(uint32_t v) {
  add(mp4_put_be16(file_, v));
}
void Sink::u24(uint32_t v) {
  add(mp4_put_be24(file_, v));
}
void Sink::u32(uint32_t v) {
  add(mp4_put_be32(file_, v));
}
void Sink::tag(const char *four_cc) {
  add(mp4_put_tag(file_, four_cc));
}
void Sink::bytes(std::span<const uint8_t> data) {
  if (data.empty()) return;  // nothing to write (and possibly no pointer)
  add(mp4_put_buffer(file_, data.data(), static_cast<unsigned int>(data.size())));
}
void Sink::zeros(uint32_t n) {
  static constexpr std::array<uint8_t, 256> kZero{};
  while (n > 0) {
    const uint32_t chunk = n < kZero.size() ? n : static_cast<uint32_t>(kZero.size());
    add(mp4_put_buffer(file_, kZero.data(), chunk));
    n -= chunk;
  }
}

Scope::Scope(Sink &s, const char *type, uint32_t size)
    : s_(s), start_(s.tell()), patched_(size == kPatched) {
  if (start_ < 0) return;
  s_.u32(size);
  s_.tag(type);
}

int32_t Scope::patch() {
  const int32_t end = s_.tell();
  if (end < 0) return -1;
  s_.add(mp4_fseek(s_.file(), start_, SEEK_SET));
  s_.u32(static_cast<uint32_t>(end - start_));
  s_.add(mp4_fseek(s_.file(), end, SEEK_SET));
  return s_.status();
}

int32_t Scope::close() {
  if (patched_ && ok()) s_.add(patch());
  return s_.status();
}

void Run::u32(uint32_t v) {
  const uint8_t b[4] = {static_cast<uint8_t>(v >> 24), static_cast<uint8_t>(v >> 16),
                        static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
  bytes(b);
}

void Run::tag(const char *four_cc) {
  bytes({reinterpret_cast<const uint8_t *>(four_cc), 4});
}

int32_t put_at(Sink &s, const Run &run) {
  if (run.empty()) return 0;
  const auto data = run.data();
  const int32_t r = s && card::write_at(s.file(), data.data(), data.size(), run.at()) == 0 ? 0 : -1;
  s.add(r);
  return r;
}

int32_t write_u32_at(Sink &s, uint32_t pos, uint32_t value) {
  if (!s || mp4_fseek(s.file(), static_cast<int>(pos), SEEK_SET) != 0) return -1;
  s.u32(value);
  return s.status();
}

int32_t write_ftyp(Sink &s, bool patched, const char *codec_brand) {
  if (!s) return -1;
  Scope box(s, "ftyp", patched ? Scope::kPatched : kFtypSize);
  if (!box.ok()) return -1;
  s.tag("isom");
  s.u32(0x200);
  for (const char *brand : {"isom", "iso2", codec_brand, "mp41"}) s.tag(brand);
  return box.close();
}

int32_t write_free_mdat(Sink &s, uint32_t *mdat_pos) {
  if (!s) return -1;
  s.u32(8);
  s.tag("free");
  const int32_t pos = s.tell();
  if (pos < 0) return -1;
  mark(mdat_pos, static_cast<uint32_t>(pos));
  s.u32(0);
  s.tag("mdat");
  return s.status();
}

static void write_matrix(Sink &s) {
  for (uint32_t v : kMatrix) s.u32(v);
}

int32_t write_mvhd(Sink &s, const MvhdParams &p, const MvhdMarks &m) {
  if (!s || p.moov_enable == 0 || p.audio_khz == 0) return -1;
  Scope box(s, "mvhd", kMvhdSize);
  if (!box.ok()) return -1;
  mark(m.box, box.start());
  s.full(0, 0);
  s.u32(p.creation_time);
  s.u32(p.creation_time);
  s.u32(p.time_scale);
  mark(m.duration, static_cast<uint32_t>(s.tell()));
  s.u32(p.duration);
  s.u32(0x00010000);  // rate 1.0
  s.u16(0x0100);      // volume 1.0
  s.zeros(2 + 8);     // reserved
  write_matrix(s);
  s.zeros(6 * 4);  // pre-defined
  s.u32(3);        // next track ID
  return box.close();
}

int32_t write_tkhd(Sink &s, const TkhdParams &p, const TkhdMarks &m) {
  if (!s || p.guard == 0) return -1;
  Scope box(s, "tkhd", kTkhdSize);
  if (!box.ok()) return -1;
  mark(m.box, box.start());
  s.full(0, 0xF);
  s.u32(p.creation_time);
  s.u32(p.creation_time);
  s.u32(p.track_id);
  s.u32(0);  // reserved
  mark(m.duration, static_cast<uint32_t>(s.tell()));
  s.u32(p.duration);
  s.zeros(8);  // reserved
  s.u16(0);    // layer
  s.u16(0);    // alternate group
  s.u16(p.volume);
  s.u16(0);  // reserved
  write_matrix(s);
  s.u32(p.fixed_point ? p.width << 16 : p.width);
  s.u32(p.fixed_point ? p.height << 16 : p.height);
  return box.close();
}

int32_t write_edts(Sink &s, uint32_t duration, const EdtsMarks &m) {
  if (!s) return -1;
  Scope edts(s, "edts", kEdtsSize);
  if (!edts.ok()) return -1;
  mark(m.box, edts.start());
  s.u32(kEdtsSize - 8);
  s.tag("elst");
  s.full(0, 0);
  s.u32(1);  // entry count
  mark(m.segment_duration, static_cast<uint32_t>(s.tell()));
  s.u32(duration);
  s.u32(0);           // media time
  s.u32(0x00010000);  // media rate 1.0
  return edts.close();
}

int32_t write_mdhd(Sink &s, uint32_t creation_time, uint32_t time_scale, uint32_t duration,
                   const MdhdMarks &m) {
  if (!s) return -1;
  Scope box(s, "mdhd", kMdhdSize);
  if (!box.ok()) return -1;
  mark(m.box, box.start());
  s.full(0, 0);
  s.u32(creation_time);
  s.u32(creation_time);
  s.u32(time_scale);
  mark(m.duration, static_cast<uint32_t>(s.tell()));
  s.u32(duration);
  s.u16(kLanguageUnd);
  s.u16(0);  // pre-defined
  return box.close();
}

int32_t write_hdlr(Sink &s, const char *handler_type, uint32_t *box_mark) {
  if (!s || handler_type == nullptr) return -1;
  Scope box(s, "hdlr");
  if (!box.ok()) return -1;
  mark(box_mark, box.start());
  s.full(0, 0);
  s.tag("mhlr");
  s.tag(handler_type);
  s.zeros(12);
  s.bytes({reinterpret_cast<const uint8_t *>(kHandlerName.data()), kHandlerName.size()});
  s.u8(0);
  return box.close();
}

int32_t write_vmhd(Sink &s, uint32_t *box_mark) {
  if (!s) return -1;
  Scope box(s, "vmhd", kVmhdSize);
  if (!box.ok()) return -1;
  mark(box_mark, box.start());
  s.full(0, 1);
  s.zeros(8);  // graphics mode, colour
  return box.close();
}

int32_t write_smhd(Sink &s) {
  if (!s) return -1;
  Scope box(s, "smhd", kSmhdSize);
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.u32(0);  // balance, reserved
  return box.close();
}

int32_t write_dinf(Sink &s, const DinfMarks &m) {
  if (!s) return -1;
  Scope dinf(s, "dinf");
  if (!dinf.ok()) return -1;
  mark(m.dinf, dinf.start());
  {
    Scope dref(s, "dref", 28);
    if (!dref.ok()) return -1;
    mark(m.dref, dref.start());
    s.full(0, 0);
    mark(m.dref_count, static_cast<uint32_t>(s.tell()));
    s.u32(1);
    s.u32(12);
    s.tag("url ");
    s.full(0, 1);  // media in this file
    s.add(dref.close());
  }
  return dinf.close();
}

int32_t write_udta(Sink &s, uint32_t padding) {
  if (!s) return -1;
  Scope udta(s, "udta");
  if (!udta.ok()) return -1;
  s.u32(113 + padding);
  s.tag("meta");
  s.full(0, 0);
  s.u32(33 + padding);
  s.tag("hdlr");
  s.full(0, 0);
  s.u32(0);  // pre-defined
  s.tag("mdir");
  s.zeros(12);
  s.zeros(1 + padding);  // empty name
  s.u32(68);
  s.tag("ilst");
  s.u32(60);
  s.bytes(std::array<uint8_t, 4>{0xA9, 't', 'o', 'o'});
  s.u32(52);
  s.tag("data");
  s.u32(1);  // UTF-8 text
  s.u32(0);  // locale
  s.bytes({reinterpret_cast<const uint8_t *>(kToolText.data()), kToolText.size()});
  return udta.close();
}

void write_visual_entry_fields(Sink &s, uint32_t width, uint32_t height) {
  s.zeros(6);   // reserved
  s.u16(1);     // data reference index
  s.zeros(16);  // pre-defined and reserved
  s.u16(width);
  s.u16(height);
  s.u32(0x00480000);  // 72 dpi
  s.u32(0x00480000);
  s.u32(0);       // reserved
  s.u16(1);       // frame count
  s.zeros(32);    // compressor name: length 0 and 31 zero bytes
  s.u16(0x0018);  // depth
  s.u16(0xFFFF);  // pre-defined
}

void write_audio_entry_fields(Sink &s, uint32_t sample_rate) {
  s.zeros(6);  // reserved
  s.u16(1);    // data reference index
  s.zeros(8);  // reserved
  s.u16(1);    // channels
  s.u16(16);   // sample size
  s.u32(0);    // pre-defined, reserved
  s.u32(sample_rate << 16);
}

namespace {
constexpr size_t kEsdsObjectType = 7;
constexpr std::array<uint8_t, 23> kEsdsMpegAudio = {
    0x03, 0x15, 0x00, 0x00, 0x00,                    // ES descriptor, ES ID 0, no flags
    0x04, 0x0D, 0x6B, 0x15, 0x00, 0x01, 0xA2,        // MPEG-1 audio (or by rate), buffer 418
    0x00, 0x02, 0x0A, 0x70, 0x00, 0x01, 0xF3, 0xF8,  // bit rates 133744, 127992
    0x06, 0x01, 0x02};                               // SL predefined 2
constexpr std::array<uint8_t, 27> kEsdsAac = {
    0x03, 0x19, 0x00, 0x00, 0x00,                    // ES descriptor, ES ID 0, no flags
    0x04, 0x11, 0x40, 0x15, 0x00, 0x01, 0x26,        // MPEG-4 audio, buffer 294
    0x00, 0x00, 0x63, 0xF0, 0x00, 0x00, 0x5A, 0x50,  // bit rates 25584, 23120
    0x05, 0x02, 0x14, 0x08,                          // AAC LC, 16000 Hz, mono
    0x06, 0x01, 0x02};
constexpr std::array<uint8_t, 32> kEsdsJpeg = {
    0x03, 0x80, 0x80, 0x80, 0x1B, 0x00, 0x01, 0x00,  // ES descriptor, ES ID 1
    0x04, 0x80, 0x80, 0x80, 0x0D, 0x6C, 0x11,        // JPEG, visual stream
    0x00, 0x00, 0x00,                                // buffer size 0
    0x00, 0x0D, 0x79, 0xD4, 0x00, 0x0D, 0x79, 0xD4,  // bit rates 883156
    0x06, 0x80, 0x80, 0x80, 0x01, 0x02};

int32_t write_esds(Sink &s, std::span<const uint8_t> descriptors) {
  if (!s) return -1;
  Scope box(s, "esds");
  if (!box.ok()) return -1;
  s.full(0, 0);
  s.bytes(descriptors);
  return box.close();
}
}  // namespace

int32_t write_esds_audio(Sink &s, uint32_t audio_format, uint32_t sample_rate) {
  if (audio_format == 3) return write_esds(s, kEsdsAac);
  auto descriptors = kEsdsMpegAudio;
  descriptors[kEsdsObjectType] = mpeg_audio_object_type(sample_rate);
  return write_esds(s, descriptors);
}

int32_t write_esds_jpeg(Sink &s) {
  return write_esds(s, kEsdsJpeg);
}

std::vector<uint8_t> avc_config(std::span<const uint8_t> sps, std::span<const uint8_t> pps) {
  std::vector<uint8_t> out = {0x01, 0x4D, 0x40, 0x1F, 0xFF};  // version, profile, level, lengths
  auto parameter_set = [&](std::span<const uint8_t> set) {
    if (set.empty()) return;
    out.push_back(static_cast<uint8_t>(set.size() >> 8));
    out.push_back(static_cast<uint8_t>(set.size()));
    out.insert(out.end(), set.begin(), set.end());
  };
  out.push_back(sps.empty() ? 0xE0 : 0xE1);  // number of SPS
  parameter_set(sps);
  out.push_back(pps.empty() ? 0 : 1);  // number of PPS
  parameter_set(pps);
  return out;
}

void write_avc_config(Sink &s, std::span<const uint8_t> sps, std::span<const uint8_t> pps) {
  s.bytes(avc_config(sps, pps));
}

}  // namespace mp4rec::box
