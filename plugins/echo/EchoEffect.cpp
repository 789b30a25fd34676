// SPDX-License-Identifier: GPL-3.0-or-later
#include "EchoEffect.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace larimo::fx {

const std::array<ParamInfo, EchoEffect::kParamCount> EchoEffect::kParams { {
    { "Delay", "ms", 50.0f, 1200.0f, 320.0f, ParamInfo::Scale::Logarithmic, 0 },
    { "Feedback", "%", 0.0f, 90.0f, 40.0f, ParamInfo::Scale::Linear, 0 },
    { "Level", "%", 0.0f, 100.0f, 50.0f, ParamInfo::Scale::Linear, 0 },
    { "Tone", "Hz", 800.0f, 12000.0f, 4000.0f, ParamInfo::Scale::Logarithmic, 0 },
} };

const EffectInfo EchoEffect::kInfo { "Larimo Echo", 0x4C6D4563 /* LmEc */, 1000, kParams };

EchoEffect::EchoEffect()
{
    for (int i = 0; i < kParamCount; ++i)
        m_lastPlain[static_cast<size_t>(i)] = kParams[static_cast<size_t>(i)].m_default;
    Prepare(m_rate);
}

void EchoEffect::Prepare(double sampleRate)
{
    m_rate = sampleRate;
    m_line.Prepare(static_cast<size_t>(std::ceil(kMaxDelaySeconds * sampleRate)));
    m_tap.Prepare(sampleRate);
    m_feedback.Prepare(sampleRate);
    m_level.Prepare(sampleRate);
    m_toneCoefficient.Prepare(sampleRate);
    // Targets are stored in plain units per sample, which change with the rate.
    for (int i = 0; i < kParamCount; ++i)
        SetParameterRT(i, m_lastPlain[static_cast<size_t>(i)]);
    ResetRT();
}

void EchoEffect::ResetRT()
{
    m_line.ResetRT();
    m_tone = 0.0f;
    m_tap.Jump(m_tap.Target());
    m_feedback.Jump();
    m_level.Jump();
    m_toneCoefficient.Jump();
}

void EchoEffect::SetParameterRT(int index, float plainValue)
{
    if (index < 0 || index >= kParamCount)
        return;
    m_lastPlain[static_cast<size_t>(index)] = plainValue;
    switch (index) {
    case kDelay:
        // The tap reads before this sample is pushed, so a delay of d samples is tap d - 1.
        m_tap.SetTarget(std::clamp<size_t>(static_cast<size_t>(std::lround(plainValue * 0.001 * m_rate)), 1,
                                           m_line.Capacity() - 1) - 1);
        break;
    case kFeedback:
        m_feedback.SetTarget(plainValue * 0.01f);
        break;
    case kLevel:
        m_level.SetTarget(plainValue * 0.01f);
        break;
    case kTone:
        m_toneCoefficient.SetTarget(
            static_cast<float>(1.0 - std::exp(-2.0 * std::numbers::pi * plainValue / m_rate)));
        break;
    default:
        break;
    }
}

void EchoEffect::ProcessRT(const float* in, float* out, int32_t frames)
{
    for (int32_t i = 0; i < frames; ++i) {
        const float x = in[i];
        const float repeat = m_tap.ReadRT(m_line);
        m_tone += m_toneCoefficient.NextRT() * (repeat - m_tone);
        m_line.PushRT(x + m_feedback.NextRT() * m_tone);
        out[i] = x + m_level.NextRT() * repeat;
    }
}

int64_t EchoEffect::TailSamplesRT() const
{
    // Repeats until they are 100 dB down, at least one repeat.
    const double feedback = std::max<double>(m_feedback.Target(), 1e-3);
    const double repeats = 1.0 + std::log(1e-5) / std::log(feedback);
    return static_cast<int64_t>(std::ceil(repeats * static_cast<double>(m_tap.Target() + 1))) + 1;
}

} // namespace larimo::fx
