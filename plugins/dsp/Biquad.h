// SPDX-License-Identifier: GPL-3.0-or-later
// Second-order filter sections with the usual analogue-prototype designs (bilinear transform
// with frequency prewarping). Designing allocates nothing and may run on the audio thread.
#pragma once

namespace larimo::fx {

class Biquad {
public:
    /// Butterworth-like slopes with q = 0.7071; higher q adds a resonance at the corner.
    void SetLowpass(double frequency, double q, double sampleRate);
    void SetHighpass(double frequency, double q, double sampleRate);
    /// Bell curve around `frequency`, `gainDb` at its centre.
    void SetPeak(double frequency, double q, double gainDb, double sampleRate);
    void ResetRT() { m_z1 = m_z2 = 0.0f; }

    float ProcessRT(float x)
    {
        // Transposed direct form II: two state values, good numerical behaviour in float.
        const float y = m_b0 * x + m_z1;
        m_z1 = m_b1 * x - m_a1 * y + m_z2;
        m_z2 = m_b2 * x - m_a2 * y;
        return y;
    }

private:
    void Set(double b0, double b1, double b2, double a0, double a1, double a2);

    float m_b0 = 1.0f, m_b1 = 0.0f, m_b2 = 0.0f, m_a1 = 0.0f, m_a2 = 0.0f;
    float m_z1 = 0.0f, m_z2 = 0.0f;
};

} // namespace larimo::fx
