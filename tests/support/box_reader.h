// A small reader of ISO media files for the tests: walks the box tree and reads
// big-endian fields and sample tables by path, e.g.
//   BoxFile f(path); f.at("moov/trak[1]/mdia/minf/stbl/stts")
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace testsupport {

struct Box {
  std::string type;     // four characters (the "©too" item reads "\xA9too")
  uint64_t offset = 0;  // of the size field
  uint64_t size = 0;    // whole box
  std::vector<Box> children;
  uint64_t end() const { return offset + size; }
};

class BoxFile {
 public:
  explicit BoxFile(const std::string &path);
  explicit BoxFile(std::vector<uint8_t> bytes);
  // The file with its hidden tracks (a moov child "free" holding a tkhd, as a
  // track is written until its first chunk) read as "trak" boxes.
  static BoxFile revealed(const std::string &path);
  static BoxFile revealed(std::vector<uint8_t> bytes);

  const std::vector<uint8_t> &bytes() const { return bytes_; }
  const std::vector<Box> &top() const { return top_; }
  // Box at a path of types, "[i]" selecting the i-th (0-based) of that type.
  // Throws std::runtime_error when absent.
  const Box &at(const std::string &path) const;
  const Box *find(const std::string &path) const;

  uint8_t u8(uint64_t off) const;
  uint16_t u16(uint64_t off) const;
  uint32_t u24(uint64_t off) const;
  uint32_t u32(uint64_t off) const;
  std::string str(uint64_t off, size_t n) const;
  std::vector<uint8_t> slice(uint64_t off, size_t n) const;

  // Sample tables (full box header at offset+8, entries after the count).
  std::vector<std::pair<uint32_t, uint32_t>> stts(const Box &b) const;  // (count, delta)
  uint32_t entry_count(const Box &b) const;  // stts/stss/stsc/stco count; stsz sample count
  std::vector<uint32_t> stss(const Box &b) const;
  struct Stsc {
    uint32_t first_chunk, samples_per_chunk, desc_index;
    bool operator==(const Stsc &) const = default;
  };
  std::vector<Stsc> stsc(const Box &b) const;
  std::vector<uint32_t> stsz(const Box &b) const;  // per-sample sizes (sample size 0)
  std::vector<uint32_t> stco(const Box &b) const;

  // Box tree as indented text, for failure messages.
  std::string dump() const;
  // The box at `path` and the boxes inside it as indented "type size" lines
  // (no offsets), for comparing a layout in one assertion.
  std::string tree(const std::string &path) const;
  // The same with the fields that tell a layout apart, e.g.
  //   "tkhd 92 id=1 duration=50 volume=0 size=1280x720 fixed" or
  //   "stts 40 n=3: 1x40 1x40 1x50" (tables: their entries, at most 8, then
  //   "..." and the last): one expected text instead of a field per assertion.
  std::string fields(const std::string &path) const;

 private:
  void parse(uint64_t start, uint64_t end, std::vector<Box> &out, int depth);
  std::string fields_of(const Box &b) const;
  std::vector<uint8_t> bytes_;
  std::vector<Box> top_;
};

}  // namespace testsupport
