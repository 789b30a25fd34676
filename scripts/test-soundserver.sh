#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# A private PulseAudio daemon with null devices, for the tests and for machines without a sound
# server. Everything it keeps (socket, pid, cookie, log) lives in one folder; it never talks
# to the desktop's own sound server.
#
#   test-soundserver.sh start DIR        start it; prints PULSE_SERVER=unix:DIR/native
#   test-soundserver.sh stop DIR         stop the daemon started in DIR
#   test-soundserver.sh feed DIR FILE    play a WAV file into the fake microphone
#   test-soundserver.sh tone DIR HZ      feed the fake microphone a sine tone until stopped
#
# Devices: sink "Speakers" (the default), and "Microphone (Test)", a source whose signal is
# whatever is played into the sink "Microphone Feed".
set -euo pipefail

command=${1:-}
dir=${2:-}
if [[ -z "$command" || -z "$dir" ]]; then
  sed -n '6,10p' "$0" >&2
  exit 2
fi
mkdir -p "$dir"
dir=$(cd "$dir" && pwd)
socket="$dir/native"

# The daemon and its clients see only this folder: no desktop runtime dir, no desktop cookie.
private_env=(env -u PULSE_SERVER -u PULSE_COOKIE -u DBUS_SESSION_BUS_ADDRESS
  HOME="$dir/home" XDG_RUNTIME_DIR="$dir/run" XDG_CONFIG_HOME="$dir/home/.config"
  PULSE_RUNTIME_PATH="$dir/run/pulse" PULSE_STATE_PATH="$dir/state")
client_env=(env PULSE_SERVER="unix:$socket" HOME="$dir/home")

running() {
  [[ -S "$socket" ]] && "${client_env[@]}" pactl info >/dev/null 2>&1
}

case "$command" in
start)
  if running; then
    echo "PULSE_SERVER=unix:$socket"
    exit 0
  fi
  mkdir -p "$dir/home/.config" "$dir/run/pulse" "$dir/state"
  chmod 700 "$dir/run" "$dir/run/pulse"
  rm -f "$socket"
  cat >"$dir/server.pa" <<PA
load-module module-native-protocol-unix auth-anonymous=1 socket=$socket
load-module module-null-sink sink_name=speakers sink_properties=device.description=Speakers
load-module module-null-sink sink_name=mic_feed sink_properties='device.description="Microphone Feed"'
load-module module-remap-source master=mic_feed.monitor source_name=test_mic source_properties='device.description="Microphone (Test)"'
set-default-sink speakers
set-default-source test_mic
PA
  "${private_env[@]}" pulseaudio -n -F "$dir/server.pa" --exit-idle-time=-1 --daemonize=yes \
    --use-pid-file=yes --log-target=file:"$dir/server.log" --log-level=warning
  for _ in $(seq 100); do
    if running; then
      echo "PULSE_SERVER=unix:$socket"
      exit 0
    fi
    sleep 0.05
  done
  echo "test-soundserver: the daemon did not come up; see $dir/server.log" >&2
  exit 1
  ;;
stop)
  pidfile="$dir/run/pulse/pid"
  if [[ -f "$pidfile" ]]; then
    pid=$(cat "$pidfile")
    # Only the daemon this folder started, and only while it still is that daemon.
    if [[ -n "$pid" ]] && grep -q pulseaudio "/proc/$pid/comm" 2>/dev/null; then
      kill "$pid"
      for _ in $(seq 100); do
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.05
      done
    fi
  fi
  rm -f "$socket"
  ;;
feed)
  "${client_env[@]}" paplay --device=mic_feed "${3:?a WAV file}"
  ;;
tone)
  "${client_env[@]}" pactl load-module module-sine sink=mic_feed frequency="${3:?a frequency}"
  ;;
*)
  echo "test-soundserver: unknown command $command" >&2
  exit 2
  ;;
esac
