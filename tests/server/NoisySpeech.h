// SPDX-License-Identifier: GPL-3.0-or-later
// Speech in a noisy room, made for the tests and the benchmark of the microphone cleaner: a
// sentence spoken by espeak-ng, repeated with pauses, over the steady noise of a fan and the
// clicks of a keyboard, all at 44100 Hz mono.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace larimo::test {

struct NoisyScene {
    std::vector<int16_t> speech; ///< the voice alone
    std::vector<int16_t> noise;  ///< the room alone
    std::vector<int16_t> mix;    ///< what the microphone hears
    /// Where each utterance starts and ends in the samples.
    std::vector<std::pair<size_t, size_t>> words;
};

/// A sentence spoken by espeak-ng at 44100 Hz, peak at -6 dBFS; empty when espeak-ng or sox
/// is missing.
std::vector<int16_t> SpokenSentence(const std::string& text);

/// Fan-like noise: low-passed random noise with a little hum, at `rmsDb` dBFS. Reproducible.
std::vector<int16_t> FanNoise(size_t count, double rmsDb, uint32_t seed);
/// Keyboard-like noise: short decaying clicks, about eight a second, peaking at `peakDb` dBFS.
std::vector<int16_t> KeyboardNoise(size_t count, double peakDb, uint32_t seed);

/// `lead` seconds of room first, then each utterance followed by `pause` seconds of room,
/// `repeats` times. Empty when no speech could be made.
NoisyScene MakeNoisyScene(double lead, double pause, int repeats, double fanDb, double keysDb);

/// RMS in dBFS of samples [begin, end); -150 for silence.
double RmsDb(const std::vector<int16_t>& samples, size_t begin, size_t end);

/// Writes 16-bit mono 44100 Hz samples as a WAV file.
bool WriteWav(const std::string& path, const std::vector<int16_t>& samples);

} // namespace larimo::test
