// In-place update of the reserved front index after every batch of samples
// that reaches the file: the batch's table entries are appended behind the
// previous ones, then counts, durations and the mdat size are patched. Entries
// are written before their count, so the file is a consistent MP4 after every
// batch.
#include "mp4/index_update.h"

#include <algorithm>
#include <span>
#include <vector>

#include "mp4/box.h"
#include "mp4/head.h"

namespace mp4rec {

using box::Sink;

namespace {

// Seeks to `pos`; logs under `name` when the seek fails.
bool seek_to(const char *name, FILE *file, uint32_t pos, int whence = SEEK_SET) {
  if (mp4_fseek(file, static_cast<int>(pos), whence) == 0) return true;
  MP4_LOG_AS(name, kLogError, kModRecorder, "mp4 write index : mp4_fseek error\n");
  return false;
}

// The current position; logs under `name` (as a failed seek) when unreadable.
bool tell_at(const char *name, FILE *file, uint32_t &pos) {
  const int32_t p = mp4_ftell(file);
  if (p >= 0) {
    pos = static_cast<uint32_t>(p);
    return true;
  }
  MP4_LOG_AS(name, kLogError, kModRecorder, "mp4 write index : mp4_fseek error\n");
  return false;
}

int32_t patch_word(const char *name, FILE *file, mp4_handle *h, uint32_t pos, uint32_t value) {
  if (!seek_to(name, file, pos)) return -1;
  Sink s{file, h->writeStatus};
  s.u32(value);
  return s.status();
}

// A batch of nodes from head to tail (inclusive), linked through next.
template <typename Node>
struct Batch {
  Node *head;
  Node *tail;

  template <typename Fn>
  void each(Fn &&fn) const {
    for (Node *n = head; n != nullptr; n = n->next) {
      fn(*n);
      if (n == tail) break;
    }
  }
  uint32_t size() const {
    uint32_t count = 0;
    each([&](const Node &) { ++count; });
    return count;
  }
};
using VideoBatch = Batch<videoNode>;
using AudioBatch = Batch<audioNode>;

// Recomputes a table's entry count from its next-entry offset and writes it.
int32_t write_count(const char *name, Sink &s, uint32_t count_pos, uint32_t next_pos,
                    uint32_t entry_words) {
  const uint32_t count = (next_pos - count_pos - 4) / 4 / entry_words;
  if (!seek_to(name, s.file(), count_pos)) return -1;
  s.u32(count);
  return s.status();
}

// stts of either track: the previous batch's provisional entry is replaced by
// the real delta, each sample gets its own entry (count 1) and the newest one
// the provisional delta. `delta` turns two time stamps into a table delta;
// `written`, when given, adds up the real deltas written.
template <typename Node, typename Delta>
int32_t update_stts(const char *name, Sink &s, uint32_t *table, int count_slot, int next_slot,
                    Batch<Node> batch, uint32_t &last_ts, Delta &&delta, uint32_t provisional,
                    uint32_t *written = nullptr) {
  FILE *file = s.file();
  if (!seek_to(name, file, table[next_slot] - 8)) return -1;
  bool ok = true;
  batch.each([&](const Node &n) {
    if (!ok) return;
    if (last_ts != kUnknownTs) {
      const uint32_t d = delta(n.timeStamp, last_ts);
      s.u32(1);
      s.u32(d);
      if (written != nullptr) *written += d;
    } else if (!seek_to(name, file, 8, SEEK_CUR)) {
      ok = false;  // the very first sample: its entry is written by the next one
    }
    last_ts = n.timeStamp;
  });
  if (!ok) return -1;
  s.u32(1);
  s.u32(provisional);
  if (!tell_at(name, file, table[next_slot])) return -1;
  return write_count(name, s, table[count_slot], table[next_slot], 2);
}

// One stsc entry per batch: (chunk number, samples in the batch, 1).
int32_t update_stsc(const char *name, Sink &s, uint32_t *table, int counter_slot, int count_slot,
                    int next_slot, uint32_t samples) {
  const uint32_t chunk = ++table[counter_slot];
  if (!seek_to(name, s.file(), table[next_slot])) return -1;
  s.u32(chunk);
  s.u32(samples);
  s.u32(1);
  if (!tell_at(name, s.file(), table[next_slot])) return -1;
  return write_count(name, s, table[count_slot], table[next_slot], 3);
}

// One stco entry per batch: the batch's start in the file.
int32_t update_stco(const char *name, Sink &s, mp4_handle *h, uint32_t *table, int count_slot,
                    int next_slot, uint32_t *chunk_offset, uint32_t batch_bytes) {
  const uint32_t offset = h->updatePos->dataPos;
  h->updatePos->dataPos += batch_bytes;
  if (chunk_offset != nullptr) *chunk_offset = offset;
  if (!seek_to(name, s.file(), table[next_slot])) return -1;
  s.u32(offset);
  if (!tell_at(name, s.file(), table[next_slot])) return -1;
  return write_count(name, s, table[count_slot], table[next_slot], 1);
}

// ---- video tables -----------------------------------------------------------

int32_t mp4_write_stts_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         VideoBatch batch) {
  Sink s{file, h->writeStatus};
  return update_stts(
      __func__, s, vpos, kVSttsCount, kVSttsNext, batch, h->updatePos->lastVideoTs,
      [](uint32_t ts, uint32_t last) { return ts - last; }, kDurationPadMs);
}

int32_t mp4_write_stss_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         VideoBatch batch) {
  if (batch.head == nullptr) {
    MP4_ERR("no video track\n");
    return -1;
  }
  Sink s{file, h->writeStatus};
  if (!seek_to(__func__, file, vpos[kVStssNext])) return -1;
  batch.each([&](const videoNode &n) {
    ++h->videoSampleNumber;
    if (n.type == 1) s.u32(h->videoSampleNumber);
  });
  if (!tell_at(__func__, file, vpos[kVStssNext])) return -1;
  return write_count(__func__, s, vpos[kVStssCount], vpos[kVStssNext], 1);
}

int32_t mp4_write_stsc_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         uint32_t samples) {
  Sink s{file, h->writeStatus};
  return update_stsc(__func__, s, vpos, kVChunkCounter, kVStscCount, kVStscNext, samples);
}

int32_t mp4_write_stsz_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         VideoBatch batch) {
  if (batch.head == nullptr) {
    MP4_ERR("no video track\n");
    return -1;
  }
  Sink s{file, h->writeStatus};
  if (!seek_to(__func__, file, vpos[kVStszNext])) return -1;
  batch.each([&](const videoNode &n) { s.u32(n.size); });
  if (!tell_at(__func__, file, vpos[kVStszNext])) return -1;
  return write_count(__func__, s, vpos[kVStszCount], vpos[kVStszNext], 1);
}

int32_t mp4_write_stco_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         uint32_t batch_bytes) {
  Sink s{file, h->writeStatus};
  return update_stco(__func__, s, h, vpos, kVStcoCount, kVStcoNext, &vpos[kVChunkOffset],
                     batch_bytes);
}

// ---- audio tables -----------------------------------------------------------

// Also gives the track's duration in its own time scale: the sum of the deltas
// the table holds once written.
int32_t mp4_write_stts_tag_2_update_buffer(FILE *file, mp4_handle *h, uint32_t *apos,
                                           AudioBatch batch, uint32_t &duration) {
  Sink s{file, h->writeStatus};
  if (audioTimeStampFlag.load(std::memory_order_relaxed) != 1) {
    // One entry for all frames; its count follows the frames accepted.
    const uint32_t frames = relaxed(h->audioCount);
    duration = frames * h->audioFrameSamples;
    if (!seek_to(__func__, file, apos[kASttsCount] + 4)) return -1;
    s.u32(frames);
    s.u32(h->audioFrameSamples);
    return s.status();
  }
  const uint32_t rate = h->sampleRate;
  const uint32_t provisional = rate * kDurationPadMs / 1000;
  const int32_t r = update_stts(
      __func__, s, apos, kASttsCount, kASttsNext, batch, h->updatePos->lastAudioTs,
      [rate](uint32_t ts, uint32_t last) { return (ts - last) * rate / 1000; }, provisional,
      &apos[kASttsDuration]);
  duration = apos[kASttsDuration] + provisional;
  return r;
}

int32_t mp4_write_stsc_tag_2_update_buffer(FILE *file, mp4_handle *h, uint32_t *apos,
                                           uint32_t samples) {
  Sink s{file, h->writeStatus};
  return update_stsc(__func__, s, apos, kAChunkCounter, kAStscCount, kAStscNext, samples);
}

int32_t mp4_write_stsz_tag_2_update_buffer(FILE *file, mp4_handle *h, uint32_t *apos,
                                           AudioBatch batch) {
  Sink s{file, h->writeStatus};
  if (!seek_to(__func__, file, apos[kAStszNext])) return -1;
  batch.each([&](const audioNode &n) { s.u32(n.size); });
  if (!tell_at(__func__, file, apos[kAStszNext])) return -1;
  // The count follows the frames accepted, which may run ahead of the entries.
  if (!seek_to(__func__, file, apos[kAStszCount])) return -1;
  s.u32(relaxed(h->audioCount));
  return s.status();
}

int32_t mp4_write_stco_tag_2_update_buffer(FILE *file, mp4_handle *h, uint32_t *apos,
                                           uint32_t batch_bytes) {
  Sink s{file, h->writeStatus};
  return update_stco(__func__, s, h, apos, kAStcoCount, kAStcoNext, &apos[kAChunkOffset],
                     batch_bytes);
}

// ---- the two tracks -------------------------------------------------------

void raise_max_duration(mp4_handle *h, uint32_t d) {
  if (d > h->maxDuration) h->maxDuration = d;
}

// Runs one step: adds its result and logs `message` when the status is bad.
#define INDEX_STEP(call, message)                                                \
  do {                                                                           \
    s.add(call);                                                                 \
    if (h->writeStatus != 0) MP4_LOG_AS(name, kLogError, kModRecorder, message); \
  } while (0)

void update_video(const char *name, Sink &s, mp4_handle *h, VideoBatch batch,
                  uint32_t batch_bytes) {
  FILE *file = s.file();
  updatePos *pos = h->updatePos;
  uint32_t *vpos = pos->videoPos;
  const uint32_t samples = batch.size();
  if (pos->firstVideoTs == kUnknownTs) pos->firstVideoTs = batch.head->timeStamp;
  const uint32_t d = batch.tail->timeStamp - pos->firstVideoTs + kDurationPadMs;
  raise_max_duration(h, d);
  INDEX_STEP(mp4_write_tkhd_tag_update(file, h, vpos, d),
             "mp4 write index : write video thkd error\n");
  INDEX_STEP(mp4_write_edts_tag_update(file, h, vpos, d),
             "mp4 write index : write video edts error\n");
  INDEX_STEP(mp4_write_mdhd_tag_update(file, h, vpos, d),
             "mp4 write index : write video mdhd error\n");
  INDEX_STEP(mp4_write_stsd_tag_update(file, h, vpos),
             "mp4 write index : write video stsd error\n");
  INDEX_STEP(mp4_write_stts_tag_update_buffer(file, h, vpos, batch),
             "mp4 write index : write video stts error\n");
  INDEX_STEP(mp4_write_stss_tag_update_buffer(file, h, vpos, batch),
             "mp4 write index : write video stss error\n");
  INDEX_STEP(mp4_write_stsc_tag_update_buffer(file, h, vpos, samples),
             "mp4 write index : write video stsc error\n");
  INDEX_STEP(mp4_write_stsz_tag_update_buffer(file, h, vpos, batch),
             "mp4 write index : write video stsz error\n");
  INDEX_STEP(mp4_write_stco_tag_update_buffer(file, h, vpos, batch_bytes),
             "mp4 write index : write video stco error\n");
}

void update_audio(const char *name, Sink &s, mp4_handle *h, AudioBatch batch,
                  uint32_t batch_bytes) {
  FILE *file = s.file();
  updatePos *pos = h->updatePos;
  uint32_t *apos = pos->audioPos;
  const uint32_t samples = batch.size();
  uint32_t d = 0;
  if (audioTimeStampFlag.load(std::memory_order_relaxed) != 1) {
    if (h->audioKHz != 0) d = relaxed(h->audioCount) * h->audioFrameSamples / h->audioKHz;
  } else {
    if (pos->firstAudioTs == kUnknownTs) pos->firstAudioTs = batch.head->timeStamp;
    d = batch.tail->timeStamp - pos->firstAudioTs + kDurationPadMs;
  }
  raise_max_duration(h, d);
  INDEX_STEP(mp4_write_trak_tag_2_update(file, h, apos, d),
             "mp4 write index : write audio thkd error\n");
  // The media duration is in the track's time scale (the sample rate): the sum
  // of the stts deltas, so the mdhd follows the table written just before.
  uint32_t samples_duration = 0;
  INDEX_STEP(mp4_write_stts_tag_2_update_buffer(file, h, apos, batch, samples_duration),
             "mp4 write index : write audio stts error\n");
  INDEX_STEP(mp4_write_mdhd_tag_2_update(file, h, apos, samples_duration),
             "mp4 write index : write audio mdhd error\n");
  INDEX_STEP(mp4_write_stsc_tag_2_update_buffer(file, h, apos, samples),
             "mp4 write index : write audio stsc error\n");
  INDEX_STEP(mp4_write_stsz_tag_2_update_buffer(file, h, apos, batch),
             "mp4 write index : write audio stsz error\n");
  INDEX_STEP(mp4_write_stco_tag_2_update_buffer(file, h, apos, batch_bytes),
             "mp4 write index : write audio stco error\n");
}

#undef INDEX_STEP

}  // namespace

int32_t mp4_write_tkhd_tag_update(FILE *file, mp4_handle *h, uint32_t *vpos, uint32_t duration) {
  return patch_word(__func__, file, h, vpos[kVTkhdDuration], duration);
}
int32_t mp4_write_edts_tag_update(FILE *file, mp4_handle *h, uint32_t *vpos, uint32_t duration) {
  return patch_word(__func__, file, h, vpos[kVElstDuration], duration);
}
int32_t mp4_write_mdhd_tag_update(FILE *file, mp4_handle *h, uint32_t *vpos, uint32_t duration) {
  return patch_word(__func__, file, h, vpos[kVMdhdDuration], duration);
}
int32_t mp4_write_trak_tag_2_update(FILE *file, mp4_handle *h, uint32_t *apos, uint32_t duration) {
  return patch_word(__func__, file, h, apos[kATkhdDuration], duration);
}
int32_t mp4_write_mdhd_tag_2_update(FILE *file, mp4_handle *h, uint32_t *apos, uint32_t duration) {
  return patch_word(__func__, file, h, apos[kAMdhdDuration], duration);
}

int32_t mp4_write_stsd_tag_update(FILE *file, mp4_handle *h, uint32_t *vpos) {
  if (vpos[kVAvcCDataEnd] != vpos[kVAvcCDataPos] || h->sps == nullptr || h->spsLen == 0 ||
      h->pps == nullptr || h->ppsLen == 0) {
    return 0;
  }
  if (box::avc_config_size(h->spsLen, h->ppsLen) > kAvcCReserve) {
    if (first_time(h, kOnceAvcConfig))
      MP4_ERR("mp4 write index : sps and pps do not fit the reserved avcC\n");
    return -1;
  }
  // The new avcC (header, record, padding) and the header of the free box
  // behind it, as they will stand in the file.
  std::vector<uint8_t> image(8);
  auto put32 = [&image](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) image[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
  };
  const auto record = box::avc_config({h->sps, h->spsLen}, {h->pps, h->ppsLen});
  const uint32_t content = avcc_content_size(static_cast<uint32_t>(record.size()));
  image.insert(image.end(), record.begin(), record.end());
  image.resize(8 + content);  // zero padding, if any
  put32(0, 8 + content);
  std::copy_n("avcC", 4, image.begin() + 4);
  if (content < kAvcCReserve) {
    image.resize(8 + content + 8);
    put32(8 + content, kAvcCReserve - content);
    std::copy_n("free", 4, image.begin() + 8 + content + 4);
  }
  // Everything behind the old free box's header lies inside that box and is
  // written first; then one write of the avcC header, the record's first bytes
  // and whatever stands over the old free header turns the old layout into
  // the new one, so the entry parses at every moment.
  const size_t old_layout = 8 + box::avc_config_size(0, 0) + 8;
  const size_t first = std::min(image.size(), old_layout);
  Sink s{file, h->writeStatus};
  if (image.size() > first) {
    if (!seek_to(__func__, file, vpos[kVAvcC] + static_cast<uint32_t>(first))) return -1;
    s.bytes(std::span(image).subspan(first));
  }
  if (!seek_to(__func__, file, vpos[kVAvcC])) return -1;
  s.bytes(std::span(image).first(first));
  vpos[kVAvcCDataEnd] = vpos[kVAvcCDataPos] + content;
  return s.status();
}

bool patch_mvhd_duration(FILE *file, mp4_handle *h) {
  if (mp4_fseek(file, static_cast<int>(h->updatePos->mvhdDurationPos), SEEK_SET) != 0) {
    return false;
  }
  Sink s{file, h->writeStatus};
  s.u32(h->maxDuration);
  return true;
}

bool patch_mdat_size(FILE *file, mp4_handle *h) {
  if (mp4_fseek(file, static_cast<int>(h->mdatPos), SEEK_SET) != 0) return false;
  Sink s{file, h->writeStatus};
  s.u32(relaxed(h->mediaBytes) + 8);
  return true;
}

}  // namespace mp4rec

using namespace mp4rec;

extern "C" int mp4_write_moov_update_buffer(int track, void *head, void *tail, mp4_handle *handle,
                                            unsigned int batch_bytes) {
  if (handle == nullptr) {
    MP4_ERR("mp4 write index : mov == NULL\n");
    return -1;
  }
  const updatePos *pos = handle->updatePos;
  if (head == nullptr || tail == nullptr || pos == nullptr || pos->videoPos == nullptr ||
      pos->audioPos == nullptr || handle->file == nullptr) {
    MP4_ERR("mp4 write index : param error\n");
    return -1;
  }
  FILE *file = handle->file;
  Sink s{file, handle->writeStatus};
  const int32_t resume = mp4_ftell(file);
  if (resume < 0 || !patch_mdat_size(file, handle)) {
    MP4_ERR("mp4 write index : mp4_fseek error\n");
    return -1;
  }
  if (track == 1) {
    update_video(__func__, s, handle,
                 {static_cast<videoNode *>(head), static_cast<videoNode *>(tail)}, batch_bytes);
  } else if (track == 2) {
    update_audio(__func__, s, handle,
                 {static_cast<audioNode *>(head), static_cast<audioNode *>(tail)}, batch_bytes);
  }
  if (!patch_mvhd_duration(file, handle)) {
    MP4_ERR("mp4 write index : mp4_fseek error\n");
    s.add(-1);
  }
  if (mp4_fseek(file, resume, SEEK_SET) != 0) {
    MP4_ERR("mp4 write index : mp4_fseek error\n");
    return -1;
  }
  return handle->writeStatus;
}
