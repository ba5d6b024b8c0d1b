// Ending or repairing an H.264 file outside the normal close: a complete index
// written from the handle's own lists into the index area at the front of the
// file, the reserved front index brought up to date one sample at a time, and
// the abandon that leaves the file as it was last patched.
#include <cstdio>
#include <initializer_list>

#include "mp4/alt/at_end_boxes.h"
#include "mp4/handle.h"
#include "mp4/head.h"
#include "mp4/index_update.h"

namespace mp4rec {

namespace {

// The index area in front of the media: it ends 256 KiB behind the 32-byte
// ftyp, whatever the handle's capacities. What lies between the last child
// box and this offset belongs to moov: it becomes a free box, so that parsers
// walking moov skip it. Fewer than 8 bytes cannot hold a box: they become zero
// bytes behind the name of the user data's handler, inside udta.
constexpr uint32_t kIndexAreaEnd = 0x40020;

int32_t write_index_area(box::Sink &s, mp4_handle &h) {
  if (!s || h.moovPos == alt::kNoIndexArea) return -1;
  // Refuse rather than write the index over media data.
  if (h.mdatPos >= h.moovPos && h.mdatPos < kIndexAreaEnd) {
    MP4_ERR("mp4 add index : media data inside the index area\n");
    return -1;
  }
  if (h.moovPos >= kIndexAreaEnd || alt::moov_size(h) > kIndexAreaEnd - h.moovPos) {
    MP4_ERR("mp4 add index : index larger than its area\n");
    return -1;
  }
  s.add(mp4_fseek(s.file(), static_cast<int>(h.moovPos), SEEK_SET));
  {
    box::Scope moov(s, "moov");
    if (!moov.ok()) return -1;
    const uint32_t left = kIndexAreaEnd - h.moovPos - alt::moov_size(h);
    s.add(alt::write_moov_children(s, h, left < 8 ? left : 0));
    if (left >= 8) {
      s.u32(left);
      s.tag("free");
    }
    // To the end of the area (result not checked: the size patch reads the
    // position it reached).
    const int32_t here = s.tell();
    mp4_fseek(s.file(), static_cast<int>(kIndexAreaEnd) - here, SEEK_CUR);
    s.add(moov.close());
  }
  // The mdat size last, once the index in front describes every sample.
  return s.add(box::write_u32_at(s, h.mdatPos, relaxed(h.mediaBytes) + 8));
}

// One step of the per-sample update: skipped, counting as a failure, once an
// earlier write of the handle has failed.
template <typename Fn>
void step(box::Sink &s, Fn &&fn) {
  s.add(s.status() != 0 ? -1 : fn());
}

// Writes `words` at a table's next free entry and moves the entry on. Its
// count is raised afterwards (write_table_count), once the entries of every
// table are in place.
// Each patch is one positional write (see box::Run).
int32_t put_words(box::Sink &s, uint32_t pos, std::initializer_list<uint32_t> words) {
  box::Run run(pos);
  for (uint32_t w : words) run.u32(w);
  return box::put_at(s, run) == 0 ? s.status() : -1;
}

int32_t append_words(box::Sink &s, uint32_t *table, int next_slot,
                     std::initializer_list<uint32_t> words) {
  const uint32_t at = table[next_slot];
  table[next_slot] += 4 * static_cast<uint32_t>(words.size());
  return put_words(s, at, words);
}

// Writes a table's count: recomputed from its next free entry (entries of
// `entry_words` words), or `fixed_count` when given.
int32_t write_table_count(box::Sink &s, const uint32_t *table, int count_slot, int next_slot,
                          uint32_t entry_words, const uint32_t *fixed_count = nullptr) {
  const uint32_t count = fixed_count != nullptr
                             ? *fixed_count
                             : (table[next_slot] - table[count_slot] - 4) / 4 / entry_words;
  return put_words(s, table[count_slot], {count});
}

// Every sample is its own chunk: stsc becomes the single run (1, 1, 1). The
// reserved table's count (one entry per possible chunk, all starting at
// chunk 1) would contradict stco's.
int32_t one_sample_per_chunk(box::Sink &s, uint32_t count_pos) {
  return put_words(s, count_pos, {1u, 1u, 1u, 1u});  // count, then the entry
}

void raise_max_duration(mp4_handle &h, uint32_t d) {
  if (d > h.maxDuration) h.maxDuration = d;
}

// One video sample: decoder configuration and one entry in each of stts,
// stss (IDR only), stsz and stco; then the durations (an edit list that ended
// before the new sample would hide it) and the counts in the order readers
// need them (sizes before the chunk that claims them, the chunk before its
// stsc run, the sync samples not before their samples). Every sample is its
// own chunk.
void update_video_sample(box::Sink &s, mp4_handle &h, uint32_t value, const videoNode &node) {
  FILE *file = s.file();
  updatePos &pos = *h.updatePos;
  uint32_t *v = pos.videoPos;
  ++h.videoSampleNumber;
  const uint32_t d = value + kDurationPadMs;
  raise_max_duration(h, d);
  step(s, [&] { return mp4_write_stsd_tag_update(file, &h, v); });
  // The previous time starts at all-ones, so the first delta is value + 1.
  const uint32_t delta = value - pos.lastVideoTs;
  pos.lastVideoTs = value;
  const bool idr = node.type == 1;
  step(s, [&] { return append_words(s, v, kVSttsNext, {1, delta}); });
  if (idr) step(s, [&] { return append_words(s, v, kVStssNext, {h.videoSampleNumber}); });
  step(s, [&] { return append_words(s, v, kVStszNext, {node.size}); });
  const uint32_t offset = pos.dataPos;
  v[kVChunkOffset] = offset;
  pos.dataPos += node.size;
  step(s, [&] { return append_words(s, v, kVStcoNext, {offset}); });
  step(s, [&] { return mp4_write_tkhd_tag_update(file, &h, v, d); });
  step(s, [&] { return mp4_write_edts_tag_update(file, &h, v, d); });
  step(s, [&] { return mp4_write_mdhd_tag_update(file, &h, v, d); });
  step(s, [&] { return write_table_count(s, v, kVSttsCount, kVSttsNext, 2); });
  step(s, [&] { return write_table_count(s, v, kVStszCount, kVStszNext, 1); });
  step(s, [&] { return write_table_count(s, v, kVStcoCount, kVStcoNext, 1); });
  if (idr) step(s, [&] { return write_table_count(s, v, kVStssCount, kVStssNext, 1); });
  step(s, [&] { return one_sample_per_chunk(s, v[kVStscCount]); });
}

// One audio frame: stts, and one entry in stsz and stco, whose counts follow
// the frames accepted, in the same order as a video sample's.
void update_audio_frame(box::Sink &s, mp4_handle &h, uint32_t value, uint32_t frame_size) {
  FILE *file = s.file();
  updatePos &pos = *h.updatePos;
  uint32_t *a = pos.audioPos;
  const bool stamped = h.audioTimeStamps == 1;
  const uint32_t frames = relaxed(h.audioCount);
  uint32_t d = value + kDurationPadMs;
  if (!stamped) d = h.audioKHz != 0 ? frames * h.audioFrameSamples / h.audioKHz : 0;
  std::printf("audioDuration:%d\n", static_cast<int>(d));
  raise_max_duration(h, d);
  // The stts delta of this frame, and the media duration in the track's time
  // scale: the sum of the deltas the table holds.
  const uint32_t delta = h.sampleRate * (value - pos.lastAudioTs) / 1000;
  if (stamped) {
    pos.lastAudioTs = value;
    a[kASttsDuration] += delta;
    step(s, [&] { return append_words(s, a, kASttsNext, {1, delta}); });
  }
  const uint32_t samples_duration = stamped ? a[kASttsDuration] : frames * h.audioFrameSamples;
  step(s, [&] { return append_words(s, a, kAStszNext, {frame_size}); });
  const uint32_t offset = pos.dataPos;
  a[kAChunkOffset] = offset;
  pos.dataPos += frame_size;
  step(s, [&] { return append_words(s, a, kAStcoNext, {offset}); });
  step(s, [&] { return mp4_write_trak_tag_2_update(file, &h, a, d); });
  step(s, [&] { return mp4_write_mdhd_tag_2_update(file, &h, a, samples_duration); });
  if (!stamped) {
    step(s, [&] { return put_words(s, a[kASttsCount] + 4, {frames, h.audioFrameSamples}); });
  } else {
    step(s, [&] { return write_table_count(s, a, kASttsCount, kASttsNext, 2); });
  }
  step(s, [&] { return write_table_count(s, a, kAStszCount, kAStszNext, 1, &frames); });
  step(s, [&] { return write_table_count(s, a, kAStcoCount, kAStcoNext, 1, &frames); });
  step(s, [&] { return one_sample_per_chunk(s, a[kAStscCount]); });
}

// Entries already in a reserved table, from its next free entry.
uint32_t table_entries(const uint32_t *table, int count_slot, int next_slot) {
  return (table[next_slot] - table[count_slot] - 4) / 4;
}

}  // namespace

}  // namespace mp4rec

extern "C" int mp4_write_add_index(mp4_handle *h) {
  if (h == nullptr || h->file == nullptr || h->videoHead == nullptr) {
    free_mp4_h264(h);
    return -1;
  }
  mp4rec::box::Sink s{h->file, h->writeStatus};
  s.add(mp4rec::write_index_area(s, *h));
  return mp4rec::alt::close_and_release(h);
}

extern "C" int mp4_write_moov_update(int kind, int value, videoNode *node, mp4_handle *h,
                                     int frame_size) {
  using namespace mp4rec;
  if (h == nullptr || (kind == 1 && node == nullptr) || h->updatePos == nullptr ||
      h->updatePos->videoPos == nullptr || h->updatePos->audioPos == nullptr ||
      h->file == nullptr) {
    return -1;
  }
  // The reserved tables cannot grow: a sample beyond them would be written
  // over the boxes that follow.
  const updatePos &pos = *h->updatePos;
  if ((kind == 1 && table_entries(pos.videoPos, kVStszCount, kVStszNext) >= h->maxVideoFrames) ||
      (kind == 2 && table_entries(pos.audioPos, kAStszCount, kAStszNext) >= h->maxAudioFrames)) {
    MP4_ERR("mp4 write index : frame number out of range\n");
    return -1;
  }
  FILE *file = h->file;
  if (!patch_mdat_size(file, h)) {
    std::printf("mp4_fseek error");
    return -1;
  }
  box::Sink s{file, h->writeStatus};
  if (kind == 1) {
    update_video_sample(s, *h, static_cast<uint32_t>(value), *node);
  } else if (kind == 2) {
    update_audio_frame(s, *h, static_cast<uint32_t>(value), static_cast<uint32_t>(frame_size));
  }
  step(s, [&] { return patch_mvhd_duration(file, h) ? s.status() : -1; });
  // A track's first sample makes its trak appear.
  if (kind == 1 || kind == 2) step(s, [&] { return index_reveal_track(file, h, kind); });
  return h->writeStatus;
}

// Nothing is written: the file keeps its mdat size and index as last patched.
// The patch-position record goes with the rest of the handle.
extern "C" int mp4_close_without_end(mp4_handle *h) {
  if (h == nullptr) return -1;
  free_mp4_h264(h);
  return 0;
}
