// Box writing shared by every MP4 writer of the library: the front-index H.264
// writer (reserved index patched in place), the MJPEG writer and the H.264
// writer with the index at the end.
//
// Status convention. Every byte primitive returns 0 or -1. A box writer adds
// each primitive's result and each nested writer's result into its owner's
// `writeStatus` and returns the field; the caller of a box writer adds that
// return into `writeStatus` once more (so a failure is counted more than once
// and only zero versus non-zero, and the sign, carry meaning). The sum
// saturates at INT32_MIN instead of overflowing, so it can never wrap back to
// zero. A writer returns -1 without writing when its file is null or its
// start position cannot be read, and nothing stops at the first failed write.
//
// Typical use:
//
//   mp4rec::box::Sink s{h->file, h->writeStatus};
//   s.add(mp4rec::box::write_ftyp(s));
//
//   int32_t write_minf(Sink &s, ...) {
//     if (!s) return -1;
//     Scope minf(s, "minf");            // size 0 now, patched by close()
//     if (!minf.ok()) return -1;
//     s.add(write_vmhd(s));
//     s.add(write_dinf(s));
//     ...
//     return minf.close();             // size patch, result added, status returned
//   }
//
// Position marks. Writers that the front-index family needs for its in-place
// update take a small struct of `uint32_t *` marks (all null by default). A
// non-null mark receives the file offset of the box start or of a field as it
// is written; the other families simply pass nothing.
#pragma once

#include <cstdint>
#include <cstdio>
#include <span>
#include <string_view>
#include <vector>

#include "common/internal.h"

namespace mp4rec::box {

// Saturating sum of box-writer results (never wraps to zero).
constexpr int32_t status_sum(int32_t a, int32_t b) {
  const int64_t s = int64_t{a} + int64_t{b};
  if (s < INT32_MIN) return INT32_MIN;
  if (s > INT32_MAX) return INT32_MAX;
  return static_cast<int32_t>(s);
}

// A file together with the status word of the record that owns it.
class Sink {
 public:
  Sink(FILE *file, int32_t &status) : file_(file), status_(&status) {}

  FILE *file() const { return file_; }
  explicit operator bool() const { return file_ != nullptr; }
  int32_t status() const { return *status_; }

  // Adds a primitive's or a nested writer's result; returns the new status.
  int32_t add(int32_t result) {
    *status_ = status_sum(*status_, result);
    return *status_;
  }

  // Current position as 32-bit offset, or -1 when it cannot be read.
  int32_t tell() const;

  // Primitives: write big-endian and add the result into the status.
  void u8(uint32_t v);
  void u16(uint32_t v);
  void u24(uint32_t v);
  void u32(uint32_t v);
  void tag(const char *four_cc);
  void bytes(std::span<const uint8_t> data);
  void zeros(uint32_t n);
  // Version (8 bits) and flags (24 bits) of a full box.
  void full(uint32_t version, uint32_t flags) { u32(version << 24 | (flags & 0xFFFFFFu)); }

 private:
  FILE *file_;
  int32_t *status_;
};

// Records `pos` through a mark when the mark is set.
inline void mark(uint32_t *slot, uint32_t pos) {
  if (slot != nullptr) *slot = pos;
}

// One box: the constructor reads the start position and writes the size field
// and the type; close() completes it. A box made with kPatched is written with
// size 0 and receives its size by seeking back from its end (the size patch).
class Scope {
 public:
  static constexpr uint32_t kPatched = 0;

  Scope(Sink &s, const char *type, uint32_t size = kPatched);
  Scope(const Scope &) = delete;
  Scope &operator=(const Scope &) = delete;

  // False when the start position could not be read; nothing was written then
  // and the writer returns -1.
  bool ok() const { return start_ >= 0; }
  uint32_t start() const { return static_cast<uint32_t>(start_); }

  // Size patch (patched boxes only): reads the end position (-1 when it cannot
  // be read), seeks to the start, writes end - start, seeks back to the end;
  // the two seeks' and the write's results are added into the status. Returns
  // the status after those additions.
  int32_t patch();

  // Ends the box: for a patched box adds patch() into the status; returns the
  // status. The usual last line of a writer.
  int32_t close();

 private:
  Sink &s_;
  int32_t start_;
  bool patched_;
};

// The bytes of one positional write: words, tags and bytes gathered in
// memory and written at their offset in one call by put_at, without a seek
// and without moving the stream. The index patches are written this way.
class Run {
 public:
  explicit Run(uint32_t at) : at_(at) {}
  void u32(uint32_t v);
  void tag(const char *four_cc);
  void bytes(std::span<const uint8_t> data) {
    bytes_.insert(bytes_.end(), data.begin(), data.end());
  }
  // Moves the start on by `n` bytes; only while nothing is gathered.
  void skip(uint32_t n) { at_ += n; }
  // Keeps the first `n` bytes gathered.
  void truncate(uint32_t n) { bytes_.resize(n); }
  bool empty() const { return bytes_.empty(); }
  uint32_t at() const { return at_; }
  uint32_t end() const { return at_ + static_cast<uint32_t>(bytes_.size()); }
  std::span<const uint8_t> data() const { return bytes_; }

 private:
  uint32_t at_;
  std::vector<uint8_t> bytes_;
};

// Writes a run at its offset through the card seam, as one write call (none
// for an empty run). Adds 0 or -1 into the status and returns that result.
int32_t put_at(Sink &s, const Run &run);

// Seeks to the absolute offset `pos` and writes `value` there (the stream is
// left behind the value). Returns -1 when the seek fails (nothing added), else
// the status after adding the write's result.
[[nodiscard]] int32_t write_u32_at(Sink &s, uint32_t pos, uint32_t value);

// ---------------------------------------------------------------------------
// Fixed texts and constants shared by the writers.

// Name of both media handlers: exactly 22 bytes, written with one zero byte.
inline constexpr std::string_view kHandlerName = "mp4rec camera recorder";
static_assert(kHandlerName.size() == 22);
// Text of the encoder item in the user data: exactly 36 bytes, no terminator.
inline constexpr std::string_view kToolText = "mp4rec: MP4 recorder, network camera";
static_assert(kToolText.size() == 36);

// The 3x3 display matrix of mvhd and tkhd (identity).
inline constexpr uint32_t kMatrix[9] = {0x00010000, 0, 0, 0, 0x00010000, 0, 0, 0, 0x40000000};

inline constexpr uint16_t kLanguageUnd = 0x55C4;

// Box sizes of the fixed boxes, for size arithmetic and tests.
inline constexpr uint32_t kFtypSize = 32;
inline constexpr uint32_t kMvhdSize = 108;
inline constexpr uint32_t kTkhdSize = 92;
inline constexpr uint32_t kEdtsSize = 36;
inline constexpr uint32_t kMdhdSize = 32;
inline constexpr uint32_t kHdlrSize = 55;
inline constexpr uint32_t kVmhdSize = 20;
inline constexpr uint32_t kSmhdSize = 16;
inline constexpr uint32_t kDinfSize = 36;
inline constexpr uint32_t kUdtaSize = 121;
inline constexpr uint32_t kVisualEntryFieldsSize = 78;  // avc1/mp4v contents before children
inline constexpr uint32_t kAudioEntryFieldsSize = 28;   // mp4a contents before esds

// ---------------------------------------------------------------------------
// Box writers. Each returns the status (see the top of this file) or -1.

// ftyp (32): isom, minor 0x200, compatible isom iso2 avc1 mp41 (with another
// `codec_brand` in place of avc1). With `patched` the size is written as 0 and
// completed by the size patch (same bytes).
[[nodiscard]] int32_t write_ftyp(Sink &s, bool patched = false, const char *codec_brand = "avc1");

// free (8), then the mdat header (8, size 0, type "mdat"). The mdat header's
// offset is stored through `mdat_pos` (-1 when it cannot be read).
[[nodiscard]] int32_t write_free_mdat(Sink &s, uint32_t *mdat_pos);

struct MvhdParams {
  uint32_t creation_time;  // also the modification time, seconds since 1904
  uint32_t time_scale;
  uint32_t duration;
  // The writer fails with -1 before writing when either is 0 (the records'
  // moovEnable and audioKHz).
  uint32_t moov_enable = 1;
  uint32_t audio_khz = 16;
};
struct MvhdMarks {
  uint32_t *box = nullptr;
  uint32_t *duration = nullptr;
};
// mvhd (108): version 0, rate 1.0, volume 1.0, identity matrix, next track 3.
[[nodiscard]] int32_t write_mvhd(Sink &s, const MvhdParams &p, const MvhdMarks &m = {});

struct TkhdParams {
  uint32_t creation_time;
  uint32_t track_id;
  uint32_t duration;
  uint32_t volume;  // 0 for video, 0x0100 for audio
  uint32_t width;   // pixels
  uint32_t height;
  // true: width and height as 16.16 fixed point; false: as plain integers
  // (the MJPEG file's form).
  bool fixed_point = true;
  // The writer fails with -1 before writing when this is 0 (moovEnable for
  // the video track, audioKHz for the audio track).
  uint32_t guard = 1;
};
struct TkhdMarks {
  uint32_t *box = nullptr;
  uint32_t *duration = nullptr;
};
// tkhd (92): version 0, flags 15 (enabled, in movie, in preview, in poster).
[[nodiscard]] int32_t write_tkhd(Sink &s, const TkhdParams &p, const TkhdMarks &m = {});

struct EdtsMarks {
  uint32_t *box = nullptr;
  uint32_t *segment_duration = nullptr;
};
// edts (36) holding elst (28): one segment of `duration`, media time 0, rate 1.
[[nodiscard]] int32_t write_edts(Sink &s, uint32_t duration, const EdtsMarks &m = {});

struct MdhdMarks {
  uint32_t *box = nullptr;
  uint32_t *duration = nullptr;
};
// mdhd (32): version 0, language "und".
[[nodiscard]] int32_t write_mdhd(Sink &s, uint32_t creation_time, uint32_t time_scale,
                                 uint32_t duration, const MdhdMarks &m = {});

// Media hdlr (55, size patched): pre-defined "mhlr", handler type "vide" or
// "soun", the 22-byte handler name and a zero byte.
[[nodiscard]] int32_t write_hdlr(Sink &s, const char *handler_type, uint32_t *box_mark = nullptr);

// vmhd (20): flags 1, graphics mode and colour 0.
[[nodiscard]] int32_t write_vmhd(Sink &s, uint32_t *box_mark = nullptr);
// smhd (16): balance 0.
[[nodiscard]] int32_t write_smhd(Sink &s);

struct DinfMarks {
  uint32_t *dinf = nullptr;
  uint32_t *dref = nullptr;
  uint32_t *dref_count = nullptr;
};
// dinf (36, size patched) holding dref (28) with one "url " entry (12, flags 1:
// media in this file).
[[nodiscard]] int32_t write_dinf(Sink &s, const DinfMarks &m = {});

// udta (121, size patched) holding meta (113): hdlr "mdir" (33) and ilst (68)
// with one item "\xA9too" (60) holding data (52): UTF-8 text kToolText. With
// `padding`, the hdlr's name (a zero byte) is followed by that many more zero
// bytes, and hdlr, meta and udta are as much larger.
[[nodiscard]] int32_t write_udta(Sink &s, uint32_t padding = 0);

// The 78 bytes of a visual sample entry after its header (avc1 and mp4v):
// reserved, data reference index 1, pre-defined, width and height as 16-bit
// values, 72 dpi, frame count 1, empty compressor name, depth 24, -1.
void write_visual_entry_fields(Sink &s, uint32_t width, uint32_t height);

// The 28 bytes of the mp4a sample entry after its header: reserved, data
// reference index 1, one channel, 16-bit samples, sample rate as 16.16.
void write_audio_entry_fields(Sink &s, uint32_t sample_rate);

// esds of the audio track (size patched): the fixed descriptor set of MPEG
// audio (audio formats 1 and 2, MP2 frames; 35 bytes) or of AAC-LC 16 kHz mono
// (format 3; 39 bytes). MPEG audio is declared as MPEG-2 audio (object type
// 0x69) below 32000 Hz, where its frames use the MPEG-2 low sample rates, and
// as MPEG-1 audio (0x6B) from 32000 Hz on.
[[nodiscard]] int32_t write_esds_audio(Sink &s, uint32_t audio_format, uint32_t sample_rate);
// The object type indication of MPEG audio at a sample rate.
constexpr uint8_t mpeg_audio_object_type(uint32_t sample_rate) {
  return sample_rate < 32000 ? 0x69 : 0x6B;
}
// esds of the MJPEG video track (size patched, 44 bytes): JPEG, ES ID 1.
[[nodiscard]] int32_t write_esds_jpeg(Sink &s);

// Size of the audio esds box for an audio format.
constexpr uint32_t esds_audio_size(uint32_t audio_format) {
  return audio_format == 3 ? 39 : 35;
}

// The avcC decoder configuration record (without the box header): the six
// bytes 01 4D 40 1F FF E1, the SPS length and bytes, 01, the PPS length and
// bytes. Profile and level are fixed constants whatever the SPS says. An empty
// SPS or PPS is left out and counted as none: with neither, the record is the
// 7 bytes 01 4D 40 1F FF E0 00, a configuration without parameter sets.
std::vector<uint8_t> avc_config(std::span<const uint8_t> sps, std::span<const uint8_t> pps);
void write_avc_config(Sink &s, std::span<const uint8_t> sps, std::span<const uint8_t> pps);
// Its length in bytes.
constexpr uint32_t avc_config_size(uint32_t sps_len, uint32_t pps_len) {
  return 7 + (sps_len != 0 ? 2 + sps_len : 0) + (pps_len != 0 ? 2 + pps_len : 0);
}

}  // namespace mp4rec::box
