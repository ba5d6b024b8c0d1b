// The MP4 handle's sample lists and its release.
#include "mp4/handle.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <ctime>
#include <new>
#include <type_traits>

#include "buffer/data_buffer.h"

extern "C" {
std::atomic<int32_t> videoPreallocFlag{0};
std::atomic<int32_t> audioPreallocFlag{0};
std::atomic<int32_t> audioTimeStampFlag{0};
}

namespace mp4rec {

namespace {
// A handle and its extra fields in one allocation, the record first.
struct HandleBlock {
  mp4_handle handle;
  HandleExtra extra;
};
static_assert(std::is_standard_layout_v<HandleBlock> && offsetof(HandleBlock, handle) == 0);
}  // namespace

mp4_handle *handle_alloc() {
  void *mem = std::calloc(1, sizeof(HandleBlock));
  return mem == nullptr ? nullptr : &(new (mem) HandleBlock())->handle;
}

HandleExtra &extra(mp4_handle *h) {
  return reinterpret_cast<HandleBlock *>(h)->extra;
}
const HandleExtra &extra(const mp4_handle *h) {
  return reinterpret_cast<const HandleBlock *>(h)->extra;
}

void handle_append_video(mp4_handle *h, videoNode *node) {
  list_append(h->videoHead, h->videoTail, node);
  h->videoCount.fetch_add(1, std::memory_order_relaxed);
}

void handle_append_audio(mp4_handle *h, audioNode *node) {
  list_append(h->audioHead, h->audioTail, node);
  h->audioCount.fetch_add(1, std::memory_order_relaxed);
}

uint32_t creation_time(uint32_t epoch_offset) {
  int64_t unix_time = std::time(nullptr);
  if (const char *fixed = std::getenv("SOURCE_DATE_EPOCH"); fixed != nullptr && *fixed != '\0') {
    char *end = nullptr;
    errno = 0;
    const long long v = std::strtoll(fixed, &end, 10);
    if (errno == 0 && *end == '\0' && v >= 0) {
      unix_time = v;
    } else {
      MP4_ERR("SOURCE_DATE_EPOCH is not a number of seconds: %s\n", fixed);
    }
  }
  const int64_t t = unix_time + epoch_offset;
  if (t < 0 || t > int64_t{UINT32_MAX}) {
    MP4_ERR(
        "creation time out of the file's 32-bit range, the nearest second it holds is written\n");
    return t < 0 ? 0 : UINT32_MAX;
  }
  return static_cast<uint32_t>(t);
}

}  // namespace mp4rec

extern "C" void free_mp4_h264(mp4_handle *h) {
  if (h == nullptr) return;
  // A file bound to a data buffer lets go of it first. If the writer thread is
  // still inside a card write of this file after the bound, the handle stays
  // allocated (and its file open) for that thread.
  if (h->dataBuffer != nullptr && !mp4rec::unbind_handle(h->dataBuffer, h)) {
    mp4rec::abandon(h, __func__,
                    "mp4 close : a card write of this file has not returned, the file is left "
                    "open\n");
    return;
  }
  mp4rec::forget_once(h);
  if (h->file != nullptr) {
    mp4_fclose(h->file);
    h->file = nullptr;
  }
  if (h->mp2File != nullptr) {
    mp4_fclose(h->mp2File);
    h->mp2File = nullptr;
  }
  std::free(h->sps);
  h->sps = nullptr;
  std::free(h->pps);
  h->pps = nullptr;
  std::free(mp4rec::extra(h).vps);
  mp4rec::extra(h).vps = nullptr;
  mp4rec::list_free(h->videoHead, h->videoTail);
  if (h->updatePos != nullptr) {
    std::free(h->updatePos->videoPos);
    h->updatePos->videoPos = nullptr;
    std::free(h->updatePos->audioPos);
    h->updatePos->audioPos = nullptr;
    std::free(h->updatePos);
    h->updatePos = nullptr;
  }
  mp4rec::list_free(h->audioHead, h->audioTail);
  MP2_encode_close(h->mp2Encoder);
  h->mp2Encoder = nullptr;
  std::free(h);
}

extern "C" int free_mp4(void *handle) {
  if (handle == nullptr) return -1;
  free_mp4_h264(static_cast<mp4_handle *>(handle));
  return 0;
}
