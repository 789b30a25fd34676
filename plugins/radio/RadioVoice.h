// SPDX-License-Identifier: GPL-3.0-or-later
// Radio and telephone voice: a narrow band with a nasal peak, and a level-independent
// distortion that sounds like an overdriven small loudspeaker whatever the microphone's level.
#pragma once

#include "Biquad.h"
#include "EffectDsp.h"
#include "Smoother.h"

#include <array>

namespace larimo::fx {

class RadioVoice final : public EffectDsp {
public:
    enum Param { kLowCut, kHighCut, kDrive, kVolume, kParamCount };
    static const std::array<ParamInfo, kParamCount> kParams;
    static const EffectInfo kInfo;

    RadioVoice();
    void Prepare(double sampleRate) override;
    void ResetRT() override;
    void SetParameterRT(int index, float plainValue) override;
    void ProcessRT(const float* in, float* out, int32_t frames) override;
    int32_t LatencySamples() const override { return 0; }
    int64_t TailSamplesRT() const override;

private:
    void DesignFiltersRT();

    double m_rate = 44100.0;
    std::array<float, kParamCount> m_plain {};
    Smoother m_lowCut; // Hz
    Smoother m_highCut; // Hz
    Smoother m_drive; // 0..1
    Smoother m_volume; // linear gain
    std::array<Biquad, 2> m_highpass;
    std::array<Biquad, 2> m_lowpass;
    Biquad m_presence;
    float m_envelope = 0.0f; // mean square of the band-limited signal
    float m_attack = 0.0f;
    float m_release = 0.0f;
    int m_designCountdown = 0;
};

} // namespace larimo::fx
