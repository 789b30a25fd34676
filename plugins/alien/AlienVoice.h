// SPDX-License-Identifier: GPL-3.0-or-later
// Alien voice: every frequency of the voice moved by the same number of hertz (a frequency
// shift, not a pitch shift), so its harmonics stop being multiples of one fundamental and the
// voice turns metallic and otherworldly; a slow wobble of the shift makes it warble.
#pragma once

#include "DelayLine.h"
#include "EffectDsp.h"
#include "Smoother.h"

#include <array>
#include <vector>

namespace larimo::fx {

class AlienVoice final : public EffectDsp {
public:
    enum Param { kShift, kWobble, kDepth, kMix, kParamCount };
    static const std::array<ParamInfo, kParamCount> kParams;
    static const EffectInfo kInfo;

    AlienVoice();
    void Prepare(double sampleRate) override;
    void ResetRT() override;
    void SetParameterRT(int index, float plainValue) override;
    void ProcessRT(const float* in, float* out, int32_t frames) override;
    int32_t LatencySamples() const override { return m_halfLength; }
    int64_t TailSamplesRT() const override { return 2 * m_halfLength + 1; }

private:
    double m_rate = 44100.0;
    std::array<float, kParamCount> m_plain {};
    // Odd taps of a windowed Hilbert transformer (the even ones are zero), nearest first.
    std::vector<float> m_hilbert;
    int32_t m_halfLength = 0;
    DelayLine m_history;
    Smoother m_shift; // Hz
    Smoother m_wobbleRate; // Hz
    Smoother m_depth; // Hz
    Smoother m_mix;
    double m_carrierPhase = 0.0; // cycles
    double m_wobblePhase = 0.0; // cycles
};

} // namespace larimo::fx
