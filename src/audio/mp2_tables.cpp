// The tables of MPEG audio layer II that hosts may link against: the encoder's
// analysis window, the quantiser classes and the bit-allocation tables of
// ISO/IEC 11172-3 and 13818-3, and the floor(log2) table of the bit writer.
// libavcodec carries its own copies under other names (and its own
// ff_log2_tab, which a static libavcodec then resolves to this one: the
// contents are the same).
#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <span>

#include <mp4rec/mp4rec.h>

extern "C" {
// floor(log2(i)) for i in 1..255; 0 for 0.
constexpr uint8_t ff_log2_tab[256] = {
    0, 0, 1, 1, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4,
    5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5,
    6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6,
    6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6,
    7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
    7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
    7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
    7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7,
};

// Half of the analysis window (the other half mirrors it), fixed point.
constexpr int32_t mpa_enwindow[257] = {
    0,      -1,     -1,     -1,     -1,     -1,     -1,     -2,     -2,     -2,     -2,     -3,
    -3,     -4,     -4,     -5,     -5,     -6,     -7,     -7,     -8,     -9,     -10,    -11,
    -13,    -14,    -16,    -17,    -19,    -21,    -24,    -26,    -29,    -31,    -35,    -38,
    -41,    -45,    -49,    -53,    -58,    -63,    -68,    -73,    -79,    -85,    -91,    -97,
    -104,   -111,   -117,   -125,   -132,   -139,   -147,   -154,   -161,   -169,   -176,   -183,
    -190,   -196,   -202,   -208,   213,    218,    222,    225,    227,    228,    228,    227,
    224,    221,    215,    208,    200,    189,    177,    163,    146,    127,    106,    83,
    57,     29,     -2,     -36,    -72,    -111,   -153,   -197,   -244,   -294,   -347,   -401,
    -459,   -519,   -581,   -645,   -711,   -779,   -848,   -919,   -991,   -1064,  -1137,  -1210,
    -1283,  -1356,  -1428,  -1498,  -1567,  -1634,  -1698,  -1759,  -1817,  -1870,  -1919,  -1962,
    -2001,  -2032,  -2057,  -2075,  -2085,  -2087,  -2080,  -2063,  2037,   2000,   1952,   1893,
    1822,   1739,   1644,   1535,   1414,   1280,   1131,   970,    794,    605,    402,    185,
    -45,    -288,   -545,   -814,   -1095,  -1388,  -1692,  -2006,  -2330,  -2663,  -3004,  -3351,
    -3705,  -4063,  -4425,  -4788,  -5153,  -5517,  -5879,  -6237,  -6589,  -6935,  -7271,  -7597,
    -7910,  -8209,  -8491,  -8755,  -8998,  -9219,  -9416,  -9585,  -9727,  -9838,  -9916,  -9959,
    -9966,  -9935,  -9863,  -9750,  -9592,  -9389,  -9139,  -8840,  -8492,  -8092,  -7640,  -7134,
    6574,   5959,   5288,   4561,   3776,   2935,   2037,   1082,   70,     -998,   -2122,  -3300,
    -4533,  -5818,  -7154,  -8540,  -9975,  -11455, -12980, -14548, -16155, -17799, -19478, -21189,
    -22929, -24694, -26482, -28289, -30112, -31947, -33791, -35640, -37489, -39336, -41176, -43006,
    -44821, -46617, -48390, -50137, -51853, -53534, -55178, -56778, -58333, -59838, -61289, -62684,
    -64019, -65290, -66494, -67629, -68692, -69679, -70590, -71420, -72169, -72835, -73415, -73908,
    -74313, -74630, -74856, -74992, 75038,
};

// Subbands coded per allocation table: 27 and 30 (MPEG-1 at high rates), 8
// and 12 (MPEG-1 at low rates), 30 (MPEG-2 low sampling frequencies).
constexpr int sblimit_table[5] = {27, 30, 8, 12, 30};

// Steps of each quantiser class.
constexpr int quant_steps[17] = {3,   5,    7,    9,    15,   31,    63,    127,  255,
                                 511, 1023, 2047, 4095, 8191, 16383, 32767, 65535};

// Bits per sample of each class; negative: three samples are coded together in
// that many bits.
constexpr int quant_bits[17] = {-5, -7, 3, -10, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
}

namespace {

using Row = std::span<const unsigned char>;

// An allocation table lists, per subband, the width of its allocation field
// and then the quantiser class of each non-zero allocation.
template <std::size_t N>
struct AllocTable {
  std::array<unsigned char, N> bytes{};
  std::size_t used = 0;
  constexpr AllocTable &add(int subbands, Row row) {
    for (int i = 0; i < subbands; ++i) {
      for (unsigned char b : row) bytes[used++] = b;
    }
    return *this;
  }
};

constexpr unsigned char kLow4[] = {4, 0, 2, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
constexpr unsigned char kMid4[] = {4, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 16};
constexpr unsigned char kHigh3[] = {3, 0, 1, 2, 3, 4, 5, 16};
constexpr unsigned char kHigh2[] = {2, 0, 1, 16};
constexpr unsigned char kLowRate4[] = {4, 0, 1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
constexpr unsigned char kLowRate3[] = {3, 0, 1, 3, 4, 5, 6, 7};
constexpr unsigned char kLsf4[] = {4, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14};
constexpr unsigned char kLsf2[] = {2, 0, 1, 3};

template <std::size_t N, typename Build>
constexpr std::array<unsigned char, N> alloc_table(Build build) {
  AllocTable<N> t;
  build(t);
  if (t.used != N) throw "allocation table size";  // not a constant: the build fails
  return t.bytes;
}

// MPEG-1, 27 or 30 subbands at high rates.
constexpr auto kTable1 =
    alloc_table<300>([](auto &t) { t.add(3, kLow4).add(8, kMid4).add(12, kHigh3).add(7, kHigh2); });
// MPEG-1 at low rates, 8 or 12 subbands.
constexpr auto kTable3 = alloc_table<112>([](auto &t) { t.add(2, kLowRate4).add(10, kLowRate3); });
// MPEG-2 low sampling frequencies.
constexpr auto kTable4 =
    alloc_table<196>([](auto &t) { t.add(4, kLsf4).add(7, kLowRate3).add(19, kLsf2); });

constexpr bool log2_table_is_floor_log2() {
  for (unsigned i = 1; i < 256; ++i) {
    if (ff_log2_tab[i] != std::bit_width(i) - 1) return false;
  }
  return ff_log2_tab[0] == 0;
}
static_assert(log2_table_is_floor_log2());

}  // namespace

extern "C" const unsigned char *const alloc_tables[5] = {
    kTable1.data(), kTable1.data(), kTable3.data(), kTable3.data(), kTable4.data()};
