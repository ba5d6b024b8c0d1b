#!/usr/bin/env bash
# Checks MP4 files with six players and parsers that nobody here wrote:
#   ffprobe         both tracks, each track's duration within one sample of its samples
#   ffmpeg          decodes every sample of both tracks with no error line
#   gst-discoverer  GStreamer sees both tracks and the file's duration
#   gst-qtdemux     a qtdemux pipeline decodes every video and audio buffer
#   mp4box.js       the parser behind many web players (npm, run with node)
#   chromium        headless Chromium plays the file from a 127.0.0.1 server with
#                   byte ranges: metadata, seek to the middle, play to the end
# It installs what is missing (Debian packages as root, the npm packages pinned
# in scripts/validate/ into a build directory), prints one line per validator
# and file and a summary, and exits with 1 when a check failed.
#
#   scripts/validate.sh [--only NAME,...] [--no-install] FILE...
#
# MP4REC_VALIDATE_DIR is where the npm packages go (default build-validate/ in
# the repository).
set -uo pipefail
repo=$(cd "$(dirname "$0")/.." && pwd)
all=(ffprobe ffmpeg gst-discoverer gst-qtdemux mp4box.js chromium)
only=("${all[@]}")
install=1
while [ $# -gt 0 ]; do
  case $1 in
    --only) IFS=, read -r -a only <<<"$2"; shift 2 ;;
    --no-install) install=0; shift ;;
    -h|--help) sed -n '2,19p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    --) shift; break ;;
    -*) echo "unknown option $1" >&2; exit 2 ;;
    *) break ;;
  esac
done
[ $# -gt 0 ] || { echo "usage: $0 [--only NAME,...] [--no-install] FILE..." >&2; exit 2; }
wanted() { [[ " ${only[*]} " == *" $1 "* ]]; }

# --- what each validator needs ---------------------------------------------
node_dir=${MP4REC_VALIDATE_DIR:-$repo/build-validate}
packages=()
if wanted ffprobe || wanted ffmpeg || wanted gst-qtdemux || wanted gst-discoverer; then
  packages+=(ffmpeg)  # ffprobe's figures are what the GStreamer checks compare with
fi
if wanted gst-discoverer || wanted gst-qtdemux; then
  packages+=(gstreamer1.0-tools gstreamer1.0-plugins-base-apps gstreamer1.0-plugins-good
             gstreamer1.0-libav)
fi
if wanted mp4box.js || wanted chromium; then command -v npm >/dev/null || packages+=(nodejs npm); fi
wanted chromium && packages+=(chromium)
if [ "$install" = 1 ] && [ ${#packages[@]} -gt 0 ]; then
  if [ "$(id -u)" = 0 ]; then
    "$repo/scripts/install-deps.sh" "${packages[@]}" || echo "could not install: ${packages[*]}" >&2
  else
    echo "not root: using what is installed" >&2
  fi
fi
if [ "$install" = 1 ] && { wanted mp4box.js || wanted chromium; } && command -v npm >/dev/null &&
   ! cmp -s "$repo/scripts/validate/package-lock.json" "$node_dir/package-lock.json"; then
  mkdir -p "$node_dir"
  cp "$repo/scripts/validate/package.json" "$repo/scripts/validate/package-lock.json" "$node_dir/"
  (cd "$node_dir" && npm ci --no-audit --no-fund --loglevel=error >/dev/null) ||
    echo "npm could not install the validators' packages" >&2
fi

# --- figures of a file as ffprobe reads them --------------------------------
# Per track kind: codec, packets, the span of the samples (first pts to the
# last pts plus one frame), the frame (the most common packet duration), the
# track's duration and (audio) the sample
# rate. The span leaves out the last packet's own duration, which a demuxer
# stretches to the track's duration when the track claims more time than its
# samples hold.
declare -A fig
probe() {
  local f=$1 kind
  fig=()
  for kind in v a; do
    local out
    out=$(ffprobe -v error -select_streams "$kind:0" \
            -show_entries stream=codec_name,duration,sample_rate:packet=pts_time,duration_time \
            -of compact "$f" 2>/dev/null) || return 1
    eval "$(awk -F'|' -v k="$kind" '
      { delete f; for (i = 2; i <= NF; i++) { split($i, kv, "="); f[kv[1]] = kv[2] } }
      $1 == "packet" && f["pts_time"] != "N/A" {
        n++; p = f["pts_time"] + 0; d = (f["duration_time"] == "N/A") ? 0 : f["duration_time"] + 0
        if (n == 1 || p < first) first = p
        if (n == 1 || p > last) last = p
        if (++seen[d] > seen[frame] || frame == "") frame = d
      }
      $1 == "stream" { codec = f["codec_name"]; rate = f["sample_rate"]; dur = f["duration"] }
      END {
        printf "fig[%s_codec]=%s fig[%s_packets]=%d fig[%s_span]=%.6f fig[%s_frame]=%.6f ",
               k, codec, k, n, k, (n ? last - first + frame : 0), k, frame
        printf "fig[%s_duration]=%s fig[%s_rate]=%s\n",
               k, (dur == "" ? "N/A" : dur), k, (rate == "" ? "N/A" : rate) }' <<<"$out")"
  done
}
# What gst-discoverer-1.0 says about the file (shared by both GStreamer checks).
discovered=""
discover() {
  discovered=$(timeout 120 gst-discoverer-1.0 "$1" 2>&1)
  discovered_rc=$?
}
# awk as a calculator: prints 1 when the expression holds.
holds() { awk "BEGIN { exit !($1) }"; }
have() { command -v "$1" >/dev/null; }
tracks_present() { [ "${fig[v_packets]:-0}" -gt 0 ] && [ "${fig[a_packets]:-0}" -gt 0 ]; }

# --- the validators: each prints "OK ..." or "FAIL ..." or "SKIP ..." ------
check_ffprobe() {
  local f=$1 problems=() kind name warnings
  have ffprobe || { echo "SKIP ffprobe not installed"; return; }
  warnings=$(ffprobe -v warning -show_entries stream=index -of csv "$f" 2>&1 >/dev/null | head -3)
  [ -z "$warnings" ] || problems+=("$(tr '\n' ' ' <<<"$warnings")")
  for kind in v a; do
    name=$([ $kind = v ] && echo video || echo audio)
    if [ "${fig[${kind}_packets]:-0}" -eq 0 ]; then problems+=("no $name samples"); continue; fi
    if [ "${fig[${kind}_duration]}" = N/A ] ||
       ! holds "(${fig[${kind}_duration]} - ${fig[${kind}_span]})^2 <= ${fig[${kind}_frame]}^2 + 1e-9"; then
      problems+=("$name duration ${fig[${kind}_duration]} s but its samples span ${fig[${kind}_span]} s")
    fi
  done
  if [ ${#problems[@]} -gt 0 ]; then echo "FAIL $(IFS=';'; echo "${problems[*]}")"; return; fi
  echo "OK video ${fig[v_codec]} ${fig[v_packets]} samples ${fig[v_duration]} s," \
       "audio ${fig[a_codec]} ${fig[a_packets]} samples ${fig[a_duration]} s"
}

check_ffmpeg() {
  local f=$1 out counts video audio
  have ffmpeg || { echo "SKIP ffmpeg not installed"; return; }
  tracks_present || { echo "FAIL the file lacks a track with samples"; return; }
  # framecrc prints one line per decoded frame: "stream, dts, pts, duration, size, crc".
  out=$(mktemp)
  if ! ffmpeg -nostdin -v error -i "$f" -map 0:v:0 -map 0:a:0 -f framecrc - >"$out" 2>"$out.err" ||
     [ -s "$out.err" ]; then
    echo "FAIL $(head -3 "$out.err" | tr '\n' ' ')"
    rm -f "$out" "$out.err"
    return
  fi
  counts=$(awk -F, '!/^#/ { n[$1 + 0]++ } END { print n[0] + 0, n[1] + 0 }' "$out")
  rm -f "$out" "$out.err"
  read -r video audio <<<"$counts"
  if [ "$video" -ne "${fig[v_packets]}" ] || [ "$audio" -ne "${fig[a_packets]}" ]; then
    echo "FAIL decoded $video of ${fig[v_packets]} video and $audio of ${fig[a_packets]} audio samples"
    return
  fi
  echo "OK decoded all $video video and $audio audio samples, no error"
}

check_gst_discoverer() {
  local f=$1 out=$discovered duration expect tolerance
  have gst-discoverer-1.0 || { echo "SKIP gst-discoverer-1.0 not installed"; return; }
  if [ "$discovered_rc" -ne 0 ]; then
    echo "FAIL $(grep -m2 -iE 'error|fail' <<<"$out" | tr '\n' ' ')"
    return
  fi
  local problems=()
  grep -qE '^ +video #' <<<"$out" || problems+=("no video stream")
  grep -qE '^ +audio #' <<<"$out" || problems+=("no audio stream")
  duration=$(awk '/^ *Duration:/ { split($2, t, ":"); print t[1] * 3600 + t[2] * 60 + t[3]; exit }' <<<"$out")
  expect=$(awk -v v="${fig[v_span]:-0}" -v a="${fig[a_span]:-0}" 'BEGIN { print (v > a ? v : a) }')
  tolerance=$(awk -v v="${fig[v_frame]:-0}" -v a="${fig[a_frame]:-0}" 'BEGIN { print (v > a ? v : a) }')
  if [ -z "$duration" ] || ! holds "($duration - $expect)^2 <= $tolerance^2 + 1e-9"; then
    problems+=("duration ${duration:-none} s, the samples span $expect s")
  fi
  if [ ${#problems[@]} -gt 0 ]; then echo "FAIL $(IFS=';'; echo "${problems[*]}")"; return; fi
  echo "OK video and audio streams, $duration s"
}

check_gst_qtdemux() {
  local f=$1 dir rc frames samples seconds
  have gst-launch-1.0 || { echo "SKIP gst-launch-1.0 not installed"; return; }
  tracks_present || { echo "FAIL the file lacks a track with samples"; return; }
  # qtdemux exposes the streams that the discoverer saw; a missing one would
  # stall the pipeline.
  if ! grep -qE '^ +audio #' <<<"$discovered" || ! grep -qE '^ +video #' <<<"$discovered"; then
    echo "FAIL qtdemux does not expose both tracks"
    return
  fi
  # Each decoded picture is scaled to 16x16 I420 (384 bytes) and each decoded
  # audio sample converted to 16-bit mono, so the byte counts count them.
  dir=$(mktemp -d)
  timeout 180 gst-launch-1.0 -q filesrc location="$f" ! qtdemux name=d \
    d.video_0 ! queue ! decodebin ! videoconvert ! videoscale ! \
      video/x-raw,format=I420,width=16,height=16 ! filesink location="$dir/v" \
    d.audio_0 ! queue ! decodebin ! audioconvert ! audio/x-raw,format=S16LE,channels=1 ! \
      filesink location="$dir/a" >"$dir/log" 2>&1
  rc=$?
  frames=$(( $(stat -c %s "$dir/v" 2>/dev/null || echo 0) / 384 ))
  samples=$(( $(stat -c %s "$dir/a" 2>/dev/null || echo 0) / 2 ))
  local log
  log=$(grep -m3 -E 'ERROR|WARNING|CRITICAL' "$dir/log" | tr '\n' ' ')
  rm -rf "$dir"
  if [ $rc -ne 0 ]; then
    echo "FAIL $([ $rc = 124 ] && echo "no end of stream after 180 s (a track missing?)" || echo "exit $rc") $log"
    return
  fi
  [ -z "$log" ] || { echo "FAIL $log"; return; }
  seconds=$(awk -v s="$samples" -v r="${fig[a_rate]}" 'BEGIN { printf "%.6f", s / r }')
  if [ "$frames" -ne "${fig[v_packets]}" ] ||
     ! holds "($seconds - ${fig[a_span]})^2 <= ${fig[a_frame]}^2 + 1e-9"; then
    echo "FAIL decoded $frames of ${fig[v_packets]} pictures and $seconds s of ${fig[a_span]} s of audio"
    return
  fi
  echo "OK decoded all $frames pictures and $seconds s of audio"
}

check_node() {  # script, file
  have node || { echo "SKIP node not installed"; return; }
  [ -d "$node_dir/node_modules" ] || { echo "SKIP npm packages not installed in $node_dir"; return; }
  # Run from beside node_modules, where the scripts' imports are found.
  cp "$repo/scripts/validate/$1" "$node_dir/" &&
    timeout 300 node "$node_dir/$1" "$(realpath "$2")" 2>&1 | tail -1
}
check_mp4box_js() { check_node mp4box-check.mjs "$1"; }
check_chromium() {
  have chromium || { echo "SKIP chromium not installed"; return; }
  if [ "${fig[v_codec]:-}" != h264 ] || [ "${fig[a_codec]:-}" != aac ]; then
    echo "SKIP Chromium plays H.264 with AAC, not ${fig[v_codec]:-?} with ${fig[a_codec]:-?}"
    return
  fi
  check_node chromium-play.mjs "$1"
}

# --- run ---------------------------------------------------------------------
declare -A tally=([OK]=0 [FAIL]=0 [SKIP]=0)
for f in "$@"; do
  echo "$f"
  if [ ! -r "$f" ]; then
    echo "  cannot read the file"
    tally[FAIL]=$((tally[FAIL] + 1))
    continue
  fi
  have ffprobe && probe "$f"
  have gst-discoverer-1.0 && discover "$f"
  for v in "${all[@]}"; do
    wanted "$v" || continue
    line=$("check_${v//[-.]/_}" "$f" | tr -d '\000')
    verdict=${line%% *}
    [[ $verdict == OK || $verdict == FAIL || $verdict == SKIP ]] || { verdict=FAIL; line="FAIL $line"; }
    tally[$verdict]=$((tally[$verdict] + 1))
    printf '  %-15s %s\n' "$v" "$line"
  done
done
echo "summary: $# file(s), ${tally[OK]} OK, ${tally[FAIL]} FAIL, ${tally[SKIP]} SKIP"
[ "${tally[FAIL]}" -eq 0 ]
