// H.265 (HEVC) in the front-index writer. First its syntax as the recorder
// reads it: the two-byte NAL unit header, the classes of units the intake
// tells apart, and the fields of a sequence parameter set; inline and free of
// the library's internals, so that the mp4rec tool reads its input with the
// same code. Then the decoder configuration record (hvcC) and the intake.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include "mp4/nal.h"

struct mp4_handle;

namespace mp4rec::hevc {

// NAL unit types that the recorder looks at.
inline constexpr int kFirstSync = 16;  // BLA_W_LP
inline constexpr int kLastSync = 21;   // CRA_NUT
inline constexpr int kVps = 32;
inline constexpr int kSps = 33;
inline constexpr int kPps = 34;
inline constexpr int kPrefixSei = 39;
inline constexpr int kSuffixSei = 40;

// nal_unit_type: bits 1 to 6 of the header's first byte.
constexpr int nal_type(uint8_t first_header_byte) {
  return (first_header_byte >> 1) & 0x3F;
}

// VCL units (pictures) and, among them, the IRAP pictures that are sync samples.
constexpr bool is_picture(int type) {
  return type < 32;
}
constexpr bool is_sync_picture(int type) {
  return type >= kFirstSync && type <= kLastSync;
}

// How a unit is classified (`unit` starts at the NAL header, which has two
// bytes). The pictures of the base layer are samples: IRAP pictures (BLA,
// IDR, CRA) are sync samples, every other VCL unit a plain one. Parameter sets
// are kept; SEI, delimiters, end-of-sequence units, the units of other layers
// and everything else are consumed.
constexpr NalClass classify(uint8_t b0, uint8_t b1) {
  const int type = nal_type(b0);
  const int layer = ((b0 & 1) << 5) | (b1 >> 3);
  if (layer != 0) return kNalOther;
  if (is_picture(type)) return is_sync_picture(type) ? kNalIdr : kNalPicture;
  switch (type) {
    case kVps:
      return kNalVps;
    case kSps:
      return kNalSps;
    case kPps:
      return kNalPps;
    case kPrefixSei:
    case kSuffixSei:
      return kNalSei;
    default:
      return kNalOther;
  }
}
static_assert(classify(0x26, 0x01) == kNalIdr && classify(0x02, 0x01) == kNalPicture);
static_assert(classify(0x2A, 0x01) == kNalIdr && classify(0x40, 0x01) == kNalVps);
static_assert(classify(0x42, 0x01) == kNalSps && classify(0x44, 0x01) == kNalPps);
static_assert(classify(0x4E, 0x01) == kNalSei && classify(0x46, 0x01) == kNalOther);
static_assert(classify(0x02, 0x09) == kNalOther);  // a slice of layer 1

// A slice segment (a VCL unit of at least three bytes) that begins a picture:
// first_slice_segment_in_pic_flag, the first bit behind the header.
constexpr bool begins_picture(uint8_t first_payload_byte) {
  return (first_payload_byte & 0x80) != 0;
}

// MSB-first reader of a unit's RBSP (emulation prevention bytes removed).
// Reading past the end, or an Exp-Golomb code longer than 32 bits, makes it
// bad and yields zeros from then on.
class RbspReader {
 public:
  explicit RbspReader(std::span<const uint8_t> payload) : rbsp_(unescape_rbsp(payload)) {}
  bool ok() const { return ok_; }
  uint32_t u(int n) {
    uint32_t v = 0;
    for (; n > 0; --n) {
      if (pos_ >= rbsp_.size() * 8) {
        ok_ = false;
        return 0;
      }
      v = (v << 1) | ((rbsp_[pos_ / 8] >> (7 - pos_ % 8)) & 1u);
      ++pos_;
    }
    return v;
  }
  uint32_t ue() {
    int zeros = 0;
    while (ok_ && u(1) == 0) {
      if (++zeros > 31) ok_ = false;
    }
    return ok_ && zeros > 0 ? (1u << zeros) - 1 + u(zeros) : 0;
  }
  int32_t se() {
    const uint32_t k = ue();
    return (k & 1) ? static_cast<int32_t>((k + 1) / 2) : -static_cast<int32_t>(k / 2);
  }
  void skip(size_t bits) {
    const size_t left = rbsp_.size() * 8 - pos_;
    if (bits > left) ok_ = false;
    pos_ += std::min(bits, left);
  }
  // The bytes still to come, when the reader stands on a byte boundary.
  std::span<const uint8_t> rest_bytes() const {
    return std::span(rbsp_).subspan(std::min(pos_ / 8, rbsp_.size()));
  }

 private:
  std::vector<uint8_t> rbsp_;
  size_t pos_ = 0;
  bool ok_ = true;
};

// What a sequence parameter set says about the stream.
struct Sps {
  // general_profile_space .. general_level_idc, the 12 bytes of the decoder
  // configuration record that follow its version.
  uint8_t profile_tier_level[12] = {};
  uint32_t sub_layers = 1;  // sps_max_sub_layers_minus1 + 1
  bool temporal_id_nesting = false;
  uint32_t chroma_format_idc = 1;
  uint32_t bit_depth_luma = 8;
  uint32_t bit_depth_chroma = 8;
  uint32_t width = 0;  // inside the conformance window
  uint32_t height = 0;
  double fps = 0;  // from the VUI timing information; 0 when absent
};

namespace detail {

inline void skip_scaling_list_data(RbspReader &r) {
  for (int size_id = 0; size_id < 4 && r.ok(); ++size_id) {
    for (int matrix = 0; matrix < 6; matrix += size_id == 3 ? 3 : 1) {
      if (r.u(1) == 0) {
        r.ue();  // scaling_list_pred_matrix_id_delta
        continue;
      }
      const int coefs = std::min(64, 1 << (4 + (size_id << 1)));
      if (size_id > 1) r.se();
      for (int i = 0; i < coefs; ++i) r.se();
    }
  }
}

// st_ref_pic_set(0 .. count - 1) as a sequence parameter set holds them.
inline void skip_short_term_ref_pic_sets(RbspReader &r, uint32_t count) {
  std::vector<uint32_t> delta_pocs(count, 0);
  for (uint32_t i = 0; i < count && r.ok(); ++i) {
    if (i != 0 && r.u(1) != 0) {  // predicted from the set before
      r.u(1);
      r.ue();
      uint32_t n = 0;
      for (uint32_t j = 0; j <= delta_pocs[i - 1]; ++j) {
        const bool used = r.u(1) != 0;
        if (used || r.u(1) != 0) ++n;
      }
      delta_pocs[i] = n;
      continue;
    }
    const uint32_t negative = r.ue(), positive = r.ue();
    if (negative > 16 || positive > 16) {
      r.skip(SIZE_MAX);  // more than a picture buffer holds: not a valid set
      return;
    }
    for (uint32_t j = 0; j < negative + positive; ++j) {
      r.ue();
      r.u(1);
    }
    delta_pocs[i] = negative + positive;
  }
}

// vui_parameters() up to the timing information.
inline double vui_frame_rate(RbspReader &r) {
  if (r.u(1) && r.u(8) == 255) r.skip(32);  // aspect ratio, extended SAR
  if (r.u(1)) r.u(1);                       // overscan
  if (r.u(1)) {                             // video signal type
    r.skip(4);
    if (r.u(1)) r.skip(24);
  }
  if (r.u(1)) {  // chroma sample location
    r.ue();
    r.ue();
  }
  r.skip(3);     // neutral chroma, field sequence, frame field info
  if (r.u(1)) {  // default display window
    for (int i = 0; i < 4; ++i) r.ue();
  }
  if (!r.u(1)) return 0;
  const uint32_t units = r.u(32), scale = r.u(32);
  return r.ok() && units != 0 ? static_cast<double>(scale) / units : 0;
}

}  // namespace detail

// Reads a sequence parameter set (`unit` from its NAL header on, without the
// start code). Nothing when it is cut short or out of range.
inline std::optional<Sps> parse_sps(std::span<const uint8_t> unit) {
  if (unit.size() < 3 || nal_type(unit[0]) != kSps) return std::nullopt;
  RbspReader r(unit.subspan(2));
  Sps s;
  r.u(4);  // sps_video_parameter_set_id
  const uint32_t max_sub_layers_minus1 = r.u(3);
  s.sub_layers = max_sub_layers_minus1 + 1;
  s.temporal_id_nesting = r.u(1) != 0;
  const auto general = r.rest_bytes();
  if (general.size() < sizeof s.profile_tier_level) return std::nullopt;
  std::copy_n(general.begin(), sizeof s.profile_tier_level, s.profile_tier_level);
  r.skip(8 * sizeof s.profile_tier_level);
  bool profile_present[8] = {}, level_present[8] = {};
  for (uint32_t i = 0; i < max_sub_layers_minus1; ++i) {
    profile_present[i] = r.u(1) != 0;
    level_present[i] = r.u(1) != 0;
  }
  if (max_sub_layers_minus1 > 0) r.skip(2 * (8 - max_sub_layers_minus1));
  for (uint32_t i = 0; i < max_sub_layers_minus1; ++i)
    r.skip((profile_present[i] ? 88 : 0) + (level_present[i] ? 8 : 0));
  r.ue();  // sps_seq_parameter_set_id
  s.chroma_format_idc = r.ue();
  const bool separate_planes = s.chroma_format_idc == 3 && r.u(1) != 0;
  s.width = r.ue();
  s.height = r.ue();
  if (r.u(1)) {  // conformance window, in chroma samples
    const uint32_t array_type = separate_planes ? 0 : s.chroma_format_idc;
    const uint32_t sub_w = array_type == 1 || array_type == 2 ? 2 : 1;
    const uint32_t sub_h = array_type == 1 ? 2 : 1;
    const uint32_t left = r.ue(), right = r.ue(), top = r.ue(), bottom = r.ue();
    const uint64_t crop_w = uint64_t{sub_w} * (uint64_t{left} + right);
    const uint64_t crop_h = uint64_t{sub_h} * (uint64_t{top} + bottom);
    s.width = crop_w < s.width ? s.width - static_cast<uint32_t>(crop_w) : 0;
    s.height = crop_h < s.height ? s.height - static_cast<uint32_t>(crop_h) : 0;
  }
  s.bit_depth_luma = r.ue() + 8;
  s.bit_depth_chroma = r.ue() + 8;
  if (!r.ok() || max_sub_layers_minus1 > 6 || s.chroma_format_idc > 3 || s.width == 0 ||
      s.height == 0 || s.bit_depth_luma > 15 || s.bit_depth_chroma > 15)
    return std::nullopt;

  // The rest only for the frame rate; a set that ends early keeps what it said.
  const uint32_t poc_lsb_bits = r.ue() + 4;
  const bool ordering_for_all = r.u(1) != 0;
  for (uint32_t i = ordering_for_all ? 0 : max_sub_layers_minus1; i <= max_sub_layers_minus1; ++i)
    for (int k = 0; k < 3; ++k) r.ue();
  for (int i = 0; i < 6; ++i) r.ue();  // coding and transform block sizes, hierarchy depths
  if (r.u(1) && r.u(1)) detail::skip_scaling_list_data(r);
  r.skip(2);     // amp, sample adaptive offset
  if (r.u(1)) {  // pcm
    r.skip(8);
    r.ue();
    r.ue();
    r.u(1);
  }
  const uint32_t sets = r.ue();
  if (sets > 64) return s;
  detail::skip_short_term_ref_pic_sets(r, sets);
  if (r.u(1)) {  // long-term reference pictures
    const uint32_t n = r.ue();
    if (n > 32) return s;
    for (uint32_t i = 0; i < n; ++i) r.skip(poc_lsb_bits + 1);
  }
  r.skip(2);  // temporal mvp, strong intra smoothing
  if (r.u(1)) {
    const double fps = detail::vui_frame_rate(r);
    if (r.ok()) s.fps = fps;
  }
  return s;
}

// ---- the library's side: the configuration record and the intake ----------

// Bytes of a record without parameter sets, and with the given ones (a length
// of 0 counts as none).
inline constexpr uint32_t kEmptyConfigSize = 23;
constexpr uint32_t config_size(uint32_t vps_len, uint32_t sps_len, uint32_t pps_len) {
  const auto array = [](uint32_t len) { return len != 0 ? 5 + len : 0; };
  return kEmptyConfigSize + array(vps_len) + array(sps_len) + array(pps_len);
}

// The HEVCDecoderConfigurationRecord: version 1; profile space, tier,
// profile, compatibility and constraint flags, level, chroma format and bit
// depths from the SPS; sub-layers and temporal nesting from the SPS; 4-byte
// NAL lengths; then one array per parameter set given (VPS, SPS, PPS), each
// complete and holding the one unit. Without an SPS (or with one that cannot
// be read) the fields say 4:2:0 at 8 bits and nothing more.
std::vector<uint8_t> config_record(std::span<const uint8_t> vps, std::span<const uint8_t> sps,
                                   std::span<const uint8_t> pps);

// Keeps the first VPS, SPS or PPS (`unit` from its NAL header on) for the
// file's configuration. 0, also when one was kept before; -1 with a log line
// when the unit is refused: an SPS that cannot be read, a set that would make
// the record larger than the room reserved for it, or no memory for the copy.
[[nodiscard]] int keep_parameter_set(mp4_handle *h, NalClass kind, const uint8_t *unit,
                                     uint32_t len);

// True once VPS, SPS and PPS are all kept.
[[nodiscard]] bool has_parameter_sets(const mp4_handle *h);

}  // namespace mp4rec::hevc

namespace mp4rec {

// One H.265 NAL unit with its Annex B start code, as write_one_h264 takes an
// H.264 one: the same arguments, results and messages, with these
// differences. The header has two bytes. The first VPS, SPS and PPS are kept
// for hvcC (see keep_parameter_set); a picture before all three is refused
// with -1. A slice segment that does not begin a picture joins the sample of
// the picture before it; when that picture was refused or is no longer in the
// buffer node being filled, or would outgrow a node, the slice is refused with
// -1. Those refusals keep the handle.
[[nodiscard]] int write_one_h265(unsigned char *data, int length, int timestamp, mp4_handle *handle,
                                 bool *released);

}  // namespace mp4rec
