#include "repair.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <mp4rec/mp4rec.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <optional>
#include <sstream>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "card_file.h"
#include "file_check.h"

namespace mp4tool {

namespace {

namespace fs = std::filesystem;
using Bytes = std::vector<uint8_t>;

// ---- bytes and files ---------------------------------------------------------

uint32_t be32(const uint8_t *p) {
  return uint32_t{p[0]} << 24 | uint32_t{p[1]} << 16 | uint32_t{p[2]} << 8 | p[3];
}
void put32(Bytes &b, uint32_t v) {
  for (int s = 24; s >= 0; s -= 8) b.push_back(static_cast<uint8_t>(v >> s));
}

using Card = CardFile;

const BoxInfo *child(const BoxInfo &b, const char *type) {
  return box_at(b, {type});
}
const BoxInfo *at(const BoxInfo &b, std::initializer_list<const char *> types) {
  return box_at(b, types);
}

// ---- H.264 samples -----------------------------------------------------------

// A whole H.264 sample at `off` as the writers store them: a 4-byte length,
// then one picture NAL unit (non-IDR or IDR slice, forbidden bit clear).
struct Sample {
  uint64_t offset;
  uint32_t size;  // with its length prefix
  bool idr;
};
std::optional<Sample> sample_at(const Card &f, uint64_t off, uint64_t end) {
  if (off + 5 > end) return std::nullopt;
  const Bytes b = f.read(off, 5);
  if (b.size() < 5) return std::nullopt;
  const uint32_t len = be32(b.data());
  const uint8_t nal = b[4];
  const int type = nal & 0x1F;
  if (len < 1 || len > (64u << 20) || off + 4 + len > end || (nal & 0x80) != 0 ||
      (type != 1 && type != 5) || (type == 5 && (nal & 0x60) == 0))
    return std::nullopt;
  return Sample{off, len + 4, type == 5};
}

// The run of whole samples from `off`, back to back.
std::vector<Sample> sample_run(const Card &f, uint64_t off, uint64_t end) {
  std::vector<Sample> run;
  while (auto s = sample_at(f, off, end)) {
    run.push_back(*s);
    off += s->size;
  }
  return run;
}

// Where the next run of samples starts behind `from` (a block of audio or
// damaged bytes of up to `window` bytes in between): two samples back to back,
// or one that ends the file. The first bytes of an audio frame never read as a
// plausible sample length, so a match this strong is video.
std::optional<uint64_t> next_run(const Card &f, uint64_t from, uint64_t end, uint64_t window) {
  const uint64_t last = std::min(end, from + window);
  for (uint64_t p = from + 1; p < last; ++p) {
    const auto s = sample_at(f, p, end);
    if (!s) continue;
    if (p + s->size == end || sample_at(f, p + s->size, end)) return p;
  }
  return std::nullopt;
}

// SPS and PPS (NAL units without start codes).
struct ParameterSets {
  Bytes sps, pps;
  bool ok() const { return !sps.empty() && !pps.empty(); }
};

// From an avcC decoder configuration record (01 ... then SPS and PPS).
ParameterSets from_avcc(const Bytes &b, size_t at) {
  ParameterSets p;
  if (at + 8 > b.size() || b[at] != 1 || (b[at + 5] & 0x1F) < 1) return p;
  size_t i = at + 6;
  const size_t sps_len = size_t{b[i]} << 8 | b[i + 1];
  i += 2;
  if (i + sps_len + 3 > b.size()) return p;
  p.sps.assign(b.begin() + static_cast<long>(i), b.begin() + static_cast<long>(i + sps_len));
  i += sps_len;
  if (b[i] < 1) return {};
  const size_t pps_len = size_t{b[i + 1]} << 8 | b[i + 2];
  i += 3;
  if (i + pps_len > b.size()) return {};
  p.pps.assign(b.begin() + static_cast<long>(i), b.begin() + static_cast<long>(i + pps_len));
  return p;
}

// From an H.264 Annex B stream, or from the first avcC found in any file.
ParameterSets parameter_sets_from(const std::string &path) {
  Card f(path, false);
  const Bytes b = f.read(0, std::min<uint64_t>(f.size(), 64u << 20));
  for (size_t i = 0; i + 4 + 8 < b.size(); ++i) {
    if (std::memcmp(&b[i], "avcC", 4) == 0) {
      if (auto p = from_avcc(b, i + 4); p.ok()) return p;
    }
  }
  ParameterSets p;
  for (size_t i = 0; i + 4 < b.size(); ++i) {
    if (b[i] != 0 || b[i + 1] != 0 || b[i + 2] != 1) continue;
    const size_t start = i + 3;
    size_t end = start;
    while (end + 3 <= b.size() && !(b[end] == 0 && b[end + 1] == 0 && b[end + 2] <= 1)) ++end;
    if (end + 3 > b.size()) end = b.size();
    const int type = b[start] & 0x1F;
    Bytes nal(b.begin() + static_cast<long>(start), b.begin() + static_cast<long>(end));
    if (type == 7 && p.sps.empty()) p.sps = nal;
    if (type == 8 && p.pps.empty()) p.pps = nal;
    if (p.ok()) break;
    i = end - 1;
  }
  return p;
}

// Picture size from the SPS, through libavcodec's parser; 0 x 0 when unknown.
std::pair<int, int> picture_size(const ParameterSets &p, const Bytes &picture) {
  std::pair<int, int> size{0, 0};
  const AVCodec *codec = avcodec_find_decoder(AV_CODEC_ID_H264);
  AVCodecParserContext *parser = av_parser_init(AV_CODEC_ID_H264);
  AVCodecContext *ctx = codec ? avcodec_alloc_context3(codec) : nullptr;
  if (parser && ctx) {
    Bytes annexb;
    for (const Bytes *nal : {&p.sps, &p.pps, &picture}) {
      annexb.insert(annexb.end(), {0, 0, 0, 1});
      annexb.insert(annexb.end(), nal->begin(), nal->end());
    }
    annexb.insert(annexb.end(), {0, 0, 0, 1, 0x09, 0xF0});  // ends the picture
    uint8_t *out = nullptr;
    int out_size = 0;
    av_parser_parse2(parser, ctx, &out, &out_size, annexb.data(), static_cast<int>(annexb.size()),
                     AV_NOPTS_VALUE, AV_NOPTS_VALUE, 0);
    if (parser->width > 0 && parser->height > 0) size = {parser->width, parser->height};
  }
  if (parser) av_parser_close(parser);
  if (ctx) avcodec_free_context(&ctx);
  return size;
}

// ---- the index in front ------------------------------------------------------

// One reserved table: where its count and entries are, its room, its entries.
struct Table {
  uint64_t count_pos = 0;
  uint64_t entries_pos = 0;
  uint32_t room = 0;
  uint32_t count = 0;
  Bytes entries;  // room entries, as read
  uint32_t word(size_t i) const { return i * 4 + 4 <= entries.size() ? be32(&entries[i * 4]) : 0; }
};

Table read_table(const Card &f, const BoxInfo &box, uint32_t entry_words) {
  Table t;
  const bool stsz = box.type == "stsz";
  t.count_pos = box.offset + (stsz ? 16 : 12);
  t.entries_pos = t.count_pos + 4;
  const uint64_t end = std::min(box.offset + box.size, f.size());
  t.room = end > t.entries_pos ? static_cast<uint32_t>((end - t.entries_pos) / 4 / entry_words) : 0;
  t.count = std::min(f.u32(t.count_pos), t.room);
  t.entries = f.read(t.entries_pos, uint64_t{t.room} * 4 * entry_words);
  return t;
}

struct Chunk {
  uint64_t offset;
  std::vector<uint32_t> sizes;
  int track;  // index into the track list
  uint64_t end() const {
    uint64_t e = offset;
    for (auto s : sizes) e += s;
    return e;
  }
};

// A track of a front-index file, as far as its tables and bytes agree.
struct FrontTrack {
  const BoxInfo *box = nullptr;
  bool video = false;
  uint32_t timescale = 0;
  Table stts, stss, stsc, stsz, stco;
  bool has_stss = false;
  uint64_t tkhd_duration = 0, mdhd_duration = 0, elst_duration = 0;
  const BoxInfo *avcc = nullptr;
  const BoxInfo *avc1 = nullptr;
  // Result.
  std::vector<Chunk> chunks;
  long indexed = 0;  // samples the cut file's counts described
};

// The chunks a track's tables describe, including those whose entries were
// written behind the counts before the cut: stco offset, one stsc entry
// (chunk, samples, 1) and a size for every sample, all present.
std::vector<Chunk> described_chunks(const FrontTrack &t, int index) {
  std::vector<Chunk> out;
  uint32_t sample = 0;
  for (uint32_t i = 0; i < t.stco.room; ++i) {
    const uint32_t offset = t.stco.word(i);
    if (offset == 0) break;
    uint32_t samples = 0;
    if (i < t.stsc.room && t.stsc.word(3 * i) == i + 1 && t.stsc.word(3 * i + 1) >= 1 &&
        t.stsc.word(3 * i + 2) == 1) {
      samples = t.stsc.word(3 * i + 1);
    } else if (i < t.stco.count && t.stsc.count > 0) {
      // Counted but described by the last run (a cut between two counts).
      samples = t.stsc.word(3 * (std::min(i, t.stsc.count) - 1) + 1);
    }
    if (samples == 0 || uint64_t{sample} + samples > t.stsz.room) break;
    Chunk c{offset, {}, index};
    for (uint32_t k = 0; k < samples; ++k) c.sizes.push_back(t.stsz.word(sample + k));
    if (std::find(c.sizes.begin(), c.sizes.end(), 0u) != c.sizes.end()) break;
    out.push_back(std::move(c));
    sample += samples;
  }
  return out;
}

// Deltas of a track's samples in its time scale: the written stts entries
// where they exist, else `typical`; the last sample gets `last`.
std::vector<uint32_t> sample_deltas(const FrontTrack &t, size_t samples, size_t known,
                                    uint32_t typical, uint32_t last) {
  std::vector<uint32_t> d(samples, typical);
  for (size_t i = 0; i + 1 < samples && i + 1 < known; ++i) {
    if (t.stts.word(2 * i) == 1 && t.stts.word(2 * i + 1) > 0) d[i] = t.stts.word(2 * i + 1);
  }
  if (!d.empty()) d.back() = last;
  return d;
}

uint32_t median_delta(const FrontTrack &t, size_t known, uint32_t fallback) {
  std::vector<uint32_t> v;
  for (size_t i = 0; i + 1 < known && i < t.stts.room; ++i)
    if (t.stts.word(2 * i) == 1 && t.stts.word(2 * i + 1) > 0) v.push_back(t.stts.word(2 * i + 1));
  if (v.empty()) return fallback;
  std::nth_element(v.begin(), v.begin() + static_cast<long>(v.size() / 2), v.end());
  return v[v.size() / 2];
}

bool read_track(const Card &f, const BoxInfo &box, FrontTrack &t) {
  t.box = &box;
  const BoxInfo *stbl = at(box, {"mdia", "minf", "stbl"});
  const BoxInfo *mdhd = at(box, {"mdia", "mdhd"});
  const BoxInfo *hdlr = at(box, {"mdia", "hdlr"});
  if (!stbl || !mdhd || !hdlr) return false;
  t.video = f.read(hdlr->offset + 16, 4) == Bytes{'v', 'i', 'd', 'e'};
  t.timescale = f.u32(mdhd->offset + 20);
  t.mdhd_duration = mdhd->offset + 24;
  t.tkhd_duration = child(box, "tkhd") ? child(box, "tkhd")->offset + 28 : 0;
  if (const BoxInfo *elst = at(box, {"edts", "elst"})) t.elst_duration = elst->offset + 16;
  const BoxInfo *stts = child(*stbl, "stts"), *stsc = child(*stbl, "stsc"),
                *stsz = child(*stbl, "stsz"), *stco = child(*stbl, "stco");
  if (!stts || !stsc || !stsz || !stco) return false;
  t.stts = read_table(f, *stts, 2);
  t.stsc = read_table(f, *stsc, 3);
  t.stsz = read_table(f, *stsz, 1);
  t.stco = read_table(f, *stco, 1);
  if (const BoxInfo *stss = child(*stbl, "stss")) {
    t.stss = read_table(f, *stss, 1);
    t.has_stss = true;
  }
  t.avcc = at(*stbl, {"stsd", "avc1", "avcC"});
  t.avc1 = at(*stbl, {"stsd", "avc1"});
  return true;
}

// Writes a table's entries and count.
bool write_table(Card &f, const Table &t, const std::vector<uint32_t> &words, uint32_t count) {
  Bytes b;
  for (auto w : words) put32(b, w);
  return f.write(t.entries_pos, b) && f.put_u32(t.count_pos, count);
}

class FrontRepair {
 public:
  FrontRepair(const Inspection &ins, const RepairOptions &opt, RepairReport &rep)
      : ins_(ins), opt_(opt), rep_(rep) {}

  int run(std::string &error) {
    rep_.kind = "index in front";
    const BoxInfo *moov = nullptr;
    for (const auto &b : ins_.boxes)
      if (b.type == "moov") moov = &b;
    const BoxInfo *mdat = nullptr;
    for (const auto &b : ins_.boxes)
      if (b.type == "mdat") mdat = &b;
    if (!moov || !mdat || moov->truncated) {
      error = "the file was cut before its head was complete: it holds no sample";
      return 1;
    }
    Card in(opt_.in, false);
    mdat_pos_ = mdat->offset;
    for (const auto &b : moov->children) {
      const bool hidden = b.type == "free" && !b.children.empty() && b.children[0].type == "tkhd";
      if (b.type != "trak" && !hidden) continue;
      FrontTrack t;
      if (!read_track(in, b, t)) {
        error = "a track of the index cannot be read";
        return 1;
      }
      tracks_.push_back(std::move(t));
    }
    if (tracks_.empty()) {
      error = "the index holds no track";
      return 1;
    }
    mvhd_duration_ = at(*moov, {"mvhd"}) ? at(*moov, {"mvhd"})->offset + 24 : 0;
    collect(in);
    bool any = false;
    for (const auto &t : tracks_) any = any || !t.chunks.empty();
    if (!any) {
      error = "nothing recorded yet: the file holds no whole sample";
      return 1;
    }
    if (!nothing_to_do_) return write(in, error);
    rep_.notes += "nothing to repair: the index describes every byte of the file\n";
    return 0;
  }

 private:
  // The chunks that tile mdat from its start, then the whole video samples behind them.
  void collect(const Card &in) {
    std::vector<Chunk> all;
    for (size_t i = 0; i < tracks_.size(); ++i) {
      const auto c = described_chunks(tracks_[i], static_cast<int>(i));
      for (uint32_t k = 0; k < std::min<uint32_t>(tracks_[i].stco.count, c.size()); ++k)
        tracks_[i].indexed += static_cast<long>(c[k].sizes.size());
      all.insert(all.end(), c.begin(), c.end());
    }
    std::sort(all.begin(), all.end(),
              [](const Chunk &a, const Chunk &b) { return a.offset < b.offset; });
    const uint64_t end = in.size();
    uint64_t expected = mdat_pos_ + 8;
    for (auto &c : all) {
      if (c.offset != expected || c.end() > end) break;
      if (tracks_[c.track].video && !video_samples_whole(in, c)) break;
      expected = c.end();
      tracks_[c.track].chunks.push_back(std::move(c));
    }

    // Behind the index: runs of whole video samples between audio blocks.
    const int video = video_track();
    uint64_t p = expected;
    data_end_ = expected;
    while (video >= 0 && p < end) {
      auto run = sample_run(in, p, end);
      if (run.empty()) {
        const auto next = next_run(in, p, end, kAudioBlockBytes);
        if (!next) break;
        skipped_ += *next - p;
        p = *next;
        continue;
      }
      Chunk c{run.front().offset, {}, video};
      for (const auto &s : run) c.sizes.push_back(s.size);
      p = c.end();
      data_end_ = p;
      behind_ += static_cast<long>(run.size());
      tracks_[video].chunks.push_back(std::move(c));
    }
    rep_.bytes_lost = static_cast<long long>(skipped_ + (end - data_end_));
    for (const auto &t : tracks_) {
      if (!t.video) continue;
      rep_.video_indexed += t.indexed;
    }
    nothing_to_do_ = behind_ == 0 && rep_.bytes_lost == 0 && all_counted() &&
                     in.u32(mdat_pos_) == data_end_ - mdat_pos_;
  }

  bool all_counted() const {
    for (const auto &t : tracks_) {
      size_t samples = 0;
      for (const auto &c : t.chunks) samples += c.sizes.size();
      if (t.chunks.size() != t.stco.count || t.chunks.size() != t.stsc.count ||
          samples != t.stsz.count || (t.box->type != "trak" && !t.chunks.empty()))
        return false;
    }
    return true;
  }

  // Every sample of a video chunk starts with its own length: the bytes of the
  // chunk are on the card (after a power cut, an index word can be there and
  // its samples not).
  static bool video_samples_whole(const Card &in, const Chunk &c) {
    uint64_t off = c.offset;
    for (auto size : c.sizes) {
      if (in.u32(off) != size - 4) return false;
      off += size;
    }
    return true;
  }

  int video_track() const {
    for (size_t i = 0; i < tracks_.size(); ++i)
      if (tracks_[i].video) return static_cast<int>(i);
    return -1;
  }

  int write(const Card &in, std::string &error) {
    const std::string target = opt_.in_place ? opt_.in : rep_.written;
    if (!opt_.in_place) {
      std::error_code ec;
      fs::copy_file(opt_.in, target, fs::copy_options::overwrite_existing, ec);
      if (ec) {
        error = "cannot write " + target + ": " + ec.message();
        return 1;
      }
    }
    Card out(target, true);
    if (!out.ok()) {
      error = "cannot open " + target + " for writing: " + std::strerror(errno);
      return 1;
    }
    decoder_configuration(in, out);
    uint32_t movie = 0;
    for (auto &t : tracks_) {
      const uint32_t d = write_track(in, out, t);
      movie = std::max(movie, d);
    }
    bool ok = out.truncate(data_end_) &&
              out.put_u32(mdat_pos_, static_cast<uint32_t>(data_end_ - mdat_pos_));
    if (mvhd_duration_) ok = ok && out.put_u32(mvhd_duration_, movie);
    // Tracks with samples are visible; one without stays (or becomes) hidden:
    // readers refuse an empty video track.
    for (const auto &t : tracks_) {
      const Bytes type = t.chunks.empty() ? Bytes{'f', 'r', 'e', 'e'} : Bytes{'t', 'r', 'a', 'k'};
      ok = ok && out.write(t.box->offset + 4, type);
    }
    ok = ok && out.sync();
    if (!ok) {
      error = "writing " + target + " failed: " + std::strerror(errno);
      return 1;
    }
    if (behind_ > 0)
      rep_.notes += std::to_string(behind_) + " video samples recovered from behind the index\n";
    if (rep_.bytes_lost > 0)
      rep_.notes += std::to_string(rep_.bytes_lost) +
                    " bytes behind the index hold no whole video sample (audio, whose frames "
                    "cannot be told apart without the index, or a sample cut short): lost\n";
    return 0;
  }

  // Video samples need the decoder configuration. A file cut before its first
  // video chunk was indexed may lack it (the SPS and PPS are not in mdat): it
  // is taken from --params, or the pictures are left out.
  void decoder_configuration(const Card &in, Card &out) {
    const int v = video_track();
    if (v < 0 || tracks_[v].chunks.empty() || !tracks_[v].avcc || !tracks_[v].avc1) return;
    const BoxInfo &avcc = *tracks_[v].avcc;
    const Bytes head = in.read(avcc.offset + 8, 6);
    if (head.size() == 6 && head[0] == 1 && (head[5] & 0x1F) != 0) return;  // it holds an SPS
    const ParameterSets p =
        opt_.params.empty() ? ParameterSets{} : parameter_sets_from(opt_.params);
    // The reserve: from the avcC to the end of the sample entry (the writer
    // keeps a free box behind a short record).
    const uint64_t region = tracks_[v].avc1->offset + tracks_[v].avc1->size - avcc.offset;
    const uint64_t content = 11 + p.sps.size() + p.pps.size();
    if (!p.ok() || 8 + content > region) {
      long n = 0;
      for (const auto &c : tracks_[v].chunks) n += static_cast<long>(c.sizes.size());
      rep_.notes += std::to_string(n) +
                    " video samples left out: the file lost its SPS and PPS before its first "
                    "video chunk was indexed (--params FILE gives them)\n";
      tracks_[v].chunks.clear();
      return;
    }
    // As the writer makes it: fixed profile and level bytes, one SPS, one PPS;
    // a free box over the rest of the reserve, or zero padding when fewer than
    // 8 bytes are left.
    const bool free_box = region - 8 - content >= 8;
    Bytes image;
    put32(image, static_cast<uint32_t>(free_box ? 8 + content : region));
    image.insert(image.end(), {'a', 'v', 'c', 'C', 0x01, 0x4D, 0x40, 0x1F, 0xFF, 0xE1});
    image.push_back(static_cast<uint8_t>(p.sps.size() >> 8));
    image.push_back(static_cast<uint8_t>(p.sps.size()));
    image.insert(image.end(), p.sps.begin(), p.sps.end());
    image.insert(image.end(), {0x01, static_cast<uint8_t>(p.pps.size() >> 8),
                               static_cast<uint8_t>(p.pps.size())});
    image.insert(image.end(), p.pps.begin(), p.pps.end());
    if (free_box) {
      put32(image, static_cast<uint32_t>(region - 8 - content));
      image.insert(image.end(), {'f', 'r', 'e', 'e'});
    } else {
      image.resize(region, 0);
    }
    out.write(avcc.offset, image);
    rep_.notes += "SPS and PPS taken from " + opt_.params + "\n";
  }

  // The track's tables and durations; returns its duration in ms.
  uint32_t write_track(const Card &in, Card &out, FrontTrack &t) {
    std::vector<uint32_t> sizes, offsets, runs;
    for (const auto &c : t.chunks) {
      offsets.push_back(static_cast<uint32_t>(c.offset));
      runs.insert(runs.end(), {static_cast<uint32_t>(offsets.size()),
                               static_cast<uint32_t>(c.sizes.size()), 1});
      sizes.insert(sizes.end(), c.sizes.begin(), c.sizes.end());
    }
    const size_t n = std::min<size_t>(sizes.size(), t.stsz.room);
    sizes.resize(n);
    if (t.video) {
      rep_.video_recovered += static_cast<long>(n);
    } else {
      rep_.audio_recovered += static_cast<long>(n);
    }
    if (n == 0) {
      for (const Table *tab : {&t.stts, &t.stsz, &t.stco, &t.stsc, &t.stss})
        if (tab->count_pos != 0) out.put_u32(tab->count_pos, tab == &t.stts && t.stts.room == 1);
      if (t.stts.room == 1) out.put_u32(t.stts.entries_pos, 0);  // its one run: no frame
      return 0;
    }
    // Times: written entries for the samples the tables described, the usual
    // distance behind them, and 50 ms for the newest sample (as the writer).
    const size_t known = std::min<size_t>(n, static_cast<size_t>(t.indexed));
    std::vector<uint32_t> stts;
    uint32_t duration_ms = 0;
    const bool one_run = t.stts.room == 1;  // audio without time stamps
    if (one_run) {
      const uint32_t frame = t.stts.word(1) ? t.stts.word(1) : 1024;
      stts = {static_cast<uint32_t>(n), frame};
      duration_ms = static_cast<uint32_t>(n * frame / 16);
    } else {
      const uint32_t pad = t.timescale * 50 / 1000;
      uint32_t typical = median_delta(t, known, 0);
      if (typical == 0)
        typical = opt_.fps > 0 ? static_cast<uint32_t>(std::lround(t.timescale / opt_.fps))
                               : t.timescale / 25;
      const auto deltas = sample_deltas(t, n, known, typical, pad);
      uint64_t sum = 0;
      for (auto d : deltas) {
        stts.insert(stts.end(), {1, d});
        sum += d;
      }
      duration_ms = t.timescale ? static_cast<uint32_t>(sum * 1000 / t.timescale) : 0;
    }
    write_table(out, t.stts, stts, static_cast<uint32_t>(stts.size() / 2));
    write_table(out, t.stsz, sizes, static_cast<uint32_t>(n));
    write_table(out, t.stco, offsets, static_cast<uint32_t>(offsets.size()));
    write_table(out, t.stsc, runs, static_cast<uint32_t>(offsets.size()));
    if (t.has_stss) {
      std::vector<uint32_t> sync;
      size_t i = 0;
      for (const auto &c : t.chunks) {
        uint64_t off = c.offset;
        for (auto s : c.sizes) {
          if (i < n && (in.read(off + 4, 1).at(0) & 0x1F) == 5)
            sync.push_back(static_cast<uint32_t>(i + 1));
          off += s;
          ++i;
        }
      }
      write_table(out, t.stss, sync, static_cast<uint32_t>(sync.size()));
    }
    for (uint64_t pos : {t.tkhd_duration, t.mdhd_duration, t.elst_duration})
      if (pos) out.put_u32(pos, duration_ms);
    if (t.video) rep_.seconds = std::max(rep_.seconds, duration_ms / 1000.0);
    return duration_ms;
  }

  // How far behind a run of video samples the next one is looked for: a few
  // of the data buffer's audio nodes (16 KiB each) may lie in between.
  static constexpr uint64_t kAudioBlockBytes = 4 * 16384;

  const Inspection &ins_;
  const RepairOptions &opt_;
  RepairReport &rep_;
  std::vector<FrontTrack> tracks_;
  uint64_t mdat_pos_ = 0;
  uint64_t mvhd_duration_ = 0;
  uint64_t data_end_ = 0;
  uint64_t skipped_ = 0;
  long behind_ = 0;
  bool nothing_to_do_ = false;
};

// ---- MJPEG and index at end: a new index from what mdat holds -----------------

// The picture size in a JPEG's start-of-frame segment; 0 x 0 when absent.
std::pair<int, int> jpeg_size(const Bytes &b) {
  for (size_t i = 2; i + 9 < b.size();) {
    if (b[i] != 0xFF) return {0, 0};
    const uint8_t m = b[i + 1];
    const size_t len = size_t{b[i + 2]} << 8 | b[i + 3];
    if (m >= 0xC0 && m <= 0xC3) return {b[i + 7] << 8 | b[i + 8], b[i + 5] << 8 | b[i + 6]};
    i += 2 + len;
  }
  return {0, 0};
}

// The end (index of its D9) of the picture that starts at `start` (FF D8),
// by the writer's rule: a D9 after exactly one FF.
std::optional<uint64_t> jpeg_end(const Card &f, uint64_t start, uint64_t end) {
  constexpr uint64_t kStep = 1 << 20;
  unsigned ff = 0;
  for (uint64_t p = start + 2; p < end; p += kStep) {
    const Bytes b = f.read(p, std::min(kStep, end - p));
    for (size_t i = 0; i < b.size(); ++i) {
      if (b[i] == 0xFF) {
        ++ff;
        continue;
      }
      if (b[i] == 0xD9 && ff == 1) return p + i;
      ff = 0;
    }
  }
  return std::nullopt;
}

bool is_file(const std::string &path) {
  std::error_code ec;
  return !path.empty() && fs::is_regular_file(path, ec) && fs::file_size(path, ec) > 0;
}

// The side file beside a recording: IN with .mp2 in place of its extension, or IN.mp2.
std::string side_file_of(const RepairOptions &opt) {
  if (!opt.audio.empty()) return opt.audio;
  fs::path p(opt.in);
  for (const std::string &c : {p.replace_extension(".mp2").string(), opt.in + ".mp2"})
    if (is_file(c)) return c;
  return {};
}

// Frames and seconds of the audio in a side file, read as the writers' end
// step reads it.
std::pair<long, double> side_file_audio(const std::string &path, bool aac) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (f == nullptr) return {0, 0};
  long frames = 0;
  if ((aac ? mp4_handle_aac_head(f) : mp4_handle_mp2_head(f)) == 0) {
    std::vector<unsigned char> buf(65536);
    unsigned int len = 0;
    while ((aac ? mp4_read_aac_frame(f, buf.data(), 65536, &len)
                : mp4_read_mp2_frame(f, buf.data(), 65536, &len)) != -1)
      ++frames;
  }
  std::fclose(f);
  // MJPEG audio: 1152 samples at 16 kHz; index-at-end AAC: 1024 at 16 kHz.
  return {frames, frames * (aac ? 1024.0 : 1152.0) / 16000.0};
}

class AltRepair {
 public:
  AltRepair(const RepairOptions &opt, RepairReport &rep) : opt_(opt), rep_(rep) {}

  int run(std::string &error) {
    Card in(opt_.in, false);
    uint64_t end = in.size();
    if (const uint32_t size = in.u32(40); size >= 8 && 40 + uint64_t{size} <= end) end = 40 + size;
    const Bytes first = in.read(48, 2);
    if (first.size() == 2 && first[0] == 0xFF && first[1] == 0xD8) {
      rep_.kind = "MJPEG";
      if (!scan_pictures(in, end)) return fail(error, "mdat holds no whole JPEG picture");
    } else if (sample_at(in, 48, end)) {
      rep_.kind = "index at end";
      for (const auto &s : sample_run(in, 48, end)) samples_.push_back(s);
      audio_start_ = samples_.back().offset + samples_.back().size;
      if (!find_parameter_sets(in, end, error)) return 1;
    } else {
      return fail(error,
                  "not a recording of this library: mdat holds neither JPEG pictures "
                  "nor H.264 samples");
    }
    return write(in, end, error);
  }

 private:
  static int fail(std::string &error, const std::string &why) {
    error = why;
    return 1;
  }

  bool scan_pictures(const Card &in, uint64_t end) {
    uint64_t p = 48;
    while (p + 4 <= end) {
      const Bytes soi = in.read(p, 2);
      if (soi.size() < 2 || soi[0] != 0xFF || soi[1] != 0xD8) break;
      const auto eoi = jpeg_end(in, p, end);
      if (!eoi) break;
      pictures_.push_back({p, static_cast<uint32_t>(*eoi - p + 1), false});
      p = *eoi + 1;
    }
    audio_start_ = p;
    return !pictures_.empty();
  }

  bool find_parameter_sets(const Card &in, uint64_t end, std::string &error) {
    if (!opt_.params.empty()) {
      params_ = parameter_sets_from(opt_.params);
      if (!params_.ok()) return fail(error, "no SPS and PPS in " + opt_.params) == 0;
      return true;
    }
    // A cut while the index was being written behind the samples may have
    // left its avcC.
    const Bytes tail =
        in.read(audio_start_, std::min<uint64_t>(in.size() - audio_start_, 16u << 20));
    for (size_t i = 0; i + 12 < tail.size(); ++i)
      if (std::memcmp(&tail[i], "avcC", 4) == 0)
        if (auto p = from_avcc(tail, i + 4); p.ok()) {
          params_ = p;
          return true;
        }
    (void)end;
    return fail(error,
                "its SPS and PPS were lost with its index (the index-at-end writer keeps "
                "them for the index): give --params FILE, a stream or MP4 of the same "
                "camera") == 0;
  }

  int write(const Card &in, uint64_t end, std::string &error) {
    const std::string target = opt_.in_place ? opt_.in : rep_.written;
    const std::string tmp = target + ".repair-tmp", side = target + ".repair-mp2";
    const bool mjpeg = rep_.kind == "MJPEG";
    // Audio: the side file, else what was already copied behind the video.
    std::string audio = side_file_of(opt_);
    Bytes in_file;
    if (audio.empty() && audio_start_ < end) {
      in_file = in.read(audio_start_, end - audio_start_);
      if (in_file.size() < 2 || in_file[0] != 0xFF || (in_file[1] & 0xE0) != 0xE0) in_file.clear();
    }
    const bool aac = !audio.empty() && [&] {
      const Bytes b = Card(audio, false).read(0, 2);
      return b.size() == 2 && b[0] == 0xFF && (b[1] & 0xF6) == 0xF0;
    }();

    const std::string fps_note = pick_fps(audio, aac, in_file);
    const std::vector<Sample> &video = mjpeg ? pictures_ : samples_;
    int width = 640, height = 480;
    const Bytes first =
        in.read(video.front().offset + (mjpeg ? 0 : 4),
                mjpeg ? std::min<uint32_t>(video.front().size, 65536) : video.front().size - 4);
    const auto size = mjpeg ? jpeg_size(first) : picture_size(params_, first);
    if (size.first > 0) std::tie(width, height) = size;

    void *ctx = nullptr;
    if (mjpeg) {
      ctx = mp4_write_head_jpeg(tmp.c_str(), side.c_str(), width, height, 2);
    } else {
      audioTimeStampFlag = 0;
      ctx = mp4_write_head_h264(tmp.c_str(), side.c_str(), width, height, aac ? 3 : 2);
    }
    if (ctx == nullptr) return fail(error, "cannot create " + tmp);
    // The writer reads its side file from the start at the end: the audio is
    // put there now, behind its back.
    if (FILE *s = std::fopen(side.c_str(), "r+b")) {
      if (!audio.empty()) {
        const Bytes b = Card(audio, false).read(0, ~0ull);
        std::fwrite(b.data(), 1, b.size(), s);
      } else {
        std::fwrite(in_file.data(), 1, in_file.size(), s);
      }
      std::fclose(s);
    }
    auto *h264 = static_cast<mp4_handle *>(ctx);
    if (!mjpeg) {
      for (const Bytes *nal : {&params_.sps, &params_.pps}) {
        Bytes b{0, 0, 0, 1};
        b.insert(b.end(), nal->begin(), nal->end());
        mp4_write_video_node(b.data(), static_cast<int>(b.size()), 0, h264);
      }
    }
    for (size_t i = 0; i < video.size(); ++i) {
      const int ts = static_cast<int>(std::lround(static_cast<double>(i) * 1000.0 / fps_));
      Bytes b = in.read(video[i].offset, video[i].size);
      int r;
      if (mjpeg) {
        r = mp4_write_one_jpeg(b.data(), static_cast<int>(b.size()), ts,
                               static_cast<mp4_mjpeg_ctx *>(ctx));
      } else {
        b[0] = b[1] = b[2] = 0;  // the length prefix becomes a start code
        b[3] = 1;
        r = mp4_write_video_node(b.data(), static_cast<int>(b.size()), ts, h264);
      }
      if (r != 0) {
        std::remove(side.c_str());
        return fail(error, "writing " + tmp + " failed");
      }
    }
    const int r =
        mjpeg ? mp4_write_end_jpeg(static_cast<mp4_mjpeg_ctx *>(ctx)) : mp4_write_end_h264(h264);
    std::remove(side.c_str());
    std::error_code ec;
    if (r != 0 || (fs::rename(tmp, target, ec), ec)) {
      std::remove(tmp.c_str());
      return fail(error, "writing " + target + " failed");
    }
    const Inspection out = inspect_file(target);
    for (const auto &t : out.tracks) {
      if (t.handler == "vide") {
        rep_.video_recovered = static_cast<long>(t.samples);
        rep_.seconds = t.seconds();
      }
      if (t.handler == "soun") rep_.audio_recovered = static_cast<long>(t.samples);
    }
    rep_.notes += fps_note;
    if (!audio.empty()) rep_.notes += "audio from the side file " + audio + "\n";
    if (audio.empty() && in_file.empty()) rep_.notes += "no audio: no side file beside the file\n";
    const uint64_t video_end = video.back().offset + video.back().size;
    rep_.bytes_lost = static_cast<long long>(
        audio.empty() && in_file.empty() && end > video_end ? end - video_end : 0);
    return 0;
  }

  // The picture rate: given, else from the length of the audio beside the
  // pictures, else 25 per second.
  std::string pick_fps(const std::string &audio, bool aac, const Bytes &in_file) {
    const size_t pictures = (rep_.kind == "MJPEG" ? pictures_ : samples_).size();
    if (opt_.fps > 0) {
      fps_ = opt_.fps;
      return "pictures timed at " + std::to_string(fps_) + " per second as given\n";
    }
    double seconds = 0;
    if (!audio.empty()) {
      seconds = side_file_audio(audio, aac).second;
    } else if (!in_file.empty()) {
      const std::string tmp = opt_.in + ".repair-count";
      if (FILE *f = std::fopen(tmp.c_str(), "wb")) {
        std::fwrite(in_file.data(), 1, in_file.size(), f);
        std::fclose(f);
        seconds = side_file_audio(tmp, false).second;
        std::remove(tmp.c_str());
      }
    }
    fps_ = seconds > 0.5 ? std::clamp(std::round(pictures / seconds), 1.0, 120.0) : 25.0;
    std::ostringstream s;
    s << "the file keeps no picture times: " << pictures << " pictures timed at " << fps_
      << " per second (" << (seconds > 0.5 ? "from the length of the audio" : "assumed")
      << "; --fps N sets it)\n";
    return s.str();
  }

  const RepairOptions &opt_;
  RepairReport &rep_;
  std::vector<Sample> pictures_, samples_;
  uint64_t audio_start_ = 0;
  ParameterSets params_;
  double fps_ = 25;
};

}  // namespace

int repair_file(const RepairOptions &opt, RepairReport &report, std::string &error) {
  const Inspection ins = inspect_file(opt.in);
  if (ins.boxes.empty() || ins.boxes.front().type != "ftyp" || ins.boxes.front().offset != 0) {
    error = "not an MP4 file (it does not begin with an ftyp box)";
    return 1;
  }
  const fs::path p(opt.in);
  report.written =
      opt.out.empty()
          ? (p.parent_path() / (p.stem().string() + "-repaired" + p.extension().string())).string()
          : opt.out;
  const BoxInfo *moov = nullptr, *mdat = nullptr;
  for (const auto &b : ins.boxes) {
    if (b.type == "moov" && !moov) moov = &b;
    if (b.type == "mdat" && !mdat) mdat = &b;
  }
  int r = 1;
  if (moov != nullptr && moov->offset == 32) {
    if (!ins.made_here) {
      error = "not a recording of this library: its index was written by another program";
      return 1;
    }
    r = FrontRepair(ins, opt, report).run(error);
  } else if (mdat != nullptr && mdat->offset == 40 && ins.boxes.size() >= 3 &&
             ins.boxes[1].type == "free") {
    if (moov != nullptr && ins.consistent()) {
      if (!ins.made_here) {
        error = "not a recording of this library: its index was written by another program";
        return 1;
      }
      report.kind = "index at end";
      report.notes += "nothing to repair: the index describes every byte of the file\n";
      report.written.clear();
      return 0;
    }
    r = AltRepair(opt, report).run(error);
  } else {
    error = "not a recording of this library (its boxes are not laid out as this library's)";
    return 1;
  }
  if (r == 0 && report.notes.rfind("nothing to repair", 0) == 0) report.written.clear();
  return r;
}

int repair_main(int argc, char **argv) {
  RepairOptions opt;
  std::vector<std::string> files;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    auto value = [&](const char *name) -> std::string {
      if (i + 1 >= argc) {
        std::cerr << "mp4rec repair: " << name << " needs a value\n";
        return {};
      }
      return argv[++i];
    };
    if (a == "-h" || a == "--help") {
      std::cout
          << "usage: mp4rec repair [options] IN [OUT]\n"
             "  Makes a playable file from a recording of this library cut by a kill or a\n"
             "  power loss. The index in front is kept as far as it was committed and the\n"
             "  whole H.264 samples behind it are indexed; MJPEG and index-at-end files get\n"
             "  a new index from their pictures or samples (audio from the side file).\n"
             "  OUT defaults to IN with -repaired before its extension.\n"
             "  --in-place       repair IN itself\n"
             "  --audio FILE     the side file (default: IN with .mp2, or IN.mp2)\n"
             "  --params FILE    an H.264 stream or MP4 to take SPS and PPS from\n"
             "  --fps N          picture rate where the file keeps no time stamps\n"
             "  Exit status: 0 repaired or nothing to repair, 1 refused or failed, 2 usage.\n";
      return 0;
    } else if (a == "--in-place") {
      opt.in_place = true;
    } else if (a == "--audio") {
      opt.audio = value("--audio");
    } else if (a == "--params") {
      opt.params = value("--params");
    } else if (a == "--fps") {
      opt.fps = std::atof(value("--fps").c_str());
    } else if (!a.empty() && a[0] == '-') {
      std::cerr << "mp4rec repair: unknown option " << a << "\n";
      return 2;
    } else {
      files.push_back(a);
    }
  }
  if (files.empty() || files.size() > 2 || (opt.in_place && files.size() == 2)) {
    std::cerr << "usage: mp4rec repair [--in-place] [--audio FILE] [--params FILE] [--fps N] "
                 "IN [OUT]\n";
    return 2;
  }
  opt.in = files[0];
  if (files.size() == 2) opt.out = files[1];
  RepairReport rep;
  std::string error;
  if (repair_file(opt, rep, error) != 0) {
    std::cerr << "mp4rec repair: " << opt.in << ": " << error << "\n";
    return 1;
  }
  if (rep.written.empty()) {
    std::cout << opt.in << " (" << rep.kind << "): " << rep.notes;
    return 0;
  }
  std::cout << opt.in << " (" << rep.kind << "): ";
  std::ostringstream line;
  line << rep.video_recovered << " video samples (the cut index held " << rep.video_indexed << "), "
       << rep.audio_recovered << " audio frames, " << rep.seconds << " s";
  std::cout << line.str() << "\n" << rep.notes;
  if (!rep.written.empty())
    std::cout << "written: " << (opt.in_place ? opt.in : rep.written) << "\n";
  return 0;
}

}  // namespace mp4tool
