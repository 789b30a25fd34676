// SPDX-License-Identifier: GPL-3.0-or-later
// Robot voice: the melody of speech flattened onto one fixed note, then ring-modulated at that
// note for a metallic buzz. The words stay clear because the formants are kept.
#pragma once

#include "EffectDsp.h"
#include "PsolaShifter.h"
#include "Smoother.h"

#include <array>

namespace larimo::fx {

class RobotVoice final : public EffectDsp {
public:
    enum Param { kNote, kFlatten, kMetal, kParamCount };
    static const std::array<ParamInfo, kParamCount> kParams;
    static const EffectInfo kInfo;

    RobotVoice();
    void Prepare(double sampleRate) override;
    void ResetRT() override;
    void SetParameterRT(int index, float plainValue) override;
    void ProcessRT(const float* in, float* out, int32_t frames) override;
    int32_t LatencySamples() const override { return m_shifter.TypicalLatency(); }
    int64_t TailSamplesRT() const override { return m_shifter.TailSamples(); }

private:
    double m_rate = 44100.0;
    std::array<float, kParamCount> m_plain {};
    PsolaShifter m_shifter;
    Smoother m_note; // Hz
    Smoother m_flatten; // 0..1
    Smoother m_metal; // 0..1
    double m_carrierPhase = 0.0; // cycles
};

} // namespace larimo::fx
