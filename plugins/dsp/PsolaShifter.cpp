// SPDX-License-Identifier: GPL-3.0-or-later
#include "PsolaShifter.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <numbers>

namespace larimo::fx {

namespace {

// Cubic (Catmull-Rom) interpolation reads up to two samples ahead of the position.
constexpr double kReadAhead = 2.0;

} // namespace

void PsolaShifter::Prepare(double sampleRate)
{
    m_rate = sampleRate;
    m_tracker.Prepare(sampleRate);
    // Pulses show best below the first formant; this keeps their peaks sharp and single.
    m_epochFilter.SetLowpass(900.0, 0.7071, sampleRate);
    // Grains reach back up to three of the longest periods (a grain two periods wide read at
    // half speed), plus the search ahead of the last pulse.
    const double longest = sampleRate / PitchTracker::kMinHz;
    m_input.assign(std::bit_ceil(static_cast<size_t>(8.0 * longest)), 0.0f);
    m_smooth.assign(m_input.size(), 0.0f);
    m_mask = m_input.size() - 1;
    for (int i = 0; i <= kWindowTable + 1; ++i) {
        const double u = std::min(1.0, static_cast<double>(i) / kWindowTable);
        m_window[static_cast<size_t>(i)] = static_cast<float>(0.5 + 0.5 * std::cos(std::numbers::pi * u));
    }
    ResetRT();
}

void PsolaShifter::ResetRT()
{
    m_tracker.ResetRT();
    m_epochFilter.ResetRT();
    std::fill(m_input.begin(), m_input.end(), 0.0f);
    std::fill(m_smooth.begin(), m_smooth.end(), 0.0f);
    m_now = -1;
    m_epoch = 0.0;
    m_nextMark = 0.0;
    m_grainCount = 0;
}

int32_t PsolaShifter::TypicalLatency() const
{
    return static_cast<int32_t>(std::lround(m_rate / 240.0 + kReadAhead));
}

int64_t PsolaShifter::TailSamples() const
{
    return static_cast<int64_t>(std::ceil(8.0 * m_rate / PitchTracker::kMinHz));
}

float PsolaShifter::InputAt(double position) const
{
    const double whole = std::floor(position);
    const float t = static_cast<float>(position - whole);
    const auto i = static_cast<int64_t>(whole);
    const float a = m_input[static_cast<size_t>(i - 1) & m_mask];
    const float b = m_input[static_cast<size_t>(i) & m_mask];
    const float c = m_input[static_cast<size_t>(i + 1) & m_mask];
    const float d = m_input[static_cast<size_t>(i + 2) & m_mask];
    return b + 0.5f * t * (c - a + t * (2.0f * a - 5.0f * b + 4.0f * c - d + t * (3.0f * (b - c) + d - a)));
}

float PsolaShifter::Window(float phase) const
{
    const float u = std::min(std::fabs(phase), 1.0f) * kWindowTable;
    const auto i = static_cast<size_t>(u);
    const float t = u - static_cast<float>(i);
    return m_window[i] + t * (m_window[i + 1] - m_window[i]);
}

void PsolaShifter::TrackEpochsRT(double period)
{
    // Pulses are looked for one period after the last, within a quarter period either side,
    // once that whole stretch has arrived. Unvoiced sound has no pulses; marks then simply
    // advance by the period.
    const double reach = 0.25 * period;
    for (int round = 0; round < 8 && m_epoch + period + reach <= static_cast<double>(m_now); ++round) {
        const double guess = m_epoch + period;
        if (!m_tracker.Voiced()) {
            m_epoch = guess;
            continue;
        }
        auto best = static_cast<int64_t>(std::ceil(guess - reach));
        const auto last = static_cast<int64_t>(std::floor(guess + reach));
        float bestValue = m_smooth[static_cast<size_t>(best) & m_mask];
        for (int64_t i = best + 1; i <= last; ++i) {
            const float value = m_smooth[static_cast<size_t>(i) & m_mask];
            if (value > bestValue) {
                bestValue = value;
                best = i;
            }
        }
        m_epoch = static_cast<double>(best);
    }
    // After silence or a jump of the period the chain may have fallen far behind: restart it
    // a period back from now.
    if (m_epoch < static_cast<double>(m_now) - 3.0 * period)
        m_epoch = static_cast<double>(m_now) - period;
}

void PsolaShifter::SpawnGrainRT(double period, const Controls& controls)
{
    const double formant = std::clamp<double>(controls.m_formantRatio, 0.25, 4.0);
    // Spacing of output grains: the input period scaled by the pitch ratio, drawn towards the
    // target period by `flatten` (geometrically, so halfway is halfway in musical terms).
    double spacing = period / std::clamp<double>(controls.m_pitchRatio, 0.25, 4.0);
    if (controls.m_flatten > 0.0f && controls.m_targetPeriod > 0.0f) {
        const double a = std::clamp<double>(controls.m_flatten, 0.0, 1.0);
        spacing = std::pow(spacing, 1.0 - a) * std::pow(static_cast<double>(controls.m_targetPeriod), a);
    }
    spacing = std::max(spacing, 8.0);
    // A grain covers two input periods, squeezed or stretched by the formant ratio; it is capped
    // at eight spacings so that dense output (a high voice made higher) stays within kMaxGrains.
    const double half = std::min(period / formant, 4.0 * spacing);

    const double centre = m_nextMark;
    m_nextMark += spacing;
    if (m_grainCount == kMaxGrains)
        return;

    // Input read for the output sample at centre + j is a + j * formant; it must have arrived
    // by then, which holds for every j in [-half, half] when the centre a is this far back.
    const double lag = half * std::fabs(formant - 1.0) + kReadAhead;
    const double latest = centre - lag;
    double mark = m_epoch + std::floor((latest - m_epoch) / period) * period;
    // Never further back than the history holds.
    const double oldest = static_cast<double>(m_now) - static_cast<double>(m_input.size()) + half * formant + 8.0;
    mark = std::max(mark, oldest);

    const double start = static_cast<double>(m_now) - centre; // where in the grain we begin (<= 0)
    Grain& g = m_grains[static_cast<size_t>(m_grainCount++)];
    g.m_read = mark + start * formant;
    g.m_step = static_cast<float>(formant);
    g.m_phaseStep = static_cast<float>(1.0 / half);
    g.m_phase = static_cast<float>(start / half);
    // Output power grows with the number of grains per input period; this keeps the loudness.
    g.m_gain = static_cast<float>(std::clamp(std::sqrt(formant * spacing / period), 0.35, 2.8));
}

float PsolaShifter::ProcessRT(float x, const Controls& controls)
{
    ++m_now;
    m_input[static_cast<size_t>(m_now) & m_mask] = x;
    m_smooth[static_cast<size_t>(m_now) & m_mask] = m_epochFilter.ProcessRT(x);
    m_tracker.PushRT(x);

    const double period = m_tracker.Period();
    TrackEpochsRT(period);

    const double now = static_cast<double>(m_now);
    if (m_nextMark < now)
        m_nextMark = now; // after a reset, or when spacing jumped far
    for (int guard = 0; guard < kMaxGrains; ++guard) {
        const double formant = std::clamp<double>(controls.m_formantRatio, 0.25, 4.0);
        if (m_nextMark - period / formant > now)
            break;
        SpawnGrainRT(period, controls);
    }

    float y = 0.0f;
    for (int i = 0; i < m_grainCount;) {
        Grain& g = m_grains[static_cast<size_t>(i)];
        y += g.m_gain * Window(g.m_phase) * InputAt(g.m_read);
        g.m_read += g.m_step;
        g.m_phase += g.m_phaseStep;
        if (g.m_phase >= 1.0f)
            g = m_grains[static_cast<size_t>(--m_grainCount)];
        else
            ++i;
    }
    return y;
}

} // namespace larimo::fx
