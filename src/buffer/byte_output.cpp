// Big-endian byte output over stdio streams: every box writer reaches the file
// through these calls. None of them logs; all return 0 or -1.
#include <sys/types.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "buffer/card.h"
#include "common/internal.h"

extern "C" {

FILE *mp4_fopen(const char *path, const char *mode) {
  if (path == nullptr || mode == nullptr) return nullptr;
  return mp4rec::card::open(path, mode);
}

int mp4_ftell(FILE *file) {
  if (file == nullptr) return -1;
  // Positions are signed 32-bit values: one at or past 2 GiB fails with
  // EOVERFLOW, as a 32-bit ftell does, and never comes back truncated.
  const off_t pos = ftello(file);
  if (pos > INT32_MAX) {
    errno = EOVERFLOW;
    return -1;
  }
  return static_cast<int>(pos);
}

int mp4_fseek(FILE *file, int offset, int whence) {
  return file == nullptr ? -1 : std::fseek(file, offset, whence);
}

int mp4_fclose(FILE *file) {
  return file == nullptr ? -1 : std::fclose(file);
}

int mp4_put_byte(FILE *file, int value) {
  if (file == nullptr) return -1;
  return putc(static_cast<unsigned char>(value), file) == EOF ? -1 : 0;
}

int mp4_put_be16(FILE *file, unsigned int value) {
  if (mp4_put_byte(file, static_cast<int>((value >> 8) & 0xFF)) != 0) return -1;
  return mp4_put_byte(file, static_cast<int>(value & 0xFF));
}

int mp4_put_be24(FILE *file, unsigned int value) {
  if (mp4_put_be16(file, value >> 8) != 0) return -1;
  return mp4_put_byte(file, static_cast<int>(value & 0xFF));
}

int mp4_put_be32(FILE *file, unsigned int value) {
  if (mp4_put_be16(file, value >> 16) != 0) return -1;
  return mp4_put_be16(file, value & 0xFFFF);
}

int mp4_put_tag(FILE *file, const char *tag) {
  if (file == nullptr || tag == nullptr) return -1;
  for (; *tag != '\0'; ++tag) {
    if (mp4_put_byte(file, static_cast<unsigned char>(*tag)) != 0) return -1;
  }
  return 0;
}

int mp4_put_buffer(FILE *file, const unsigned char *data, unsigned int len) {
  if (file == nullptr || data == nullptr) return -1;
  if (len == 0) return 0;
  return std::fwrite(data, 1, len, file) == len ? 0 : -1;
}

int mp4_put_h264_buffer(FILE *file, const unsigned char *data, int len) {
  if (file == nullptr || data == nullptr || len < 5) return -1;
  const auto body = static_cast<unsigned int>(len - 4);
  if (mp4_put_be32(file, body) != 0) return -1;
  return std::fwrite(data + 4, 1, body, file) == body ? 0 : -1;
}

}  // extern "C"
