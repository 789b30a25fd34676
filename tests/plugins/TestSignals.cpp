// SPDX-License-Identifier: GPL-3.0-or-later
#include "TestSignals.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <complex>
#include <numbers>
#include <random>

namespace larimo::test {

namespace {

constexpr double kTwoPi = 2.0 * std::numbers::pi;

// Two-pole resonator with unity gain at DC removed: the textbook vocal-tract section.
class Resonator {
public:
    Resonator(double frequency, double bandwidth, double sampleRate)
    {
        const double r = std::exp(-std::numbers::pi * bandwidth / sampleRate);
        m_a1 = 2.0 * r * std::cos(kTwoPi * frequency / sampleRate);
        m_a2 = -r * r;
    }
    double Process(double x)
    {
        const double y = x + m_a1 * m_y1 + m_a2 * m_y2;
        m_y2 = m_y1;
        m_y1 = y;
        return y;
    }

private:
    double m_a1 = 0.0, m_a2 = 0.0, m_y1 = 0.0, m_y2 = 0.0;
};

std::vector<float> VoiceFromPhase(const std::vector<double>& phase, double highestF0, double sampleRate)
{
    // Sum of cos(k phase) for k = 1..K in closed form (the Dirichlet kernel).
    const int harmonics = std::max(1, static_cast<int>(5000.0 / highestF0));
    std::array<Resonator, 3> tract { Resonator(700.0, 110.0, sampleRate), Resonator(1220.0, 120.0, sampleRate),
                                     Resonator(2600.0, 160.0, sampleRate) };
    std::vector<double> out(phase.size());
    for (size_t n = 0; n < phase.size(); ++n) {
        const double p = phase[n];
        const double s = std::sin(0.5 * p);
        double pulse = std::fabs(s) < 1e-9 ? harmonics : (std::sin((harmonics + 0.5) * p) / (2.0 * s) - 0.5);
        for (Resonator& r : tract)
            pulse = r.Process(pulse);
        out[n] = pulse;
    }
    double peak = 0.0;
    for (double v : out)
        peak = std::max(peak, std::fabs(v));
    std::vector<float> result(out.size());
    for (size_t n = 0; n < out.size(); ++n)
        result[n] = static_cast<float>(0.5 * out[n] / peak);
    return result;
}

} // namespace

std::vector<float> VoicedSignal(double f0, double sampleRate, double seconds)
{
    return GlidingVoice(f0, f0, sampleRate, seconds);
}

std::vector<float> GlidingVoice(double f0Start, double f0End, double sampleRate, double seconds)
{
    const auto frames = static_cast<size_t>(seconds * sampleRate);
    std::vector<double> phase(frames);
    double p = 0.0;
    for (size_t n = 0; n < frames; ++n) {
        phase[n] = p;
        const double f = f0Start + (f0End - f0Start) * static_cast<double>(n) / static_cast<double>(frames);
        p = std::fmod(p + kTwoPi * f / sampleRate, kTwoPi);
    }
    return VoiceFromPhase(phase, std::max(f0Start, f0End), sampleRate);
}

std::vector<float> Sine(double frequency, double amplitude, double sampleRate, double seconds)
{
    std::vector<float> out(static_cast<size_t>(seconds * sampleRate));
    for (size_t n = 0; n < out.size(); ++n)
        out[n] = static_cast<float>(amplitude * std::sin(kTwoPi * frequency * static_cast<double>(n) / sampleRate));
    return out;
}

std::vector<float> Noise(double amplitude, size_t frames, uint32_t seed)
{
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> uniform(static_cast<float>(-amplitude), static_cast<float>(amplitude));
    std::vector<float> out(frames);
    for (float& v : out)
        v = uniform(engine);
    return out;
}

double Fundamental(const std::vector<float>& signal, double sampleRate, double minHz, double maxHz)
{
    const auto minLag = static_cast<size_t>(sampleRate / maxHz);
    const auto maxLag = static_cast<size_t>(sampleRate / minHz) + 1;
    if (signal.size() <= 2 * maxLag)
        return 0.0;
    const size_t length = signal.size() - maxLag - 1;
    std::vector<double> r(maxLag + 2, 0.0);
    double bestValue = -1.0;
    for (size_t lag = minLag - 1; lag <= maxLag + 1; ++lag) {
        double xy = 0.0, xx = 0.0, yy = 0.0;
        for (size_t n = 0; n < length; ++n) {
            const double a = signal[n];
            const double b = signal[n + lag];
            xy += a * b;
            xx += a * a;
            yy += b * b;
        }
        r[lag] = xx > 0.0 && yy > 0.0 ? xy / std::sqrt(xx * yy) : 0.0;
        if (lag >= minLag && lag <= maxLag)
            bestValue = std::max(bestValue, r[lag]);
    }
    for (size_t lag = minLag; lag <= maxLag; ++lag) {
        if (r[lag] >= 0.9 * bestValue && r[lag] >= r[lag - 1] && r[lag] >= r[lag + 1]) {
            const double curvature = r[lag - 1] - 2.0 * r[lag] + r[lag + 1];
            const double offset = curvature < 0.0 ? 0.5 * (r[lag - 1] - r[lag + 1]) / curvature : 0.0;
            return sampleRate / (static_cast<double>(lag) + offset);
        }
    }
    return 0.0;
}

double Amplitude(const std::vector<float>& signal, double sampleRate, double frequency)
{
    std::complex<double> sum = 0.0;
    double windowSum = 0.0;
    const double n = static_cast<double>(signal.size());
    for (size_t i = 0; i < signal.size(); ++i) {
        const double w = 0.5 - 0.5 * std::cos(kTwoPi * static_cast<double>(i) / n);
        sum += w * static_cast<double>(signal[i]) * std::polar(1.0, -kTwoPi * frequency * static_cast<double>(i) / sampleRate);
        windowSum += w;
    }
    return 2.0 * std::abs(sum) / windowSum;
}

Formants MeasureFormants(const std::vector<float>& signal, double sampleRate, double f0, double scale)
{
    auto peakIn = [&](double low, double high) {
        const int first = std::max(1, static_cast<int>(std::ceil(low / f0)));
        const int last = static_cast<int>(std::floor(high / f0));
        int best = first;
        std::vector<double> db(static_cast<size_t>(last + 2), -300.0);
        for (int k = std::max(1, first - 1); k <= last + 1; ++k)
            db[static_cast<size_t>(k)] = 20.0 * std::log10(Amplitude(signal, sampleRate, k * f0) + 1e-12);
        for (int k = first; k <= last; ++k)
            if (db[static_cast<size_t>(k)] > db[static_cast<size_t>(best)])
                best = k;
        const double a = db[static_cast<size_t>(best - 1)];
        const double b = db[static_cast<size_t>(best)];
        const double c = db[static_cast<size_t>(best + 1)];
        const double curvature = a - 2.0 * b + c;
        const double offset = best > 1 && curvature < 0.0 ? std::clamp(0.5 * (a - c) / curvature, -0.5, 0.5) : 0.0;
        return (best + offset) * f0;
    };
    return { peakIn(400.0 * scale, 1000.0 * scale), peakIn(1000.0 * scale, 1800.0 * scale) };
}

double Rms(const std::vector<float>& signal, size_t from, size_t to)
{
    to = std::min(to, signal.size());
    double sum = 0.0;
    for (size_t i = from; i < to; ++i)
        sum += static_cast<double>(signal[i]) * signal[i];
    return to > from ? std::sqrt(sum / static_cast<double>(to - from)) : 0.0;
}

double Peak(const std::vector<float>& signal, size_t from, size_t to)
{
    to = std::min(to, signal.size());
    double peak = 0.0;
    for (size_t i = from; i < to; ++i)
        peak = std::max(peak, static_cast<double>(std::fabs(signal[i])));
    return peak;
}

double MaxStep(const std::vector<float>& signal, size_t from, size_t to)
{
    to = std::min(to, signal.size());
    double step = 0.0;
    for (size_t i = std::max<size_t>(from, 1); i < to; ++i)
        step = std::max(step, static_cast<double>(std::fabs(signal[i] - signal[i - 1])));
    return step;
}

std::vector<float> Slice(const std::vector<float>& signal, size_t from, size_t to)
{
    to = std::min(to, signal.size());
    return { signal.begin() + static_cast<std::ptrdiff_t>(from), signal.begin() + static_cast<std::ptrdiff_t>(to) };
}

} // namespace larimo::test
