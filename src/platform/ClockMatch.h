// SPDX-License-Identifier: GPL-3.0-or-later
// Keeps a writer in step with an output device that plays by a clock of its own. A microphone
// and the device the voice is played into seldom run at exactly the same rate: a USB headset
// and a sound server's timer-driven null sink differ by tens to hundreds of parts per million.
// Whatever lead the output keeps, a device that plays 0.04 % faster than the voice arrives
// empties it in seconds and then runs dry at a steady pace; one that plays slower piles up
// delay. The cure is to add a sample now and then (or leave one out) where it cannot be heard.
//
// The device measures, whenever a buffer arrives, how much it still has ahead of the sink. One
// measurement says little: the buffers arrive in a rhythm of their own and the sound server's
// clock is read between its timing updates, so the figure swings by about a buffer within a
// second. The least of each second is what matters (it is what a late buffer would meet),
// and it is held against the lead the device should keep: a proportional term moves it back
// toward the lead, an integral one learns the difference of the clocks, and the writer is told
// a running total of the frames it should have added so far (negative: left out). The same
// least, over the last second or two, tells the device how much it may skip after a burst
// without cutting into the lead. Plain arithmetic on the times handed in; the owner
// serialises the calls.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdint>

namespace larimo {

class ClockMatch {
public:
    static constexpr int64_t kWindowNs = 1'000'000'000;
    // Without measurements for this long (the writer paused) the next ones start afresh; the
    // difference of the clocks learnt so far stays.
    static constexpr int64_t kGapNs = 2'000'000'000;
    // The correction never exceeds half a percent: no clock is off by more, and a larger
    // step would be heard as a change of pitch.
    static constexpr double kMaxShare = 0.005;
    // Per second: a fill off by 100 frames is corrected at 50 frames a second; a difference
    // of the clocks is learnt in about ten seconds, without overshooting the lead.
    static constexpr double kProportional = 0.5;
    static constexpr double kIntegral = 0.0625;

    ClockMatch() = default;
    explicit ClockMatch(uint32_t framesPerSecond)
        : m_limit(framesPerSecond * kMaxShare)
    {
    }

    /// `ahead` frames wait ahead of the sink at `nowNs`; the device wants to keep `target`.
    void Observe(int64_t nowNs, int64_t ahead, int64_t target)
    {
        if (m_lastNs == kNever || nowNs - m_lastNs > kGapNs || nowNs < m_lastNs) {
            m_windowStartNs = nowNs;
            m_windowLeast = ahead;
            m_previousLeast = kNone;
            m_lastNs = nowNs;
            return;
        }
        m_owed += m_rate * static_cast<double>(nowNs - m_lastNs) / 1e9;
        m_lastNs = nowNs;
        if (m_afterSkip) {
            m_afterSkip = false;
            m_windowStartNs = nowNs;
            m_windowLeast = ahead;
            return;
        }
        m_windowLeast = std::min(m_windowLeast, ahead);
        if (nowNs - m_windowStartNs < kWindowNs)
            return;
        const double seconds = static_cast<double>(nowNs - m_windowStartNs) / 1e9;
        const auto error = static_cast<double>(m_windowLeast - target);
        // A difference of clocks shows as a small error second after second; a large one is a
        // burst or a gap, which the proportional term (or a skip) deals with, and which must
        // not be learnt as a clock: the integral learns no more than a quarter of the lead a
        // second. It is also held where it alone would ask for the largest correction.
        const double bound = 0.25 * static_cast<double>(target);
        const double learnt = std::clamp(error, -bound, bound);
        m_integral = std::clamp(m_integral + learnt * seconds, -m_limit / kIntegral, m_limit / kIntegral);
        m_rate = std::clamp(-(kProportional * error + kIntegral * m_integral), -m_limit, m_limit);
        m_previousLeast = m_windowLeast;
        m_windowStartNs = nowNs;
        m_windowLeast = ahead;
    }

    /// The least that waited ahead over the last whole second and what has passed of the
    /// current one; false until a whole second was measured.
    bool LeastAhead(int64_t& least) const
    {
        if (m_previousLeast == kNone)
            return false;
        least = std::min(m_previousLeast, m_windowLeast);
        return true;
    }

    /// The device skipped some of what waited ahead. What was measured before says nothing
    /// about what waits now: a new second of measurements starts with the next one (so the
    /// same surplus is never skipped twice), and the error the proportional term was working
    /// off is gone.
    void Skipped()
    {
        m_previousLeast = kNone;
        m_afterSkip = true;
        m_rate = std::clamp(-kIntegral * m_integral, -m_limit, m_limit);
    }

    /// Frames the writer should have added so far; negative when it should have left them out.
    int64_t TotalFrames() const { return std::llround(m_owed); }
    /// The correction in force, in frames per second: what the device plays faster than the
    /// writer delivers.
    double FramesPerSecond() const { return m_rate; }

private:
    static constexpr int64_t kNever = INT64_MIN;
    static constexpr int64_t kNone = INT64_MAX;

    double m_limit = 0;
    double m_owed = 0;
    double m_rate = 0;
    double m_integral = 0;
    int64_t m_lastNs = kNever;
    int64_t m_windowStartNs = 0;
    int64_t m_windowLeast = 0;
    int64_t m_previousLeast = kNone;
    bool m_afterSkip = false;
};

} // namespace larimo
