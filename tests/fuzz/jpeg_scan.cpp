// The JPEG marker scan and the MJPEG picture call: a picture found lies inside
// the buffer between its markers; the call never reads outside it, and a file
// fed any input is finished (or released) cleanly.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <span>
#include <string>
#include <vector>

#include "mp4/alt/mjpeg.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  if (size > 1 << 20) return 0;
  const std::vector<uint8_t> buffer(bytes, bytes + size);
  const auto found = mp4rec::find_jpeg_picture(buffer);
  if (found.result == mp4rec::JpegScan::kPicture) {
    const auto &s = found.span;
    if (s.size < 4 || s.start + s.size > size || buffer[s.start] != 0xFF ||
        buffer[s.start + 1] != 0xD8 || buffer[s.start + s.size - 2] != 0xFF ||
        buffer[s.start + s.size - 1] != 0xD9)
      std::abort();
  }
  static const std::string base = "/tmp/mp4rec-fuzz-jpeg-" + std::to_string(getpid());
  mp4_mjpeg_ctx *ctx =
      mp4_write_head_jpeg((base + ".mp4").c_str(), (base + ".mp2").c_str(), 160, 120, 2);
  if (ctx == nullptr) std::abort();
  // The input goes in twice, as two pictures, then the file is finished.
  std::vector<uint8_t> copy = buffer;
  bool released = false;
  for (int ts = 0; ts <= 40 && !released; ts += 40)
    mp4rec::mjpeg_write_one(copy.empty() ? nullptr : copy.data(), static_cast<int>(copy.size()), ts,
                            ctx, &released);
  if (!released) mp4_write_end_jpeg(ctx);
  return 0;
}
