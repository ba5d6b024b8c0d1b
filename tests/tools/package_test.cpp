// The installed package as another project uses it, and the README's host
// program kept equal to examples/host.c.
#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "support/media.h"
#include "tool_support.h"

namespace {

namespace fs = std::filesystem;
using testsupport::run_command;

std::string text_of(const std::string &path) {
  const auto b = testsupport::read_file(path);
  return {b.begin(), b.end()};
}

TEST(Package, ReadmeShowsTheExampleHost) {
  const std::string readme = text_of(MP4REC_SOURCE_DIR "/README.md");
  const std::string host = text_of(MP4REC_SOURCE_DIR "/examples/host.c");
  EXPECT_NE(readme.find("```c\n" + host + "```"), std::string::npos)
      << "README.md's C block differs from examples/host.c";
  EXPECT_NE(readme.find("./scripts/test.sh"), std::string::npos);
}

TEST(Package, InstalledLibraryBuildsTheHostBothWays) {
  if (MP4REC_SANITIZED) GTEST_SKIP() << "the installed library is built with sanitizers";
  testsupport::TempDir dir;
  const std::string prefix = dir.file("prefix");
  auto r = run_command("cmake --install '" MP4REC_BINARY_DIR "' --prefix '" + prefix + "'");
  ASSERT_EQ(r.status, 0) << r.output;
  std::string libdir;
  for (const auto &e : fs::recursive_directory_iterator(prefix))
    if (e.path().filename() == "libmp4rec.so") libdir = e.path().parent_path().string();
  ASSERT_FALSE(libdir.empty());
  ASSERT_TRUE(fs::exists(libdir + "/pkgconfig/mp4rec.pc"));
  const std::string sample = MP4REC_SOURCE_DIR "/tools/sample/sample";

  // pkg-config, with the compiler of this build (the target's in a cross build)
  r = run_command("PKG_CONFIG_PATH='" + libdir +
                  "/pkgconfig' sh -c '" MP4REC_C_COMPILER " " MP4REC_SOURCE_DIR
                  "/examples/host.c $(pkg-config --cflags --libs mp4rec) -Wl,-rpath," +
                  libdir + " -o " + dir.file("host_pc") + "'");
  ASSERT_EQ(r.status, 0) << r.output;
  r = run_command(MP4REC_LAUNCHER "'" + dir.file("host_pc") + "' '" + dir.file("pc.mp4") + "' " +
                  sample + ".h264 " + sample + ".aac");
  ASSERT_EQ(r.status, 0) << r.output;
  EXPECT_EQ(testsupport::ffmpeg_decode_errors(dir.file("pc.mp4")), "");

  // CMake; a cross build hands its toolchain file on, with the prefix as a
  // root of the target's files
  const std::string src = dir.file("consumer");
  fs::create_directories(src);
  fs::copy_file(MP4REC_SOURCE_DIR "/examples/host.c", src + "/host.c");
  const std::string cml =
      "cmake_minimum_required(VERSION 3.16)\nproject(consumer C CXX)\n"
      "find_package(mp4rec REQUIRED)\nadd_executable(host host.c)\n"
      "target_link_libraries(host PRIVATE mp4rec::mp4rec)\n";
  testsupport::write_file(src + "/CMakeLists.txt", std::vector<uint8_t>(cml.begin(), cml.end()));
  const std::string cross = *MP4REC_TOOLCHAIN_FILE
                                ? " -DCMAKE_TOOLCHAIN_FILE='" MP4REC_TOOLCHAIN_FILE
                                  "' -DCMAKE_FIND_ROOT_PATH='" +
                                      prefix + "'"
                                : "";
  r = run_command("cmake -S '" + src + "' -B '" + src + "/build' -DCMAKE_PREFIX_PATH='" + prefix +
                  "'" + cross + " >/dev/null && cmake --build '" + src + "/build'");
  ASSERT_EQ(r.status, 0) << r.output;
  r = run_command(MP4REC_LAUNCHER "'" + src + "/build/host' '" + dir.file("cm.mp4") + "' " +
                  sample + ".h264 " + sample + ".aac");
  ASSERT_EQ(r.status, 0) << r.output;

  // The installed tool finds its library.
  r = run_command(MP4REC_LAUNCHER "'" + prefix + "/bin/mp4rec' inspect -q '" + dir.file("cm.mp4") +
                  "'");
  EXPECT_EQ(r.status, 0) << r.output;
}

}  // namespace
