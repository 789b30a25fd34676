// SPDX-License-Identifier: GPL-3.0-or-later
// Test signals and the measurements the effect tests make on what comes out.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace larimo::test {

struct Formants {
    double m_first = 0.0;
    double m_second = 0.0;
};

/// A vowel-like voice: a band-limited pulse train at `f0` through three resonances at
/// 700, 1220 and 2600 Hz, peak level about 0.5.
std::vector<float> VoicedSignal(double f0, double sampleRate, double seconds);
/// The same with the fundamental gliding linearly from `f0Start` to `f0End`.
std::vector<float> GlidingVoice(double f0Start, double f0End, double sampleRate, double seconds);
std::vector<float> Sine(double frequency, double amplitude, double sampleRate, double seconds);
/// Uniform noise in [-amplitude, amplitude], the same for the same seed.
std::vector<float> Noise(double amplitude, size_t frames, uint32_t seed = 1);

/// Fundamental frequency of a steady stretch, from its autocorrelation: the shortest lag whose
/// normalised correlation comes within 10 % of the best between `minHz` and `maxHz`.
double Fundamental(const std::vector<float>& signal, double sampleRate, double minHz = 50.0, double maxHz = 800.0);
/// Amplitude of the component at `frequency` (a single-bin Fourier sum, Hann windowed).
double Amplitude(const std::vector<float>& signal, double sampleRate, double frequency);
/// First two formants of a steady voiced stretch with fundamental `f0`: the peaks of the
/// harmonics' amplitudes in 400..1000 Hz and 1000..1800 Hz (both bands times `scale`),
/// placed by a parabola in dB.
Formants MeasureFormants(const std::vector<float>& signal, double sampleRate, double f0, double scale = 1.0);

double Rms(const std::vector<float>& signal, size_t from = 0, size_t to = SIZE_MAX);
double Peak(const std::vector<float>& signal, size_t from = 0, size_t to = SIZE_MAX);
/// Largest difference between neighbouring samples in [from, to).
double MaxStep(const std::vector<float>& signal, size_t from, size_t to);
/// Copy of [from, to).
std::vector<float> Slice(const std::vector<float>& signal, size_t from, size_t to);

} // namespace larimo::test
