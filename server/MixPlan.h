// SPDX-License-Identifier: GPL-3.0-or-later
// What the audio thread plays, as one immutable plan: the loaded effect with its preset, the
// background loop and its gain, the fun sounds and which of them play, and the listen-in
// switch. The pipeline's control thread builds a new plan for every new service state and
// publishes it whole; the audio thread takes it over at the start of a block, carrying the
// play positions across, so nothing restarts that did not change.
#pragma once

#include "PipelineSound.h"
#include "VoiceCleaner.h"
#include "WaitFreeRing.h"
#include "effect.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace larimo {

/// One plug-in loaded with a voice effect definition's values. Loaded, unloaded and asked on
/// the pipeline's control thread; processed on the audio thread.
struct EffectInstance {
    std::string name; ///< the definition's name
    std::string key;  ///< plug-in path and values: equal keys make equal effects
    MoAudioEffect host;
    bool faultReported = false; ///< control thread only
};

/// A fun sound that finished by itself, as the audio thread reports it.
struct EndedFunSound {
    uint32_t slot = 0;
    uint32_t starts = 0;
};
using EndedFunSoundRing = WaitFreeRing<EndedFunSound, 256>;

struct MixPlan {
    struct FunSound {
        std::shared_ptr<const PipelineSound> sound; ///< null when nothing is loaded for the slot
        bool playing = false;
        uint32_t starts = 0;
    };
    struct Voice {
        size_t position = 0;
        bool active = false;
    };

    uint64_t generation = 0;
    std::shared_ptr<EffectInstance> effect;
    std::shared_ptr<const PipelineSound> background;
    float backgroundGain = 1.0f;
    std::vector<FunSound> funSounds;
    bool monitor = false;
    uint8_t monitorVolume = 100;
    /// Noise suppression and gate before the effect.
    VoiceCleanup voice;

    // Owned by the audio thread once the plan is published; sized by the builder.
    size_t backgroundPosition = 0;
    std::vector<Voice> voices;
};

/// Carries play positions from `previous` (may be null) into `next`: the same background
/// sound continues where it was; a fun sound continues when it is the same sound and the same
/// play, starts from the beginning when it was played again, and is silent when stopped.
/// RT call.
void TakeOverPlanRT(MixPlan& next, const MixPlan* previous) noexcept;

/// Adds the background and the playing fun sounds to `samples`, saturating at 16 bits. A fun
/// sound that reaches its end stops and is pushed to `ended`. With `audible` false the sounds
/// only move on (nobody listens), so they still end in time. RT call.
void MixSoundsRT(MixPlan& plan, int16_t* samples, size_t count, bool audible, EndedFunSoundRing& ended) noexcept;

/// Runs the plan's effect over the block (nothing without one). RT call.
void ProcessEffectRT(MixPlan& plan, int16_t* samples, size_t count) noexcept;

/// Scales a block to the listen-in volume. RT call.
void ScaleMonitorRT(int16_t* samples, size_t count, uint8_t percent) noexcept;

} // namespace larimo
