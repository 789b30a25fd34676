// SPDX-License-Identifier: GPL-3.0-or-later
// Cleans the microphone's sound before the voice effect: steady background noise (a fan, the
// hum of a room, traffic) is suppressed by speexdsp's preprocessor, and a noise gate closes
// while the user is silent, so the effect transforms the voice and nothing behind it. The
// voice service runs it on its audio thread; the options run one on the live microphone to
// show the user what the gate does.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

struct SpeexPreprocessState_;

namespace larimo {

/// What the user chose for the microphone ("voice" section of config.ini).
struct VoiceCleanup {
    bool noiseSuppression = true;
    int noiseStrengthDb = 25;  ///< the most the suppressor takes off a noisy band, in dB
    bool gate = false;
    int gateThresholdDb = -50; ///< the gate opens at this level (dBFS) and closes 6 dB below it

    bool operator==(const VoiceCleanup&) const = default;
};

class VoiceCleaner {
public:
    static constexpr int kMinStrengthDb = 6;
    static constexpr int kMaxStrengthDb = 50;
    static constexpr int kMinThresholdDb = -80;
    static constexpr int kMaxThresholdDb = -10;
    /// How far below the opening threshold the gate closes again.
    static constexpr float kHysteresisDb = 6.0f;
    static constexpr float kAttackMs = 1.0f;
    static constexpr float kHoldMs = 200.0f;
    static constexpr float kReleaseMs = 80.0f;

    /// Prepares for blocks of `blockSamples` at `sampleRate` (allocates). Control thread.
    VoiceCleaner(uint32_t blockSamples, uint32_t sampleRate);
    ~VoiceCleaner();
    VoiceCleaner(const VoiceCleaner&) = delete;
    VoiceCleaner& operator=(const VoiceCleaner&) = delete;

    /// Cleans `count` samples in place as `settings` say. Switching either part on or off takes
    /// effect from this block on without a gap or a click. With noise suppression off the voice
    /// passes undelayed while the suppressor goes on learning the room; switching it moves the
    /// voice by one frame, cross-faded over the block. RT call: no allocation, no lock, no log.
    void ProcessRT(int16_t* samples, size_t count, const VoiceCleanup& settings) noexcept;

    /// How many samples the suppressor delays the voice while it is on: one of its frames, at
    /// most one block. Nothing is delayed while it is off.
    uint32_t LatencySamples() const { return m_frame; }
    /// The suppressor's frame for blocks of `blockSamples`: the smallest whole part of the
    /// block between about 5 and 12.5 ms, so the delay stays short (a shorter frame no longer
    /// tells a voice from a steady noise well); the block itself when it has no such part.
    /// Any thread.
    static uint32_t FrameFor(uint32_t blockSamples, uint32_t sampleRate);
    /// The samples of a block of `blockMs`, rounded down to a multiple of kBlockGrain: less
    /// than half a millisecond shorter, and with a short frame as a whole part (25 ms at
    /// 44.1 kHz are 1102.5 samples; 1102 would leave 12.5 ms frames, 1100 has 5 ms ones).
    /// Any thread.
    static uint32_t BlockFor(uint32_t blockMs, uint32_t sampleRate);
    static constexpr uint32_t kBlockGrain = 20;

    /// The microphone's level before cleaning (dBFS, the last block's peak) and whether the
    /// gate was open at its end: for a level meter. Any thread.
    float InputLevelDb() const { return m_levelDb.load(std::memory_order_relaxed); }
    bool GateOpen() const { return m_gateOpenNow.load(std::memory_order_relaxed); }

    /// Clamps values read from a file into the ranges above. Any thread.
    static VoiceCleanup Clamped(VoiceCleanup settings);

private:
    void ApplySettingsRT(const VoiceCleanup& settings) noexcept;
    void SuppressRT(int16_t* samples, size_t count, bool wasOn) noexcept;
    void GateRT(int16_t* samples, size_t count, float threshold) noexcept;

    SpeexPreprocessState_* m_state = nullptr;
    uint32_t m_frame = 0;
    std::vector<int16_t> m_undelayed; ///< a frame as it came, for a switch's cross-fade
    VoiceCleanup m_applied;
    bool m_appliedOnce = false;

    // The gate's own state.
    float m_envelope = 0.0f;
    float m_gain = 0.0f;
    uint32_t m_holdLeft = 0;
    bool m_open = false;
    float m_envelopeFall = 0.0f;
    float m_attackStep = 0.0f;
    float m_releaseStep = 0.0f;
    uint32_t m_holdSamples = 0;

    std::atomic<float> m_levelDb{-120.0f};
    std::atomic<bool> m_gateOpenNow{false};
};

} // namespace larimo
