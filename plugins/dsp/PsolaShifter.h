// SPDX-License-Identifier: GPL-3.0-or-later
// Pitch-synchronous overlap-add: the voice is cut into grains two periods long, each centred
// on a glottal pulse, and the grains are laid down again at a new spacing. The spacing sets the
// new pitch; each grain keeps the resonances of the vocal tract, so the formants stay where
// they were. Reading the grains faster or slower moves the formants on their own.
//
// Grains are read while the input arrives, so the delay is at most one period (plus a little
// more when the formants move), whatever the pitch.
#pragma once

#include "Biquad.h"
#include "PitchTracker.h"

#include <array>
#include <cstdint>
#include <vector>

namespace larimo::fx {

class PsolaShifter {
public:
    /// What shapes the output, per sample.
    struct Controls {
        float m_pitchRatio = 1.0f; ///< output pitch / input pitch (0.5 .. 2)
        float m_formantRatio = 1.0f; ///< formant frequencies out / in (0.5 .. 2)
        float m_flatten = 0.0f; ///< 0 follows the voice's melody, 1 holds `m_targetPeriod`
        float m_targetPeriod = 0.0f; ///< samples; used when m_flatten > 0
    };

    /// Sizes the histories for `sampleRate`. Allocates.
    void Prepare(double sampleRate);
    void ResetRT();
    /// One sample in, one out. RT call.
    float ProcessRT(float x, const Controls& controls);

    /// Mean delay for a voice at 120 Hz without a formant shift, in samples.
    int32_t TypicalLatency() const;
    /// The longest a grain outlives the input that fed it.
    int64_t TailSamples() const;
    const PitchTracker& Tracker() const { return m_tracker; }

private:
    struct Grain {
        double m_read = 0.0; // input position (absolute sample count)
        float m_step = 1.0f; // input samples per output sample
        float m_phase = 0.0f; // -1 .. 1 across the window
        float m_phaseStep = 0.0f;
        float m_gain = 0.0f;
    };
    static constexpr int kMaxGrains = 12;
    static constexpr int kWindowTable = 512;

    void TrackEpochsRT(double period);
    void SpawnGrainRT(double period, const Controls& controls);
    float InputAt(double position) const;
    float Window(float phase) const;

    double m_rate = 44100.0;
    PitchTracker m_tracker;
    Biquad m_epochFilter;
    std::vector<float> m_input; // ring of raw input
    std::vector<float> m_smooth; // ring of low-passed input, for finding pulses
    size_t m_mask = 0;
    int64_t m_now = -1; // absolute index of the newest input sample
    double m_epoch = 0.0; // last pulse position found (absolute)
    double m_nextMark = 0.0; // centre of the next output grain (absolute output time)
    std::array<Grain, kMaxGrains> m_grains {};
    int m_grainCount = 0;
    std::array<float, kWindowTable + 2> m_window {};
};

} // namespace larimo::fx
