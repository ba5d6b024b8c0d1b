#!/usr/bin/env bash
# The library, the tool and the whole test suite on the cameras' processor,
# 32-bit little-endian MIPS, under qemu-mipsel (Debian, as root).
#
#   scripts/test-target.sh [NATIVE_BUILD_DIR]
#
# Installs the cross compiler and the emulator, builds for the target from
# Debian's source packages a minimal static libavcodec (the MP2 encoder, for
# the shared library; a second one with the H.264 and H.265 decoders too, for
# the tool and the tests) and GoogleTest, cross-builds into build-mipsel/ and
# runs every suite through CTest. The target's libraries are cached under
# $MP4REC_TARGET_CACHE (default /var/cache/mp4rec-target), keyed by source
# version, compiler and recipe. NATIVE_BUILD_DIR holds a native build whose
# tool records the reference files of the byte-identity test; without it one
# is built in build-mipsel-native/.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD

triple=mipsel-linux-gnu
./scripts/install-deps.sh build-essential cmake pkg-config dpkg-dev xz-utils ccache ffmpeg \
  libavcodec-dev libavutil-dev "g++-$triple" qemu-user
jobs=$(nproc)
cache=${MP4REC_TARGET_CACHE:-/var/cache/mp4rec-target}
mkdir -p "$cache"

# Debian's source packages: add deb-src entries for the Debian archives
# configured for binaries, unless some are there already.
if ! apt-cache showsrc ffmpeg 2>/dev/null | grep -q '^Package: ffmpeg'; then
  if [ -f /etc/apt/sources.list.d/debian.sources ]; then
    sed 's/^Types: deb$/Types: deb-src/' /etc/apt/sources.list.d/debian.sources \
      >/etc/apt/sources.list.d/mp4rec-deb-src.sources
  else
    grep -h '^deb .*debian' /etc/apt/sources.list | sed 's/^deb /deb-src /' \
      >/etc/apt/sources.list.d/mp4rec-deb-src.list
  fi
  apt-get update -qq
fi

# The version apt-get source would fetch, e.g. ffmpeg_5.1.9-0+deb12u1.
source_version() {
  apt-get source --print-uris "$1" 2>/dev/null | sed -n "s/^'[^']*' \($1_[^ ]*\)\.dsc .*/\1/p"
}
compiler=$("$triple-gcc" -dumpfullversion)
key() { printf '%s' "$*" | md5sum | cut -c1-10; }

# Unpacks a source package into a fresh directory; prints its path.
unpack() {
  local dir=$cache/src/$1
  rm -rf "$dir" && mkdir -p "$dir"
  (cd "$dir" && apt-get source -qq "$1" >/dev/null 2>&1) || {
    echo "apt-get source $1 failed" >&2
    exit 1
  }
  find "$dir" -mindepth 1 -maxdepth 1 -type d
}

# Runs a build step quietly; on failure shows the end of its log.
quietly() {
  local log=$1
  shift
  "$@" >"$log" 2>&1 || {
    tail -40 "$log" >&2
    exit 1
  }
}

# libavcodec + libavutil, static, for the target: nothing but the named codecs.
libav_flags=(--enable-cross-compile "--cross-prefix=$triple-" --arch=mips --target-os=linux
  --disable-everything --disable-programs --disable-doc --disable-avdevice --disable-avformat
  --disable-swscale --disable-swresample --disable-postproc --disable-avfilter --disable-network
  --disable-asm --disable-autodetect --enable-pic --enable-static --disable-shared)
ffmpeg_version=$(source_version ffmpeg)
ffmpeg_src=""
build_libav() {  # variable, name, codec flags...: sets the variable to the prefix
  local -n prefix=$1
  local name=$2
  shift 2
  prefix=$cache/libav-$name-$ffmpeg_version-$(key "$compiler" "${libav_flags[*]}" "$*")
  [ -f "$prefix/.complete" ] && return
  echo "building libavcodec ($name) for $triple"
  [ -n "$ffmpeg_src" ] || ffmpeg_src=$(unpack ffmpeg)
  rm -rf "$prefix" "$cache/build-libav" && mkdir -p "$cache/build-libav"
  (
    cd "$cache/build-libav"
    quietly configure.log "$ffmpeg_src/configure" "--prefix=$prefix" "${libav_flags[@]}" "$@"
    quietly make.log make -j"$jobs" install
  )
  rm -rf "$cache/build-libav"
  touch "$prefix/.complete"
}
build_libav libav_library mp2 --enable-encoder=mp2
build_libav libav_tool mp2-h264-hevc --enable-encoder=mp2 --enable-decoder=h264 \
  --enable-decoder=hevc

gtest_version=$(source_version googletest)
gtest=$cache/gtest-$gtest_version-$(key "$compiler" "$(cat cmake/toolchains/$triple.cmake)")
if [ ! -f "$gtest/.complete" ]; then
  echo "building GoogleTest for $triple"
  gtest_src=$(unpack googletest)
  rm -rf "$gtest" "$cache/build-gtest"
  quietly "$cache/gtest.log" cmake -S "$gtest_src" -B "$cache/build-gtest" \
    -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchains/$triple.cmake" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_POSITION_INDEPENDENT_CODE=ON -DCMAKE_INSTALL_PREFIX="$gtest"
  quietly "$cache/gtest.log" cmake --build "$cache/build-gtest" -j "$jobs" --target install
  rm -rf "$cache/build-gtest"
  touch "$gtest/.complete"
fi
rm -rf "$cache/src"

# The native tool that records the byte-identity test's reference files.
native=${1:-build-mipsel-native}
if [ ! -x "$native/tools/mp4rec" ]; then
  echo "== $native (native tool)"
  cmake -S . -B "$native" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMP4REC_BUILD_TESTS=OFF \
    -DMP4REC_BUILD_BENCH=OFF >/dev/null
  cmake --build "$native" -j "$jobs" --target mp4rec_tool >/dev/null
fi

echo "== build-mipsel"
# Compiled objects are cached too (ccache, keyed by the preprocessed source and
# flags, paths taken relative to the checkout).
export CCACHE_DIR=$cache/ccache CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=true CCACHE_MAXSIZE=1G
# The native build's optimisation without its debug information, which would
# cost a quarter more compile time.
opt="-O2 -DNDEBUG"
# The tool and the tests link the libavcodec with the decoders; the
# shared library the MP2-only one, as a camera's firmware would.
export PKG_CONFIG_LIBDIR=$libav_tool/lib/pkgconfig
rm -f build-mipsel/CMakeCache.txt  # pkg-config results are cached: look afresh
cmake -S . -B build-mipsel -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/$triple.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DMP4REC_BUILD_BENCH=OFF \
  "-DCMAKE_C_FLAGS_RELWITHDEBINFO=$opt" "-DCMAKE_CXX_FLAGS_RELWITHDEBINFO=$opt" \
  -DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache \
  "-DCMAKE_FIND_ROOT_PATH=$libav_library;$libav_tool;$gtest" \
  -DMP4REC_SHARED_LIBAV_PC_DIR="$libav_library/lib/pkgconfig" \
  -DMP4REC_HOST_TOOL="$(realpath "$native/tools/mp4rec")" >/dev/null
cmake --build build-mipsel -j "$jobs" >/dev/null
# Where the target's libraries are, for bench/target.sh.
printf 'libav_library=%q\nlibav_tool=%q\ngtest=%q\nnative=%q\n' "$libav_library" "$libav_tool" \
  "$gtest" "$(realpath "$native")" >build-mipsel/target.env
(cd build-mipsel && ctest --output-on-failure -j "$jobs" --timeout 600)
