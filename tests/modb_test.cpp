// SPDX-License-Identifier: GPL-3.0-or-later
#include "modb.h"

#include "LibraryTestSupport.h"
#include "WaveTestFiles.h"
#include "error.h"
#include "wave.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <filesystem>
#include <map>

namespace larimo {
namespace {

namespace fs = std::filesystem;

class Library : public test::LibraryTest {
protected:
    // A 22050 Hz stereo 8-bit file outside the library.
    std::string Source(const std::string& name)
    {
        const std::string path = m_sources / name;
        test::WriteWav(path, SF_FORMAT_PCM_U8, 22050, 2, test::Sine(440, 0.5, 22050, 2, 2205));
        return path;
    }
};

TEST_F(Library, InitDerivesTheFoldersFromTheProgramFolder)
{
    LibInit("/opt/larimo");
    EXPECT_EQ(LibProgramFolder(), "/opt/larimo/");
    EXPECT_EQ(LibEffectsFolder(), "/opt/larimo/effects/");
    EXPECT_EQ(LibBackSoundsFolder(), "/opt/larimo/backsounds/");
    EXPECT_EQ(LibFunSoundsFolder(), "/opt/larimo/emoticsounds/");
    LibInit("/opt/larimo/");
    EXPECT_EQ(LibBackSoundsFolder(), "/opt/larimo/backsounds/");
}

TEST_F(Library, ImportedBackgroundSoundIsStoredInTheLibraryFormat)
{
    ASSERT_TRUE(LibImportBackSound(Source("Rain.wav"))) << LibGetLastError();
    const std::string stored = LibBackSoundsFolder() + "Rain.wav";
    ASSERT_TRUE(fs::is_regular_file(stored));
    EXPECT_FALSE(fs::exists(LibProgramFolder() + "tmp.wav"));

    Wave wave;
    ASSERT_EQ(wave.ReadFromFile(stored), kWaveSuccess);
    EXPECT_EQ(wave.Format(), LibraryWaveFormat());
    EXPECT_NEAR(wave.DataSize(), 4410u * 2, 4);

    EXPECT_TRUE(LibBackSoundExists("Rain.wav"));
    EXPECT_TRUE(LibBackSoundExists("rain.WAV"));
    EXPECT_EQ(LibBackSoundPath("RAIN.wav"), stored);
    EXPECT_EQ(LibListBackSounds(), std::vector<std::string>{"Rain.wav"});
}

TEST_F(Library, ExistingNameInAnotherCaseIsRefused)
{
    ASSERT_TRUE(LibImportBackSound(Source("Rain.wav")));
    const auto before = Snapshot();
    EXPECT_FALSE(LibImportBackSound(Source("rain.WAV")));
    EXPECT_EQ(LibGetLastError(), "Background sound \"rain.WAV\" already exists.");
    EXPECT_EQ(Snapshot(), before);

    ASSERT_TRUE(LibImportFunSound(Source("Cat.wav"), "Animals"));
    EXPECT_FALSE(LibImportFunSound(Source("cat.wav"), "animals"));
    EXPECT_EQ(LibGetLastError(), "Fun Sound \"animals\\cat.wav\" already exists");
}

TEST_F(Library, FailedImportsLeaveTheLibraryAsItWas)
{
    ASSERT_TRUE(LibImportBackSound(Source("Rain.wav")));
    const auto before = Snapshot();

    const std::string text = m_sources / "notes.wav";
    test::WriteBytes(text, {'j', 'u', 's', 't', ' ', 't', 'e', 'x', 't'});
    EXPECT_FALSE(LibImportBackSound(text));
    EXPECT_EQ(LibGetLastError(), "WAV file format error. File: \"" + text + "\"");
    EXPECT_EQ(Snapshot(), before);

    EXPECT_FALSE(LibImportBackSound(m_sources / "missing.wav"));
    EXPECT_EQ(LibGetLastError(), "Error opening WAV file. File: \"" + (m_sources / "missing.wav") + "\"");

    // Structurally fine, but a codec nobody decodes.
    const std::string odd = m_sources / "odd.wav";
    test::WriteBytes(odd, test::RiffImage().Chunk("fmt ", test::FormatBytes(0x1234, 1, 8000, 8)).Chunk("data", std::vector<std::uint8_t>(100, 1)).FinishWave());
    EXPECT_FALSE(LibImportFunSound(odd, "Animals"));
    EXPECT_EQ(LibGetLastError(), "Error converting sound\nfrom Undefined format (wFormatTag=4660) 8000 MHz, 1 channel(s), 8 bps\n"
                                 "to PCM 44100 Mhz, 1 channel, 16 bps\nError code: 1");

    EXPECT_EQ(Snapshot(), before);

    // A recording that was stopped abruptly declares more data than the file holds: what is
    // there is imported.
    const std::string cut = m_sources / "cut.wav";
    std::vector<std::uint8_t> samples(8000, 0x80);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = static_cast<std::uint8_t>(128 + 100 * ((i / 20) % 2 == 0 ? 1 : -1));
    test::WriteBytes(cut, test::RiffImage().Chunk("fmt ", test::FormatBytes(1, 1, 8000, 8)).Id("data").U32(50000).Raw(samples).FinishWave());
    ASSERT_TRUE(LibImportBackSound(cut)) << LibGetLastError();
    Wave imported;
    ASSERT_EQ(imported.ReadFromFile(LibBackSoundPath("cut.wav")), kWaveSuccess);
    EXPECT_NEAR(imported.DataSize() / 2.0 / 44100.0, 1.0, 0.01) << "the second that is there";
}

TEST_F(Library, FunSoundsLandInTheirGroupFolder)
{
    ASSERT_TRUE(LibImportFunSound(Source("Cat.wav"), "Animals")) << LibGetLastError();
    EXPECT_TRUE(fs::is_regular_file(LibFunSoundsFolder() + "Animals/Cat.wav"));
    ASSERT_TRUE(LibImportFunSound(Source("Cow.wav"), "Animals\\Farm\\")) << LibGetLastError();
    EXPECT_TRUE(fs::is_regular_file(LibFunSoundsFolder() + "Animals/Farm/Cow.wav"));
    ASSERT_TRUE(LibImportFunSound(Source("Bell.wav"), "")) << LibGetLastError();
    EXPECT_TRUE(fs::is_regular_file(LibFunSoundsFolder() + "Bell.wav"));

    EXPECT_TRUE(LibFunSoundExists("animals\\farm\\COW.wav"));
    EXPECT_EQ(LibFunSoundPath("animals\\cat.wav"), LibFunSoundsFolder() + "Animals/Cat.wav");
    EXPECT_EQ(LibFunSoundPath("Party\\Laugh.wav"), LibFunSoundsFolder() + "Party/Laugh.wav");
    EXPECT_FALSE(LibFunSoundExists("Animals"));

    ASSERT_TRUE(LibDeleteFunSound("ANIMALS\\cat.wav")) << LibGetLastError();
    EXPECT_FALSE(fs::exists(LibFunSoundsFolder() + "Animals/Cat.wav"));
    EXPECT_TRUE(fs::is_directory(LibFunSoundsFolder() + "Animals"));
}

TEST_F(Library, DeletionClearsReadOnlyAndRefusesWhatIsNotASound)
{
    ASSERT_TRUE(LibImportBackSound(Source("Wind.wav")));
    const std::string stored = LibBackSoundsFolder() + "Wind.wav";
    fs::permissions(stored, fs::perms::owner_read | fs::perms::group_read, fs::perm_options::replace);
    EXPECT_TRUE(LibDeleteBackSound("wind.wav")) << LibGetLastError();
    EXPECT_FALSE(fs::exists(stored));

    EXPECT_FALSE(LibDeleteBackSound("Wind.wav"));
    EXPECT_EQ(LibGetLastError().rfind("Error setting file attributes. File: \"", 0), 0u) << LibGetLastError();

    // Names must stay inside their folder, and a group folder is not a sound.
    test::WriteBytes(LibProgramFolder() + "config.ini", {'[', 'x', ']'});
    EXPECT_FALSE(LibDeleteFunSound("..\\config.ini"));
    EXPECT_FALSE(LibDeleteBackSound("../config.ini"));
    EXPECT_TRUE(fs::exists(LibProgramFolder() + "config.ini"));
    fs::create_directories(LibFunSoundsFolder() + "Party");
    EXPECT_FALSE(LibDeleteFunSound("Party"));
    EXPECT_EQ(LibGetLastError().rfind("Error deleting Fun Sound. File: \"", 0), 0u) << LibGetLastError();
    EXPECT_TRUE(fs::is_directory(LibFunSoundsFolder() + "Party"));

    try {
        LibDeleteFile(m_sources / "nothing.wav", "Background sound");
        ADD_FAILURE() << "deleting a missing file succeeded";
    } catch (const MyError& error) {
        EXPECT_NE(error.Text().find("nothing.wav"), std::string::npos) << error.Text();
    }
}

TEST_F(Library, ListingShowsWavFilesOnlySortedWithoutRegardToCase)
{
    for (const char* name : {"b.wav", "A.WAV", "c.Wav", "notes.txt", "wav"})
        test::WriteBytes(LibBackSoundsFolder() + name, {0});
    fs::create_directories(LibBackSoundsFolder() + "folder.wav");
    EXPECT_EQ(LibListBackSounds(), (std::vector<std::string>{"A.WAV", "b.wav", "c.Wav"}));

    LibInit(m_root / "nowhere");
    EXPECT_TRUE(LibListBackSounds().empty());
}

struct BaseNameCase {
    const char* path;
    const char* name;
};

class LibBaseNameTest : public ::testing::TestWithParam<BaseNameCase> {};

TEST_P(LibBaseNameTest, CutsFolderAndExtensionAndCapitalises)
{
    EXPECT_EQ(LibBaseName(GetParam().path), GetParam().name);
}

INSTANTIATE_TEST_SUITE_P(Paths, LibBaseNameTest,
                         ::testing::Values(BaseNameCase{"/usr/lib/vst/reverb.dll", "Reverb"},
                                           BaseNameCase{"C:\\Effects\\echo.so", "Echo"},
                                           BaseNameCase{"a.b.c", "A.b"},
                                           BaseNameCase{".hidden", ".hidden"},
                                           BaseNameCase{"noext", "Noext"},
                                           BaseNameCase{"/effects/über.so", "Über"},
                                           BaseNameCase{"dir.d/", ""},
                                           BaseNameCase{"", ""},
                                           BaseNameCase{"x/9lives.wav", "9lives"}));

} // namespace
} // namespace larimo
