#!/usr/bin/env bash
# nvr_sim end to end: a real x264 clip is fed to 32 cameras for 20 s; every recording must
# decode with ffprobe, without errors, to exactly the frames its recorder reported, no
# recorder may lose a frame, and the run must end with nothing left in the cache.
#   nvr_sim_e2e.sh NVR_SIM [EMULATED]     exit 77 (skip) without ffmpeg or under an emulator
set -euo pipefail

sim=$1
skip() { echo "SKIP: $*"; exit 77; }
fail() { echo "FAIL: $*"; exit 1; }

[ "${2:-0}" = 1 ] && skip "target build: ffmpeg decodes on the host only"
command -v ffmpeg >/dev/null && command -v ffprobe >/dev/null || skip "ffmpeg/ffprobe are not installed"
# (grep -q would end the pipe early, and pipefail would call that a failure)
encoders=$(ffmpeg -hide_banner -encoders 2>/dev/null || true)
grep -q libx264 <<<"$encoders" || skip "ffmpeg has no libx264"

dir=$(mktemp -d /tmp/nvr_sim_e2e.XXXXXX)
trap 'rm -rf "$dir"' EXIT
# Two key frames in four seconds: looping it gives GOPs of 50 and joins at an IDR.
ffmpeg -v error -y -f lavfi -i testsrc=size=640x360:rate=25 -t 4 -c:v libx264 -g 50 -bf 0 \
  -pix_fmt yuv420p -f h264 "$dir/clip.h264"

status=0
VESK_UTILITY_ROOT="$dir/root" "$sim" --input "$dir/clip.h264" --channels 32 --seconds 20 \
  --out "$dir/rec" >"$dir/log" 2>&1 || status=$?
sed -n '/===== nvr_sim summary/,$p' "$dir/log"
[ "$status" -eq 0 ] || { tail -n 60 "$dir/log"; fail "nvr_sim exited with $status"; }
grep -q '^result:   OK$' "$dir/log" || fail "the summary does not say OK"
grep -q '^leftovers: none:' "$dir/log" || fail "something was left in the cache"

# Summary rows: consumer chn stream read dropped written logos [flags]
rows=$(awk '$1 == "record" && NF >= 7' "$dir/log")
[ "$(printf '%s\n' "$rows" | wc -l)" -eq 32 ] || fail "expected 32 recorder rows"
while read -r _ chn _ read dropped written _ rest; do
  file=$(printf '%s/rec/ch%02d.h264' "$dir" "$chn")
  [ -z "$rest" ] || fail "channel $chn: $rest"
  [ "$dropped" -eq 0 ] || fail "channel $chn: recorder dropped $dropped frames"
  [ "$read" -eq "$written" ] || fail "channel $chn: read $read frames but wrote $written"
  [ "$written" -gt 250 ] || fail "channel $chn: only $written frames in 20 s"
  [ -s "$file" ] || fail "channel $chn: no recording"
  frames=$(ffprobe -v error -count_frames -select_streams v:0 -show_entries stream=nb_read_frames \
    -of csv=p=0 "$file" 2>"$dir/err")
  [ ! -s "$dir/err" ] || fail "channel $chn: ffprobe: $(head -c 400 "$dir/err")"
  [ "$frames" = "$written" ] || fail "channel $chn: ffprobe decodes $frames frames, the recorder wrote $written"
done <<<"$rows"

# Snapshots are single key frames that must decode on their own.
snaps=0
for f in "$dir"/rec/snap_ch*.h264; do
  [ -e "$f" ] || continue
  n=$(ffprobe -v error -count_frames -show_entries stream=nb_read_frames -of csv=p=0 "$f" 2>"$dir/err")
  [ ! -s "$dir/err" ] && [ "$n" = 1 ] || fail "$(basename "$f"): $n frames, $(head -c 200 "$dir/err")"
  snaps=$((snaps + 1))
done
[ "$snaps" -gt 0 ] || fail "no snapshot was taken"
echo "PASS: 32 recordings decode to the frames their recorders wrote; $snaps snapshots decode"
