// The two ways the front-index road's index reaches the card (see
// durability.h), and the ordered commit of mode 1.
#include "buffer/durability.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "buffer/card.h"
#include "buffer/data_buffer.h"
#include "mp4/index_update.h"

namespace mp4rec {

namespace {

using Clock = std::chrono::steady_clock;

constexpr const char *kWriterName = "DataBuffer_fwrite";

void log_index_error(int track) {
  MP4_LOG_AS(kWriterName, kLogError, kModRecorder,
             track == 1 ? "write video index error\n" : "write audio index error\n");
}

// Mode 0: the node's index update right behind its bytes. False when the
// update of a file's index failed.
bool update_now(mp4_buffer_node *node, int media_type) {
  if (media_type != kMediaVideo && media_type != kMediaAudio) {
    MP4_LOG_AS(kWriterName, kLogError, kModRecorder, "data type error\n");
    return true;
  }
  const bool video = media_type == kMediaVideo;
  const int r = video ? mp4_write_moov_update_buffer(1, node->nal_head, node->nal_tail, node->mp4,
                                                     node->data_len)
                      : mp4_write_moov_update_buffer(2, node->aac_head, node->aac_tail, node->mp4,
                                                     node->data_len);
  if (r == 0) return true;
  log_index_error(video ? 1 : 2);
  // A node without a file (the calls without index) has nothing to enter.
  return node->mp4 == nullptr;
}

void free_records(PendingChunk &p) {
  if (p.track == 1) {
    auto *head = static_cast<videoNode *>(p.head), *tail = static_cast<videoNode *>(p.tail);
    list_free(head, tail);
  } else {
    auto *head = static_cast<audioNode *>(p.head), *tail = static_cast<audioNode *>(p.tail);
    list_free(head, tail);
  }
  p.head = p.tail = nullptr;
}

// One step of a track's lane in a commit: a group of a chunk's counts, all of
// them at once (a hidden track), or the word that reveals the track.
struct Step {
  enum Kind { kGroup, kAll, kReveal } kind;
  const ChunkCounts *counts;
  CountGroup group;
};

class Commit {
 public:
  Commit(Durability &d, mp4_handle *h, bool durable) : d_(d), h_(h), durable_(durable) {}

  // False when the card refused a write or a sync; the commit stops there,
  // leaving the counts of the last stretch that reached the card.
  bool run() {
    FILE *file = h_->file;
    const bool hidden[3] = {false, track_hidden(h_, 1), track_hidden(h_, 2)};
    std::vector<ChunkCounts> counts(d_.pending.size());
    uint32_t data_end = 0;
    {
      // The entries of all the chunks, one write per table and track.
      EntryGather gather(h_);
      for (size_t i = 0; i < d_.pending.size(); ++i) {
        const PendingChunk &p = d_.pending[i];
        const int32_t before = h_->writeStatus;
        index_enter_chunk(file, h_, p.track, p.head, p.tail, p.bytes, counts[i]);
        if (h_->writeStatus != 0 && before == 0) log_index_error(p.track);
        data_end = std::max(data_end, counts[i].data_end);
      }
      const int32_t before = h_->writeStatus;
      const int refused = gather.flush();
      if (refused != 0 && before == 0) log_index_error(refused);
    }
    // The mdat covers every byte synced with the entries, whichever chunk's
    // counts land first.
    for (auto &c : counts) c.data_end = data_end;
    sync();

    // Each track's steps, grouped into the stretches between two syncs; the
    // two tracks go side by side.
    std::vector<std::vector<Step>> lanes[3];
    for (int track : {1, 2}) {
      auto &lane = lanes[track];
      const ChunkCounts *last = nullptr;
      uint32_t run_before_last = d_.last_run[track];
      for (const auto &c : counts) {
        if (c.track != track) continue;
        if (!hidden[track]) {
          // The sizes of this chunk may land with the previous chunk's run:
          // until that run lands, the previous chunk is counted with the run
          // before it, which must claim none of these sizes (it is no longer
          // than the previous chunk's own).
          const bool with_previous_run =
              last != nullptr && run_before_last != 0 && run_before_last <= last->run;
          if (last != nullptr) run_before_last = last->run;
          if (with_previous_run) {
            lane.back().push_back({Step::kGroup, &c, CountGroup::kSamples});
          } else {
            lane.push_back({{Step::kGroup, &c, CountGroup::kSamples}});
          }
          lane.push_back({{Step::kGroup, &c, CountGroup::kChunks}});
          lane.push_back({{Step::kGroup, &c, CountGroup::kRuns}});
        }
        last = &c;
      }
      if (last != nullptr && hidden[track]) {
        lane.push_back({{Step::kAll, last, CountGroup::kSamples}});
        lane.push_back({{Step::kReveal, last, CountGroup::kSamples}});
      }
    }
    const size_t epochs = std::max(lanes[1].size(), lanes[2].size());
    for (size_t e = 0; e < epochs; ++e) {
      // After a failed write or sync nothing more is entered into this index:
      // the card keeps the state of the last stretch that reached it.
      if (!ok_ || index_stopped(h_)) break;
      for (int track : {1, 2})
        if (e < lanes[track].size())
          for (const Step &s : lanes[track][e]) run_step(file, track, s);
      if (e + 1 == epochs && !index_stopped(h_))
        patch_mvhd_duration(file, h_);  // the longest track so far
      sync();
    }
    for (const auto &c : counts) d_.last_run[c.track] = c.run;
    // An index write the card refused stopped the commit: a card error too.
    return ok_ && !index_stopped(h_);
  }

 private:
  void run_step(FILE *file, int track, const Step &s) {
    switch (s.kind) {
      case Step::kGroup:
        index_write_counts(file, h_, *s.counts, s.group);
        break;
      case Step::kAll:
        for (CountGroup g : {CountGroup::kSamples, CountGroup::kChunks, CountGroup::kRuns})
          index_write_counts(file, h_, *s.counts, g);
        break;
      case Step::kReveal:
        index_reveal_track(file, h_, track);
        break;
    }
  }

  void sync() {
    if (!durable_ || !ok_) return;
    ++d_.syncs;
    if (card::sync(h_->file) != 0) {
      MP4_ERR("durable commit: card sync failed: %s\n", std::strerror(errno));
      ok_ = false;
    }
  }

  Durability &d_;
  mp4_handle *h_;
  bool durable_;
  bool ok_ = true;
};

// Enters every waiting chunk; false when a sync failed. On the writer thread,
// which holds signal_lock while it drains, the lock is let go for the
// commit's syncs: a producer handing over a node meanwhile then waits for no
// sync (its signal finds the writer busy, and the drain that resumes after
// the commit takes its node from the write queue).
bool commit(mp4_data_buffer *data, bool durable) {
  Durability &d = data->durability;
  if (d.pending.empty()) return true;
  d.last_commit = Clock::now();
  d.committed_once = true;
  const bool writer = pthread_equal(pthread_self(), data->thread) != 0;
  if (writer && durable) pthread_mutex_unlock(&data->signal_lock);
  const bool ok = Commit(d, d.pending.front().handle, durable).run();
  if (writer && durable) pthread_mutex_lock(&data->signal_lock);
  for (auto &p : d.pending) free_records(p);
  d.pending.clear();
  ++d.commits;
  return ok;
}

// The close: a track that never had a sample is revealed, empty, so that the
// finished file has both tracks; in mode 1 that word is synced too.
bool reveal_at_close(mp4_handle *h, bool durable) {
  if ((h->indexState & (kHiddenVideo | kHiddenAudio)) == 0) return true;
  FILE *file = h->file;
  for (int track : {1, 2}) index_reveal_track(file, h, track);
  if (h->writeStatus != 0) return false;
  if (!durable) return true;
  ++h->dataBuffer->durability.syncs;
  if (card::sync(file) == 0) return true;
  MP4_ERR("durable commit: card sync failed: %s\n", std::strerror(errno));
  return false;
}

}  // namespace

bool durability_set(Durability &d, int mode, int interval_ms) {
  if ((mode != kDurabilityKill && mode != kDurabilityPower) || interval_ms < 0) return false;
  d.mode.store(mode, std::memory_order_relaxed);
  d.interval_ms.store(interval_ms == 0 ? kDefaultCommitIntervalMs : interval_ms,
                      std::memory_order_relaxed);
  return true;
}

bool durability_node_written(mp4_buffer_node *node, int media_type) {
  mp4_handle *h = node->mp4;
  // The node's bytes reached the file: an error flag left by a write that was
  // retried is not the index's.
  if (h != nullptr && h->file != nullptr) std::clearerr(h->file);
  mp4_data_buffer *data = h != nullptr ? h->dataBuffer : nullptr;
  const bool video = media_type == kMediaVideo;
  void *head = video ? static_cast<void *>(node->nal_head) : static_cast<void *>(node->aac_head);
  if (data == nullptr || (!video && media_type != kMediaAudio) || head == nullptr) {
    // Keep the chunks in file order.
    if (data != nullptr && !commit(data, false)) return false;
    return update_now(node, media_type);
  }
  Durability &d = data->durability;
  const int mode = d.mode.load(std::memory_order_relaxed);
  if (mode == kDurabilityKill && d.pending.empty())
    return update_now(node, media_type) &&
           (node->for_finish != kLastOfFile || reveal_at_close(h, false));
  // The decoder configuration goes into the reserved avcC with the first video
  // node, not with its commit (the track is still hidden then, and a track
  // that is not only lacks samples that no decoder could read): a file cut
  // before its first commit keeps what `mp4rec repair` needs for its pictures.
  if (video) {
    // A configuration write the card refused is a card error.
    mp4_write_stsd_tag_update(h->file, h, h->updatePos->videoPos);
    if (h->writeStatus != 0) return false;
  }
  // The records now belong to the commit; the node is recycled without them.
  PendingChunk p{h, video ? 1 : 2, head, nullptr, node->data_len};
  if (video) {
    p.tail = node->nal_tail;
    node->nal_head = node->nal_tail = nullptr;
  } else {
    p.tail = node->aac_tail;
    node->aac_head = node->aac_tail = nullptr;
  }
  d.pending.push_back(p);
  const auto interval = std::chrono::milliseconds(d.interval_ms.load(std::memory_order_relaxed));
  if (mode == kDurabilityKill || node->for_finish != 0 || !d.committed_once ||
      Clock::now() - d.last_commit >= interval) {
    // A failed sync or index write is a card error, as a failed data write.
    if (!commit(data, mode == kDurabilityPower) || h->writeStatus != 0) return false;
  }
  return node->for_finish != kLastOfFile || reveal_at_close(h, mode == kDurabilityPower);
}

int durability_finish(mp4_data_buffer *data, mp4_handle *h) {
  const bool durable = data->durability.mode.load(std::memory_order_relaxed) == kDurabilityPower;
  const bool ok =
      commit(data, durable) && (h == nullptr || h->file == nullptr || reveal_at_close(h, durable));
  return ok ? 0 : -2;
}

void durability_discard(Durability &d) {
  for (auto &p : d.pending) free_records(p);
  d.pending.clear();
  d.committed_once = false;
  for (auto &r : d.last_run) r = 0;
}

}  // namespace mp4rec

using namespace mp4rec;

extern "C" MP4REC_API int mp4_set_durability(mp4_session *session, int mode, int interval_ms) {
  if (session == nullptr || session->data_buffer == nullptr ||
      !durability_set(session->data_buffer->durability, mode, interval_ms)) {
    MP4_ERR("mp4 set durability : param error\n");
    return -1;
  }
  return 0;
}
