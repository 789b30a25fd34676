#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-3.0-or-later
# Makes every sound Larimo ships from synthesis alone: the background loops in
# data/backsounds/, the fun sounds in data/emoticsounds/<group>/ and data/test.wav, the
# wizard's playback test. Tools: sox, espeak-ng and scripts/sound_synth.py (Python's
# standard library only). The results are committed, so building Larimo needs none of them.
#
# Output is repeatable: Python seeds its generators from fixed numbers, sox runs with -R and
# without dither, espeak-ng has no randomness. Run it again after changing a sound and commit
# what it writes; the check at the end fails the run if any file breaks the library rules.
set -euo pipefail

here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)
data=$(dirname "$here")/data

for tool in sox espeak-ng python3; do
  if ! command -v "$tool" >/dev/null; then
    echo "make-sounds: $tool is missing (scripts/install-deps.sh installs it)" >&2
    exit 1
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

synth=(python3 "$here/sound_synth.py")
raw=(-t raw -e floating-point -b 32 -r 44100 -c 1)
sox=(run_sox -R -D)

# sox, with its warnings treated as errors: a clipped layer would spoil the sound. The one
# warning let through is trim's note that reverb made the length unknown in advance.
run_sox() {
  local log
  log=$(sox "$@" 2>&1) || { echo "$log" >&2; return 1; }
  log=$(grep -v 'position is after expected end of audio' <<<"$log" || true)
  if [[ -n $log ]]; then
    echo "make-sounds: sox $*" >&2
    echo "$log" >&2
    return 1
  fi
}
loop_seconds=20
loop_samples=$((loop_seconds * 44100))

# Filters one period of a periodic layer and keeps it periodic: three periods go in and
# the last comes out, when every filter and reverb tail has settled into the cycle.
periodic() {
  local in=$1 out=$2
  shift 2
  "${sox[@]}" "${raw[@]}" "$in" "${raw[@]}" "$out" repeat 2 "$@" \
    trim $((2 * loop_samples))s "${loop_samples}s"
}

# Effects on a one-shot sound; reverb tails are kept.
effects() {
  local in=$1 out=$2
  shift 2
  "${sox[@]}" "${raw[@]}" "$in" "${raw[@]}" "$out" "$@"
}

# speak VOICE PITCH SPEED TEXT OUT: espeak-ng's 22050 Hz speech as a 44100 Hz layer.
speak() {
  espeak-ng -v "$1" -p "$2" -s "$3" -w speech.wav "$4"
  "${sox[@]}" speech.wav "${raw[@]}" "$5" gain -12 rate -v 44100
}

loop() { "${synth[@]}" finish --loop "$1" "$data/$2"; }
oneshot() { "${synth[@]}" finish "$@"; }

mkdir -p "$data/backsounds" "$data/emoticsounds"/{Applause,Effects,Music,Voices}

echo "make-sounds: background loops"

# Rain: a broadband hiss of drops on every surface, a low rumble, a dense patter of tiny
# impacts and, nearer, single drops with their small rising bubble.
"${synth[@]}" noise white1 --seconds $loop_seconds --seed 101
"${synth[@]}" noise white2 --seconds $loop_seconds --seed 102
"${synth[@]}" rain-patter patter --seconds $loop_seconds --seed 103
"${synth[@]}" rain-drops drops --seconds $loop_seconds --seed 104
periodic white1 bed highpass 400 lowpass 7500 equalizer 2800 1.2q 3
periodic white2 rumble lowpass -1 300 lowpass 450 highpass 35
periodic patter patter.f highpass 1500 lowpass 9000
periodic drops drops.f highpass 700 reverb 35 60 40
"${synth[@]}" mix rain bed@0 rumble@-7 patter.f@-5 drops.f@-6
periodic rain rain.f highpass 25
loop rain.f backsounds/Rain.wav

# Cafe: seven talkers at the tables around, cups and spoons, a milk frother, room air.
sentences=(
  "So I told him we should try the new place on the corner."
  "Did you see the match last night? It was unbelievable."
  "I'll have a large cappuccino and a slice of the lemon cake, please."
  "We are thinking about going to the coast in August."
  "Honestly, the meeting could have been an email."
  "She has just started a new job at the library."
  "Can you pass me the sugar? Thanks."
  "The traffic this morning was terrible, I was almost late."
  "My sister is moving to a flat near the park next month."
  "That sounds lovely. Where did you find it?"
  "I'm not sure, maybe we should ask the others first."
  "He always orders the same thing, every single time."
  "Oh really? I had no idea they were together."
  "The weather is supposed to get better at the weekend."
  "Let's split the bill, it's easier that way."
  "I read that book on holiday, the ending surprised me."
  "Are you coming to the party on Saturday?"
  "We finally painted the kitchen. It looks so much brighter now."
)
talkers=("en-us+m3 40 165" "en-gb+f2 55 170" "en-us+m1 30 180" "en-us+f4 62 160"
         "en-gb-x-rp+m5 45 175" "en-us+f1 50 185" "en-029+m7 38 168")
for t in "${!talkers[@]}"; do
  read -r voice pitch speed <<<"${talkers[$t]}"
  for j in 0 1 2 3 4 5 6 7 8; do
    k=$(((t * 5 + j * 7) % ${#sentences[@]}))
    speak "$voice" "$pitch" "$speed" "${sentences[$k]}" "t${t}_$j.utt"
    effects "t${t}_$j.utt" "t${t}_$j.f32" highpass 150 lowpass 3400
  done
done
"${synth[@]}" place-talkers talk t*_*.f32 --seconds $loop_seconds --seed 201
"${synth[@]}" cafe-clinks clinks --seconds $loop_seconds --seed 202
"${synth[@]}" cafe-steam steam --seconds $loop_seconds --seed 203
"${synth[@]}" noise white3 --seconds $loop_seconds --seed 204
periodic talk talk.f lowpass 2600 reverb 70 60 100 100 15 highpass 120
periodic clinks clinks.f reverb 45 50 80 100 10
periodic steam steam.f highpass 2500 lowpass 7000 reverb 40
periodic white3 air lowpass -1 400 highpass 40
"${synth[@]}" mix cafe talk.f@0 clinks.f@-9 steam.f@-20 air@-12
periodic cafe cafe.f highpass 25
loop cafe.f backsounds/Cafe.wav

# Wind: gusts that rise and fall, with a roar, a resonant body, a howl in the strong gusts
# and an airy hiss.
"${synth[@]}" noise white4 --seconds $loop_seconds --seed 301
"${synth[@]}" noise white5 --seconds $loop_seconds --seed 302
periodic white4 roar lowpass -1 200 lowpass 300 highpass 30
periodic white5 hiss highpass 2000 lowpass 6500
"${synth[@]}" wind wind --seconds $loop_seconds --seed 303 --roar roar --hiss hiss
periodic wind wind.f highpass 25
loop wind.f backsounds/Wind.wav

# Office: typing at two desks, a mouse, a phone ringing two rooms away, ventilation
# rumble and the drone of the air conditioning.
"${synth[@]}" office-keys keys --seconds $loop_seconds --seed 401
"${synth[@]}" office-phone phone --seconds $loop_seconds --seed 402
"${synth[@]}" hum hum --seconds $loop_seconds --seed 403
"${synth[@]}" noise white6 --seconds $loop_seconds --seed 404
periodic keys keys.f highpass 120 lowpass 7000 reverb 25 70 30
periodic phone phone.f bandpass 1300 1.5q lowpass 2500 reverb 80 70 100 100 30 gain -3
periodic white6 vent lowpass -1 250 lowpass 600 highpass 30 equalizer 1200 1q 2
"${synth[@]}" mix office keys.f@-5 phone.f@-14 vent@0 hum@-9
periodic office office.f highpass 25
loop office.f backsounds/Office.wav

echo "make-sounds: wizard test loop"
"${synth[@]}" chime chime --seconds 2
"${sox[@]}" "${raw[@]}" chime "${raw[@]}" chime.f repeat 2 reverb 40 50 60 trim 176400s 88200s
"${synth[@]}" finish --loop chime.f "$data/test.wav"

echo "make-sounds: fun sounds"
fun=$data/emoticsounds

"${synth[@]}" applause applause --seconds 1.4 --seed 501
effects applause applause.f highpass 150 reverb 50 50 80
oneshot applause.f "$fun/Applause/Applause.wav" --max-seconds 1.4 --fade-out 0.3

cheers=("en-us+m3 70 170 Yeah!" "en-us+f2 90 160 Woo-hoo!" "en-gb+m1 65 150 Hooray!"
        "en-us+f4 95 150 Yay!" "en-us+m5 75 160 Whoo!" "en-gb+f1 85 165 Bravo!"
        "en-us+m7 60 170 Yes!" "en-us+f5 92 170 Wow!")
for c in "${!cheers[@]}"; do
  read -r voice pitch speed text <<<"${cheers[$c]}"
  speak "$voice" "$pitch" "$speed" "$text" "cheer$c"
  effects "cheer$c" "cheer$c.f" highpass 180
done
"${synth[@]}" cheer cheer cheer*.f --seconds 1.3 --seed 502
effects cheer cheer.f reverb 55 50 90
oneshot cheer.f "$fun/Applause/Cheering.wav" --max-seconds 1.3 --fade-out 0.3

"${synth[@]}" laugh laugh --seconds 1.2 --seed 503
effects laugh laugh.f highpass 80 reverb 25 50 30
oneshot laugh.f "$fun/Applause/Laughter.wav" --max-seconds 1.2 --fade-out 0.1

"${synth[@]}" boing boing --seconds 0.8
effects boing boing.f highpass 60
oneshot boing.f "$fun/Effects/Boing.wav" --fade-out 0.1

"${synth[@]}" air-horn horn --seconds 0.9 --seed 504
effects horn horn.f highpass 80 reverb 30 50 50
oneshot horn.f "$fun/Effects/Air horn.wav" --max-seconds 0.9 --fade-out 0.1

"${synth[@]}" rimshot rimshot --seconds 1.0 --seed 505
effects rimshot rimshot.f highpass 35 reverb 25 50 40
oneshot rimshot.f "$fun/Effects/Rimshot.wav" --max-seconds 1.0 --fade-out 0.15

"${synth[@]}" drum-roll roll --seconds 1.5 --seed 506
effects roll roll.f highpass 35 reverb 30 50 50
oneshot roll.f "$fun/Music/Drum roll.wav" --max-seconds 1.5 --fade-out 0.2

"${synth[@]}" sad-trombone trombone --seconds 1.6 --seed 507
effects trombone trombone.f highpass 60 reverb 35 50 60
oneshot trombone.f "$fun/Music/Sad trombone.wav" --max-seconds 1.6 --fade-out 0.08

"${synth[@]}" tada tada --seconds 0.9 --seed 508
effects tada tada.f highpass 60 reverb 40 50 70
oneshot tada.f "$fun/Music/Ta-da.wav" --max-seconds 0.9 --fade-out 0.12

lines=("en-us+f2 60 150 Hello there!" "en-us+m3 50 150 Nice one!" "en-us+f4 70 140 Oops!")
files=("Hello there" "Nice one" "Oops")
for i in "${!lines[@]}"; do
  read -r voice pitch speed text <<<"${lines[$i]}"
  speak "$voice" "$pitch" "$speed" "$text" "line$i"
  effects "line$i" "line$i.f" highpass 90 equalizer 3000 1.5q 2 reverb 15 50 20
  oneshot "line$i.f" "$fun/Voices/${files[$i]}.wav" --fade-out 0.04
done

echo "make-sounds: check"
"${synth[@]}" check "$data"
