// SPDX-License-Identifier: GPL-3.0-or-later
#include "VoiceCleaner.h"

#include <speex/speex_preprocess.h>

#include <algorithm>
#include <cmath>
#include <new>

namespace larimo {

namespace {

float DbToLinear(float db)
{
    return std::pow(10.0f, db / 20.0f) * 32768.0f;
}

} // namespace

uint32_t VoiceCleaner::FrameFor(uint32_t blockSamples, uint32_t sampleRate)
{
    const uint32_t longest = sampleRate / 80;  // 12.5 ms
    const uint32_t shortest = sampleRate / 200; // 5 ms
    for (uint32_t frame = shortest; frame <= std::min(longest, blockSamples); ++frame) {
        if (blockSamples % frame == 0)
            return frame;
    }
    return std::max<uint32_t>(blockSamples, 1);
}

uint32_t VoiceCleaner::BlockFor(uint32_t blockMs, uint32_t sampleRate)
{
    const uint32_t exact = static_cast<uint32_t>(uint64_t{blockMs} * sampleRate / 1000);
    return std::max<uint32_t>(kBlockGrain, exact / kBlockGrain * kBlockGrain);
}

VoiceCleanup VoiceCleaner::Clamped(VoiceCleanup settings)
{
    settings.noiseStrengthDb = std::clamp(settings.noiseStrengthDb, kMinStrengthDb, kMaxStrengthDb);
    settings.gateThresholdDb = std::clamp(settings.gateThresholdDb, kMinThresholdDb, kMaxThresholdDb);
    return settings;
}

VoiceCleaner::VoiceCleaner(uint32_t blockSamples, uint32_t sampleRate)
    : m_frame(FrameFor(blockSamples, sampleRate)), m_undelayed(m_frame, 0)
{
    m_state = speex_preprocess_state_init(static_cast<int>(m_frame), static_cast<int>(sampleRate));
    if (m_state == nullptr)
        throw std::bad_alloc();
    int off = 0;
    int on = 1;
    speex_preprocess_ctl(m_state, SPEEX_PREPROCESS_SET_DENOISE, &on);
    speex_preprocess_ctl(m_state, SPEEX_PREPROCESS_SET_AGC, &off);
    speex_preprocess_ctl(m_state, SPEEX_PREPROCESS_SET_DEREVERB, &off);

    const float rate = static_cast<float>(sampleRate);
    // The envelope falls by 60 dB in 50 ms: fast enough to see a pause, slow enough not to
    // follow the single periods of a low voice.
    m_envelopeFall = std::pow(10.0f, -3.0f / (0.050f * rate));
    m_attackStep = 1.0f / std::max(1.0f, kAttackMs * 0.001f * rate);
    m_releaseStep = 1.0f / std::max(1.0f, kReleaseMs * 0.001f * rate);
    m_holdSamples = static_cast<uint32_t>(kHoldMs * 0.001f * rate);
}

VoiceCleaner::~VoiceCleaner()
{
    speex_preprocess_state_destroy(m_state);
}

void VoiceCleaner::ApplySettingsRT(const VoiceCleanup& settings) noexcept
{
    if (m_appliedOnce && settings == m_applied)
        return;
    // The request does not allocate: it sets a field the next frame reads.
    int suppress = -std::clamp(settings.noiseStrengthDb, kMinStrengthDb, kMaxStrengthDb);
    speex_preprocess_ctl(m_state, SPEEX_PREPROCESS_SET_NOISE_SUPPRESS, &suppress);
    if (settings.gate && (!m_appliedOnce || !m_applied.gate)) {
        // A gate switched on starts open, so a word in progress is not cut.
        m_open = true;
        m_gain = 1.0f;
        m_holdLeft = m_holdSamples;
    }
    m_applied = settings;
    m_appliedOnce = true;
}

void VoiceCleaner::ProcessRT(int16_t* samples, size_t count, const VoiceCleanup& settings) noexcept
{
    const bool wasOn = m_appliedOnce ? m_applied.noiseSuppression : settings.noiseSuppression;
    ApplySettingsRT(settings);

    int peak = 0;
    for (size_t i = 0; i < count; ++i)
        peak = std::max(peak, std::abs(static_cast<int>(samples[i])));
    m_levelDb.store(peak > 0 ? 20.0f * std::log10(static_cast<float>(peak) / 32768.0f) : -120.0f,
                    std::memory_order_relaxed);

    SuppressRT(samples, count, wasOn);

    if (m_applied.gate)
        GateRT(samples, count, static_cast<float>(std::clamp(m_applied.gateThresholdDb, kMinThresholdDb,
                                                             kMaxThresholdDb)));
    m_gateOpenNow.store(!m_applied.gate || m_open, std::memory_order_relaxed);
}

void VoiceCleaner::SuppressRT(int16_t* samples, size_t count, bool wasOn) noexcept
{
    // Whole frames only. A short last block (the device handed less than a block) leaves its
    // tail to the gate alone rather than feeding a partial frame.
    const bool on = m_applied.noiseSuppression;
    const size_t whole = count / m_frame * m_frame;
    for (size_t at = 0; at < whole; at += m_frame) {
        int16_t* frame = samples + at;
        if (!on && !wasOn) {
            // Switched off, the suppressor only listens, so it knows the room when it is
            // switched on again; the voice passes as it came, without the frame's delay.
            speex_preprocess_estimate_update(m_state, frame);
            continue;
        }
        if (on == wasOn) {
            speex_preprocess_run(m_state, frame);
            continue;
        }
        // Switched in this block: fade from the voice as it was heard to the voice as it will
        // be, one frame apart in time, over the whole block, so the step makes no click.
        std::copy_n(frame, m_frame, m_undelayed.data());
        speex_preprocess_run(m_state, frame);
        for (size_t i = 0; i < m_frame; ++i) {
            const float toward = (static_cast<float>(at + i) + 0.5f) / static_cast<float>(whole);
            const float suppressed = on ? toward : 1.0f - toward;
            const float mixed = static_cast<float>(frame[i]) * suppressed +
                                static_cast<float>(m_undelayed[i]) * (1.0f - suppressed);
            frame[i] = static_cast<int16_t>(std::lrint(mixed));
        }
    }
}

void VoiceCleaner::GateRT(int16_t* samples, size_t count, float thresholdDb) noexcept
{
    const float openAt = DbToLinear(thresholdDb);
    const float closeBelow = DbToLinear(thresholdDb - kHysteresisDb);
    for (size_t i = 0; i < count; ++i) {
        const float level = std::fabs(static_cast<float>(samples[i]));
        m_envelope = std::max(level, m_envelope * m_envelopeFall);
        if (m_envelope >= openAt) {
            m_open = true;
            m_holdLeft = m_holdSamples;
        } else if (m_envelope >= closeBelow && m_open) {
            m_holdLeft = m_holdSamples;
        } else if (m_holdLeft > 0) {
            --m_holdLeft;
        } else {
            m_open = false;
        }
        // Linear ramps: 1 ms up, so the start of a word comes through; 80 ms down, so its end
        // fades instead of being chopped.
        if (m_open)
            m_gain = std::min(1.0f, m_gain + m_attackStep);
        else
            m_gain = std::max(0.0f, m_gain - m_releaseStep);
        samples[i] = static_cast<int16_t>(std::lrint(static_cast<float>(samples[i]) * m_gain));
    }
}

} // namespace larimo
