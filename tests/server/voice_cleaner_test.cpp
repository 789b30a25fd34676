// SPDX-License-Identifier: GPL-3.0-or-later
// The microphone cleaner on speech in a noisy room: the room falls silent in the pauses, the
// voice keeps its level and the first syllable after a pause is not cut; switched off it passes
// the voice unchanged and undelayed, and switching never opens a gap or makes a click.
#include "NoisySpeech.h"
#include "VoiceCleaner.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>

namespace larimo {
namespace {

constexpr uint32_t kRate = 44100;

// Runs `input` through a cleaner in blocks of `block` samples; `settingsAt(blockIndex)` says
// what the user has chosen for each block. The output is shifted back by `shift` samples, and
// the cleaner's delay while suppressing goes to `delay`.
std::vector<int16_t> Clean(const std::vector<int16_t>& input, uint32_t block,
                           const std::function<VoiceCleanup(size_t)>& settingsAt, uint32_t* delay = nullptr,
                           bool shift = true)
{
    VoiceCleaner cleaner(block, kRate);
    std::vector<int16_t> output = input;
    for (size_t at = 0, index = 0; at + block <= output.size(); at += block, ++index)
        cleaner.ProcessRT(output.data() + at, block, settingsAt(index));
    const uint32_t latency = cleaner.LatencySamples();
    if (delay != nullptr)
        *delay = latency;
    if (shift) {
        output.erase(output.begin(), output.begin() + latency);
        output.resize(input.size(), 0);
    }
    return output;
}

int LargestStep(const std::vector<int16_t>& samples, size_t from, size_t to)
{
    int largest = 0;
    for (size_t i = from + 1; i < to && i < samples.size(); ++i)
        largest = std::max(largest, std::abs(samples[i] - samples[i - 1]));
    return largest;
}

class VoiceCleanerTest : public ::testing::TestWithParam<uint32_t> {
protected:
    static void SetUpTestSuite()
    {
        s_scene = test::MakeNoisyScene(1.5, 1.2, 3, -45.0, -48.0);
    }

    void SetUp() override
    {
        if (s_scene.mix.empty())
            GTEST_FAIL() << "espeak-ng and sox are needed to make the spoken sample";
    }

    uint32_t Block() const { return VoiceCleaner::BlockFor(GetParam(), kRate); }

    static inline test::NoisyScene s_scene;
};

TEST_P(VoiceCleanerTest, RoomFallsSilentInPausesWhileTheVoiceKeepsItsLevelAndItsFirstSyllable)
{
    const VoiceCleanup both{true, 25, true, -40};
    const std::vector<int16_t> cleaned = Clean(s_scene.mix, Block(), [&](size_t) { return both; });
    const std::vector<int16_t> suppressed =
        Clean(s_scene.mix, Block(), [&](size_t) { return VoiceCleanup{true, 25, false, -40}; });

    const auto& words = s_scene.words;
    for (size_t w = 0; w < words.size(); ++w) {
        SCOPED_TRACE("utterance " + std::to_string(w + 1));
        const auto [start, end] = words[w];
        // The pause after the word, once the gate has held and faded.
        const size_t pauseBegin = end + kRate * 4 / 10;
        const size_t pauseEnd = w + 1 < words.size() ? words[w + 1].first - kRate / 20 : s_scene.mix.size() - kRate / 10;
        const double roomBefore = test::RmsDb(s_scene.mix, pauseBegin, pauseEnd);
        EXPECT_LE(test::RmsDb(cleaned, pauseBegin, pauseEnd), roomBefore - 20.0);
        // The suppressor on its own already takes a good part of the fan away.
        EXPECT_LE(test::RmsDb(suppressed, pauseBegin, pauseEnd), roomBefore - 8.0);

        EXPECT_NEAR(test::RmsDb(cleaned, start, end), test::RmsDb(s_scene.mix, start, end), 2.0);
        const size_t onset = start + kRate / 20;
        EXPECT_NEAR(test::RmsDb(cleaned, start, onset), test::RmsDb(s_scene.mix, start, onset), 3.0);
    }
}

TEST_P(VoiceCleanerTest, SwitchedOffItPassesTheVoiceUndelayedAndSwitchingNeitherGapsNorClicks)
{
    const VoiceCleanup off{false, 25, false, -40};
    uint32_t delay = 0;
    const std::vector<int16_t> passed =
        Clean(s_scene.mix, Block(), [&](size_t) { return off; }, &delay, false);
    EXPECT_GT(delay, 0U);
    EXPECT_LE(delay, Block());
    const size_t processed = s_scene.mix.size() / Block() * Block();
    for (size_t i = 0; i < processed; ++i)
        ASSERT_EQ(passed[i], s_scene.mix[i]) << "at sample " << i;

    // On for the middle of the first utterance, then off again: the voice moves by the frame
    // and back, cross-faded, so there is neither a stretch of silence nor a step the voice
    // does not have itself; from the block after the switch off it is the voice as it came.
    const auto [start, end] = s_scene.words[0];
    const size_t onFrom = start / Block() + 4;
    const size_t onTo = onFrom + 20;
    ASSERT_LT(onTo * Block(), end);
    const VoiceCleanup on{true, 40, true, -30};
    const auto onInTheMiddle = [&](size_t index) { return index >= onFrom && index < onTo ? on : off; };
    const std::vector<int16_t> switched = Clean(s_scene.mix, Block(), onInTheMiddle, nullptr, false);
    for (size_t i = 0; i < onFrom * Block(); ++i)
        ASSERT_EQ(switched[i], s_scene.mix[i]) << "at sample " << i;
    for (size_t i = (onTo + 1) * Block(); i < processed; ++i)
        ASSERT_EQ(switched[i], s_scene.mix[i]) << "at sample " << i;

    size_t silentRun = 0;
    size_t longest = 0;
    for (size_t i = start; i < end; ++i) {
        silentRun = switched[i] == 0 ? silentRun + 1 : 0;
        longest = std::max(longest, silentRun);
    }
    EXPECT_LT(longest, kRate / 500) << "a gap of " << longest << " samples inside the word";
    for (const size_t at : {onFrom * Block(), onTo * Block()}) {
        SCOPED_TRACE("switched at sample " + std::to_string(at));
        // A fade between two stretches of the voice may step a little further than either;
        // switching without one steps 1.6 to 4 times as far as the voice does around it.
        const int ownStep = LargestStep(s_scene.mix, at - 2 * Block(), at + 2 * Block());
        EXPECT_LE(LargestStep(switched, at - Block(), at + 2 * Block()), ownStep * 5 / 4);
    }
}

INSTANTIATE_TEST_SUITE_P(BlockLengths, VoiceCleanerTest, ::testing::Values(25U, 5U, 10U),
                         [](const ::testing::TestParamInfo<uint32_t>& param) {
                             return std::to_string(param.param) + "ms";
                         });

TEST(VoiceCleanerFrame, DelaysByAWholePartOfTheBlockOfAtMostAnEighthOfASecondWhereOneExists)
{
    for (uint32_t ms = 3; ms <= 100; ++ms) {
        const uint32_t block = ms * kRate / 1000;
        const uint32_t frame = VoiceCleaner::FrameFor(block, kRate);
        SCOPED_TRACE(std::to_string(ms) + " ms");
        EXPECT_EQ(block % frame, 0U);
        EXPECT_LE(frame, block);
    }
    EXPECT_EQ(VoiceCleaner::FrameFor(1102, kRate), 551U);
    EXPECT_EQ(VoiceCleaner::FrameFor(220, kRate), 220U);
    // The service's blocks have a short frame as a whole part: at most 10 ms of delay from
    // 5 ms blocks on, 5 ms at the default 25 ms.
    EXPECT_EQ(VoiceCleaner::BlockFor(25, kRate), 1100U);
    EXPECT_EQ(VoiceCleaner::FrameFor(VoiceCleaner::BlockFor(25, kRate), kRate), 220U);
    for (uint32_t ms = 5; ms <= 200; ++ms) {
        SCOPED_TRACE(std::to_string(ms) + " ms");
        const uint32_t block = VoiceCleaner::BlockFor(ms, kRate);
        EXPECT_GT(block * 1000 + 500 * kRate / 1000, ms * kRate) << "more than half a millisecond shorter";
        EXPECT_LE(VoiceCleaner::FrameFor(block, kRate), kRate / 100);
    }
}

TEST(VoiceCleanerSettings, ValuesFromAFileAreKeptInRange)
{
    const VoiceCleanup wild = VoiceCleaner::Clamped({true, 900, true, 40});
    EXPECT_EQ(wild.noiseStrengthDb, VoiceCleaner::kMaxStrengthDb);
    EXPECT_EQ(wild.gateThresholdDb, VoiceCleaner::kMaxThresholdDb);
    const VoiceCleanup low = VoiceCleaner::Clamped({true, -3, true, -300});
    EXPECT_EQ(low.noiseStrengthDb, VoiceCleaner::kMinStrengthDb);
    EXPECT_EQ(low.gateThresholdDb, VoiceCleaner::kMinThresholdDb);
}

} // namespace
} // namespace larimo
