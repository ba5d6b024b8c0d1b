// mp4rec: records elementary streams through the library's public calls, as a
// camera's recorder process does, and inspects the files it makes.
#include <mp4rec/mp4rec.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <string>

#include "file_check.h"
#include "record.h"
#include "repair.h"

namespace {

void usage(std::ostream &out) {
  out << "usage: mp4rec record [options] [VIDEO|-]   record a stream (no input: the built-in "
         "sample)\n"
         "       mp4rec inspect [-q] FILE...          show a file's boxes and check its index\n"
         "       mp4rec repair [options] IN [OUT]     make a playable file from a cut recording\n"
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
  if (cmd == "record") return mp4tool::record_main(argc - 2, argv + 2);
  if (cmd == "repair") return mp4tool::repair_main(argc - 2, argv + 2);
  if (cmd == "-h" || cmd == "--help" || cmd == "help") {
    usage(std::cout);
    return 0;
  }
  std::cerr << "mp4rec: unknown command '" << cmd << "'\n";
  usage(std::cerr);
  return 2;
}

// The host's log function: the library reports its failures through it (the
// declaration in the public header makes it visible to the shared library).
extern "C" void swLogWrite(int level, int /*module*/, const char *function, int /*line*/,
                           const char *format, ...) {
  char text[1024];
  va_list ap;
  va_start(ap, format);
  std::vsnprintf(text, sizeof text, format, ap);
  va_end(ap);
  mp4tool::note_library_message(level, function, text);
}
