// `mp4rec inspect`: reads an MP4 file's box tree and sample index and checks the
// index against the bytes that are really in the file, as one does with a file
// taken from a card after a power cut.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <iosfwd>
#include <string>
#include <vector>

namespace mp4tool {

struct BoxInfo {
  std::string type;  // four characters, non-printable ones as '?'
  uint64_t offset = 0;
  uint64_t size = 0;       // as declared (to the end of the file for size 0)
  uint32_t header = 8;     // 16 with a 64-bit size
  bool truncated = false;  // declared to run past its parent or the file
  std::string detail;      // a short description of the contents
  std::vector<BoxInfo> children;
};

struct TrackInfo {
  uint32_t id = 0;
  bool hidden = false;  // its trak is still a "free" box (no chunk indexed yet): readers skip it
  std::string handler;  // "vide", "soun", ...
  std::string codec;    // sample entry type, e.g. "avc1"
  std::string format;   // e.g. "320x240" or "16000 Hz, 1 ch"
  uint32_t timescale = 0;
  uint64_t samples = 0;         // samples that have both a size and a chunk
  uint64_t present = 0;         // of those, the ones wholly inside the file and an mdat
  uint64_t declared_sizes = 0;  // sample count of the size table
  uint64_t declared_times = 0;  // samples covered by the time table
  uint64_t chunk_samples = 0;   // samples covered by the chunk tables
  uint64_t duration = 0;        // of `samples`, in timescale units
  uint64_t key_frames = 0;      // sync samples among `samples` (all when there is no stss)
  bool all_key = false;         // no stss: every sample is a sync sample
  uint64_t chunks = 0;
  uint64_t bytes = 0;  // sum of the sizes of `samples`
  double seconds() const { return timescale ? static_cast<double>(duration) / timescale : 0.0; }
};

struct Inspection {
  std::string path;
  uint64_t file_size = 0;
  bool readable = false;  // the file could be opened and has a moov
  std::vector<BoxInfo> boxes;
  std::vector<TrackInfo> tracks;
  uint64_t mdat_payload = 0;  // bytes of mdat payload present in the file
  uint64_t indexed_bytes = 0;
  std::vector<std::string> errors;    // the index disagrees with the file
  std::vector<std::string> warnings;  // oddities that do not stop playback
  // Set for a recording of this library that `mp4rec repair` would improve:
  // what it would recover.
  std::string repair_hint;
  bool made_here = false;  // its index carries this library's encoder item
  bool consistent() const { return readable && errors.empty(); }
};

Inspection inspect_file(const std::string &path);

// The box at a path of child types below `b` (e.g. {"mdia", "minf"}), or null.
const BoxInfo *box_at(const BoxInfo &b, std::initializer_list<const char *> types);

// Writes the report; `tree` includes the box tree.
void print_inspection(const Inspection &ins, std::ostream &out, bool tree);

// Entry point of the sub-command: returns the exit status (0 consistent,
// 1 inconsistent or unreadable, 2 usage).
int inspect_main(int argc, char **argv);

}  // namespace mp4tool
