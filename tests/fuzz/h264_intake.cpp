// The H.264 intake on a real file: the input is cut at its start codes as a
// host would, and every unit (with an AAC-sized frame between pictures) goes
// through the front end's intake. A released handle is replaced by a new
// file; every file is finished through the data buffer and its index. Built a
// second time with MP4REC_FUZZ_HEVC=1, the same for the H.265 intake.
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include "buffer/data_buffer.h"
#include "mp4/handle.h"
#include "mp4/head.h"
#include "mp4/hevc.h"
#include "mp4/intake.h"

namespace {

constexpr bool kHevc = MP4REC_FUZZ_HEVC;

const std::string &path(const char *ext) {
  static const std::string base = "/tmp/mp4rec-fuzz-intake-" + std::to_string(getpid());
  static const std::string mp4 = base + ".mp4", mp2 = base + ".mp2";
  return ext[1] == 'm' && ext[3] == '4' ? mp4 : mp2;
}

mp4_handle *new_file(mp4_data_buffer *data) {
  static mp4_stream_info info = [] {
    mp4_stream_info i{};
    i.record_duration = 2;
    i.video_prealloc = 1;
    i.audio_prealloc = 1;
    i.movie_time_scale = 1000;
    i.audio_sample_rate = 16000;
    i.video_frame_rate = 25;
    return i;
  }();
  mp4_handle *h = (kHevc ? mp4rec::mp4_write_head_h265_index : mp4_write_head_h264_index)(
      path(".mp4").c_str(), path(".mp2").c_str(), 160, 120, 3, &info);
  if (h == nullptr || mp4_set_data_buffer(h, data) != 0) std::abort();
  return h;
}

// The end of the unit that begins at `from`: the next 00 00 01 behind its own
// start code, or the 00 00 00 01 it belongs to, or the end of the stream.
size_t unit_end(const std::vector<uint8_t> &b, size_t from) {
  for (size_t i = from + 3; i + 3 <= b.size(); ++i) {
    if (b[i] == 0 && b[i + 1] == 0 && b[i + 2] == 1)
      return b[i - 1] == 0 && i - 1 > from ? i - 1 : i;
  }
  return b.size();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *bytes, size_t size) {
  static mp4_data_buffer *data =
      mp4_write_data_buffer_create(mp4rec::kVideoNodeBytes, mp4rec::kAudioNodeBytes);
  if (size > 1 << 20) return 0;
  const std::vector<uint8_t> stream(bytes, bytes + size);
  mp4_handle *h = new_file(data);
  // Units from one start code to the next; the bytes before the first go in too.
  int ts = 0;
  for (size_t from = 0; from < stream.size();) {
    const size_t to = unit_end(stream, from);
    std::vector<uint8_t> unit(stream.begin() + static_cast<long>(from),
                              stream.begin() + static_cast<long>(to));
    bool released = false;
    (kHevc ? mp4rec::write_one_h265 : mp4rec::write_one_h264)(
        unit.data(), static_cast<int>(unit.size()), ts, h, &released);
    if (released) {
      h = new_file(data);
    } else if (unit.size() > 4 && (unit.back() & 3) == 0) {
      std::vector<uint8_t> frame(unit.begin() + 4, unit.end());
      mp4_write_audio_frame_realtime(h, frame.data(), static_cast<int>(frame.size()), ts);
    }
    ts += 40;
    from = to;
  }
  mp4_sync_data_buffer(h);
  free_mp4_h264(h);
  return 0;
}
