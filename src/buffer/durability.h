// How the front-index road's index reaches the card, per data buffer (one
// per session, so the setting applies to every file of the session).
//
// Mode 0 (survives a killed process): each node's index update follows its
// bytes at once, as plain writes; the page cache decides when and in which
// order they reach the card.
//
// Mode 1 (survives a power cut): the index never gets ahead of the card.
// Written nodes wait; at most once per interval (and at close) a commit syncs
// their bytes, writes their table entries behind the counts, syncs, and then
// raises the counts chunk by chunk with a sync after each group that must
// land before the next (durations and sizes, then the chunk, then its stsc
// run; a hidden track's counts at once, then the word that reveals it). Whatever subset of the
// writes between two syncs reaches the card, the file is valid and indexes only bytes that were
// synced before. Each node still becomes its own chunk, so the finished file is the same in both
// modes.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <vector>

#include "common/internal.h"

namespace mp4rec {

inline constexpr int kDurabilityKill = 0;   // mode 0
inline constexpr int kDurabilityPower = 1;  // mode 1
inline constexpr int kDefaultDurability = kDurabilityPower;
inline constexpr int kDefaultCommitIntervalMs = 1000;

// mp4_buffer_node::for_finish: 1 for the nodes that finish writes, this value
// for the last of them (the file's last node).
inline constexpr int32_t kLastOfFile = 2;

// A written node whose index entries wait for the next commit.
struct PendingChunk {
  mp4_handle *handle;
  int track;   // 1 video, 2 audio
  void *head;  // the node's index records, now owned here
  void *tail;
  uint32_t bytes;
};

// The per-buffer state: the setting (written by the host's thread, read by
// the writer thread) and the chunks waiting for a commit (touched by whichever
// thread writes nodes: the writer thread, or finish once it is idle).
struct Durability {
  std::atomic<int> mode{kDefaultDurability};
  std::atomic<int> interval_ms{kDefaultCommitIntervalMs};
  std::vector<PendingChunk> pending;
  std::chrono::steady_clock::time_point last_commit{};
  bool committed_once = false;
  uint32_t last_run[3] = {};  // samples of each track's last chunk committed (0: none yet)
  long commits = 0;           // for the tests and the bench
  long syncs = 0;
};

// The setting: mode 0 or 1, interval in ms (0: the default). False for a
// mode or interval out of range.
bool durability_set(Durability &d, int mode, int interval_ms);

// Called on the writer thread once a node's bytes are all in the file: in mode
// 0 its index is brought up to date now; in mode 1 the node's index records
// are taken over (the node can be recycled) and entered at the next commit,
// which runs now if the interval has passed since the previous one, or if the
// node is one of the last of its file. With the very last node a track that
// never had a sample is revealed (empty): the finished file has both tracks.
// False when a file's index update or a sync failed: nothing more is entered
// into that index (the caller reports a card error).
bool durability_node_written(mp4_buffer_node *node, int media_type);

// End of file `h`, once its last nodes are written: commits whatever still
// waits and reveals a track still hidden (nothing is left when the file ended
// with a node to write, as its last node does both). 0, or -2 when the card
// refused a write or a sync.
int durability_finish(mp4_data_buffer *data, mp4_handle *h);

// Drops what waits without writing it (a new file is bound, or the buffer
// goes): its handle may be gone.
void durability_discard(Durability &d);

}  // namespace mp4rec
