// SPDX-License-Identifier: GPL-3.0-or-later
#include "RobotVoice.h"

#include <cmath>
#include <numbers>

namespace larimo::fx {

const std::array<ParamInfo, RobotVoice::kParamCount> RobotVoice::kParams { {
    { "Note", "Hz", 50.0f, 300.0f, 110.0f, ParamInfo::Scale::Logarithmic, 0 },
    { "Flatten", "%", 0.0f, 100.0f, 100.0f, ParamInfo::Scale::Linear, 0 },
    { "Metal", "%", 0.0f, 100.0f, 50.0f, ParamInfo::Scale::Linear, 0 },
} };

const EffectInfo RobotVoice::kInfo { "Larimo Robot", 0x4C6D526F /* LmRo */, 1000, kParams };

RobotVoice::RobotVoice()
{
    for (int i = 0; i < kParamCount; ++i)
        m_plain[static_cast<size_t>(i)] = kParams[static_cast<size_t>(i)].m_default;
    Prepare(m_rate);
}

void RobotVoice::Prepare(double sampleRate)
{
    m_rate = sampleRate;
    m_shifter.Prepare(sampleRate);
    m_note.Prepare(sampleRate);
    m_flatten.Prepare(sampleRate);
    m_metal.Prepare(sampleRate);
    for (int i = 0; i < kParamCount; ++i)
        SetParameterRT(i, m_plain[static_cast<size_t>(i)]);
    ResetRT();
}

void RobotVoice::ResetRT()
{
    m_shifter.ResetRT();
    m_note.Jump();
    m_flatten.Jump();
    m_metal.Jump();
    m_carrierPhase = 0.0;
}

void RobotVoice::SetParameterRT(int index, float plainValue)
{
    if (index < 0 || index >= kParamCount)
        return;
    m_plain[static_cast<size_t>(index)] = plainValue;
    switch (index) {
    case kNote:
        m_note.SetTarget(plainValue);
        break;
    case kFlatten:
        m_flatten.SetTarget(plainValue * 0.01f);
        break;
    case kMetal:
        m_metal.SetTarget(plainValue * 0.01f);
        break;
    default:
        break;
    }
}

void RobotVoice::ProcessRT(const float* in, float* out, int32_t frames)
{
    PsolaShifter::Controls controls;
    for (int32_t i = 0; i < frames; ++i) {
        const float note = m_note.NextRT();
        controls.m_targetPeriod = static_cast<float>(m_rate / note);
        controls.m_flatten = m_flatten.NextRT();
        const float voice = m_shifter.ProcessRT(in[i], controls);

        // A carrier at the robot's own note keeps every product on that note's harmonics, so
        // the buzz stays in tune instead of turning into a bell.
        m_carrierPhase += note / m_rate;
        m_carrierPhase -= std::floor(m_carrierPhase);
        const auto carrier = static_cast<float>(std::cos(2.0 * std::numbers::pi * m_carrierPhase));
        const float metal = m_metal.NextRT();
        out[i] = voice * ((1.0f - metal) + metal * 1.4142f * carrier);
    }
}

} // namespace larimo::fx
