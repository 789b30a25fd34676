// SPDX-License-Identifier: GPL-3.0-or-later
#include "ReverbEffect.h"

#include <algorithm>
#include <cmath>

namespace larimo::fx {

namespace {

// Comb lengths in milliseconds: spread over 25..40 ms and free of common factors so their
// echoes do not pile up on the same instants (which would sound as a flutter).
constexpr std::array<double, 8> kCombMs { 25.31, 26.93, 28.97, 30.71, 32.33, 33.91, 35.37, 36.83 };
constexpr std::array<double, 4> kAllpassMs { 5.03, 3.71, 1.73, 1.11 };
constexpr float kAllpassGain = 0.6f;
constexpr float kMaxPredelayMs = 150.0f;
// The comb bank's sum is much louder than its input; this keeps the wet level near the dry one.
constexpr float kWetGain = 0.18f;

} // namespace

const std::array<ParamInfo, ReverbEffect::kParamCount> ReverbEffect::kParams { {
    { "Decay", "s", 0.3f, 10.0f, 1.6f, ParamInfo::Scale::Logarithmic, 1 },
    { "Damping", "%", 0.0f, 100.0f, 40.0f, ParamInfo::Scale::Linear, 0 },
    { "Predelay", "ms", 0.0f, kMaxPredelayMs, 20.0f, ParamInfo::Scale::Linear, 0 },
    { "Mix", "%", 0.0f, 100.0f, 35.0f, ParamInfo::Scale::Linear, 0 },
} };

const EffectInfo ReverbEffect::kInfo { "Larimo Reverb", 0x4C6D5276 /* LmRv */, 1000, kParams };

ReverbEffect::ReverbEffect()
{
    for (int i = 0; i < kParamCount; ++i)
        m_plain[static_cast<size_t>(i)] = kParams[static_cast<size_t>(i)].m_default;
    Prepare(m_rate);
}

void ReverbEffect::Prepare(double sampleRate)
{
    m_rate = sampleRate;
    for (size_t i = 0; i < m_combs.size(); ++i)
        m_combs[i].m_buffer.assign(static_cast<size_t>(std::lround(kCombMs[i] * 0.001 * sampleRate)), 0.0f);
    for (size_t i = 0; i < m_allpasses.size(); ++i)
        m_allpasses[i].m_buffer.assign(static_cast<size_t>(std::lround(kAllpassMs[i] * 0.001 * sampleRate)), 0.0f);
    m_predelayLine.Prepare(static_cast<size_t>(std::ceil(kMaxPredelayMs * 0.001 * sampleRate)) + 2);
    m_decaySeconds.Prepare(sampleRate);
    m_damping.Prepare(sampleRate);
    m_predelay.Prepare(sampleRate);
    m_mix.Prepare(sampleRate);
    for (int i = 0; i < kParamCount; ++i)
        SetParameterRT(i, m_plain[static_cast<size_t>(i)]);
    ResetRT();
}

void ReverbEffect::ResetRT()
{
    for (Comb& comb : m_combs) {
        std::fill(comb.m_buffer.begin(), comb.m_buffer.end(), 0.0f);
        comb.m_pos = 0;
        comb.m_damped = 0.0f;
    }
    for (Allpass& allpass : m_allpasses) {
        std::fill(allpass.m_buffer.begin(), allpass.m_buffer.end(), 0.0f);
        allpass.m_pos = 0;
    }
    m_predelayLine.ResetRT();
    m_decaySeconds.Jump();
    m_damping.Jump();
    m_predelay.Jump(m_predelay.Target());
    m_mix.Jump();
}

void ReverbEffect::SetParameterRT(int index, float plainValue)
{
    if (index < 0 || index >= kParamCount)
        return;
    m_plain[static_cast<size_t>(index)] = plainValue;
    switch (index) {
    case kDecay:
        m_decaySeconds.SetTarget(plainValue);
        break;
    case kDamping:
        // Up to 0.7: more would make the tail a dull rumble.
        m_damping.SetTarget(plainValue * 0.007f);
        break;
    case kPredelay:
        m_predelay.SetTarget(std::min(static_cast<size_t>(std::lround(plainValue * 0.001 * m_rate)),
                                      m_predelayLine.Capacity() - 1));
        break;
    case kMix:
        m_mix.SetTarget(plainValue * 0.01f);
        break;
    default:
        break;
    }
}

void ReverbEffect::ProcessRT(const float* in, float* out, int32_t frames)
{
    std::array<float, kCombs> feedback {};
    for (int32_t i = 0; i < frames; ++i) {
        // Loop gains follow the decay time: a comb of length L loses 60 dB in decay seconds when
        // its gain is 10^(-3 L / (rate * decay)). Recomputed only while the decay glides.
        if (i == 0 || !m_decaySeconds.Settled()) {
            const double decay = m_decaySeconds.NextRT();
            for (size_t c = 0; c < m_combs.size(); ++c) {
                const double length = static_cast<double>(m_combs[c].m_buffer.size());
                feedback[c] = static_cast<float>(std::pow(10.0, -3.0 * length / (m_rate * decay)));
            }
        }
        const float damping = m_damping.NextRT();
        const float x = in[i];
        m_predelayLine.PushRT(x);
        const float source = m_predelay.ReadRT(m_predelayLine);

        float wet = 0.0f;
        for (size_t c = 0; c < m_combs.size(); ++c) {
            Comb& comb = m_combs[c];
            const float delayed = comb.m_buffer[comb.m_pos];
            comb.m_damped = delayed + damping * (comb.m_damped - delayed);
            comb.m_buffer[comb.m_pos] = source + feedback[c] * comb.m_damped;
            if (++comb.m_pos == comb.m_buffer.size())
                comb.m_pos = 0;
            wet += delayed;
        }
        for (Allpass& allpass : m_allpasses) {
            const float delayed = allpass.m_buffer[allpass.m_pos];
            const float v = wet + kAllpassGain * delayed;
            allpass.m_buffer[allpass.m_pos] = v;
            if (++allpass.m_pos == allpass.m_buffer.size())
                allpass.m_pos = 0;
            wet = delayed - kAllpassGain * v;
        }
        const float mix = m_mix.NextRT();
        out[i] = (1.0f - mix) * x + mix * kWetGain * wet;
    }
}

int64_t ReverbEffect::TailSamplesRT() const
{
    // The decay time is to -60 dB; twice that reaches -120 dB, below any sample's resolution.
    const double seconds = 2.0 * m_decaySeconds.Target() + kMaxPredelayMs * 0.001 + 0.05;
    return static_cast<int64_t>(std::ceil(seconds * m_rate));
}

} // namespace larimo::fx
