// SPDX-License-Identifier: GPL-3.0-or-later
// How much silence an output stream keeps queued ahead of its newest buffer, adapting to the
// machine. Each under-run adds half the requested lead, up to four times it; calm gives it
// back a quarter of the requested lead at a time, never below the requested lead itself.
//
// How long the calm must last before a step back starts short (10 s), so that one under-run
// early in a run costs a little latency for twenty seconds, not for minutes. An under-run soon
// after a step back shows that the shorter lead was too short: the calm needed before the next
// step doubles (up to 160 s), so a machine that keeps running dry settles at the lead it needs
// instead of running dry again every half minute. Ten minutes without an under-run at the
// requested lead forget that history.
//
// Plain arithmetic on the times handed in; the owner serialises the calls.
#pragma once

#include <algorithm>
#include <cstdint>

namespace larimo {

class OutputLead {
public:
    static constexpr uint32_t kMaxFactor = 4;
    static constexpr int64_t kShortestCalmNs = 10'000'000'000;
    static constexpr int64_t kLongestCalmNs = 160'000'000'000;
    static constexpr int64_t kForgetAfterNs = 600'000'000'000;

    OutputLead() = default;
    /// `requested` bytes (a multiple of `align`), from time `nowNs` on.
    OutputLead(uint32_t requested, uint32_t align, int64_t nowNs)
        : m_requested(requested)
        , m_bytes(requested)
        , m_grow(Step(requested / 2, align))
        , m_shrink(Step(requested / 4, align))
        , m_calmSinceNs(nowNs)
    {
    }

    uint32_t Bytes() const { return m_bytes; }
    uint32_t Requested() const { return m_requested; }
    uint32_t MaxBytes() const { return m_requested * kMaxFactor; }
    int64_t CalmNeededNs() const { return m_calmNs; }

    /// The stream ran dry at `nowNs`; returns the lead to keep from now on.
    uint32_t OnUnderrun(int64_t nowNs)
    {
        if (m_steppedBackNs != 0 && nowNs - m_steppedBackNs < m_calmNs)
            m_calmNs = std::min(m_calmNs * 2, kLongestCalmNs);
        m_bytes = std::min(m_bytes + m_grow, MaxBytes());
        m_calmSinceNs = nowNs;
        return m_bytes;
    }

    /// Called now and then (with every buffer); returns the lead to keep from now on.
    uint32_t Relax(int64_t nowNs)
    {
        if (m_bytes <= m_requested) {
            if (m_calmNs > kShortestCalmNs && nowNs - m_calmSinceNs >= kForgetAfterNs) {
                m_calmNs = kShortestCalmNs;
                m_steppedBackNs = 0;
            }
            return m_bytes;
        }
        if (nowNs - m_calmSinceNs < m_calmNs)
            return m_bytes;
        m_bytes = std::max(m_requested, m_bytes - std::min(m_shrink, m_bytes));
        m_calmSinceNs = nowNs;
        m_steppedBackNs = nowNs;
        return m_bytes;
    }

private:
    // `bytes` rounded down to whole frames of `align` bytes, one frame at least.
    static uint32_t Step(uint32_t bytes, uint32_t align)
    {
        align = std::max(align, 1u);
        return std::max(align, bytes / align * align);
    }

    uint32_t m_requested = 0;
    uint32_t m_bytes = 0;
    uint32_t m_grow = 0;
    uint32_t m_shrink = 0;
    int64_t m_calmNs = kShortestCalmNs;
    int64_t m_calmSinceNs = 0;   // the last under-run or step back
    int64_t m_steppedBackNs = 0; // the last step back, 0 for none since the history was forgotten
};

} // namespace larimo
