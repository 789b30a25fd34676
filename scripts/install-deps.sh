#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Installs every Debian package Larimo needs to build, run and test, and only those missing.
# This is the one place where package names live.
set -euo pipefail

packages=(
  # build
  build-essential cmake ninja-build pkg-config git
  # fuzzing (clang with libFuzzer)
  clang libclang-rt-14-dev
  # tests and benchmarks
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  # WAV decoding and resampling; sox as the reference in the import benchmark
  libsndfile1-dev libsoxr-dev sox
  # noise suppression of the microphone in the voice service
  libspeexdsp-dev
  # sound generation (scripts/make-sounds.sh)
  sox espeak-ng
  # third-party VST 2 plug-ins the effect host is tested against
  dpf-plugins-vst zam-plugins
  # a real call client in the end-to-end test (headless Chromium, driven by python3)
  chromium python3
  # the voice service as a systemd user unit (sd-bus)
  libsystemd-dev
  # the sound server client library; a private PulseAudio daemon and pactl for the audio tests
  libpulse-dev pulseaudio pulseaudio-utils
  # the control panel and its skins (Qt 6 Widgets); Xvfb for tests of the shown window
  qt6-base-dev qt6-base-dev-tools libgl-dev xvfb xauth fonts-dejavu-core
  # the panel's global hot keys (xcb key grabs); pressing keys, window states, keyboard layouts
  # and screenshots in its tests
  libxcb1-dev libxcb-keysyms1-dev xdotool x11-utils x11-xkb-utils imagemagick
  # a private session bus for the tests of the Wayland hot keys (desktop portal)
  dbus-daemon
)

missing=()
for pkg in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$pkg")
done

if ((${#missing[@]} == 0)); then
  echo "install-deps: all ${#packages[@]} packages are installed"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
sudo=()
if [[ $(id -u) -ne 0 ]]; then
  sudo=(sudo)
fi
export DEBIAN_FRONTEND=noninteractive
"${sudo[@]}" apt-get update -q
"${sudo[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
