# Sourced by the benchmarks that run Vocari as a desktop would: a private X display, session bus
# and sound server in the folder $work, so nothing of the user's own session is read or changed.
# Each function adds the processes it starts to the caller's array `pids`, and exports what
# programs started afterwards need to find them.

# An X display of its own: Xvfb picks a free number and writes it to fd 3.
start_private_display() {
  Xvfb -displayfd 3 -screen 0 1280x800x24 -nolisten tcp 3>"$work/display" 2>"$work/xvfb.log" &
  pids+=($!)
  for _ in $(seq 100); do [ -s "$work/display" ] && break; sleep 0.05; done
  [ -s "$work/display" ] || { echo "Xvfb did not start" >&2; return 1; }
  export DISPLAY=:$(cat "$work/display")
}

start_private_bus() {
  local address
  address=$(dbus-daemon --session --fork --print-address=1 --print-pid=3 3>"$work/bus.pid")
  pids+=("$(cat "$work/bus.pid")")
  export DBUS_SESSION_BUS_ADDRESS=$address
}

# A sound server whose default input (the "microphone") hears what is played to its default
# output (the "speaker"). Qt lists no monitor sources, so the input is a plain source remapped
# from the speaker's monitor; a loopback that reads the speaker with a short latency keeps the
# null sink from rendering in blocks of two seconds.
start_private_sound_server() {
  mkdir -p "$work/pulse"
  cat >"$work/pulse/default.pa" <<EOF
load-module module-native-protocol-unix socket=$work/pulse/native auth-anonymous=1
load-module module-null-sink sink_name=speaker
load-module module-null-sink sink_name=drain
load-module module-loopback source=speaker.monitor sink=drain latency_msec=20
load-module module-remap-source source_name=microphone master=speaker.monitor
set-default-sink speaker
set-default-source microphone
EOF
  HOME=$work/pulse PULSE_RUNTIME_PATH=$work/pulse/runtime PULSE_STATE_PATH=$work/pulse/state \
    pulseaudio -n -F "$work/pulse/default.pa" --daemonize=no --exit-idle-time=-1 \
    --use-pid-file=no --disable-shm=yes 2>"$work/pulse.log" &
  pids+=($!)
  export PULSE_SERVER=unix:$work/pulse/native
  for _ in $(seq 100); do pactl info >/dev/null 2>&1 && break; sleep 0.1; done
}
