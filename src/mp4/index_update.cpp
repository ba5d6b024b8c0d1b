// In-place update of the reserved front index after every batch of samples
// that reaches the file. Each batch becomes one chunk: its entries are
// appended behind the tables' counts first, where no reader looks, then the
// counts are raised in the order readers need (durations and sizes before the
// chunk that claims them, the chunk before its stsc run), so that a cut
// after any single write leaves a valid file whose index describes only bytes
// already written. A track's first chunk is entered while its trak is still
// hidden; one word then makes the track appear.
#include "mp4/index_update.h"

#include <algorithm>
#include <initializer_list>
#include <span>
#include <vector>

#include "mp4/box.h"
#include "mp4/head.h"

namespace mp4rec {

using box::Sink;

namespace {

using box::Run;

// Every patch of the index is one positional write of a run gathered in
// memory: no seek, no stream flush, and the stream stays where the media
// goes on. A write the card refused stops the file's index (nothing more
// that readers see is written into it); the step it belongs to says so.
// 0, or -1 when the write failed; put_run returns the status or -1.
int32_t index_put(Sink &s, mp4_handle *h, const Run &run) {
  if (box::put_at(s, run) == 0) return 0;
  h->indexState |= kIndexStopped;
  return -1;
}
int32_t put_run(Sink &s, mp4_handle *h, const Run &run) {
  return index_put(s, h, run) == 0 ? s.status() : -1;
}

// The gather open on this thread, if any (see EntryGather).
thread_local EntryGather *t_gather = nullptr;

// Table entries (behind their counts): kept back while a gather for the
// handle is open, else written at once.
int32_t put_entries(Sink &s, mp4_handle *h, const uint32_t *table, Run &run) {
  if (t_gather == nullptr || !t_gather->keep(h, table == h->updatePos->videoPos ? 1 : 2, run))
    return put_run(s, h, run);
  return s.status();
}

int32_t patch_word(FILE *file, mp4_handle *h, uint32_t pos, uint32_t value) {
  Sink s{file, h->writeStatus};
  Run run(pos);
  run.u32(value);
  return put_run(s, h, run);
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

// Entries in a table from its count field to its next-entry offset.
uint32_t entries_of(const uint32_t *table, int count_slot, int next_slot, uint32_t entry_words) {
  return (table[next_slot] - table[count_slot] - 4) / 4 / entry_words;
}

// stts entries of either track: the previous batch's provisional entry is
// replaced by the real delta, each sample gets its own entry (count 1) and the
// newest one the provisional delta. `delta` turns two time stamps into a
// table delta; `written`, when given, adds up the real deltas written. The
// count is written later.
template <typename Node, typename Delta>
int32_t enter_stts(Sink &s, mp4_handle *h, uint32_t *table, int next_slot, Batch<Node> batch,
                   uint32_t &last_ts, Delta &&delta, uint32_t provisional,
                   uint32_t *written = nullptr) {
  Run run(table[next_slot] - 8);
  batch.each([&](const Node &n) {
    if (last_ts != kUnknownTs) {
      const uint32_t d = delta(n.timeStamp, last_ts);
      run.u32(1);
      run.u32(d);
      if (written != nullptr) *written += d;
    } else {
      run.skip(8);  // the track's very first sample (first in its batch): the next one writes it
    }
    last_ts = n.timeStamp;
  });
  run.u32(1);
  run.u32(provisional);
  table[next_slot] = run.end();
  return put_entries(s, h, table, run);
}

// One stsc entry per batch: (chunk number, samples in the batch, 1).
int32_t enter_stsc(Sink &s, mp4_handle *h, uint32_t *table, int counter_slot, int next_slot,
                   uint32_t samples) {
  Run run(table[next_slot]);
  run.u32(++table[counter_slot]);
  run.u32(samples);
  run.u32(1);
  table[next_slot] = run.end();
  return put_entries(s, h, table, run);
}

// One stco entry per batch: the batch's start in the file.
int32_t enter_stco(Sink &s, mp4_handle *h, uint32_t *table, int next_slot, uint32_t *chunk_offset,
                   uint32_t batch_bytes) {
  const uint32_t offset = h->updatePos->dataPos;
  h->updatePos->dataPos += batch_bytes;
  *chunk_offset = offset;
  Run run(table[next_slot]);
  run.u32(offset);
  table[next_slot] = run.end();
  return put_entries(s, h, table, run);
}

// One size per sample.
template <typename Node>
int32_t enter_stsz(Sink &s, mp4_handle *h, uint32_t *table, int next_slot, Batch<Node> batch) {
  Run run(table[next_slot]);
  batch.each([&](const Node &n) { run.u32(n.size); });
  table[next_slot] = run.end();
  return put_entries(s, h, table, run);
}

// ---- video tables -----------------------------------------------------------

int32_t mp4_write_stts_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         VideoBatch batch) {
  Sink s{file, h->writeStatus};
  return enter_stts(
      s, h, vpos, kVSttsNext, batch, h->updatePos->lastVideoTs,
      [](uint32_t ts, uint32_t last) { return ts - last; }, kDurationPadMs);
}

int32_t mp4_write_stss_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         VideoBatch batch) {
  if (batch.head == nullptr) {
    MP4_ERR("no video track\n");
    return -1;
  }
  Sink s{file, h->writeStatus};
  Run run(vpos[kVStssNext]);
  batch.each([&](const videoNode &n) {
    ++h->videoSampleNumber;
    if (n.type == 1) run.u32(h->videoSampleNumber);
  });
  vpos[kVStssNext] = run.end();
  return put_entries(s, h, vpos, run);
}

int32_t mp4_write_stsc_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         uint32_t samples) {
  Sink s{file, h->writeStatus};
  return enter_stsc(s, h, vpos, kVChunkCounter, kVStscNext, samples);
}

int32_t mp4_write_stsz_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         VideoBatch batch) {
  if (batch.head == nullptr) {
    MP4_ERR("no video track\n");
    return -1;
  }
  Sink s{file, h->writeStatus};
  return enter_stsz(s, h, vpos, kVStszNext, batch);
}

int32_t mp4_write_stco_tag_update_buffer(FILE *file, mp4_handle *h, uint32_t *vpos,
                                         uint32_t batch_bytes) {
  Sink s{file, h->writeStatus};
  return enter_stco(s, h, vpos, kVStcoNext, &vpos[kVChunkOffset], batch_bytes);
}

// ---- audio tables -----------------------------------------------------------

// Time-stamped audio also adds its real deltas up in kASttsDuration: the
// track's duration in its own time scale is that sum and the provisional one.
int32_t mp4_write_stts_tag_2_update_buffer(FILE *file, mp4_handle *h, uint32_t *apos,
                                           AudioBatch batch) {
  Sink s{file, h->writeStatus};
  // Without time stamps the one entry for all frames is a count, written with
  // the other counts.
  if (h->audioTimeStamps != 1) return s.status();
  const uint32_t rate = h->sampleRate;
  return enter_stts(
      s, h, apos, kASttsNext, batch, h->updatePos->lastAudioTs,
      [rate](uint32_t ts, uint32_t last) { return (ts - last) * rate / 1000; },
      rate * kDurationPadMs / 1000, &apos[kASttsDuration]);
}

int32_t mp4_write_stsc_tag_2_update_buffer(FILE *file, mp4_handle *h, uint32_t *apos,
                                           uint32_t samples) {
  Sink s{file, h->writeStatus};
  return enter_stsc(s, h, apos, kAChunkCounter, kAStscNext, samples);
}

int32_t mp4_write_stsz_tag_2_update_buffer(FILE *file, mp4_handle *h, uint32_t *apos,
                                           AudioBatch batch) {
  Sink s{file, h->writeStatus};
  return enter_stsz(s, h, apos, kAStszNext, batch);
}

int32_t mp4_write_stco_tag_2_update_buffer(FILE *file, mp4_handle *h, uint32_t *apos,
                                           uint32_t batch_bytes) {
  Sink s{file, h->writeStatus};
  return enter_stco(s, h, apos, kAStcoNext, &apos[kAChunkOffset], batch_bytes);
}

// ---- the two tracks -------------------------------------------------------

// The operation every message of the batch update is logged under.
constexpr const char *kUpdateName = "mp4_write_moov_update_buffer";

void raise_max_duration(mp4_handle *h, uint32_t d) {
  if (d > h->maxDuration) h->maxDuration = d;
}

// Runs one step: adds its result and logs `message` when the status is bad.
// Once a write of the file has failed, the words that readers see are no
// longer written (the step counts as failed and still logs): the file keeps
// the state of the last write that reached it, which the order of the writes
// makes a valid one.
#define INDEX_STEP(call, message)                                                       \
  do {                                                                                  \
    s.add(index_stopped(h) ? -1 : (call));                                              \
    if (h->writeStatus != 0) MP4_LOG_AS(kUpdateName, kLogError, kModRecorder, message); \
  } while (0)

// Writes words that readers see, unless a write of the file has failed.
void put_visible(Sink &s, mp4_handle *h, uint32_t pos, std::initializer_list<uint32_t> words) {
  if (index_stopped(h)) {
    s.add(-1);
    return;
  }
  Run run(pos);
  for (const uint32_t w : words) run.u32(w);
  put_run(s, h, run);
}

void enter_video(Sink &s, mp4_handle *h, VideoBatch batch, uint32_t batch_bytes, ChunkCounts &c) {
  FILE *file = s.file();
  updatePos *pos = h->updatePos;
  uint32_t *vpos = pos->videoPos;
  if (pos->firstVideoTs == kUnknownTs) pos->firstVideoTs = batch.head->timeStamp;
  c.duration = batch.tail->timeStamp - pos->firstVideoTs + kDurationPadMs;
  raise_max_duration(h, c.duration);
  INDEX_STEP(mp4_write_stsd_tag_update(file, h, vpos),
             "mp4 write index : write video stsd error\n");
  // The messages of the tables follow their counts (index_write_counts).
  s.add(mp4_write_stts_tag_update_buffer(file, h, vpos, batch));
  s.add(mp4_write_stss_tag_update_buffer(file, h, vpos, batch));
  s.add(mp4_write_stsc_tag_update_buffer(file, h, vpos, batch.size()));
  s.add(mp4_write_stsz_tag_update_buffer(file, h, vpos, batch));
  s.add(mp4_write_stco_tag_update_buffer(file, h, vpos, batch_bytes));
  c.times = entries_of(vpos, kVSttsCount, kVSttsNext, 2);
  c.sync_samples = entries_of(vpos, kVStssCount, kVStssNext, 1);
  c.samples = entries_of(vpos, kVStszCount, kVStszNext, 1);
  c.chunks = vpos[kVChunkCounter];
  c.run = batch.size();
}

void enter_audio(Sink &s, mp4_handle *h, AudioBatch batch, uint32_t batch_bytes, ChunkCounts &c) {
  FILE *file = s.file();
  updatePos *pos = h->updatePos;
  uint32_t *apos = pos->audioPos;
  s.add(mp4_write_stts_tag_2_update_buffer(file, h, apos, batch));
  s.add(mp4_write_stsc_tag_2_update_buffer(file, h, apos, batch.size()));
  s.add(mp4_write_stsz_tag_2_update_buffer(file, h, apos, batch));
  s.add(mp4_write_stco_tag_2_update_buffer(file, h, apos, batch_bytes));
  // Counts and durations follow the frames in the file, not those accepted.
  c.samples = entries_of(apos, kAStszCount, kAStszNext, 1);
  c.chunks = apos[kAChunkCounter];
  c.run = batch.size();
  if (h->audioTimeStamps != 1) {
    c.times = c.samples;
    c.duration = h->audioKHz != 0 ? c.samples * h->audioFrameSamples / h->audioKHz : 0;
    c.media_duration = c.samples * h->audioFrameSamples;
  } else {
    c.times = entries_of(apos, kASttsCount, kASttsNext, 2);
    c.media_duration = apos[kASttsDuration] + h->sampleRate * kDurationPadMs / 1000;
    if (pos->firstAudioTs == kUnknownTs) pos->firstAudioTs = batch.head->timeStamp;
    c.duration = batch.tail->timeStamp - pos->firstAudioTs + kDurationPadMs;
  }
  raise_max_duration(h, c.duration);
}

// One count word: the table's count field in its track's position table,
// logged with its message when it fails.
struct CountWord {
  int slot;
  const char *message;
};
constexpr CountWord kVideoStts{kVSttsCount, "mp4 write index : write video stts error\n"};
constexpr CountWord kVideoStsz{kVStszCount, "mp4 write index : write video stsz error\n"};
constexpr CountWord kVideoStco{kVStcoCount, "mp4 write index : write video stco error\n"};
constexpr CountWord kVideoStss{kVStssCount, "mp4 write index : write video stss error\n"};
constexpr CountWord kVideoStsc{kVStscCount, "mp4 write index : write video stsc error\n"};
constexpr CountWord kAudioStts{kASttsCount, "mp4 write index : write audio stts error\n"};
constexpr CountWord kAudioStsz{kAStszCount, "mp4 write index : write audio stsz error\n"};
constexpr CountWord kAudioStco{kAStcoCount, "mp4 write index : write audio stco error\n"};
constexpr CountWord kAudioStsc{kAStscCount, "mp4 write index : write audio stsc error\n"};

void write_word(Sink &s, mp4_handle *h, const CountWord &w, const ChunkCounts &c, uint32_t value) {
  const uint32_t *table = c.track == 1 ? h->updatePos->videoPos : h->updatePos->audioPos;
  INDEX_STEP(patch_word(s.file(), h, table[w.slot], value), w.message);
}

// Durations first: an edit list that ended before the newest samples would
// hide them from readers that honour it (and not from those that give up on
// the index), so the time of a chunk is declared before its samples are.
void write_durations(Sink &s, mp4_handle *h, const ChunkCounts &c) {
  FILE *file = s.file();
  uint32_t *vpos = h->updatePos->videoPos, *apos = h->updatePos->audioPos;
  if (c.track == 1) {
    INDEX_STEP(mp4_write_tkhd_tag_update(file, h, vpos, c.duration),
               "mp4 write index : write video thkd error\n");
    INDEX_STEP(mp4_write_edts_tag_update(file, h, vpos, c.duration),
               "mp4 write index : write video edts error\n");
    INDEX_STEP(mp4_write_mdhd_tag_update(file, h, vpos, c.duration),
               "mp4 write index : write video mdhd error\n");
  } else {
    INDEX_STEP(mp4_write_trak_tag_2_update(file, h, apos, c.duration),
               "mp4 write index : write audio thkd error\n");
    // The media duration is in the track's time scale (the sample rate).
    INDEX_STEP(mp4_write_mdhd_tag_2_update(file, h, apos, c.media_duration),
               "mp4 write index : write audio mdhd error\n");
  }
  put_visible(s, h, h->updatePos->mvhdDurationPos, {c.movie_duration});
}

void write_samples(Sink &s, mp4_handle *h, const ChunkCounts &c) {
  // mdat covers the chunk's bytes before any table points at them.
  put_visible(s, h, h->mdatPos, {c.data_end - h->mdatPos});
  write_durations(s, h, c);
  if (c.track == 1) {
    write_word(s, h, kVideoStts, c, c.times);
    write_word(s, h, kVideoStsz, c, c.samples);
    return;
  }
  if (h->audioTimeStamps == 1) {
    write_word(s, h, kAudioStts, c, c.times);
  } else {
    // One entry for all frames; its count follows the frames in the file.
    put_visible(s, h, h->updatePos->audioPos[kASttsCount] + 4, {c.times, h->audioFrameSamples});
    if (h->writeStatus != 0) MP4_LOG_AS(kUpdateName, kLogError, kModRecorder, kAudioStts.message);
  }
  write_word(s, h, kAudioStsz, c, c.samples);
}

void write_chunks(Sink &s, mp4_handle *h, const ChunkCounts &c) {
  write_word(s, h, c.track == 1 ? kVideoStco : kAudioStco, c, c.chunks);
  // A sync-sample table may lag the samples, never lead them.
  if (c.track == 1) write_word(s, h, kVideoStss, c, c.sync_samples);
}

void write_runs(Sink &s, mp4_handle *h, const ChunkCounts &c) {
  write_word(s, h, c.track == 1 ? kVideoStsc : kAudioStsc, c, c.chunks);
}

#undef INDEX_STEP

}  // namespace

EntryGather::EntryGather(mp4_handle *h) : h_(h), outer_(t_gather) {
  t_gather = this;
}

EntryGather::~EntryGather() {
  flush();
  t_gather = outer_;
}

bool EntryGather::keep(const mp4_handle *h, int track, box::Run &run) {
  if (h != h_) return false;
  if (run.empty()) return true;
  for (Kept &k : kept_) {
    // The run continues this one, or rewrites its last entries (stts).
    if (run.at() >= k.run.at() && run.at() <= k.run.end()) {
      k.run.truncate(run.at() - k.run.at());
      k.run.bytes(run.data());
      return true;
    }
  }
  kept_.push_back({track, std::move(run)});
  return true;
}

int EntryGather::flush() {
  std::sort(kept_.begin(), kept_.end(),
            [](const Kept &a, const Kept &b) { return a.run.at() < b.run.at(); });
  int failed = 0;
  Sink s{h_->file, h_->writeStatus};
  for (const Kept &k : kept_)
    if (put_run(s, h_, k.run) < 0 && failed == 0) failed = k.track;
  kept_.clear();
  return failed;
}

int32_t mp4_write_tkhd_tag_update(FILE *file, mp4_handle *h, uint32_t *vpos, uint32_t duration) {
  return patch_word(file, h, vpos[kVTkhdDuration], duration);
}
int32_t mp4_write_edts_tag_update(FILE *file, mp4_handle *h, uint32_t *vpos, uint32_t duration) {
  return patch_word(file, h, vpos[kVElstDuration], duration);
}
int32_t mp4_write_mdhd_tag_update(FILE *file, mp4_handle *h, uint32_t *vpos, uint32_t duration) {
  return patch_word(file, h, vpos[kVMdhdDuration], duration);
}
int32_t mp4_write_trak_tag_2_update(FILE *file, mp4_handle *h, uint32_t *apos, uint32_t duration) {
  return patch_word(file, h, apos[kATkhdDuration], duration);
}
int32_t mp4_write_mdhd_tag_2_update(FILE *file, mp4_handle *h, uint32_t *apos, uint32_t duration) {
  return patch_word(file, h, apos[kAMdhdDuration], duration);
}

int32_t mp4_write_stsd_tag_update(FILE *file, mp4_handle *h, uint32_t *vpos) {
  if (vpos[kVAvcCDataEnd] != vpos[kVAvcCDataPos]) return 0;
  const auto record = full_config(h);
  if (record.empty()) return 0;
  if (record.size() > kAvcCReserve) {
    if (first_time(h, kOnceAvcConfig))
      MP4_ERR(extra(h).videoCodec == kVideoH265
                  ? "mp4 write index : vps, sps and pps do not fit the reserved hvcC\n"
                  : "mp4 write index : sps and pps do not fit the reserved avcC\n");
    return -1;
  }
  // The new configuration box (header, record, padding) and the header of the
  // free box behind it, as they will stand in the file.
  std::vector<uint8_t> image(8);
  auto put32 = [&image](size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) image[at + i] = static_cast<uint8_t>(v >> (24 - 8 * i));
  };
  const uint32_t content = avcc_content_size(static_cast<uint32_t>(record.size()));
  image.insert(image.end(), record.begin(), record.end());
  image.resize(8 + content);  // zero padding, if any
  put32(0, 8 + content);
  std::copy_n(config_box(extra(h).videoCodec), 4, image.begin() + 4);
  if (content < kAvcCReserve) {
    image.resize(8 + content + 8);
    put32(8 + content, kAvcCReserve - content);
    std::copy_n("free", 4, image.begin() + 8 + content + 4);
  }
  // Everything behind the old free box's header lies inside that box and is
  // written first; then one write of the box header, the record's first bytes
  // and whatever stands over the old free header turns the old layout into
  // the new one, so the entry parses at every moment.
  const size_t old_layout = 8 + empty_config(extra(h).videoCodec).size() + 8;
  const size_t first = std::min(image.size(), old_layout);
  Sink s{file, h->writeStatus};
  Run inside(vpos[kVAvcC] + static_cast<uint32_t>(first));
  inside.bytes(std::span(image).subspan(first));
  if (put_run(s, h, inside) < 0) return -1;
  Run over(vpos[kVAvcC]);
  over.bytes(std::span(image).first(first));
  if (put_run(s, h, over) < 0) return -1;
  vpos[kVAvcCDataEnd] = vpos[kVAvcCDataPos] + content;
  return s.status();
}

bool patch_mvhd_duration(FILE *file, mp4_handle *h) {
  Sink s{file, h->writeStatus};
  Run run(h->updatePos->mvhdDurationPos);
  run.u32(h->maxDuration);
  return index_put(s, h, run) == 0;
}

bool patch_mdat_size(FILE *file, mp4_handle *h) {
  Sink s{file, h->writeStatus};
  Run run(h->mdatPos);
  run.u32(relaxed(h->mediaBytes) + 8);
  return index_put(s, h, run) == 0;
}

int32_t index_enter_chunk(FILE *file, mp4_handle *h, int track, void *head, void *tail,
                          uint32_t batch_bytes, ChunkCounts &out) {
  Sink s{file, h->writeStatus};
  out = ChunkCounts{};
  out.track = track;
  if (track == 1) {
    enter_video(s, h, {static_cast<videoNode *>(head), static_cast<videoNode *>(tail)}, batch_bytes,
                out);
  } else {
    enter_audio(s, h, {static_cast<audioNode *>(head), static_cast<audioNode *>(tail)}, batch_bytes,
                out);
  }
  out.data_end = h->updatePos->dataPos;
  out.movie_duration = h->maxDuration;
  return h->writeStatus;
}

int32_t index_write_counts(FILE *file, mp4_handle *h, const ChunkCounts &c, CountGroup group) {
  Sink s{file, h->writeStatus};
  switch (group) {
    case CountGroup::kSamples:
      write_samples(s, h, c);
      break;
    case CountGroup::kChunks:
      write_chunks(s, h, c);
      break;
    case CountGroup::kRuns:
      write_runs(s, h, c);
      break;
  }
  return h->writeStatus;
}

bool index_stopped(mp4_handle *h) {
  if ((h->indexState & kIndexStopped) == 0 && h->file != nullptr && std::ferror(h->file) != 0)
    h->indexState |= kIndexStopped;
  return (h->indexState & kIndexStopped) != 0;
}

int32_t index_reveal_track(FILE *file, mp4_handle *h, int track) {
  const uint32_t bit = track == 1 ? kHiddenVideo : kHiddenAudio;
  if ((h->indexState & bit) == 0) return h->writeStatus;
  const uint32_t trak =
      track == 1 ? h->updatePos->videoPos[kVTrak] : h->updatePos->audioPos[kATrak];
  Sink s{file, h->writeStatus};
  if (index_stopped(h)) return s.add(-1);
  Run run(trak + 4);
  run.tag("trak");
  if (index_put(s, h, run) == 0) h->indexState &= ~bit;
  return s.status();
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
  // Every patch is a positional write: the stream stays where the media goes on.
  if (track == 1 || track == 2) {
    // One chunk, its steps back to back: after every single write the file is
    // a valid MP4 whose index describes only bytes already written.
    ChunkCounts c;
    index_enter_chunk(file, handle, track, head, tail, batch_bytes, c);
    for (CountGroup g : {CountGroup::kSamples, CountGroup::kChunks, CountGroup::kRuns})
      index_write_counts(file, handle, c, g);
    index_reveal_track(file, handle, track);
  } else if (!patch_mdat_size(file, handle) || !patch_mvhd_duration(file, handle)) {
    MP4_ERR("mp4 write index : mp4_fseek error\n");
    s.add(-1);
  }
  return handle->writeStatus;
}
