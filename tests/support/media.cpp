#include "support/media.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <stdexcept>

namespace testsupport {

namespace fs = std::filesystem;

CommandResult run_command(const std::string &command) {
  CommandResult r;
  FILE *p = popen((command + " 2>&1").c_str(), "r");
  if (p == nullptr) return r;
  std::array<char, 4096> buf{};
  size_t n;
  while ((n = fread(buf.data(), 1, buf.size(), p)) > 0) r.output.append(buf.data(), n);
  const int st = pclose(p);
  r.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
  return r;
}

TempDir::TempDir() {
  std::string tmpl = (fs::temp_directory_path() / "mp4rec-test-XXXXXX").string();
  if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  fs::remove_all(path_, ec);
}

std::vector<uint8_t> read_file(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot read " + path);
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

void write_file(const std::string &path, const std::vector<uint8_t> &bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char *>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  if (!out) throw std::runtime_error("cannot write " + path);
}

namespace {

// Makes `name` in the cache with the ffmpeg arguments unless it is there; the
// file is written under a temporary name and renamed so parallel tests agree.
std::string cached(const std::string &name, const std::string &ffmpeg_args) {
  const fs::path dir = MP4REC_TEST_CACHE;
  fs::create_directories(dir);
  const fs::path out = dir / name;
  if (fs::exists(out)) return out.string();
  const std::string tmp = out.string() + ".tmp" + std::to_string(getpid());
  const auto r = run_command("ffmpeg -nostdin -hide_banner -loglevel error -y " + ffmpeg_args +
                             " '" + tmp + "'");
  if (r.status != 0) throw std::runtime_error("ffmpeg failed for " + name + ": " + r.output);
  fs::rename(tmp, out);
  return out.string();
}

std::string num(double v) {
  std::ostringstream s;
  s << v;
  return s.str();
}

// The cache name of a stream of ffmpeg's test pictures, and their source.
std::string picture_stem(const std::string &kind, int width, int height, int fps, double seconds) {
  return kind + "_" + std::to_string(width) + "x" + std::to_string(height) + "_" +
         std::to_string(fps) + "_" + num(seconds);
}
std::string picture_source(int width, int height, int fps, double seconds) {
  return "-f lavfi -i testsrc2=size=" + std::to_string(width) + "x" + std::to_string(height) +
         ":rate=" + std::to_string(fps) + " -t " + num(seconds);
}

}  // namespace

std::string h264_stream(int width, int height, int fps, double seconds, int gop) {
  const std::string name =
      picture_stem("h264", width, height, fps, seconds) + "_" + std::to_string(gop) + ".h264";
  return cached(name, picture_source(width, height, fps, seconds) +
                          " -c:v libx264 -threads 1 -preset ultrafast -profile:v main"
                          " -pix_fmt yuv420p -bf 0 -g " +
                          std::to_string(gop) + " -keyint_min " + std::to_string(gop) +
                          " -sc_threshold 0 -x264-params repeat-headers=1"
                          " -bsf:v h264_mp4toannexb,filter_units=remove_types=6 -f h264");
}

std::string hevc_stream(int width, int height, int fps, double seconds, int gop, int slices) {
  const std::string name = picture_stem("hevc", width, height, fps, seconds) + "_" +
                           std::to_string(gop) + "_" + std::to_string(slices) + ".hevc";
  return cached(name, picture_source(width, height, fps, seconds) +
                          " -c:v libx265 -threads 1 -preset ultrafast -pix_fmt yuv420p"
                          " -x265-params bframes=0:keyint=" +
                          std::to_string(gop) + ":min-keyint=" + std::to_string(gop) +
                          ":scenecut=0:repeat-headers=1:info=0:pools=1:frame-threads=1:slices=" +
                          std::to_string(slices) +
                          ":log-level=error"
                          " -bsf:v 'hevc_mp4toannexb,filter_units=remove_types=39|40' -f hevc");
}

std::string aac_stream(int sample_rate, double seconds) {
  const std::string name = "aac_" + std::to_string(sample_rate) + "_" + num(seconds) + ".aac";
  return cached(name, "-f lavfi -i sine=frequency=1000:sample_rate=" + std::to_string(sample_rate) +
                          " -t " + num(seconds) +
                          " -c:a aac -profile:a aac_low -ac 1 -b:a 32k -f adts");
}

std::string pcm16_stream(int sample_rate, double seconds, int tone_hz) {
  const std::string name = "pcm16_" + std::to_string(sample_rate) + "_" + num(seconds) + "_" +
                           std::to_string(tone_hz) + ".raw";
  return cached(name, "-f lavfi -i sine=frequency=" + std::to_string(tone_hz) + ":sample_rate=" +
                          std::to_string(sample_rate) + " -t " + num(seconds) + " -ac 1 -f s16le");
}

std::string mjpeg_stream(int width, int height, int fps, double seconds) {
  const std::string name = picture_stem("mjpeg", width, height, fps, seconds) + ".mjpeg";
  return cached(name, picture_source(width, height, fps, seconds) +
                          " -c:v mjpeg -pix_fmt yuvj420p -q:v 5 -f mjpeg");
}

std::vector<Nal> split_annexb(const std::vector<uint8_t> &s) {
  std::vector<Nal> out;
  const size_t n = s.size();
  auto start_at = [&](size_t i) -> int {
    if (i + 3 <= n && s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) return 3;
    if (i + 4 <= n && s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 0 && s[i + 3] == 1) return 4;
    return 0;
  };
  size_t i = 0;
  while (i < n && start_at(i) == 0) ++i;
  while (i < n) {
    const int sc = start_at(i);
    size_t j = i + static_cast<size_t>(sc);
    while (j < n && start_at(j) == 0) ++j;
    Nal nal;
    nal.start_code = sc;
    nal.bytes.assign(s.begin() + static_cast<long>(i), s.begin() + static_cast<long>(j));
    // Trailing zero bytes before a 3-byte start code belong to the next start code.
    out.push_back(std::move(nal));
    i = j;
  }
  return out;
}

std::vector<std::vector<Nal>> access_units(const std::vector<Nal> &nals, bool hevc) {
  std::vector<std::vector<Nal>> units;
  std::vector<Nal> cur;
  bool picture = false;  // H.265: cur holds a picture, which later slice segments join
  for (const Nal &n : nals) {
    if (hevc && picture && (n.hevc_first_slice() || (n.hevc_type() >= 32 && n.hevc_type() != 40))) {
      units.push_back(std::move(cur));
      cur.clear();
      picture = false;
    }
    cur.push_back(n);
    picture = picture || (hevc && n.hevc_type() < 32);
    if (!hevc && (n.type() == 1 || n.type() == 5)) {
      units.push_back(std::move(cur));
      cur.clear();
    }
  }
  if (!cur.empty()) units.push_back(std::move(cur));
  return units;
}

std::vector<std::vector<uint8_t>> split_adts(const std::vector<uint8_t> &s) {
  std::vector<std::vector<uint8_t>> out;
  size_t i = 0;
  while (i + 7 <= s.size()) {
    if (s[i] != 0xFF || (s[i + 1] & 0xF0) != 0xF0) throw std::runtime_error("bad ADTS sync");
    const size_t len = (size_t{s[i + 3]} & 3) << 11 | size_t{s[i + 4]} << 3 | s[i + 5] >> 5;
    if (len < 7 || i + len > s.size()) break;
    out.emplace_back(s.begin() + static_cast<long>(i), s.begin() + static_cast<long>(i + len));
    i += len;
  }
  return out;
}

std::vector<std::vector<uint8_t>> split_jpeg(const std::vector<uint8_t> &s) {
  std::vector<std::vector<uint8_t>> out;
  size_t i = 0;
  while (i + 1 < s.size()) {
    if (!(s[i] == 0xFF && s[i + 1] == 0xD8)) {
      ++i;
      continue;
    }
    size_t j = i + 2;
    while (j + 1 < s.size() && !(s[j] == 0xFF && s[j + 1] == 0xD9)) ++j;
    if (j + 1 >= s.size()) break;
    out.emplace_back(s.begin() + static_cast<long>(i), s.begin() + static_cast<long>(j + 2));
    i = j + 2;
  }
  return out;
}

long ffprobe_frames(const std::string &path, const std::string &kind) {
  const auto r = run_command("ffprobe -v error -count_frames -select_streams " + kind +
                             ":0 -show_entries stream=nb_read_frames -of csv=p=0 '" + path + "'");
  if (r.status != 0) return -1;
  try {
    return std::stol(r.output);
  } catch (...) {
    return -1;
  }
}

long ffprobe_packets(const std::string &path, const std::string &kind) {
  const auto r = run_command("ffprobe -v error -count_packets -select_streams " + kind +
                             ":0 -show_entries stream=nb_read_packets -of csv=p=0 '" + path + "'");
  if (r.status != 0) return -1;
  try {
    return std::stol(r.output);
  } catch (...) {
    return -1;
  }
}

std::string ffprobe_stream_field(const std::string &path, const std::string &kind,
                                 const std::string &field) {
  auto r = run_command("ffprobe -v error -select_streams " + kind +
                       ":0 -show_entries stream=" + field + " -of csv=p=0 '" + path + "'");
  while (!r.output.empty() && (r.output.back() == '\n' || r.output.back() == '\r'))
    r.output.pop_back();
  return r.status == 0 ? r.output : "error: " + r.output;
}

std::string ffmpeg_decode_errors(const std::string &path, const std::string &extra_args) {
  const auto r =
      run_command("ffmpeg -nostdin -v error -i '" + path + "' " + extra_args + " -f null -");
  if (r.status != 0) return "exit " + std::to_string(r.status) + ": " + r.output;
  return r.output;
}

std::string validate(const std::string &path) {
  const auto r = run_command("'" MP4REC_VALIDATE_SCRIPT
                             "' --no-install --only ffprobe,ffmpeg,gst-discoverer,gst-qtdemux '" +
                             path + "'");
  std::istringstream lines(r.output);
  std::string failed;
  for (std::string line; std::getline(lines, line);) {
    // "  NAME  OK ..." for each check; the file name and the summary stand alone.
    std::istringstream words(line);
    std::string name, verdict;
    if (line.rfind("  ", 0) == 0 && words >> name >> verdict && verdict != "OK") {
      failed += line + "\n";
    }
  }
  if (failed.empty() && r.status != 0)
    failed = "exit " + std::to_string(r.status) + ": " + r.output;
  return failed;
}

}  // namespace testsupport
