#!/usr/bin/env bash
# Sizes on the cameras' processor (32-bit little-endian MIPS) and a CPU
# stand-in measured under qemu: guest instructions per MB recorded, counted by
# one qemu plugin on mipsel and on x86-64 alike. Prints a Markdown section.
#
#   bench/target.sh [native-build-dir]   (default: build)
#
# Needs build-mipsel/ from scripts/test-target.sh (the target's libraries)
# and a native build with the bench; builds build-mipsel-bench/ and the plugin.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
cd "$root"
native=$(realpath "${1:-build}")
triple=mipsel-linux-gnu
sysroot=/usr/$triple
work=${WORK:-/dev/shm/mp4rec-target-bench}
cache=${MP4REC_TARGET_CACHE:-/var/cache/mp4rec-target}
[ -f build-mipsel/target.env ] || {
  echo "run scripts/test-target.sh first" >&2
  exit 1
}
# shellcheck source=/dev/null
. build-mipsel/target.env
mkdir -p "$work"

# The target's build with the bench (no libavformat there: its own back ends only).
rm -f build-mipsel-bench/CMakeCache.txt  # the libraries' places may have changed
PKG_CONFIG_LIBDIR=$libav_tool/lib/pkgconfig cmake -S . -B build-mipsel-bench \
  -DCMAKE_TOOLCHAIN_FILE="cmake/toolchains/$triple.cmake" -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DMP4REC_BUILD_TESTS=OFF "-DCMAKE_FIND_ROOT_PATH=$libav_library;$libav_tool" \
  -DMP4REC_SHARED_LIBAV_PC_DIR="$libav_library/lib/pkgconfig" >/dev/null
cmake --build build-mipsel-bench -j2 >/dev/null
cmake --build "$native" -j2 --target mp4rec_bench mp4rec_tool >/dev/null

# The counting plugin, against the header of the qemu that runs it.
qemu_version=$(dpkg-query -W -f='${source:Version}' qemu-user)
plugin=$cache/qemu-insn-count-$(printf '%s' "$qemu_version" | tr -c 'A-Za-z0-9.\n' '_').so
if [ ! -f "$plugin" ]; then
  tmp=$(mktemp -d)
  (cd "$tmp" && apt-get source --download-only -qq "qemu=$qemu_version" >/dev/null 2>&1)
  tar xJf "$tmp"/qemu_*.orig.tar.xz -C "$tmp" --wildcards '*/include/qemu/qemu-plugin.h'
  cc -O2 -shared -fPIC -I"$(dirname "$(ls "$tmp"/*/include/qemu/qemu-plugin.h)")" \
    -o "$plugin" bench/qemu_insn_count.c
  rm -rf "$tmp"
fi

# Sizes.
kib() { echo "$(( ($(stat -c %s "$1") + 512) / 1024 )) KiB"; }
stripped() {  # strip program, file
  "$1" -o "$work/stripped" "$2"
  kib "$work/stripped"
}
segments() {  # size program, file: text / data / bss in bytes
  "$1" "$2" | awk 'NR == 2 { printf "%d / %d / %d", $1, $2, $3 }'
}
own_text() {  # size program, archive: text of the library's own objects
  "$1" -t "$2" | awk '/TOTALS/ { print $1 }'
}
mips=build-mipsel-bench
"$triple-gcc" -O2 -c -o "$work/host.o" examples/host.c -I include
"$triple-g++" -o "$work/host-static" "$work/host.o" "$mips/libmp4rec.a" \
  "$libav_library/lib/libavcodec.a" "$libav_library/lib/libavutil.a" -pthread -lm -latomic

echo "Made by \`bench/target.sh\`: $("$triple-g++" --version | head -1), build type RelWithDebInfo;"
echo "libavcodec $(PKG_CONFIG_LIBDIR=$libav_library/lib/pkgconfig pkg-config --modversion libavcodec)," \
  "static, from Debian's ffmpeg $(basename "$libav_library" | sed 's/.*ffmpeg_\(.*\)-[^-]*$/\1/')" \
  "source package, as \`scripts/test-target.sh\` builds it."
echo
echo "| | mipsel | x86-64 |"
echo "|---|---:|---:|"
echo "| \`libmp4rec.so\`, stripped (mipsel: the MP2-only libavcodec inside; x86-64: libavcodec shared) | $(stripped "$triple-strip" "$mips/libmp4rec.so") | $(stripped strip "$native/libmp4rec.so") |"
echo "| its text / data / bss, bytes | $(segments "$triple-size" "$mips/libmp4rec.so") | $(segments size "$native/libmp4rec.so") |"
echo "| the library's own code: text of the objects in \`libmp4rec.a\`, bytes | $(own_text "$triple-size" "$mips/libmp4rec.a") | $(own_text size "$native/libmp4rec.a") |"
echo "| \`examples/host.c\` linked with \`libmp4rec.a\` and the MP2-only libavcodec, stripped | $(stripped "$triple-strip" "$work/host-static") | |"
echo "| the \`mp4rec\` tool, stripped (mipsel: a libavcodec with the H.264 decoder inside) | $(stripped "$triple-strip" "$mips/tools/mp4rec") | $(stripped strip "$native/tools/mp4rec") |"
echo

# Instructions per MB: one 640x480 recording (1 Mbit/s H.264 + 16 kHz AAC, 20 s)
# through each back end, counted in the bench's recording child only (from its
# prctl(PR_SET_NAME) to its exit, every thread), user space only: the system
# calls run natively in the kernel and are not counted.
video=$work/v480-20s.h264 audio=$work/a16k-20s.aac
[ -s "$video" ] || ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi \
  -i testsrc2=size=640x480:rate=30 -t 20 -c:v libx264 -threads 1 -preset ultrafast \
  -profile:v main -pix_fmt yuv420p -bf 0 -g 30 -keyint_min 30 -sc_threshold 0 -b:v 1M \
  -maxrate 1M -bufsize 1M -x264-params repeat-headers=1 \
  -bsf:v h264_mp4toannexb,filter_units=remove_types=6 -f h264 "$video"
[ -s "$audio" ] || ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi \
  -i sine=frequency=1000:sample_rate=16000 -t 20 -c:a aac -profile:a aac_low -ac 1 -b:a 32k \
  -f adts "$audio"
mb=$(echo "$(stat -c %s "$video") $(stat -c %s "$audio")" | awk '{ printf "%.3f", ($1 + $2) / 1e6 }')
count() {  # arch, back end: instructions of the recording child
  local out=$work/counts
  rm -f "$out"
  if [ "$1" = mipsel ]; then
    qemu-mipsel -L "$sysroot" -plugin "$plugin,start=4192,first=15,out=$out" \
      build-mipsel-bench/bench/mp4rec_bench record --video "$video" --audio "$audio" \
      --width 640 --height 480 --reps 1 --dir "$work" --backends "$2" --quiet >/dev/null
  else
    qemu-x86_64 -plugin "$plugin,start=157,first=15,out=$out" "$native/bench/mp4rec_bench" record \
      --video "$video" --audio "$audio" --width 640 --height 480 --reps 1 --dir "$work" \
      --backends "$2" --quiet >/dev/null
  fi
  [ -s "$out" ] || {
    echo "no instruction count from the $2 run on $1" >&2
    exit 1
  }
  awk '{ n += $2 } END { print n }' "$out"
}
echo "Guest instructions per MB of input ($mb MB: 640x480 at 1 Mbit/s and 16 kHz AAC, 20 s),"
echo "counted by \`bench/qemu_insn_count.c\` under qemu-mipsel and qemu-x86_64 in the bench's"
echo "recording child (set-up, frames and close; every thread; user space only). \"net\" takes"
echo "off the harness's own cost (the \`baseline\` back end, which drops every frame)."
echo
echo "| back end | mipsel, per MB | x86-64, per MB | mipsel net | x86-64 net | net, mipsel / x86-64 |"
echo "|---|---:|---:|---:|---:|---:|"
declare -A per
for arch in mipsel x86-64; do
  for b in baseline fwrite mp4rec; do
    n=$(count "$arch" "$b")
    per[$arch.$b]=$(awk -v n="$n" -v mb="$mb" 'BEGIN { printf "%.0f", n / mb }')
  done
done
for b in fwrite mp4rec; do
  awk -v m="${per[mipsel.$b]}" -v x="${per[x86-64.$b]}" -v m0="${per[mipsel.baseline]}" \
    -v x0="${per[x86-64.baseline]}" -v b="$b" 'BEGIN {
      printf "| %s | %.2f M | %.2f M | %.2f M | %.2f M | %.2f |\n", b, m / 1e6, x / 1e6,
        (m - m0) / 1e6, (x - x0) / 1e6, (m - m0) / (x - x0) }'
done
echo
echo "The baseline itself: $(awk -v m="${per[mipsel.baseline]}" -v x="${per[x86-64.baseline]}" \
  'BEGIN { printf "%.2f M on mipsel, %.2f M on x86-64", m / 1e6, x / 1e6 }') per MB."
