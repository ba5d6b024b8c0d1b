#include "sample.h"

// The two files of tools/sample are pulled into the read-only data of the
// binary by the assembler, so the tool needs no files at run time.
#define MP4REC_INCBIN(name, file)                  \
  asm(".section .rodata\n"                         \
      ".balign 16\n"                               \
      ".type mp4rec_" #name                        \
      ", @object\n"                                \
      "mp4rec_" #name                              \
      ":\n"                                        \
      ".incbin \"" file                            \
      "\"\n"                                       \
      "mp4rec_" #name                              \
      "_end:\n"                                    \
      ".byte 0\n"                                  \
      ".balign 8\n"                                \
      "mp4rec_" #name                              \
      "_size:\n"                                   \
      ".quad mp4rec_" #name "_end - mp4rec_" #name \
      "\n"                                         \
      ".previous\n");                              \
  extern "C" const uint8_t mp4rec_##name[];        \
  extern "C" const uint64_t mp4rec_##name##_size;

MP4REC_INCBIN(sample_h264, MP4REC_SAMPLE_H264)
MP4REC_INCBIN(sample_aac, MP4REC_SAMPLE_AAC)

namespace mp4tool {

std::span<const uint8_t> sample_h264() {
  return {mp4rec_sample_h264, mp4rec_sample_h264_size};
}
std::span<const uint8_t> sample_aac() {
  return {mp4rec_sample_aac, mp4rec_sample_aac_size};
}

}  // namespace mp4tool
