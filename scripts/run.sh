#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs what is missing, builds Larimo, stages the app folder in build/app/ and starts the
# control panel.
#
# On a desktop (a display and a reachable sound server) the panel simply starts. Without one,
# Larimo shows itself anyway: a private sound server and a virtual display (Xvfb) come up, the
# panel starts from a copy of the app folder in build/run/, saves a picture of its main window
# and ends, scripts/demo-headless.sh records the voice effects, and everything started here is
# stopped again.
#
#   run.sh [PANEL ARGUMENTS]      LARIMO_BUILD_DIR chooses another build folder (default build)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
build=${LARIMO_BUILD_DIR:-build}

scripts/install-deps.sh
# A build folder made before keeps its own settings; a new one is a release build.
if [[ ! -f "$build/CMakeCache.txt" ]]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DLARIMO_BUILD_TESTS=OFF -DLARIMO_BUILD_BENCH=OFF >/dev/null
fi
cmake --build "$build" --target larimo LarimoServer larimoctl larimo_effects larimo_stage_data

app=$root/$build/app
echo
echo "Larimo is staged in $app/:"
(cd "$app" && find . -maxdepth 2 -mindepth 1 | sort | sed 's|^\./|  |')

desktop_ready() {
  [[ -n "${DISPLAY:-}" || -n "${WAYLAND_DISPLAY:-}" ]] && pactl info >/dev/null 2>&1
}
if desktop_ready; then
  exec "$app/larimo" "$@"
fi

echo
echo "No desktop here (no display or no sound server): Larimo runs once without one."
for tool in Xvfb pulseaudio pactl; do
  command -v "$tool" >/dev/null || { echo "run: $tool is missing (scripts/install-deps.sh installs it)" >&2; exit 1; }
done

run=$root/$build/run
rm -rf "$run"
mkdir -p "$run"
cp -r "$app" "$run/app"
# The first-start wizard needs somebody to answer it; this copy counts as set up already.
config=$run/app/config.ini
if grep -qi '^wizard=' "$config"; then
  sed -i 's/^[Ww]izard=.*/wizard=1/' "$config"
else
  printf '[sys]\nwizard=1\n' >>"$config"
fi
# The devices the wizard would have chosen: the private sound server's microphone and speakers.
printf '\n[soundcards]\ninput=Microphone (Test)\nmonitor=Speakers\n' >>"$config"

xvfb_pid=""
cleanup() {
  # The voice service the panel started runs from the copy; end that one process only.
  for exe in /proc/[0-9]*/exe; do
    if [[ "$(readlink "$exe" 2>/dev/null)" == "$run/app/LarimoServer" ]]; then
      pid=${exe#/proc/}
      kill "${pid%/exe}" 2>/dev/null || true
    fi
  done
  [[ -n "$xvfb_pid" ]] && kill "$xvfb_pid" 2>/dev/null && wait "$xvfb_pid" 2>/dev/null || true
  "$root/scripts/test-soundserver.sh" stop "$run/sound" >/dev/null 2>&1 || true
  # The named objects of this run's namespace, once every process that used them has ended.
  rm -rf "$run/runtime/larimo/run$$"
}
trap cleanup EXIT

"$root/scripts/test-soundserver.sh" start "$run/sound" >/dev/null
export PULSE_SERVER="unix:$run/sound/native"
# Service registration, named objects and settings of this run stay inside build/run/.
export HOME="$run/home" XDG_CONFIG_HOME="$run/home/.config" LARIMO_SERVICE_BACKEND=supervisor
export LARIMO_OBJECT_NAMESPACE="run$$"
export XDG_RUNTIME_DIR="$run/runtime"
unset DBUS_SESSION_BUS_ADDRESS WAYLAND_DISPLAY
mkdir -p "$XDG_CONFIG_HOME" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"

Xvfb -displayfd 3 -screen 0 1024x768x24 -nolisten tcp 3>"$run/display" 2>"$run/xvfb.log" &
xvfb_pid=$!
for _ in $(seq 100); do
  [[ -s "$run/display" ]] && break
  sleep 0.05
done
[[ -s "$run/display" ]] || { echo "run: Xvfb did not start; see $run/xvfb.log" >&2; exit 1; }
export DISPLAY=":$(tr -d '[:space:]' <"$run/display")"

shot=$run/larimo.png
"$run/app/larimo" --screenshot "$shot" || echo "run: the control panel ended with status $?; see $run/app/larimocl.log" >&2

demo=""
if [[ -x "$root/scripts/demo-headless.sh" ]]; then
  demo=$run/demo-out
  "$root/scripts/demo-headless.sh" "$app" "$demo" || { echo "run: the voice demonstration failed" >&2; demo=""; }
fi

echo
[[ -s "$shot" ]] && echo "The control panel's main window: $shot"
[[ -n "$demo" ]] && echo "The voice effects, recorded from \"Larimo Microphone\": $demo/*.wav"
echo "The panel's log: $run/app/larimocl.log"
exit 0
