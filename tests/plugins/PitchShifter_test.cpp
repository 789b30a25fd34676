// SPDX-License-Identifier: GPL-3.0-or-later
// The pitch shifter's own promises, measured on a synthetic vowel: the fundamental lands where
// the semitones say, the formants stay put unless moved, and the delay stays short.
#include "PitchShifter.h"
#include "TestSignals.h"

#include <gtest/gtest.h>

#include <cmath>

namespace larimo::fx {
namespace {

using test::Fundamental;
using test::MeasureFormants;
using test::Slice;
using test::VoicedSignal;

constexpr double kVoiceF0 = 120.0;

std::vector<float> Shift(const std::vector<float>& input, double rate, float semitones, float formant)
{
    PitchShifter shifter;
    shifter.Prepare(rate);
    shifter.SetParameterRT(PitchShifter::kPitch, semitones);
    shifter.SetParameterRT(PitchShifter::kFormant, formant);
    shifter.ResetRT();
    std::vector<float> out(input.size());
    shifter.ProcessRT(input.data(), out.data(), static_cast<int32_t>(input.size()));
    return out;
}

struct ShiftCase {
    float m_semitones;
    double m_rate;
};

class PitchShiftTest : public ::testing::TestWithParam<ShiftCase> {};

TEST_P(PitchShiftTest, MovesTheFundamentalAndKeepsTheFormants)
{
    const auto [semitones, rate] = GetParam();
    const std::vector<float> input = VoicedSignal(kVoiceF0, rate, 2.0);
    const auto steady = [&](const std::vector<float>& s) {
        return Slice(s, static_cast<size_t>(0.8 * rate), static_cast<size_t>(1.8 * rate));
    };
    const double expectedF0 = kVoiceF0 * std::exp2(semitones / 12.0);

    const std::vector<float> kept = steady(Shift(input, rate, semitones, 0.0f));
    EXPECT_NEAR(Fundamental(kept, rate), expectedF0, 0.01 * expectedF0);

    const test::Formants original = MeasureFormants(steady(input), rate, kVoiceF0);
    const test::Formants shifted = MeasureFormants(kept, rate, expectedF0);
    EXPECT_NEAR(shifted.m_first, original.m_first, 0.10 * original.m_first);
    EXPECT_NEAR(shifted.m_second, original.m_second, 0.10 * original.m_second);

    // Formants moved with the pitch land where the same measurement, scaled, finds them:
    // the measurement above can tell moved formants from kept ones.
    if (std::fabs(semitones) >= 7.0f) {
        const double scale = std::exp2(semitones / 12.0);
        const std::vector<float> moved = steady(Shift(input, rate, semitones, semitones));
        EXPECT_NEAR(Fundamental(moved, rate), expectedF0, 0.01 * expectedF0);
        const test::Formants follow = MeasureFormants(moved, rate, expectedF0, scale);
        EXPECT_NEAR(follow.m_first, scale * original.m_first, 0.10 * scale * original.m_first);
        EXPECT_NEAR(follow.m_second, scale * original.m_second, 0.10 * scale * original.m_second);
    }
}

INSTANTIATE_TEST_SUITE_P(Shifts, PitchShiftTest,
                         ::testing::Values(ShiftCase { 12.0f, 44100.0 }, ShiftCase { -12.0f, 44100.0 },
                                           ShiftCase { 7.0f, 44100.0 }, ShiftCase { -5.0f, 44100.0 },
                                           ShiftCase { 12.0f, 48000.0 }, ShiftCase { -12.0f, 48000.0 }),
                         [](const auto& param) {
                             const int semis = static_cast<int>(param.param.m_semitones);
                             return (semis < 0 ? "Down" + std::to_string(-semis) : "Up" + std::to_string(semis)) +
                                    "At" + std::to_string(static_cast<int>(param.param.m_rate));
                         });

TEST(PitchShifterTest, SpeechStartsWithin10Milliseconds)
{
    // Bursts of voice after silence: the shifted voice must start at most 10 ms after the
    // voice itself (grains are read while the input arrives; a pitch lowered a lot waits for
    // its longer output periods, so only shifts that keep or raise the pitch are held to it).
    const double rate = 44100.0;
    for (const double f0 : { 120.0, 160.0 }) {
        const std::vector<float> voice = VoicedSignal(f0, rate, 2.0);
        std::vector<float> input(voice.size(), 0.0f);
        for (size_t n = 0; n < voice.size(); ++n)
            if (static_cast<int>(static_cast<double>(n) / rate / 0.25) % 2 == 1)
                input[n] = voice[n];
        const double threshold = 0.25 * test::Peak(input);
        for (const float semitones : { 0.0f, 5.0f, 12.0f }) {
            const std::vector<float> out = Shift(input, rate, semitones, 0.0f);
            for (const double onset : { 0.25, 0.75, 1.25, 1.75 }) {
                SCOPED_TRACE(testing::Message() << f0 << " Hz, " << semitones << " semitones, onset at " << onset);
                auto firstAbove = [&](const std::vector<float>& s) {
                    auto i = static_cast<size_t>(onset * rate);
                    while (i < s.size() && std::fabs(s[i]) < threshold)
                        ++i;
                    return i;
                };
                const size_t in = firstAbove(input);
                const size_t out0 = firstAbove(out);
                EXPECT_LE(out0, in + static_cast<size_t>(0.010 * rate));
            }
        }
    }
    PitchShifter shifter;
    shifter.Prepare(rate);
    EXPECT_LE(shifter.LatencySamples(), static_cast<int32_t>(0.010 * rate));
}

TEST(PitchShifterTest, FollowsAVoiceThatGlides)
{
    // A voice sliding from 100 to 200 Hz, shifted up a fifth: the output slides with it.
    const double rate = 44100.0;
    const std::vector<float> input = test::GlidingVoice(100.0, 200.0, rate, 3.0);
    const std::vector<float> out = Shift(input, rate, 7.0f, 0.0f);
    for (const double at : { 0.75, 1.5, 2.25 }) {
        const auto from = static_cast<size_t>(at * rate);
        const auto to = from + static_cast<size_t>(0.1 * rate);
        const double inF0 = Fundamental(Slice(input, from, to), rate);
        const double outF0 = Fundamental(Slice(out, from, to), rate);
        EXPECT_NEAR(outF0 / inF0, std::exp2(7.0 / 12.0), 0.03) << "at " << at << " s";
    }
}

} // namespace
} // namespace larimo::fx
