// SPDX-License-Identifier: GPL-3.0-or-later
// How one effect parameter looks to the user: its name and unit, its range in plain units and
// how the host's 0..1 value maps onto that range. Plain data, free of any plug-in interface, so
// the DSP classes own their tables and the glue only reads them.
#pragma once

#include <cstddef>

namespace larimo::fx {

struct ParamInfo {
    enum class Scale {
        Linear,
        Logarithmic, ///< equal steps of the host value multiply the plain value (minimum > 0)
    };

    const char* m_name;
    const char* m_label;
    float m_minimum;
    float m_maximum;
    float m_default; ///< plain units
    Scale m_scale = Scale::Linear;
    int m_decimals = 0;

    /// Plain value for a host value; values outside 0..1 are clamped. Any thread.
    float ToPlain(float normalized) const;
    /// Host value (0..1) for a plain value; values outside the range are clamped. Any thread.
    float ToNormalized(float plain) const;
    /// The plain value of `normalized` as text with the parameter's decimals, always terminated.
    void Display(float normalized, char* text, size_t size) const;
};

} // namespace larimo::fx
