#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "audio_test_util.h"
#include "common/internal.h"

namespace {

using audiotest::Bytes;
using audiotest::numbered_messages;

// The two reader families differ only in their sync byte and message word.
struct Family {
  const char *word;
  uint8_t sync;
  int (*head)(FILE *);
  int (*frame)(FILE *, unsigned char *, unsigned int, unsigned int *);
  const char *head_name;
  const char *frame_name;
  std::string null_file;
};
const Family kMp2{"mp2",
                  0xF5,
                  mp4_handle_mp2_head,
                  mp4_read_mp2_frame,
                  "mp4_handle_mp2_head",
                  "mp4_read_mp2_frame",
                  "mp4:input mp2:fpMp2 is null\n\n"};
const Family kAac{"aac",
                  0xF1,
                  mp4_handle_aac_head,
                  mp4_read_aac_frame,
                  "mp4_handle_aac_head",
                  "mp4_read_aac_frame",
                  "mp4:input aac:fpAac is null\n\n"};

void PrintTo(const Family &f, std::ostream *os) {
  *os << f.word;
}

std::string msg(const Family &f, const std::string &pattern) {
  std::string s = pattern;
  for (size_t p; (p = s.find("@")) != std::string::npos;) s.replace(p, 1, f.word);
  return s;
}

struct Result {
  int head = 0;
  std::vector<Bytes> frames;
  int next = 0;  // what one more call gives after the call that ended the reading
};

// Writes `stream` to a file and reads it back: the head, then frames until -1.
Result read_stream(const Family &f, const Bytes &stream, unsigned int buffer_size = 65536) {
  testsupport::TempDir dir;
  const std::string path = dir.file("side");
  testsupport::write_file(path, stream);
  auto file = audiotest::open_file(path, "rb");
  Result r;
  r.head = f.head(file.get());
  if (r.head != 0) return r;
  std::vector<unsigned char> buf(buffer_size);
  for (;;) {
    unsigned int length = 0;
    if (f.frame(file.get(), buf.data(), buffer_size, &length) != 0) break;
    r.frames.emplace_back(buf.begin(), buf.begin() + length);
  }
  unsigned int length = 0;
  r.next = f.frame(file.get(), buf.data(), buffer_size, &length);
  return r;
}

class Readers : public testing::TestWithParam<Family> {};

TEST_P(Readers, CutFramesAtTheSyncPair) {
  const Family &f = GetParam();
  const uint8_t S = f.sync;
  const struct {
    const char *name;
    Bytes stream;
    std::vector<Bytes> frames;
    int next = -1;
  } cases[] = {
      {"two frames",
       {0xFF, S, 'a', 'b', 0xFF, S, 'c', 'd'},
       {{0xFF, S, 'a', 'b'}, {0xFF, S, 'c', 'd'}}},
      {"leading bytes are skipped", {1, 2, 0xFF, 0xFF, S, 3, 0xFF, S, 4}, {{0xFF, S, 4}}},
      {"two 0xFF before the pair are no sync",
       {0xFF, S, 1, 0xFF, 0xFF, S, 2},
       {{0xFF, S, 1, 0xFF, 0xFF, S, 2}}},
      {"0xFF then another byte is no sync",
       {0xFF, S, 1, 0xFF, 0, S, 0xFF, S, 2},
       {{0xFF, S, 1, 0xFF, 0, S}, {0xFF, S, 2}}},
      {"a pair by chance inside a body cuts it",
       {0xFF, S, 9, 9, 9, 0xFF, S, 9, 9},
       {{0xFF, S, 9, 9, 9}, {0xFF, S, 9, 9}}},
      {"a frame with nothing behind the pair ends the stream",
       {0xFF, S, 1, 0xFF, S, 0xFF, S, 2},
       {{0xFF, S, 1}},
       0},
      {"a pair alone at the end is no frame", {0xFF, S, 1, 2, 0xFF, S}, {{0xFF, S, 1, 2}}},
      {"the last frame runs to the end of the file",
       {0xFF, S, 1, 2, 3, 4, 5, 0xFF},
       {{0xFF, S, 1, 2, 3, 4, 5, 0xFF}}},
      {"the other family's pair is a plain byte",
       {0xFF, S, 0xFF, uint8_t(S ^ 4), 1},
       {{0xFF, S, 0xFF, uint8_t(S ^ 4), 1}}},
  };
  for (const auto &c : cases) {
    testsupport::LogCapture log;
    const Result r = read_stream(f, c.stream);
    EXPECT_EQ(r.head, 0) << c.name;
    EXPECT_EQ(r.frames, c.frames) << c.name;
    EXPECT_EQ(r.next, c.next) << c.name;
    EXPECT_TRUE(log.entries().empty()) << c.name << "\n" << log.dump();
  }
}

TEST_P(Readers, HeadFailsWithoutASync) {
  const Family &f = GetParam();
  const uint8_t S = f.sync;
  const std::string header_error =
      msg(f, "mp4:input @:handle @ header error(EOF or read error)\n\n");
  const struct {
    const char *name;
    Bytes stream;
    int messages;
  } cases[] = {
      {"empty stream, silently", {}, 0},
      {"no pair", {1, 2, 3, 0xFF}, 1},
      {"only doubled 0xFF", {0xFF, 0xFF, S, 0xFF, 0xFF, 0xFF, S}, 1},
  };
  for (const auto &c : cases) {
    testsupport::LogCapture log;
    EXPECT_EQ(read_stream(f, c.stream).head, -1) << c.name;
    EXPECT_EQ(numbered_messages(log, header_error, f.head_name), c.messages) << c.name;
    EXPECT_EQ(log.entries().size(), static_cast<size_t>(c.messages)) << log.dump();
  }
}

TEST_P(Readers, RefuseBadArguments) {
  const Family &f = GetParam();
  testsupport::TempDir dir;
  testsupport::write_file(dir.file("side"), {0xFF, f.sync, 1, 2});
  auto file = audiotest::open_file(dir.file("side"), "rb");
  unsigned char buf[8];
  unsigned int length = 77;
  const std::string bad = msg(f, "mp4:@ input:pointer is null or bufSize < 2\n\n");
  {
    testsupport::LogCapture log;
    EXPECT_EQ(f.head(nullptr), -1);
    EXPECT_EQ(numbered_messages(log, f.null_file, f.head_name), 1) << log.dump();
  }
  const struct {
    FILE *file;
    unsigned char *buf;
    unsigned int size;
    unsigned int *length;
  } cases[] = {{nullptr, buf, 8, &length},
               {file.get(), nullptr, 8, &length},
               {file.get(), buf, 8, nullptr},
               {file.get(), buf, 1, &length},
               {file.get(), buf, 0, &length}};
  for (const auto &c : cases) {
    testsupport::LogCapture log;
    EXPECT_EQ(f.frame(c.file, c.buf, c.size, c.length), -1);
    EXPECT_EQ(numbered_messages(log, bad, f.frame_name), 1) << log.dump();
  }
  EXPECT_EQ(length, 77u);
  EXPECT_EQ(std::ftell(file.get()), 0);  // nothing was read
}

TEST_P(Readers, FrameLongerThanTheBufferFails) {
  const Family &f = GetParam();
  const std::string small = msg(f, "mp4:@ input:buf size is too small\n\n");
  const struct {
    unsigned int size;
    Bytes stream;
    bool ok;
  } cases[] = {
      {2, {0xFF, f.sync, 1}, false},                      // one body byte, no room
      {3, {0xFF, f.sync, 1}, true},                       // fits exactly
      {4, {0xFF, f.sync, 1, 2, 3}, false},                // one byte over
      {4, {0xFF, f.sync, 1, 2, 0xFF, f.sync, 3}, false},  // the next pair needs room too
      {6, {0xFF, f.sync, 1, 2, 0xFF, f.sync, 3}, true},
  };
  for (const auto &c : cases) {
    testsupport::LogCapture log;
    const Result r = read_stream(f, c.stream, c.size);
    EXPECT_EQ(r.frames.size() >= 1, c.ok) << c.size;
    EXPECT_EQ(numbered_messages(log, small, f.frame_name), c.ok ? 0 : 1) << log.dump();
  }
}

TEST_P(Readers, ReadErrorIsReported) {
  const Family &f = GetParam();
  testsupport::TempDir dir;
  auto file = audiotest::open_file(dir.file("side"), "wb");  // write-only: reads fail
  unsigned char buf[16];
  unsigned int length = 0;
  testsupport::LogCapture log;
  EXPECT_EQ(f.head(file.get()), -1);
  EXPECT_EQ(
      numbered_messages(log, msg(f, "mp4:input @:handle @ header error(EOF or read error)\n\n"),
                        f.head_name),
      1)
      << log.dump();
  EXPECT_EQ(f.frame(file.get(), buf, sizeof buf, &length), -1);
  EXPECT_EQ(numbered_messages(log, msg(f, "mp4:@ input:read file error\n\n"), f.frame_name), 1)
      << log.dump();
}

INSTANTIATE_TEST_SUITE_P(Families, Readers, testing::Values(kMp2, kAac),
                         [](const auto &p) { return std::string(p.param.word); });

// ADTS frames are found by their sync pair alone, and AAC bodies hold the
// pair by chance now and then: the reader then cuts there (it reads no
// lengths). Every real frame start must still be a cut, every other cut must
// stand on a chance pair, and the pieces must add up to the whole stream.
TEST(StreamReaders, AacStreamIsCutAtEveryFrameStart) {
  const Bytes stream = testsupport::read_file(testsupport::aac_stream(16000, 2.0));
  const auto frames = testsupport::split_adts(stream);
  ASSERT_GT(frames.size(), 20u);
  std::set<size_t> starts;
  size_t pos = 0;
  for (const auto &f : frames) starts.insert(pos), pos += f.size();
  ASSERT_EQ(pos, stream.size());

  const Result r = read_stream(kAac, stream);
  EXPECT_EQ(r.head, 0);
  Bytes joined;
  std::set<size_t> cuts;
  for (const auto &f : r.frames)
    cuts.insert(joined.size()), joined.insert(joined.end(), f.begin(), f.end());
  EXPECT_EQ(joined, stream);
  EXPECT_TRUE(std::includes(cuts.begin(), cuts.end(), starts.begin(), starts.end()));
  for (size_t c : cuts) {
    if (starts.count(c)) continue;
    EXPECT_EQ(stream[c], 0xFF);
    EXPECT_EQ(stream[c + 1], 0xF1);
    EXPECT_NE(stream[c - 1], 0xFF);
  }
  std::printf("%zu ADTS frames read as %zu pieces\n", frames.size(), r.frames.size());
}

}  // namespace
