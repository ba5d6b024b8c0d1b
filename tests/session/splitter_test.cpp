// The access-unit splitter's cutting, with the per-piece writer replaced by a
// recorder.
#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "session/splitter.h"
#include "support/log_capture.h"

namespace {

struct Piece {
  std::vector<uint8_t> bytes;
  int timestamp;
};

std::vector<Piece> g_pieces;
std::vector<int> g_results;  // what the recorder answers, call by call (then 0)

int record_piece(unsigned char *data, int length, int timestamp, mp4_handler *) {
  g_pieces.push_back({{data, data + length}, timestamp});
  const size_t i = g_pieces.size() - 1;
  return i < g_results.size() ? g_results[i] : 0;
}

using Bytes = std::vector<uint8_t>;

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// A NAL unit: start code, header byte, then `body` filler bytes that hold no start code.
Bytes nal(int start_code, uint8_t header, size_t body) {
  Bytes b = start_code == 4 ? Bytes{0, 0, 0, 1} : Bytes{0, 0, 1};
  b.push_back(header);
  for (size_t i = 0; i < body; ++i) b.push_back(static_cast<uint8_t>(0x20 + i % 50));
  return b;
}

struct SplitCase {
  std::string name;
  Bytes buffer;
  std::vector<size_t> piece_sizes;  // expected cuts, in order
  uint32_t video_format = 2;        // the handler's: 2 H.264, 3 H.265
};

void PrintTo(const SplitCase &c, std::ostream *os) {
  *os << c.name;
}

class Split : public ::testing::TestWithParam<SplitCase> {
 protected:
  void SetUp() override {
    g_pieces.clear();
    g_results.clear();
  }
};

TEST_P(Split, CutsWhereStartCodesStand) {
  const SplitCase &c = GetParam();
  Bytes buf = c.buffer;
  mp4_handler handler{c.video_format, nullptr};
  ASSERT_EQ(mp4rec::split_access_unit(buf.data(), static_cast<int>(buf.size()), 1000, &handler,
                                      record_piece),
            0);
  ASSERT_EQ(g_pieces.size(), c.piece_sizes.size());
  size_t offset = 0;
  for (size_t i = 0; i < g_pieces.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(g_pieces[i].bytes.size(), c.piece_sizes[i]);
    // Pieces tile the buffer in order; each is stamped one after the one before.
    EXPECT_EQ(g_pieces[i].bytes, Bytes(buf.begin() + static_cast<long>(offset),
                                       buf.begin() + static_cast<long>(offset + c.piece_sizes[i])));
    EXPECT_EQ(g_pieces[i].timestamp, 1000 + static_cast<int>(i));
    offset += c.piece_sizes[i];
  }
  EXPECT_EQ(offset, buf.size());
}

Bytes with_start_code_at(size_t total, size_t at) {
  Bytes b = nal(4, 0x65, total - 5);
  b[at] = 0;
  b[at + 1] = 0;
  b[at + 2] = 1;
  return b;
}

INSTANTIATE_TEST_SUITE_P(
    AccessUnits, Split,
    ::testing::Values(
        SplitCase{"SpsPpsIdrFourByteCodes",
                  concat({nal(4, 0x67, 10), nal(4, 0x68, 3), nal(4, 0x65, 500)}),
                  {15, 8, 505}},
        SplitCase{"ThreeByteCodesAndSei",
                  concat({nal(4, 0x67, 12), nal(3, 0x68, 4), nal(3, 0x06, 20), nal(4, 0x65, 300)}),
                  {17, 8, 24, 305}},
        // A non-IDR slice at the start goes whole, whatever follows it.
        SplitCase{"NonIdrFourByte", concat({nal(4, 0x41, 20), nal(4, 0x65, 20)}), {50}},
        SplitCase{"NonIdrThreeByte", concat({nal(3, 0x21, 20), nal(3, 0x65, 20)}), {48}},
        // Six bytes or fewer are never scanned.
        SplitCase{"SixBytes", Bytes{0, 0, 1, 0x67, 0, 1}, {6}},
        SplitCase{
            "TinyWithCodeInside", Bytes{0, 0, 0, 1, 0x67, 0x42, 0x00, 0x00, 0x01, 0x68}, {6, 4}},
        // Only the first 200 bytes are searched.
        SplitCase{"CodeAt300Of1000", with_start_code_at(1000, 300), {1000}},
        SplitCase{"CodeAt196Seen", with_start_code_at(1000, 196), {196, 804}},
        SplitCase{"CodeAt197Unseen", with_start_code_at(1000, 197), {1000}},
        // In a short buffer the window is the buffer: a code in its last three bytes is not seen.
        SplitCase{"ShortBufferTail", Bytes{0, 0, 0, 1, 0x67, 0x11, 0x22, 0, 0, 1}, {10}},
        // A four-byte code is cut in front of its first zero.
        SplitCase{"FourByteCutInFront", concat({nal(3, 0x67, 5), nal(4, 0x65, 30)}), {9, 35}},
        // H.265: the type is bits 1 to 6 of the first header byte. VPS, SPS,
        // PPS and an IDR picture are cut; a picture that is not IRAP (TRAIL_R,
        // whose low five bits H.264 would read as type 2) goes whole, an IRAP
        // one (BLA_W_LP, an H.264 non-IDR slice by its low bits) is scanned.
        SplitCase{"HevcVpsSpsPpsIdr",
                  concat({nal(4, 0x40, 20), nal(4, 0x42, 30), nal(3, 0x44, 5), nal(4, 0x26, 400)}),
                  {25, 35, 9, 405},
                  3},
        SplitCase{"HevcTrailGoesWhole", concat({nal(4, 0x02, 20), nal(4, 0x26, 20)}), {50}, 3},
        SplitCase{"HevcBlaIsScanned", concat({nal(4, 0x21, 20), nal(4, 0x02, 20)}), {25, 25}, 3}),
    [](const auto &p) { return p.param.name; });

TEST(SplitFailure, AnInnerFailureStopsTheSplit) {
  // -1, -5 and even a positive answer for an inner piece all end the split with -1.
  for (const int inner : {-1, -5, 1}) {
    SCOPED_TRACE(inner);
    g_pieces.clear();
    g_results = {inner};
    testsupport::LogCapture log;
    Bytes buf = concat({nal(4, 0x67, 10), nal(4, 0x68, 3), nal(4, 0x65, 100)});
    mp4_handler handler{2, nullptr};
    EXPECT_EQ(mp4rec::split_access_unit(buf.data(), static_cast<int>(buf.size()), 7, &handler,
                                        record_piece),
              -1);
    EXPECT_EQ(g_pieces.size(), 1u);
    const auto e = log.find(
        "mp4 write video : mp4_write_video failed, return = " + std::to_string(inner) + "\n");
    EXPECT_EQ(e.level, 3);
    EXPECT_EQ(e.function, "mp4_write_splite_sps_pps_i");
  }
}

TEST(SplitFailure, TheLastPieceAnswersUnchanged) {
  g_pieces.clear();
  g_results = {0, 0, -5};
  Bytes buf = concat({nal(4, 0x67, 10), nal(4, 0x68, 3), nal(4, 0x65, 100)});
  mp4_handler handler{2, nullptr};
  EXPECT_EQ(mp4rec::split_access_unit(buf.data(), static_cast<int>(buf.size()), 7, &handler,
                                      record_piece),
            -5);
  EXPECT_EQ(g_pieces.size(), 3u);
}

TEST(SplitFailure, BadArgumentsAreRefused) {
  Bytes buf = nal(4, 0x65, 20);
  mp4_handler handler{2, nullptr};
  struct Bad {
    unsigned char *data;
    int length;
    int timestamp;
    mp4_handler *handler;
  };
  for (const Bad &b : {Bad{nullptr, 20, 0, &handler}, Bad{buf.data(), 0, 0, &handler},
                       Bad{buf.data(), 20, -1, &handler}, Bad{buf.data(), 20, 0, nullptr}}) {
    g_pieces.clear();
    testsupport::LogCapture log;
    EXPECT_EQ(mp4rec::split_access_unit(b.data, b.length, b.timestamp, b.handler, record_piece),
              -1);
    EXPECT_TRUE(g_pieces.empty());
    EXPECT_EQ(log.find("mp4 write video : param error\n").function, "mp4_write_splite_sps_pps_i");
  }
  // The exported call refuses the same way before reaching any writer.
  testsupport::LogCapture log;
  EXPECT_EQ(mp4_write_splite_sps_pps_i(buf.data(), 20, 0, nullptr), -1);
  EXPECT_TRUE(log.has("mp4 write video : param error\n", 3, 37));
}

}  // namespace
