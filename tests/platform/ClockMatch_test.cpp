// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ClockMatch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace larimo {
namespace {

constexpr uint32_t kRate = 44100;
constexpr int64_t kSecond = 1'000'000'000;

// A writer that delivers blocks of `block` frames by its own clock to a device whose sink plays
// `drift` (a share: 0.0004 is 400 ppm) faster. The device's figure swings by up to a recording
// fragment (a quarter block, 2.5 ms at least) as it does on a sound server; the writer adds or
// leaves out up to one frame in 128 per block, as the voice service does.
struct Simulation {
    double drift = 0;
    int64_t block = 220;
    int64_t lead = 264;
    int64_t swing = 220;
    int64_t maxStretch = 1;

    ClockMatch clock{kRate};
    double fill = 0;
    int64_t applied = 0;
    int64_t nowNs = 0;
    int underruns = 0;
    double least = 1e18;
    double most = -1e18;
    uint32_t noise = 12345;

    Simulation(double clockDrift, int64_t blockFrames, int64_t leadFrames)
        : drift(clockDrift)
        , block(blockFrames)
        , lead(leadFrames)
        , swing(std::max<int64_t>(blockFrames / 4, 110))
        , maxStretch(std::max<int64_t>(blockFrames / 128, 1))
        , fill(static_cast<double>(leadFrames + blockFrames))
    {
    }

    int64_t Swing()
    {
        noise = noise * 1103515245u + 12345u;
        return static_cast<int64_t>((noise >> 8) % static_cast<uint32_t>(swing + 1));
    }

    // Runs until `seconds`; `measureFrom` leaves the first seconds out of least and most.
    // Without `corrected` the writer ignores what the device asks for.
    void Run(double seconds, double measureFrom = 0, bool corrected = true)
    {
        const int64_t stepNs = block * kSecond / kRate;
        while (nowNs < static_cast<int64_t>(seconds * kSecond)) {
            nowNs += stepNs;
            fill -= static_cast<double>(block) * (1.0 + drift);
            if (fill < 0) {
                ++underruns;
                fill = static_cast<double>(lead);
            }
            if (nowNs >= static_cast<int64_t>(measureFrom * kSecond)) {
                least = std::min(least, fill);
                most = std::max(most, fill);
            }
            clock.Observe(nowNs, static_cast<int64_t>(fill) - Swing(), lead);
            const int64_t step =
                corrected ? std::clamp<int64_t>(clock.TotalFrames() - applied, -maxStretch, maxStretch) : 0;
            applied += step;
            fill += static_cast<double>(block + step);
        }
    }
};

TEST(ClockMatch, AWriterKeepsPaceWithAFasterOrSlowerSinkForTenMinutes)
{
    for (const double drift : {0.0004, -0.0004, 0.0001, 0.002, 0.0}) {
        for (const int64_t block : {220, 1102}) {
            SCOPED_TRACE(testing::Message() << "drift " << drift * 1e6 << " ppm, blocks of " << block);
            const int64_t lead = block == 220 ? 264 : 529;
            Simulation run(drift, block, lead);
            run.Run(600, 60);
            EXPECT_EQ(run.underruns, 0);
            // The least a late block would meet stays at the lead, within the measurement's
            // swing; it neither runs dry nor piles up delay.
            EXPECT_GT(run.least, static_cast<double>(lead - block / 2));
            EXPECT_LT(run.most, static_cast<double>(lead + 3 * block));
            const double expected = drift * kRate;
            EXPECT_NEAR(run.clock.FramesPerSecond(), expected, std::max(2.0, std::abs(expected) * 0.15));
            EXPECT_NEAR(static_cast<double>(run.applied), expected * 600, std::max(600.0, std::abs(expected) * 60));
        }
    }
}

TEST(ClockMatch, WithoutCorrectionTheSameSinkRunsDry)
{
    // The figures the correction is measured against: 400 ppm empty a 6 ms lead in 15 s.
    Simulation run(0.0004, 220, 264);
    run.Run(60, 0, false);
    EXPECT_GE(run.underruns, 3);
}

TEST(ClockMatch, ABurstIsWorkedOffWithoutBeingLearntAsAClock)
{
    Simulation run(0.0, 220, 264);
    run.Run(30);
    // Ten blocks at once, as after a stall, and never skipped: the proportional term works
    // them off, and the clock learnt stays that of equal clocks.
    run.fill += 2200;
    run.Run(90, 75);
    EXPECT_NEAR(run.clock.FramesPerSecond(), 0.0, 3.0);
    EXPECT_LT(run.most, 264.0 + 3 * 220);
    EXPECT_EQ(run.underruns, 0);
}

TEST(ClockMatch, CorrectionNeverExceedsHalfAPercent)
{
    Simulation run(0.02, 220, 264);
    run.Run(120);
    EXPECT_NEAR(run.clock.FramesPerSecond(), kRate * ClockMatch::kMaxShare, 1e-9);
    EXPECT_GT(run.underruns, 0) << "a sink 2 % fast cannot be followed";
}

TEST(ClockMatch, TheLeastAheadIsKnownAfterAWholeSecondAndAfreshAfterASkip)
{
    ClockMatch clock(kRate);
    int64_t least = 0;
    clock.Observe(0, 500, 264);
    clock.Observe(kSecond / 2, 400, 264);
    EXPECT_FALSE(clock.LeastAhead(least)) << "half a second is not enough to know the least";
    clock.Observe(kSecond, 450, 264);
    ASSERT_TRUE(clock.LeastAhead(least));
    EXPECT_EQ(least, 400);

    // A skip leaves the figures of before behind: the least is unknown for a whole second
    // (it would otherwise ask for the same skip again), then it is that of after the skip.
    clock.Skipped();
    EXPECT_FALSE(clock.LeastAhead(least));
    for (int64_t now = kSecond + kSecond / 10; now <= 3 * kSecond; now += kSecond / 10) {
        clock.Observe(now, 300, 264);
        if (now < 2 * kSecond + kSecond / 10) {
            EXPECT_FALSE(clock.LeastAhead(least)) << now;
        }
    }
    ASSERT_TRUE(clock.LeastAhead(least));
    EXPECT_EQ(least, 300);

    // Nothing measured for longer than the gap (the writer paused): the least is unknown again,
    // the correction learnt so far stays, and none is owed for the pause.
    const int64_t owed = clock.TotalFrames();
    clock.Observe(10 * kSecond, 300, 264);
    EXPECT_FALSE(clock.LeastAhead(least));
    EXPECT_EQ(clock.TotalFrames(), owed);
}

} // namespace
} // namespace larimo
