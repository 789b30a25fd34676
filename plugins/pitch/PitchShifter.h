// SPDX-License-Identifier: GPL-3.0-or-later
// Pitch shifter: the voice up or down by up to an octave. Its formants stay where they are
// unless moved on purpose, so a shifted voice still sounds like a person (deeper or higher),
// and moving them with the pitch gives the cartoon voices.
#pragma once

#include "EffectDsp.h"
#include "PsolaShifter.h"
#include "Smoother.h"

#include <array>

namespace larimo::fx {

class PitchShifter final : public EffectDsp {
public:
    enum Param { kPitch, kFormant, kParamCount };
    static const std::array<ParamInfo, kParamCount> kParams;
    static const EffectInfo kInfo;

    PitchShifter();
    void Prepare(double sampleRate) override;
    void ResetRT() override;
    void SetParameterRT(int index, float plainValue) override;
    void ProcessRT(const float* in, float* out, int32_t frames) override;
    int32_t LatencySamples() const override { return m_shifter.TypicalLatency(); }
    int64_t TailSamplesRT() const override { return m_shifter.TailSamples(); }

private:
    std::array<float, kParamCount> m_plain {};
    PsolaShifter m_shifter;
    Smoother m_pitch; // semitones
    Smoother m_formant; // semitones
};

} // namespace larimo::fx
