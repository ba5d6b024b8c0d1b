// H.265 in the front-index writer: the decoder configuration record, the
// parameter sets behind it, and the intake of one NAL unit.
#include "mp4/hevc.h"

#include "buffer/data_buffer.h"
#include "mp4/handle.h"
#include "mp4/head.h"
#include "mp4/intake.h"

namespace mp4rec::hevc {

namespace {
// The intake's name in its log lines.
constexpr const char *kIntake = "write_one_h265";
#define INTAKE_ERR(message) \
  MP4_LOG_AS(::mp4rec::hevc::kIntake, ::mp4rec::kLogError, ::mp4rec::kModRecorder, "%s", message)
}  // namespace

std::vector<uint8_t> config_record(std::span<const uint8_t> vps, std::span<const uint8_t> sps,
                                   std::span<const uint8_t> pps) {
  const Sps fields = parse_sps(sps).value_or(Sps{});
  std::vector<uint8_t> r;
  r.reserve(config_size(static_cast<uint32_t>(vps.size()), static_cast<uint32_t>(sps.size()),
                        static_cast<uint32_t>(pps.size())));
  r.push_back(1);  // configurationVersion
  r.insert(r.end(), std::begin(fields.profile_tier_level), std::end(fields.profile_tier_level));
  r.push_back(0xF0);  // reserved, min_spatial_segmentation_idc 0
  r.push_back(0x00);
  r.push_back(0xFC);  // reserved, parallelismType 0 (unknown)
  r.push_back(static_cast<uint8_t>(0xFC | (fields.chroma_format_idc & 3)));
  r.push_back(static_cast<uint8_t>(0xF8 | ((fields.bit_depth_luma - 8) & 7)));
  r.push_back(static_cast<uint8_t>(0xF8 | ((fields.bit_depth_chroma - 8) & 7)));
  r.push_back(0);  // avgFrameRate 0: unspecified
  r.push_back(0);
  // constantFrameRate 0, numTemporalLayers, temporalIdNested, lengthSizeMinusOne 3
  r.push_back(static_cast<uint8_t>(((fields.sub_layers & 7) << 3) |
                                   (fields.temporal_id_nesting ? 4 : 0) | 3));
  const std::span<const uint8_t> sets[] = {vps, sps, pps};
  const int types[] = {kVps, kSps, kPps};
  r.push_back(static_cast<uint8_t>(!vps.empty() + !sps.empty() + !pps.empty()));
  for (int i = 0; i < 3; ++i) {
    if (sets[i].empty()) continue;
    r.push_back(static_cast<uint8_t>(0x80 | types[i]));  // array_completeness 1
    r.push_back(0);                                      // one unit
    r.push_back(1);
    r.push_back(static_cast<uint8_t>(sets[i].size() >> 8));
    r.push_back(static_cast<uint8_t>(sets[i].size()));
    r.insert(r.end(), sets[i].begin(), sets[i].end());
  }
  return r;
}

int keep_parameter_set(mp4_handle *h, NalClass kind, const uint8_t *unit, uint32_t len) {
  HandleExtra &x = extra(h);
  uint8_t **copy = kind == kNalVps ? &x.vps : kind == kNalSps ? &h->sps : &h->pps;
  uint32_t *copy_len = kind == kNalVps ? &x.vpsLen : kind == kNalSps ? &h->spsLen : &h->ppsLen;
  if (*copy_len != 0) return 0;
  if (kind == kNalSps && !parse_sps({unit, len})) {
    INTAKE_ERR("mp4 write video : h265 sps cannot be read\n");
    return -1;
  }
  const uint32_t record =
      config_size(kind == kNalVps ? len : x.vpsLen, kind == kNalSps ? len : h->spsLen,
                  kind == kNalPps ? len : h->ppsLen);
  if (len > kAvcCReserve || record > kAvcCReserve) {
    INTAKE_ERR("mp4 write video : h265 parameter sets do not fit the reserved hvcC\n");
    return -1;
  }
  if (!keep_first_parameter_set(*copy, *copy_len, unit, len)) {
    INTAKE_ERR("mp4 write video : malloc h265 parameter set space error\n");
    return -1;
  }
  return 0;
}

bool has_parameter_sets(const mp4_handle *h) {
  return extra(h).vpsLen != 0 && h->spsLen != 0 && h->ppsLen != 0;
}

}  // namespace mp4rec::hevc

namespace mp4rec {

namespace {

// A slice segment that continues the picture before it: its bytes join that
// picture's sample.
int join_slice(mp4_handle *h, const uint8_t *unit, uint32_t unit_len) {
  HandleExtra &x = extra(h);
  const uint32_t stored = unit_len + 4;
  const char *why = nullptr;
  int r = -1;
  if (!x.pictureOpen) {
    why = "mp4 write video : h265 slice of a picture that was not accepted\n";
  } else if (h->dataBuffer == nullptr) {
    why = "mp4 write video : data buffer is NULL!\n";
  } else if ((r = refuse_when_full(h, stored)) == 0) {
    r = join_video_frame(h->dataBuffer, unit, stored, h);
    if (r == 0) {
      h->mediaBytes.fetch_add(stored, std::memory_order_relaxed);
      return 0;
    }
    why = r == kJoinNoFrame ? "mp4 write video : h265 slice of a picture already written\n"
          : r == kJoinTooLarge
              ? "mp4 write video : h265 picture of several slices larger than a buffer node\n"
              : "mp4 write video : put frame into buffer error\n";
  }
  if (why != nullptr) INTAKE_ERR(why);
  x.pictureOpen = false;
  return r < 0 ? r : -1;
}

}  // namespace

int write_one_h265(unsigned char *data, int length, int timestamp, mp4_handle *handle,
                   bool *released) {
  static constexpr const char *kHeadError = "mp4 write video : h265 nal head error\n";
  const int sc =
      checked_start_code(__func__, kHeadError, data, length, timestamp, handle, 2, released);
  if (sc == 0) return -1;
  uint8_t *unit = data + sc;
  const auto unit_len = static_cast<uint32_t>(length - sc);
  const NalClass kind = hevc::classify(unit[0], unit[1]);
  if (kind == kNalVps || kind == kNalSps || kind == kNalPps)
    return hevc::keep_parameter_set(handle, kind, unit, unit_len);
  if (kind != kNalPicture && kind != kNalIdr) return 0;
  if (unit_len < 3) {  // a slice segment without its first flag
    MP4_ERR("%s", kHeadError);
    return release_handle(handle, released);
  }
  HandleExtra &x = extra(handle);
  if (!hevc::has_parameter_sets(handle)) {
    MP4_ERR("mp4 write video : h265 picture before its parameter sets\n");
    x.pictureOpen = false;
    return -1;
  }
  if (!hevc::begins_picture(unit[2])) return join_slice(handle, unit, unit_len);
  // Cleared first: after a failed allocation the handle is gone.
  x.pictureOpen = false;
  const int r = enqueue_picture(__func__, handle, unit, unit_len, kind, timestamp, released);
  if (r == 0) x.pictureOpen = true;
  return r;
}

}  // namespace mp4rec
