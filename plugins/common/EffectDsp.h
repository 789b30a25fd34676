// SPDX-License-Identifier: GPL-3.0-or-later
// The contract between a voice effect's signal processing and the plug-in glue. An effect is a
// plain class processing one channel; the glue makes one per channel, turns host values into
// plain units and calls it. Nothing here knows about any plug-in interface.
#pragma once

#include "ParamInfo.h"

#include <cstdint>
#include <span>

namespace larimo::fx {

class EffectDsp {
public:
    virtual ~EffectDsp() = default;

    /// Sizes every buffer for `sampleRate` and clears the state. Allocates; never called on the
    /// audio thread. Called once before the first block and again on every rate change.
    virtual void Prepare(double sampleRate) = 0;
    /// Clears delay lines and filters and lets every smoothed parameter jump to its target.
    /// RT call: no allocation.
    virtual void ResetRT() = 0;
    /// Sets parameter `index` (plain units, inside its range); the effect glides there.
    /// RT call.
    virtual void SetParameterRT(int index, float plainValue) = 0;
    /// Processes `frames` samples; `in` and `out` may be the same buffer. RT call.
    virtual void ProcessRT(const float* in, float* out, int32_t frames) = 0;

    /// Delay of the processed signal against the input, in samples, at the prepared rate.
    virtual int32_t LatencySamples() const = 0;
    /// How long the output may still sound after the input fell silent, in samples, for the
    /// current settings. RT call.
    virtual int64_t TailSamplesRT() const = 0;
};

/// Static facts about one shipped effect, read by the glue.
struct EffectInfo {
    const char* m_effectName; ///< what hosts show, for example "Larimo Echo"
    int32_t m_uniqueId; ///< four characters, unique among Larimo's effects
    int32_t m_version;
    std::span<const ParamInfo> m_params;
};

} // namespace larimo::fx
