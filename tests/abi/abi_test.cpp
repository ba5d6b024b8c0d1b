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

// Every name the shared object exports is a name of the public interface.
TEST(Abi, ExportsOnlyThePublicInterface) {
  // The public header, read back: every identifier declared MP4REC_API.
  std::ifstream header(MP4REC_HEADER_FILE);
  std::stringstream text;
  text << header.rdbuf();
  std::set<std::string> api;
  const std::string src = text.str();
  const std::regex decl(R"(MP4REC_API[^;(]*?\b(\w+)\s*(\(|\[|;))");
  for (std::sregex_iterator it(src.begin(), src.end(), decl), end; it != end; ++it)
    api.insert((*it)[1]);
  ASSERT_GT(api.size(), 90u);

  FILE *p = popen("'" MP4REC_NM "' -D --defined-only '" MP4REC_LIBRARY_FILE "'", "r");
  ASSERT_NE(p, nullptr);
  char line[512];
  int exported = 0;
  while (std::fgets(line, sizeof line, p) != nullptr) {
    std::istringstream fields(line);
    std::string addr, kind, name;
    fields >> addr >> kind >> name;
    if (name.empty()) continue;                      // version nodes
    if (name.rfind("__odr_asan", 0) == 0) continue;  // AddressSanitizer's own markers
    ++exported;
    EXPECT_TRUE(api.count(name)) << "exported but not public: " << name;
  }
  pclose(p);
  EXPECT_GT(exported, 10);
}

}  // namespace
