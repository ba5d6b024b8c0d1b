#!/usr/bin/env bash
# Makes the seed corpora of the fuzz targets from media generated with ffmpeg,
# then runs each target for a fixed number of inputs with a fixed seed: RUNS
# (default 20000) for the parsers, a fifth of it for the three targets that
# make a file per input. Any crash, leak or sanitizer report fails the run; the input
# that caused it is kept in BUILD_DIR/fuzz-artifacts/.
#
#   tests/fuzz/run.sh BUILD_DIR [RUNS]
set -euo pipefail
build=$(cd "$1" && pwd)
runs=${2:-20000}
bin=$build/tests/fuzz
work=$build/fuzz-work
rm -rf "$work"
mkdir -p "$work"/{splitter,h264_intake,hevc_intake,jpeg_scan,audio_readers,media} \
  "$build/fuzz-artifacts"
ff() { ffmpeg -nostdin -hide_banner -loglevel error -y "$@"; }

media=$work/media
ff -f lavfi -i testsrc2=size=160x120:rate=25 -t 0.2 -c:v libx264 -threads 1 -preset ultrafast \
  -bf 0 -g 25 -x264-params repeat-headers=1 -bsf:v h264_mp4toannexb,filter_units=remove_types=6 \
  -f h264 "$media/v.h264"
# H.265 of two slice segments a picture, so that the slices join their pictures.
ff -f lavfi -i testsrc2=size=160x120:rate=25 -t 0.2 -c:v libx265 -threads 1 -preset ultrafast \
  -x265-params bframes=0:keyint=25:info=0:pools=1:frame-threads=1:slices=2:log-level=error \
  -bsf:v 'hevc_mp4toannexb,filter_units=remove_types=39|40' -f hevc "$media/v.hevc"
ff -f lavfi -i testsrc2=size=160x120:rate=25 -frames:v 1 -c:v mjpeg -f image2 "$media/p.jpg"
ff -f lavfi -i sine=frequency=1000:sample_rate=16000 -t 0.3 -c:a aac -ac 1 -b:a 32k -f adts \
  "$media/a.aac"
ff -f lavfi -i sine=frequency=1000:sample_rate=16000 -t 0.3 -c:a mp2 -ac 1 -b:a 64k -f mp2 \
  "$media/a.mp2"

# The splitter's and the readers' first byte is a parameter of the target.
seed() { { printf "$1"; cat "$2"; } > "$3"; }
seed '\377' <(head -c 700 "$media/v.h264") "$work/splitter/idr"
seed '\001' <(head -c 700 "$media/v.h264") "$work/splitter/fail"
cp "$media/v.h264" "$work/h264_intake/stream"
cp "$media/v.hevc" "$work/hevc_intake/stream"
cp "$media/p.jpg" "$work/jpeg_scan/picture"
seed '\000\001\377\330\377' "$media/p.jpg" "$work/jpeg_scan/filled"
seed '\377' "$media/a.aac" "$work/audio_readers/adts"
seed '\377' "$media/a.mp2" "$work/audio_readers/mp2"
seed '\002' "$media/a.aac" "$work/audio_readers/small"

for target in splitter h264_intake hevc_intake jpeg_scan audio_readers; do
  n=$runs
  case $target in h264_intake | hevc_intake | jpeg_scan) n=$((runs / 5)) ;; esac
  start=$(date +%s)
  "$bin/fuzz_$target" -runs="$n" -seed=1 -max_len=65536 -timeout=20 -close_fd_mask=1 \
    -artifact_prefix="$build/fuzz-artifacts/$target-" "$work/$target" 2> "$work/$target.log" || {
    tail -n 60 "$work/$target.log"
    echo "fuzz_$target failed" >&2
    exit 1
  }
  echo "fuzz_$target: $n inputs in $(($(date +%s) - start)) s"
done
