// Where recordings meet the card: how the library opens the files it records
// into and how it makes their written bytes durable. The defaults are fopen
// and fflush + fdatasync; tests replace them with a simulated card that logs
// every write or fails a chosen one.
#pragma once

#include <cstdio>

namespace mp4rec::card {

using OpenFn = FILE *(*)(const char *path, const char *mode);
using SyncFn = int (*)(FILE *file);

struct Hooks {
  OpenFn open = nullptr;  // null: fopen
  SyncFn sync = nullptr;  // null: fflush, then fdatasync of the stream's descriptor
};

// Replaces the hooks for the whole process (tests only); Hooks{} restores the
// defaults. Set it while no recording is running.
void set_hooks(const Hooks &hooks);

FILE *open(const char *path, const char *mode);

// Pushes what the stream holds to the card and waits until it is durable.
// 0, or -1 with errno set.
int sync(FILE *file);

}  // namespace mp4rec::card
