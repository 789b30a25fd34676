// SPDX-License-Identifier: GPL-3.0-or-later
// Echo: the voice comes back after a delay, each repeat softer and duller than the last.
// The smallest of Larimo's effects and the pattern for a new one: a parameter table, a plain
// per-channel class, and a two-line plug-in file beside it.
#pragma once

#include "DelayLine.h"
#include "EffectDsp.h"
#include "FadingTap.h"
#include "Smoother.h"

#include <array>

namespace larimo::fx {

class EchoEffect final : public EffectDsp {
public:
    enum Param { kDelay, kFeedback, kLevel, kTone, kParamCount };
    static const std::array<ParamInfo, kParamCount> kParams;
    static const EffectInfo kInfo;

    EchoEffect();
    void Prepare(double sampleRate) override;
    void ResetRT() override;
    void SetParameterRT(int index, float plainValue) override;
    void ProcessRT(const float* in, float* out, int32_t frames) override;
    int32_t LatencySamples() const override { return 0; }
    int64_t TailSamplesRT() const override;

private:
    static constexpr float kMaxDelaySeconds = 1.5f;

    double m_rate = 44100.0;
    DelayLine m_line;
    FadingTap m_tap;
    Smoother m_feedback; // 0..1
    Smoother m_level; // 0..1
    Smoother m_toneCoefficient; // one-pole lowpass coefficient of the repeats
    float m_tone = 0.0f; // lowpass state
    std::array<float, kParamCount> m_lastPlain {};
};

} // namespace larimo::fx
