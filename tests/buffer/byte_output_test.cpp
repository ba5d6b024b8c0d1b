#include <gtest/gtest.h>

#include <cstdio>
#include <vector>

#include "common/internal.h"
#include "support/media.h"

namespace {

using Bytes = std::vector<uint8_t>;

// Runs `write` on a fresh file and returns its result and what reached the file.
template <typename F>
std::pair<int, Bytes> written(F write) {
  testsupport::TempDir dir;
  const std::string path = dir.file("out.bin");
  FILE *f = mp4_fopen(path.c_str(), "wb");
  EXPECT_NE(f, nullptr);
  const int r = write(f);
  EXPECT_EQ(mp4_fclose(f), 0);
  return {r, testsupport::read_file(path)};
}

// What each call writes: integers big-endian, tags and buffers as they are,
// an H.264 unit with its first four bytes replaced by its length.
TEST(ByteOutput, EachCallWritesItsBytes) {
  static const unsigned char data[] = {1, 2, 3}, five[] = {0, 0, 0, 1, 0x65};
  // The first four bytes are not inspected: a 3-byte start code loses the NAL header.
  static const unsigned char three[] = {0, 0, 1, 0x41, 0xAA, 0xBB};
  const struct {
    const char *name;
    int (*put)(FILE *);
    int result;
    Bytes expect;
  } cases[] = {
      {"be16", [](FILE *f) { return mp4_put_be16(f, 0x12345678); }, 0, {0x56, 0x78}},
      {"be24", [](FILE *f) { return mp4_put_be24(f, 0x12345678); }, 0, {0x34, 0x56, 0x78}},
      {"be32", [](FILE *f) { return mp4_put_be32(f, 0x12345678); }, 0, {0x12, 0x34, 0x56, 0x78}},
      {"be32 ones", [](FILE *f) { return mp4_put_be32(f, 0xFFFFFFFF); }, 0, Bytes(4, 0xFF)},
      {"byte", [](FILE *f) { return mp4_put_byte(f, 0x1AB); }, 0, {0xAB}},
      {"tag", [](FILE *f) { return mp4_put_tag(f, "moov"); }, 0, {'m', 'o', 'o', 'v'}},
      {"empty tag", [](FILE *f) { return mp4_put_tag(f, ""); }, 0, {}},
      {"buffer", [](FILE *f) { return mp4_put_buffer(f, data, 3); }, 0, {1, 2, 3}},
      {"empty buffer", [](FILE *f) { return mp4_put_buffer(f, data, 0); }, 0, {}},
      {"h264", [](FILE *f) { return mp4_put_h264_buffer(f, five, 5); }, 0, {0, 0, 0, 1, 0x65}},
      {"h264 short", [](FILE *f) { return mp4_put_h264_buffer(f, five, 4); }, -1, {}},
      {"h264 3-byte",
       [](FILE *f) { return mp4_put_h264_buffer(f, three, 6); },
       0,
       {0, 0, 0, 2, 0xAA, 0xBB}},
  };
  for (const auto &c : cases) {
    auto [r, bytes] = written(c.put);
    EXPECT_EQ(r, c.result) << c.name;
    EXPECT_EQ(bytes, c.expect) << c.name;
  }
}

TEST(ByteOutput, NullArgumentsFailWithoutWriting) {
  const unsigned char data[] = {0, 0, 0, 1, 5};
  EXPECT_EQ(mp4_put_byte(nullptr, 1), -1);
  EXPECT_EQ(mp4_put_be16(nullptr, 1), -1);
  EXPECT_EQ(mp4_put_be24(nullptr, 1), -1);
  EXPECT_EQ(mp4_put_be32(nullptr, 1), -1);
  EXPECT_EQ(mp4_put_tag(nullptr, "a"), -1);
  EXPECT_EQ(mp4_put_buffer(nullptr, data, 1), -1);
  EXPECT_EQ(mp4_put_h264_buffer(nullptr, data, 5), -1);
  auto [r1, b1] = written([](FILE *f) { return mp4_put_tag(f, nullptr); });
  EXPECT_EQ(r1, -1);
  auto [r2, b2] = written([](FILE *f) { return mp4_put_buffer(f, nullptr, 4); });
  EXPECT_EQ(r2, -1);
  auto [r3, b3] = written([](FILE *f) { return mp4_put_h264_buffer(f, nullptr, 8); });
  EXPECT_EQ(r3, -1);
  EXPECT_TRUE(b1.empty() && b2.empty() && b3.empty());
  EXPECT_EQ(mp4_ftell(nullptr), -1);
  EXPECT_EQ(mp4_fseek(nullptr, 0, SEEK_SET), -1);
  EXPECT_EQ(mp4_fclose(nullptr), -1);
  EXPECT_EQ(mp4_fopen(nullptr, "wb"), nullptr);
}

TEST(ByteOutput, WriteErrorsSurfaceAsMinusOne) {
  // /dev/full accepts the buffered bytes and fails when they are flushed.
  FILE *f = mp4_fopen("/dev/full", "wb");
  ASSERT_NE(f, nullptr);
  setvbuf(f, nullptr, _IONBF, 0);
  const unsigned char data[] = {0, 0, 0, 1, 5, 6};
  EXPECT_EQ(mp4_put_byte(f, 1), -1);
  EXPECT_EQ(mp4_put_be32(f, 1), -1);
  EXPECT_EQ(mp4_put_tag(f, "ftyp"), -1);
  EXPECT_EQ(mp4_put_buffer(f, data, 6), -1);
  EXPECT_EQ(mp4_put_h264_buffer(f, data, 6), -1);
  mp4_fclose(f);
}

TEST(ByteOutput, PositionsAndSeeks) {
  testsupport::TempDir dir;
  FILE *f = mp4_fopen(dir.file("p.bin").c_str(), "wb+");
  ASSERT_NE(f, nullptr);
  EXPECT_EQ(mp4_ftell(f), 0);
  mp4_put_be32(f, 0);
  mp4_put_tag(f, "free");
  EXPECT_EQ(mp4_ftell(f), 8);
  // Seeking past the end and writing leaves a hole that reads as zeros.
  EXPECT_EQ(mp4_fseek(f, 100, SEEK_CUR), 0);
  mp4_put_byte(f, 7);
  EXPECT_EQ(mp4_ftell(f), 109);
  // Past 2 GiB a position cannot be told in 32 bits: -1, never a truncated
  // value (4 GiB + 9 would read as 9). Seeking alone does not grow the file.
  for (const off_t far : {off_t{0x7FFFFFFF}, off_t{0x80000000}, off_t{0x100000009}}) {
    ASSERT_EQ(fseeko(f, far, SEEK_SET), 0);
    EXPECT_EQ(mp4_ftell(f), far == 0x7FFFFFFF ? 0x7FFFFFFF : -1) << far;
  }
  EXPECT_EQ(mp4_fseek(f, 0, SEEK_SET), 0);
  mp4_put_be32(f, 8);
  EXPECT_EQ(mp4_fclose(f), 0);
  const auto bytes = testsupport::read_file(dir.file("p.bin"));
  ASSERT_EQ(bytes.size(), 109u);
  EXPECT_EQ(bytes[3], 8);
  EXPECT_EQ(bytes[50], 0);
  EXPECT_EQ(bytes[108], 7);
  EXPECT_EQ(mp4_fseek(f = mp4_fopen(dir.file("p.bin").c_str(), "rb"), -1, SEEK_SET), -1);
  mp4_fclose(f);
}

}  // namespace
