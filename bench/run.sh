#!/usr/bin/env bash
# Runs the benchmarks and writes bench/RESULTS.md.
#
#   bench/run.sh [build-dir]        (default: build; configured and built if needed)
#
# Environment: REPS (default 5), WORK (scratch directory on tmpfs, default
# /dev/shm/mp4rec-bench), SLOW_REALTIME=0 to skip the one-minute real-time
# slow-card runs, PROFILE=0 to skip the callgrind profile.
#
# The inputs are made here with ffmpeg (x264 without SEI, GOP 30; ADTS AAC
# 16 kHz mono) and parsed into memory by the bench program before anything is
# timed. Every back end runs in a child process of its own; the figures are
# medians of REPS runs, the back ends taking turns within each repetition.
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
build=${1:-$root/build}
reps=${REPS:-5}
work=${WORK:-/dev/shm/mp4rec-bench}
out=$root/bench/RESULTS.md

if [ ! -x "$build/bench/mp4rec_bench" ]; then
  cmake -S "$root" -B "$build" -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
  cmake --build "$build" -j2 --target mp4rec_bench >/dev/null
fi
bin=$build/bench/mp4rec_bench
mkdir -p "$work/keep"

# Raise the bench's priority when allowed: the machine may be shared, and a
# frame call preempted by another process would count as the back end's
# latency. Real-time FIFO priority 10 when root (the kernel still keeps 5 % of
# each second for everyone else), else as it is.
prio=()
if [ "$(id -u)" = 0 ] && chrt -f 10 true 2>/dev/null; then prio=(chrt -f 10); fi

x264() {  # size, bitrate, output
  [ -s "$3" ] && return
  ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "testsrc2=size=$1:rate=30" -t 60 \
    -c:v libx264 -threads 1 -preset ultrafast -profile:v main -pix_fmt yuv420p -bf 0 \
    -g 30 -keyint_min 30 -sc_threshold 0 -b:v "$2" -maxrate "$2" -bufsize "$2" \
    -x264-params repeat-headers=1 -bsf:v h264_mp4toannexb,filter_units=remove_types=6 -f h264 "$3"
}
x265() {  # size, bitrate, output (single-threaded, no B pictures, no SEI)
  [ -s "$3" ] && return
  ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi -i "testsrc2=size=$1:rate=30" -t 60 \
    -c:v libx265 -threads 1 -preset ultrafast -pix_fmt yuv420p -b:v "$2" \
    -x265-params "bframes=0:keyint=30:min-keyint=30:scenecut=0:repeat-headers=1:info=0:pools=1:frame-threads=1:vbv-maxrate=${2%M}000:vbv-bufsize=${2%M}000:log-level=error" \
    -bsf:v 'hevc_mp4toannexb,filter_units=remove_types=39|40' -f hevc "$3"
}
echo "making inputs in $work" >&2
x264 1920x1080 4M "$work/v1080.h264"
x264 640x480 1M "$work/v480.h264"
x265 1920x1080 4M "$work/v1080.hevc"
[ -s "$work/a16k.aac" ] || ffmpeg -nostdin -hide_banner -loglevel error -y -f lavfi \
  -i sine=frequency=1000:sample_rate=16000 -t 60 -c:a aac -profile:a aac_low -ac 1 -b:a 32k \
  -f adts "$work/a16k.aac"

tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
section() { printf '\n## %s\n\n' "$1" >>"$tmp/body"; }
text() { printf '%s\n' "$@" >>"$tmp/body"; }
cmd() {  # shows the command, runs it with the raised priority, appends its output
  printf '```\n%s\n```\n\n' "${prio[*]:+${prio[*]} }${*//$root\//}" >>"$tmp/body"
  echo "running: $*" >&2
  "${prio[@]}" "$@" --quiet >>"$tmp/body"
}
cmd_plain() {  # the same at ordinary priority
  printf '```\n%s\n```\n\n' "${*//$root\//}" >>"$tmp/body"
  echo "running: $*" >&2
  "$@" --quiet >>"$tmp/body"
}
validate() {  # kept recordings: ffprobe's frame counts and ffmpeg's decode errors
  text "" "Recordings kept from the last run, read by ffprobe and decoded by ffmpeg:" ""
  text "| file | video frames | audio frames | ffmpeg decode errors |" "|---|---:|---:|---|"
  for f in "$work"/keep/*.mp4; do
    [ -e "$f" ] || continue
    local v a e
    v=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames -of csv=p=0 "$f" || echo failed)
    a=$(ffprobe -v error -count_frames -select_streams a:0 -show_entries stream=nb_read_frames -of csv=p=0 "$f" || echo failed)
    e=$( (ffmpeg -nostdin -v error -i "$f" -f null - 2>&1 || echo "exit status $?") | head -3 | tr '\n' ' ')
    text "| $(basename "$f") | $v | $a | ${e:-none} |"
    rm -f "$f"
  done
}

v1080=(--video "$work/v1080.h264" --audio "$work/a16k.aac" --width 1920 --height 1080)
v480=(--video "$work/v480.h264" --audio "$work/a16k.aac" --width 640 --height 480)

section "1080p30, 4 Mbit/s, into tmpfs: frames as fast as the back end takes them"
text "The throughput figures: CPU, write calls, bytes and memory. The frame-call latency here" \
  "includes whatever a back end does when its producer runs ahead of its writer."
cmd "$bin" record "${v1080[@]}" --reps "$reps" --dir "$work" --keep "$work/keep"
validate

section "1080p30 into tmpfs: frames as fast as taken, at ordinary priority"
text "The same without the raised priority: a writer thread that is not scheduled at once lets" \
  "its producer run ahead; the frame calls then show what the back end does when that happens."
cmd_plain "$bin" record "${v1080[@]}" --reps 3 --dir "$work" --backends baseline,fwrite,fwrite-thread,mp4rec,lavf

section "1080p30 into tmpfs: frames as fast as taken, on one core"
text "All threads pinned to one core (taskset -c 0, ordinary priority): the CPU cost without" \
  "the two cores' caches handing the buffered data from one to the other."
cmd_plain taskset -c 0 "$bin" record "${v1080[@]}" --reps "$reps" --dir "$work" \
  --backends baseline,fwrite,fwrite-thread,mp4rec,lavf,lavf-frag

section "1080p30 into tmpfs: frames at 10 × real time"
text "The latency figures: frames handed over at ten times the pace of their time stamps" \
  "(300 frames/s, 5 MB/s), so that a writer thread has time between frames as in a camera." \
  "The CPU figures are net of the baseline, which pays the harness's sleeps and wake-ups."
cmd "$bin" record "${v1080[@]}" --reps "$reps" --dir "$work" --speed 10 \
  --backends baseline,fwrite,fwrite-thread,mp4rec,lavf,lavf-frag

section "640x480, 1 Mbit/s, into tmpfs: frames as fast as the back end takes them"
cmd "$bin" record "${v480[@]}" --reps "$reps" --dir "$work" --keep "$work/keep"
validate

section "1080p30 H.265, 4 Mbit/s, into tmpfs: frames as fast as the back end takes them"
text "The same road with video format 3 (x265, same shape as the H.264 input). libavformat's" \
  "back ends take H.264 only here; the floor is the same bytes written plainly."
cmd "$bin" record --video "$work/v1080.hevc" --hevc --audio "$work/a16k.aac" --width 1920 \
  --height 1080 --reps "$reps" --dir "$work" --keep "$work/keep" \
  --backends baseline,fwrite,fwrite-thread,mp4rec
validate

section "Slow card: 1080p into a stream paced to 10 MB/s, frames as fast as taken"
cmd "$bin" record "${v1080[@]}" --reps "$reps" --dir "$work" --throttle-mbps 10 \
  --backends baseline,fwrite,fwrite-thread,mp4rec,lavf,lavf-frag

if [ "${SLOW_REALTIME:-1}" != 0 ]; then
  section "Slow card: 1080p into a stream paced to 10 MB/s, frames at their time stamps"
  cmd "$bin" record "${v1080[@]}" --reps 1 --dir "$work" --throttle-mbps 10 --speed 1 \
    --backends fwrite,mp4rec,lavf,lavf-frag
fi

section "Durability: mode 0 against mode 1"
text "The two settings of mp4_set_durability side by side (mp4rec above runs the default, mode 1)." \
  "On tmpfs a sync costs next to nothing; on the paced card a sync returns once every write so" \
  "far has passed and the card has then been busy --sync-ms more (committing its cache)."
cmd "$bin" record "${v1080[@]}" --reps "$reps" --dir "$work" --speed 10 \
  --backends baseline,fwrite,mp4rec-m0,mp4rec-m1,lavf,lavf-frag
cmd "$bin" record "${v1080[@]}" --reps "$reps" --dir "$work" --throttle-mbps 10 --sync-ms 10 \
  --backends baseline,fwrite,mp4rec-m0,mp4rec-m1,lavf,lavf-frag
if [ "${SLOW_REALTIME:-1}" != 0 ]; then
  text "At camera pace into the 10 MB/s card with 10 ms syncs, into a 2 MB/s card with 40 ms" \
    "syncs, and a 1 Mbit/s stream (one video node every two seconds):"
  cmd "$bin" record "${v1080[@]}" --reps 1 --dir "$work" --throttle-mbps 10 --sync-ms 10 \
    --speed 1 --backends mp4rec-m0,mp4rec-m1,lavf,lavf-frag
  cmd "$bin" record "${v1080[@]}" --reps 1 --dir "$work" --throttle-mbps 2 --sync-ms 40 \
    --speed 1 --backends mp4rec-m0,mp4rec-m1,lavf-frag
  cmd "$bin" record "${v480[@]}" --reps 1 --dir "$work" --throttle-mbps 10 --sync-ms 10 \
    --speed 1 --backends mp4rec-m0,mp4rec-m1
fi

section "Head creation"
cmd "$bin" head --dir "$work" --reps "$reps"
section "One index update as the recording grows"
cmd "$bin" update --dir "$work" --minutes 60 --at 1,10,60

section "System calls by kind (strace -f -c, one 1080p recording per back end)"
text "Whole child process, set-up included (for mp4rec: the pre-opened head too)." ""
text "| back end | write | lseek | fsync/fdatasync | other writes (pwrite, writev) |" "|---|---:|---:|---:|---:|"
for b in fwrite mp4rec-m0 mp4rec-m1 lavf lavf-faststart lavf-frag; do
  strace -f -c -o "$tmp/strace" -e trace=write,pwrite64,writev,lseek,fsync,fdatasync \
    "$bin" record "${v1080[@]}" --reps 1 --dir "$work" --backends "$b" --quiet >/dev/null 2>"$tmp/err" || continue
  grep -q 'not built' "$tmp/err" && continue
  count() { awk -v s="$1" '$NF == s { n = $4 } END { print n + 0 }' "$tmp/strace"; }
  w=$(count write); l=$(count lseek); fs=$(( $(count fsync) + $(count fdatasync) ))
  o=$(( $(count pwrite64) + $(count writev) ))
  text "| $b | ${w:-0} | ${l:-0} | $fs | $o |"
done

if [ "${PROFILE:-1}" != 0 ] && command -v valgrind >/dev/null; then
  section "User-space instructions of mp4rec's recording (callgrind)"
  text "One 1080p recording; collected in the recording child's frame loop and in the writer" \
    "thread only (inclusive instruction counts, top entries)."
  valgrind --tool=callgrind --callgrind-out-file="$tmp/cg.out.%p" --trace-children=yes \
    --collect-atstart=no --toggle-collect='*run_in_child*' --toggle-collect='DataBuffer_Proc' \
    "$bin" record "${v1080[@]}" --reps 1 --dir "$work" --backends mp4rec --quiet >/dev/null 2>&1 || true
  text '```'
  for prof in $(ls -S "$tmp"/cg.out.* 2>/dev/null | head -1); do
    callgrind_annotate --inclusive=yes "$prof" 2>/dev/null | sed -n '/^ *Ir/,$p' |
      grep -v '^-' | head -45 | cut -c1-160 >>"$tmp/body" || true
  done
  text '```'
fi

if [ -f "$root/build-mipsel/target.env" ]; then
  section "On the target: 32-bit MIPS (sizes, and instructions under qemu)"
  "$root/bench/target.sh" "$build" >>"$tmp/body"
fi

{
  echo "# Benchmark results"
  echo
  echo "Made by \`bench/run.sh\` on $(date -u '+%Y-%m-%d %H:%M UTC') at commit $(git -C "$root" rev-parse --short HEAD)."
  echo
  echo "## Machine"
  echo
  echo "- CPU: $(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ //'), $(nproc) cores; $(free -g | awk '/Mem:/ {print $2}') GiB memory"
  echo "- Kernel: $(uname -sr); output on tmpfs ($work)"
  echo "- Load average when the run started: $(cut -d' ' -f1-3 /proc/loadavg) (the machine may be shared with other work; the bench runs with real-time FIFO priority 10 when it may)"
  echo "- Compiler: $(${CXX:-c++} --version | head -1); build type $(grep -m1 CMAKE_BUILD_TYPE: "$build/CMakeCache.txt" | cut -d= -f2)"
  echo "- libavformat $(pkg-config --modversion libavformat), $(ffmpeg -version | head -1 | cut -d' ' -f1-3)"
  echo
  cat "$root/bench/analysis.md" "$root/bench/method.md"
  cat "$tmp/body"
} >"$out"
echo "wrote $out" >&2
