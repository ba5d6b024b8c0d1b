// Test media made at test time with ffmpeg, and checks by tools nobody here
// wrote (ffprobe, ffmpeg). Generated files are cached in the build tree.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

struct CommandResult {
  int status = -1;     // exit status (-1 if it could not run)
  std::string output;  // stdout and stderr together
};
CommandResult run_command(const std::string &command);

// A fresh directory removed with its contents when the object dies.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir &) = delete;
  TempDir &operator=(const TempDir &) = delete;
  const std::string &path() const { return path_; }
  std::string file(const std::string &name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

std::vector<uint8_t> read_file(const std::string &path);
void write_file(const std::string &path, const std::vector<uint8_t> &bytes);

// An H.264 Annex B elementary stream from x264 (single-threaded, no SEI), with
// SPS+PPS+IDR every `gop` frames. Cached by parameters.
std::string h264_stream(int width, int height, int fps, double seconds, int gop);
// An H.265 Annex B elementary stream from x265 (single-threaded, no SEI, no B
// pictures), with VPS+SPS+PPS+IDR every `gop` frames and `slices` slice
// segments per picture. Cached by parameters.
std::string hevc_stream(int width, int height, int fps, double seconds, int gop, int slices = 1);
// ADTS AAC-LC, mono, sine tone. Cached by parameters.
std::string aac_stream(int sample_rate, double seconds);
// Signed 16-bit little-endian mono PCM of a sine tone.
std::string pcm16_stream(int sample_rate, double seconds, int tone_hz = 1000);
// A sequence of JPEG pictures, concatenated (MJPEG elementary stream).
std::string mjpeg_stream(int width, int height, int fps, double seconds);

// One NAL unit with its start code, as it stands in an Annex B stream.
struct Nal {
  std::vector<uint8_t> bytes;  // start code included
  int start_code = 4;          // 3 or 4
  int type() const { return bytes[static_cast<size_t>(start_code)] & 0x1F; }
  int hevc_type() const { return (bytes[static_cast<size_t>(start_code)] >> 1) & 0x3F; }
  // An H.265 slice segment that begins its picture.
  bool hevc_first_slice() const {
    return hevc_type() < 32 && (bytes[static_cast<size_t>(start_code) + 2] & 0x80) != 0;
  }
};
std::vector<Nal> split_annexb(const std::vector<uint8_t> &stream);
// Access units: every NAL up to and including the next picture slice (type 1
// or 5); with `hevc`, up to the last slice segment of the next picture.
std::vector<std::vector<Nal>> access_units(const std::vector<Nal> &nals, bool hevc = false);
// ADTS frames with their 7-byte headers.
std::vector<std::vector<uint8_t>> split_adts(const std::vector<uint8_t> &stream);
// JPEG pictures (FFD8 .. FFD9) of a concatenated stream.
std::vector<std::vector<uint8_t>> split_jpeg(const std::vector<uint8_t> &stream);

// ffprobe's count of decoded frames of the first stream of `kind` ("v" or "a");
// -1 when ffprobe fails.
long ffprobe_frames(const std::string &path, const std::string &kind);
// Number of packets of the first stream of `kind` (no decoding).
long ffprobe_packets(const std::string &path, const std::string &kind);
// One ffprobe stream field (e.g. "codec_name", "sample_rate", "channels").
std::string ffprobe_stream_field(const std::string &path, const std::string &kind,
                                 const std::string &field);
// What `ffmpeg -v error -i path -f null -` prints (empty when clean), or the
// failure text with the exit status.
std::string ffmpeg_decode_errors(const std::string &path, const std::string &extra_args = "");

// Every validator of scripts/validate.sh that the tests run (nothing is
// installed): ffprobe (both tracks, each track's duration within one sample of
// its samples), ffmpeg (every sample of both tracks decoded, no error line),
// gst-discoverer-1.0 (both tracks, the file's duration) and a qtdemux pipeline
// (every video and audio buffer decoded). Returns the lines of the checks that
// did not pass, empty when all passed.
std::string validate(const std::string &path);

}  // namespace testsupport
