// SPDX-License-Identifier: GPL-3.0-or-later
#include "PitchTracker.h"

#include <algorithm>
#include <bit>
#include <cmath>

namespace larimo::fx {

namespace {

constexpr double kAnalysisRate = 11025.0;
// Cumulative-mean-normalised difference (0 = perfectly periodic): the first dip under this
// threshold is the period (taking the first avoids octave errors); no such dip, no voice.
constexpr float kDipThreshold = 0.2f;

} // namespace

void PitchTracker::Prepare(double sampleRate)
{
    m_rate = sampleRate;
    m_factor = std::max(1, static_cast<int>(std::lround(sampleRate / kAnalysisRate)));
    const double decimatedRate = sampleRate / m_factor;
    m_minLag = std::max(2, static_cast<int>(std::floor(decimatedRate / kMaxHz)));
    m_maxLag = static_cast<int>(std::ceil(decimatedRate / kMinHz)) + 1;
    m_window = m_maxLag;
    m_hop = std::max(16, static_cast<int>(std::lround(decimatedRate * 0.006)));
    // The decimated copy only has to carry the fundamental and a few harmonics.
    const double corner = std::min(2000.0, 0.4 * decimatedRate);
    m_antiAlias1.SetLowpass(corner, 0.5412, sampleRate);
    m_antiAlias2.SetLowpass(corner, 1.3066, sampleRate);

    m_decimated.assign(std::bit_ceil(static_cast<size_t>(m_window + m_maxLag + 4)), 0.0f);
    m_decimatedMask = m_decimated.size() - 1;
    const auto fullSpan = static_cast<size_t>((m_window + m_maxLag + 4) * m_factor + 8);
    m_full.assign(std::bit_ceil(fullSpan), 0.0f);
    m_fullMask = m_full.size() - 1;
    m_difference.assign(static_cast<size_t>(m_maxLag + 2), 0.0f);
    m_recent.assign(static_cast<size_t>(m_window + m_maxLag + 2), 0.0f);
    m_recentFull.assign(fullSpan, 0.0f);
    ResetRT();
}

void PitchTracker::ResetRT()
{
    std::fill(m_full.begin(), m_full.end(), 0.0f);
    std::fill(m_decimated.begin(), m_decimated.end(), 0.0f);
    m_antiAlias1.ResetRT();
    m_antiAlias2.ResetRT();
    m_fullCount = 0;
    m_decimatedCount = 0;
    m_phase = 0;
    m_hopCountdown = m_hop;
    m_period = m_rate / 120.0;
    m_voiced = false;
}

void PitchTracker::PushRT(float x)
{
    m_full[static_cast<size_t>(m_fullCount) & m_fullMask] = x;
    ++m_fullCount;
    const float filtered = m_antiAlias2.ProcessRT(m_antiAlias1.ProcessRT(x));
    if (++m_phase < m_factor)
        return;
    m_phase = 0;
    m_decimated[static_cast<size_t>(m_decimatedCount) & m_decimatedMask] = filtered;
    ++m_decimatedCount;
    if (--m_hopCountdown > 0)
        return;
    m_hopCountdown = m_hop;
    if (m_decimatedCount >= m_window + m_maxLag)
        AnalyseRT();
}

void PitchTracker::AnalyseRT()
{
    // d(tau) = sum over the window of (x[t] - x[t - tau])^2, normalised by its running mean.
    // Unrolled from the ring into straight arrays, so the inner loops vectorise.
    float* x = m_recent.data();
    for (int j = 0; j < m_window + m_maxLag + 1; ++j)
        x[j] = DecimatedAt(j);
    double newer = 0.0;
    double older = 0.0;
    for (int j = 0; j < m_window; ++j)
        (j < m_window / 2 ? newer : older) += static_cast<double>(x[j]) * x[j];
    // Silence has no period, and a window across an onset or an ending gives octave errors
    // (half of it is silence); both keep the last period and count as unvoiced.
    if (!(newer + older > 1e-20 * m_window) || newer < 0.1 * older || older < 0.1 * newer) {
        m_voiced = false;
        return;
    }
    float* d = m_difference.data();
    d[0] = 1.0f;
    double runningSum = 0.0;
    int chosen = -1;
    for (int tau = 1; tau <= m_maxLag; ++tau) {
        float sum = 0.0f;
        for (int j = 0; j < m_window; ++j) {
            const float diff = x[j] - x[j + tau];
            sum += diff * diff;
        }
        runningSum += sum;
        d[tau] = runningSum > 0.0 ? static_cast<float>(sum * tau / runningSum) : 1.0f;
    }
    for (int tau = m_minLag; tau < m_maxLag; ++tau) {
        if (d[tau] < kDipThreshold) {
            while (tau + 1 < m_maxLag && d[tau + 1] < d[tau])
                ++tau;
            chosen = tau;
            break;
        }
    }
    // Without a clear dip the best lag is often a multiple of the period; keeping the last
    // period is the safer guess.
    m_voiced = chosen > 0;
    if (!m_voiced)
        return;
    // A parabola through the dip and its neighbours places it between samples.
    double lag = chosen;
    const double left = d[chosen - 1];
    const double mid = d[chosen];
    const double right = d[chosen + 1];
    const double curvature = left - 2.0 * mid + right;
    if (curvature > 0.0)
        lag += std::clamp(0.5 * (left - right) / curvature, -0.5, 0.5);
    m_period = RefineRT(lag);
}

double PitchTracker::RefineRT(double decimatedLag)
{
    const double guess = decimatedLag * m_factor;
    if (m_factor == 1)
        return guess;
    const int window = m_window * m_factor;
    const int low = std::max(2, static_cast<int>(std::floor(guess)) - m_factor);
    const int high = static_cast<int>(std::ceil(guess)) + m_factor;
    if (m_fullCount < window + high + 2 || static_cast<size_t>(window + high + 1) > m_recentFull.size())
        return guess;
    float* x = m_recentFull.data();
    for (int j = 0; j < window + high + 1; ++j)
        x[j] = FullAt(j);
    auto difference = [&](int lag) {
        float sum = 0.0f;
        for (int j = 0; j < window; ++j) {
            const float diff = x[j] - x[j + lag];
            sum += diff * diff;
        }
        return static_cast<double>(sum);
    };
    int best = low;
    double bestValue = difference(low);
    double before = bestValue;
    double after = 0.0;
    double previous = bestValue;
    for (int lag = low + 1; lag <= high; ++lag) {
        const double value = difference(lag);
        if (value < bestValue) {
            best = lag;
            bestValue = value;
            before = previous;
            after = -1.0;
        } else if (after < 0.0) {
            after = value;
        }
        previous = value;
    }
    if (best == low || best == high || after < 0.0)
        return best;
    const double curvature = before - 2.0 * bestValue + after;
    if (curvature <= 0.0)
        return best;
    return best + std::clamp(0.5 * (before - after) / curvature, -0.5, 0.5);
}

} // namespace larimo::fx
