// SPDX-License-Identifier: GPL-3.0-or-later
// Follows the fundamental period of a voice from the samples already heard (it looks at no
// future samples, so it adds no delay). The search for the period runs on a decimated copy at
// about 11 kHz, where a voice's fundamental is still far below Nyquist, and the result is then
// refined on the full-rate signal to a fraction of a sample.
#pragma once

#include "Biquad.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace larimo::fx {

class PitchTracker {
public:
    static constexpr double kMinHz = 70.0;
    static constexpr double kMaxHz = 600.0;

    /// Sizes the histories for `sampleRate`. Allocates.
    void Prepare(double sampleRate);
    void ResetRT();
    /// Takes the next input sample; every few milliseconds this also updates the estimate. RT call.
    void PushRT(float x);

    /// Period of the last voiced stretch in samples, or a 120 Hz period before any voice was heard.
    double Period() const { return m_period; }
    /// Whether the last analysis found a clear periodicity.
    bool Voiced() const { return m_voiced; }

private:
    void AnalyseRT();
    double RefineRT(double decimatedLag);
    float FullAt(int64_t back) const { return m_full[static_cast<size_t>(m_fullCount - 1 - back) & m_fullMask]; }
    float DecimatedAt(int64_t back) const
    {
        return m_decimated[static_cast<size_t>(m_decimatedCount - 1 - back) & m_decimatedMask];
    }

    double m_rate = 44100.0;
    int m_factor = 4;
    int m_phase = 0;
    int m_hop = 64;
    int m_hopCountdown = 0;
    int m_window = 0; // decimated samples
    int m_minLag = 0; // decimated samples
    int m_maxLag = 0;
    Biquad m_antiAlias1;
    Biquad m_antiAlias2;
    std::vector<float> m_full;
    std::vector<float> m_decimated;
    // Scratch for the analysis, sized in Prepare.
    std::vector<float> m_difference;
    std::vector<float> m_recent;
    std::vector<float> m_recentFull;
    size_t m_fullMask = 0;
    size_t m_decimatedMask = 0;
    int64_t m_fullCount = 0;
    int64_t m_decimatedCount = 0;
    double m_period = 367.5;
    bool m_voiced = false;
};

} // namespace larimo::fx
