#!/usr/bin/env bash
# Start-up time, idle memory and idle CPU of the vocari application, measured the way a desktop
# runs it: on a private X display with a window manager and a tray (trayer), a private session
# bus and sound server, and private settings and model folders, so nothing of the user's own
# session is read or changed.
#
#   bench/app_idle.sh [BUILD_DIR]      (default build/default; about five minutes)
#
# Start-up: STARTS starts after one unmeasured one; "ready" is the time the application logs
# from main() to its first event-loop turn, "tray" the wall time from launch until its tray
# icon window is mapped in the tray (polled every 5 ms). Idle: resident memory IDLE_WAIT
# seconds after start (once memory has settled), then CPU time over IDLE_SPAN seconds as a
# share of one core (user and system time in clock ticks) and in milliseconds a minute (the
# scheduler's run time of all threads). Three cases: the built-in engine as started, the same
# after one dictation of a spoken sentence, and a Parakeet model of realistic size with random
# weights (tools/make_parakeet_fixtures.py --bench; its layers share one set of weights, so
# its networks weigh 175 MB where a real export's int8 networks weigh about 0.65 GB), which
# the application loads at start.
#
# KEEP=1 keeps the folder with the logs. Needs Xvfb, openbox, trayer, xdotool, dbus-daemon,
# pulseaudio, espeak-ng and python3-onnx/numpy, all installed by scripts/setup. Not run by CI.
set -euo pipefail
export LC_ALL=C

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
build=$(cd "${1:-$root/build/default}" && pwd)
app=$build/src/app/vocari
models=$build/tools/models/vocari-models
STARTS=${STARTS:-10}
IDLE_WAIT=${IDLE_WAIT:-20}
IDLE_SPAN=${IDLE_SPAN:-60}

for tool in Xvfb openbox trayer xdotool dbus-daemon pulseaudio pactl paplay espeak-ng /usr/bin/python3; do
  command -v "$tool" >/dev/null || { echo "app_idle: $tool is missing" >&2; exit 1; }
done
for binary in "$app" "$models"; do
  [ -x "$binary" ] || { echo "app_idle: $binary is not built" >&2; exit 1; }
done

work=$(mktemp -d)
pids=()
cleanup() {
  for pid in "${pids[@]}"; do kill "$pid" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ -n "${KEEP:-}" ]; then echo "app_idle: logs kept in $work" >&2; else rm -rf "$work"; fi
}
trap cleanup EXIT

# Private folders for everything the application, the bus and the sound server touch.
mkdir -p "$work"/{config,data,cache,runtime,pulse}
chmod 700 "$work/runtime"
export XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache
export XDG_RUNTIME_DIR=$work/runtime
unset WAYLAND_DISPLAY PULSE_SERVER SESSION_MANAGER

# A display, a session bus and a sound server whose microphone hears its speaker.
. "$root/bench/private_session.sh"
start_private_display
start_private_bus
start_private_sound_server

openbox >"$work/openbox.log" 2>&1 &
pids+=($!)
trayer --edge top --align right --widthtype request --height 24 >"$work/trayer.log" 2>&1 &
pids+=($!)
for _ in $(seq 100); do xdotool search --class trayer >/dev/null 2>&1 && break; sleep 0.05; done
sleep 0.5

now_ns() { date +%s%N; }
median() { sort -n | awk '{ v[NR] = $1 } END { print (NR % 2) ? v[(NR + 1) / 2] : (v[NR / 2] + v[NR / 2 + 1]) / 2 }'; }

# Waits until the application's log has its "ready" line; fails on "no tray".
wait_ready() {
  local log=$1
  for _ in $(seq 2000); do
    if grep -q 'ready in' "$log"; then
      if grep -q 'no tray' "$log"; then
        echo "app_idle: vocari found no tray:" >&2; cat "$log" >&2; exit 1
      fi
      return
    fi
    sleep 0.01
  done
  echo "app_idle: vocari did not get ready:" >&2; cat "$log" >&2; exit 1
}

stop_app() {
  local pid=$1
  "$app" quit >/dev/null 2>&1 || kill "$pid" 2>/dev/null || true
  for _ in $(seq 100); do kill -0 "$pid" 2>/dev/null || break; sleep 0.05; done
  kill "$pid" 2>/dev/null || true
  wait "$pid" 2>/dev/null || true
}

rss_kib() { awk '/^VmRSS:/ { print $2 }' "/proc/$1/status"; }
cpu_ticks() { sed 's/^.*) //' "/proc/$1/stat" | awk '{ print $12 + $13 }'; }
# Run time of each thread in nanoseconds, finer than the clock ticks above: "TID NS" lines.
thread_ns() {
  local task
  for task in /proc/"$1"/task/*; do
    [ -r "$task/schedstat" ] && echo "${task##*/} $(cut -d' ' -f1 "$task/schedstat" 2>/dev/null)"
  done
}
# The run time between two such listings: threads that ended in between are left out (pool
# threads end after 30 idle seconds, taking their earlier run time with them).
delta_ns() { awk 'NR == FNR { a[$1] = $2; next } { n += $2 - ($1 in a ? a[$1] : 0) } END { print n }' "$1" "$2"; }

# Start-up.
ready=() tray=()
for i in $(seq 0 "$STARTS"); do
  log=$work/start$i.log
  start=$(now_ns)
  "$app" 2>"$log" &
  pid=$!
  shown=
  for _ in $(seq 4000); do
    if xdotool search --onlyvisible --class vocari >/dev/null 2>&1; then
      shown=$(now_ns)
      break
    fi
    sleep 0.005
  done
  wait_ready "$log"
  [ -n "$shown" ] || { echo "app_idle: no tray icon window appeared" >&2; exit 1; }
  if [ "$i" -gt 0 ]; then
    ready+=("$(sed -n 's/.*ready in \([0-9.]*\) s.*/\1/p' "$log")")
    tray+=("$(awk -v a="$start" -v b="$shown" 'BEGIN { printf "%.3f", (b - a) / 1e9 }')")
  fi
  stop_app "$pid"
done
ready_median=$(printf '%s\n' "${ready[@]}" | median)
tray_median=$(printf '%s\n' "${tray[@]}" | median)

# Idle: starts the application, lets memory settle, optionally runs one dictation (the
# command's words are sent to it), then measures. Prints "RSS_KIB CPU_PERCENT THREADS".
measure_idle() {
  local log=$work/idle-$1.log dictate=$2
  QT_LOGGING_RULES="vocari.*=true" "$app" 2>"$log" &
  local pid=$!
  local began=$SECONDS
  wait_ready "$log"
  # The dictation hears a spoken sentence, played into the speaker the microphone records.
  if [ "$dictate" = yes ]; then
    "$app" start >/dev/null
    sleep 0.5
    paplay "$work/sentence.wav"
    sleep 0.7
    "$app" stop >/dev/null
    for _ in $(seq 200); do grep -q 'vocari.timing' "$log" && break; sleep 0.05; done
  fi
  # Memory has settled once it stays within 1 MiB for 3 s (a model loads in the background).
  local last=0 steady=0
  while [ $steady -lt 6 ]; do
    sleep 0.5
    local now
    now=$(rss_kib "$pid")
    if [ $((now - last)) -lt 1024 ] && [ $((last - now)) -lt 1024 ]; then
      steady=$((steady + 1))
    else
      steady=0
    fi
    last=$now
  done
  local left=$((IDLE_WAIT - (SECONDS - began)))
  [ $left -gt 0 ] && sleep $left
  local rss before after threads
  rss=$(rss_kib "$pid")
  threads=$(awk '/^Threads:/ { print $2 }' "/proc/$pid/status")
  before=$(cpu_ticks "$pid")
  thread_ns "$pid" >"$work/threads-before"
  sleep "$IDLE_SPAN"
  after=$(cpu_ticks "$pid")
  thread_ns "$pid" >"$work/threads-after"
  stop_app "$pid"
  awk -v r="$rss" -v t=$((after - before)) -v hz="$(getconf CLK_TCK)" -v s="$IDLE_SPAN" \
      -v ns="$(delta_ns "$work/threads-before" "$work/threads-after")" -v n="$threads" \
      'BEGIN { printf "%d %.2f %.1f %d\n", r, 100 * t / hz / s, ns / 1e6 / (s / 60), n }'
}

read -r builtin_rss builtin_cpu builtin_ms builtin_threads < <(measure_idle builtin no)
espeak-ng -v en-us+m1 -s 130 -w "$work/sentence.wav" "I would like to order a large pizza with extra cheese."
read -r used_rss used_cpu used_ms used_threads < <(measure_idle builtin-used yes)
grep -q 'vocari.timing' "$work/idle-builtin-used.log" ||
  { echo "app_idle: the dictation did not finish:" >&2; cat "$work/idle-builtin-used.log" >&2; exit 1; }

/usr/bin/python3 "$root/tools/make_parakeet_fixtures.py" --bench "$work/fixtures" >/dev/null
"$models" add-folder "$work/fixtures/realistic" --name "Parakeet (random weights)" >/dev/null
weights=$(du -sbL "$work/fixtures/realistic" | awk '{ printf "%.0f", $1 / 1e6 }')
read -r parakeet_rss parakeet_cpu parakeet_ms parakeet_threads < <(measure_idle parakeet no)
[ $((parakeet_rss / 1000)) -gt "$weights" ] ||
  { echo "app_idle: the Parakeet model did not load (${parakeet_rss} KiB resident)" >&2; exit 1; }
grep -q 'speech: Parakeet (random weights)' "$work/idle-parakeet.log" ||
  { echo "app_idle: the Parakeet model was not selected:" >&2; cat "$work/idle-parakeet.log" >&2; exit 1; }

mib() { awk -v k="$1" 'BEGIN { printf "%.1f", k / 1024 }'; }
echo "vocari $("$app" --version | awk '{ print $2 }') ($(git -C "$root" describe --always --dirty 2>/dev/null || echo "no git")), $(nproc) cores, Xvfb with openbox and trayer"
echo "start-up, median of $STARTS"
printf '  %-44s %10.3f s\n' "main() to ready (logged by the application)" "$ready_median"
printf '  %-44s %10.3f s\n' "launch to tray icon mapped" "$tray_median"
printf '%-46s %10s %8s %12s %8s\n' "idle, ${IDLE_WAIT} s after start, CPU over ${IDLE_SPAN} s" \
  "RSS (MiB)" "CPU (%)" "CPU (ms/min)" "threads"
row() { printf '  %-44s %10s %8s %12s %8s\n' "$1" "$(mib "$2")" "$3" "$4" "$5"; }
row "built-in engine, as started" "$builtin_rss" "$builtin_cpu" "$builtin_ms" "$builtin_threads"
row "built-in engine, after one dictation" "$used_rss" "$used_cpu" "$used_ms" "$used_threads"
row "Parakeet model, $weights MB of networks, loaded" "$parakeet_rss" "$parakeet_cpu" \
  "$parakeet_ms" "$parakeet_threads"
