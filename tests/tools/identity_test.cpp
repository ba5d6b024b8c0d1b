// A cross build's tool, run through the emulator, records the same bytes as a
// natively built tool from the same input: the target's word size and byte
// order leave no trace in the files. SOURCE_DATE_EPOCH fixes the creation time.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <string>
#include <vector>

#include "support/media.h"
#include "tool_support.h"

#ifdef MP4REC_HOST_TOOL  // defined in cross builds only

namespace {

namespace fs = std::filesystem;

// The files that one run leaves in `dir`, by name.
std::vector<std::string> names_in(const std::string &dir) {
  std::vector<std::string> out;
  for (const auto &e : fs::directory_iterator(dir)) out.push_back(e.path().filename().string());
  std::sort(out.begin(), out.end());
  return out;
}

TEST(OnTheTarget, RecordsTheSameBytesAsTheHost) {
  if (!*MP4REC_HOST_TOOL) GTEST_SKIP() << "no native tool to compare with (MP4REC_HOST_TOOL)";
  const std::string sample = MP4REC_SAMPLE_DIR "/sample";
  const std::string jpeg = testsupport::mjpeg_stream(320, 240, 10, 2);
  const std::string pcm = testsupport::pcm16_stream(16000, 2);
  const struct {
    const char *what;
    std::string args;
  } cases[] = {
      {"built-in sample, one file per 2 s", "--segment 2 -n 'seg-{n}.mp4'"},
      {"reserved tables as holes, audio time stamps",
       "'" + sample + ".h264' -a '" + sample + ".aac' --prealloc --audio-timestamps -n p.mp4"},
      {"MJPEG, 16-bit PCM to MP2", "--mjpeg '" + jpeg + "' -a '" + pcm + "' -n m16.mp4"},
      {"MJPEG, 8-bit PCM to MP2", "--mjpeg '" + jpeg + "' --pcm 8 -a '" + pcm + "' -n m8.mp4"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.what);
    testsupport::TempDir host, target;
    const std::string env = "SOURCE_DATE_EPOCH=1700000000";
    const auto h = testsupport::run_command(env + " '" MP4REC_HOST_TOOL "' record -q -o '" +
                                            host.path() + "' " + c.args);
    ASSERT_EQ(h.status, 0) << h.output;
    const auto t = tooltest::run_tool("record -q -o '" + target.path() + "' " + c.args, env);
    ASSERT_EQ(t.status, 0) << t.output;
    const auto names = names_in(host.path());
    ASSERT_FALSE(names.empty());
    ASSERT_EQ(names_in(target.path()), names);
    for (const auto &name : names) {
      const auto a = testsupport::read_file(host.file(name));
      const auto b = testsupport::read_file(target.file(name));
      const auto diff = std::mismatch(a.begin(), a.end(), b.begin(), b.end());
      EXPECT_TRUE(diff.first == a.end() && diff.second == b.end())
          << name << " differs at byte " << (diff.first - a.begin()) << " (" << a.size() << " and "
          << b.size() << " bytes)";
    }
  }
}

}  // namespace

#endif
