// Patch writers of the reserved front index, shared by the batch update
// (mp4_write_moov_update_buffer), the ordered commit of the data buffer's
// durable mode and the per-sample update.
//
// Each takes the file, the handle and the track's position table and writes
// at a recorded position, one positional write per run of bytes (through the
// card seam; the stream's position does not move). It returns the handle's
// writeStatus after adding its writes' results, or -1 when a write fails
// (after logging "mp4 write index : mp4_fseek error\n" under its own name: the
// write stands for the seek and write of old). A failed write stops the
// file's index. The caller adds the return into writeStatus.
#pragma once

#include <cstdint>
#include <cstdio>

#include <vector>

#include "mp4/box.h"
#include "mp4/handle.h"

namespace mp4rec {

// Video track duration fields: tkhd, elst segment duration, mdhd.
int32_t mp4_write_tkhd_tag_update(FILE *file, mp4_handle *h, uint32_t *videoPos, uint32_t duration);
int32_t mp4_write_edts_tag_update(FILE *file, mp4_handle *h, uint32_t *videoPos, uint32_t duration);
int32_t mp4_write_mdhd_tag_update(FILE *file, mp4_handle *h, uint32_t *videoPos, uint32_t duration);
// Audio track duration fields: tkhd, mdhd.
int32_t mp4_write_trak_tag_2_update(FILE *file, mp4_handle *h, uint32_t *audioPos,
                                    uint32_t duration);
int32_t mp4_write_mdhd_tag_2_update(FILE *file, mp4_handle *h, uint32_t *audioPos,
                                    uint32_t duration);

// Writes the decoder configuration into the reserved avcC or hvcC once: only
// while nothing has been written there yet and the parameter sets are known
// (SPS and PPS; for H.265 also the VPS), else 0. The box grows to the record
// and the free box behind it shrinks to the rest of the reserve (see
// kAvcCReserve). A configuration that does not fit
// the reserve is not written: it logs and returns -1.
int32_t mp4_write_stsd_tag_update(FILE *file, mp4_handle *h, uint32_t *videoPos);

// Writes maxDuration at the mvhd duration field (the write's result goes into
// writeStatus). False, with nothing logged, when the write fails; the caller
// logs under its own name.
bool patch_mvhd_duration(FILE *file, mp4_handle *h);
// Writes mediaBytes + 8 as the mdat size. False when the write fails.
bool patch_mdat_size(FILE *file, mp4_handle *h);

// ---- entering one chunk, in the order the card must see it -------------------
//
// A chunk reaches the index in four steps. Its table entries go first, behind
// the counts, where no reader looks yet. Then the words that make it visible,
// in three groups that must land in this order for the file to be a valid MP4
// at every instant:
//   kSamples  mdat size, the track and movie durations (an edit list that
//             ended before the newest samples would hide them), stts and stsz
//             counts: sizes for samples that no chunk claims yet are ignored;
//   kChunks   stco count (and the stss count, which may then name the new
//             samples): the new chunk takes the sample count of the track's
//             last stsc run until its own run is counted;
//   kRuns     stsc count.
// A track whose trak is still hidden takes all three at once and is revealed
// after them. mp4_write_moov_update_buffer runs the steps back to back; the
// durable mode syncs between them.

// The counts and durations that one chunk leaves behind.
struct ChunkCounts {
  int track = 0;                // 1 video, 2 audio
  uint32_t data_end = 0;        // file offset behind the chunk's bytes
  uint32_t samples = 0;         // stsz count
  uint32_t times = 0;           // stts count; audio without time stamps: frames of its one entry
  uint32_t sync_samples = 0;    // stss count (video)
  uint32_t chunks = 0;          // stco and stsc count
  uint32_t run = 0;             // samples of this chunk (its stsc run)
  uint32_t duration = 0;        // the track's duration fields (ms)
  uint32_t media_duration = 0;  // audio mdhd: in the track's time scale
  uint32_t movie_duration = 0;
};

enum class CountGroup { kSamples, kChunks, kRuns };

// Writes a batch's entries into the track's tables (track 1 video, 2 audio)
// and moves the handle's running state on; `out` receives what the counts
// become. Returns writeStatus.
int32_t index_enter_chunk(FILE *file, mp4_handle *h, int track, void *head, void *tail,
                          uint32_t batch_bytes, ChunkCounts &out);
// Writes one group of a chunk's counts. Returns writeStatus.
int32_t index_write_counts(FILE *file, mp4_handle *h, const ChunkCounts &c, CountGroup group);
// Makes a hidden track ("free") a "trak"; nothing when it is visible already.
int32_t index_reveal_track(FILE *file, mp4_handle *h, int track);
// True once a write of the index failed (the stream's error flag, cleared
// behind each node's bytes, is up): nothing more that readers see is written
// into this file's index.
bool index_stopped(mp4_handle *h);

// While an EntryGather lives on a thread, the table entries that
// index_enter_chunk writes for its handle are kept back: a run that continues
// one kept before (or rewrites its last entries) joins it, and flush() (or the
// end of the gather) writes them in offset order, one write per table and
// track. The durable commit gathers the entries of all the chunks it enters:
// they stand behind the counts and are synced before any count is raised, so
// their order does not matter.
class EntryGather {
 public:
  explicit EntryGather(mp4_handle *h);
  ~EntryGather();
  EntryGather(const EntryGather &) = delete;
  EntryGather &operator=(const EntryGather &) = delete;

  // Takes `run` (the entries of `track` in a table of `h`); false when the
  // gather is not for `h`.
  bool keep(const mp4_handle *h, int track, box::Run &run);
  // Writes what is kept; 0, or the track whose entries the card refused
  // first (writeStatus says it too).
  int flush();

 private:
  struct Kept {
    int track;
    box::Run run;
  };
  mp4_handle *h_;
  EntryGather *outer_;
  std::vector<Kept> kept_;
};

// True while the track's trak is still typed "free".
inline bool track_hidden(const mp4_handle *h, int track) {
  return (h->indexState & (track == 1 ? kHiddenVideo : kHiddenAudio)) != 0;
}

}  // namespace mp4rec
