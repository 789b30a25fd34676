// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/OutputLead.h"

#include <gtest/gtest.h>

namespace larimo {
namespace {

constexpr int64_t kSecond = 1'000'000'000;
// 12 ms of 16-bit mono at 44.1 kHz.
constexpr uint32_t kAlign = 2;
constexpr uint32_t kRequested = 1058;

// Calls Relax every 10 ms from `from` to `to` and gives back when the lead was first back at
// the requested one, or -1.
int64_t RelaxUntil(OutputLead& lead, int64_t from, int64_t to)
{
    for (int64_t now = from; now <= to; now += kSecond / 100) {
        if (lead.Relax(now) == lead.Requested())
            return now;
    }
    return -1;
}

TEST(OutputLead, OneEarlyUnderRunCostsSecondsNotMinutes)
{
    OutputLead lead(kRequested, kAlign, 0);
    EXPECT_EQ(lead.Relax(5 * kSecond), kRequested);
    const uint32_t raised = lead.OnUnderrun(5 * kSecond);
    EXPECT_GT(raised, kRequested);
    EXPECT_EQ(raised % kAlign, 0U);
    EXPECT_EQ(lead.Relax(6 * kSecond), raised) << "right after the under-run the longer lead stays";
    const int64_t back = RelaxUntil(lead, 6 * kSecond, 300 * kSecond);
    ASSERT_GT(back, 0);
    EXPECT_LE(back - 5 * kSecond, 30 * kSecond);
}

TEST(OutputLead, AMachineThatKeepsRunningDryKeepsItsLongerLead)
{
    // The machine needs 1.5 times the requested lead: it runs dry whenever the lead is shorter,
    // a second after it was shortened.
    OutputLead lead(kRequested, kAlign, 0);
    const uint32_t needed = OutputLead(kRequested, kAlign, 0).OnUnderrun(0);
    int64_t now = 0;
    int underruns = 0;
    int64_t lastUnderrun = 0;
    int64_t longestCalm = 0;
    lead.OnUnderrun(now);
    ++underruns;
    for (; now < 1800 * kSecond; now += kSecond / 10) {
        if (lead.Relax(now) < needed) {
            now += kSecond;
            lead.OnUnderrun(now);
            ++underruns;
            longestCalm = std::max(longestCalm, now - lastUnderrun);
            lastUnderrun = now;
        }
    }
    // Half an hour: the calm it waits for before trying a shorter lead grows, so the gaps come
    // ever more seldom (a fixed short calm would run dry every 20 s, 90 times).
    EXPECT_LE(underruns, 12);
    EXPECT_EQ(lead.CalmNeededNs(), OutputLead::kLongestCalmNs);
    EXPECT_GE(longestCalm, 2 * OutputLead::kLongestCalmNs);
}

TEST(OutputLead, GrowsToFourTimesAtMostAndForgetsAfterLongCalm)
{
    OutputLead lead(kRequested, kAlign, 0);
    for (int i = 0; i < 20; ++i)
        lead.OnUnderrun(i * kSecond / 10);
    EXPECT_EQ(lead.Bytes(), lead.MaxBytes());
    EXPECT_EQ(lead.MaxBytes(), 4 * kRequested);

    // Stepped back, run dry at once, again and again: the calm needed grows.
    int64_t now = 19 * kSecond / 10;
    for (int round = 0; round < 6; ++round) {
        const uint32_t before = lead.Bytes();
        now += lead.CalmNeededNs();
        EXPECT_LT(lead.Relax(now), before);
        now += kSecond;
        lead.OnUnderrun(now);
    }
    EXPECT_EQ(lead.CalmNeededNs(), OutputLead::kLongestCalmNs);
    // Back at the requested lead and quiet for ten minutes: the history is forgotten.
    const int64_t back = RelaxUntil(lead, now, now + 3600 * kSecond);
    ASSERT_GT(back, 0);
    lead.Relax(back + OutputLead::kForgetAfterNs / 2);
    EXPECT_EQ(lead.CalmNeededNs(), OutputLead::kLongestCalmNs);
    lead.Relax(back + OutputLead::kForgetAfterNs + kSecond);
    EXPECT_EQ(lead.CalmNeededNs(), OutputLead::kShortestCalmNs);
}

TEST(OutputLead, NoLeadStaysNone)
{
    OutputLead lead(0, kAlign, 0);
    EXPECT_EQ(lead.Bytes(), 0U);
    EXPECT_EQ(lead.MaxBytes(), 0U);
    EXPECT_EQ(lead.OnUnderrun(kSecond), 0U);
}

} // namespace
} // namespace larimo
