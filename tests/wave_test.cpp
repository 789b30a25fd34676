// SPDX-License-Identifier: GPL-3.0-or-later
#include "wave.h"

#include "WaveTestFiles.h"
#include "mlog.h"
#include "texts.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <filesystem>
#include <set>
#include <string>

namespace larimo {
namespace {

using test::FormatBytes;
using test::RiffImage;

class WaveFiles : public ::testing::Test {
protected:
    void SetUp() override { test::StartEnglishTexts(); }
    test::ScratchFolder m_folder;
};

std::vector<std::uint8_t> Pcm16Format()
{
    return FormatBytes(1, 1, 44100, 16);
}

std::vector<std::uint8_t> SomeSamples()
{
    return {1, 0, 2, 0, 3, 0, 0xff, 0xff};
}

// ---- structure of RIFF/WAVE files, read from memory --------------------------------------

struct StructureCase {
    const char* name;
    std::vector<std::uint8_t> bytes;
    unsigned readResult;
    unsigned canUseResult;
};

std::vector<StructureCase> StructureCases()
{
    const auto fmt = Pcm16Format();
    const auto data = SomeSamples();
    std::vector<std::uint8_t> fmt14(fmt.begin(), fmt.begin() + 14);
    std::vector<std::uint8_t> fmt17 = fmt;
    fmt17.push_back(0);
    const std::vector<std::uint8_t> listContent = {'I', 'N', 'F', 'O', 'I', 'N', 'A', 'M', 3, 0, 0, 0, 'a', 'b', 'c'};

    RiffImage riffTooLong;
    riffTooLong.Id("RIFF").U32(100000).Id("WAVE").Chunk("fmt ", fmt).Chunk("data", data);
    RiffImage otherForm;
    otherForm.Id("RIFF").U32(12).Id("AVI ").Id("junk").U32(0);
    const auto wave = RiffImage().Chunk("fmt ", fmt).Chunk("data", data).FinishWave();
    RiffImage otherFormFirst = otherForm;
    otherFormFirst.Raw(wave);
    RiffImage dataBeyondFile;
    dataBeyondFile.Chunk("fmt ", fmt).Id("data").U32(4000).Raw(data);
    RiffImage fmtCutShort;
    fmtCutShort.Id("RIFF").U32(40).Id("WAVE").Id("fmt ").U32(16).Raw({1, 0, 1, 0});
    RiffImage hugeJunkSize;
    hugeJunkSize.Chunk("fmt ", fmt).Id("junk").U32(0xfffffff0u).Raw(data);

    return {
        {"Empty", {}, kWaveFormatError, kWaveFormatError},
        {"OnlyRiffTag", {'R', 'I', 'F', 'F'}, kWaveFormatError, kWaveFormatError},
        {"NotRiff", {'M', 'T', 'h', 'd', 0, 0, 0, 6, 0, 1, 0, 1, 0, 96}, kWaveFormatError, kWaveFormatError},
        {"OtherFormOnly", otherForm.Bytes(), kWaveFormatError, kWaveFormatError},
        {"WaveAfterOtherForm", otherFormFirst.Bytes(), kWaveSuccess, kWaveSuccess},
        {"Plain", wave, kWaveSuccess, kWaveSuccess},
        {"NoFmt", RiffImage().Chunk("data", data).FinishWave(), kWaveFormatError, kWaveFormatError},
        {"NoData", RiffImage().Chunk("fmt ", fmt).FinishWave(), kWaveFormatError, kWaveFormatError},
        {"Fmt14Bytes", RiffImage().Chunk("fmt ", fmt14).Chunk("data", data).FinishWave(), kWaveFormatError, kWaveFormatError},
        {"Fmt17Bytes", RiffImage().Chunk("fmt ", fmt17).Chunk("data", data).FinishWave(), kWaveFormatError, kWaveFormatError},
        {"FmtCutByEndOfFile", fmtCutShort.Bytes(), kWaveFormatError, kWaveFormatError},
        {"DataBeforeFmt", RiffImage().Chunk("data", data).Chunk("fmt ", fmt).Chunk("junk", {0, 0}).FinishWave(), kWaveSuccess, kWaveSuccess},
        // The check wants all 18 header bytes in the file, even behind a 16-byte chunk.
        {"SixteenByteFmtEndsTheFile", RiffImage().Chunk("data", data).Chunk("fmt ", fmt).FinishWave(), kWaveSuccess, kWaveFormatError},
        {"ListEverywhere", RiffImage().Chunk("LIST", listContent).Chunk("fmt ", fmt).Chunk("LIST", listContent).Chunk("data", data).Chunk("LIST", listContent).FinishWave(), kWaveSuccess, kWaveSuccess},
        {"OddChunkWithoutPad", RiffImage().Chunk("fmt ", fmt).Chunk("LIST", listContent, false).Chunk("data", data).FinishWave(), kWaveSuccess, kWaveSuccess},
        {"RiffSizeBeyondFile", riffTooLong.Bytes(), kWaveSuccess, kWaveSuccess},
        // A recording cut off: the samples that are there are read.
        {"DataSizeBeyondFile", dataBeyondFile.FinishWave(), kWaveSuccess, kWaveSuccess},
        {"ChunkSizeSkipsPastData", hugeJunkSize.FinishWave(), kWaveFormatError, kWaveFormatError},
        {"DataInsideListOnly", RiffImage().Chunk("fmt ", fmt).Chunk("LIST", RiffImage().Id("wavl").Chunk("data", data).Bytes()).FinishWave(), kWaveFormatError, kWaveFormatError},
    };
}

class WaveStructure : public ::testing::TestWithParam<StructureCase> {};

TEST_P(WaveStructure, ReadAndCheckGiveTheExpectedResult)
{
    test::StartEnglishTexts();
    const StructureCase& c = GetParam();
    Wave wave;
    EXPECT_EQ(wave.ReadFromMemory(c.bytes), c.readResult);
    EXPECT_EQ(WaveCanUseMemory(c.bytes), c.canUseResult);
    if (c.readResult == kWaveSuccess) {
        EXPECT_EQ(wave.Format().wFormatTag, 1);
        EXPECT_EQ(wave.Format().nSamplesPerSec, 44100u);
        EXPECT_EQ(test::Bytes(wave.Data()), SomeSamples());
    } else {
        EXPECT_EQ(wave.Format(), WaveFormat{});
        EXPECT_TRUE(wave.Data().empty());
    }
}

INSTANTIATE_TEST_SUITE_P(Files, WaveStructure, ::testing::ValuesIn(StructureCases()),
                         [](const auto& param) { return std::string(param.param.name); });

TEST_F(WaveFiles, FormatHeaderKeepsCbSizeAndExtraBytesOnlyFromLongFormatChunks)
{
    const auto data = SomeSamples();
    auto withCb = [&](std::uint16_t cbSize, const std::vector<std::uint8_t>& extra) {
        RiffImage content;
        content.Raw(FormatBytes(0x11, 1, 8000, 4)).U16(cbSize).Raw(extra);
        return RiffImage().Chunk("fmt ", content.Bytes()).Chunk("data", data).FinishWave();
    };
    Wave wave;
    ASSERT_EQ(wave.ReadFromMemory(RiffImage().Chunk("fmt ", FormatBytes(0x11, 1, 8000, 4)).Chunk("data", data).FinishWave()), kWaveSuccess);
    EXPECT_EQ(wave.Format().cbSize, 0);
    EXPECT_TRUE(wave.ExtraFormatBytes().empty());

    ASSERT_EQ(wave.ReadFromMemory(withCb(2, {0xf9, 0x01})), kWaveSuccess);
    EXPECT_EQ(wave.Format().cbSize, 2);
    EXPECT_EQ(wave.ExtraFormatBytes(), (std::vector<std::uint8_t>{0xf9, 0x01}));
    EXPECT_EQ(wave.Format().wBitsPerSample, 4);

    // A cbSize that claims more than the chunk holds is kept as stored; only the bytes that
    // are there are taken, nothing of the following chunk.
    ASSERT_EQ(wave.ReadFromMemory(withCb(6, {0xf9, 0x01})), kWaveSuccess);
    EXPECT_EQ(wave.Format().cbSize, 6);
    EXPECT_EQ(wave.ExtraFormatBytes(), (std::vector<std::uint8_t>{0xf9, 0x01}));
    EXPECT_EQ(test::Bytes(wave.Data()), data);
}

TEST_F(WaveFiles, FileErrorsLeaveTheObjectEmptyAndCheckAgrees)
{
    const std::string good = m_folder / "good.wav";
    test::WriteBytes(good, RiffImage().Chunk("fmt ", Pcm16Format()).Chunk("data", SomeSamples()).FinishWave());
    const std::string notWave = m_folder / "text.wav";
    test::WriteBytes(notWave, {'h', 'e', 'l', 'l', 'o'});
    const std::string empty = m_folder / "empty.wav";
    test::WriteBytes(empty, {});

    Wave wave;
    ASSERT_EQ(wave.ReadFromFile(good), kWaveSuccess);
    EXPECT_EQ(WaveCanUse(good), kWaveSuccess);

    const struct {
        std::string path;
        unsigned expected;
    } failures[] = {
        {m_folder / "missing.wav", kWaveOpenError},
        {m_folder.Path(), kWaveOpenError},
        {notWave, kWaveFormatError},
        {empty, kWaveFormatError},
    };
    for (const auto& f : failures) {
        ASSERT_EQ(wave.ReadFromFile(good), kWaveSuccess);
        EXPECT_EQ(wave.ReadFromFile(f.path), f.expected) << f.path;
        EXPECT_EQ(WaveCanUse(f.path), f.expected) << f.path;
        EXPECT_TRUE(wave.Data().empty()) << f.path;
        EXPECT_EQ(wave.Format(), WaveFormat{}) << f.path;
    }
}

TEST_F(WaveFiles, WriteProducesTheCanonicalHeaderAndReadsBack)
{
    std::vector<std::uint8_t> data(1001);
    for (std::size_t i = 0; i < data.size(); ++i)
        data[i] = static_cast<std::uint8_t>(i * 7);
    WaveFormat format;
    format.wFormatTag = 6;
    format.nChannels = 2;
    format.nSamplesPerSec = 8000;
    format.nAvgBytesPerSec = 16000;
    format.nBlockAlign = 2;
    format.wBitsPerSample = 8;
    format.cbSize = 2;
    Wave wave;
    wave.Assign(format, {0xaa, 0xbb}, data);
    const std::string path = m_folder / "out.wav";
    ASSERT_EQ(wave.WriteToFile(path), kWaveSuccess);

    const auto bytes = test::ReadBytes(path);
    ASSERT_EQ(bytes.size(), data.size() + 44);
    RiffImage expected;
    expected.Id("RIFF").U32(static_cast<std::uint32_t>(data.size() + 36)).Id("WAVE").Id("fmt ").U32(16)
        .Raw(FormatBytes(6, 2, 8000, 8)).Id("data").U32(static_cast<std::uint32_t>(data.size())).Raw(data);
    EXPECT_EQ(bytes, expected.Bytes());

    Wave back;
    ASSERT_EQ(back.ReadFromFile(path), kWaveSuccess);
    format.cbSize = 0;
    EXPECT_EQ(back.Format(), format);
    EXPECT_TRUE(back.ExtraFormatBytes().empty());
    EXPECT_EQ(test::Bytes(back.Data()), data);

    EXPECT_EQ(wave.WriteToFile(m_folder / "no/such/folder/out.wav"), kWaveWriteError);
    EXPECT_EQ(wave.WriteToFile(m_folder.Path()), kWaveWriteError);
}

TEST_F(WaveFiles, EveryResultNumberHasItsText)
{
    std::set<std::string> texts;
    for (unsigned e = kWaveSuccess; e <= kWaveWriteError; ++e) {
        EXPECT_NE(WaveErrorText(e), kTextNotFound) << e;
        texts.insert(WaveErrorText(e));
    }
    EXPECT_EQ(texts.size(), 5u);
    EXPECT_EQ(WaveErrorText(kWaveFormatError), "WAV file format error");
    EXPECT_EQ(WaveErrorText(5), "Undefined error");
    EXPECT_EQ(WaveErrorText(0xffffffffu), "Undefined error");

    texts.clear();
    for (unsigned e = kConvertSuccess; e <= kConvertTooLarge; ++e) {
        EXPECT_NE(WaveConvertErrorText(e), kTextNotFound) << e;
        texts.insert(WaveConvertErrorText(e));
    }
    EXPECT_EQ(texts.size(), 5u);
    EXPECT_EQ(WaveConvertErrorText(kConvertTooLarge + 1), "Undefined error");
}

TEST_F(WaveFiles, ConversionFailureTextNamesTheFormat)
{
    WaveFormat pcm;
    pcm.wFormatTag = 1;
    pcm.nChannels = 2;
    pcm.nSamplesPerSec = 22050;
    pcm.wBitsPerSample = 8;
    EXPECT_EQ(WaveConvertFailureText(pcm, 2),
              "Error converting sound\nfrom PCM 22050 MHz, 2 channel(s), 8 bps\nto PCM 44100 Mhz, 1 channel, 16 bps\nError code: 2");
    WaveFormat mp3 = pcm;
    mp3.wFormatTag = 0x55;
    EXPECT_EQ(WaveConvertFailureText(mp3, 1),
              "Error converting sound\nfrom Undefined format (wFormatTag=85) 22050 MHz, 2 channel(s), 8 bps\nto PCM 44100 Mhz, 1 channel, 16 bps\nError code: 1");
}

} // namespace
} // namespace larimo
