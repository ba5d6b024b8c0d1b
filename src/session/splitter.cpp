// The access-unit splitter: an encoder hands over an IDR access unit as one
// buffer (SPS, PPS, maybe SEI, then the slice; for H.265 the VPS in front and
// an IRAP slice); the writers take one NAL unit per call.
#include "session/splitter.h"

#include "mp4/hevc.h"

namespace {

constexpr int kNalTypeNonIdr = 1;

// A picture that is not a sync sample, by the first byte of its NAL header.
bool plain_picture(uint8_t header, uint32_t video_format) {
  if (video_format == mp4rec::kVideoH265) {
    const int type = mp4rec::hevc::nal_type(header);
    return mp4rec::hevc::is_picture(type) && !mp4rec::hevc::is_sync_picture(type);
  }
  return (header & 0x1F) == kNalTypeNonIdr;
}

bool start_code_at(const unsigned char *p) {
  return (p[0] == 0 && p[1] == 0 && p[2] == 1) ||
         (p[0] == 0 && p[1] == 0 && p[2] == 0 && p[3] == 1);
}

// A picture that is not a sync sample (an H.264 non-IDR slice) right at the
// start goes in whole, unscanned.
bool starts_with_plain_picture(const unsigned char *data, int length, uint32_t video_format) {
  const auto byte = [&](int i) { return i < length ? data[i] : 0; };
  if (byte(0) == 0 && byte(1) == 0 && byte(2) == 1) return plain_picture(byte(3), video_format);
  if (byte(0) == 0 && byte(1) == 0 && byte(2) == 0 && byte(3) == 1)
    return plain_picture(byte(4), video_format);
  return false;
}

}  // namespace

namespace mp4rec {

int split_access_unit(unsigned char *data, int length, int timestamp, mp4_handler *handler,
                      NalSink sink) {
  if (data == nullptr || length < 1 || timestamp < 0 || handler == nullptr) {
    MP4_LOG_AS("mp4_write_splite_sps_pps_i", kLogError, kModRecorder,
               "mp4 write video : param error\n");
    return -1;
  }
  if (starts_with_plain_picture(data, length, handler->video_format))
    return sink(data, length, timestamp, handler);

  // A start code that begins at limit - 3 or later is not seen: everything from
  // the last cut on goes as one piece. Each piece keeps its own start code and
  // is stamped one millisecond after the piece before it.
  const int limit = length > kSplitSearchWindow ? kSplitSearchWindow : length;
  int start = 0;
  int t = timestamp;
  for (int p = 3; p < limit - 3;) {
    if (!start_code_at(data + p)) {
      ++p;
      continue;
    }
    const int rc = sink(data + start, p - start, t, handler);
    ++t;
    if (rc != 0) {
      MP4_LOG_AS("mp4_write_splite_sps_pps_i", kLogError, kModRecorder,
                 "mp4 write video : mp4_write_video failed, return = %d\n", rc);
      return -1;
    }
    start = p;
    p += 4;
  }
  return sink(data + start, length - start, t, handler);
}

}  // namespace mp4rec

extern "C" MP4REC_API int mp4_write_splite_sps_pps_i(unsigned char *data, int length, int timestamp,
                                                     mp4_handler *handler) {
  return mp4rec::split_access_unit(data, length, timestamp, handler, mp4_write_video);
}
