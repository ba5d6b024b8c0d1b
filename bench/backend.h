// The back ends that record the same frames, and the registry through which
// the driver finds them. Each back end registers itself from its own file.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "input.h"

namespace bench {

struct Options {
  std::string out_path;             // the file to record into
  double throttle_bytes_per_s = 0;  // > 0: the file's stream is paced ("slow card")
  int record_duration = 60;         // mp4rec: planned file length in seconds
  bool prealloc = false;            // mp4rec: reserve the index tables as holes
  int durability = -1;              // mp4rec: mp4_set_durability mode (-1: the default)
  double sync_ms = 10;              // slow card: what one sync costs once its writes are through
};

// Result codes every back end reports per frame: 0 success, the library's
// negative codes as they are (-2 I/O error, -4 busy, -5 tables full), -1 any
// other failure.
class Backend {
 public:
  virtual ~Backend() = default;
  // Untimed preparation (mp4rec: base, session and the pre-opened head).
  virtual void setup(const Options &, Input &) {}
  // Timed: whatever the back end does to open the file.
  virtual void open() = 0;
  virtual int video(Input &in, const Unit &u) = 0;
  virtual int audio(Input &in, const Unit &u) = 0;
  // Timed: completing the file.
  virtual void close() = 0;
  // Untimed clean-up; the recorded file stays at the output path.
  virtual void teardown() {}
  // CPU and wall time of setup work worth reporting (mp4rec's head), ns.
  virtual int64_t setup_cpu_ns() const { return 0; }
  virtual int64_t setup_wall_ns() const { return 0; }
  // Syncs issued to the card during the recording.
  virtual int64_t syncs() const { return 0; }
};

using BackendFactory = std::function<std::unique_ptr<Backend>(const Options &)>;

struct BackendInfo {
  std::string name;
  std::string description;
  BackendFactory make;
  bool throttle_capable = true;
};

std::vector<BackendInfo> &backends();
const BackendInfo *find_backend(const std::string &name);

struct RegisterBackend {
  explicit RegisterBackend(BackendInfo info) { backends().push_back(std::move(info)); }
};

// Sub-commands other than `record` (e.g. head and index-update costs).
using Command = std::function<int(int argc, char **argv)>;
struct CommandInfo {
  std::string name;
  std::string usage;
  Command run;
};
std::vector<CommandInfo> &commands();
struct RegisterCommand {
  explicit RegisterCommand(CommandInfo info) { commands().push_back(std::move(info)); }
};

// Option parsing shared by the commands: --key=value or --key value.
struct Args {
  Args(int argc, char **argv);
  std::string get(const std::string &key, const std::string &def = "") const;
  double num(const std::string &key, double def) const;
  bool flag(const std::string &key) const;
  std::vector<std::pair<std::string, std::string>> kv;
};

}  // namespace bench
