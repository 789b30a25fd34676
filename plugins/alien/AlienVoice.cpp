// SPDX-License-Identifier: GPL-3.0-or-later
#include "AlienVoice.h"

#include <cmath>
#include <numbers>

namespace larimo::fx {

namespace {

// Half the Hilbert filter's length at 44.1 kHz: 64 taps each side keep the 90 degree shift
// accurate from about 150 Hz up, below a voice's fundamental, at 1.5 ms of delay.
constexpr double kHalfLengthSeconds = 64.0 / 44100.0;

} // namespace

const std::array<ParamInfo, AlienVoice::kParamCount> AlienVoice::kParams { {
    { "Shift", "Hz", -600.0f, 600.0f, 220.0f, ParamInfo::Scale::Linear, 0 },
    { "Wobble", "Hz", 0.0f, 12.0f, 5.0f, ParamInfo::Scale::Linear, 1 },
    { "Depth", "Hz", 0.0f, 200.0f, 60.0f, ParamInfo::Scale::Linear, 0 },
    { "Mix", "%", 0.0f, 100.0f, 100.0f, ParamInfo::Scale::Linear, 0 },
} };

const EffectInfo AlienVoice::kInfo { "Larimo Alien", 0x4C6D416C /* LmAl */, 1000, kParams };

AlienVoice::AlienVoice()
{
    for (int i = 0; i < kParamCount; ++i)
        m_plain[static_cast<size_t>(i)] = kParams[static_cast<size_t>(i)].m_default;
    Prepare(m_rate);
}

void AlienVoice::Prepare(double sampleRate)
{
    m_rate = sampleRate;
    // An even half length keeps the centre tap (the delay) on a whole sample.
    m_halfLength = 2 * static_cast<int32_t>(std::lround(kHalfLengthSeconds * sampleRate / 2.0));
    m_halfLength = std::max<int32_t>(m_halfLength, 8);
    // The ideal Hilbert transformer has taps 2 / (pi k) at odd k and zero at even k;
    // a Blackman window trims the ripple of cutting it off.
    m_hilbert.assign(static_cast<size_t>(m_halfLength / 2), 0.0f);
    for (int32_t j = 0; j < m_halfLength / 2; ++j) {
        const double k = 2.0 * j + 1.0;
        const double x = (k + m_halfLength) / (2.0 * m_halfLength); // 0..1 across the window
        const double window = 0.42 - 0.5 * std::cos(2.0 * std::numbers::pi * x) + 0.08 * std::cos(4.0 * std::numbers::pi * x);
        m_hilbert[static_cast<size_t>(j)] = static_cast<float>(2.0 / (std::numbers::pi * k) * window);
    }
    m_history.Prepare(static_cast<size_t>(2 * m_halfLength + 2));
    m_shift.Prepare(sampleRate);
    m_wobbleRate.Prepare(sampleRate);
    m_depth.Prepare(sampleRate);
    m_mix.Prepare(sampleRate);
    for (int i = 0; i < kParamCount; ++i)
        SetParameterRT(i, m_plain[static_cast<size_t>(i)]);
    ResetRT();
}

void AlienVoice::ResetRT()
{
    m_history.ResetRT();
    m_shift.Jump();
    m_wobbleRate.Jump();
    m_depth.Jump();
    m_mix.Jump();
    m_carrierPhase = 0.0;
    m_wobblePhase = 0.0;
}

void AlienVoice::SetParameterRT(int index, float plainValue)
{
    if (index < 0 || index >= kParamCount)
        return;
    m_plain[static_cast<size_t>(index)] = plainValue;
    switch (index) {
    case kShift:
        m_shift.SetTarget(plainValue);
        break;
    case kWobble:
        m_wobbleRate.SetTarget(plainValue);
        break;
    case kDepth:
        m_depth.SetTarget(plainValue);
        break;
    case kMix:
        m_mix.SetTarget(plainValue * 0.01f);
        break;
    default:
        break;
    }
}

void AlienVoice::ProcessRT(const float* in, float* out, int32_t frames)
{
    const auto centre = static_cast<size_t>(m_halfLength);
    const double twoPi = 2.0 * std::numbers::pi;
    for (int32_t i = 0; i < frames; ++i) {
        m_history.PushRT(in[i]);
        // Analytic signal at the filter's centre: the delayed input and its Hilbert transform.
        const float direct = m_history.ReadRT(centre);
        float quadrature = 0.0f;
        for (size_t j = 0; j < m_hilbert.size(); ++j) {
            const size_t k = 2 * j + 1;
            quadrature += m_hilbert[j] * (m_history.ReadRT(centre + k) - m_history.ReadRT(centre - k));
        }

        m_wobblePhase += m_wobbleRate.NextRT() / m_rate;
        m_wobblePhase -= std::floor(m_wobblePhase);
        const double shift = m_shift.NextRT() + m_depth.NextRT() * std::sin(twoPi * m_wobblePhase);
        m_carrierPhase += shift / m_rate;
        m_carrierPhase -= std::floor(m_carrierPhase);
        const double angle = twoPi * m_carrierPhase;
        // Re{(direct + i quadrature) e^(i angle)} moves every component up by `shift` hertz.
        const auto shifted = static_cast<float>(direct * std::cos(angle) - quadrature * std::sin(angle));

        const float mix = m_mix.NextRT();
        out[i] = (1.0f - mix) * direct + mix * shifted;
    }
}

} // namespace larimo::fx
