// SPDX-License-Identifier: GPL-3.0-or-later
// Reads a delay line at a delay that the user may change at any moment. Instead of sliding
// the read position (which bends the pitch of everything in the line, loudly for long
// delays), a new position fades in while the old one fades out. RT calls throughout.
#pragma once

#include "DelayLine.h"

#include <algorithm>
#include <cstddef>

namespace larimo::fx {

class FadingTap {
public:
    void Prepare(double sampleRate, double fadeSeconds = 0.03)
    {
        m_fadeStep = static_cast<float>(1.0 / std::max(1.0, fadeSeconds * sampleRate));
    }
    /// Starts at `delay` without a fade.
    void Jump(size_t delay)
    {
        m_current = m_target = m_next = delay;
        m_fade = 1.0f;
    }
    void SetTarget(size_t delay) { m_target = delay; }
    size_t Target() const { return m_target; }

    /// The line's sample at the tap; the delay counts from the last sample pushed (0 = it).
    float ReadRT(const DelayLine& line)
    {
        if (m_fade >= 1.0f && m_target != m_current) {
            m_next = m_target;
            m_fade = 0.0f;
        }
        if (m_fade >= 1.0f)
            return line.ReadRT(m_current);
        m_fade = std::min(1.0f, m_fade + m_fadeStep);
        const float value = line.ReadRT(m_current) + m_fade * (line.ReadRT(m_next) - line.ReadRT(m_current));
        if (m_fade >= 1.0f)
            m_current = m_next;
        return value;
    }

private:
    size_t m_current = 0;
    size_t m_next = 0;
    size_t m_target = 0;
    float m_fade = 1.0f;
    float m_fadeStep = 1.0f;
};

} // namespace larimo::fx
