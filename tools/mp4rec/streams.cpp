#include "streams.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "mp4/hevc.h"

namespace mp4tool {

namespace {

constexpr size_t kBlock = 64 * 1024;

class FdSource final : public ByteSource {
 public:
  FdSource(int fd, std::string name, bool owned) : fd_(fd), name_(std::move(name)), owned_(owned) {}
  ~FdSource() override {
    if (owned_) ::close(fd_);
  }
  size_t read(uint8_t *dst, size_t n) override {
    for (;;) {
      const ssize_t r = ::read(fd_, dst, n);
      if (r >= 0) return static_cast<size_t>(r);
      if (errno != EINTR) throw InputError("cannot read " + name_ + ": " + std::strerror(errno));
    }
  }

 private:
  int fd_;
  std::string name_;
  bool owned_;
};

class MemorySource final : public ByteSource {
 public:
  explicit MemorySource(std::span<const uint8_t> b) : b_(b) {}
  size_t read(uint8_t *dst, size_t n) override {
    n = std::min(n, b_.size() - pos_);
    if (n == 0) return 0;
    std::memcpy(dst, b_.data() + pos_, n);
    pos_ += n;
    return n;
  }

 private:
  std::span<const uint8_t> b_;
  size_t pos_ = 0;
};

// Offset of the next 00 00 01 at or after `from`, or npos.
size_t find_start(const uint8_t *p, size_t n, size_t from) {
  while (from + 3 <= n) {
    const void *z = std::memchr(p + from + 2, 1, n - from - 2);
    if (!z) return std::string::npos;
    const size_t one = static_cast<size_t>(static_cast<const uint8_t *>(z) - p);
    if (p[one - 1] == 0 && p[one - 2] == 0) return one - 2;
    from = one - 1;
  }
  return std::string::npos;
}

// MSB-first bit reader over an RBSP (emulation prevention bytes removed).
class Bits {
 public:
  explicit Bits(std::vector<uint8_t> b) : b_(std::move(b)) {}
  uint32_t u(int n) {
    uint32_t v = 0;
    while (n-- > 0) {
      if (pos_ >= b_.size() * 8) throw InputError("sequence parameter set is cut short");
      v = (v << 1) | ((b_[pos_ / 8] >> (7 - pos_ % 8)) & 1);
      ++pos_;
    }
    return v;
  }
  uint32_t ue() {
    int zeros = 0;
    while (u(1) == 0)
      if (++zeros > 31) throw InputError("bad Exp-Golomb code in the sequence parameter set");
    return zeros ? ((1u << zeros) - 1 + u(zeros)) : 0;
  }
  int32_t se() {
    const uint32_t k = ue();
    return (k & 1) ? static_cast<int32_t>((k + 1) / 2) : -static_cast<int32_t>(k / 2);
  }

 private:
  std::vector<uint8_t> b_;
  size_t pos_ = 0;
};

// The bytes behind a unit's start code (zero bytes in front of it allowed);
// empty when there is no start code.
std::span<const uint8_t> behind_start_code(std::span<const uint8_t> nal) {
  size_t skip = 0;
  while (skip < nal.size() && nal[skip] == 0) ++skip;
  if (skip < 2 || skip >= nal.size() || nal[skip] != 1) return {};
  return nal.subspan(skip + 1);
}

void skip_scaling_list(Bits &b, int size) {
  int last = 8, next = 8;
  for (int j = 0; j < size; ++j) {
    if (next != 0) next = (last + b.se() + 256) % 256;
    last = next == 0 ? last : next;
  }
}

}  // namespace

std::unique_ptr<ByteSource> open_source(const std::string &path) {
  if (path == "-") return std::make_unique<FdSource>(0, "standard input", false);
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) throw InputError("cannot open " + path + ": " + std::strerror(errno));
  return std::make_unique<FdSource>(fd, path, true);
}

std::unique_ptr<ByteSource> memory_source(std::span<const uint8_t> bytes) {
  return std::make_unique<MemorySource>(bytes);
}

bool Buffered::more() {
  if (eof_) return false;
  if (pos_ > 0 && pos_ >= buf_.size() / 2) {
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<long>(pos_));
    pos_ = 0;
  }
  const size_t old = buf_.size();
  buf_.resize(old + kBlock);
  const size_t got = src_->read(buf_.data() + old, kBlock);
  buf_.resize(old + got);
  if (got == 0) eof_ = true;
  return got > 0;
}

bool Buffered::want(size_t n) {
  while (size() < n)
    if (!more()) return false;
  return true;
}

// ---- H.264 ----

std::optional<NalUnit> NalReader::next() {
  if (!started_) {
    // The stream must begin with a start code (zero bytes in front are allowed).
    size_t z = 0;
    while (true) {
      if (!in_.want(z + 3)) break;
      if (in_.data()[z] != 0) break;
      if (in_.data()[z + 1] == 0 && in_.data()[z + 2] == 1) break;
      ++z;
    }
    if (in_.size() < z + 3 || in_.data()[z] != 0 || in_.data()[z + 1] != 0 ||
        in_.data()[z + 2] != 1) {
      if (in_.at_end() || in_.size() == 0) return std::nullopt;
      throw InputError(std::string("not an ") + codec_ +
                       " Annex B stream: it does not begin with a start code");
    }
    in_.consume(z > 0 ? z - 1 : 0);
    started_ = true;
  }
  if (in_.size() == 0 && !in_.more()) return std::nullopt;
  // Here the window begins with 00 00 01 or 00 00 00 01.
  const int sc = (in_.size() >= 4 && in_.data()[2] == 0) ? 4 : 3;
  size_t search = static_cast<size_t>(sc);
  size_t end = std::string::npos;
  for (;;) {
    end = find_start(in_.data(), in_.size(), search);
    if (end != std::string::npos) break;
    search = in_.size() > 2 ? in_.size() - 2 : 0;
    if (!in_.more()) break;
  }
  // A four-byte start code begins with the zero in front of 00 00 01.
  size_t next = end == std::string::npos ? in_.size() : end;
  if (end != std::string::npos && end > static_cast<size_t>(sc) && in_.data()[end - 1] == 0) --next;
  // Zero bytes in front of the next start code are padding, not part of this unit.
  size_t len = next;
  while (len > static_cast<size_t>(sc) && in_.data()[len - 1] == 0) --len;
  NalUnit nal;
  nal.start_code = sc;
  nal.bytes.assign(in_.data(), in_.data() + len);
  in_.consume(next);
  return nal;
}

std::optional<AccessUnit> AccessUnitReader::next() {
  AccessUnit au;
  for (;;) {
    std::optional<NalUnit> nal = pending_ ? std::move(pending_) : nals_.next();
    pending_.reset();
    if (!nal) break;
    const auto *payload = nal->bytes.data() + nal->start_code;
    const size_t payload_size = nal->bytes.size() - static_cast<size_t>(nal->start_code);
    int t = 0;
    bool picture = false, first_slice = false, opener = false;
    if (hevc_) {
      t = nal->hevc_type();
      picture = t >= 0 && t < 32;
      first_slice = picture && payload_size > 2 && (payload[2] & 0x80) != 0;
      opener = (t >= 32 && t <= 35) || t == 39 || (t >= 41 && t <= 44) || (t >= 48 && t <= 55) ||
               first_slice;
    } else {
      t = nal->type();
      picture = t == 1 || t == 5;
      first_slice = picture && payload_size > 1 && (payload[1] & 0x80) != 0;  // first_mb == 0
      opener = (t >= 6 && t <= 9) || (t >= 14 && t <= 18) || first_slice;
    }
    if (au.has_picture && opener) {
      pending_ = std::move(nal);
      break;
    }
    au.nals.push_back({au.bytes.size(), nal->bytes.size(), t});
    au.bytes.insert(au.bytes.end(), nal->bytes.begin(), nal->bytes.end());
    au.has_picture |= picture;
    au.slices += picture;
    if (hevc_) {
      au.idr |= t >= 16 && t <= 21;
      if (first_slice && hevc_slice_type(nal->bytes, extra_slice_header_bits_) == 0)
        au.bipred = true;
      if (t == 34) extra_slice_header_bits_ = std::max(0, hevc_extra_slice_header_bits(nal->bytes));
      au.has_vps |= t == 32;
      au.has_sps |= t == 33;
      au.has_pps |= t == 34;
    } else {
      au.idr |= t == 5;
      if (picture && slice_type(nal->bytes) % 5 == 1) au.bipred = true;
      au.has_sps |= t == 7;
      au.has_pps |= t == 8;
    }
  }
  if (au.nals.empty()) return std::nullopt;
  return au;
}

std::optional<SpsInfo> parse_sps(std::span<const uint8_t> nal) {
  size_t skip = 0;
  while (skip < nal.size() && nal[skip] == 0) ++skip;
  if (skip >= 2 && skip < nal.size() && nal[skip] == 1)
    ++skip;
  else
    skip = 0;
  if (nal.size() < skip + 4 || (nal[skip] & 0x1F) != 7) return std::nullopt;
  try {
    Bits b(mp4rec::unescape_rbsp(nal.subspan(skip + 1)));
    SpsInfo s;
    s.profile = static_cast<int>(b.u(8));
    b.u(8);
    s.level = static_cast<int>(b.u(8));
    b.ue();
    uint32_t chroma = 1;
    static constexpr int kHigh[] = {100, 110, 122, 244, 44, 83, 86, 118, 128, 138, 139, 134, 135};
    if (std::find(std::begin(kHigh), std::end(kHigh), s.profile) != std::end(kHigh)) {
      chroma = b.ue();
      if (chroma == 3) b.u(1);
      b.ue();
      b.ue();
      b.u(1);
      if (b.u(1))
        for (int i = 0; i < (chroma != 3 ? 8 : 12); ++i)
          if (b.u(1)) skip_scaling_list(b, i < 6 ? 16 : 64);
    }
    b.ue();  // log2_max_frame_num
    const uint32_t poc = b.ue();
    if (poc == 0) {
      b.ue();
    } else if (poc == 1) {
      b.u(1);
      b.se();
      b.se();
      const uint32_t n = b.ue();
      for (uint32_t i = 0; i < n && i < 256; ++i) b.se();
    }
    b.ue();
    b.u(1);
    const uint32_t wmbs = b.ue() + 1;
    const uint32_t hmaps = b.ue() + 1;
    const uint32_t frame_mbs_only = b.u(1);
    if (!frame_mbs_only) b.u(1);
    b.u(1);
    int w = static_cast<int>(wmbs * 16), h = static_cast<int>(hmaps * 16 * (2 - frame_mbs_only));
    if (b.u(1)) {  // cropping
      const int cx = chroma == 1 || chroma == 2 ? 2 : 1;
      const int cy = (chroma == 1 ? 2 : 1) * (2 - static_cast<int>(frame_mbs_only));
      const int l = static_cast<int>(b.ue()), r = static_cast<int>(b.ue());
      const int t = static_cast<int>(b.ue()), bo = static_cast<int>(b.ue());
      w -= (l + r) * cx;
      h -= (t + bo) * cy;
    }
    s.width = w;
    s.height = h;
    if (b.u(1)) {  // VUI
      if (b.u(1)) {
        if (b.u(8) == 255) b.u(32);
      }
      if (b.u(1)) b.u(1);
      if (b.u(1)) {
        b.u(4);
        if (b.u(1)) b.u(24);
      }
      if (b.u(1)) {
        b.ue();
        b.ue();
      }
      if (b.u(1)) {
        const uint32_t units = b.u(32), scale = b.u(32);
        if (units) s.fps = static_cast<double>(scale) / (2.0 * units);
      }
    }
    return s;
  } catch (const InputError &) {
    return std::nullopt;
  }
}

std::optional<SpsInfo> parse_hevc_sps(std::span<const uint8_t> nal) {
  const auto sps = mp4rec::hevc::parse_sps(behind_start_code(nal));
  if (!sps) return std::nullopt;
  SpsInfo s;
  s.profile = sps->profile_tier_level[0] & 0x1F;
  s.level = sps->profile_tier_level[11];
  s.width = static_cast<int>(sps->width);
  s.height = static_cast<int>(sps->height);
  s.fps = sps->fps;
  return s;
}

int slice_type(std::span<const uint8_t> nal) {
  const auto unit = behind_start_code(nal);
  if (unit.empty()) return -1;
  try {
    Bits b(mp4rec::unescape_rbsp(unit.subspan(1, std::min<size_t>(unit.size() - 1, 16))));
    b.ue();  // first_mb_in_slice
    const uint32_t t = b.ue();
    return t <= 9 ? static_cast<int>(t) : -1;
  } catch (const InputError &) {
    return -1;
  }
}

int hevc_slice_type(std::span<const uint8_t> nal, int extra_slice_header_bits) {
  const auto unit = behind_start_code(nal);
  if (unit.size() < 3) return -1;
  const int type = (unit[0] >> 1) & 0x3F;
  try {
    Bits b(mp4rec::unescape_rbsp(unit.subspan(2, std::min<size_t>(unit.size() - 2, 16))));
    if (b.u(1) == 0) return -1;            // not the first slice segment of its picture
    if (type >= 16 && type <= 23) b.u(1);  // no_output_of_prior_pics_flag
    b.ue();                                // slice_pic_parameter_set_id
    b.u(extra_slice_header_bits);
    const uint32_t t = b.ue();
    return t <= 2 ? static_cast<int>(t) : -1;
  } catch (const InputError &) {
    return -1;
  }
}

int hevc_extra_slice_header_bits(std::span<const uint8_t> pps) {
  const auto unit = behind_start_code(pps);
  if (unit.size() < 3) return -1;
  try {
    Bits b(mp4rec::unescape_rbsp(unit.subspan(2)));
    b.ue();  // pps_pic_parameter_set_id
    b.ue();  // pps_seq_parameter_set_id
    b.u(2);  // dependent_slice_segments_enabled_flag, output_flag_present_flag
    return static_cast<int>(b.u(3));
  } catch (const InputError &) {
    return -1;
  }
}

// ---- AAC ----

std::optional<AdtsFrame> AdtsReader::next() {
  if (!in_.want(7)) {
    trailing_ = in_.size();
    return std::nullopt;
  }
  const uint8_t *h = in_.data();
  if (h[0] != 0xFF || (h[1] & 0xF6) != 0xF0)
    throw InputError("not an ADTS AAC stream (no frame sync at byte " +
                     std::to_string(in_.offset()) + ")");
  static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                   22050, 16000, 12000, 11025, 8000,  7350};
  const int sf = (h[2] >> 2) & 0xF;
  const size_t len = (size_t{h[3]} & 3) << 11 | size_t{h[4]} << 3 | h[5] >> 5;
  if (sf > 12 || len < 8)
    throw InputError("bad ADTS frame header at byte " + std::to_string(in_.offset()));
  if (!in_.want(len)) {
    trailing_ = in_.size();
    return std::nullopt;
  }
  h = in_.data();
  AdtsFrame f;
  f.profile = (h[2] >> 6) + 1;
  f.sample_rate = kRates[sf];
  f.channels = ((h[2] & 1) << 2) | (h[3] >> 6);
  f.bytes.assign(h, h + len);
  in_.consume(len);
  return f;
}

// ---- JPEG ----

std::optional<JpegPicture> JpegReader::next() {
  // Fill bytes between pictures are skipped.
  for (;;) {
    if (!in_.want(2)) {
      trailing_ = in_.size();
      return std::nullopt;
    }
    if (in_.data()[0] == 0xFF && in_.data()[1] == 0xD8) break;
    if (in_.data()[0] != 0 && in_.data()[0] != 0xFF)
      throw InputError("not a JPEG stream (no start of image at byte " +
                       std::to_string(in_.offset()) + ")");
    in_.consume(1);
  }
  JpegPicture pic;
  size_t p = 2;
  bool in_scan = false;
  for (;;) {
    if (!in_.want(p + 2)) {
      trailing_ = in_.size();
      return std::nullopt;  // a picture cut short
    }
    const uint8_t *d = in_.data();
    if (in_scan) {
      // Entropy-coded data runs to the next marker that is not a stuffed zero or a restart.
      if (d[p] != 0xFF) {
        ++p;
        continue;
      }
      const uint8_t m = d[p + 1];
      if (m == 0x00 || (m >= 0xD0 && m <= 0xD7) || m == 0xFF) {
        p += m == 0xFF ? 1 : 2;
        continue;
      }
      in_scan = false;
    }
    if (d[p] != 0xFF)
      throw InputError("broken JPEG picture at byte " + std::to_string(in_.offset() + p));
    const uint8_t m = d[p + 1];
    if (m == 0xFF) {
      ++p;
      continue;
    }
    if (m == 0xD9) {
      p += 2;
      break;
    }
    if (m == 0x01 || (m >= 0xD0 && m <= 0xD7)) {
      p += 2;
      continue;
    }
    if (!in_.want(p + 4)) {
      trailing_ = in_.size();
      return std::nullopt;
    }
    d = in_.data();
    const size_t seg = size_t{d[p + 2]} << 8 | d[p + 3];
    if (seg < 2)
      throw InputError("broken JPEG segment at byte " + std::to_string(in_.offset() + p));
    if (!in_.want(p + 2 + seg)) {
      trailing_ = in_.size();
      return std::nullopt;
    }
    d = in_.data();
    const bool sof = m >= 0xC0 && m <= 0xCF && m != 0xC4 && m != 0xC8 && m != 0xCC;
    if (sof && seg >= 7) {
      pic.height = d[p + 5] << 8 | d[p + 6];
      pic.width = d[p + 7] << 8 | d[p + 8];
    }
    p += 2 + seg;
    if (m == 0xDA) in_scan = true;
  }
  pic.bytes.assign(in_.data(), in_.data() + p);
  in_.consume(p);
  return pic;
}

// ---- PCM ----

std::optional<std::vector<uint8_t>> PcmReader::next() {
  if (!in_.want(block_)) {
    trailing_ = in_.size();
    return std::nullopt;
  }
  std::vector<uint8_t> b(in_.data(), in_.data() + block_);
  in_.consume(block_);
  return b;
}

}  // namespace mp4tool
