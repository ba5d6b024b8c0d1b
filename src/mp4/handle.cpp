// The MP4 handle's sample lists and its release.
#include "mp4/handle.h"

#include <cstdlib>
#include <new>

extern "C" {
std::atomic<int32_t> videoPreallocFlag{0};
std::atomic<int32_t> audioPreallocFlag{0};
std::atomic<int32_t> audioTimeStampFlag{0};
}

namespace mp4rec {

mp4_handle *handle_alloc() {
  void *mem = std::calloc(1, sizeof(mp4_handle));
  return mem == nullptr ? nullptr : new (mem) mp4_handle();
}

void handle_append_video(mp4_handle *h, videoNode *node) {
  list_append(h->videoHead, h->videoTail, node);
  h->videoCount.fetch_add(1, std::memory_order_relaxed);
}

void handle_append_audio(mp4_handle *h, audioNode *node) {
  list_append(h->audioHead, h->audioTail, node);
  h->audioCount.fetch_add(1, std::memory_order_relaxed);
}

}  // namespace mp4rec

extern "C" void free_mp4_h264(mp4_handle *h) {
  if (h == nullptr) return;
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

extern "C" int free_mp4(void *mp4_handle) {
  if (mp4_handle == nullptr) return -1;
  free_mp4_h264(static_cast<struct mp4_handle *>(mp4_handle));
  return 0;
}
