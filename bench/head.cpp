// Cost of a new file's head with the index reserved in front, with and
// without the preallocation holes.
//
//   mp4rec_bench head [--dir=/dev/shm] [--reps=5] [--lengths=600,2000]
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

// Wall time of writing the bytes of the file at `path` into a new file with
// one fwrite (fopen to fflush, as the head is timed).
double one_fwrite_ms(const std::string &path) {
  std::vector<char> bytes;
  if (FILE *in = std::fopen(path.c_str(), "rb")) {
    char chunk[65536];
    for (size_t n; (n = std::fread(chunk, 1, sizeof chunk, in)) > 0;)
      bytes.insert(bytes.end(), chunk, chunk + n);
    std::fclose(in);
  }
  const std::string copy = path + ".copy";
  const int64_t t0 = mono_ns();
  FILE *out = std::fopen(copy.c_str(), "wb");
  if (!out || std::fwrite(bytes.data(), 1, bytes.size(), out) != bytes.size() ||
      std::fflush(out) != 0)
    throw std::runtime_error("one fwrite of the head failed");
  const int64_t t1 = mono_ns();
  std::fclose(out);
  unlink(copy.c_str());
  return double(t1 - t0) / 1e6;
}

int head(int argc, char **argv) {
  const Args args(argc, argv);
  const std::string dir = args.get("dir", "/dev/shm");
  const int reps = int(args.num("reps", 5));
  const std::string path = dir + "/bench_head_" + std::to_string(getpid()) + ".mp4";
  const std::string mp2 = path + ".mp2";

  std::printf(
      "| planned length | preallocation | moov bytes | file size | bytes written | "
      "write calls | disk blocks | CPU ms | wall ms | one fwrite of its bytes, wall ms | "
      "× one fwrite | at 10 MB/s, ms |\n");
  std::printf("|---:|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (int seconds : int_list(args.get("lengths", "600,2000"))) {
    for (bool prealloc : {false, true}) {
      std::vector<double> cpu, wall, plain;
      uint64_t written = 0, calls = 0, size = 0, blocks = 0, moov = 0;
      for (int rep = 0; rep < reps; ++rep) {
        auto info = stream_info(seconds, prealloc);
        const IoCounters io0 = io_counters();
        const int64_t c0 = thread_cpu_ns();
        const int64_t t0 = mono_ns();
        mp4_handle *h = mp4_write_head_h264_index(path.c_str(), mp2.c_str(), kWidth, kHeight,
                                                  kAudioAac, info.get());
        std::fflush(h ? h->file : nullptr);  // the head is on its way to the card
        const int64_t t1 = mono_ns();
        const int64_t c1 = thread_cpu_ns();
        const IoCounters io1 = io_counters();
        if (!h) throw std::runtime_error("mp4_write_head_h264_index failed");
        cpu.push_back(double(c1 - c0) / 1e6);
        wall.push_back(double(t1 - t0) / 1e6);
        written = io1.wchar - io0.wchar;
        calls = io1.syscw - io0.syscw;
        moov = h->mdatPos - 8 - 32;
        struct stat st {};
        stat(path.c_str(), &st);
        size = uint64_t(st.st_size);
        blocks = uint64_t(st.st_blocks) * 512;
        free_mp4_h264(h);
        plain.push_back(one_fwrite_ms(path));
        unlink(path.c_str());
        unlink(mp2.c_str());
      }
      std::printf(
          "| %d s | %s | %llu | %llu | %llu | %llu | %llu | %.2f | %.2f | %.2f | %.2f | %.0f |\n",
          seconds, prealloc ? "on (holes)" : "off", (unsigned long long)moov,
          (unsigned long long)size, (unsigned long long)written, (unsigned long long)calls,
          (unsigned long long)blocks, median(cpu), median(wall), median(plain),
          median(wall) / median(plain), double(written) / 10e6 * 1e3);
    }
  }
  std::printf(
      "\n1920x1080, 30 frames/s, AAC 16 kHz; medians of %d heads; 'one fwrite' is the made "
      "file's bytes written into a new file with fopen, one fwrite and fflush; 'at 10 MB/s' is "
      "the bytes written divided by the slow card's rate.\n",
      reps);
  return 0;
}

const RegisterCommand head_command({"head", "[--dir D] [--reps N] [--lengths 600,2000]", head});

}  // namespace
}  // namespace bench
