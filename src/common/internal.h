// Internal declarations shared by every subsystem: the public API, logging
// helpers and the process-wide flags in their atomic form.
#pragma once

#define MP4REC_INTERNAL_FLAGS 1
#include <mp4rec/mp4rec.h>

#include <atomic>
#include <cstdint>

// The three flags are written by whichever thread makes a head (usually the
// pre-open thread) while another file may be recording, so they are relaxed
// atomics with the layout of a plain 32-bit word. Each file takes its own copy
// when its head is written and reads only that.
extern "C" {
MP4REC_API extern std::atomic<int32_t> videoPreallocFlag;
MP4REC_API extern std::atomic<int32_t> audioPreallocFlag;
MP4REC_API extern std::atomic<int32_t> audioTimeStampFlag;
}
static_assert(sizeof(std::atomic<int32_t>) == sizeof(int32_t));
static_assert(std::atomic<int32_t>::is_always_lock_free);

namespace mp4rec {

// The records hosts share with the library, in 32-bit words as the camera's
// 32-bit firmware lays them out (pointers are words there too).
static_assert(sizeof(mp4_stream_info) == 11 * 4);
inline constexpr bool kWords32 = sizeof(void *) == 4;
static_assert(!kWords32 || sizeof(videoNode) == 5 * 4);
static_assert(!kWords32 || sizeof(audioNode) == 4 * 4);
static_assert(!kWords32 || sizeof(updatePos) == 10 * 4);
static_assert(!kWords32 || sizeof(mp4_handler) == 2 * 4);
static_assert(!kWords32 || sizeof(mp4_bit_writer) == 5 * 4);
static_assert(!kWords32 || sizeof(mp4_session) == 3 * 4 + 2 * 256);
static_assert(!kWords32 || sizeof(mp4_base) == 4);

// Log modules: the recorder, and the audio readers / converters / buffer diagnostics.
inline constexpr int kModRecorder = 37;
inline constexpr int kModAudio = 38;

// Log levels.
inline constexpr int kLogError = 3;
inline constexpr int kLogFrames = 6;
inline constexpr int kLogProgress = 7;

// The largest file the writers make: positions go through mp4_ftell and
// mp4_fseek as signed 32-bit values, so every byte of a file (head, index and
// samples) lies below 2 GiB. A frame that would cross it is refused with -5.
inline constexpr uint64_t kMaxFileBytes = 0x7FFFFFFFu;

// Messages logged once per file, so that a refusal that repeats logs once.
enum LogOnce : uint32_t {
  kOnceFileFull = 1,
  kOnceAvcConfig = 2,
};
// True the first time it is asked for `what` on the file whose writer record
// (MP4 handle or MJPEG context) is `record`. The records keep their layout:
// what was logged is kept beside them until forget_once, when they are freed.
[[nodiscard]] bool first_time(const void *record, LogOnce what);
void forget_once(const void *record);

// Video formats of a pre-open request and of the handler it produces.
inline constexpr uint32_t kVideoJpeg = 1;  // JPEG pictures, MJPEG file with the index at the end
inline constexpr uint32_t kVideoH264 = 2;  // H.264, index reserved in front
inline constexpr uint32_t kVideoH265 = 3;  // H.265, index reserved in front

inline uint32_t relaxed(const std::atomic<uint32_t> &v) {
  return v.load(std::memory_order_relaxed);
}

}  // namespace mp4rec

// Logs through the host's swLogWrite with the calling function's name.
#define MP4_LOG(level, module, ...) swLogWrite((level), (module), __func__, __LINE__, __VA_ARGS__)
// Logs an error of the recorder module (level 3, module 37).
#define MP4_ERR(...) MP4_LOG(::mp4rec::kLogError, ::mp4rec::kModRecorder, __VA_ARGS__)
// Logs under an explicit function name (for messages that carry another routine's name).
#define MP4_LOG_AS(name, level, module, ...) \
  swLogWrite((level), (module), (name), __LINE__, __VA_ARGS__)
// Module-38 messages start "[%d] " with the source line as their first argument.
#define MP4_LOG38(level, fmt, ...)                                  \
  swLogWrite((level), ::mp4rec::kModAudio, __func__, __LINE__, fmt, \
             __LINE__ __VA_OPT__(, ) __VA_ARGS__)
