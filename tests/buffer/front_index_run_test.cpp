// The data buffer in front of a real front-index file: every node written
// becomes exactly one chunk whose entries follow its bytes, and a long run
// through the buffer leaves a file that decodes and no leak behind.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <vector>

#include "buffer/data_buffer.h"
#include "mp4/handle.h"
#include "support/av_feed.h"
#include "support/box_reader.h"
#include "support/log_capture.h"

namespace {

using testsupport::BoxFile;

struct Chunk {
  uint64_t offset;
  uint64_t bytes;
  bool video;
  size_t first_sample;  // index of its first sample in its track
  uint32_t samples;
};

// The chunks of one track as its stco, stsc and stsz describe them.
std::vector<Chunk> track_chunks(const BoxFile &f, int trak, bool video) {
  const std::string stbl = "moov/trak[" + std::to_string(trak) + "]/mdia/minf/stbl/";
  const auto stco = f.stco(f.at(stbl + "stco"));
  const auto stsc = f.stsc(f.at(stbl + "stsc"));
  const auto stsz = f.stsz(f.at(stbl + "stsz"));
  EXPECT_EQ(stco.size(), stsc.size());
  std::vector<Chunk> out;
  size_t sample = 0;
  for (size_t i = 0; i < stco.size() && i < stsc.size(); ++i) {
    EXPECT_EQ(stsc[i].first_chunk, i + 1);  // one entry per chunk
    Chunk c{stco[i], 0, video, sample, stsc[i].samples_per_chunk};
    for (uint32_t k = 0; k < c.samples && sample < stsz.size(); ++k) c.bytes += stsz[sample++];
    out.push_back(c);
  }
  EXPECT_EQ(sample, stsz.size());
  return out;
}

void count_node(void *arg) {
  static_cast<std::atomic<int> *>(arg)->fetch_add(1, std::memory_order_relaxed);
}

// Records `pictures` pictures (cycling through a small x264 stream) with their
// AAC audio through the intake and the data buffer, then checks the file.
void record_and_check(long pictures, bool check_decode) {
  const auto feed = testsupport::make_av_feed(testsupport::h264_stream(160, 120, 30, 10, 30),
                                              testsupport::aac_stream(16000, 10), 30, pictures);
  ASSERT_EQ(feed.pictures, pictures);
  testsupport::TempDir dir;
  const std::string path = dir.file("rec.mp4");
  mp4_stream_info *info = mp4_create_stream_info();
  info->record_duration = static_cast<uint32_t>(pictures / 30 + 10);
  info->video_frame_rate = 30;
  info->audio_sample_rate = 16000;
  mp4_handle *h =
      mp4_write_head_h264_index(path.c_str(), dir.file("rec.mp2").c_str(), 160, 120, 3, info);
  std::free(info);
  ASSERT_NE(h, nullptr);
  const uint64_t mdat_data = h->mdatPos + 8;
  mp4_data_buffer *data = mp4_write_data_buffer_create(262144, 16384);
  ASSERT_NE(data, nullptr);
  ASSERT_EQ(mp4_set_data_buffer(h, data), 0);
  std::atomic<int> nodes{0};
  ASSERT_EQ(mp4_write_data_record_time_cb_register(data, count_node, &nodes), 0);

  testsupport::LogCapture log;
  std::vector<std::vector<uint8_t>> payloads;  // every picture as it must stand in mdat
  for (const auto &u : feed.units) {
    auto bytes = u.bytes;
    const int n = static_cast<int>(bytes.size());
    const int r = u.video ? mp4_write_one_h264(bytes.data(), n, u.ts, h)
                          : mp4_write_audio_frame_realtime(h, bytes.data(), n, u.ts);
    ASSERT_EQ(r, 0) << log.dump();
    if (u.picture) {
      const size_t sc = bytes[2] == 1 ? 3 : 4;
      payloads.emplace_back(bytes.begin() + static_cast<long>(sc), bytes.end());
    }
  }
  ASSERT_EQ(mp4_sync_data_buffer(h), 0);
  free_mp4_h264(h);
  ASSERT_EQ(mp4_write_data_buffer_delete(data), 0);
  for (const auto &e : log.entries()) EXPECT_GT(e.level, 3) << log.dump();

  const BoxFile f(path);
  auto chunks = track_chunks(f, 0, true);
  const auto audio = track_chunks(f, 1, false);
  const size_t video_chunks = chunks.size();
  chunks.insert(chunks.end(), audio.begin(), audio.end());
  std::sort(chunks.begin(), chunks.end(),
            [](const Chunk &a, const Chunk &b) { return a.offset < b.offset; });
  // The writer thread wrote `nodes` of them, finish the last video and audio nodes.
  EXPECT_EQ(chunks.size(), static_cast<size_t>(nodes.load()) + 2);
  // Each node's bytes were followed by one update that advanced the data
  // position by exactly its length: the chunks tile mdat without gap or overlap.
  uint64_t pos = mdat_data;
  for (const auto &c : chunks) {
    ASSERT_EQ(c.offset, pos) << (c.video ? "video" : "audio") << " chunk";
    pos += c.bytes;
  }
  EXPECT_EQ(pos, f.bytes().size());
  EXPECT_EQ(f.u32(f.at("mdat").offset), f.bytes().size() - (mdat_data - 8));

  // Every picture lies where its chunk says, as length and NAL unit.
  const auto sizes = f.stsz(f.at("moov/trak[0]/mdia/minf/stbl/stsz"));
  ASSERT_EQ(sizes.size(), payloads.size());
  size_t checked = 0;
  for (const auto &c : chunks) {
    if (!c.video) continue;
    uint64_t off = c.offset;
    for (uint32_t k = 0; k < c.samples; ++k) {
      const auto &p = payloads[c.first_sample + k];
      ASSERT_EQ(f.u32(off), p.size());
      ASSERT_TRUE(std::equal(p.begin(), p.end(), f.bytes().begin() + static_cast<long>(off + 4)));
      off += sizes[c.first_sample + k];
      ++checked;
    }
  }
  EXPECT_EQ(checked, payloads.size());
  EXPECT_GT(video_chunks, 1u);

  EXPECT_EQ(testsupport::ffprobe_packets(path, "v"), pictures);
  EXPECT_EQ(testsupport::ffprobe_packets(path, "a"), feed.audio_frames);
  if (check_decode) {
    EXPECT_EQ(testsupport::ffprobe_frames(path, "v"), pictures);
    EXPECT_EQ(testsupport::ffmpeg_decode_errors(path), "");
  }
}

// Ten thousand pictures (and their audio) through the buffer: every node is
// one chunk behind its bytes, the file decodes, and nothing leaks.
TEST(FrontIndexRun, EveryNodeBecomesOneChunkBehindItsBytes) {
  record_and_check(10000, true);
}

}  // namespace
