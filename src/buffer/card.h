// Where recordings meet the card: how the library opens the files it records
// into and how it makes their written bytes durable. The defaults are fopen
// and fflush + fdatasync; tests replace them with a simulated card that logs
// every write or fails a chosen one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>

namespace mp4rec::card {

using OpenFn = FILE *(*)(const char *path, const char *mode);
using SyncFn = int (*)(FILE *file);
// Writes `size` bytes at `offset` without moving the stream: one write call.
// 0, or -1 with errno set.
using WriteAtFn = int (*)(FILE *file, const void *data, size_t size, uint64_t offset);

struct Hooks {
  OpenFn open = nullptr;         // null: fopen
  SyncFn sync = nullptr;         // null: fflush, then fdatasync of the stream's descriptor
  WriteAtFn write_at = nullptr;  // null: pwrite on the stream's descriptor
};

// Replaces the hooks for the whole process (tests only); Hooks{} restores the
// defaults. Set it while no recording is running.
void set_hooks(const Hooks &hooks);

FILE *open(const char *path, const char *mode);

// Writes `size` bytes at `offset` of the stream's file in one positional
// write, after pushing out what the stream still holds (nothing, as a rule:
// the writer flushes every node); the stream's own position does not move. A
// stream without a descriptor is written by seeking there and back. 0, or -1
// with errno set.
int write_at(FILE *file, const void *data, size_t size, uint64_t offset);

// Pushes what the stream holds to the card and waits until it is durable.
// 0, or -1 with errno set.
int sync(FILE *file);

}  // namespace mp4rec::card
