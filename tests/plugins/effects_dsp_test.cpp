// SPDX-License-Identifier: GPL-3.0-or-later
// What each effect is for, measured on its DSP class: the echo repeats where and how loud it
// should, the reverb decays in the time it shows, the radio band stops where it says, the
// alien shift goes the right way and the robot holds its note.
#include "AlienVoice.h"
#include "EchoEffect.h"
#include "PitchShifter.h"
#include "RadioVoice.h"
#include "ReverbEffect.h"
#include "RobotVoice.h"
#include "TestSignals.h"

#include <gtest/gtest.h>

#include <cmath>

namespace larimo::fx {
namespace {

std::vector<float> RunEffect(EffectDsp& dsp, const std::vector<float>& input)
{
    std::vector<float> out(input.size());
    dsp.ProcessRT(input.data(), out.data(), static_cast<int32_t>(input.size()));
    return out;
}

std::vector<float> Impulse(size_t frames)
{
    std::vector<float> x(frames, 0.0f);
    x[0] = 1.0f;
    return x;
}

TEST(ParamInfoTest, EveryTableMapsBothWaysAndShowsItsValues)
{
    const std::vector<std::span<const ParamInfo>> tables { EchoEffect::kParams, PitchShifter::kParams,
                                                           RobotVoice::kParams, RadioVoice::kParams,
                                                           ReverbEffect::kParams, AlienVoice::kParams };
    for (const auto& table : tables) {
        for (const ParamInfo& info : table) {
            SCOPED_TRACE(info.m_name);
            EXPECT_GE(info.m_default, info.m_minimum);
            EXPECT_LE(info.m_default, info.m_maximum);
            EXPECT_FLOAT_EQ(info.ToPlain(0.0f), info.m_minimum);
            EXPECT_NEAR(info.ToPlain(1.0f), info.m_maximum, 1e-4f * std::fabs(info.m_maximum));
            for (const float t : { 0.1f, 0.5f, 0.9f })
                EXPECT_NEAR(info.ToNormalized(info.ToPlain(t)), t, 1e-4f);
            EXPECT_FLOAT_EQ(info.ToPlain(-3.0f), info.m_minimum);
            EXPECT_FLOAT_EQ(info.ToPlain(std::nanf("")), info.m_minimum);
        }
    }
    // A slider resting at the middle of a symmetric range reads 0, not "-0.0".
    const ParamInfo& pitch = PitchShifter::kParams[PitchShifter::kPitch];
    char text[32];
    pitch.Display(pitch.ToNormalized(0.0f) - 1e-7f, text, sizeof text);
    EXPECT_STREQ(text, "0.0");
    pitch.Display(1.0f, text, sizeof text);
    EXPECT_STREQ(text, "12.0");
    // Logarithmic scales put the geometric middle at the middle.
    const ParamInfo& delay = EchoEffect::kParams[EchoEffect::kDelay];
    EXPECT_NEAR(delay.ToPlain(0.5f), std::sqrt(delay.m_minimum * delay.m_maximum), 0.01f);
}

class EchoRateTest : public ::testing::TestWithParam<double> {};

TEST_P(EchoRateTest, RepeatsAfterTheDelayAtAnyRate)
{
    const double rate = GetParam();
    EchoEffect echo;
    echo.Prepare(rate);
    echo.SetParameterRT(EchoEffect::kDelay, 250.0f);
    echo.SetParameterRT(EchoEffect::kFeedback, 50.0f);
    echo.SetParameterRT(EchoEffect::kLevel, 80.0f);
    echo.ResetRT();
    const std::vector<float> out = RunEffect(echo, Impulse(static_cast<size_t>(rate)));
    const auto delay = static_cast<size_t>(std::lround(0.25 * rate));
    EXPECT_FLOAT_EQ(out[0], 1.0f);
    EXPECT_EQ(test::Peak(out, 1, delay), 0.0);
    EXPECT_FLOAT_EQ(out[delay], 0.8f);
    // The second repeat went once round the loop: feedback times level, dulled by the tone
    // filter (a lowpass keeps the sum of an impulse, so the sum tells the gain).
    double second = 0.0;
    for (size_t i = 2 * delay; i < 2 * delay + static_cast<size_t>(0.05 * rate); ++i)
        second += out[i];
    EXPECT_NEAR(second, 0.8 * 0.5, 0.01);
    EXPECT_LT(test::Peak(out, 2 * delay, 3 * delay), 0.4);
    EXPECT_EQ(echo.LatencySamples(), 0);
}

INSTANTIATE_TEST_SUITE_P(Rates, EchoRateTest, ::testing::Values(44100.0, 48000.0, 96000.0));

TEST(ReverbEffectTest, DecaysInTheTimeItShows)
{
    const double rate = 44100.0;
    for (const float decay : { 1.0f, 4.0f }) {
        SCOPED_TRACE(decay);
        ReverbEffect reverb;
        reverb.Prepare(rate);
        reverb.SetParameterRT(ReverbEffect::kDecay, decay);
        reverb.SetParameterRT(ReverbEffect::kDamping, 0.0f);
        reverb.SetParameterRT(ReverbEffect::kPredelay, 0.0f);
        reverb.SetParameterRT(ReverbEffect::kMix, 100.0f);
        reverb.ResetRT();
        const std::vector<float> out = RunEffect(reverb, Impulse(static_cast<size_t>((decay + 1.0) * rate)));
        // Backward-integrated energy (Schroeder): the time from -5 dB to -25 dB, times three.
        std::vector<double> remaining(out.size() + 1, 0.0);
        for (size_t i = out.size(); i-- > 0;)
            remaining[i] = remaining[i + 1] + static_cast<double>(out[i]) * out[i];
        auto timeAt = [&](double db) {
            const double level = remaining[0] * std::pow(10.0, db / 10.0);
            size_t i = 0;
            while (i < out.size() && remaining[i] > level)
                ++i;
            return static_cast<double>(i) / rate;
        };
        const double rt60 = 3.0 * (timeAt(-25.0) - timeAt(-5.0));
        EXPECT_NEAR(rt60, decay, 0.2 * decay);
    }
    // Nothing but the dry voice at a mix of 0.
    ReverbEffect dry;
    dry.SetParameterRT(ReverbEffect::kMix, 0.0f);
    dry.ResetRT();
    const std::vector<float> voice = test::VoicedSignal(120.0, rate, 0.3);
    EXPECT_EQ(RunEffect(dry, voice), voice);
}

TEST(RadioVoiceTest, PassesOnlyItsBand)
{
    const double rate = 44100.0;
    auto gainAt = [&](double frequency) {
        RadioVoice radio;
        radio.SetParameterRT(RadioVoice::kDrive, 0.0f);
        radio.SetParameterRT(RadioVoice::kLowCut, 400.0f);
        radio.SetParameterRT(RadioVoice::kHighCut, 3000.0f);
        radio.ResetRT();
        const std::vector<float> out = RunEffect(radio, test::Sine(frequency, 0.5, rate, 0.5));
        return test::Rms(out, out.size() / 2) / (0.5 / std::sqrt(2.0));
    };
    const double pass = gainAt(1000.0);
    EXPECT_GT(pass, 0.7);
    EXPECT_LT(pass, 2.5);
    EXPECT_LT(gainAt(100.0), 0.1 * pass);
    EXPECT_LT(gainAt(9000.0), 0.1 * pass);
}

TEST(RadioVoiceTest, DriveAddsHarmonics)
{
    const double rate = 44100.0;
    auto thirdHarmonic = [&](float drive) {
        RadioVoice radio;
        radio.SetParameterRT(RadioVoice::kDrive, drive);
        radio.ResetRT();
        const std::vector<float> out = RunEffect(radio, test::Sine(600.0, 0.5, rate, 0.6));
        const std::vector<float> steady = test::Slice(out, out.size() / 2, out.size());
        return test::Amplitude(steady, rate, 1800.0) / test::Amplitude(steady, rate, 600.0);
    };
    EXPECT_LT(thirdHarmonic(0.0f), 0.01);
    EXPECT_GT(thirdHarmonic(100.0f), 0.05);
}

TEST(AlienVoiceTest, ShiftsEveryFrequencyByTheSameHertz)
{
    const double rate = 44100.0;
    for (const float shift : { 200.0f, -200.0f }) {
        SCOPED_TRACE(shift);
        AlienVoice alien;
        alien.SetParameterRT(AlienVoice::kShift, shift);
        alien.SetParameterRT(AlienVoice::kDepth, 0.0f);
        alien.ResetRT();
        const std::vector<float> out = RunEffect(alien, test::Sine(1000.0, 0.5, rate, 0.5));
        const std::vector<float> steady = test::Slice(out, out.size() / 4, out.size());
        const double wanted = test::Amplitude(steady, rate, 1000.0 + shift);
        EXPECT_NEAR(wanted, 0.5, 0.05);
        EXPECT_LT(test::Amplitude(steady, rate, 1000.0 - shift), 0.05 * wanted);
        EXPECT_LT(test::Amplitude(steady, rate, 1000.0), 0.05 * wanted);
    }
}

TEST(RobotVoiceTest, HoldsItsNoteWhateverTheVoiceDoes)
{
    const double rate = 44100.0;
    RobotVoice robot;
    robot.SetParameterRT(RobotVoice::kNote, 110.0f);
    robot.SetParameterRT(RobotVoice::kFlatten, 100.0f);
    robot.SetParameterRT(RobotVoice::kMetal, 0.0f);
    robot.ResetRT();
    const std::vector<float> out = RunEffect(robot, test::GlidingVoice(130.0, 200.0, rate, 2.0));
    for (const double at : { 0.5, 1.0, 1.5 }) {
        const auto from = static_cast<size_t>(at * rate);
        const double f0 = test::Fundamental(test::Slice(out, from, from + static_cast<size_t>(0.15 * rate)), rate);
        EXPECT_NEAR(f0, 110.0, 2.0) << "at " << at << " s";
    }
}

} // namespace
} // namespace larimo::fx
