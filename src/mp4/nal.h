// NAL units as the writers take them: one unit behind an Annex B start code,
// classified by its type, with the first parameter sets kept per file. The
// H.264 classification is here; H.265's is in hevc.h.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <span>
#include <vector>

namespace mp4rec {

// How a NAL unit is classified; only pictures become samples. The values of
// the two picture classes are the `type` of their videoNode.
enum NalClass : int32_t {
  kNalOther = -1,
  kNalPicture = 0,  // non-IDR slice
  kNalIdr = 1,
  kNalSps = 2,
  kNalPps = 3,
  kNalSei = 4,
  kNalVps = 5,  // H.265 only
};

constexpr NalClass classify_nal(uint8_t nal_header) {
  switch (nal_header & 0x1F) {
    case 1:
      return kNalPicture;
    case 5:
      return kNalIdr;
    case 6:
      return kNalSei;
    case 7:
      return kNalSps;
    case 8:
      return kNalPps;
    default:
      return kNalOther;
  }
}
static_assert(classify_nal(0x65) == kNalIdr && classify_nal(0x41) == kNalPicture);
static_assert(classify_nal(0x67) == kNalSps && classify_nal(0x68) == kNalPps &&
              classify_nal(0x06) == kNalSei);

// Length of the Annex B start code in front of a unit of `length` bytes, or 0
// when there is none: 00 00 01 needs a unit of 4 bytes, 00 00 00 01 one of 5.
[[nodiscard]] inline int nal_start_code_length(const uint8_t *data, int length) {
  if (length < 4 || data[0] != 0 || data[1] != 0) return 0;
  if (data[2] == 0 && data[3] == 1 && length >= 5) return 4;
  if (data[2] == 1) return 3;
  return 0;
}

// A unit's RBSP: its bytes without the emulation prevention bytes (a 03
// behind two zero bytes).
inline std::vector<uint8_t> unescape_rbsp(std::span<const uint8_t> unit) {
  std::vector<uint8_t> out;
  out.reserve(unit.size());
  int zeros = 0;
  for (const uint8_t c : unit) {
    if (zeros >= 2 && c == 3) {
      zeros = 0;
      continue;
    }
    out.push_back(c);
    zeros = c == 0 ? zeros + 1 : 0;
  }
  return out;
}

// Keeps the first copy of a parameter set for the whole file. False when the
// copy cannot be allocated.
[[nodiscard]] inline bool keep_first_parameter_set(uint8_t *&copy, uint32_t &copy_len,
                                                   const uint8_t *unit, uint32_t len) {
  if (copy_len != 0) return true;
  auto *mem = static_cast<uint8_t *>(std::malloc(len > 0 ? len : 1));
  if (mem == nullptr) return false;
  std::memcpy(mem, unit, len);
  std::free(copy);
  copy = mem;
  copy_len = len;
  return true;
}

}  // namespace mp4rec
