// SPDX-License-Identifier: GPL-3.0-or-later
#include "ParamInfo.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace larimo::fx {

float ParamInfo::ToPlain(float normalized) const
{
    const float t = std::clamp(std::isfinite(normalized) ? normalized : 0.0f, 0.0f, 1.0f);
    if (m_scale == Scale::Logarithmic)
        return m_minimum * std::pow(m_maximum / m_minimum, t);
    return m_minimum + (m_maximum - m_minimum) * t;
}

float ParamInfo::ToNormalized(float plain) const
{
    const float v = std::clamp(plain, m_minimum, m_maximum);
    if (m_scale == Scale::Logarithmic)
        return std::log(v / m_minimum) / std::log(m_maximum / m_minimum);
    return (v - m_minimum) / (m_maximum - m_minimum);
}

void ParamInfo::Display(float normalized, char* text, size_t size) const
{
    if (size == 0)
        return;
    float plain = ToPlain(normalized);
    // "-0.0" reads as a fault to a user moving a slider through the middle.
    if (std::fabs(plain) < 0.5f * std::pow(10.0f, -static_cast<float>(m_decimals)))
        plain = 0.0f;
    std::snprintf(text, size, "%.*f", m_decimals, static_cast<double>(plain));
}

} // namespace larimo::fx
