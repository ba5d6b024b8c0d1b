#include "sample.h"

// The two files of tools/sample are pulled into the read-only data of the
// binary by the assembler, so the tool needs no files at run time. The start
// and end labels are global (hidden) symbols that the code reaches as any
// other global: a local label behind an extern declaration gets a wrong
// address in MIPS position-independent code (the linker warns "can't find
// matching LO16 reloc"). The size is their difference, a size_t everywhere.
#define MP4REC_INCBIN(name, file)                                                 \
  asm(".section .rodata\n"                                                        \
      ".balign 16\n"                                                              \
      ".globl mp4rec_" #name                                                      \
      "\n"                                                                        \
      ".hidden mp4rec_" #name                                                     \
      "\n"                                                                        \
      ".type mp4rec_" #name                                                       \
      ", @object\n"                                                               \
      "mp4rec_" #name                                                             \
      ":\n"                                                                       \
      ".incbin \"" file                                                           \
      "\"\n"                                                                      \
      ".globl mp4rec_" #name                                                      \
      "_end\n"                                                                    \
      ".hidden mp4rec_" #name                                                     \
      "_end\n"                                                                    \
      "mp4rec_" #name                                                             \
      "_end:\n"                                                                   \
      ".byte 0\n"                                                                 \
      ".previous\n");                                                             \
  extern "C" __attribute__((visibility("hidden"))) const uint8_t mp4rec_##name[]; \
  extern "C" __attribute__((visibility("hidden"))) const uint8_t mp4rec_##name##_end[];

MP4REC_INCBIN(sample_h264, MP4REC_SAMPLE_H264)
MP4REC_INCBIN(sample_aac, MP4REC_SAMPLE_AAC)

namespace mp4tool {

std::span<const uint8_t> sample_h264() {
  return {mp4rec_sample_h264, mp4rec_sample_h264_end};
}
std::span<const uint8_t> sample_aac() {
  return {mp4rec_sample_aac, mp4rec_sample_aac_end};
}

}  // namespace mp4tool
