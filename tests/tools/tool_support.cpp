#include "tool_support.h"

#include <unistd.h>

#include <filesystem>
#include <stdexcept>

namespace tooltest {

std::string ffmpeg_mp4(bool faststart) {
  const std::string video = testsupport::h264_stream(320, 240, 15, 4, 15);
  const std::string audio = testsupport::aac_stream(16000, 4);
  const std::string out = std::filesystem::path(video).parent_path().string() + "/muxed_" +
                          (faststart ? "faststart" : "default") + ".mp4";
  if (std::filesystem::exists(out)) return out;
  const std::string tmp = out + ".tmp" + std::to_string(::getpid()) + ".mp4";
  const auto r = testsupport::run_command(
      "ffmpeg -nostdin -hide_banner -loglevel error -y -r 15 -i '" + video + "' -i '" + audio +
      "' -c copy " + (faststart ? "-movflags +faststart " : "") + "'" + tmp + "'");
  if (r.status != 0) throw std::runtime_error("ffmpeg mux failed: " + r.output);
  std::filesystem::rename(tmp, out);
  return out;
}

testsupport::CommandResult run_tool(const std::string &args, const std::string &env) {
  return testsupport::run_command(env + (env.empty() ? "" : " ") + kTool + " " + args);
}

void truncate_copy(const std::string &from, const std::string &to, size_t n) {
  auto bytes = testsupport::read_file(from);
  if (n < bytes.size()) bytes.resize(n);
  testsupport::write_file(to, bytes);
}

}  // namespace tooltest
