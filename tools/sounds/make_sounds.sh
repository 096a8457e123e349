#!/usr/bin/env bash
# Synthesises the four feedback sounds of the application with sox and writes them into
# src/app/resources/sounds/ (or into the folder given as the only argument).
#
#   start.wav      a light, high "tink": capture has started, speak now
#   done.wav       a soft rising "pop": the text was put at the cursor
#   problem.wav    a low, dull tone: the dictation ended with a problem (or the text was only
#                  copied to the clipboard)
#   cancelled.wav  a descending, slightly buzzy glide: the dictation was cancelled
#
# Every sound is 16-bit mono PCM at 44.1 kHz, a few tenths of a second long. sox runs in
# repeatable mode without dither, so the same sox version writes byte-identical files on
# every run; the WAVs are committed and this script only needs to run again when a sound
# changes.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/../.." && pwd)
out=${1:-$root/src/app/resources/sounds}
mkdir -p "$out"

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

rate=44100
fmt=(-r "$rate" -b 16 -c 1 -e signed-integer)

# tone FILE SECONDS SYNTH-ARGUMENTS...: one raw partial, before any envelope, 12 dB below
# full scale so that mixing and filtering have headroom (the final gain sets the level).
tone() {
  local file=$1 seconds=$2
  shift 2
  sox -R -D -r "$rate" -c 1 -n "${fmt[@]}" "$work/$file" synth "$seconds" "$@" gain -12
}

# finish NAME PEAK_DB EFFECTS... -- INPUTS...: mixes the partials (each input may carry its
# own -v weight), shapes the result with EFFECTS and scales it to the given peak level.
finish() {
  local name=$1 peak=$2
  shift 2
  local effects=()
  while [ "$1" != -- ]; do effects+=("$1"); shift; done
  shift
  local inputs=()
  if [ $# -gt 2 ] || { [ $# -eq 2 ] && [ "$1" = -v ]; }; then inputs=(-m "$@"); else inputs=("$@"); fi
  sox -R -D "${inputs[@]}" "${fmt[@]}" "$out/$name.wav" "${effects[@]}" gain -n "$peak"
}

# start: a glassy strike at E7 with an octave and a slightly inharmonic partial above it,
# an attack of 2 ms and a struck decay (two linear fades multiplied: a square-law fall that
# drops to a quarter halfway).
tone tink-1.wav 0.16 sine 2637
tone tink-2.wav 0.16 sine 5274
tone tink-3.wav 0.16 sine 7100
finish start -8 fade t 0.002 0.16 0.158 fade t 0 0.16 0.158 -- \
  -v 1.0 "$work/tink-1.wav" -v 0.35 "$work/tink-2.wav" -v 0.12 "$work/tink-3.wav"

# done: a short sine chirp rising from 320 to 760 Hz, like a bubble breaking, with a soft
# second harmonic; low-passed so it stays round.
tone pop-1.wav 0.11 sine 320:760
tone pop-2.wav 0.11 sine 640:1520
finish done -6 lowpass 2400 fade h 0.004 0.11 0.085 -- \
  -v 1.0 "$work/pop-1.wav" -v 0.25 "$work/pop-2.wav"

# problem: a low G (98 Hz) sagging slightly while it sounds, as a square wave low-passed
# into a dull buzz over a sine body, so that small speakers still carry its harmonics.
tone basso-1.wav 0.34 square 104:96
tone basso-2.wav 0.34 sine 104:96
finish problem -6 lowpass 650 lowpass 900 fade q 0.012 0.34 0.24 -- \
  -v 0.6 "$work/basso-1.wav" -v 1.0 "$work/basso-2.wav"

# cancelled: a sawtooth gliding down an octave (D5 to D4), low-passed, with a light
# tremolo that gives the glide its wobble.
tone funk-1.wav 0.26 sawtooth 587:294
finish cancelled -6 lowpass 1500 tremolo 18 35 fade h 0.008 0.26 0.14 -- \
  "$work/funk-1.wav"

for f in start done problem cancelled; do
  printf '%s  %s bytes, %s s\n' "$out/$f.wav" "$(stat -c %s "$out/$f.wav")" "$(sox --i -D "$out/$f.wav")"
done
