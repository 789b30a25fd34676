// SPDX-License-Identifier: GPL-3.0-or-later
// Room and cave reverberation: a pre-delay, eight parallel feedback combs with damping in their
// loops for the dense decaying tail, and series allpasses that smear the combs' regular echoes.
#pragma once

#include "DelayLine.h"
#include "EffectDsp.h"
#include "FadingTap.h"
#include "Smoother.h"

#include <array>
#include <vector>

namespace larimo::fx {

class ReverbEffect final : public EffectDsp {
public:
    enum Param { kDecay, kDamping, kPredelay, kMix, kParamCount };
    static const std::array<ParamInfo, kParamCount> kParams;
    static const EffectInfo kInfo;

    ReverbEffect();
    void Prepare(double sampleRate) override;
    void ResetRT() override;
    void SetParameterRT(int index, float plainValue) override;
    void ProcessRT(const float* in, float* out, int32_t frames) override;
    int32_t LatencySamples() const override { return 0; }
    int64_t TailSamplesRT() const override;

private:
    static constexpr int kCombs = 8;
    static constexpr int kAllpasses = 4;

    struct Comb {
        std::vector<float> m_buffer;
        size_t m_pos = 0;
        float m_damped = 0.0f;
    };
    struct Allpass {
        std::vector<float> m_buffer;
        size_t m_pos = 0;
    };

    double m_rate = 44100.0;
    std::array<float, kParamCount> m_plain {};
    std::array<Comb, kCombs> m_combs;
    std::array<Allpass, kAllpasses> m_allpasses;
    DelayLine m_predelayLine;
    Smoother m_decaySeconds;
    Smoother m_damping; // lowpass coefficient in the comb loops, 0 = none
    FadingTap m_predelay;
    Smoother m_mix;
};

} // namespace larimo::fx
