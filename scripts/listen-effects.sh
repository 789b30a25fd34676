#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Speaks a phrase, runs it through every shipped preset and draws a spectrogram of each, so the
# effects can be heard and looked at:   scripts/listen-effects.sh [BUILD_DIR]
# Writes BUILD_DIR/listen/{voice,<preset>}.{wav,png}.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}
out="$build/listen"
mkdir -p "$out"
cmake --build "$build" --target render_presets
espeak-ng -v en -s 140 -w "$out/spoken.wav" "The quick brown fox jumps over the lazy dog. How does my voice sound now?"
sox "$out/spoken.wav" -r 44100 -c 1 -b 16 "$out/voice.wav"
# A copy: reading settings leaves a lock file beside them, which must not land in data/.
cp data/voiceeffects.ini "$out/voiceeffects.ini"
"$build/tests/render_presets" "$out/voiceeffects.ini" "$out/voice.wav" "$out"
for wav in "$out"/*.wav; do
  name=$(basename "$wav" .wav)
  [[ "$name" == spoken ]] && continue
  sox "$wav" -n spectrogram -x 900 -y 257 -z 80 -t "$name" -o "$out/$name.png"
done
echo "listen: files in $out"
