#!/usr/bin/env bash
# Makes the built-in sample that `mp4rec record` records when given no input:
# five seconds of H.264 (Annex B, main profile, 320x240 at 15 frames/s, SPS+PPS
# and an IDR picture every second, no SEI, no B pictures) and of AAC-LC (ADTS,
# 16 kHz mono). Needs ffmpeg with libx264. Run it from anywhere; it writes
# sample.h264 and sample.aac next to itself.
set -euo pipefail
cd "$(dirname "$0")"

ffmpeg -nostdin -hide_banner -loglevel error -y \
  -f lavfi -i "testsrc2=size=320x240:rate=15" -t 5 \
  -c:v libx264 -threads 1 -preset medium -profile:v main -pix_fmt yuv420p \
  -bf 0 -g 15 -keyint_min 15 -sc_threshold 0 -crf 30 \
  -x264-params repeat-headers=1 \
  -bsf:v h264_mp4toannexb,filter_units=remove_types=6 -f h264 sample.h264

ffmpeg -nostdin -hide_banner -loglevel error -y \
  -f lavfi -i "sine=frequency=880:beep_factor=4:sample_rate=16000" -t 5 \
  -c:a aac -profile:a aac_low -ac 1 -ar 16000 -b:a 24k -f adts sample.aac

ls -l sample.h264 sample.aac
