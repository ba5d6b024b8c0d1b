#include <gtest/gtest.h>

#include <array>
#include <random>
#include <utility>
#include <vector>

#include "common/internal.h"

namespace {

using Bits = std::vector<std::pair<int, unsigned>>;  // (bit count, value)
using Bytes = std::vector<uint8_t>;

Bytes write_all(const Bits &bits) {
  std::array<uint8_t, 256> buf{};
  mp4_bit_writer w;
  init_put_bits(&w, buf.data(), static_cast<int>(buf.size()));
  for (auto [n, v] : bits) put_bits(&w, n, v);
  flush_put_bits(&w);
  EXPECT_EQ(w.bit_left, 32);
  EXPECT_EQ(w.bit_buf, 0u);
  return Bytes(buf.data(), w.buf_ptr);
}

// A writer that appends one bit at a time, to compare against.
Bytes reference(const Bits &bits) {
  Bytes out;
  int used = 8;
  for (auto [n, v] : bits) {
    for (int i = n - 1; i >= 0; --i) {
      if (used == 8) out.push_back(0), used = 0;
      out.back() |= static_cast<uint8_t>(((v >> i) & 1u) << (7 - used++));
    }
  }
  return out;
}

TEST(BitWriter, WritesMsbFirstAndPadsTheLastByte) {
  const struct {
    const char *name;
    Bits bits;
    Bytes expect;
  } cases[] = {
      {"three bits", {{3, 0b101}}, {0xA0}},
      {"nothing", {}, {}},
      {"two bytes", {{8, 0xAB}, {8, 0xCD}}, {0xAB, 0xCD}},
      {"header fields",
       {{12, 0xFFF}, {1, 0}, {2, 2}, {1, 1}, {16, 0x1234}},
       {0xFF, 0xF5, 0x12, 0x34}},
      {"fills the word exactly", {{31, 0x7FFFFFFF}, {1, 1}}, {0xFF, 0xFF, 0xFF, 0xFF}},
      {"crosses the word", {{20, 0xABCDE}, {20, 0x12345}}, {0xAB, 0xCD, 0xE1, 0x23, 0x45}},
      {"word then a nibble",
       {{16, 0xDEAD}, {16, 0xBEEF}, {4, 0xA}},
       {0xDE, 0xAD, 0xBE, 0xEF, 0xA0}},
      {"nine single bits", Bits(9, {1, 1}), {0xFF, 0x80}},
      {"31 bits then a full word",
       {{31, 0}, {31, 0x7FFFFFFF}, {2, 3}},
       {0, 0, 0, 1, 0xFF, 0xFF, 0xFF, 0xFF}},
  };
  for (const auto &c : cases) EXPECT_EQ(write_all(c.bits), c.expect) << c.name;
}

TEST(BitWriter, StoresWholeWordsBeforeTheFlush) {
  std::array<uint8_t, 8> buf{};
  mp4_bit_writer w;
  init_put_bits(&w, buf.data(), 8);
  put_bits(&w, 24, 0x123456);
  EXPECT_EQ(w.buf_ptr, buf.data());  // still in the accumulator
  put_bits(&w, 12, 0x789);
  EXPECT_EQ(w.buf_ptr, buf.data() + 4);
  EXPECT_EQ(w.bit_left, 28);
  EXPECT_EQ((Bytes{buf[0], buf[1], buf[2], buf[3]}), (Bytes{0x12, 0x34, 0x56, 0x78}));
}

TEST(BitWriter, AgreesWithABitByBitWriterOnRandomFields) {
  std::mt19937 rng(20261121);
  for (int round = 0; round < 200; ++round) {
    Bits bits;
    int total = 0;
    while (total < 1500) {
      const int n = std::uniform_int_distribution<int>(1, 31)(rng);
      bits.push_back({n, static_cast<unsigned>(rng()) & ((1u << n) - 1)});
      total += n;
    }
    ASSERT_EQ(write_all(bits), reference(bits)) << "round " << round;
  }
}

}  // namespace
