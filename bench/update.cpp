// Cost of one in-place index update as the recording grows: it must not
// depend on how many samples the file already holds.
//
//   mp4rec_bench update [--dir=/dev/shm] [--minutes=60] [--at=1,10,60]
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <stdexcept>
#include <vector>

#include "backend.h"
#include "index_common.h"
#include "measure.h"
#include "mp4/handle.h"

namespace bench {
namespace {

// Batches shaped like the 1080p input: 15 video samples of 16,700 bytes (one
// IDR every 30) per 256 KiB node, 64 AAC frames of 256 bytes per 16 KiB node,
// flushed in the order their nodes fill up.
constexpr uint32_t kVideoSample = 16700, kVideoPerBatch = 15;
constexpr uint32_t kAudioSample = 256, kAudioPerBatch = 64;

double mean(const std::vector<double> &v) {
  double sum = 0;
  for (double x : v) sum += x;
  return v.empty() ? 0 : sum / double(v.size());
}

struct UpdateCost {
  double wall_us, cpu_us;
  uint64_t calls, bytes;
};

int update(int argc, char **argv) {
  const Args args(argc, argv);
  const std::string dir = args.get("dir", "/dev/shm");
  const int minutes = int(args.num("minutes", 60));
  const std::vector<int> marks = int_list(args.get("at", "1,10,60"));
  const std::string path = dir + "/bench_update_" + std::to_string(getpid()) + ".mp4";
  const std::string mp2 = path + ".mp2";

  auto info = stream_info(minutes * 60, false);
  mp4_handle *h =
      mp4_write_head_h264_index(path.c_str(), mp2.c_str(), kWidth, kHeight, kAudioAac, info.get());
  if (!h) throw std::runtime_error("mp4_write_head_h264_index failed");

  std::vector<videoNode> vnodes(kVideoPerBatch);
  std::vector<audioNode> anodes(kAudioPerBatch);
  uint32_t vframe = 0, aframe = 0;
  // Costs per minute of recording, per track.
  std::vector<std::vector<UpdateCost>> vcost(static_cast<size_t>(minutes)),
      acost(static_cast<size_t>(minutes));

  auto timed_update = [&](int track, void *first, void *last, uint32_t bytes) {
    // The batch's bytes lie in mdat before its update; the data is a hole here.
    std::fseek(h->file, long(bytes), SEEK_CUR);
    const IoCounters io0 = io_counters();
    const int64_t c0 = thread_cpu_ns();
    const int64_t t0 = mono_ns();
    const int rc = mp4_write_moov_update_buffer(track, first, last, h, bytes);
    const int64_t t1 = mono_ns();
    const int64_t c1 = thread_cpu_ns();
    const IoCounters io1 = io_counters();
    if (rc != 0) throw std::runtime_error("mp4_write_moov_update_buffer failed");
    return UpdateCost{double(t1 - t0) / 1e3, double(c1 - c0) / 1e3, io1.syscw - io0.syscw,
                      io1.wchar - io0.wchar};
  };

  const uint64_t end_ms = uint64_t(minutes) * 60000;
  for (;;) {
    // The node that fills up first is flushed first.
    const uint64_t vdone = uint64_t(vframe + kVideoPerBatch - 1) * 1000 / kFps;
    const uint64_t adone = uint64_t(aframe + kAudioPerBatch - 1) * 1024 * 1000 / kRate;
    if (std::min(vdone, adone) >= end_ms) break;
    if (vdone <= adone) {
      for (uint32_t i = 0; i < kVideoPerBatch; ++i, ++vframe) {
        vnodes[i] = videoNode{vframe % 30 == 0 ? 1 : 0, kVideoSample, vframe * 1000 / kFps, 0,
                              i + 1 < kVideoPerBatch ? &vnodes[i + 1] : nullptr};
      }
      h->videoCount.fetch_add(kVideoPerBatch, std::memory_order_relaxed);
      h->mediaBytes.fetch_add(kVideoPerBatch * kVideoSample, std::memory_order_relaxed);
      const UpdateCost c =
          timed_update(1, &vnodes.front(), &vnodes.back(), kVideoPerBatch * kVideoSample);
      vcost[size_t(vdone / 60000)].push_back(c);
    } else {
      for (uint32_t i = 0; i < kAudioPerBatch; ++i, ++aframe) {
        anodes[i] = audioNode{kAudioSample, uint32_t(uint64_t(aframe) * 1024 * 1000 / kRate), 0,
                              i + 1 < kAudioPerBatch ? &anodes[i + 1] : nullptr};
      }
      h->audioCount.fetch_add(kAudioPerBatch, std::memory_order_relaxed);
      h->mediaBytes.fetch_add(kAudioPerBatch * kAudioSample, std::memory_order_relaxed);
      const UpdateCost c =
          timed_update(2, &anodes.front(), &anodes.back(), kAudioPerBatch * kAudioSample);
      acost[size_t(adone / 60000)].push_back(c);
    }
  }
  const uint32_t samples = h->videoCount.load(std::memory_order_relaxed);
  free_mp4_h264(h);
  unlink(path.c_str());
  unlink(mp2.c_str());

  std::printf(
      "| minute of recording | track | updates | wall µs median / p99 / max | "
      "CPU µs median | write calls / update (mean) | bytes / update (mean) |\n");
  std::printf("|---:|---|---:|---:|---:|---:|---:|\n");
  for (int m : marks) {
    if (m < 1 || m > minutes) continue;
    for (int track : {1, 2}) {
      const auto &cs = (track == 1 ? vcost : acost)[size_t(m - 1)];
      if (cs.empty()) continue;
      std::vector<int64_t> wall;
      std::vector<double> cpu, calls, bytes;
      for (const auto &c : cs) {
        wall.push_back(int64_t(c.wall_us * 1000));
        cpu.push_back(c.cpu_us);
        calls.push_back(double(c.calls));
        bytes.push_back(double(c.bytes));
      }
      std::sort(wall.begin(), wall.end());
      std::printf("| %d | %s | %zu | %.1f / %.1f / %.1f | %.1f | %.1f | %.0f |\n", m,
                  track == 1 ? "video" : "audio", cs.size(), percentile(wall, 0.5) / 1e3,
                  percentile(wall, 0.99) / 1e3, wall.back() / 1e3, median(cpu), mean(calls),
                  mean(bytes));
    }
  }
  std::printf(
      "\n%u video samples in %d minutes; reserved for %d s; batches: "
      "%u video samples "
      "per node, %u AAC frames per node; the sample data itself is "
      "left as holes.\n",
      samples, minutes, minutes * 60, kVideoPerBatch, kAudioPerBatch);
  return 0;
}

const RegisterCommand update_command({"update", "[--dir D] [--minutes 60] [--at 1,10,60]", update});

}  // namespace
}  // namespace bench
