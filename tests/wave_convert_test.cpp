// SPDX-License-Identifier: GPL-3.0-or-later
#include "wave.h"

#include "WaveTestFiles.h"
#include "mlog.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <algorithm>
#include <cmath>
#include <cstring>

namespace larimo {
namespace {

using test::FormatBytes;
using test::RiffImage;

class WaveConversion : public ::testing::Test {
protected:
    void SetUp() override { test::StartEnglishTexts(); }

    // Writes `samples` with libsndfile and reads the file back into a Wave.
    Wave Made(int subtype, int rate, int channels, const std::vector<double>& samples)
    {
        const std::string path = m_folder / "in.wav";
        test::WriteWav(path, subtype, rate, channels, samples);
        Wave wave;
        EXPECT_EQ(wave.ReadFromFile(path), kWaveSuccess);
        return wave;
    }

    test::ScratchFolder m_folder;
};

struct CodecCase {
    const char* name;
    int subtype;
    int rate;
    int channels;
    double maxResidualDb; // what the codec itself allows for a half-scale sine
    bool blocks;          // the codec pads the end to a whole block of samples
};

class CodecConversion : public WaveConversion, public ::testing::WithParamInterface<CodecCase> {};

TEST_P(CodecConversion, DecodesToTheLibraryFormatWithTheSameTone)
{
    const CodecCase& c = GetParam();
    constexpr double kHz = 440;
    constexpr double kAmplitude = 0.5;
    const auto frames = static_cast<std::size_t>(c.rate / 2);
    Wave wave = Made(c.subtype, c.rate, c.channels, test::Sine(kHz, kAmplitude, c.rate, c.channels, frames));
    ASSERT_FALSE(wave.Data().empty());

    ASSERT_EQ(wave.ConvertToOneChanel16Bit(), kConvertSuccess);
    EXPECT_EQ(wave.Format(), LibraryWaveFormat());
    EXPECT_TRUE(wave.ExtraFormatBytes().empty());
    const auto samples = test::Pcm16ToDouble(wave.Data());
    const double expectedCount = static_cast<double>(frames) * 44100 / c.rate;
    EXPECT_GE(static_cast<double>(samples.size()), expectedCount - 2);
    EXPECT_LE(static_cast<double>(samples.size()), expectedCount * (c.blocks ? 1.15 : 1.0) + 2);

    const std::vector<double> tone(samples.begin(),
                                   samples.begin() + std::min(samples.size(), static_cast<std::size_t>(expectedCount)));
    const test::SineFit fit = test::FitSine(tone, 44100, kHz, 2000);
    const bool lossy = c.maxResidualDb > -32;
    EXPECT_NEAR(fit.frequency, kHz, 0.05);
    EXPECT_NEAR(fit.amplitude, kAmplitude, (lossy ? 0.05 : 0.01) * kAmplitude);
    EXPECT_LT(fit.residualDb, c.maxResidualDb);
}

INSTANTIATE_TEST_SUITE_P(Codecs, CodecConversion,
                         ::testing::Values(CodecCase{"Pcm8", SF_FORMAT_PCM_U8, 22050, 2, -40, false},
                                           CodecCase{"Pcm16", SF_FORMAT_PCM_16, 22050, 2, -87, false},
                                           CodecCase{"Pcm24", SF_FORMAT_PCM_24, 48000, 2, -90, false},
                                           CodecCase{"Pcm32", SF_FORMAT_PCM_32, 32000, 3, -90, false},
                                           CodecCase{"Float", SF_FORMAT_FLOAT, 96000, 2, -90, false},
                                           CodecCase{"Double", SF_FORMAT_DOUBLE, 44100, 2, -90, false},
                                           CodecCase{"ALaw", SF_FORMAT_ALAW, 8000, 1, -34, false},
                                           CodecCase{"MuLaw", SF_FORMAT_ULAW, 8000, 1, -34, false},
                                           CodecCase{"ImaAdpcm", SF_FORMAT_IMA_ADPCM, 22050, 2, -36, true},
                                           CodecCase{"MsAdpcm", SF_FORMAT_MS_ADPCM, 11025, 2, -37, true},
                                           CodecCase{"Gsm610", SF_FORMAT_GSM610, 8000, 1, -30, true}),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_F(WaveConversion, ResamplingKeepsFrequencyAndAddsNoAudibleDistortion)
{
    // 1 kHz at -1 dBFS, 48 kHz stereo 24 bit, two seconds.
    constexpr double kAmplitude = 0.891;
    Wave wave = Made(SF_FORMAT_PCM_24, 48000, 2, test::Sine(1000, kAmplitude, 48000, 2, 96000));
    ASSERT_EQ(wave.ConvertToOneChanel16Bit(), kConvertSuccess);
    const auto samples = test::Pcm16ToDouble(wave.Data());
    EXPECT_NEAR(static_cast<double>(samples.size()), 88200, 2);

    const test::SineFit fit = test::FitSine(samples, 44100, 1000, 4410);
    EXPECT_NEAR(fit.frequency, 1000, 0.1);
    EXPECT_NEAR(fit.amplitude, kAmplitude, 0.001);
    EXPECT_LT(fit.residualDb, -90) << "THD+N";
}

TEST_F(WaveConversion, ChannelsThatCancelGiveSilence)
{
    for (const int rate : {44100, 48000}) {
        Wave wave = Made(SF_FORMAT_PCM_24, rate, 2, test::Sine(700, 0.8, rate, 2, 20000, {1.0, -1.0}));
        ASSERT_EQ(wave.ConvertToOneChanel16Bit(), kConvertSuccess) << rate;
        ASSERT_FALSE(wave.Data().empty());
        EXPECT_TRUE(std::all_of(wave.Data().begin(), wave.Data().end(), [](std::uint8_t b) { return b == 0; }))
            << rate;
    }
}

TEST_F(WaveConversion, RoundsAndClipsToSixteenBitsAndSilencesBadFloats)
{
    // 44100 Hz mono float: nothing but the final quantisation happens.
    const double step = 1.0 / 32768;
    const std::vector<double> in = {1.5, -1.5, 1.6 * step, -1.6 * step, 0.4 * step, NAN, INFINITY, 0.25};
    Wave wave = Made(SF_FORMAT_FLOAT, 44100, 1, in);
    ASSERT_EQ(wave.ConvertToOneChanel16Bit(), kConvertSuccess);
    const auto out = test::Pcm16ToDouble(wave.Data());
    const std::vector<double> expected = {32767 * step, -1.0, 2 * step, -2 * step, 0, 0, 0, 0.25};
    EXPECT_EQ(out, expected);
}

TEST_F(WaveConversion, OddLengthsConvertCompletely)
{
    // 44100 Hz stereo 16 bit: the output has exactly one sample per input frame.
    for (const std::size_t frames : {std::size_t{0}, std::size_t{1}, std::size_t{6145}, std::size_t{16385}}) {
        auto samples = test::Sine(300, 0.3, 44100, 2, frames);
        Wave wave = Made(SF_FORMAT_PCM_16, 44100, 2, samples);
        ASSERT_EQ(wave.ConvertToOneChanel16Bit(), kConvertSuccess) << frames;
        EXPECT_EQ(wave.DataSize(), frames * 2) << frames;
        if (frames > 0) {
            const auto out = test::Pcm16ToDouble(wave.Data());
            EXPECT_NEAR(out.back(), samples.back(), 1.5 / 32768) << frames;
        }
    }
}

TEST_F(WaveConversion, LibraryFormatIsLeftAloneAndNotLogged)
{
    const std::string logPath = m_folder / "convert.log";
    LogOpen(logPath, false, false, false, false, false);

    Wave wave;
    wave.Assign(LibraryWaveFormat(), {}, {1, 2, 3, 4, 5});
    ASSERT_EQ(wave.ConvertToOneChanel16Bit(), kConvertSuccess);
    EXPECT_EQ(test::Bytes(wave.Data()), (std::vector<std::uint8_t>{1, 2, 3, 4, 5}));
    const auto logAfterIdentity = test::ReadBytes(logPath);
    EXPECT_EQ(std::string(logAfterIdentity.begin(), logAfterIdentity.end()).find("Convert params"), std::string::npos);

    Wave stereo = Made(SF_FORMAT_PCM_16, 44100, 2, test::Sine(300, 0.3, 44100, 2, 100));
    ASSERT_EQ(stereo.ConvertToOneChanel16Bit(), kConvertSuccess);
    const auto logAfterConversion = test::ReadBytes(logPath);
    const std::string text(logAfterConversion.begin(), logAfterConversion.end());
    EXPECT_NE(text.find("Convert params.From: wFormatTag=1, nChannels=2, wBitsPerSample=16, nSamplesPerSec=44100, "
                        "nBlockAlign=4, nAvgBytesPerSec=176400, cbSize=0 To: wFormatTag=1, nChannels=1, "
                        "wBitsPerSample=16, nSamplesPerSec=44100, nBlockAlign=2, nAvgBytesPerSec=88200, cbSize=0"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("End convert. Copy data..."), std::string::npos);
    LogOpen("", false, false, false, false, false);
}

TEST_F(WaveConversion, FormatsTheDecoderRefusesLeaveTheSoundUntouched)
{
    struct Refused {
        const char* name;
        WaveFormat format;
        std::vector<std::uint8_t> extra;
    };
    WaveFormat unknown{0x1234, 2, 22050, 88200, 4, 16, 0};
    WaveFormat noChannels{1, 0, 22050, 0, 0, 16, 0};
    WaveFormat noRate{1, 1, 0, 0, 2, 16, 0};
    WaveFormat imaWithoutBlock{0x11, 1, 22050, 0, 0, 4, 0};
    const Refused cases[] = {
        {"unknown tag", unknown, {}},
        {"no channels", noChannels, {}},
        {"no rate", noRate, {}},
        {"IMA without block size", imaWithoutBlock, {}},
    };
    const std::vector<std::uint8_t> data(4096, 0x55);
    for (const Refused& c : cases) {
        Wave wave;
        wave.Assign(c.format, c.extra, data);
        const unsigned result = wave.ConvertToOneChanel16Bit();
        EXPECT_NE(result, kConvertSuccess) << c.name;
        EXPECT_EQ(wave.Format(), c.format) << c.name;
        EXPECT_EQ(test::Bytes(wave.Data()), data) << c.name;
    }
}

TEST_F(WaveConversion, CompressedFormatsNeedTheirExtraFormatBytes)
{
    // An IMA ADPCM file read back keeps its samples-per-block word behind cbSize; the decoder
    // gets it, and without it refuses rather than guessing.
    Wave wave = Made(SF_FORMAT_IMA_ADPCM, 22050, 1, test::Sine(440, 0.5, 22050, 1, 5000));
    ASSERT_EQ(wave.Format().wFormatTag, 0x11);
    ASSERT_EQ(wave.Format().cbSize, 2);
    ASSERT_EQ(wave.ExtraFormatBytes().size(), 2u);

    Wave stripped;
    stripped.Assign(wave.Format(), {}, test::Bytes(wave.Data()));
    EXPECT_EQ(stripped.ConvertToOneChanel16Bit(), kConvertUnsupported);
    EXPECT_EQ(test::Bytes(stripped.Data()), test::Bytes(wave.Data()));
    Wave kept = wave;
    EXPECT_EQ(kept.ConvertToOneChanel16Bit(), kConvertSuccess);
    EXPECT_GT(kept.DataSize(), 9000u);
}

} // namespace
} // namespace larimo
