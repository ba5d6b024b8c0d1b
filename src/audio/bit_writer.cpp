// MSB-first bit writer with a 32-bit accumulator, stored big-endian.
#include "common/internal.h"

namespace {
void store_be32(uint8_t *p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v >> 24);
  p[1] = static_cast<uint8_t>(v >> 16);
  p[2] = static_cast<uint8_t>(v >> 8);
  p[3] = static_cast<uint8_t>(v);
}
}  // namespace

extern "C" {

void init_put_bits(mp4_bit_writer *w, unsigned char *buf, int size) {
  w->buf = buf;
  w->buf_ptr = buf;
  w->buf_end = buf + size;
  w->bit_left = 32;
  w->bit_buf = 0;
}

void put_bits(mp4_bit_writer *w, int n, unsigned int value) {
  uint32_t bit_buf = w->bit_buf;
  int bit_left = w->bit_left;
  if (n < bit_left) {
    bit_buf = (bit_buf << n) | value;
    bit_left -= n;
  } else {
    // Fill the accumulator with the top bits of value and store it.
    bit_buf = bit_left == 32 ? 0 : bit_buf << bit_left;
    bit_buf |= value >> (n - bit_left);
    store_be32(w->buf_ptr, bit_buf);
    w->buf_ptr += 4;
    bit_left += 32 - n;
    bit_buf = value;
  }
  w->bit_buf = bit_buf;
  w->bit_left = bit_left;
}

void flush_put_bits(mp4_bit_writer *w) {
  if (w->bit_left < 32) w->bit_buf <<= w->bit_left;
  while (w->bit_left < 32) {
    *w->buf_ptr++ = static_cast<uint8_t>(w->bit_buf >> 24);
    w->bit_buf <<= 8;
    w->bit_left += 8;
  }
  w->bit_left = 32;
  w->bit_buf = 0;
}

}  // extern "C"
