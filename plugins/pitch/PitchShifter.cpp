// SPDX-License-Identifier: GPL-3.0-or-later
#include "PitchShifter.h"

#include <cmath>

namespace larimo::fx {

const std::array<ParamInfo, PitchShifter::kParamCount> PitchShifter::kParams { {
    { "Pitch", "semi", -12.0f, 12.0f, 0.0f, ParamInfo::Scale::Linear, 1 },
    // 0 keeps the voice's own formants; the pitch's value moves them along with it.
    { "Formant", "semi", -12.0f, 12.0f, 0.0f, ParamInfo::Scale::Linear, 1 },
} };

const EffectInfo PitchShifter::kInfo { "Larimo Pitch", 0x4C6D5069 /* LmPi */, 1000, kParams };

PitchShifter::PitchShifter()
{
    for (int i = 0; i < kParamCount; ++i)
        m_plain[static_cast<size_t>(i)] = kParams[static_cast<size_t>(i)].m_default;
    Prepare(44100.0);
}

void PitchShifter::Prepare(double sampleRate)
{
    m_shifter.Prepare(sampleRate);
    m_pitch.Prepare(sampleRate);
    m_formant.Prepare(sampleRate);
    for (int i = 0; i < kParamCount; ++i)
        SetParameterRT(i, m_plain[static_cast<size_t>(i)]);
    ResetRT();
}

void PitchShifter::ResetRT()
{
    m_shifter.ResetRT();
    m_pitch.Jump();
    m_formant.Jump();
}

void PitchShifter::SetParameterRT(int index, float plainValue)
{
    if (index < 0 || index >= kParamCount)
        return;
    m_plain[static_cast<size_t>(index)] = plainValue;
    (index == kPitch ? m_pitch : m_formant).SetTarget(plainValue);
}

void PitchShifter::ProcessRT(const float* in, float* out, int32_t frames)
{
    PsolaShifter::Controls controls;
    for (int32_t i = 0; i < frames; ++i) {
        // Ratios only matter when a grain starts, but gliding per sample keeps that exact.
        if (!m_pitch.Settled() || i == 0)
            controls.m_pitchRatio = std::exp2(m_pitch.NextRT() / 12.0f);
        if (!m_formant.Settled() || i == 0)
            controls.m_formantRatio = std::exp2(m_formant.NextRT() / 12.0f);
        out[i] = m_shifter.ProcessRT(in[i], controls);
    }
}

} // namespace larimo::fx
