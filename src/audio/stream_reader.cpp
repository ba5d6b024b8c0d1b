// Readers that cut MP2 or AAC (ADTS) frames out of an elementary-stream side
// file by their sync pair alone: exactly one 0xFF followed by F5 (MP2) or F1
// (AAC). No header field is decoded.
#include <cstdio>

#include "common/internal.h"

namespace {

// Sync rule: counts 0xFF bytes; the second byte of the pair ends the search
// only when exactly one 0xFF stands in front of it.
class SyncScanner {
 public:
  explicit SyncScanner(uint8_t second) : second_(second) {}
  bool feed(uint8_t b) {
    if (b == 0xFF) {
      ++ff_;
      return false;
    }
    const bool sync = b == second_ && ff_ == 1;
    ff_ = 0;
    return sync;
  }

 private:
  uint8_t second_;
  unsigned ff_ = 0;
};

// The two families differ only in their sync pair and the words of their messages.
struct Family {
  uint8_t sync;
  const char *head_name;
  const char *frame_name;
  const char *head_null;
  const char *head_eof;
  const char *frame_args;
  const char *frame_read;
  const char *frame_small;
};

constexpr Family kMp2{0xF5,
                      "mp4_handle_mp2_head",
                      "mp4_read_mp2_frame",
                      "[%d] mp4:input mp2:fpMp2 is null\n\n",
                      "[%d] mp4:input mp2:handle mp2 header error(EOF or read error)\n\n",
                      "[%d] mp4:mp2 input:pointer is null or bufSize < 2\n\n",
                      "[%d] mp4:mp2 input:read file error\n\n",
                      "[%d] mp4:mp2 input:buf size is too small\n\n"};

constexpr Family kAac{0xF1,
                      "mp4_handle_aac_head",
                      "mp4_read_aac_frame",
                      "[%d] mp4:input aac:fpAac is null\n\n",
                      "[%d] mp4:input aac:handle aac header error(EOF or read error)\n\n",
                      "[%d] mp4:aac input:pointer is null or bufSize < 2\n\n",
                      "[%d] mp4:aac input:read file error\n\n",
                      "[%d] mp4:aac input:buf size is too small\n\n"};

void log_error(const char *function, int line, const char *text) {
  swLogWrite(mp4rec::kLogError, mp4rec::kModAudio, function, line, text, line);
}

int read_head(FILE *file, const Family &f) {
  if (file == nullptr) {
    log_error(f.head_name, __LINE__, f.head_null);
    return -1;
  }
  SyncScanner scan(f.sync);
  for (bool first = true;; first = false) {
    if (std::feof(file)) return -1;
    const int c = std::fgetc(file);
    if (c == EOF) {
      // An empty stream (no audio was recorded) is not an error: stdio only
      // reports its end once the first read has met it.
      if (first && std::feof(file)) return -1;
      log_error(f.head_name, __LINE__, f.head_eof);
      return -1;
    }
    if (scan.feed(static_cast<uint8_t>(c))) return 0;
  }
}

int read_frame(FILE *file, unsigned char *buf, unsigned int size, unsigned int *frame_length,
               const Family &f) {
  if (file == nullptr || buf == nullptr || frame_length == nullptr || size < 2) {
    log_error(f.frame_name, __LINE__, f.frame_args);
    return -1;
  }
  // The sync pair was consumed from the stream by the previous call.
  buf[0] = 0xFF;
  buf[1] = f.sync;
  unsigned int pos = 2;
  SyncScanner scan(f.sync);
  while (!std::feof(file)) {
    const int c = std::fgetc(file);
    if (c == EOF) {
      if (std::feof(file)) break;
      log_error(f.frame_name, __LINE__, f.frame_read);
      return -1;
    }
    if (pos >= size) {
      log_error(f.frame_name, __LINE__, f.frame_small);
      return -1;
    }
    buf[pos++] = static_cast<unsigned char>(c);
    if (scan.feed(static_cast<uint8_t>(c))) {
      pos -= 2;  // the pair belongs to the next frame
      break;
    }
  }
  if (pos < 3) return -1;  // nothing beyond the pair: the end of the file
  *frame_length = pos;
  return 0;
}

}  // namespace

extern "C" {

int mp4_handle_mp2_head(FILE *file) {
  return read_head(file, kMp2);
}
int mp4_handle_aac_head(FILE *file) {
  return read_head(file, kAac);
}

int mp4_read_mp2_frame(FILE *file, unsigned char *buf, unsigned int size,
                       unsigned int *frame_length) {
  return read_frame(file, buf, size, frame_length, kMp2);
}

int mp4_read_aac_frame(FILE *file, unsigned char *buf, unsigned int size,
                       unsigned int *frame_length) {
  return read_frame(file, buf, size, frame_length, kAac);
}

}  // extern "C"
