// SPDX-License-Identifier: GPL-3.0-or-later
#include "RadioVoice.h"

#include <cmath>

namespace larimo::fx {

namespace {

// Filters follow gliding corners in steps this many samples apart: a step of 0.7 ms
// in a 20 ms glide is far too fine to hear, and designing every sample would cost trig calls.
constexpr int kDesignInterval = 32;
constexpr double kPresenceHz = 1800.0;
constexpr double kPresenceDb = 6.0;

} // namespace

const std::array<ParamInfo, RadioVoice::kParamCount> RadioVoice::kParams { {
    { "Low cut", "Hz", 150.0f, 1200.0f, 400.0f, ParamInfo::Scale::Logarithmic, 0 },
    { "High cut", "Hz", 1500.0f, 6000.0f, 3200.0f, ParamInfo::Scale::Logarithmic, 0 },
    { "Drive", "%", 0.0f, 100.0f, 40.0f, ParamInfo::Scale::Linear, 0 },
    { "Volume", "dB", -12.0f, 12.0f, 0.0f, ParamInfo::Scale::Linear, 1 },
} };

const EffectInfo RadioVoice::kInfo { "Larimo Radio", 0x4C6D5264 /* LmRd */, 1000, kParams };

RadioVoice::RadioVoice()
{
    for (int i = 0; i < kParamCount; ++i)
        m_plain[static_cast<size_t>(i)] = kParams[static_cast<size_t>(i)].m_default;
    Prepare(m_rate);
}

void RadioVoice::Prepare(double sampleRate)
{
    m_rate = sampleRate;
    m_lowCut.Prepare(sampleRate);
    m_highCut.Prepare(sampleRate);
    m_drive.Prepare(sampleRate);
    m_volume.Prepare(sampleRate);
    // The envelope follows syllables, not single periods, so the distortion does not follow
    // the waveform itself (which would make it a mere gain).
    m_attack = static_cast<float>(1.0 - std::exp(-1.0 / (0.005 * sampleRate)));
    m_release = static_cast<float>(1.0 - std::exp(-1.0 / (0.12 * sampleRate)));
    m_presence.SetPeak(kPresenceHz, 1.2, kPresenceDb, sampleRate);
    for (int i = 0; i < kParamCount; ++i)
        SetParameterRT(i, m_plain[static_cast<size_t>(i)]);
    ResetRT();
}

void RadioVoice::ResetRT()
{
    m_lowCut.Jump();
    m_highCut.Jump();
    m_drive.Jump();
    m_volume.Jump();
    for (Biquad& f : m_highpass)
        f.ResetRT();
    for (Biquad& f : m_lowpass)
        f.ResetRT();
    m_presence.ResetRT();
    m_envelope = 0.0f;
    m_designCountdown = 0;
}

void RadioVoice::SetParameterRT(int index, float plainValue)
{
    if (index < 0 || index >= kParamCount)
        return;
    m_plain[static_cast<size_t>(index)] = plainValue;
    switch (index) {
    case kLowCut:
        m_lowCut.SetTarget(plainValue);
        m_designCountdown = 0;
        break;
    case kHighCut:
        m_highCut.SetTarget(plainValue);
        m_designCountdown = 0;
        break;
    case kDrive:
        m_drive.SetTarget(plainValue * 0.01f);
        break;
    case kVolume:
        m_volume.SetTarget(std::pow(10.0f, plainValue / 20.0f));
        break;
    default:
        break;
    }
}

void RadioVoice::DesignFiltersRT()
{
    // Two sections each side give the steep skirts of a small speaker and a phone line.
    for (Biquad& f : m_highpass)
        f.SetHighpass(m_lowCut.Current(), 0.7071, m_rate);
    for (Biquad& f : m_lowpass)
        f.SetLowpass(m_highCut.Current(), 0.7071, m_rate);
}

void RadioVoice::ProcessRT(const float* in, float* out, int32_t frames)
{
    for (int32_t i = 0; i < frames; ++i) {
        m_lowCut.NextRT();
        m_highCut.NextRT();
        if (--m_designCountdown <= 0) {
            DesignFiltersRT();
            m_designCountdown = m_lowCut.Settled() && m_highCut.Settled() ? 1 << 30 : kDesignInterval;
        }
        float v = in[i];
        for (Biquad& f : m_highpass)
            v = f.ProcessRT(v);
        for (Biquad& f : m_lowpass)
            v = f.ProcessRT(v);
        v = m_presence.ProcessRT(v);

        // Distortion relative to the running level: the signal is divided by its envelope,
        // clipped softly, and scaled back, so a quiet and a loud speaker distort alike.
        const float square = v * v;
        m_envelope += (square > m_envelope ? m_attack : m_release) * (square - m_envelope);
        const float level = std::sqrt(m_envelope) + 1e-30f;
        const float drive = m_drive.NextRT();
        const float gain = 1.0f + 6.0f * drive;
        const float clipped = std::tanh(gain * v / (2.0f * level)) * (2.0f * level) / std::sqrt(gain);
        v += drive * (clipped - v);
        out[i] = m_volume.NextRT() * v;
    }
}

int64_t RadioVoice::TailSamplesRT() const
{
    // The filters ring for a few milliseconds; the envelope's release is the longest memory.
    return static_cast<int64_t>(std::ceil(0.5 * m_rate));
}

} // namespace larimo::fx
