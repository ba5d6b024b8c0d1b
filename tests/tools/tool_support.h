// Helpers shared by the tool tests: files muxed by ffmpeg and the tool's binary.
#pragma once

#include <string>
#include <vector>

#include "support/media.h"

namespace tooltest {

// An MP4 of H.264 + AAC muxed by ffmpeg (`faststart`: index in front), cached.
std::string ffmpeg_mp4(bool faststart);

// Shell words that start the tool and the example host (a cross build starts
// them through the emulator).
inline const std::string kTool = MP4REC_LAUNCHER "'" MP4REC_TOOL "'";
inline const std::string kExampleHost = MP4REC_LAUNCHER "'" MP4REC_EXAMPLE_HOST "'";

// Runs the mp4rec binary with the arguments (shell words); stdout and stderr together.
testsupport::CommandResult run_tool(const std::string &args, const std::string &env = "");

// Bytes of a file, cut to `n`.
void truncate_copy(const std::string &from, const std::string &to, size_t n);

}  // namespace tooltest
