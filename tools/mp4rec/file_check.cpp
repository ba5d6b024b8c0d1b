#include "file_check.h"

#include "card_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstring>
#include <iomanip>
#include <iostream>
#include <optional>
#include <span>
#include <sstream>

namespace mp4tool {

namespace {

using File = CardFile;

// Big-endian reads from a byte span; out-of-range reads give 0 and set `short_`.
class Reader {
 public:
  explicit Reader(std::span<const uint8_t> b) : b_(b) {}
  bool has(uint64_t off, uint64_t n) const { return off + n <= b_.size(); }
  uint32_t u8(uint64_t off) const { return has(off, 1) ? b_[off] : 0; }
  uint32_t u16(uint64_t off) const { return has(off, 2) ? (b_[off] << 8) | b_[off + 1] : 0; }
  uint32_t u32(uint64_t off) const {
    if (!has(off, 4)) return 0;
    return (uint32_t{b_[off]} << 24) | (uint32_t{b_[off + 1]} << 16) |
           (uint32_t{b_[off + 2]} << 8) | b_[off + 3];
  }
  uint64_t u64(uint64_t off) const { return (uint64_t{u32(off)} << 32) | u32(off + 4); }
  std::string tag(uint64_t off) const {
    std::string s;
    for (uint64_t i = 0; i < 4; ++i) {
      const auto c = static_cast<char>(u8(off + i));
      s += (c >= 32 && c < 127) ? c : (u8(off + i) == 0xA9 ? '@' : '?');
    }
    return s;
  }
  size_t size() const { return b_.size(); }

 private:
  std::span<const uint8_t> b_;
};

// Bytes between a box's start and its first child, for the boxes that hold boxes.
std::optional<uint64_t> child_offset(const std::string &type) {
  static constexpr std::array<std::pair<const char *, uint64_t>, 24> kContainers{{
      {"moov", 8},  {"trak", 8},  {"edts", 8},  {"mdia", 8},  {"minf", 8},  {"dinf", 8},
      {"stbl", 8},  {"udta", 8},  {"ilst", 8},  {"@too", 8},  {"mvex", 8},  {"moof", 8},
      {"traf", 8},  {"mfra", 8},  {"meta", 12}, {"dref", 16}, {"stsd", 16}, {"avc1", 86},
      {"avc3", 86}, {"hvc1", 86}, {"mp4v", 86}, {"mp4a", 36}, {"@nam", 8},  {"sinf", 8},
  }};
  for (const auto &[name, skip] : kContainers)
    if (type == name) return skip;
  return std::nullopt;
}

std::string fourcc_list(const Reader &r, uint64_t from, uint64_t to) {
  std::string s;
  for (uint64_t o = from; o + 4 <= to; o += 4) s += (s.empty() ? "" : " ") + r.tag(o);
  return s;
}

// A short description of a leaf box (or a sample entry) from its first bytes.
std::string describe(const std::string &type, const Reader &r, uint64_t size) {
  std::ostringstream d;
  const uint32_t version = r.u8(8);
  if (type == "ftyp") {
    d << r.tag(8) << " (" << fourcc_list(r, 16, std::min<uint64_t>(size, r.size())) << ")";
  } else if (type == "mvhd" || type == "mdhd") {
    const uint64_t ts = version == 1 ? r.u32(28) : r.u32(20);
    const uint64_t dur = version == 1 ? r.u64(32) : r.u32(24);
    d << "timescale " << ts << ", duration " << dur;
  } else if (type == "tkhd") {
    const uint32_t id = version == 1 ? r.u32(28) : r.u32(20);
    d << "track " << id;
    const uint64_t wpos = version == 1 ? 96 : 84;
    if (r.has(wpos, 8) && (r.u32(wpos) | r.u32(wpos + 4)) != 0)
      d << ", " << (r.u32(wpos) >> 16) << "x" << (r.u32(wpos + 4) >> 16);
  } else if (type == "hdlr") {
    d << r.tag(16);
  } else if (type == "stts" || type == "stss" || type == "stsc" || type == "stco" ||
             type == "co64" || type == "ctts" || type == "elst") {
    d << r.u32(12) << " entries";
  } else if (type == "stsz") {
    d << r.u32(16) << " samples";
    if (r.u32(12) != 0) d << " of " << r.u32(12) << " bytes";
  } else if (type == "avc1" || type == "avc3" || type == "mp4v" || type == "hvc1") {
    d << r.u16(32) << "x" << r.u16(34);
  } else if (type == "mp4a") {
    d << (r.u32(32) >> 16) << " Hz, " << r.u16(24) << " ch";
  } else if (type == "avcC" && r.has(8, 6)) {
    if (r.u8(8) == 1 && (r.u8(13) & 0x1F) != 0)  // version 1 with a parameter set
      d << "profile " << r.u8(9) << ", level " << r.u8(11);
    else
      d << "not yet written";
  } else if (type == "hvcC" && r.has(8, 23)) {
    if (r.u8(8) == 1 && r.u8(30) != 0)  // version 1 with parameter sets
      d << "profile " << (r.u8(9) & 0x1F) << ", level " << r.u8(20);
    else
      d << "not yet written";
  }
  return d.str();
}

// A box header: a type of letters, digits, spaces or (c), a size that fits.
bool plausible_box(const Reader &h, uint64_t left) {
  for (uint64_t i = 4; i < 8; ++i) {
    const uint32_t c = h.u8(i);
    if (!std::isalnum(static_cast<int>(c)) && c != ' ' && c != 0xA9) return false;
  }
  const uint64_t size = h.u32(0);
  return size == 0 || size == 1 || (size >= 8 && size <= left);
}

struct Walker {
  const File &file;
  std::vector<std::string> &errors;
  std::vector<std::string> &warnings;
  uint64_t behind_mdat = 0;

  std::vector<BoxInfo> walk(uint64_t start, uint64_t end, int depth, bool top) {
    std::vector<BoxInfo> out;
    uint64_t pos = start;
    while (pos < end) {
      if (end - pos < 8) {
        if (top)
          warnings.push_back(std::to_string(end - pos) + " stray bytes at the end of the file");
        break;
      }
      const auto head = file.read(pos, 16);
      Reader h(head);
      // Behind an mdat that ends before the file does: media written after
      // the index's last update (a recorder's next batches), not a box.
      if (top && !out.empty() && out.back().type == "mdat" && !plausible_box(h, end - pos)) {
        warnings.push_back(std::to_string(end - pos) +
                           " bytes behind mdat (written after the index's last update)");
        behind_mdat += end - pos;
        break;
      }
      BoxInfo b;
      b.offset = pos;
      uint64_t size = h.u32(0);
      b.type = h.tag(4);
      uint64_t header = 8;
      if (size == 1) {
        size = h.u64(8);
        header = 16;
      } else if (size == 0) {
        if (!top) {  // zero padding inside a box (a reserved area behind its last child)
          break;
        }
        size = end - pos;  // to the end of the file
      }
      b.size = size;
      b.header = static_cast<uint32_t>(header);
      if (size < header) {
        errors.push_back("box '" + b.type + "' at offset " + std::to_string(pos) +
                         " has an impossible size " + std::to_string(size));
        break;
      }
      uint64_t avail = size;
      if (pos + size > end) {
        b.truncated = true;
        avail = end - pos;
      }
      auto skip = child_offset(b.type);
      // A track that is still hidden: inside moov, a "free" box that holds a tkhd.
      if (!skip && depth == 1 && b.type == "free" && size >= 16 && Reader(head).tag(12) == "tkhd")
        skip = 8;
      const uint64_t peek = std::min<uint64_t>(avail, skip ? *skip + 16 : 256);
      const auto bytes = file.read(pos, peek);
      b.detail = describe(b.type, Reader(bytes), avail);
      if (skip && depth < 12 && *skip <= avail) {
        b.children = walk(pos + *skip, pos + avail, depth + 1, false);
      }
      out.push_back(std::move(b));
      pos += avail;
    }
    return out;
  }
};

const BoxInfo *child(const BoxInfo &b, const std::string &type) {
  return box_at(b, {type.c_str()});
}

const BoxInfo *path(const BoxInfo &b, std::initializer_list<const char *> types) {
  return box_at(b, types);
}

// One table read whole, with its entries checked against the room in the box.
struct Table {
  std::vector<uint8_t> bytes;
  uint32_t count = 0;
  bool present = false;
};

struct TrackTables {
  Table stts, stss, stsc, stsz, stco;
  bool co64 = false;
};

// A sample's place in the file, for the overlap check.
struct Extent {
  uint64_t begin, end;
  uint32_t track;
};

class TrackChecker {
 public:
  // A hidden track (a "free" box that holds a track until its first chunk) is
  // read like the others, but readers skip it: what it holds is only noted.
  TrackChecker(const File &f, Inspection &ins, bool hidden)
      : file_(f), ins_(ins), hidden_(hidden) {}

  void check(const BoxInfo &trak, std::vector<Extent> &extents) {
    TrackInfo t;
    t.hidden = hidden_;
    if (const auto *tkhd = child(trak, "tkhd")) {
      const auto b = file_.read(tkhd->offset, 32);
      Reader r(b);
      t.id = r.u8(8) == 1 ? r.u32(28) : r.u32(20);
    }
    const std::string name = "track " + std::to_string(t.id) + (hidden_ ? " (hidden)" : "");
    if (const auto *hdlr = path(trak, {"mdia", "hdlr"})) {
      const auto b = file_.read(hdlr->offset, 20);
      t.handler = Reader(b).tag(16);
    }
    if (const auto *mdhd = path(trak, {"mdia", "mdhd"})) {
      const auto b = file_.read(mdhd->offset, 32);
      Reader r(b);
      t.timescale = r.u8(8) == 1 ? r.u32(28) : r.u32(20);
    }
    const BoxInfo *stbl = path(trak, {"mdia", "minf", "stbl"});
    if (!stbl) {
      ins_.errors.push_back(name + ": no sample table");
      ins_.tracks.push_back(t);
      return;
    }
    if (const auto *stsd = child(*stbl, "stsd"); stsd && !stsd->children.empty()) {
      t.codec = stsd->children.front().type;
      t.format = stsd->children.front().detail;
    }

    TrackTables tabs;
    tabs.stts = table(*stbl, "stts", 8, name);
    tabs.stss = table(*stbl, "stss", 4, name);
    tabs.stsc = table(*stbl, "stsc", 12, name);
    tabs.stco = table(*stbl, "stco", 4, name);
    if (!tabs.stco.present) {
      tabs.stco = table(*stbl, "co64", 8, name);
      tabs.co64 = tabs.stco.present;
    }
    // stsz: sample size and count before the entries.
    if (const auto *stsz = child(*stbl, "stsz")) {
      tabs.stsz.present = true;
      tabs.stsz.bytes = file_.read(stsz->offset, stsz->size);
      Reader r(tabs.stsz.bytes);
      tabs.stsz.count = r.u32(16);
      if (r.u32(12) == 0 && uint64_t{tabs.stsz.count} * 4 + 20 > tabs.stsz.bytes.size()) {
        err(name + ": stsz declares " + std::to_string(tabs.stsz.count) +
            " sizes but holds room for " +
            std::to_string(tabs.stsz.bytes.size() < 20 ? 0 : (tabs.stsz.bytes.size() - 20) / 4));
        tabs.stsz.count = tabs.stsz.bytes.size() < 20
                              ? 0
                              : static_cast<uint32_t>((tabs.stsz.bytes.size() - 20) / 4);
      }
    }
    if (!tabs.stts.present || !tabs.stsc.present || !tabs.stsz.present || !tabs.stco.present) {
      err(name + ": a sample table (stts, stsc, stsz or stco) is missing");
      ins_.tracks.push_back(t);
      return;
    }
    std::vector<Extent> own;
    analyse(tabs, t, name, hidden_ ? own : extents);
    if (t.codec == "avc1" && t.samples > 0) {
      const BoxInfo *avcc = path(*stbl, {"stsd", "avc1", "avcC"});
      // A configuration record (version 1) that holds at least one SPS.
      const auto b = avcc ? file_.read(avcc->offset + 8, 6) : std::vector<uint8_t>{};
      if (b.size() < 6 || b[0] != 1 || (b[5] & 0x1F) == 0)
        err(name + ": video samples but no decoder configuration in avcC: nothing can decode them");
    }
    ins_.tracks.push_back(t);
  }

 private:
  void err(std::string s) { (hidden_ ? ins_.warnings : ins_.errors).push_back(std::move(s)); }
  void warn(std::string s) { ins_.warnings.push_back(std::move(s)); }

  Table table(const BoxInfo &stbl, const std::string &type, uint64_t entry,
              const std::string &name) {
    Table t;
    const BoxInfo *b = child(stbl, type);
    if (!b) return t;
    t.present = true;
    t.bytes = file_.read(b->offset, b->size);
    Reader r(t.bytes);
    t.count = r.u32(12);
    const uint64_t room = t.bytes.size() < 16 ? 0 : (t.bytes.size() - 16) / entry;
    if (t.count > room) {
      err(name + ": " + type + " declares " + std::to_string(t.count) +
          " entries but holds room for " + std::to_string(room));
      t.count = static_cast<uint32_t>(room);
    }
    return t;
  }

  void analyse(const TrackTables &tabs, TrackInfo &t, const std::string &name,
               std::vector<Extent> &extents) {
    const Reader stts(tabs.stts.bytes), stss(tabs.stss.bytes), stsc(tabs.stsc.bytes),
        stsz(tabs.stsz.bytes), stco(tabs.stco.bytes);
    const uint64_t nsizes = tabs.stsz.count;
    const uint32_t fixed_size = stsz.u32(12);
    const uint64_t nchunks = tabs.stco.count;
    t.chunks = nchunks;
    t.declared_sizes = nsizes;
    for (uint32_t i = 0; i < tabs.stts.count; ++i) t.declared_times += stts.u32(16 + 8 * i);

    // Samples per chunk from the stsc runs.
    std::vector<uint32_t> per_chunk(nchunks, 0);
    uint32_t prev_first = 0;
    bool stsc_beyond = false, stsc_order = false;
    for (uint32_t i = 0; i < tabs.stsc.count; ++i) {
      const uint32_t first = stsc.u32(16 + 12 * i);
      const uint32_t spc = stsc.u32(20 + 12 * i);
      const uint32_t next = i + 1 < tabs.stsc.count ? stsc.u32(16 + 12 * (i + 1))
                                                    : static_cast<uint32_t>(nchunks + 1);
      if (first == 0 || first < prev_first) stsc_order = true;
      prev_first = first;
      if (first > nchunks) {
        stsc_beyond = true;
        continue;
      }
      for (uint64_t c = first; c < next && c <= nchunks; ++c) per_chunk[c - 1] = spc;
    }
    if (stsc_order) warn(name + ": stsc entries are not in chunk order");
    for (const auto n : per_chunk) t.chunk_samples += n;

    // What demuxers refuse outright. A chunk table without sample, time or
    // run table (or sizes without chunks) makes them drop the track; stsc
    // naming a chunk that stco lacks makes them refuse the file (an stsc
    // without chunks and times is ignored, and trailing runs of 0 samples are
    // dropped first).
    const uint64_t ntimes_entries = tabs.stts.count;
    if ((nchunks > 0 &&
         (ntimes_entries == 0 || tabs.stsc.count == 0 || (fixed_size == 0 && nsizes == 0))) ||
        (nchunks == 0 && nsizes > 0)) {
      err(name + ": incomplete tables (" + std::to_string(nchunks) + " chunks, " +
          std::to_string(tabs.stsc.count) + " stsc runs, " + std::to_string(nsizes) + " sizes, " +
          std::to_string(ntimes_entries) + " stts entries): readers drop the track");
    }
    uint32_t runs = tabs.stsc.count;
    while (runs > 1 && stsc.u32(20 + 12 * (runs - 1)) == 0) --runs;
    if (stsc_beyond && runs > 0 && !(nchunks == 0 && ntimes_entries == 0) &&
        stsc.u32(16 + 12 * (runs - 1)) > nchunks) {
      err(name + ": stsc names chunk " + std::to_string(stsc.u32(16 + 12 * (runs - 1))) +
          " but stco holds " + std::to_string(nchunks) + ": readers refuse the file");
    }

    // Walk the samples chunk by chunk: each lies behind the previous one of its chunk.
    uint64_t sample = 0, outside_file = 0, outside_mdat = 0;
    std::string first_outside;
    for (uint64_t c = 0; c < nchunks && sample < nsizes; ++c) {
      uint64_t off = tabs.co64 ? stco.u64(16 + 8 * c) : stco.u32(16 + 4 * c);
      for (uint32_t s = 0; s < per_chunk[c] && sample < nsizes; ++s, ++sample) {
        const uint64_t size = fixed_size ? fixed_size : stsz.u32(20 + 4 * sample);
        const uint64_t end = off + size;
        if (end > file_.size()) {
          if (outside_file++ == 0)
            first_outside = "sample " + std::to_string(sample + 1) + " (chunk " +
                            std::to_string(c + 1) + ", bytes " + std::to_string(off) + ".." +
                            std::to_string(end) + ")";
        } else if (!inside_mdat(off, end)) {
          ++outside_mdat;
          if (first_outside.empty())
            first_outside =
                "sample " + std::to_string(sample + 1) + " at offset " + std::to_string(off);
        } else {
          ++t.present;
        }
        extents.push_back({off, end, t.id});
        t.bytes += size;
        off = end;
      }
    }
    t.samples = sample;
    if (outside_file)
      err(name + ": " + std::to_string(outside_file) +
          " samples lie beyond the end of the file, the first " + first_outside);
    if (outside_mdat)
      err(name + ": " + std::to_string(outside_mdat) + " samples lie outside mdat, the first " +
          first_outside);
    if (nsizes > t.samples)
      warn(name + ": " + std::to_string(nsizes - t.samples) +
           " samples have a size but no chunk (not yet written when the file was closed or cut)");
    if (t.chunk_samples > nsizes)
      warn(name + ": the chunks claim " + std::to_string(t.chunk_samples) + " samples but only " +
           std::to_string(nsizes) +
           " have a size (readers index those and report a wrong sample count; a cut between "
           "two count words leaves this)");
    if (t.declared_times != nsizes)
      warn(name + ": the time table covers " + std::to_string(t.declared_times) +
           " samples, the size table " + std::to_string(nsizes));

    // Duration of the samples present.
    uint64_t left = t.samples;
    for (uint32_t i = 0; i < tabs.stts.count && left > 0; ++i) {
      const uint64_t n = std::min<uint64_t>(left, stts.u32(16 + 8 * i));
      t.duration += n * stts.u32(20 + 8 * i);
      left -= n;
    }

    // Key frames.
    if (!tabs.stss.present) {
      t.all_key = true;
      t.key_frames = t.samples;
    } else {
      uint32_t prev = 0;
      bool bad = false;
      for (uint32_t i = 0; i < tabs.stss.count; ++i) {
        const uint32_t n = stss.u32(16 + 4 * i);
        if (n == 0 || n <= prev) bad = true;
        prev = n;
        if (n >= 1 && n <= t.samples) ++t.key_frames;
      }
      if (bad) err(name + ": stss sample numbers are not rising");
      if (tabs.stss.count > 0 && prev > nsizes)
        err(name + ": stss names sample " + std::to_string(prev) + " beyond the " +
            std::to_string(nsizes) + " in stsz");
      if (t.samples > 0 && (tabs.stss.count == 0 || stss.u32(16) != 1))
        warn(name + ": the first sample is not a key frame");
    }
  }

  bool inside_mdat(uint64_t begin, uint64_t end) const {
    for (const auto &b : ins_.boxes) {
      if (b.type != "mdat") continue;
      if (begin >= b.offset + b.header && end <= b.offset + b.size) return true;
    }
    return false;
  }

  const File &file_;
  Inspection &ins_;
  bool hidden_;
};

void print_tree(const std::vector<BoxInfo> &boxes, std::ostream &out, int depth) {
  for (const auto &b : boxes) {
    std::ostringstream line;
    line << std::string(static_cast<size_t>(2 + 2 * depth), ' ') << b.type;
    out << std::left << std::setw(24) << line.str() << std::right << " @" << std::setw(10)
        << b.offset << "  " << std::setw(10) << b.size;
    if (!b.detail.empty()) out << "  " << b.detail;
    if (b.truncated) out << "  (cut short)";
    out << "\n";
    print_tree(b.children, out, depth + 1);
  }
}

// The text of the encoder item (moov/udta/meta/ilst/\xA9too/data) that this
// library writes into every index it makes.
constexpr std::string_view kOurTool = "mp4rec: MP4 recorder, network camera";

bool made_here(const File &f, const BoxInfo &moov) {
  const BoxInfo *data = path(moov, {"udta", "meta", "ilst", "@too", "data"});
  if (data == nullptr || data->size < 16 + kOurTool.size()) return false;
  const auto text = f.read(data->offset + 16, kOurTool.size());
  return std::string_view(reinterpret_cast<const char *>(text.data()), text.size()) == kOurTool;
}

}  // namespace

const BoxInfo *box_at(const BoxInfo &b, std::initializer_list<const char *> types) {
  const BoxInfo *cur = &b;
  for (const char *t : types) {
    const BoxInfo *next = nullptr;
    for (const auto &c : cur->children)
      if (c.type == t) {
        next = &c;
        break;
      }
    if ((cur = next) == nullptr) return nullptr;
  }
  return cur;
}

Inspection inspect_file(const std::string &path) {
  Inspection ins;
  ins.path = path;
  File f(path);
  if (!f.ok()) {
    ins.errors.push_back("cannot open " + path + ": " + std::strerror(errno));
    return ins;
  }
  ins.file_size = f.size();
  Walker w{f, ins.errors, ins.warnings};
  ins.boxes = w.walk(0, f.size(), 0, true);

  const BoxInfo *moov = nullptr;
  for (const auto &b : ins.boxes) {
    if (b.type == "moov" && !moov) moov = &b;
    if (b.type == "mdat") {
      const uint64_t end = std::min(b.offset + b.size, f.size());
      ins.mdat_payload += end > b.offset + b.header ? end - b.offset - b.header : 0;
      if (b.truncated)
        ins.warnings.push_back("mdat declares " + std::to_string(b.size) +
                               " bytes, the file holds " + std::to_string(end - b.offset) +
                               " of them");
    }
    if (b.type == "moof")
      ins.warnings.push_back("fragmented file: samples in fragments are not checked");
  }
  if (ins.boxes.empty() || ins.boxes.front().type != "ftyp")
    ins.warnings.push_back("the file does not begin with an ftyp box");
  if (!moov) {
    ins.errors.push_back("no moov box: the file has no index");
    if (ins.mdat_payload > 0 && ins.boxes.size() >= 3 && ins.boxes[1].type == "free" &&
        ins.boxes[2].type == "mdat" && ins.boxes[2].offset == 40)
      ins.repair_hint =
          "it was cut before its index was written; a new index can be built "
          "from the pictures or samples in mdat";
    return ins;
  }
  if (moov->truncated) ins.errors.push_back("the moov box is cut short by the end of the file");
  ins.readable = true;

  std::vector<Extent> extents;
  TrackChecker visible(f, ins, false), hidden(f, ins, true);
  for (const auto &b : moov->children) {
    if (b.type == "trak") visible.check(b, extents);
    if (b.type == "free" && !b.children.empty() && b.children.front().type == "tkhd")
      hidden.check(b, extents);
  }
  for (const auto &t : ins.tracks)
    if (!t.hidden) ins.indexed_bytes += t.bytes;

  std::sort(extents.begin(), extents.end(),
            [](const Extent &a, const Extent &b) { return a.begin < b.begin; });
  uint64_t overlaps = 0;
  for (size_t i = 1; i < extents.size(); ++i)
    if (extents[i].begin < extents[i - 1].end) ++overlaps;
  if (overlaps) ins.errors.push_back(std::to_string(overlaps) + " samples overlap other samples");
  if (ins.indexed_bytes < ins.mdat_payload)
    ins.warnings.push_back(std::to_string(ins.mdat_payload - ins.indexed_bytes) +
                           " bytes of mdat are not in the index (written after its last update)");
  ins.made_here = made_here(f, *moov);
  const uint64_t unindexed = ins.mdat_payload - std::min(ins.mdat_payload, ins.indexed_bytes);
  if (ins.made_here && unindexed + w.behind_mdat > 0)
    ins.repair_hint = "its index stops " + std::to_string(unindexed + w.behind_mdat) +
                      " bytes before the end of the file; the whole video samples there can be "
                      "recovered";
  return ins;
}

void print_inspection(const Inspection &ins, std::ostream &out, bool tree) {
  out << ins.path << ": " << ins.file_size << " bytes\n";
  if (tree && !ins.boxes.empty()) {
    out << "boxes (type, offset, size):\n";
    print_tree(ins.boxes, out, 0);
  }
  for (const auto &t : ins.tracks) {
    out << "track " << t.id << (t.hidden ? " (hidden until its first chunk)" : "") << " ("
        << (t.handler.empty() ? "?" : t.handler) << ", " << (t.codec.empty() ? "?" : t.codec)
        << (t.format.empty() ? "" : " " + t.format) << "): " << t.samples << " samples"
        << (t.present != t.samples ? " (" + std::to_string(t.present) + " in the file)" : "")
        << ", " << std::fixed << std::setprecision(3) << t.seconds() << " s, " << t.key_frames
        << (t.all_key ? " key frames (all)" : " key frames") << ", " << t.chunks << " chunks, "
        << t.bytes << " bytes\n";
  }
  for (const auto &w : ins.warnings) out << "note: " << w << "\n";
  for (const auto &e : ins.errors) out << "error: " << e << "\n";
  if (!ins.repair_hint.empty())
    out << "repair: " << ins.repair_hint << " (mp4rec repair " << ins.path << ")\n";
  if (ins.consistent()) {
    uint64_t samples = 0, chunks = 0;
    for (const auto &t : ins.tracks) samples += t.samples, chunks += t.chunks;
    out << "index: consistent (" << samples << " samples in " << chunks << " chunks, "
        << ins.indexed_bytes << " of " << ins.mdat_payload << " mdat bytes indexed)\n";
  } else {
    out << "index: INCONSISTENT\n";
  }
}

int inspect_main(int argc, char **argv) {
  bool tree = true;
  std::vector<std::string> files;
  for (int i = 0; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "-q" || a == "--quiet" || a == "--no-tree") {
      tree = false;
    } else if (a == "-h" || a == "--help") {
      std::cout << "usage: mp4rec inspect [-q] FILE...\n"
                   "  Prints the box tree and per track the sample count, duration, key frames\n"
                   "  and chunk count, and checks the index against the file: every sample\n"
                   "  inside mdat and inside the file, tables agreeing. -q leaves out the tree.\n"
                   "  Exit status: 0 consistent, 1 inconsistent or unreadable, 2 usage.\n";
      return 0;
    } else if (!a.empty() && a[0] == '-' && a != "-") {
      std::cerr << "mp4rec inspect: unknown option " << a << "\n";
      return 2;
    } else {
      files.push_back(a);
    }
  }
  if (files.empty()) {
    std::cerr << "usage: mp4rec inspect [-q] FILE...\n";
    return 2;
  }
  int status = 0;
  for (size_t i = 0; i < files.size(); ++i) {
    if (i) std::cout << "\n";
    const Inspection ins = inspect_file(files[i]);
    print_inspection(ins, std::cout, tree);
    if (!ins.consistent()) status = 1;
  }
  return status;
}

}  // namespace mp4tool
