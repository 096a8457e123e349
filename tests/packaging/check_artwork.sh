#!/usr/bin/env bash
# Checks the application's own resources: the resource list names exactly the files the
# application loads and they exist; the committed sounds are what tools/sounds/make_sounds.sh
# makes, in the format and length the application plays, without clipping or a click at either
# end; every SVG renders.
#
#   check_artwork.sh SOURCE_DIR ICON_RENDER_TOOL
source "$(dirname "${BASH_SOURCE[0]}")/checks.sh"

src=$1
render=$2

resources=$src/src/app/resources
sounds=(start done problem cancelled)

# The resource list: its aliases, and the file behind each one.
expected="icons/tray-active.svg icons/tray-idle.svg icons/vocari.svg sounds/cancelled.wav \
sounds/done.wav sounds/problem.wav sounds/start.wav"
aliases=$(grep -o 'alias="[^"]*"' "$resources/app.qrc" | cut -d'"' -f2 | sort | xargs)
[ "$aliases" = "$expected" ] || fail "app.qrc aliases are: $aliases"
grep -q '<qresource prefix="/vocari">' "$resources/app.qrc" || fail "app.qrc prefix is not /vocari"
while read -r file; do
  [ -f "$resources/$file" ] || fail "app.qrc names $file, which does not exist"
done < <(sed -n 's|.*<file[^>]*>\(.*\)</file>.*|\1|p' "$resources/app.qrc")

# peak FILE [EFFECT...]: the largest absolute sample value, after the effects.
peak() {
  local file=$1
  shift
  sox "$file" -n "$@" stat 2>&1 |
    awk '/^Maximum amplitude/ {m = $3} /^Minimum amplitude/ {n = -$3} END {print (m > n ? m : n)}'
}

# The sounds: reproducible from the script, then their format and shape.
bash "$src/tools/sounds/make_sounds.sh" "$work/sounds" >/dev/null 2>"$work/sox.log" ||
  { cat "$work/sox.log" >&2; fail "make_sounds.sh failed"; }
for name in "${sounds[@]}"; do
  wav=$resources/sounds/$name.wav
  [ -f "$wav" ] || { fail "$name.wav is missing"; continue; }
  cmp -s "$wav" "$work/sounds/$name.wav" || fail "$name.wav differs from what make_sounds.sh makes"

  [ "$(sox --i -c "$wav")" = 1 ] || fail "$name.wav is not mono"
  [ "$(sox --i -b "$wav")" = 16 ] || fail "$name.wav is not 16-bit"
  rate=$(sox --i -r "$wav")
  [ "$rate" = 44100 ] || [ "$rate" = 22050 ] || fail "$name.wav is at $rate Hz"
  seconds=$(sox --i -D "$wav")
  awk -v s="$seconds" 'BEGIN { exit !(s >= 0.1 && s <= 0.4) }' || fail "$name.wav lasts $seconds s"
  [ "$(stat -c %s "$wav")" -lt 40000 ] || fail "$name.wav is 40 kB or more"

  # Peak of the whole sound, and of its first and last 8 samples (a sound that does not start
  # and end near silence clicks).
  whole=$(peak "$wav")
  head=$(peak "$wav" trim 0 8s)
  tail=$(peak "$wav" reverse trim 0 8s)
  awk -v p="$whole" 'BEGIN { exit !(p > 0.2 && p < 0.99) }' || fail "$name.wav peaks at $whole"
  awk -v p="$head" 'BEGIN { exit !(p < 0.05) }' || fail "$name.wav starts with a click ($head)"
  awk -v p="$tail" 'BEGIN { exit !(p < 0.02) }' || fail "$name.wav ends with a click ($tail)"
done

# Every SVG parses and renders (the tool refuses an SVG it cannot read).
for svg in "$resources/tray-idle.svg" "$resources/tray-active.svg" "$src/packaging/icons/vocari.svg"; do
  "$render" "$svg" "$work/icons" 24 2>/dev/null || fail "$(basename "$svg") does not render"
done

finish "" "resource list, ${#sounds[@]} sounds and 3 icons checked"
