// mp4rec_bench: records the same frames through every back end, each run in a
// child process of its own, and prints the medians as a Markdown table.
//
//   mp4rec_bench record --video=F.h264 --audio=F.aac --width=W --height=H
//       [--hevc (the video is H.265)]
//       [--fps=30] [--reps=5] [--dir=/dev/shm] [--backends=a,b,...]
//       [--throttle-mbps=10] [--speed=X] [--record-duration=S] [--prealloc]
//       [--sync-ms=10] [--keep=DIR] [--title=TEXT]
//   mp4rec_bench <command> ...   (the other commands print their usage)
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <sstream>
#include <stdexcept>

#include "backend.h"
#include "measure.h"

namespace bench {

namespace {

// What a child reports about one recording (plain bytes through a pipe).
struct RunResult {
  int ok = 0;
  char error[200] = {0};
  double wall_s = 0, cpu_s = 0, user_s = 0, sys_s = 0;
  double setup_cpu_s = 0, setup_wall_s = 0, close_wall_s = 0;
  double caller_cpu_s = 0;  // the calling thread alone
  uint64_t syscw = 0, wchar = 0, file_bytes = 0;
  int64_t lat_p50 = 0, lat_p99 = 0, lat_p999 = 0, lat_max = 0;  // ns per frame
  uint32_t busy = 0, io_error = 0, full = 0, other = 0;         // -4, -2, -5, other negatives
  long private_kb = 0;  // private dirty memory, the larger of after frames / after close
  int64_t syncs = 0;    // syncs issued to the card
  long maxrss_kb = 0;   // filled in by the parent
};

int64_t file_size(const std::string &path) {
  FILE *f = std::fopen(path.c_str(), "rb");
  if (!f) return -1;
  std::fseek(f, 0, SEEK_END);
  const long n = std::ftell(f);
  std::fclose(f);
  return n;
}

// Private dirty memory of this process (pages it wrote itself), KiB.
long private_dirty_kb() {
  FILE *f = std::fopen("/proc/self/smaps_rollup", "r");
  if (!f) return 0;
  char line[256];
  long kb = 0;
  while (std::fgets(line, sizeof line, f))
    if (std::sscanf(line, "Private_Dirty: %ld kB", &kb) == 1) break;
  std::fclose(f);
  return kb;
}

// The child: one recording through one back end, reported through `fd`.
// `speed` > 0 hands the frames over at that multiple of real time; 0 as fast
// as the back end takes them.
void child_run(const BackendInfo &info, const Options &opt, Input &in, double speed,
               bool read_memory, int fd) {
  RunResult r;
  // The child's threads carry the back end's name, for profilers.
  prctl(PR_SET_NAME, ("rec-" + info.name).substr(0, 15).c_str());
  try {
    auto backend = info.make(opt);
    backend->setup(opt, in);
    std::vector<int64_t> lat;
    lat.reserve(in.units.size());

    const IoCounters io0 = io_counters();
    const UserSys us0 = rusage_self();
    const int64_t cpu0 = process_cpu_ns();
    const int64_t tcpu0 = thread_cpu_ns();
    const int64_t t0 = mono_ns();
    backend->open();
    for (const Unit &u : in.units) {
      if (speed > 0) sleep_until_ns(t0 + int64_t(double(u.ts) * 1e6 / speed));
      const int64_t a = mono_ns();
      const int rc = u.video ? backend->video(in, u) : backend->audio(in, u);
      lat.push_back(mono_ns() - a);
      if (rc == -4)
        ++r.busy;
      else if (rc == -2)
        ++r.io_error;
      else if (rc == -5)
        ++r.full;
      else if (rc < 0)
        ++r.other;
    }
    // The memory reading walks the page tables: its cost is taken out of the figures.
    const int64_t x0 = mono_ns(), xc0 = process_cpu_ns(), xt0 = thread_cpu_ns();
    const long private_frames = read_memory ? private_dirty_kb() : 0;
    const int64_t tc = mono_ns();
    const int64_t skip_wall = tc - x0, skip_cpu = process_cpu_ns() - xc0,
                  skip_caller = thread_cpu_ns() - xt0;
    backend->close();
    const int64_t t1 = mono_ns();
    const int64_t tcpu1 = thread_cpu_ns();
    const int64_t cpu1 = process_cpu_ns();
    const UserSys us1 = rusage_self();
    const IoCounters io1 = io_counters();
    r.private_kb = read_memory ? std::max(private_frames, private_dirty_kb()) : 0;

    r.wall_s = double(t1 - t0 - skip_wall) / 1e9;
    r.close_wall_s = double(t1 - tc) / 1e9;
    r.cpu_s = double(cpu1 - cpu0 - skip_cpu) / 1e9;
    r.caller_cpu_s = double(tcpu1 - tcpu0 - skip_caller) / 1e9;
    r.user_s = double(us1.user - us0.user) / 1e9;
    r.sys_s = double(us1.sys - us0.sys) / 1e9;
    r.setup_cpu_s = double(backend->setup_cpu_ns()) / 1e9;
    r.syncs = backend->syncs();
    r.setup_wall_s = double(backend->setup_wall_ns()) / 1e9;
    r.syscw = io1.syscw - io0.syscw;
    r.wchar = io1.wchar - io0.wchar;
    std::sort(lat.begin(), lat.end());
    r.lat_p50 = percentile(lat, 0.50);
    r.lat_p99 = percentile(lat, 0.99);
    r.lat_p999 = percentile(lat, 0.999);
    r.lat_max = lat.empty() ? 0 : lat.back();
    backend->teardown();
    backend.reset();
    r.file_bytes = uint64_t(std::max<int64_t>(0, file_size(opt.out_path)));
    r.ok = 1;
  } catch (const std::exception &e) {
    std::snprintf(r.error, sizeof r.error, "%s", e.what());
  }
  write_all(fd, &r, sizeof r);
  _exit(0);
}

RunResult run_in_child(const BackendInfo &info, const Options &opt, Input &in, double speed,
                       bool read_memory) {
  int fds[2];
  if (pipe(fds) != 0) throw std::runtime_error("pipe");
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) throw std::runtime_error("fork");
  if (pid == 0) {
    ::close(fds[0]);
    child_run(info, opt, in, speed, read_memory, fds[1]);
  }
  ::close(fds[1]);
  RunResult r;
  size_t got = 0;
  while (got < sizeof r) {
    const ssize_t n = ::read(fds[0], reinterpret_cast<char *>(&r) + got, sizeof r - got);
    if (n <= 0) break;
    got += size_t(n);
  }
  ::close(fds[0]);
  int status = 0;
  rusage ru{};
  wait4(pid, &status, 0, &ru);
  if (got != sizeof r) {
    r = RunResult{};
    std::snprintf(r.error, sizeof r.error, "child died (status %d)", status);
  }
  r.maxrss_kb = ru.ru_maxrss;
  return r;
}

std::vector<std::string> split(const std::string &s, char sep) {
  std::vector<std::string> out;
  std::stringstream ss(s);
  std::string item;
  while (std::getline(ss, item, sep))
    if (!item.empty()) out.push_back(item);
  return out;
}

std::string fmt(const char *f, ...) {
  char buf[256];
  va_list ap;
  va_start(ap, f);
  std::vsnprintf(buf, sizeof buf, f, ap);
  va_end(ap);
  return buf;
}

int record(int argc, char **argv) {
  const Args args(argc, argv);
  const std::string video = args.get("video"), audio = args.get("audio");
  if (video.empty()) throw std::runtime_error("--video is required");
  Input in = load_input(video, audio, int(args.num("width", 1920)), int(args.num("height", 1080)),
                        int(args.num("fps", 30)), args.flag("hevc"));
  const int reps = int(args.num("reps", 5));
  const std::string dir = args.get("dir", "/dev/shm");
  const std::string keep = args.get("keep");
  const double speed = args.num("speed", 0);
  const bool read_memory = !args.flag("no-memory");  // profilers: skip the page-table walks
  const bool quiet = args.flag("quiet");
  Options base;
  base.throttle_bytes_per_s = args.num("throttle-mbps", 0) * 1e6;
  base.record_duration = int(args.num("record-duration", 60));
  base.prealloc = args.flag("prealloc");
  base.sync_ms = args.num("sync-ms", 10);

  std::vector<const BackendInfo *> chosen;
  const std::string list =
      args.get("backends", "baseline,fwrite,fwrite-thread,mp4rec,lavf,lavf-faststart,lavf-frag");
  for (const auto &name : split(list, ',')) {
    const BackendInfo *b = find_backend(name);
    if (!b) {
      std::fprintf(stderr, "note: back end %s is not built, skipped\n", name.c_str());
      continue;
    }
    if (base.throttle_bytes_per_s > 0 && !b->throttle_capable) continue;
    chosen.push_back(b);
  }

  const double mb = double(in.media_bytes) / 1e6;
  if (!quiet)
    std::fprintf(stderr, "input: %zu video frames, %zu audio frames, %.3f MB of samples, %.1f s\n",
                 in.video_frames, in.audio_frames, mb, in.seconds());

  std::map<std::string, std::vector<RunResult>> results;
  for (int rep = 0; rep < reps; ++rep) {
    // Rotate the order so that no back end always runs first or last.
    for (size_t k = 0; k < chosen.size(); ++k) {
      const BackendInfo &b = *chosen[(k + size_t(rep)) % chosen.size()];
      Options opt = base;
      opt.out_path = dir + "/bench_" + b.name + "_" + std::to_string(getpid()) + ".mp4";
      const RunResult r = run_in_child(b, opt, in, speed, read_memory);
      if (!r.ok) {
        std::fprintf(stderr, "%s run %d failed: %s\n", b.name.c_str(), rep + 1, r.error);
      } else {
        if (!quiet)
          std::fprintf(stderr, "%-15s run %d: cpu %.1f ms, wall %.1f ms, p99.9 %.1f us\n",
                       b.name.c_str(), rep + 1, r.cpu_s * 1e3, r.wall_s * 1e3, r.lat_p999 / 1e3);
        results[b.name].push_back(r);
      }
      if (!keep.empty() && rep == reps - 1 && r.ok && b.name != "baseline" &&
          b.name.rfind("fwrite", 0) != 0) {
        const std::string to = keep + "/" + b.name + ".mp4";
        if (std::rename(opt.out_path.c_str(), to.c_str()) != 0) {
          std::string cmd = "mv '" + opt.out_path + "' '" + to + "'";
          if (std::system(cmd.c_str()) != 0) std::fprintf(stderr, "cannot keep %s\n", to.c_str());
        }
      } else {
        std::remove(opt.out_path.c_str());
      }
    }
  }

  auto med = [&](const std::string &name, auto field) {
    std::vector<double> v;
    for (const auto &r : results[name]) v.push_back(double(field(r)));
    return median(v);
  };
  // CPU is counted net of the harness: the baseline's median (its loop, and in
  // paced runs the sleeps and wake-ups) is taken off every other back end.
  double harness_cpu = 0;
  if (!results["baseline"].empty()) {
    harness_cpu = med("baseline", [](const RunResult &r) { return r.cpu_s; });
    const double harness_caller =
        med("baseline", [](const RunResult &r) { return r.caller_cpu_s; });
    for (auto &[name, rs] : results) {
      if (name == "baseline") continue;
      for (auto &r : rs) {
        r.cpu_s -= harness_cpu;
        r.caller_cpu_s -= harness_caller;
      }
    }
  }
  const bool have_floor = !results["fwrite"].empty();
  const double floor_cpu =
      have_floor ? med("fwrite", [](const RunResult &r) { return r.cpu_s; }) : 0;
  const bool have_base = !results["baseline"].empty();
  const double base_rss =
      have_base ? med("baseline", [](const RunResult &r) { return r.maxrss_kb; }) : 0;
  const double base_priv =
      have_base ? med("baseline", [](const RunResult &r) { return r.private_kb; }) : 0;
  const size_t frames = in.units.size();

  std::printf(
      "| back end | CPU ms/MB | × floor | CPU µs/frame | CPU ms: all threads / calling thread | "
      "write calls/MB | bytes written/media byte | file/media | "
      "peak RSS / private memory above baseline, KiB | "
      "frame call µs p50 / p99 / p99.9 / max | wall s | -4 / other errors |\n");
  std::printf("|---|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|---:|\n");
  for (const BackendInfo *b : chosen) {
    const auto &rs = results[b->name];
    if (rs.empty()) {
      std::printf("| %s | failed | | | | | | | | | | |\n", b->name.c_str());
      continue;
    }
    const std::string &n = b->name;
    const double cpu = med(n, [](const RunResult &r) { return r.cpu_s; });
    const double caller = med(n, [](const RunResult &r) { return r.caller_cpu_s; });
    const double syscw = med(n, [](const RunResult &r) { return r.syscw; });
    const double wchar = med(n, [](const RunResult &r) { return r.wchar; });
    const double fbytes = med(n, [](const RunResult &r) { return r.file_bytes; });
    const double rss = med(n, [](const RunResult &r) { return r.maxrss_kb; });
    const double priv = med(n, [](const RunResult &r) { return r.private_kb; });
    const double p50 = med(n, [](const RunResult &r) { return r.lat_p50; });
    const double p99 = med(n, [](const RunResult &r) { return r.lat_p99; });
    const double p999 = med(n, [](const RunResult &r) { return r.lat_p999; });
    const double pmax = med(n, [](const RunResult &r) { return r.lat_max; });
    const double wall = med(n, [](const RunResult &r) { return r.wall_s; });
    uint64_t busy = 0, other = 0;
    for (const auto &r : rs) {
      busy += r.busy;
      other += r.io_error + r.full + r.other;
    }
    const bool is_base = n == "baseline";
    std::printf(
        "| %s | %.3f | %s | %.2f | %.1f / %.1f | %s | %s | %s | %s | %.1f / %.1f / %.1f / "
        "%.1f | %.2f | %" PRIu64 " / %" PRIu64 " |\n",
        n.c_str(), cpu * 1e3 / mb,
        have_floor && !is_base ? fmt("%.2f", cpu / floor_cpu).c_str() : "–",
        cpu * 1e6 / double(frames), cpu * 1e3, caller * 1e3,
        is_base ? "–" : fmt("%.1f", syscw / mb).c_str(),
        is_base ? "–" : fmt("%.4f", wchar / double(in.media_bytes)).c_str(),
        is_base ? "–" : fmt("%.4f", fbytes / double(in.media_bytes)).c_str(),
        is_base     ? fmt("(%.0f / %.0f total)", rss, priv).c_str()
        : have_base ? fmt("%.0f / %.0f", rss - base_rss, priv - base_priv).c_str()
                    : "–",
        p50 / 1e3, p99 / 1e3, p999 / 1e3, pmax / 1e3, wall, busy, other);
  }
  // Extra figures of back ends with untimed setup work (mp4rec's pre-opened head).
  for (const BackendInfo *b : chosen) {
    const auto &rs = results[b->name];
    if (rs.empty()) continue;
    const double scpu = med(b->name, [](const RunResult &r) { return r.setup_cpu_s; });
    if (scpu <= 0) continue;
    const double cpu = med(b->name, [](const RunResult &r) { return r.cpu_s; });
    const double swall = med(b->name, [](const RunResult &r) { return r.setup_wall_s; });
    std::printf(
        "\n%s: the head, written ahead on the pre-open thread and not in the figures "
        "above, took %.2f ms CPU (%.2f ms wall); counted in, CPU is %.3f ms/MB = %.2f × "
        "floor.\n",
        b->name.c_str(), scpu * 1e3, swall * 1e3, (cpu + scpu) * 1e3 / mb,
        have_floor ? (cpu + scpu) / floor_cpu : 0.0);
  }
  // The close: what a back end still does once the last frame is handed over.
  {
    std::string line;
    for (const BackendInfo *b : chosen) {
      if (results[b->name].empty() || b->name == "baseline") continue;
      const double close = med(b->name, [](const RunResult &r) { return r.close_wall_s; });
      line += fmt("%s%s %.2f", line.empty() ? "" : ", ", b->name.c_str(), close * 1e3);
    }
    if (!line.empty()) std::printf("\nClose (trailer, last writes), wall ms: %s.\n", line.c_str());
  }
  // Syncs: how often a back end waits for the card.
  for (const BackendInfo *b : chosen) {
    const auto &rs = results[b->name];
    if (rs.empty()) continue;
    const double syncs = med(b->name, [](const RunResult &r) { return r.syncs; });
    if (syncs <= 0) continue;
    std::printf(
        "\n%s: %.0f syncs per recording, %.2f per second of media%s.\n", b->name.c_str(), syncs,
        syncs / in.seconds(),
        base.throttle_bytes_per_s > 0
            ? fmt(" (each waits until the card has taken every write, then %.0f ms)", base.sync_ms)
                  .c_str()
            : "");
  }
  // The goals mp4rec is held to, where this run has what they compare.
  auto has = [&](const char *n) { return !results[n].empty(); };
  if (has("mp4rec") && have_floor) {
    auto m = [&](const char *n, auto field) { return med(n, field); };
    const auto cpu_of = [](const RunResult &r) { return r.cpu_s; };
    const auto p999_of = [](const RunResult &r) { return r.lat_p999; };
    const double ratio = m("mp4rec", cpu_of) / floor_cpu;
    std::printf("\nAgainst the goals:\n\n");
    // Paced runs without a baseline carry the harness's sleeps in every CPU figure.
    if (speed > 0 && !have_base) {
      std::printf("- CPU: not judged here (no baseline to take the harness's sleeps out).\n");
    } else {
      std::printf("- CPU per MB at most 1.2 × the floor: %.2f × (%s)", ratio,
                  ratio <= 1.2 ? "met" : "missed");
      if (has("lavf-frag")) {
        const double frag = m("lavf-frag", cpu_of) / floor_cpu;
        std::printf("; libavformat fragmented (crash-safe) %.2f × (%s)", frag,
                    ratio < frag ? "mp4rec below it" : "mp4rec not below it");
      }
      if (has("lavf")) std::printf("; libavformat default %.2f ×", m("lavf", cpu_of) / floor_cpu);
      if (has("fwrite-thread"))
        std::printf(
            "; the floor written from a writer thread %.2f ×, so mp4rec's own work is "
            "%.2f × that",
            m("fwrite-thread", cpu_of) / floor_cpu,
            m("mp4rec", cpu_of) / m("fwrite-thread", cpu_of));
      std::printf(".\n");
    }
    if (has("lavf")) {
      const double a = m("mp4rec", p999_of), b = m("lavf", p999_of);
      std::printf("- Frame-call p99.9 no worse than libavformat's: %.1f µs against %.1f µs (%s).\n",
                  a / 1e3, b / 1e3, a <= b ? "met" : "missed");
    }
    if (have_base) {
      const double rss = m("mp4rec", [](const RunResult &r) { return r.maxrss_kb; }) - base_rss;
      const double priv = m("mp4rec", [](const RunResult &r) { return r.private_kb; }) - base_priv;
      std::printf(
          "- Peak RSS within 1.5 MiB above the 816 KiB of buffers (%.0f KiB): %.0f KiB (%s); "
          "private memory alone %.0f KiB (%s).\n",
          816 + 1536.0, rss, rss <= 816 + 1536.0 ? "met" : "missed", priv,
          priv <= 816 + 1536.0 ? "within" : "above");
    }
  }
  std::printf(
      "\nInput: %zu video + %zu audio frames, %.3f MB of samples (MB = 10^6 bytes), "
      "%.1f s; medians of %d runs; frames fed %s%s%s.\n",
      in.video_frames, in.audio_frames, mb, in.seconds(), reps,
      speed == 1  ? "at their time stamps (real time)"
      : speed > 0 ? fmt("at %g × the pace of their time stamps", speed).c_str()
                  : "as fast as the back end takes them",
      base.throttle_bytes_per_s > 0
          ? fmt(", into a stream paced to %.0f MB/s", base.throttle_bytes_per_s / 1e6).c_str()
          : "",
      harness_cpu > 0
          ? fmt("; CPU net of the harness's own %.1f ms (the baseline row)", harness_cpu * 1e3)
                .c_str()
          : "");
  return 0;
}

const RegisterCommand record_command({"record", "--video F --audio F --width W --height H ...",
                                      record});

}  // namespace
}  // namespace bench

// The host's log function: the bench keeps the library quiet and counts errors.
namespace bench {
int g_log_errors = 0;
}
extern "C" void swLogWrite(int level, int, const char *, int, const char *, ...) {
  if (level <= 3) ++bench::g_log_errors;
}

int main(int argc, char **argv) {
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <command> [--options]\ncommands:\n", argv[0]);
    for (const auto &c : bench::commands())
      std::fprintf(stderr, "  %s %s\n", c.name.c_str(), c.usage.c_str());
    return 2;
  }
  for (const auto &c : bench::commands()) {
    if (c.name == argv[1]) {
      try {
        return c.run(argc - 2, argv + 2);
      } catch (const std::exception &e) {
        std::fprintf(stderr, "%s: %s\n", argv[1], e.what());
        return 1;
      }
    }
  }
  std::fprintf(stderr, "unknown command %s\n", argv[1]);
  return 2;
}
