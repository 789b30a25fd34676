// SPDX-License-Identifier: GPL-3.0-or-later
#include "mix.h"

#include "WaveTestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <vector>

namespace larimo {
namespace {

class MixSoundTest : public ::testing::Test {
protected:
    void SetUp() override { test::StartEnglishTexts(); }

    // A library-format file of `count` samples 1, 2, 3, ... and an optional odd last byte.
    std::string Ramp(std::size_t count, bool oddByte = false)
    {
        std::vector<std::uint8_t> data;
        for (std::size_t i = 1; i <= count; ++i) {
            data.push_back(static_cast<std::uint8_t>(i));
            data.push_back(static_cast<std::uint8_t>(i >> 8));
        }
        if (oddByte)
            data.push_back(0x7f);
        const std::string path = m_folder / "ramp.wav";
        test::WriteBytes(path, test::RiffImage().Chunk("fmt ", test::FormatBytes(1, 1, 44100, 16)).Chunk("data", data).FinishWave());
        return path;
    }

    test::ScratchFolder m_folder;
};

TEST_F(MixSoundTest, OneShotPlaysEverySampleOnceThenLeavesTheBufferAlone)
{
    MixSound sound;
    ASSERT_EQ(sound.Load(Ramp(1000)), kWaveSuccess);
    EXPECT_EQ(sound.SampleCount(), 1000u);
    EXPECT_EQ(sound.BytesPerSample(), 2u);
    EXPECT_EQ(sound.DisplayName(), "ramp.wav");

    std::vector<std::int16_t> first(512, 0);
    std::vector<std::int16_t> second(512, 7);
    sound.MixInto(first.data(), first.size());
    EXPECT_TRUE(sound.Active());
    sound.MixInto(second.data(), second.size());
    for (std::size_t i = 0; i < 512; ++i)
        ASSERT_EQ(first[i], static_cast<std::int16_t>(i + 1)) << i;
    for (std::size_t i = 0; i < 488; ++i)
        ASSERT_EQ(second[i], static_cast<std::int16_t>(7 + 513 + i)) << i;
    for (std::size_t i = 488; i < 512; ++i)
        ASSERT_EQ(second[i], 7) << i;
    EXPECT_FALSE(sound.Active());
    EXPECT_FALSE(sound.Playing());

    std::vector<std::int16_t> third(16, 3);
    sound.MixInto(third.data(), third.size());
    EXPECT_EQ(third, std::vector<std::int16_t>(16, 3));
}

TEST_F(MixSoundTest, LoopingStartsOverAndStaysActive)
{
    MixSound sound;
    ASSERT_EQ(sound.Load(Ramp(1000)), kWaveSuccess);
    sound.SetLoop(true);
    std::vector<std::int16_t> buffer(512);
    sound.MixInto(buffer.data(), buffer.size());
    std::fill(buffer.begin(), buffer.end(), 0);
    sound.MixInto(buffer.data(), buffer.size());
    EXPECT_EQ(buffer[487], 1000);
    EXPECT_EQ(buffer[488], 1);
    EXPECT_EQ(buffer[511], 24);
    EXPECT_TRUE(sound.Active());
}

TEST_F(MixSoundTest, VolumeTruncatesTowardZeroAndTheSumSaturates)
{
    const std::string path = m_folder / "loud.wav";
    const std::vector<std::uint8_t> data = {0xff, 0x7f, 0x00, 0x80, 3, 0, 0xfd, 0xff}; // 32767, -32768, 3, -3
    test::WriteBytes(path, test::RiffImage().Chunk("fmt ", test::FormatBytes(1, 1, 44100, 16)).Chunk("data", data).FinishWave());

    MixSound full;
    ASSERT_EQ(full.Load(path), kWaveSuccess);
    std::vector<std::int16_t> out = {32767, -32768, 0, 0};
    full.MixInto(out.data(), out.size());
    EXPECT_EQ(out, (std::vector<std::int16_t>{32767, -32768, 3, -3}));

    MixSound half;
    ASSERT_EQ(half.Load(path), kWaveSuccess);
    half.SetVolume(0.5f);
    out = {0, 0, 0, 0};
    half.MixInto(out.data(), out.size());
    EXPECT_EQ(out, (std::vector<std::int16_t>{16383, -16384, 1, -1}));

    // Absurd volumes saturate instead of overflowing.
    for (const float volume : {1e30f, -1e30f, std::numeric_limits<float>::quiet_NaN()}) {
        MixSound odd;
        ASSERT_EQ(odd.Load(path), kWaveSuccess);
        odd.SetVolume(volume);
        out = {0, 0, 0, 0};
        odd.MixInto(out.data(), out.size());
        for (const std::int16_t v : out)
            EXPECT_TRUE(v == 0 || v == 32767 || v == -32768) << volume << " gave " << v;
    }
}

TEST_F(MixSoundTest, SoundsWithoutSamplesBecomeInactive)
{
    std::vector<std::int16_t> out(8, 5);
    MixSound never;
    never.MixInto(out.data(), out.size());
    EXPECT_FALSE(never.Active());

    MixSound missing;
    EXPECT_EQ(missing.Load(m_folder / "missing.wav"), kWaveOpenError);
    EXPECT_FALSE(missing.Loaded());
    EXPECT_EQ(missing.DisplayName(), "missing.wav");
    missing.MixInto(out.data(), out.size());
    EXPECT_FALSE(missing.Active());

    MixSound oneByte;
    ASSERT_EQ(oneByte.Load(Ramp(0, true)), kWaveSuccess);
    EXPECT_EQ(oneByte.SampleCount(), 0u);
    oneByte.MixInto(out.data(), out.size());
    EXPECT_FALSE(oneByte.Active());
    EXPECT_EQ(out, std::vector<std::int16_t>(8, 5));

    MixSound odd;
    ASSERT_EQ(odd.Load(Ramp(3, true)), kWaveSuccess);
    EXPECT_EQ(odd.SampleCount(), 3u);
    odd.MixInto(out.data(), out.size());
    EXPECT_EQ(out, (std::vector<std::int16_t>{6, 7, 8, 5, 5, 5, 5, 5}));
}

TEST(ScaleVolume, MultipliesByPercentTruncatingAndWrapping)
{
    std::vector<std::int16_t> samples = {3, -3, 32767, -32768, 20000};
    ScaleVolume(samples.data(), samples.size(), 100);
    EXPECT_EQ(samples, (std::vector<std::int16_t>{3, -3, 32767, -32768, 20000}));

    ScaleVolume(samples.data(), samples.size(), 50);
    EXPECT_EQ(samples, (std::vector<std::int16_t>{1, -1, 16383, -16384, 10000}));

    std::vector<std::int16_t> loud = {20000, -20000, 100};
    ScaleVolume(loud.data(), loud.size(), 200);
    EXPECT_EQ(loud, (std::vector<std::int16_t>{-25536, 25536, 200}));

    ScaleVolume(loud.data(), loud.size(), 0);
    EXPECT_EQ(loud, (std::vector<std::int16_t>{0, 0, 0}));
}

TEST(StretchSamples, ABlockOneSampleLongerOrShorterKeepsItsEndsAndItsShape)
{
    // A 1 kHz tone of 220 samples, the block the voice service writes at 5 ms.
    std::vector<int16_t> tone(220);
    for (std::size_t i = 0; i < tone.size(); ++i)
        tone[i] = static_cast<int16_t>(std::lround(20000 * std::sin(2 * M_PI * 1000.0 * i / 44100.0)));
    int largestStep = 0;
    for (std::size_t i = 1; i < tone.size(); ++i)
        largestStep = std::max(largestStep, std::abs(tone[i] - tone[i - 1]));

    for (const std::size_t length : {219u, 221u, 222u}) {
        SCOPED_TRACE(length);
        std::vector<int16_t> out(length + 1, 12345);
        StretchSamples(tone.data(), tone.size(), out.data(), length);
        EXPECT_EQ(out.front(), tone.front());
        EXPECT_EQ(out[length - 1], tone.back()) << "the next block must join the last sample";
        EXPECT_EQ(out[length], 12345) << "written past the end";
        // No step larger than the tone's own, give or take the change of pitch: a repeated
        // or dropped sample would leave a step of up to twice that, or a flat spot.
        int step = 0;
        for (std::size_t i = 1; i < length; ++i)
            step = std::max(step, std::abs(out[i] - out[i - 1]));
        EXPECT_LE(step, largestStep * 102 / 100);
        EXPECT_GE(step, largestStep * 98 / 100);
        // Every output sample lies on the straight line between its two input neighbours.
        for (std::size_t i = 0; i < length; ++i) {
            const double at = static_cast<double>(i) * 219.0 / static_cast<double>(length - 1);
            const auto below = static_cast<std::size_t>(at);
            const std::size_t above = std::min<std::size_t>(below + 1, 219);
            EXPECT_GE(out[i], std::min(tone[below], tone[above]) - 1);
            EXPECT_LE(out[i], std::max(tone[below], tone[above]) + 1);
        }
    }

    // Degenerate lengths: a single sample spreads, a block shrinks to its first sample.
    const int16_t one = 777;
    int16_t spread[3] = {};
    StretchSamples(&one, 1, spread, 3);
    EXPECT_EQ(spread[0], 777);
    EXPECT_EQ(spread[2], 777);
    int16_t first = 0;
    StretchSamples(tone.data(), tone.size(), &first, 1);
    EXPECT_EQ(first, tone[0]);
}

} // namespace
} // namespace larimo
