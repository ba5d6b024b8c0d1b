#include "support/box_reader.h"

#include <algorithm>
#include <fstream>
#include <iterator>
#include <map>
#include <stdexcept>

namespace testsupport {

namespace {

// Bytes between a container's header and its first child.
std::optional<uint64_t> child_offset(const std::string &type) {
  static const std::map<std::string, uint64_t> kContainers = {
      {"moov", 8},  {"trak", 8},  {"edts", 8},  {"mdia", 8},    {"minf", 8},  {"dinf", 8},
      {"stbl", 8},  {"udta", 8},  {"ilst", 8},  {"\xA9too", 8}, {"meta", 12}, {"dref", 16},
      {"stsd", 16}, {"avc1", 86}, {"hvc1", 86}, {"mp4v", 86},   {"mp4a", 36},
  };
  auto it = kContainers.find(type);
  if (it == kContainers.end()) return std::nullopt;
  return it->second;
}

}  // namespace

BoxFile::BoxFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) throw std::runtime_error("cannot open " + path);
  bytes_.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  parse(0, bytes_.size(), top_, 0);
}

BoxFile::BoxFile(std::vector<uint8_t> bytes) : bytes_(std::move(bytes)) {
  parse(0, bytes_.size(), top_, 0);
}

BoxFile BoxFile::revealed(const std::string &path) {
  return revealed(BoxFile(path).bytes());
}

BoxFile BoxFile::revealed(std::vector<uint8_t> original) {
  BoxFile f(std::move(original));
  const Box *moov = f.find("moov");
  if (moov == nullptr) return f;
  std::vector<uint8_t> bytes = f.bytes();
  for (const Box &b : moov->children) {
    if (b.type == "free" && b.size >= 16 && f.str(b.offset + 12, 4) == "tkhd")
      std::copy_n("trak", 4, bytes.begin() + static_cast<long>(b.offset + 4));
  }
  return BoxFile(std::move(bytes));
}

void BoxFile::parse(uint64_t start, uint64_t end, std::vector<Box> &out, int depth) {
  uint64_t pos = start;
  while (pos + 8 <= end) {
    Box b;
    b.offset = pos;
    b.size = u32(pos);
    b.type = str(pos + 4, 4);
    if (b.size == 0) b.size = end - pos;  // to the end of the enclosing space
    if (b.size < 8 || pos + b.size > end) {
      b.size = end - pos;  // truncated: keep what is there
    }
    if (auto skip = child_offset(b.type); skip && depth < 16 && *skip <= b.size) {
      parse(pos + *skip, pos + b.size, b.children, depth + 1);
    }
    out.push_back(std::move(b));
    pos += out.back().size;
  }
}

const Box *BoxFile::find(const std::string &path) const {
  const std::vector<Box> *level = &top_;
  const Box *cur = nullptr;
  size_t p = 0;
  while (p <= path.size()) {
    size_t slash = path.find('/', p);
    if (slash == std::string::npos) slash = path.size();
    std::string part = path.substr(p, slash - p);
    size_t index = 0;
    if (auto br = part.find('['); br != std::string::npos) {
      index = std::stoul(part.substr(br + 1));
      part = part.substr(0, br);
    }
    cur = nullptr;
    for (const Box &b : *level) {
      if (b.type == part && index-- == 0) {
        cur = &b;
        break;
      }
    }
    if (cur == nullptr) return nullptr;
    level = &cur->children;
    p = slash + 1;
  }
  return cur;
}

const Box &BoxFile::at(const std::string &path) const {
  const Box *b = find(path);
  if (b == nullptr) throw std::runtime_error("no box at " + path + "\n" + dump());
  return *b;
}

uint8_t BoxFile::u8(uint64_t off) const {
  if (off >= bytes_.size()) throw std::out_of_range("read past end");
  return bytes_[off];
}
uint16_t BoxFile::u16(uint64_t off) const {
  return static_cast<uint16_t>(u8(off) << 8 | u8(off + 1));
}
uint32_t BoxFile::u24(uint64_t off) const {
  return uint32_t{u8(off)} << 16 | u16(off + 1);
}
uint32_t BoxFile::u32(uint64_t off) const {
  return uint32_t{u16(off)} << 16 | u16(off + 2);
}

std::string BoxFile::str(uint64_t off, size_t n) const {
  std::string s;
  for (size_t i = 0; i < n; ++i) s.push_back(static_cast<char>(u8(off + i)));
  return s;
}

std::vector<uint8_t> BoxFile::slice(uint64_t off, size_t n) const {
  if (off + n > bytes_.size()) throw std::out_of_range("slice past end");
  return {bytes_.begin() + static_cast<long>(off), bytes_.begin() + static_cast<long>(off + n)};
}

uint32_t BoxFile::entry_count(const Box &b) const {
  return b.type == "stsz" ? u32(b.offset + 16) : u32(b.offset + 12);
}

std::vector<std::pair<uint32_t, uint32_t>> BoxFile::stts(const Box &b) const {
  std::vector<std::pair<uint32_t, uint32_t>> v;
  const uint32_t n = entry_count(b);
  for (uint32_t i = 0; i < n; ++i)
    v.emplace_back(u32(b.offset + 16 + 8 * i), u32(b.offset + 20 + 8 * i));
  return v;
}

std::vector<uint32_t> BoxFile::stss(const Box &b) const {
  std::vector<uint32_t> v;
  const uint32_t n = entry_count(b);
  for (uint32_t i = 0; i < n; ++i) v.push_back(u32(b.offset + 16 + 4 * i));
  return v;
}

std::vector<BoxFile::Stsc> BoxFile::stsc(const Box &b) const {
  std::vector<Stsc> v;
  const uint32_t n = entry_count(b);
  for (uint32_t i = 0; i < n; ++i) {
    const uint64_t e = b.offset + 16 + 12 * i;
    v.push_back({u32(e), u32(e + 4), u32(e + 8)});
  }
  return v;
}

std::vector<uint32_t> BoxFile::stsz(const Box &b) const {
  std::vector<uint32_t> v;
  const uint32_t n = entry_count(b);
  for (uint32_t i = 0; i < n; ++i) v.push_back(u32(b.offset + 20 + 4 * i));
  return v;
}

std::vector<uint32_t> BoxFile::stco(const Box &b) const {
  return stss(b);
}

namespace {
std::string indented(const std::vector<Box> &boxes, bool offsets, int depth = 0) {
  std::string out;
  for (const Box &b : boxes) {
    out += std::string(2 * depth, ' ') + b.type;
    if (offsets) out += " @" + std::to_string(b.offset) + " size";
    out += " " + std::to_string(b.size) + "\n" + indented(b.children, offsets, depth + 1);
  }
  return out;
}
}  // namespace

std::string BoxFile::dump() const {
  return indented(top_, true);
}

std::string BoxFile::tree(const std::string &path) const {
  return indented({at(path)}, false);
}

std::string BoxFile::fields_of(const Box &b) const {
  const uint64_t o = b.offset;
  auto n = [](uint64_t v) { return std::to_string(v); };
  // Entries of a table, at most 8 shown.
  auto entries = [&](uint32_t count, auto &&entry) {
    std::string s = " n=" + n(count) + (count ? ":" : "");
    for (uint32_t i = 0; i < count; ++i) {
      if (count > 8 && i == 7) {
        s += " ...";
        i = count - 1;
      }
      s += " " + entry(i);
    }
    return s;
  };
  std::string s = b.type + " " + n(b.size);
  if (b.type == "mvhd") {
    s += " scale=" + n(u32(o + 20)) + " duration=" + n(u32(o + 24)) + " next=" + n(u32(o + 104));
  } else if (b.type == "tkhd") {
    const uint32_t w = u32(o + 84), h = u32(o + 88);
    const bool fixed = (w & 0xFFFF) == 0 && (h & 0xFFFF) == 0 && (w | h) != 0;
    s += " id=" + n(u32(o + 20)) + " duration=" + n(u32(o + 28)) + " volume=" + n(u16(o + 44)) +
         " size=" + n(fixed ? w >> 16 : w) + "x" + n(fixed ? h >> 16 : h) + (fixed ? " fixed" : "");
  } else if (b.type == "elst") {
    s += " duration=" + n(u32(o + 16)) + " media=" + n(u32(o + 20));
  } else if (b.type == "mdhd") {
    s += " scale=" + n(u32(o + 20)) + " duration=" + n(u32(o + 24)) + " lang=" + n(u16(o + 28));
  } else if (b.type == "hdlr") {
    s += " " + str(o + 16, 4);
  } else if (b.type == "avc1" || b.type == "hvc1") {
    s += " " + n(u16(o + 32)) + "x" + n(u16(o + 34));
  } else if (b.type == "mp4a") {
    s += " rate=" + n(u32(o + 32) >> 16);
  } else if (b.type == "stts") {
    s += entries(entry_count(b),
                 [&](uint32_t i) { return n(u32(o + 16 + 8 * i)) + "x" + n(u32(o + 20 + 8 * i)); });
  } else if (b.type == "stsc") {
    s += entries(entry_count(b), [&](uint32_t i) {
      const uint64_t e = o + 16 + 12 * i;
      return n(u32(e)) + "/" + n(u32(e + 4)) + "/" + n(u32(e + 8));
    });
  } else if (b.type == "stsz") {
    s += entries(entry_count(b), [&](uint32_t i) { return n(u32(o + 20 + 4 * i)); });
  } else if (b.type == "stss" || b.type == "stco") {
    s += entries(entry_count(b), [&](uint32_t i) { return n(u32(o + 16 + 4 * i)); });
  }
  return s;
}

std::string BoxFile::fields(const std::string &path) const {
  std::string out;
  auto walk = [&](auto &&self, const Box &b, int depth) -> void {
    out += std::string(2 * depth, ' ') + fields_of(b) + "\n";
    for (const Box &c : b.children) self(self, c, depth + 1);
  };
  walk(walk, at(path), 0);
  return out;
}

}  // namespace testsupport
