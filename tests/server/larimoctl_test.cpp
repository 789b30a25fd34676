// SPDX-License-Identifier: GPL-3.0-or-later
// larimoctl as a script uses it: exit codes, output, and the settings it leaves behind.
#include "ServiceProcess.h"

#include "config.h"

#include <gtest/gtest.h>
#include <sndfile.h>
#include <sys/wait.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <vector>

namespace larimo {
namespace {

namespace fs = std::filesystem;

const char* const kConfig = "[emotics]\nnum=2\nname_0=Laugh\nfile_0=Voices\\Laugh.wav\n"
                            "name_1=Boing\nfile_1=Effects\\Boing.wav\n"
                            "[effects]\neff_0=Robot\neff_1=Deep\n";

struct Outcome {
    int status = -1;
    std::string output;
};

class LarimoctlTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { test::UsePrivateObjectNamespace(); }
    static void TearDownTestSuite() { test::RemovePrivateObjectNamespace(); }

    void SetUp() override
    {
        fs::copy_file(fs::path(LARIMO_APP_DIR) / "larimoctl", m_service.Folder() / "larimoctl");
        m_service.AddSound("emoticsounds/Voices/Laugh.wav", 20);
        m_service.AddSound("emoticsounds/Effects/Boing.wav", 20);
    }

    Outcome Run(const std::string& arguments)
    {
        const std::string command = (m_service.Folder() / "larimoctl").string() + " " + arguments + " 2>&1";
        Outcome outcome;
        FILE* pipe = popen(command.c_str(), "r");
        std::array<char, 512> buffer{};
        while (fgets(buffer.data(), buffer.size(), pipe) != nullptr)
            outcome.output += buffer.data();
        const int status = pclose(pipe);
        outcome.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return outcome;
    }

    Config Settings()
    {
        Config settings(m_service.Folder().string());
        settings.LoadAll();
        return settings;
    }

    test::ServiceProcess m_service{kConfig};
};

TEST_F(LarimoctlTest, WithoutTheServiceSettingsChangeAndTheExitSaysSo)
{
    EXPECT_EQ(Run("effect 2").status, 1);
    EXPECT_EQ(Settings().m_activeEffect, 1);
    EXPECT_EQ(Run("background toggle 3").status, 1);
    EXPECT_EQ(Settings().m_activeBackSound, 2);
    EXPECT_EQ(Run("background-volume 3 35").status, 1);
    EXPECT_EQ(Settings().m_backSounds[2].m_volume, 35);
    EXPECT_EQ(Run("listen toggle").status, 1);
    EXPECT_TRUE(Settings().m_monitorOn);
    EXPECT_EQ(Run("listen-volume 60").status, 1);
    EXPECT_EQ(Settings().m_monitorVol, 60);
    EXPECT_EQ(Run("stop-all").status, 1);
    EXPECT_EQ(Settings().m_activeEffect, -1);
    EXPECT_EQ(Settings().m_activeBackSound, -1);

    const Outcome status = Run("status");
    EXPECT_EQ(status.status, 1);
    EXPECT_NE(status.output.find("Voice service: not running"), std::string::npos) << status.output;
    EXPECT_EQ(Run("fun 1 play").status, 1);
}

TEST_F(LarimoctlTest, UsageErrorsChangeNothing)
{
    for (const char* bad : {"", "effect", "effect 4", "effect 0", "effect toggle", "background-volume 1 101",
                            "listen maybe", "fun 3 play", "fun 1 pause", "listen-volume -1", "frobnicate"}) {
        EXPECT_EQ(Run(bad).status, 2) << bad;
    }
    EXPECT_FALSE(fs::exists(m_service.Folder() / "config.ini.tmp"));
    EXPECT_EQ(Settings().m_activeEffect, -1);
    const Outcome help = Run("--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_NE(help.output.find("background-volume N V"), std::string::npos);
}

// A sound of another kind than WAV, made with the library the import reads it with.
void WriteTone(const fs::path& path, int format)
{
    SF_INFO info{};
    info.samplerate = 44100;
    info.channels = 1;
    info.format = format;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    ASSERT_NE(file, nullptr) << sf_strerror(nullptr);
    std::vector<short> tone(22050);
    for (size_t i = 0; i < tone.size(); ++i)
        tone[i] = static_cast<short>(6000 * std::sin(2 * 3.14159265 * 440 * static_cast<double>(i) / 44100));
    sf_write_short(file, tone.data(), static_cast<sf_count_t>(tone.size()));
    sf_close(file);
}

TEST_F(LarimoctlTest, ImportTakesEveryKindOfSoundAndSaysWhichFilesItRefusedAndWhy)
{
    fs::copy(fs::path(LARIMO_SOURCE_DIR) / "data" / "lang", m_service.Folder() / "lang", fs::copy_options::recursive);
    const fs::path outside = m_service.Folder() / "outside";
    fs::create_directories(outside);
    WriteTone(outside / "Sea.mp3", SF_FORMAT_MPEG | SF_FORMAT_MPEG_LAYER_III);
    WriteTone(outside / "Whistle.flac", SF_FORMAT_FLAC | SF_FORMAT_PCM_16);
    std::ofstream(outside / "notes.ogg") << "no sound in here";

    const Outcome background = Run("import background " + (outside / "Sea.mp3").string() + " " +
                                   (outside / "notes.ogg").string());
    EXPECT_EQ(background.status, 1) << background.output;
    EXPECT_NE(background.output.find("as Sea.wav"), std::string::npos) << background.output;
    EXPECT_NE(background.output.find("notes.ogg: \"notes.ogg\" is not a sound file Larimo can read."),
              std::string::npos)
        << background.output;
    EXPECT_TRUE(fs::is_regular_file(m_service.Folder() / "backsounds" / "Sea.wav"));
    EXPECT_FALSE(fs::exists(m_service.Folder() / "backsounds" / "notes.wav"));

    const Outcome fun = Run("import fun Birds " + (outside / "Whistle.flac").string());
    EXPECT_EQ(fun.status, 0) << fun.output;
    EXPECT_TRUE(fs::is_regular_file(m_service.Folder() / "emoticsounds" / "Birds" / "Whistle.wav"));
    EXPECT_EQ(Run("import fun Birds " + (outside / "Whistle.flac").string()).status, 1) << "the name is taken";

    const Outcome sounds = Run("sounds");
    EXPECT_EQ(sounds.status, 0) << sounds.output;
    for (const char* line : {"Background sounds:\n  Sea.wav\n", "  Birds\\Whistle.wav\n", "  Voices\\Laugh.wav\n",
                             "Background slots:\n  1: empty\n", "  2: Boing (Effects\\Boing.wav)\n"})
        EXPECT_NE(sounds.output.find(line), std::string::npos) << line << "\n" << sounds.output;
    EXPECT_EQ(Run("import").status, 2);
    EXPECT_EQ(Run("import fun Birds").status, 2);
}

TEST_F(LarimoctlTest, WithTheServiceCommandsReachItAndStatusShowsThem)
{
    ASSERT_TRUE(m_service.Start());
    EXPECT_EQ(Run("effect 1").status, 0);
    EXPECT_EQ(Run("fun 2 play").status, 0);
    Outcome status = Run("status");
    EXPECT_EQ(status.status, 0);
    EXPECT_NE(status.output.find("Voice service: running"), std::string::npos) << status.output;
    EXPECT_NE(status.output.find("Voice effect: 1 (Robot)"), std::string::npos) << status.output;
    EXPECT_NE(status.output.find("Fun sounds playing: 2 (Boing)"), std::string::npos) << status.output;

    EXPECT_EQ(Run("effect toggle 1").status, 0);
    EXPECT_EQ(Settings().m_activeEffect, -1);
    EXPECT_EQ(Run("stop-all").status, 0);
    status = Run("status");
    EXPECT_NE(status.output.find("Fun sounds playing: none"), std::string::npos) << status.output;
    EXPECT_EQ(Run("reload").status, 0);
    EXPECT_EQ(Run("errors").status, 0);
}

} // namespace
} // namespace larimo
