#!/usr/bin/env bash
# The wait between releasing the dictation key and the text, for dictations of 3 to 60 s, and
# the time from the key press to the first captured sample: bench_dictation_latency on networks
# of a real model's size (written on first use), with speech made here by espeak-ng (sentences
# with a pause after each, 16 kHz mono) and a private sound server whose default input the
# key-press figure captures from.
#
#   bench/dictation_latency.sh [BUILD_DIR] [bench_dictation_latency options]
#
# About twelve minutes: every dictation runs at the pace of speech. Needs espeak-ng, sox and
# pulseaudio (scripts/setup installs them). Not run by CI.
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$root/build/default
if [ $# -gt 0 ] && [ -d "$1" ]; then build=$(cd "$1" && pwd); shift; fi
binary=$build/bench/latency/bench_dictation_latency
[ -x "$binary" ] || { echo "dictation_latency: $binary is not built" >&2; exit 1; }
for tool in espeak-ng sox pulseaudio pactl; do
  command -v "$tool" >/dev/null || { echo "dictation_latency: $tool is missing" >&2; exit 1; }
done

work=$(mktemp -d)
server=
cleanup() {
  [ -n "$server" ] && kill "$server" 2>/dev/null
  wait 2>/dev/null || true
  rm -rf "$work"
}
trap cleanup EXIT

# Seventy seconds of speech: sentences of two to four seconds, each followed by 0.7 s of pause.
sentences=(
  "Please move the weekly meeting to Thursday afternoon."
  "The new build passed every test on the first try."
  "Remind me to call the garage about the brakes."
  "We should ship the smaller model by default."
  "Send the draft to Maria before lunch tomorrow."
  "The train was late again, so I worked from home."
  "Add two cups of flour and stir until smooth."
  "Our budget for the spring quarter looks fine."
  "Open a ticket for the login page timing out."
  "The library closes at eight on Fridays."
  "I will review the pull request this evening."
  "Turn left after the bridge and park behind the school."
  "Thanks for the quick reply, that settles it."
  "The printer on the second floor is out of toner."
  "Let us keep the notes short and to the point."
  "Water the tomatoes every other day in summer."
  "The conference call starts at half past nine."
  "Check the backup before you upgrade the server."
  "She painted the kitchen a pale shade of green."
  "Book a table for four at seven tonight."
  "The report needs one more chart on page three."
  "Bring a jacket, the evenings are getting cold."
  "Our team grew from three people to twelve this year."
  "Cancel the subscription we no longer use."
  "The bus to the airport leaves every twenty minutes."
)
pieces=()
for i in "${!sentences[@]}"; do
  espeak-ng -v en-us -s 165 -w "$work/s$i.wav" "${sentences[$i]}"
  sox "$work/s$i.wav" -r 16000 -c 1 -b 16 "$work/p$i.wav" pad 0 0.7
  pieces+=("$work/p$i.wav")
done
sox "${pieces[@]}" "$work/speech.wav"
echo "dictation_latency: $(soxi -D "$work/speech.wav") s of speech" >&2

# A sound server of its own with a silent default input, for the key-press figure.
pids=()
. "$root/bench/private_session.sh"
start_private_sound_server
server=${pids[0]}

"$binary" "$work/speech.wav" "$@"
