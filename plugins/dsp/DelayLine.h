// SPDX-License-Identifier: GPL-3.0-or-later
// A circular sample history of power-of-two size, read back at whole or fractional delays.
#pragma once

#include <bit>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <algorithm>
#include <vector>

namespace larimo::fx {

class DelayLine {
public:
    /// Holds at least `maxDelay` past samples. Allocates.
    void Prepare(size_t maxDelay)
    {
        m_buffer.assign(std::bit_ceil(maxDelay + 4), 0.0f);
        m_mask = m_buffer.size() - 1;
        m_write = 0;
    }
    void ResetRT() { std::fill(m_buffer.begin(), m_buffer.end(), 0.0f); }
    size_t Capacity() const { return m_buffer.size() > 4 ? m_buffer.size() - 4 : 0; }

    void PushRT(float x)
    {
        m_write = (m_write + 1) & m_mask;
        m_buffer[m_write] = x;
    }
    /// The sample pushed `delay` pushes ago (0 = the last one).
    float ReadRT(size_t delay) const { return m_buffer[(m_write - delay) & m_mask]; }
    /// Linear interpolation between neighbours; enough for delays that glide slowly.
    float ReadLinearRT(float delay) const
    {
        const float whole = std::floor(delay);
        const auto i = static_cast<size_t>(whole);
        const float frac = delay - whole;
        const float a = ReadRT(i);
        const float b = ReadRT(i + 1);
        return a + frac * (b - a);
    }

private:
    std::vector<float> m_buffer = std::vector<float>(1, 0.0f);
    size_t m_mask = 0;
    size_t m_write = 0;
};

} // namespace larimo::fx
