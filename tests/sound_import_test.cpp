// SPDX-License-Identifier: GPL-3.0-or-later
// Sounds of every common kind imported into the library: each becomes a WAV file of the
// library format that keeps the length and pitch of what it holds; what cannot be used is
// refused with its reason and leaves the library as it was.
#include "modb.h"

#include "LibraryTestSupport.h"
#include "WaveTestFiles.h"
#include "wave.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <sys/resource.h>

#include <cmath>
#include <csignal>
#include <filesystem>
#include <map>

namespace larimo {
namespace {

namespace fs = std::filesystem;

struct SoundKind {
    const char* name;
    const char* extension;
    int format;
    int rate;
    int channels;
};

class SoundImport : public test::LibraryTest {
protected:
    // Writes `seconds` of a 440 Hz tone in the given kind outside the library.
    std::string Write(const SoundKind& kind, const std::string& stem, double seconds = 1.5)
    {
        const std::string path = m_sources / (stem + kind.extension);
        SF_INFO info{};
        info.samplerate = kind.rate;
        info.channels = kind.channels;
        info.format = kind.format;
        SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
        EXPECT_NE(file, nullptr) << kind.name << ": " << sf_strerror(nullptr);
        if (file == nullptr)
            return path;
        const auto frames = static_cast<size_t>(seconds * kind.rate);
        const std::vector<double> tone = test::Sine(440, 0.5, kind.rate, kind.channels, frames);
        sf_write_double(file, tone.data(), static_cast<sf_count_t>(tone.size()));
        sf_close(file);
        return path;
    }
};

class EveryKind : public SoundImport, public ::testing::WithParamInterface<SoundKind> {};

TEST_P(EveryKind, BecomesALibraryWavOfTheSameLengthAndPitch)
{
    const SoundKind& kind = GetParam();
    const std::string source = Write(kind, "Tone");
    EXPECT_EQ(LibSoundFileName(source), "Tone.wav");
    ASSERT_TRUE(LibImportFunSound(source, "Tests")) << LibGetLastError();
    const std::string stored = LibFunSoundsFolder() + "Tests/Tone.wav";
    ASSERT_TRUE(LibFunSoundExists("Tests\\Tone.wav"));

    Wave wave;
    ASSERT_EQ(wave.ReadFromFile(stored), kWaveSuccess);
    EXPECT_EQ(wave.Format(), LibraryWaveFormat());
    const double seconds = wave.DataSize() / 2.0 / 44100.0;
    // Lossy coders pad a little at either end.
    EXPECT_NEAR(seconds, 1.5, 0.06) << kind.name;
    const std::vector<double> samples = test::Pcm16ToDouble(wave.Data());
    const test::SineFit fit = test::FitSine(samples, 44100, 440, samples.size() / 4);
    EXPECT_NEAR(fit.frequency, 440, 1.0) << kind.name;
    EXPECT_NEAR(fit.amplitude, 0.5, 0.05) << kind.name;
    EXPECT_FALSE(fs::exists(LibProgramFolder() + "tmp.wav"));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, EveryKind,
    ::testing::Values(SoundKind{"Mp3", ".mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 44100, 2},
                      SoundKind{"Mp3Low", ".mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 22050, 1},
                      SoundKind{"Vorbis", ".ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, 44100, 2},
                      SoundKind{"Opus", ".opus", SF_FORMAT_OGG | SF_FORMAT_OPUS, 48000, 1},
                      SoundKind{"Flac", ".flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_24, 96000, 2},
                      SoundKind{"Aiff", ".aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 32000, 1},
                      SoundKind{"WavFloat", ".wav", SF_FORMAT_WAV | SF_FORMAT_FLOAT, 48000, 2},
                      SoundKind{"WavAdpcm", ".wav", SF_FORMAT_WAV | SF_FORMAT_IMA_ADPCM, 22050, 1},
                      SoundKind{"WavMulaw", ".wav", SF_FORMAT_WAV | SF_FORMAT_ULAW, 8000, 1}),
    [](const auto& testCase) { return std::string(testCase.param.name); });

TEST_F(SoundImport, AnMp3KeepsItsNameWithWavAndTheBackgroundListShowsIt)
{
    const SoundKind mp3{"Mp3", ".mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III, 44100, 2};
    ASSERT_TRUE(LibImportBackSound(Write(mp3, "Rain"))) << LibGetLastError();
    EXPECT_EQ(LibListBackSounds(), std::vector<std::string>{"Rain.wav"});
    EXPECT_FALSE(LibImportBackSound(Write(mp3, "rain")));
    EXPECT_EQ(LibGetLastError(), "Background sound \"rain.wav\" already exists.");
}

TEST_F(SoundImport, FilesThatAreNoUsableSoundAreRefusedByNameAndReason)
{
    const SoundKind flac{"Flac", ".flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16, 44100, 1};
    ASSERT_TRUE(LibImportBackSound(Write(flac, "Kept")));
    const auto before = Snapshot();

    const std::string text = m_sources / "notes.mp3";
    test::WriteBytes(text, {'j', 'u', 's', 't', ' ', 't', 'e', 'x', 't', '\n'});
    EXPECT_FALSE(LibImportBackSound(text));
    EXPECT_EQ(LibGetLastError(),
              "\"notes.mp3\" is not a sound file Larimo can read. Larimo reads WAV, MP3, Ogg Vorbis, Opus, FLAC and "
              "AIFF files.");

    const std::string empty = m_sources / "empty.ogg";
    test::WriteBytes(empty, {});
    EXPECT_FALSE(LibImportFunSound(empty, "Group"));
    EXPECT_EQ(LibGetLastError(), "\"empty.ogg\" is empty.");

    const SoundKind aiff{"Aiff", ".aiff", SF_FORMAT_AIFF | SF_FORMAT_PCM_16, 44100, 1};
    EXPECT_FALSE(LibImportBackSound(Write(aiff, "Silence", 0.0)));
    EXPECT_EQ(LibGetLastError(), "\"Silence.aiff\" holds no sound: it is zero seconds long.");

    // A FLAC file cut in the middle of its frames.
    const std::string whole = Write(flac, "Whole", 2.0);
    std::vector<std::uint8_t> bytes = test::ReadBytes(whole);
    bytes.resize(bytes.size() / 2);
    for (size_t i = bytes.size() / 2; i < bytes.size(); ++i)
        bytes[i] = static_cast<std::uint8_t>(i * 37);
    const std::string damaged = m_sources / "Damaged.flac";
    test::WriteBytes(damaged, bytes);
    if (!LibImportBackSound(damaged))
        EXPECT_EQ(LibGetLastError(), "\"Damaged.flac\" is damaged: it could not be read to its end.");
    else
        fs::remove(LibBackSoundsFolder() + "Damaged.wav");

    EXPECT_EQ(Snapshot(), before);
}

TEST_F(SoundImport, AWriteThatFailsLeavesNoHalfFile)
{
    const SoundKind vorbis{"Vorbis", ".ogg", SF_FORMAT_OGG | SF_FORMAT_VORBIS, 44100, 1};
    const std::string source = Write(vorbis, "Long", 3.0);
    const auto before = Snapshot();
    // The writer may produce only a few bytes: as a full disk would let it.
    struct rlimit old {};
    ::getrlimit(RLIMIT_FSIZE, &old);
    struct rlimit small = old;
    small.rlim_cur = 4096;
    std::signal(SIGXFSZ, SIG_IGN);
    ::setrlimit(RLIMIT_FSIZE, &small);
    const bool imported = LibImportBackSound(source);
    ::setrlimit(RLIMIT_FSIZE, &old);
    std::signal(SIGXFSZ, SIG_DFL);
    EXPECT_FALSE(imported);
    EXPECT_EQ(LibGetLastError(), "Error writing to file.");
    EXPECT_EQ(Snapshot(), before);
}

} // namespace
} // namespace larimo
