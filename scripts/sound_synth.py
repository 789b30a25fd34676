#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-3.0-or-later
"""Synthesises the layers of Larimo's shipped sounds and finishes them into library WAV files.

make-sounds.sh drives this program together with sox and espeak-ng. Every layer passed
between the steps is raw native-endian 32-bit float, mono, 44100 Hz. All randomness comes
from random.Random seeded from the command line, so two runs give the same bytes.

Layers of a background loop are periodic by construction: events are added modulo the loop
length, and time-varying filters run over two periods and keep the second, so the last
sample leads into the first as smoothly as any two neighbours do.
"""

import argparse
import array
import math
import os
import random
import struct
import sys

RATE = 44100
TAU = 2.0 * math.pi
# -1 dBFS of a 16-bit full scale, rounded down so the rounded peak never exceeds it.
PEAK = int(32767 * 10 ** (-1 / 20))


def count(seconds):
    return int(round(seconds * RATE))


def read_raw(path):
    data = array.array("f")
    with open(path, "rb") as f:
        data.frombytes(f.read())
    return data.tolist()


def write_raw(path, samples):
    """Layers are written at -12 dBFS peak: sox clips above full scale and reverb adds level.

    Absolute levels are therefore not kept between steps; mix and finish set them.
    """
    top = max((abs(v) for v in samples), default=0.0)
    scale = 0.25 / top if top > 0 else 1.0
    with open(path, "wb") as f:
        array.array("f", (v * scale for v in samples)).tofile(f)


def db(gain_db):
    return 10 ** (gain_db / 20)


def rms(x):
    return math.sqrt(sum(v * v for v in x) / max(1, len(x)))


def add(dst, src, at, gain=1.0, wrap=False):
    """Adds src into dst from sample `at`; with wrap the part past the end continues at 0."""
    n = len(dst)
    for i, v in enumerate(src):
        j = at + i
        if wrap:
            j %= n
        elif j >= n:
            break
        if j >= 0:
            dst[j] += v * gain


def lognormal(rng, sigma):
    return math.exp(rng.gauss(0.0, sigma))


# ---------------------------------------------------------------- building blocks


def biquad(x, kind, freq, q=0.707):
    """Second-order low-, high- or band-pass (unity peak), after the audio EQ cookbook."""
    w = TAU * freq / RATE
    cw, sw = math.cos(w), math.sin(w)
    alpha = sw / (2 * q)
    if kind == "lp":
        b = ((1 - cw) / 2, 1 - cw, (1 - cw) / 2)
    elif kind == "hp":
        b = ((1 + cw) / 2, -(1 + cw), (1 + cw) / 2)
    else:
        b = (alpha, 0.0, -alpha)
    a0 = 1 + alpha
    b0, b1, b2 = (c / a0 for c in b)
    a1, a2 = -2 * cw / a0, (1 - alpha) / a0
    x1 = x2 = y1 = y2 = 0.0
    out = []
    for v in x:
        y = b0 * v + b1 * x1 + b2 * x2 - a1 * y1 - a2 * y2
        x2, x1, y2, y1 = x1, v, y1, y
        out.append(y)
    return out


def svf(x, cutoff, q, mode="bp"):
    """Trapezoidal state-variable filter; cutoff is a number or one value per sample.

    The band output is scaled to unity gain at the centre so resonance does not change level.
    """
    k = 1.0 / q
    ic1 = ic2 = 0.0
    out = []
    fixed = not isinstance(cutoff, list)
    if fixed:
        g = math.tan(math.pi * min(cutoff, RATE * 0.45) / RATE)
        a1 = 1 / (1 + g * (g + k))
    for i, v0 in enumerate(x):
        if not fixed:
            g = math.tan(math.pi * min(cutoff[i], RATE * 0.45) / RATE)
            a1 = 1 / (1 + g * (g + k))
        a2 = g * a1
        v3 = v0 - ic2
        v1 = a1 * ic1 + a2 * v3
        v2 = ic2 + a2 * ic1 + g * a2 * v3
        ic1 = 2 * v1 - ic1
        ic2 = 2 * v2 - ic2
        if mode == "bp":
            out.append(k * v1)
        elif mode == "lp":
            out.append(v2)
        else:
            out.append(v0 - k * v1 - v2)
    return out


def ring(n, freq, decay, amp=1.0, phase=0.0):
    """amp * exp(-t/decay) * sin(2 pi freq t + phase), by the two-term recursion."""
    w = TAU * freq / RATE
    r = math.exp(-1.0 / (decay * RATE))
    c = 2 * r * math.cos(w)
    y2 = amp * math.sin(phase - 2 * w) / (r * r)
    y1 = amp * math.sin(phase - w) / r
    out = []
    r2 = r * r
    for _ in range(n):
        y = c * y1 - r2 * y2
        out.append(y)
        y2, y1 = y1, y
    return out


def burst(rng, n, decay, attack=0.0003):
    """White noise under a fast attack and an exponential decay."""
    na = max(1, count(attack))
    k = 1.0 / (decay * RATE)
    return [rng.uniform(-1, 1) * min(1.0, (i + 1) / na) * math.exp(-i * k) for i in range(n)]


def saw(freqs, phase=0.0):
    """Band-limited sawtooth (polyBLEP) following one frequency per sample."""
    out = []
    p = phase
    for f in freqs:
        dt = f / RATE
        v = 2 * p - 1
        if p < dt:
            t = p / dt
            v -= t + t - t * t - 1
        elif p > 1 - dt:
            t = (p - 1) / dt
            v -= t * t + t + t + 1
        out.append(v)
        p += dt
        if p >= 1:
            p -= 1
    return out


def sine(freqs, phase=0.0):
    out = []
    for f in freqs:
        out.append(math.sin(phase))
        phase += TAU * f / RATE
    return out


def fade(x, fade_in, fade_out):
    """Raised-cosine fades at both ends, lengths in seconds."""
    n = len(x)
    ni, no = min(n, count(fade_in)), min(n, count(fade_out))
    for i in range(ni):
        x[i] *= 0.5 - 0.5 * math.cos(math.pi * i / ni)
    for i in range(no):
        x[n - 1 - i] *= 0.5 - 0.5 * math.cos(math.pi * i / no)
    return x


def soft_clip(x, drive):
    norm = math.tanh(drive)
    return [math.tanh(v * drive) / norm for v in x]


def periodic_envelope(n, partials, rng, base, depth):
    """A smooth random curve that repeats exactly every n samples, kept within [0, 1]."""
    terms = [(h, rng.uniform(0, TAU), w) for h, w in partials]
    total = sum(w for _, _, w in terms)
    out = []
    for i in range(n):
        s = sum(w * math.sin(TAU * h * i / n + ph) for h, ph, w in terms) / total
        out.append(min(1.0, max(0.0, base + depth * s)))
    return out


# ---------------------------------------------------------------- percussion


def snare(rng, n, tone=1.0, snap=1.0, rattle=0.09):
    body = ring(n, 185 * tone, 0.05, 0.9)
    body2 = ring(n, 330 * tone, 0.03, 0.5)
    wires = biquad(burst(rng, n, rattle), "bp", 4500, 0.6)
    return fade([a + b + snap * 1.6 * c for a, b, c in zip(body, body2, wires)], 0, 0.03)


def kick(n):
    freqs = [48 + 110 * math.exp(-i / (0.025 * RATE)) for i in range(n)]
    env = [math.exp(-i / (0.16 * RATE)) for i in range(n)]
    return fade([s * e for s, e in zip(sine(freqs), env)], 0, 0.05)


def tom(rng, n, freq):
    freqs = [freq * (1 + 0.25 * math.exp(-i / (0.03 * RATE))) for i in range(n)]
    env = [math.exp(-i / (0.22 * RATE)) for i in range(n)]
    skin = biquad(burst(rng, n, 0.02), "bp", 1500, 0.8)
    return fade([s * e + 0.25 * k for s, e, k in zip(sine(freqs), env, skin)], 0, 0.05)


def cymbal(rng, n, decay):
    """Metallic wash: inharmonic square partials and noise, high-passed, with a bright onset."""
    ratios = [1.0, 1.483, 1.932, 2.546, 2.630, 3.897]
    base = rng.uniform(290, 330)
    phases = [rng.uniform(0, 1) for _ in ratios]
    metal = []
    for i in range(n):
        s = 0.0
        for j, r in enumerate(ratios):
            s += 1.0 if (phases[j] + base * r * i / RATE) % 1.0 < 0.5 else -1.0
        metal.append(s / len(ratios) + rng.uniform(-0.8, 0.8))
    metal = biquad(biquad(metal, "hp", 5200, 0.7), "hp", 5200, 0.7)
    out = []
    for i, v in enumerate(metal):
        t = i / RATE
        out.append(v * (0.6 * math.exp(-t / decay) + 0.6 * math.exp(-t / 0.05)))
    return out


# ---------------------------------------------------------------- background layers


def gen_noise(args):
    rng = random.Random(args.seed)
    write_raw(args.out, [rng.gauss(0.0, 0.25) for _ in range(count(args.seconds))])


def gen_rain_patter(args):
    """Countless tiny impacts; the band-limiting is done afterwards by sox."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    for _ in range(int(args.seconds * 220)):
        at = int(rng.random() * n)
        amp = min(3.0, lognormal(rng, 0.7)) * 0.3
        add(buf, burst(rng, count(0.006), rng.uniform(0.0004, 0.0015)), at, amp, wrap=True)
    write_raw(args.out, buf)


def gen_rain_drops(args):
    """Nearby drops: a click and a small bubble whose pitch rises as it dies away."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    for _ in range(int(args.seconds * 7)):
        at = int(rng.random() * n)
        amp = min(3.0, lognormal(rng, 0.6)) * 0.25
        f0 = rng.uniform(1300, 4200)
        tau = rng.uniform(0.005, 0.018)
        m = count(tau * 5)
        freqs = [f0 * (1 + 0.4 * i / m) for i in range(m)]
        drop = [s * math.exp(-i / (tau * RATE)) * min(1.0, i / 12.0) for i, s in enumerate(sine(freqs))]
        click = burst(rng, count(0.003), 0.0006)
        add(drop, click, 0, rng.uniform(0.3, 0.8))
        add(buf, drop, at, amp, wrap=True)
    write_raw(args.out, buf)


def gen_cafe_clinks(args):
    """Cups set on saucers and spoons stirring, spread over the loop."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    kinds = ["cup", "spoon", "cup", "saucer", "spoon", "cup", "saucer", "cup"]
    slot = n // len(kinds)
    for k, kind in enumerate(kinds):
        at = k * slot + int(rng.uniform(0.1, 0.8) * slot)
        if kind == "spoon":
            hits = [(i * count(rng.uniform(0.16, 0.22)), 0.5 * rng.uniform(0.6, 1.0)) for i in range(rng.randint(3, 5))]
            f0, ratios, decays = rng.uniform(3800, 5200), [1.0, 2.71, 5.18], [0.09, 0.05, 0.03]
        elif kind == "cup":
            hits = [(0, 1.0), (count(rng.uniform(0.05, 0.09)), 0.45)]
            f0, ratios, decays = rng.uniform(2100, 3000), [1.0, 2.32, 4.25, 6.63], [0.22, 0.12, 0.07, 0.04]
        else:
            hits = [(0, 0.8)]
            f0, ratios, decays = rng.uniform(1200, 1700), [1.0, 2.1, 3.9], [0.07, 0.05, 0.03]
        for offset, amp in hits:
            length = count(max(decays) * 5)
            hit = [0.0] * length
            for r, d in zip(ratios, decays):
                if f0 * r > 12000:
                    continue
                add(hit, ring(length, f0 * r * rng.uniform(0.99, 1.01), d, 1.0 / r, rng.uniform(0, TAU)), 0)
            add(hit, burst(rng, count(0.004), 0.0008), 0, 0.6)
            add(buf, hit, at + offset, amp * rng.uniform(0.5, 1.0), wrap=True)
    write_raw(args.out, buf)


def gen_cafe_steam(args):
    """One burst of a milk frother: noise swelling in and dying out, band-limited by sox later."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    start, length = count(args.seconds * 0.4), count(2.6)
    for i in range(length):
        t = i / length
        env = min(1.0, t / 0.12) * min(1.0, (1 - t) / 0.25) * (0.8 + 0.2 * math.sin(TAU * 3.3 * t))
        buf[(start + i) % n] += rng.uniform(-1, 1) * env
    write_raw(args.out, buf)


def gen_place_talkers(args):
    """Strings each talker's utterances one after another around the loop.

    Files are named tK_*.f32; K groups the utterances of one talker, who keeps one level.
    """
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    talkers = {}
    for path in sorted(args.inputs):
        talkers.setdefault(os.path.basename(path).split("_")[0], []).append(path)
    for name in sorted(talkers):
        level = db(rng.uniform(-10, 0))
        start = int(rng.random() * n)
        at = start
        for path in talkers[name]:
            utterance = read_raw(path)
            if at + len(utterance) > start + n:
                break
            add(buf, utterance, at, level * db(rng.uniform(-2, 2)), wrap=True)
            at += len(utterance) + count(rng.uniform(0.3, 1.4))
    write_raw(args.out, buf)


def gen_wind(args):
    """Gusts: a low roar, a resonant body and a howl whose pitch follows the wind's strength."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    gust = periodic_envelope(n, [(1, 1.0), (2, 0.7), (3, 0.5), (5, 0.35), (9, 0.2), (14, 0.1)], rng, 0.55, 0.75)
    gust = [0.1 + 0.9 * g for g in gust]
    roar = read_raw(args.roar)
    hiss = read_raw(args.hiss)
    white = [rng.gauss(0.0, 1.0) for _ in range(n)]
    twice = white + white
    gust2 = gust + gust
    body = svf(twice, [220 + 700 * g for g in gust2], 2.2)[n:]
    howl = svf(twice, [380 + 650 * g for g in gust2], 22.0)[n:]
    howl2 = svf(twice, [560 + 900 * g for g in gust2], 30.0)[n:]
    sb, sh, sr, ss = 1 / rms(body), 1 / rms(howl), 1 / rms(roar), 1 / rms(hiss)
    out = []
    for i, g in enumerate(gust):
        lag = gust[i - count(0.4)]
        out.append(sr * roar[i] * (0.25 + 0.75 * lag) * 0.9
                   + sb * body[i] * g ** 1.5 * 0.7
                   + sh * (howl[i] + 0.6 * howl2[i]) * g ** 3 * 0.35
                   + ss * hiss[i] * g ** 2 * 0.12)
    write_raw(args.out, out)


def typist(rng, n, buf, level):
    """Bursts of typing: key presses and softer releases, a heavier space bar between words."""
    at = int(rng.random() * n)
    end = at + n - count(1.0)
    while at < end:
        for _ in range(rng.randint(2, 6)):
            for key in range(rng.randint(2, 8) + 1):
                space = key == 0
                m = count(0.06)
                body_f = rng.uniform(200, 280) if space else rng.uniform(400, 800)
                press = biquad(burst(rng, m, 0.008 if space else 0.005), "bp", body_f, 1.5)
                click = biquad(burst(rng, m, 0.0025 if space else 0.0015), "bp", rng.uniform(2500, 4500), 1.0)
                add(press, click, 0, 0.5)
                if space:
                    add(press, biquad(burst(rng, m, 0.01), "bp", 1800, 1.0), count(0.004), 0.25)
                amp = level * (1.3 if space else 1.0) * rng.uniform(0.6, 1.0)
                add(buf, press, at, amp, wrap=True)
                add(buf, press[: count(0.03)], at + count(rng.uniform(0.06, 0.11)), amp * 0.3, wrap=True)
                at += count(min(0.5, 0.08 * lognormal(rng, 0.35) + 0.08))
            at += count(rng.uniform(0.1, 0.3))
        at += count(rng.uniform(1.5, 5.0))


def gen_office_keys(args):
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    typist(rng, n, buf, 1.0)
    far = [0.0] * n
    typist(rng, n, far, 1.0)
    # A second desk further away: duller and quieter.
    far = svf(far + far, 2500.0, 0.7, "lp")[n:]
    add(buf, far, 0, 0.35)
    for _ in range(4):
        at = int(rng.random() * n)
        click = biquad(burst(rng, count(0.02), 0.0012), "bp", 3200, 1.5)
        add(buf, click, at, 0.5, wrap=True)
        add(buf, click, at + count(rng.uniform(0.12, 0.2)), 0.4, wrap=True)
    write_raw(args.out, buf)


def gen_office_phone(args):
    """A desk phone two rooms away: two rings of a warbling two-tone trill."""
    n = count(args.seconds)
    buf = [0.0] * n
    ring_len = count(1.0)
    trill = []
    for i in range(ring_len):
        t = i / RATE
        f = 1150.0 if (t * 20.0) % 1.0 < 0.5 else 1400.0
        trill.append(f)
    tone = sine(trill)
    tone = [v + 0.3 * math.sin(3 * math.asin(max(-1.0, min(1.0, v)))) for v in tone]
    fade(tone, 0.01, 0.02)
    for start in (0.3, 0.45):
        add(buf, tone, count(args.seconds * start), 1.0)
        add(buf, tone, count(args.seconds * start + 1.4), 1.0)
    write_raw(args.out, buf)


def gen_hum(args):
    """Air-conditioning drone: harmonics of 50 Hz that fit a whole number of times in the loop."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    wobble = periodic_envelope(n, [(2, 1.0), (5, 0.5)], rng, 0.8, 0.3)
    out = []
    for i in range(n):
        t = i / RATE
        v = (math.sin(TAU * 100 * t) + 0.5 * math.sin(TAU * 200 * t + 1.0)
             + 0.25 * math.sin(TAU * 300 * t + 2.0) + 0.1 * math.sin(TAU * 50 * t))
        out.append(v * wobble[i])
    write_raw(args.out, out)


def gen_chime(args):
    """A celesta arpeggio; each note's tail wraps round so the bar repeats seamlessly."""
    n = count(args.seconds)
    buf = [0.0] * n
    notes = [523.25, 659.26, 783.99, 1174.66, 1046.50, 783.99, 659.26, 587.33]
    step = n // len(notes)
    for k, f in enumerate(notes):
        # A note may ring for one whole bar but must be silent before it strikes again.
        length = n
        tone = ring(length, f, 0.55, 1.0)
        add(tone, ring(length, f * 2, 0.25, 0.3), 0)
        add(tone, ring(length, f * 3, 0.12, 0.12), 0)
        add(tone, ring(length, f * 4.2, 0.03, 0.12), 0)
        fade(tone, 0.003, 0.5)
        add(buf, tone, k * step, 0.9 if k % 4 == 0 else 0.7, wrap=True)
    write_raw(args.out, buf)


# ---------------------------------------------------------------- fun sounds


def clapping(rng, n, clappers, die_from):
    buf = [0.0] * n
    for _ in range(clappers):
        rate = rng.uniform(3.6, 5.2)
        centre, q = rng.uniform(900, 2600), rng.uniform(1.0, 2.0)
        level = lognormal(rng, 0.4)
        t = rng.uniform(0.0, 0.25)
        while t < n / RATE:
            m = count(0.04)
            clap = biquad(burst(rng, m, rng.uniform(0.005, 0.011), 0.0008), "bp", centre, q)
            add(buf, clap, count(t), level * rng.uniform(0.7, 1.0))
            t += (1 / rate) * rng.uniform(0.92, 1.08)
    start = count(die_from)
    for i in range(start, n):
        buf[i] *= math.exp(-(i - start) / (0.25 * RATE))
    return buf


def gen_applause(args):
    rng = random.Random(args.seed)
    write_raw(args.out, clapping(rng, count(args.seconds), 40, args.seconds * 0.55))


def gen_cheer(args):
    """A crowd shouting over applause, and one two-finger whistle."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = clapping(rng, n, 24, args.seconds * 0.6)
    crowd = [0.0] * n
    for path in sorted(args.inputs):
        add(crowd, read_raw(path), count(rng.uniform(0.0, 0.3)), db(rng.uniform(-6, 0)))
    s = 0.5 * rms(buf) / max(1e-9, rms(crowd))
    add(buf, crowd, 0, 2.2 * s)
    m = count(0.75)
    freqs = [2000 + 700 * min(1.0, i / count(0.12)) + 40 * math.sin(TAU * 6 * i / RATE) for i in range(m)]
    whistle = sine(freqs)
    breath = biquad([rng.uniform(-1, 1) for _ in range(m)], "bp", 2700, 3.0)
    whistle = [w + 0.15 * b for w, b in zip(whistle, breath)]
    fade(whistle, 0.03, 0.12)
    add(buf, whistle, count(0.35), 0.22 * max(abs(v) for v in buf))
    write_raw(args.out, buf)


def glottal(f0s, rng):
    """Derivative of a Rosenberg glottal pulse, with a little jitter."""
    out = []
    phase, prev = 0.0, 0.0
    for f in f0s:
        phase += f * (1 + rng.uniform(-0.01, 0.01)) / RATE
        if phase >= 1:
            phase -= 1
        if phase < 0.4:
            flow = 0.5 - 0.5 * math.cos(math.pi * phase / 0.4)
        elif phase < 0.56:
            flow = math.cos(math.pi * (phase - 0.4) / 0.32)
        else:
            flow = 0.0
        out.append(flow - prev)
        prev = flow
    return out


def laugher(rng, n, f0, formants, syllables, start, rate):
    """"Ha ha ha": aspiration then an open vowel, pitch and strength falling syllable by syllable."""
    f0s, voiced, breath = [f0] * n, [0.0] * n, [0.0] * n
    t = start
    for k in range(syllables):
        period = rate * (1 + 0.06 * k) * rng.uniform(0.95, 1.05)
        pitch = f0 * (1.3 - 0.06 * k)
        strength = 0.87 ** k
        vowel = period * 0.42
        s0, s1 = count(t), min(n, count(t + period))
        for i in range(s0, s1):
            u = (i - s0) / RATE
            f0s[i] = pitch * (1.06 - 0.18 * u / period)
            breath[i] = strength * (0.7 * math.exp(-((u - 0.018) / 0.016) ** 2) + 0.12 * (u < 0.03 + vowel))
            if 0.03 < u < 0.03 + vowel:
                voiced[i] = strength * math.sin(math.pi * (u - 0.03) / vowel) ** 0.6
        t += period
    source = glottal(f0s, rng)
    excitation = [s * v * 60 + rng.uniform(-1, 1) * b * 0.5 for s, v, b in zip(source, voiced, breath)]
    out = [0.0] * n
    for (freq, bw), gain in zip(formants, (1.0, 0.6, 0.25, 0.12)):
        add(out, svf(excitation, freq, freq / bw), 0, gain)
    return out


def gen_laugh(args):
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = laugher(rng, n, 150, [(730, 90), (1090, 100), (2440, 130), (3400, 200)], 6, 0.0, 0.19)
    # She laughs along in his rhythm, so the breaths between the syllables stay audible.
    her = laugher(rng, n, 270, [(850, 100), (1220, 110), (2810, 150), (3800, 220)], 6, 0.015, 0.19)
    add(buf, her, 0, 0.45 * rms(buf) / max(1e-9, rms(her)))
    write_raw(args.out, buf)


def gen_boing(args):
    """A plucked spring: a buzzy tone with a fast decaying wobble through a sweeping resonance."""
    n = count(args.seconds)
    freqs, centres = [], []
    for i in range(n):
        t = i / RATE
        wobble = math.sin(TAU * 11 * t) * math.exp(-t / 0.25)
        freqs.append(140 * (1 + 0.6 * (1 - math.exp(-t / 0.04))) * (1 + 0.25 * wobble))
        centres.append(600 + 1300 * (1 - math.exp(-t / 0.05)) * (1 + 0.35 * wobble))
    tone = svf(saw(freqs), centres, 6.0)
    add(tone, svf(saw(freqs), centres, 1.0, "lp"), 0, 0.15)
    for i in range(n):
        t = i / RATE
        tone[i] *= min(1.0, t / 0.004) * math.exp(-t / 0.28)
    write_raw(args.out, tone)


def gen_drum_roll(args):
    """A snare roll swelling for a second, then kick, snare and crash together."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    hit_at = args.seconds - 0.6
    t, k = 0.0, 0
    while t < hit_at - 0.03:
        level = 0.12 + 0.6 * (t / hit_at) ** 1.6
        accent = 1.0 if k % 2 == 0 else 0.8
        stroke = snare(rng, count(0.12), rng.uniform(0.97, 1.03), 1.3, 0.03)
        add(buf, stroke, count(t), level * accent * rng.uniform(0.85, 1.0))
        t += 1 / 24 * rng.uniform(0.93, 1.07)
        k += 1
    at = count(hit_at)
    add(buf, kick(n - at), at, 1.6)
    add(buf, snare(rng, count(0.3)), at, 1.1)
    add(buf, cymbal(rng, n - at, 0.5), at, 1.5)
    write_raw(args.out, buf)


def gen_rimshot(args):
    """Ba-dum-tss."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    add(buf, snare(rng, count(0.25)), 0, 0.9)
    add(buf, tom(rng, count(0.4), 105), count(0.17), 1.1)
    add(buf, kick(count(0.4)), count(0.17), 0.8)
    tss = count(0.42)
    add(buf, kick(count(0.4)), tss, 0.9)
    add(buf, cymbal(rng, n - tss, 0.25), tss, 1.8)
    write_raw(args.out, buf)


def brass(freqs, bright, rng, voices=1, detune=0.0):
    """Sawtooths through a low-pass that opens with the note's strength, mildly saturated."""
    n = len(freqs)
    mix = [0.0] * n
    for v in range(voices):
        cents = detune * (v - (voices - 1) / 2)
        ratio = 2 ** (cents / 1200)
        add(mix, saw([f * ratio for f in freqs], rng.random()), 0, 1.0 / voices)
    return svf(mix, bright, 0.9, "lp")


def gen_air_horn(args):
    rng = random.Random(args.seed)
    n = count(args.seconds)
    freqs = [466.0 * (1 - 0.06 * math.exp(-i / (0.03 * RATE))) for i in range(n)]
    env = [min(1.0, i / count(0.02)) for i in range(n)]
    bright = [1500 + 5500 * e for e in env]
    horn = brass(freqs, bright, rng, 3, 12.0)
    low = brass([f * 0.75 for f in freqs], bright, rng, 2, 10.0)
    add(horn, low, 0, 0.7)
    horn = svf(horn, 2400.0, 1.2, "bp")
    add(horn, brass(freqs, 4000.0, rng), 0, 0.3)
    horn = soft_clip([h * e for h, e in zip(horn, env)], 2.5)
    write_raw(args.out, fade(horn, 0.0, 0.06))


def gen_sad_trombone(args):
    """Wah, wah, wah, waaah: four falling notes through a plunger mute, the last one wavering."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    notes = [(220.0, 0.0, 0.3), (207.65, 0.3, 0.3), (196.0, 0.6, 0.3), (185.0, 0.9, args.seconds - 0.9)]
    freqs, amps, bright = [185.0] * n, [0.0] * n, [300.0] * n
    for f, start, length in notes:
        s0, s1 = count(start), min(n, count(start + length))
        last = s1 == n
        for i in range(s0, s1):
            u = (i - s0) / RATE
            vib = 0.012 * min(1.0, max(0.0, u - 0.15) / 0.2) * math.sin(TAU * 5.5 * u) if last else 0.0
            freqs[i] = f * (1 - 0.03 * math.exp(-u / 0.03)) * (1 + vib)
            a = min(1.0, u / 0.03) * min(1.0, (length - u) / 0.06)
            amps[i] = a
            if not last:
                wah = math.sin(math.pi * min(1.0, u / 0.26))
            elif u < 0.2:
                wah = math.sin(0.5 * math.pi * u / 0.2)
            else:
                wah = 0.7 + 0.3 * math.cos(TAU * 2.2 * (u - 0.2))
            bright[i] = 350 + 1700 * wah * a
    horn = brass(freqs, bright, rng, 2, 6.0)
    horn = soft_clip([h * a for h, a in zip(horn, amps)], 1.6)
    write_raw(args.out, horn)


def gen_tada(args):
    """Ta-daa: a short pickup chord and a held major chord with a cymbal."""
    rng = random.Random(args.seed)
    n = count(args.seconds)
    buf = [0.0] * n
    chord = [261.63, 329.63, 392.0, 523.25]
    for start, length, level in ((0.0, 0.12, 0.7), (0.16, args.seconds - 0.16, 1.0)):
        s0, m = count(start), count(length)
        env = [min(1.0, i / count(0.015)) * min(1.0, (m - i) / count(0.08)) for i in range(m)]
        bright = [900 + 3800 * e * (0.85 + 0.15 * math.exp(-i / (0.2 * RATE))) for i, e in enumerate(env)]
        for f in chord:
            vib = [f * (1 + 0.004 * math.sin(TAU * 5.2 * i / RATE)) for i in range(m)]
            note = brass(vib, bright, rng, 2, 8.0)
            add(buf, [v * e for v, e in zip(note, env)], s0, level / len(chord))
    add(buf, cymbal(rng, n - count(0.16), 0.35), count(0.16), 0.25)
    write_raw(args.out, soft_clip(buf, 1.4))


# ---------------------------------------------------------------- mixing and finishing


def gen_mix(args):
    """Sums layers given as PATH@DB; each is first brought to unit RMS so levels read as dB."""
    layers = []
    for entry in args.inputs:
        path, gain = entry.rsplit("@", 1)
        x = read_raw(path)
        layers.append((x, db(float(gain)) / max(1e-12, rms(x))))
    n = max(len(x) for x, _ in layers)
    out = [0.0] * n
    for x, g in layers:
        add(out, x, 0, g)
    write_raw(args.out, out)


def wav_bytes(pcm):
    data = struct.pack("<%dh" % len(pcm), *pcm)
    header = struct.pack("<4sI4s4sIHHIIHH4sI", b"RIFF", 36 + len(data), b"WAVE", b"fmt ", 16,
                         1, 1, RATE, RATE * 2, 2, 16, b"data", len(data))
    return header + data


def gen_finish(args):
    """Library WAV: no DC, peak at -1 dBFS; one-shots are trimmed and faded, loops left whole."""
    x = read_raw(args.input)
    if not args.loop:
        top = max(abs(v) for v in x)
        loud = [i for i, v in enumerate(x) if abs(v) > top * db(-45)]
        x = x[max(0, loud[0] - count(0.002)): loud[-1] + 1]
        if args.max_seconds:
            x = x[: count(args.max_seconds)]
    mean = sum(x) / len(x)
    x = [v - mean for v in x]
    if not args.loop:
        fade(x, 0.002, args.fade_out)
    gain = PEAK / max(abs(v) for v in x)
    pcm = [max(-PEAK, min(PEAK, int(round(v * gain)))) for v in x]
    with open(args.output, "wb") as f:
        f.write(wav_bytes(pcm))


# ---------------------------------------------------------------- checking


def read_library_wav(path):
    """Returns the samples of a file in the library format, or raises ValueError saying why not."""
    with open(path, "rb") as f:
        raw = f.read()
    if len(raw) < 44:
        raise ValueError("shorter than a WAV header")
    fields = struct.unpack("<4sI4s4sIHHIIHH4sI", raw[:44])
    riff, riff_size, wave, fmt, fmt_size, tag, channels, rate, byte_rate, align, bits, data, size = fields
    expected = (b"RIFF", len(raw) - 8, b"WAVE", b"fmt ", 16, 1, 1, RATE, RATE * 2, 2, 16, b"data", len(raw) - 44)
    names = ("RIFF tag", "RIFF size", "WAVE tag", "fmt tag", "fmt size", "format tag", "channels",
             "rate", "byte rate", "block align", "bits", "data tag", "data size")
    for name, got, want in zip(names, fields, expected):
        if got != want:
            raise ValueError("%s is %r, not %r" % (name, got, want))
    if size % 2:
        raise ValueError("odd data size")
    return list(struct.unpack("<%dh" % (size // 2), raw[44:]))


def seam_jump_ok(pcm):
    """A loop's wrap from last to first sample must be no larger than its ordinary big steps."""
    steps = sorted(abs(b - a) for a, b in zip(pcm, pcm[1:]))
    typical = steps[int(len(steps) * 0.999)]
    return abs(pcm[0] - pcm[-1]) <= typical, abs(pcm[0] - pcm[-1]), typical


def gen_check(args):
    root = args.data
    problems = []
    total = 0
    backs, funs, groups = 0, 0, set()
    print("%-36s %7s %9s %9s %10s %s" % ("file", "seconds", "peak dBFS", "RMS dBFS", "DC", "loop seam"))
    for dirpath, dirnames, filenames in os.walk(root):
        dirnames.sort()
        for name in sorted(filenames):
            if not name.lower().endswith(".wav"):
                continue
            path = os.path.join(dirpath, name)
            rel = os.path.relpath(path, root)
            total += os.path.getsize(path)
            try:
                pcm = read_library_wav(path)
            except ValueError as e:
                problems.append("%s: %s" % (rel, e))
                continue
            seconds = len(pcm) / RATE
            peak = max(abs(v) for v in pcm)
            level = math.sqrt(sum(v * v for v in pcm) / len(pcm))
            dc = sum(pcm) / len(pcm) / 32768
            parts = rel.split(os.sep)
            loop = parts[0] == "backsounds" or rel == "test.wav"
            seam = ""
            if loop:
                ok, jump, typical = seam_jump_ok(pcm)
                seam = "%d <= %d" % (jump, typical) if ok else "CLICK %d > %d" % (jump, typical)
                if not ok:
                    problems.append("%s: the loop clicks" % rel)
            print("%-36s %7.2f %9.2f %9.2f %10.2e %s" % (rel, seconds, 20 * math.log10(max(1, peak) / 32768),
                                                         20 * math.log10(max(1e-9, level) / 32768), dc, seam))
            if peak > PEAK:
                problems.append("%s: peak %d above -1 dBFS" % (rel, peak))
            if abs(dc) >= 1e-3:
                problems.append("%s: DC offset %.2e" % (rel, dc))
            if parts[0] == "backsounds":
                backs += 1
                if len(parts) != 2 or not 20.0 <= seconds <= 60.0:
                    problems.append("%s: a background loop must lie flat and last 20 to 60 s" % rel)
            elif parts[0] == "emoticsounds":
                funs += 1
                if len(parts) != 3:
                    problems.append("%s: a fun sound belongs in a group folder" % rel)
                else:
                    groups.add(parts[1])
            if not all(p[:1].isupper() for p in parts[1:]):
                problems.append("%s: group and file names start with a capital letter" % rel)
    print("total %d bytes (%.2f MiB) in %d background loops and %d fun sounds in %d groups"
          % (total, total / 2**20, backs, funs, len(groups)))
    if total > 8 * 2**20:
        problems.append("the sounds take more than 8 MiB")
    if backs < 4 or funs < 12 or len(groups) < 3:
        problems.append("too few sounds: at least 4 loops and 12 fun sounds in 3 groups are shipped")
    if not os.path.isfile(os.path.join(root, "test.wav")):
        problems.append("test.wav is missing")
    for p in problems:
        print("error: " + p, file=sys.stderr)
    return 1 if problems else 0


# ---------------------------------------------------------------- command line


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    sub = parser.add_subparsers(dest="command", required=True)
    generators = {
        "noise": gen_noise, "rain-patter": gen_rain_patter, "rain-drops": gen_rain_drops,
        "cafe-clinks": gen_cafe_clinks, "cafe-steam": gen_cafe_steam, "place-talkers": gen_place_talkers,
        "wind": gen_wind, "office-keys": gen_office_keys, "office-phone": gen_office_phone,
        "hum": gen_hum, "chime": gen_chime, "applause": gen_applause, "cheer": gen_cheer,
        "laugh": gen_laugh, "boing": gen_boing, "drum-roll": gen_drum_roll, "rimshot": gen_rimshot,
        "air-horn": gen_air_horn, "sad-trombone": gen_sad_trombone, "tada": gen_tada,
    }
    for name, func in generators.items():
        p = sub.add_parser(name)
        p.add_argument("out")
        p.add_argument("--seconds", type=float, required=True)
        p.add_argument("--seed", type=int, default=1)
        p.add_argument("inputs", nargs="*")
        if name == "wind":
            p.add_argument("--roar", required=True)
            p.add_argument("--hiss", required=True)
        p.set_defaults(func=func)
    p = sub.add_parser("mix")
    p.add_argument("out")
    p.add_argument("inputs", nargs="+")
    p.set_defaults(func=gen_mix)
    p = sub.add_parser("finish")
    p.add_argument("input")
    p.add_argument("output")
    p.add_argument("--loop", action="store_true")
    p.add_argument("--fade-out", type=float, default=0.03)
    p.add_argument("--max-seconds", type=float, default=0.0)
    p.set_defaults(func=gen_finish)
    p = sub.add_parser("check")
    p.add_argument("data")
    p.set_defaults(func=gen_check)
    args = parser.parse_args()
    return args.func(args) or 0


if __name__ == "__main__":
    sys.exit(main())
