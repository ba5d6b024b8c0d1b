#include "input.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace bench {
namespace {

std::vector<uint8_t> read_all(const std::string &path) {
  std::ifstream f(path, std::ios::binary | std::ios::ate);
  if (!f) throw std::runtime_error("cannot read " + path);
  std::vector<uint8_t> bytes(size_t(f.tellg()));
  f.seekg(0);
  if (!f.read(reinterpret_cast<char *>(bytes.data()), std::streamsize(bytes.size())))
    throw std::runtime_error("cannot read " + path);
  return bytes;
}

// Offsets of every start code (3 or 4 bytes) in an Annex B stream, with the
// start code's length.
struct StartCode {
  size_t pos;
  size_t len;
};
std::vector<StartCode> start_codes(std::span<const uint8_t> s) {
  std::vector<StartCode> out;
  for (size_t i = 0; i + 3 <= s.size();) {
    if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
      const bool four = i > 0 && s[i - 1] == 0;
      out.push_back({four ? i - 1 : i, four ? 4u : 3u});
      i += 3;
    } else {
      ++i;
    }
  }
  return out;
}

void put_be32(std::vector<uint8_t> &v, uint32_t x) {
  v.push_back(uint8_t(x >> 24));
  v.push_back(uint8_t(x >> 16));
  v.push_back(uint8_t(x >> 8));
  v.push_back(uint8_t(x));
}

}  // namespace

double Input::seconds() const {
  return units.empty() ? 0.0 : (units.back().ts + units.back().duration) / 1000.0;
}

Input load_input(const std::string &video_path, const std::string &audio_path, int width,
                 int height, int fps, bool hevc) {
  Input in;
  in.hevc = hevc;
  // NAL types by codec: pictures (slices) and sync pictures, SPS and PPS.
  const auto type_of = [hevc](uint8_t header) {
    return hevc ? (header >> 1) & 0x3F : header & 0x1F;
  };
  const auto picture = [hevc](int t) { return hevc ? t < 32 : t == 1 || t == 5; };
  const auto key = [hevc](int t) { return hevc ? t >= 16 && t <= 21 : t == 5; };
  const int sps_type = hevc ? 33 : 7, pps_type = hevc ? 34 : 8;
  in.width = width;
  in.height = height;
  in.fps = fps;
  in.annexb = read_all(video_path);
  if (!audio_path.empty()) in.adts = read_all(audio_path);

  // NAL units, each with its start code.
  const auto codes = start_codes(in.annexb);
  if (codes.empty()) throw std::runtime_error(video_path + ": no start code");
  for (size_t i = 0; i < codes.size(); ++i) {
    const size_t end = i + 1 < codes.size() ? codes[i + 1].pos : in.annexb.size();
    in.nals.emplace_back(in.annexb.data() + codes[i].pos, end - codes[i].pos);
  }

  // Video access units: every NAL up to and including the next picture slice.
  std::vector<Unit> video;
  size_t first = 0;
  for (size_t i = 0; i < in.nals.size(); ++i) {
    const size_t sc = codes[i].len;
    const auto nal = in.nals[i];
    if (nal.size() <= sc) throw std::runtime_error(video_path + ": empty NAL unit");
    const int type = type_of(nal[sc]);
    if (type == sps_type && in.sps.empty()) in.sps.assign(nal.begin() + sc, nal.end());
    if (type == pps_type && in.pps.empty()) in.pps.assign(nal.begin() + sc, nal.end());
    if (!picture(type)) continue;
    Unit u;
    u.video = true;
    u.nal_first = uint32_t(first);
    u.nal_count = uint32_t(i + 1 - first);
    for (size_t k = first; k <= i; ++k) {
      if (key(type_of(in.nals[k][codes[k].len]))) u.key = true;
    }
    video.push_back(u);
    first = i + 1;
  }
  if (in.sps.empty() || in.pps.empty()) throw std::runtime_error(video_path + ": no SPS/PPS");
  for (size_t f = 0; f < video.size(); ++f) {
    video[f].ts = uint32_t(f * 1000 / fps);
    const uint32_t next = uint32_t((f + 1) * 1000 / fps);
    video[f].duration = next - video[f].ts;
  }

  // Audio frames: ADTS headers without CRC (protection_absent = 1).
  std::vector<Unit> audio;
  for (size_t p = 0; p + 7 <= in.adts.size();) {
    const uint8_t *h = in.adts.data() + p;
    if (h[0] != 0xFF || (h[1] & 0xF0) != 0xF0) throw std::runtime_error(audio_path + ": lost sync");
    if (!(h[1] & 1)) throw std::runtime_error(audio_path + ": ADTS with CRC is not supported");
    const uint32_t len = ((h[3] & 3u) << 11) | (uint32_t(h[4]) << 3) | (h[5] >> 5);
    if (len < 8 || p + len > in.adts.size()) throw std::runtime_error(audio_path + ": bad frame");
    if (audio.empty()) {
      static constexpr int kRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                       22050, 16000, 12000, 11025, 8000,  7350};
      const int profile = (h[2] >> 6) + 1;
      const int sr_index = (h[2] >> 2) & 0xF;
      const int channels = ((h[2] & 1) << 2) | (h[3] >> 6);
      if (sr_index > 12) throw std::runtime_error(audio_path + ": bad sample rate");
      in.sample_rate = kRates[sr_index];
      in.aac_config[0] = uint8_t((profile << 3) | (sr_index >> 1));
      in.aac_config[1] = uint8_t(((sr_index & 1) << 7) | (channels << 3));
    }
    Unit u;
    u.adts_off = p;
    u.adts_len = len;
    audio.push_back(u);
    p += len;
  }
  for (size_t f = 0; f < audio.size(); ++f) {
    uint64_t t0 = uint64_t(f) * 1024 * 1000 / in.sample_rate;
    uint64_t t1 = uint64_t(f + 1) * 1024 * 1000 / in.sample_rate;
    audio[f].ts = uint32_t(t0);
    audio[f].duration = uint32_t(t1 - t0);
  }

  // Merge by time stamp (video first on a tie) and lay the samples out as they
  // stand in mdat.
  in.units.reserve(video.size() + audio.size());
  std::merge(video.begin(), video.end(), audio.begin(), audio.end(), std::back_inserter(in.units),
             [](const Unit &a, const Unit &b) { return a.ts < b.ts; });
  for (auto &u : in.units) {
    u.sample_off = in.samples.size();
    if (u.video) {
      for (uint32_t k = u.nal_first; k < u.nal_first + u.nal_count; ++k) {
        const size_t sc = codes[k].len;
        const auto nal = in.nals[k];
        if (!picture(type_of(nal[sc]))) continue;
        put_be32(in.samples, uint32_t(nal.size() - sc));
        in.samples.insert(in.samples.end(), nal.begin() + sc, nal.end());
      }
      ++in.video_frames;
    } else {
      in.samples.insert(in.samples.end(), in.adts.begin() + u.adts_off + 7,
                        in.adts.begin() + u.adts_off + u.adts_len);
      ++in.audio_frames;
    }
    u.sample_len = uint32_t(in.samples.size() - u.sample_off);
  }
  in.media_bytes = in.samples.size();
  return in;
}

}  // namespace bench
