// SPDX-License-Identifier: GPL-3.0-or-later
#include "config.h"

#include "keyboard.h"
#include "profilenumber.h"
#include "wintools.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdlib>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace larimo {
namespace {

namespace fs = std::filesystem;

class ConfigTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "larimo-cfg-XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        m_root = pattern + "/";
    }
    void TearDown() override { fs::remove_all(m_root); }

    void WriteConfig(const std::string& text) const { Write(m_root + "config.ini", text); }
    void WriteEffects(const std::string& text) const { Write(m_root + "voiceeffects.ini", text); }
    std::string ReadConfig() const { return Read(m_root + "config.ini"); }
    std::string ReadEffects() const { return Read(m_root + "voiceeffects.ini"); }

    static void Write(const std::string& path, const std::string& text)
    {
        std::ofstream(path, std::ios::binary) << text;
    }
    static std::string Read(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream text;
        text << in.rdbuf();
        return text.str();
    }

    std::string m_root;
};

TEST_F(ConfigTest, PathsComeFromTheDataRoot)
{
    const Config explicitRoot(m_root.substr(0, m_root.size() - 1));
    EXPECT_EQ(explicitRoot.ConfigPath(), m_root + "config.ini");
    EXPECT_EQ(explicitRoot.EffectsPath(), m_root + "voiceeffects.ini");

    const std::string saved = DataRoot();
    SetDataRoot(m_root);
    const Config fromDataRoot;
    SetDataRoot(saved);
    EXPECT_EQ(fromDataRoot.ConfigPath(), m_root + "config.ini");
}

TEST_F(ConfigTest, ANewObjectHoldsOnlyItsStartValues)
{
    const Config config(m_root);
    EXPECT_EQ(config.m_activeEffect, -1);
    EXPECT_EQ(config.m_activeBackSound, -1);
    EXPECT_FALSE(config.m_wizard);
    EXPECT_EQ(config.m_mixInSrc, "\xEF\xBF\xBF");
    EXPECT_TRUE(config.m_virtualDevice.empty());
    EXPECT_TRUE(config.m_langFile.empty());
    EXPECT_TRUE(config.m_effects.empty());
}

TEST(DefaultHelpFile, FollowsTheLanguageOfTheInterface)
{
    EXPECT_EQ(DefaultHelpFile(".\\lang\\larimo_de.tra"), "help\\larimo_de.chm");
    EXPECT_EQ(DefaultHelpFile("/opt/larimo/lang/LARIMO_DE.TRA"), "help\\larimo_de.chm");
    EXPECT_EQ(DefaultHelpFile(".\\lang\\larimo_en.tra"), "help\\en\\larimo_en.chm");
    EXPECT_EQ(DefaultHelpFile("larimo_fr.tra"), "help\\en\\larimo_en.chm") << "no French help: English";
    EXPECT_EQ(DefaultHelpFile(""), "help\\en\\larimo_en.chm");
}

TEST_F(ConfigTest, AMissingFileGivesTheDefaults)
{
    Config config(m_root);
    config.LoadAll();
    EXPECT_EQ(config.m_activeEffect, -1);
    EXPECT_EQ(config.m_activeBackSound, -1);
    EXPECT_FALSE(config.m_wizard);
    EXPECT_EQ(config.m_version, "0");
    EXPECT_EQ(config.m_langsPath, ".\\lang\\");
    EXPECT_EQ(config.m_langFile, ".\\lang\\larimo_en.tra");
    EXPECT_EQ(config.m_helpFile, "help\\en\\larimo_en.chm") << "the help follows the interface language";
    EXPECT_EQ(config.m_skinFile, ".\\skins\\en\\Default.sdf");
    EXPECT_EQ(config.m_homePage, "");
    for (const BackSound& slot : config.m_backSounds)
        EXPECT_EQ(slot, (BackSound { "", "", 100 }));
    EXPECT_EQ(config.m_inBuffSizeMs, 25);
    EXPECT_EQ(config.m_inBuffsN, 40);
    EXPECT_EQ(config.m_outBuffSizeMs, 25);
    EXPECT_EQ(config.m_outBuffsN, 40);
    EXPECT_EQ(config.m_monBuffSizeMs, 25);
    EXPECT_EQ(config.m_monBuffsN, 40);
    EXPECT_FALSE(config.m_monitorOn);
    EXPECT_EQ(config.m_listen, 0);
    for (uint8_t volume : { config.m_monitorVol, config.m_testVolVEff, config.m_testVolBack, config.m_testVolEmotic,
                            config.m_testVolEffStudio })
        EXPECT_EQ(volume, 100);
    for (uint64_t shortcut : config.m_shortcuts)
        EXPECT_EQ(shortcut, 0u);
    EXPECT_EQ(config.m_mixInSrc, "");
    EXPECT_EQ(config.m_virtualDevice, "Larimo Microphone");
    EXPECT_TRUE(config.m_emotics.empty());
    EXPECT_FALSE(fs::exists(m_root + "config.ini")) << "reading writes nothing";
}

struct ValueCase {
    const char* m_section;
    const char* m_key;
    const char* m_stored; // nullptr: the key is absent
    long long m_expected;
};

std::string ValueCaseName(const ::testing::TestParamInfo<ValueCase>& info)
{
    std::string name = std::string(info.param.m_key) + "_" + std::to_string(info.index);
    for (char& c : name) {
        if (!std::isalnum(static_cast<unsigned char>(c)))
            c = '_';
    }
    return name;
}

long long FieldOf(const Config& config, const std::string& key)
{
    if (key == "activeEffect")
        return config.m_activeEffect;
    if (key == "activeBackSound")
        return config.m_activeBackSound;
    if (key == "volume")
        return config.m_backSounds[1].m_volume;
    if (key == "wizard")
        return config.m_wizard;
    if (key == "monitorOn")
        return config.m_monitorOn;
    if (key == "listen")
        return config.m_listen;
    if (key == "inBuffsN")
        return config.m_inBuffsN;
    if (key == "outBuffSizeMs")
        return config.m_outBuffSizeMs;
    if (key == "monitorVol")
        return config.m_monitorVol;
    ADD_FAILURE() << "no field for " << key;
    return 0;
}

class ConfigValues : public ConfigTest, public ::testing::WithParamInterface<ValueCase> { };

TEST_P(ConfigValues, ReadWithTheirCorrections)
{
    const ValueCase& param = GetParam();
    std::string text = "[" + std::string(param.m_section) + "]\n";
    if (param.m_stored != nullptr)
        text += std::string(param.m_key) + "=" + param.m_stored + "\n";
    WriteConfig(text);
    Config config(m_root);
    config.LoadAll();
    EXPECT_EQ(FieldOf(config, param.m_key), param.m_expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, ConfigValues,
    ::testing::Values(
        ValueCase { "sys", "activeEffect", "2", 2 }, ValueCase { "sys", "activeEffect", "3", -1 },
        ValueCase { "sys", "activeEffect", "-2", -1 }, ValueCase { "sys", "activeEffect", "1abc", 1 },
        ValueCase { "sys", "activeEffect", "abc", -1 }, ValueCase { "sys", "activeEffect", "", -1 },
        ValueCase { "sys", "activeEffect", "99999999999999999999", -1 },
        ValueCase { "sys", "activeBackSound", "+0", 0 }, ValueCase { "sys", "activeBackSound", "4294967296", -1 },
        ValueCase { "sound_1", "volume", "250", 100 }, ValueCase { "sound_1", "volume", "", 100 },
        ValueCase { "sound_1", "volume", "55", 55 }, ValueCase { "sound_1", "volume", "-5", 0 },
        ValueCase { "sound_1", "volume", "70000", 100 }, ValueCase { "sys", "wizard", "1", 1 },
        ValueCase { "sys", "wizard", "yes", 0 }, ValueCase { "sys", "wizard", "11", 0 },
        ValueCase { "sys", "wizard", " 1 ", 1 }, ValueCase { "monitors", "monitorOn", "1abc", 1 },
        ValueCase { "monitors", "monitorOn", "0", 0 }, ValueCase { "monitors", "monitorOn", "", 0 },
        ValueCase { "monitors", "listen", "always", 0 }, ValueCase { "monitors", "listen", "Always", 1 },
        ValueCase { "monitors", "listen", "only", 1 }, ValueCase { "monitors", "listen", "", 1 },
        ValueCase { "monitors", "listen", nullptr, 0 }, ValueCase { "stream", "inBuffsN", "300", 255 },
        ValueCase { "stream", "inBuffsN", "x", 40 }, ValueCase { "stream", "outBuffSizeMs", "12ms", 12 },
        ValueCase { "monitors", "monitorVol", "0", 0 }),
    ValueCaseName);

TEST_F(ConfigTest, FunSoundsWithAGapCloseUpAndAreWrittenBackCompacted)
{
    WriteConfig("[emotics]\nnum=3\nfile_0=Party\\Laugh.wav\nname_0=Laugh\nfile_1=lost.wav\nname_1=\n"
                "file_2=Horn.wav\nname_2=Horn\nstale=1\n\n[sys]\nwizard=1\n");
    Config config(m_root);
    config.ReadEmotics();
    ASSERT_EQ(config.m_emotics.size(), 2u);
    EXPECT_EQ(config.m_emotics[0], (Emotic { "Laugh", "Party\\Laugh.wav" }));
    EXPECT_EQ(config.m_emotics[1], (Emotic { "Horn", "Horn.wav" }));

    ASSERT_TRUE(config.WriteEmotics());
    EXPECT_EQ(ReadConfig(), "[emotics]\nnum=2\nfile_0=Party\\Laugh.wav\nname_0=Laugh\nfile_1=Horn.wav\n"
                            "name_1=Horn\n\n[sys]\nwizard=1\n");

    // A count far beyond the entries present is not a reason to look up billions of keys.
    WriteConfig("[emotics]\nnum=4294967295\nfile_7=a.wav\nname_7=A\n");
    config.ReadEmotics();
    EXPECT_EQ(config.m_emotics, (std::vector<Emotic> { { "A", "a.wav" } }));
}

TEST_F(ConfigTest, SectionWritersTouchOnlyTheirOwnKeys)
{
    const std::string original = "; hand-edited\r\n[sys]\r\nactiveEffect = 1\r\nhomePage=https://example.org/\r\n"
                                 "custom=kept\r\n\r\n[Shortcuts]\r\nStop=Ctrl+F12\r\n";
    WriteConfig(original);
    Config config(m_root);
    config.ReadGeneral();
    EXPECT_EQ(config.m_homePage, "https://example.org/");
    config.m_activeEffect = 2;
    ASSERT_TRUE(config.WriteGeneral());
    EXPECT_EQ(ReadConfig(),
              "; hand-edited\r\n[sys]\r\nactiveEffect=2\r\nhomePage=https://example.org/\r\ncustom=kept\r\n"
              "activeBackSound=-1\r\nwizard=0\r\nversion=0\r\nlangsPath=.\\lang\\\r\n"
              "langFile=.\\lang\\larimo_en.tra\r\nhelpFile=help\\en\\larimo_en.chm\r\n"
              "skinFile=.\\skins\\en\\Default.sdf\r\n\r\n[Shortcuts]\r\nStop=Ctrl+F12\r\n");

    // An object that never read the address leaves it alone; slots outside 0..2 do nothing.
    Config other(m_root);
    ASSERT_TRUE(other.WriteGeneral());
    EXPECT_NE(ReadConfig().find("homePage=https://example.org/"), std::string::npos);
    const std::string before = ReadConfig();
    EXPECT_TRUE(other.WriteBackSound(3));
    EXPECT_TRUE(other.WriteBackSound(-1));
    other.ReadBackSound(7);
    EXPECT_EQ(ReadConfig(), before);

    config.ReadShortcuts();
    EXPECT_EQ(config.m_shortcuts[kScStop], MakeShortcut(123, kModCtrl));
    config.m_shortcuts[kScVoiceEffect2] = MakeShortcut(107, kModCtrl | kModAlt);
    ASSERT_TRUE(config.WriteShortcuts());
    EXPECT_NE(ReadConfig().find("VoiceEffect2=Ctrl+Alt+Num +\r\n"), std::string::npos);
    EXPECT_NE(ReadConfig().find("BackSound2_VolSub=\r\n"), std::string::npos);
}

TEST_F(ConfigTest, ASaveWhoseFileCannotBeWrittenReportsItAndKeepsTheOldFile)
{
    fs::create_directory(m_root + "config.ini");
    WriteEffects("[sys]\nnumEffects=0\n");
    Config config(m_root);
    config.LoadAll();
    EXPECT_EQ(config.m_langFile, ".\\lang\\larimo_en.tra");
    config.m_wizard = true;
    EXPECT_FALSE(config.WriteGeneral());
    EXPECT_FALSE(config.SaveAll());
    EXPECT_TRUE(fs::is_directory(m_root + "config.ini"));
}

TEST_F(ConfigTest, VoiceEffectsSkipNamelessSectionsAndAreRenumberedOnWriting)
{
    WriteEffects("[sys]\nnumEffects=3\n[eff_0]\nvst=pitch\nname=Chipmunk\nnumParams=2\nparam_0=0.25\n"
                 "[eff_2]\nvst=robot\nname=Robot\nnumParams=1\nparam_0=1\n[eff_9]\nname=Beyond the count\n");
    Config config(m_root);
    config.ReadEffects();
    ASSERT_EQ(config.m_effects.size(), 2u);
    EXPECT_EQ(config.m_effects[0], (VoiceEffect { "pitch", "Chipmunk", { { 0.25f, "" }, { 0.0f, "" } } }));
    EXPECT_EQ(config.m_effects[1], (VoiceEffect { "robot", "Robot", { { 1.0f, "" } } }));

    ASSERT_TRUE(config.WriteEffects());
    EXPECT_EQ(ReadEffects(), "[sys]\nnumEffects=2\n\n[eff_0]\nvst=pitch\nname=Chipmunk\nnumParams=2\n"
                             "param_0=0.250000\nparam_1=0.000000\n\n[eff_1]\nvst=robot\nname=Robot\n"
                             "numParams=1\nparam_0=1.000000\n");

    config.m_effects.clear();
    ASSERT_TRUE(config.WriteEffects());
    EXPECT_EQ(ReadEffects(), "[sys]\nnumEffects=0\n");
}

class ParamNotation : public ::testing::TestWithParam<std::pair<const char*, float>> { };

TEST_P(ParamNotation, ReadsAnyDecimalNotation)
{
    const IniDocument doc = IniDocument::Parse(std::string("[sys]\nnumEffects=1\n[eff_0]\nname=E\nnumParams=1\n")
                                               + "param_0=" + GetParam().first + "\n");
    const std::vector<VoiceEffect> effects = ReadVoiceEffects(doc);
    ASSERT_EQ(effects.size(), 1u);
    ASSERT_EQ(effects[0].m_values.size(), 1u);
    EXPECT_FLOAT_EQ(effects[0].m_values[0].m_value, GetParam().second);
}

INSTANTIATE_TEST_SUITE_P(Notations, ParamNotation,
                         ::testing::Values(std::pair { "0.5", 0.5f }, std::pair { ".5", 0.5f },
                                           std::pair { "5e-1", 0.5f }, std::pair { "+0.5", 0.5f },
                                           std::pair { "0,5", 0.5f }, std::pair { " 0.500000 ", 0.5f },
                                           std::pair { "0.5abc", 0.5f }, std::pair { "1", 1.0f },
                                           std::pair { "-0.25", -0.25f }, std::pair { "abc", 0.0f },
                                           std::pair { "", 0.0f }, std::pair { "nan", 0.0f },
                                           std::pair { "inf", 0.0f }, std::pair { "1e99", 0.0f }));

TEST(ParamFormat, WritesSixDecimalsWhateverTheLocale)
{
    EXPECT_EQ(FormatFloat(0.5f), "0.500000");
    EXPECT_EQ(FormatFloat(1.0f), "1.000000");
    EXPECT_EQ(FormatFloat(-0.125f), "-0.125000");
    EXPECT_EQ(FormatFloat(1e-7f), "0.000000");
}

TEST_F(ConfigTest, FindAndRemoveDefinitions)
{
    Config config(m_root);
    config.m_effects = { { "pitch", "Robot", {} }, { "echo", "Hall", {} }, { "robot", "robot", {} } };
    config.m_effectSlots = { "Robot", "ROBOT", "Hall" };
    EXPECT_EQ(config.FindEffect("ROBOT"), 0) << "the first match, without regard to case";
    EXPECT_EQ(config.FindEffect("hall"), 1);
    EXPECT_EQ(config.FindEffect("Gone"), -1);

    config.RemoveEffect(3);
    config.RemoveEffect(-1);
    EXPECT_EQ(config.m_effects.size(), 3u);
    config.RemoveEffect(0);
    EXPECT_EQ(config.m_effectSlots, (std::array<std::string, 3> { "", "ROBOT", "Hall" }));
    ASSERT_EQ(config.m_effects.size(), 2u);
    EXPECT_EQ(config.m_effects[0].m_name, "Hall");
    EXPECT_EQ(config.FindEffect("ROBOT"), 1);
    EXPECT_FALSE(fs::exists(m_root + "voiceeffects.ini"));
}

TEST_F(ConfigTest, SaveAllThenLoadAllGivesAnEqualObject)
{
    Config saved(m_root);
    saved.m_activeEffect = 1;
    saved.m_activeBackSound = 2;
    saved.m_wizard = true;
    saved.m_version = "1.2.3.4";
    saved.m_langsPath = ".\\lang\\";
    saved.m_langFile = ".\\lang\\larimo_de.tra";
    saved.m_helpFile = "help\\larimo_en.chm";
    saved.m_skinFile = "  .\\skins\\odd \"name\"\\Skin.sdf";
    saved.m_homePage = "https://larimo.example/";
    saved.m_effectSlots = { "Robot", "", "\"Quoted\"" };
    saved.m_backSounds = { BackSound { "Rain.wav", "Rain = wet; cold", 100 }, BackSound { "", "", 0 },
                           BackSound { "Caf\xC3\xA9.wav", "Caf\xC3\xA9 \xF0\x9F\x8E\xB5", 37 } };
    saved.m_emotics = { { "Laugh", "Party\\Laugh.wav" }, { " spaced ", "a.wav" } };
    saved.m_effects = { { "pitch", "Robot", { { 0.5f, "" }, { 0.25f, "" }, { 1.0f, "" } } },
                        { "", "Orphan", {} } };
    saved.m_input = "Built-in Audio Analog Stereo";
    saved.m_monitor = "USB Headset";
    saved.m_mixInSrc = "Microphone";
    saved.m_virtualDevice = "Larimo Microphone";
    saved.m_inBuffSizeMs = 10;
    saved.m_inBuffsN = 8;
    saved.m_outBuffSizeMs = 20;
    saved.m_outBuffsN = 255;
    saved.m_monBuffSizeMs = 65535;
    saved.m_monBuffsN = 0;
    saved.m_monitorOn = true;
    saved.m_listen = 1;
    saved.m_monitorVol = 80;
    saved.m_testVolVEff = 1;
    saved.m_testVolBack = 2;
    saved.m_testVolEmotic = 3;
    saved.m_testVolEffStudio = 4;
    for (size_t i = 0; i < saved.m_shortcuts.size(); ++i)
        saved.m_shortcuts[i] = MakeShortcut(static_cast<uint32_t>(112 + i % 12), static_cast<uint32_t>(i % 8));
    saved.m_shortcuts[kScListen] = 0;

    ASSERT_TRUE(saved.SaveAll());
    Config loaded(m_root);
    loaded.LoadAll();
    EXPECT_EQ(loaded, saved);

    // A second save of the same object leaves both files byte for byte as they were.
    const std::string config = ReadConfig();
    const std::string effects = ReadEffects();
    ASSERT_TRUE(loaded.SaveAll());
    EXPECT_EQ(ReadConfig(), config);
    EXPECT_EQ(ReadEffects(), effects);
}

} // namespace
} // namespace larimo
