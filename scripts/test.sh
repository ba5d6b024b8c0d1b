#!/usr/bin/env bash
# Installs what the build and the tests need (Debian, as root; quiet when all is
# there), checks the sources' formatting with clang-format, then builds and
# runs the test suite five times: plain with gcc (developer mode: strict
# warnings are errors), with clang (the same), under
# AddressSanitizer + UndefinedBehaviorSanitizer, the threaded suites under
# ThreadSanitizer, and everything cross-built for the cameras' 32-bit MIPS
# under qemu (scripts/test-target.sh). After the plain run, every validator of
# scripts/validate.sh (which installs what it needs) checks a closed and a cut
# recording of H.264 and of H.265. Last, the fuzz targets (clang's libFuzzer,
# with ASan + UBSan) each run for a fixed number of inputs.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(build-essential cmake pkg-config libavcodec-dev libavformat-dev libavutil-dev ffmpeg
          libgtest-dev libgmock-dev libbenchmark-dev clang clang-format
          gstreamer1.0-tools gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-good
          gstreamer1.0-libav)
./scripts/install-deps.sh "${packages[@]}"

jobs=$(nproc)
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=0
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1

run_suite() {  # build-dir, cmake options, ctest options
  local dir=$1 opts=$2 filter=${3:-}
  echo "== $dir"
  cmake -S . -B "$dir" -DCMAKE_BUILD_TYPE=RelWithDebInfo $opts >/dev/null
  cmake --build "$dir" -j "$jobs" >/dev/null
  (cd "$dir" && ctest --output-on-failure -j "$jobs" --timeout 300 $filter)
}

echo "== clang-format"
find include src tools tests bench examples \( -name '*.c' -o -name '*.cpp' -o -name '*.h' \) \
  -print0 | xargs -0 clang-format --dry-run --Werror

# The plain run keeps the files that the players test makes.
rm -rf build/players
export MP4REC_PLAYERS_KEEP=$PWD/build/players
run_suite build "-DMP4REC_DEV=ON"
unset MP4REC_PLAYERS_KEEP
echo "== validators"
./scripts/validate.sh build/players/MainRoadClosed.mp4 \
  build/players/MainRoadCutAfterBothTracksFirstBatch.mp4 build/players/H265Closed.mp4 \
  build/players/H265CutAfterBothTracksFirstBatch.mp4
# clang with the same strict warnings; -O1 without debug information keeps
# the build short, and the long sweeps (cut replays, players, card faults, the
# open-first give-up), which the other stages run, are left out.
run_suite build-clang "-DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DMP4REC_DEV=ON
  -DMP4REC_BUILD_BENCH=OFF -DCMAKE_C_FLAGS_RELWITHDEBINFO=-O1 -DCMAKE_CXX_FLAGS_RELWITHDEBINFO=-O1" \
  "-E CutReplay|Players|CardFault|OpenFirstGivesUp"
run_suite build-asan "-DMP4REC_SANITIZE=address,undefined -DMP4REC_BUILD_BENCH=OFF" ""
# ThreadSanitizer needs a fixed address layout on kernels with wide mmap randomisation.
setarch "$(uname -m)" -R true 2>/dev/null && tsan_prefix="setarch $(uname -m) -R" || tsan_prefix=""
echo "== build-tsan"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMP4REC_SANITIZE=thread \
  -DMP4REC_BUILD_BENCH=OFF -DMP4REC_BUILD_TOOLS=OFF >/dev/null
cmake --build build-tsan -j "$jobs" >/dev/null
(cd build-tsan && $tsan_prefix ctest --output-on-failure -j "$jobs" --timeout 600)

# The cameras' processor; the plain build's tool records the reference files
# of the byte-identity test.
./scripts/test-target.sh build

echo "== build-fuzz"
cmake -S . -B build-fuzz -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMP4REC_SANITIZE=address,undefined -DMP4REC_BUILD_FUZZ=ON \
  -DMP4REC_BUILD_TESTS=OFF -DMP4REC_BUILD_TOOLS=OFF -DMP4REC_BUILD_BENCH=OFF >/dev/null
cmake --build build-fuzz -j "$jobs" --target fuzz >/dev/null
tests/fuzz/run.sh build-fuzz 20000
