// Readers of the elementary streams that `mp4rec record` takes: H.264 and
// H.265 Annex B cut into NAL units and access units, ADTS AAC frames, JPEG pictures and raw
// PCM blocks. Every reader works on a byte source (a file, standard input or
// memory) without needing the whole stream at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <vector>

namespace mp4tool {

// Bad input: the message says what is wrong with the stream.
struct InputError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class ByteSource {
 public:
  virtual ~ByteSource() = default;
  // Reads up to `n` bytes; 0 at the end. Throws InputError on a read error.
  virtual size_t read(uint8_t *dst, size_t n) = 0;
};

// A file by name, or standard input for "-".
std::unique_ptr<ByteSource> open_source(const std::string &path);
std::unique_ptr<ByteSource> memory_source(std::span<const uint8_t> bytes);

// A growing window on a byte source.
class Buffered {
 public:
  explicit Buffered(std::unique_ptr<ByteSource> src) : src_(std::move(src)) {}
  // Makes at least `n` bytes available if the source has them; false at the end.
  bool want(size_t n);
  // Reads one more block; false at the end.
  bool more();
  const uint8_t *data() const { return buf_.data() + pos_; }
  size_t size() const { return buf_.size() - pos_; }
  void consume(size_t n) {
    pos_ += n;
    consumed_ += n;
  }
  bool at_end() const { return eof_ && size() == 0; }
  uint64_t offset() const { return consumed_; }

 private:
  std::unique_ptr<ByteSource> src_;
  std::vector<uint8_t> buf_;
  size_t pos_ = 0;
  uint64_t consumed_ = 0;
  bool eof_ = false;
};

// ---- H.264 and H.265 ----

struct NalUnit {
  std::vector<uint8_t> bytes;  // start code included
  int start_code = 4;          // 3 or 4
  int type() const { return bytes.size() > size_t(start_code) ? bytes[start_code] & 0x1F : -1; }
  int hevc_type() const {
    return bytes.size() > size_t(start_code) ? (bytes[start_code] >> 1) & 0x3F : -1;
  }
};

class NalReader {
 public:
  // `codec` names the stream in the error message.
  explicit NalReader(std::unique_ptr<ByteSource> src, const char *codec = "H.264")
      : in_(std::move(src)), codec_(codec) {}
  // The next NAL unit, or nothing at the end. Throws InputError when the stream
  // does not begin with a start code.
  std::optional<NalUnit> next();

 private:
  Buffered in_;
  const char *codec_;
  bool started_ = false;
};

struct AccessUnit {
  std::vector<uint8_t> bytes;  // the NAL units one behind the other, start codes included
  struct Part {
    size_t offset, size;
    int type;  // of the stream's codec
  };
  std::vector<Part> nals;
  bool idr = false;  // H.265: an IRAP picture (BLA, IDR, CRA)
  bool has_picture = false;
  bool has_vps = false;  // H.265
  bool has_sps = false;
  bool has_pps = false;
  bool bipred = false;  // holds a B slice
  int slices = 0;       // H.264 slices, H.265 slice segments
};

// Groups NAL units into access units: parameter sets, SEI and delimiters open a
// new unit after a picture, as does a slice that starts a new picture. With
// `hevc` the stream is H.265.
class AccessUnitReader {
 public:
  explicit AccessUnitReader(std::unique_ptr<ByteSource> src, bool hevc = false)
      : nals_(std::move(src), hevc ? "H.265" : "H.264"), hevc_(hevc) {}
  std::optional<AccessUnit> next();

 private:
  NalReader nals_;
  bool hevc_;
  int extra_slice_header_bits_ = 0;  // H.265: of the latest PPS
  std::optional<NalUnit> pending_;
};

struct SpsInfo {
  int profile = 0;
  int level = 0;
  int width = 0;
  int height = 0;
  double fps = 0;  // from the timing information, 0 when absent
};
// Parses a sequence parameter set NAL unit (start code included or not).
std::optional<SpsInfo> parse_sps(std::span<const uint8_t> nal);
// The same for an H.265 SPS (start code included).
std::optional<SpsInfo> parse_hevc_sps(std::span<const uint8_t> nal);

// The slice_type of a slice NAL unit (0..9), or -1 when it cannot be read.
int slice_type(std::span<const uint8_t> nal);

// H.265: the slice_type (0 B, 1 P, 2 I) of a slice segment that begins its
// picture, given the PPS's num_extra_slice_header_bits; -1 for any other unit
// or when it cannot be read.
int hevc_slice_type(std::span<const uint8_t> nal, int extra_slice_header_bits);
// H.265: num_extra_slice_header_bits of a PPS NAL unit, or -1.
int hevc_extra_slice_header_bits(std::span<const uint8_t> pps);

// ---- AAC ----

struct AdtsFrame {
  std::vector<uint8_t> bytes;  // header included
  int sample_rate = 0;
  int channels = 0;
  int profile = 0;  // 1 = AAC LC
};

class AdtsReader {
 public:
  explicit AdtsReader(std::unique_ptr<ByteSource> src) : in_(std::move(src)) {}
  // The next frame, or nothing at the end. Throws InputError on a lost sync.
  std::optional<AdtsFrame> next();
  // Bytes left at the end that do not make a whole frame.
  size_t trailing_bytes() const { return trailing_; }

 private:
  Buffered in_;
  size_t trailing_ = 0;
};

// ---- JPEG ----

struct JpegPicture {
  std::vector<uint8_t> bytes;  // SOI .. EOI
  int width = 0;
  int height = 0;
};

class JpegReader {
 public:
  explicit JpegReader(std::unique_ptr<ByteSource> src) : in_(std::move(src)) {}
  // The next picture, or nothing at the end. Throws InputError for bytes that
  // are not JPEG pictures.
  std::optional<JpegPicture> next();
  size_t trailing_bytes() const { return trailing_; }

 private:
  Buffered in_;
  size_t trailing_ = 0;
};

// ---- PCM ----

class PcmReader {
 public:
  PcmReader(std::unique_ptr<ByteSource> src, size_t block) : in_(std::move(src)), block_(block) {}
  // The next whole block, or nothing at the end.
  std::optional<std::vector<uint8_t>> next();
  size_t trailing_bytes() const { return trailing_; }

 private:
  Buffered in_;
  size_t block_;
  size_t trailing_ = 0;
};

}  // namespace mp4tool
