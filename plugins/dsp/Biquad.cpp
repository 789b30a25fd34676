// SPDX-License-Identifier: GPL-3.0-or-later
#include "Biquad.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace larimo::fx {

namespace {

// Corner frequencies at or above Nyquist have no meaning; keep them just below it.
double Omega(double frequency, double sampleRate)
{
    const double f = std::clamp(frequency, 1.0, 0.49 * sampleRate);
    return 2.0 * std::numbers::pi * f / sampleRate;
}

} // namespace

void Biquad::Set(double b0, double b1, double b2, double a0, double a1, double a2)
{
    m_b0 = static_cast<float>(b0 / a0);
    m_b1 = static_cast<float>(b1 / a0);
    m_b2 = static_cast<float>(b2 / a0);
    m_a1 = static_cast<float>(a1 / a0);
    m_a2 = static_cast<float>(a2 / a0);
}

void Biquad::SetLowpass(double frequency, double q, double sampleRate)
{
    const double w = Omega(frequency, sampleRate);
    const double alpha = std::sin(w) / (2.0 * q);
    const double c = std::cos(w);
    Set((1.0 - c) / 2.0, 1.0 - c, (1.0 - c) / 2.0, 1.0 + alpha, -2.0 * c, 1.0 - alpha);
}

void Biquad::SetHighpass(double frequency, double q, double sampleRate)
{
    const double w = Omega(frequency, sampleRate);
    const double alpha = std::sin(w) / (2.0 * q);
    const double c = std::cos(w);
    Set((1.0 + c) / 2.0, -(1.0 + c), (1.0 + c) / 2.0, 1.0 + alpha, -2.0 * c, 1.0 - alpha);
}

void Biquad::SetPeak(double frequency, double q, double gainDb, double sampleRate)
{
    const double w = Omega(frequency, sampleRate);
    const double alpha = std::sin(w) / (2.0 * q);
    const double c = std::cos(w);
    const double a = std::pow(10.0, gainDb / 40.0);
    Set(1.0 + alpha * a, -2.0 * c, 1.0 - alpha * a, 1.0 + alpha / a, -2.0 * c, 1.0 - alpha / a);
}

} // namespace larimo::fx
