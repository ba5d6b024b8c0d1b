// mp4rec: the command-line tool of the recording library. `inspect` checks
// a file's index against its bytes.
#include <iostream>
#include <string>

#include "inspect.h"

namespace {

void usage(std::ostream &out) {
  out << "usage: mp4rec inspect [-q] FILE...          show a file's boxes and check its index\n"
         "       mp4rec <command> --help              options of a command\n";
}

}  // namespace

int main(int argc, char **argv) {
  if (argc < 2) {
    usage(std::cerr);
    return 2;
  }
  const std::string cmd = argv[1];
  if (cmd == "inspect") return mp4tool::inspect_main(argc - 2, argv + 2);
  if (cmd == "-h" || cmd == "--help" || cmd == "help") {
    usage(std::cout);
    return 0;
  }
  std::cerr << "mp4rec: unknown command '" << cmd << "'\n";
  usage(std::cerr);
  return 2;
}
