#!/usr/bin/env bash
# Word error rate of the built-in engine (PocketSphinx) as a user meets it against the same
# recordings transcribed from files: sentences spoken by espeak-ng in two voices, dictated into
# the real vocari on a private X display and sound server whose microphone hears the speaker
# (Vocari's own start sound included), and transcribed by vocari-transcribe --engine system.
# Three figures, taken in one run:
#   file         vocari-transcribe over every recording, one process
#   live         dictated one after another with the default settings (start sound on)
#   live-silent  the same with the feedback sounds off
#
#   bench/builtin_wer.sh [BUILD_DIR]      (default build/default; about six minutes)
#
# KEEP=1 keeps the folder with the recordings, texts and logs. Needs Xvfb, openbox, xdotool,
# dbus-daemon, pulseaudio, espeak-ng and sox, all installed by scripts/setup. Not run by CI.
set -euo pipefail
export LC_ALL=C.UTF-8

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${1:-$root/build/default}" && pwd)
app=$build/src/app/vocari
transcribe=$build/tools/transcribe/vocari-transcribe
window=$build/tests/platform/x11/vocari_test_window
VOICES=${VOICES:-"en-us+m1 en-us+f2"}
RATE=${RATE:-130}

for tool in Xvfb openbox xdotool dbus-daemon pulseaudio pactl paplay espeak-ng /usr/bin/python3; do
  command -v "$tool" >/dev/null || { echo "builtin_wer: $tool is missing" >&2; exit 1; }
done
for binary in "$app" "$transcribe" "$window"; do
  [ -x "$binary" ] || { echo "builtin_wer: $binary is not built" >&2; exit 1; }
done

sentences=(
  "I would like to order a large pizza with extra cheese."
  "Please send the report to the team before the meeting on Friday."
  "The weather will be sunny and warm for the rest of the week."
  "Can you call me back when you get home tonight?"
  "We need to buy milk, bread and eggs from the store."
  "My favorite book is on the table next to the window."
)

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ -n "${KEEP:-}" ]; then echo "builtin_wer: kept in $work" >&2; else rm -rf "$work"; fi
}
trap cleanup EXIT

mkdir -p "$work"/{config,data,cache,runtime,pulse,speech}
chmod 700 "$work/runtime"
export XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache
export XDG_RUNTIME_DIR=$work/runtime
unset WAYLAND_DISPLAY PULSE_SERVER SESSION_MANAGER

# The recordings and what was said in each, in order.
: >"$work/said.txt"
files=()
for voice in $VOICES; do
  for i in "${!sentences[@]}"; do
    file=$work/speech/$voice-$i.wav
    espeak-ng -v "$voice" -s "$RATE" -w "$file" "${sentences[$i]}"
    files+=("$file")
    echo "${sentences[$i]}" >>"$work/said.txt"
  done
done

. "$root/bench/private_session.sh"
start_private_display
start_private_bus
start_private_sound_server
openbox --sm-disable >"$work/openbox.log" 2>&1 &
pids+=($!)
sleep 0.5

# Word errors over all recordings: edit distance over lower-case words, summed.
wer() {
  /usr/bin/python3 - "$work/said.txt" "$1" <<'PY'
import re, sys
def words(t): return re.sub(r"[^\w']+", " ", t.lower()).split()
said = [l for l in open(sys.argv[1], encoding="utf-8").read().split("\n") if l]
heard = open(sys.argv[2], encoding="utf-8").read().split("\n")[:len(said)]
heard += [""] * (len(said) - len(heard))
errors = total = 0
for s, h in zip(said, heard):
    r, c = words(s), words(h)
    row = list(range(len(c) + 1))
    for i in range(1, len(r) + 1):
        prev, row[0] = row[:], i
        for j in range(1, len(c) + 1):
            row[j] = min(prev[j] + 1, row[j - 1] + 1, prev[j - 1] + (r[i - 1] != c[j - 1]))
    errors += row[-1]; total += len(r)
print(f"{errors / total:.2f} {errors} {total}")
PY
}

"$transcribe" --engine system "${files[@]}" >"$work/file.txt" 2>"$work/file.log"

# Dictates every recording into the test window with the settings given; one text a line.
dictate() {
  local name=$1 sounds=$2
  mkdir -p "$work/config/vocari"
  printf '{"sounds": %s}\n' "$sounds" >"$work/config/vocari/settings.json"
  QT_LOGGING_RULES="vocari.*=true" "$app" 2>"$work/$name.log" &
  local pid=$!
  for _ in $(seq 400); do grep -q 'ready in' "$work/$name.log" && break; sleep 0.05; done
  coproc target { "$window" 2>/dev/null; }
  local text="" line
  while read -r -u "${target[0]}" line; do [[ $line == ready* ]] && break; done
  : >"$work/$name.txt"
  for file in "${files[@]}"; do
    echo clear >&"${target[1]}"
    local before
    before=$(grep -c 'release→insert' "$work/$name.log" || true)
    xdotool keydown 108
    sleep 1.5
    paplay "$file"
    xdotool keyup 108
    for _ in $(seq 200); do
      [ "$(grep -c 'release→insert' "$work/$name.log" || true)" -gt "$before" ] && break
      sleep 0.1
    done
    sleep 1
    text=""
    while read -r -t 0.2 -u "${target[0]}" line; do
      [[ $line == text* ]] && text=${line#text }
    done
    [ "$text" = "-" ] && text=""
    /usr/bin/python3 -c 'import sys, urllib.parse; print(urllib.parse.unquote(sys.argv[1]))' \
      "$text" >>"$work/$name.txt"
  done
  echo quit >&"${target[1]}"
  "$app" quit >/dev/null 2>&1 || kill "$pid"
  wait "$pid" 2>/dev/null || true
}

dictate live true
dictate live-silent false

count=${#files[@]}
echo "Built-in engine, $count recordings (${#sentences[@]} sentences, voices $VOICES, $RATE words a minute)"
printf '%-12s %s\n' "path" "word error rate (errors / words)"
for name in file live live-silent; do
  read -r rate errors total < <(wer "$work/$name.txt")
  printf '%-12s %s (%s / %s)\n' "$name" "$rate" "$errors" "$total"
done
