// SPDX-License-Identifier: GPL-3.0-or-later
// A parameter glide: one-pole smoothing towards the last value set, so that a slider moved in
// the host changes the sound without steps (zipper noise). RT calls throughout.
#pragma once

#include <cmath>

namespace larimo::fx {

class Smoother {
public:
    /// Time for about 63 % of a change; 20 ms is inaudible as a glide yet removes every step.
    void Prepare(double sampleRate, double seconds = 0.02)
    {
        m_coefficient = static_cast<float>(1.0 - std::exp(-1.0 / (seconds * sampleRate)));
    }
    void SetTarget(float target) { m_target = target; }
    void Jump() { m_current = m_target; }
    void JumpTo(float value) { m_target = m_current = value; }
    float Target() const { return m_target; }
    float Current() const { return m_current; }
    bool Settled() const { return m_current == m_target; }

    float NextRT()
    {
        const float step = m_target - m_current;
        // Snapping close values settles the glide in finite time and keeps the state normal.
        if (std::fabs(step) <= 1e-6f * (std::fabs(m_target) + 1e-6f))
            m_current = m_target;
        else
            m_current += m_coefficient * step;
        return m_current;
    }

private:
    float m_coefficient = 1.0f;
    float m_target = 0.0f;
    float m_current = 0.0f;
};

} // namespace larimo::fx
