// The registries of back ends and commands, and option parsing.
#include <cstring>
#include <stdexcept>

#include "backend.h"

namespace bench {

std::vector<BackendInfo> &backends() {
  static std::vector<BackendInfo> list;
  return list;
}
const BackendInfo *find_backend(const std::string &name) {
  for (const auto &b : backends())
    if (b.name == name) return &b;
  return nullptr;
}
std::vector<CommandInfo> &commands() {
  static std::vector<CommandInfo> list;
  return list;
}

Args::Args(int argc, char **argv) {
  for (int i = 0; i < argc; ++i) {
    std::string a = argv[i];
    if (a.rfind("--", 0) != 0) throw std::runtime_error("unexpected argument " + a);
    a = a.substr(2);
    const auto eq = a.find('=');
    if (eq != std::string::npos) {
      kv.emplace_back(a.substr(0, eq), a.substr(eq + 1));
    } else if (i + 1 < argc && std::strncmp(argv[i + 1], "--", 2) != 0) {
      kv.emplace_back(a, argv[++i]);
    } else {
      kv.emplace_back(a, "1");
    }
  }
}
std::string Args::get(const std::string &key, const std::string &def) const {
  for (const auto &[k, v] : kv)
    if (k == key) return v;
  return def;
}
double Args::num(const std::string &key, double def) const {
  const std::string v = get(key);
  return v.empty() ? def : std::stod(v);
}
bool Args::flag(const std::string &key) const {
  return !get(key).empty();
}

}  // namespace bench
