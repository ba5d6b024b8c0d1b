// The library as a host sees it: linked as a shared object, through the public
// header only, with the host's own log function.
#include <gtest/gtest.h>
#include <mp4rec/mp4rec.h>

#include <cstdarg>
#include <cstdio>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

namespace {

struct Logged {
  int level = -1, module = -1;
  std::string function, text;
} g_last;

}  // namespace

extern "C" void swLogWrite(int level, int module, const char *function, int /*line*/,
                           const char *format, ...) {
  char text[512];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  g_last = {level, module, function, text};
}

namespace {

TEST(Abi, HostLogFunctionTakesPrecedence) {
  unsigned int len = 0;
  unsigned char buf[4];
  EXPECT_EQ(mp4_read_mp2_frame(nullptr, buf, sizeof buf, &len), -1);
  EXPECT_EQ(g_last.level, 3);
  EXPECT_EQ(g_last.module, 38);
  EXPECT_EQ(g_last.function, "mp4_read_mp2_frame");
  EXPECT_TRUE(std::regex_match(
      g_last.text, std::regex(R"(\[\d+\] mp4:mp2 input:pointer is null or bufSize < 2\n\n)")))
      << g_last.text;
}

// The shared object exports the public interface, all of it and nothing else.
TEST(Abi, ExportsThePublicInterface) {
  // The public header, read back: every identifier declared MP4REC_API.
  // The header's declarations, its preprocessor lines left out.
  std::ifstream header(MP4REC_HEADER_FILE);
  std::string src, line;
  while (std::getline(header, line))
    if (line.rfind('#', 0) != 0) src += line + '\n';
  std::set<std::string> api;
  const std::regex decl(R"(MP4REC_API[^;(]*?\b(\w+)\s*(\(|\[|;))");
  for (std::sregex_iterator it(src.begin(), src.end(), decl), end; it != end; ++it)
    api.insert((*it)[1]);
  ASSERT_GT(api.size(), 90u);

  FILE *p = popen("'" MP4REC_NM "' -D --defined-only '" MP4REC_LIBRARY_FILE "'", "r");
  ASSERT_NE(p, nullptr);
  char out[512];
  std::set<std::string> exported;
  while (std::fgets(out, sizeof out, p) != nullptr) {
    std::istringstream fields(out);
    std::string addr, kind, name;
    fields >> addr >> kind >> name;
    if (name.empty()) continue;                      // version nodes
    if (name.rfind("__odr_asan", 0) == 0) continue;  // AddressSanitizer's own markers
    exported.insert(name);
    EXPECT_TRUE(api.count(name)) << "exported but not public: " << name;
  }
  pclose(p);
  for (const std::string &name : api) EXPECT_TRUE(exported.count(name)) << "not exported: " << name;
}

// The layer II tables a host links against hold the standard values.
TEST(Abi, Mp2Tables) {
  const struct {
    long value, standard;
  } known[] = {{ff_log2_tab[1], 0},     {ff_log2_tab[128], 7},      {ff_log2_tab[255], 7},
               {mpa_enwindow[64], 213}, {mpa_enwindow[256], 75038}, {quant_steps[16], 65535},
               {quant_bits[3], -10},    {alloc_tables[0][2], 2},    {alloc_tables[4][15], 14}};
  for (size_t i = 0; i < std::size(known); ++i) EXPECT_EQ(known[i].value, known[i].standard) << i;
  // Walked over its subbands (per subband the field width, then one class
  // below 17 per non-zero allocation), each allocation table has its size.
  const int subbands[5] = {27, 30, 8, 12, 30}, bytes[5] = {288, 300, 80, 112, 196};
  for (int t = 0; t < 5; ++t) {
    ASSERT_EQ(sblimit_table[t], subbands[t]);
    int pos = 0;
    for (int sb = 0; sb < subbands[t]; ++sb) {
      const int bits = alloc_tables[t][pos];
      ASSERT_TRUE(bits >= 2 && bits <= 4) << t << " " << sb;
      for (int a = 1; a < 1 << bits; ++a) EXPECT_LT(alloc_tables[t][pos + a], 17);
      pos += 1 << bits;
    }
    EXPECT_EQ(pos, bytes[t]) << t;
  }
}

}  // namespace
