#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Shows the voice service at work on a machine without a desktop: a private sound server, a
# spoken sample as the microphone, LarimoServer from a copy of the app folder, and each of the
# three effect slots in turn recorded from "Larimo Microphone" into one WAV file per slot,
# with the measured pitch ratio and latency of each.
#
#   demo-headless.sh [APP_DIR [OUT_DIR]]     defaults: build/app and demo-out
set -euo pipefail
cd "$(dirname "$0")/.."
root=$PWD
app=$(cd "${1:-build/app}" && pwd)
out=${2:-demo-out}
mkdir -p "$out"
out=$(cd "$out" && pwd)

for tool in espeak-ng sox parec paplay pactl pulseaudio python3; do
  command -v "$tool" >/dev/null || { echo "demo-headless: $tool is missing (scripts/install-deps.sh installs it)" >&2; exit 1; }
done
[[ -x "$app/LarimoServer" && -x "$app/larimoctl" ]] || { echo "demo-headless: no LarimoServer in $app; build first" >&2; exit 1; }

work=$(mktemp -d /tmp/larimo-demo-XXXXXX)
server_pid=""
cleanup() {
  [[ -n "$server_pid" ]] && kill "$server_pid" 2>/dev/null && wait "$server_pid" 2>/dev/null || true
  "$root/scripts/test-soundserver.sh" stop "$work/sound" >/dev/null 2>&1 || true
  # With it go the named objects of this run's namespace, in its runtime folder.
  rm -rf "$work"
}
trap cleanup EXIT

"$root/scripts/test-soundserver.sh" start "$work/sound" >/dev/null
export PULSE_SERVER="unix:$work/sound/native"
# Named objects of its own, apart from a voice service the user may be running.
export LARIMO_OBJECT_NAMESPACE="demo$$" XDG_RUNTIME_DIR="$work/runtime"
mkdir -m 700 "$XDG_RUNTIME_DIR"

cp -r "$app" "$work/app"
ctl="$work/app/larimoctl"

espeak-ng -s 140 -p 40 -w "$work/spoken.wav" \
  "Hello, this is Larimo. The quick brown fox jumps over the lazy dog, and my voice changes as you listen."
sox -q "$work/spoken.wav" -r 44100 -c 1 -b 16 "$work/voice.wav" pad 0.3 0.5

"$work/app/LarimoServer" >"$work/server.out" 2>&1 &
server_pid=$!
for _ in $(seq 100); do
  "$ctl" status >/dev/null 2>&1 && break
  sleep 0.1
done
"$ctl" status >/dev/null || { echo "demo-headless: the voice service did not start" >&2; cat "$work/server.out" >&2; exit 1; }

record() { # source file
  parec --device="$1" --format=s16le --rate=44100 --channels=1 --latency-msec=5 --raw >"$2" &
  echo $!
}

# The private server's devices are null sinks, whose monitors send their first data only after
# a second or two at the start; two quiet recorders keep both ends running for the whole demo,
# so that every slot is timed alike.
warm_in=$(record mic_feed.monitor /dev/null)
warm_out=$(record larimo_mic_source /dev/null)
sleep 2

printf '%-6s %-14s %-28s %12s %12s\n' slot preset file "pitch ratio" "latency ms"
for slot in 1 2 3; do
  "$ctl" effect "$slot" >/dev/null
  name=$("$ctl" status | sed -n 's/^Voice effect: [0-9]* (\(.*\))$/\1/p')
  [[ -n "$name" ]] || name="slot $slot"
  # Somebody records now, so the service is processing; give it a moment to settle.
  sleep 0.5
  in_pid=$(record mic_feed.monitor "$work/in-$slot.raw")
  out_pid=$(record larimo_mic_source "$work/out-$slot.raw")
  sleep 0.3
  paplay --device=mic_feed "$work/voice.wav"
  sleep 0.6
  kill "$in_pid" "$out_pid"
  wait "$in_pid" "$out_pid" 2>/dev/null || true
  file="slot$slot-$(tr -c 'A-Za-z0-9\n' '_' <<<"$name").wav"
  sox -q -t raw -r 44100 -e signed -b 16 -c 1 "$work/out-$slot.raw" "$out/$file"
  read -r ratio latency < <(python3 - "$work/in-$slot.raw" "$work/out-$slot.raw" <<'PY'
import array, sys

def read(path):
    data = open(path, 'rb').read()
    samples = array.array('h')
    samples.frombytes(data[: len(data) // 2 * 2])
    return samples

# The first 5 ms window loud enough to be speech, so a lone click does not count.
def onset(x, threshold=600, window=220):
    total = sum(abs(v) for v in x[:window])
    for i in range(len(x) - window):
        if total > threshold * window:
            return i
        total += abs(x[i + window]) - abs(x[i])
    return None

# Pitch of voiced frames by autocorrelation at a quarter of the rate (70 to 600 Hz).
def pitches(x):
    y = [sum(x[i:i + 4]) / 4.0 for i in range(0, len(x) - 4, 4)]
    rate, frame = 11025.0, 441
    found = []
    for start in range(0, len(y) - frame - 160, frame):
        f = y[start:start + frame + 160]
        energy = sum(v * v for v in f[:frame]) / frame
        if energy < 1000.0 ** 2:
            continue
        best, lag_best = 0.0, 0
        for lag in range(18, 158):
            s = sum(f[i] * f[i + lag] for i in range(frame))
            if s > best:
                best, lag_best = s, lag
        if lag_best and best > 0.5 * energy * frame:
            found.append(rate / lag_best)
    return sorted(found)

x, y = read(sys.argv[1]), read(sys.argv[2])
a, b = pitches(x), pitches(y)
ratio = (b[len(b) // 2] / a[len(a) // 2]) if a and b else float('nan')
oi, oo = onset(x), onset(y)
latency = ((oo - oi) / 44.1) if oi is not None and oo is not None else float('nan')
print(f"{ratio:.2f} {latency:.1f}")
PY
)
  printf '%-6s %-14s %-28s %12s %12s\n' "$slot" "$name" "$file" "$ratio" "$latency"
done
"$ctl" effect off >/dev/null
echo
kill "$warm_in" "$warm_out" 2>/dev/null || true
wait "$warm_in" "$warm_out" 2>/dev/null || true

echo "Recordings in $out. Latency is the onset of the voice in \"Larimo Microphone\" after its onset in"
echo "the fake microphone, both recorded at once (a few milliseconds of recorder start-up either way)."
