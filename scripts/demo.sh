#!/usr/bin/env bash
# Installs what the library and the tool need (Debian, as root; quiet when all
# is there), builds them in build-demo/, records the built-in sample through
# the public calls into ./recordings/ and checks the new file's index.
set -euo pipefail
cd "$(dirname "$0")/.."

packages=(build-essential cmake pkg-config libavcodec-dev libavutil-dev)
./scripts/install-deps.sh "${packages[@]}"

cmake -S . -B build-demo -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMP4REC_BUILD_TESTS=OFF \
  -DMP4REC_BUILD_BENCH=OFF >/dev/null
cmake --build build-demo -j "$(nproc)" >/dev/null
./build-demo/tools/mp4rec record --no-progress
./build-demo/tools/mp4rec inspect "$(ls -t recordings/*.mp4 | head -n 1)"
