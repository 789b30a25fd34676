// SPDX-License-Identifier: GPL-3.0-or-later
// The plug-ins of the user's library: importing (with a test load), listing and deleting.
#include "modb.h"

#include "EffectTestSupport.h"
#include "WaveTestFiles.h"
#include "effect.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <map>

namespace larimo {
namespace {

namespace fs = std::filesystem;

class PluginLibrary : public ::testing::Test {
protected:
    void SetUp() override
    {
        test::StartEnglishTexts();
        LibInit(m_root.Path());
    }

    // A copy of a test plug-in outside the library under the name `fileName`.
    std::string Source(const std::string& kind, const std::string& fileName)
    {
        const std::string path = m_sources / fileName;
        fs::copy_file(test::TestPluginPath(kind), path, fs::copy_options::overwrite_existing);
        return path;
    }

    std::map<std::string, std::uintmax_t> Snapshot() const { return test::FolderSnapshot(m_root.Path()); }

    test::ScratchFolder m_root;
    test::ScratchFolder m_sources;
};

TEST_F(PluginLibrary, AnImportedPluginIsListedFoundAndDeleted)
{
    EXPECT_TRUE(LibListPlugins().empty());
    ASSERT_TRUE(LibImportPlugin(Source("Stereo", "a.so"))) << LibGetLastError();
    ASSERT_TRUE(LibImportPlugin(Source("BothEntries", "echo.plate.so"))) << LibGetLastError();
    EXPECT_TRUE(fs::is_regular_file(LibEffectsFolder() + "a.so"));
    EXPECT_EQ(LibListPlugins(), (std::vector<std::string>{"A", "Echo.plate"}));
    EXPECT_TRUE(LibPluginExists("A"));
    EXPECT_TRUE(LibPluginExists("ECHO.PLATE"));
    EXPECT_FALSE(LibPluginExists("Echo"));
    EXPECT_EQ(LibPluginPath("A"), LibEffectsFolder() + "a.so");
    EXPECT_EQ(LibPluginPath("Missing"), LibEffectsFolder() + "Missing.so");

    // What was imported is a working plug-in.
    MoAudioEffect effect;
    EXPECT_EQ(effect.SecureLoad(LibPluginPath("Echo.plate"), false), kVstSuccess);
    EXPECT_EQ(effect.BaseName(), "Echo.plate");
    effect.UnLoad();

    // Only files ending in .so are plug-ins, and only when something comes before it.
    std::ofstream(LibEffectsFolder() + "notes.txt") << "x";
    std::ofstream(LibEffectsFolder() + ".so") << "x";
    fs::create_directory(LibEffectsFolder() + "folder.so");
    EXPECT_EQ(LibListPlugins(), (std::vector<std::string>{"A", "Echo.plate"}));

    ASSERT_TRUE(LibDeletePlugin("a")) << LibGetLastError();
    EXPECT_FALSE(fs::exists(LibEffectsFolder() + "a.so"));
    EXPECT_FALSE(LibDeletePlugin("A"));
    EXPECT_EQ(LibGetLastError().rfind("Error setting file attributes.", 0), 0U) << LibGetLastError();
    EXPECT_FALSE(LibDeletePlugin("folder"));
    EXPECT_TRUE(fs::is_directory(LibEffectsFolder() + "folder.so"));
    EXPECT_EQ(LibListPlugins(), (std::vector<std::string>{"Echo.plate"}));
}

struct RefusedImport {
    const char* kind;
    const char* fileName;
    const char* message;
};

class RefusedImports : public PluginLibrary, public ::testing::WithParamInterface<RefusedImport> {};

TEST_P(RefusedImports, TellWhyAndLeaveTheLibraryAsItWas)
{
    ASSERT_TRUE(LibImportPlugin(Source("Stereo", "Reverb.so"))) << LibGetLastError();
    const auto before = Snapshot();
    EXPECT_FALSE(LibImportPlugin(Source(GetParam().kind, GetParam().fileName)));
    EXPECT_EQ(LibGetLastError(), GetParam().message);
    EXPECT_EQ(Snapshot(), before);
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RefusedImports,
    ::testing::Values(RefusedImport{"Stereo", ".so", "Illegal VST plug-in file name: \".so\""},
                      RefusedImport{"Stereo", "x.s", "Illegal VST plug-in file name: \"x.s\""},
                      RefusedImport{"Stereo", "delay", "Illegal VST plug-in file name: \"delay\""},
                      RefusedImport{"Stereo", "reverb.so", "Plug-in \"Reverb\" already exists."},
                      RefusedImport{"Stereo", "REVERB.SO", "Plug-in \"Reverb\" already exists."},
                      RefusedImport{"CrashOnLoad", "crash.so",
                                    "\"crash.so\" crashed while it was being loaded, so it cannot be used."},
                      RefusedImport{"NoOutputs", "silent.so",
                                    "VST plug-in doesn't contain VST effect \n(number of audio input or audio "
                                    "output channels equal nil)."},
                      RefusedImport{"NoEntry", "plain.so",
                                    "\"plain.so\" is a library but not a VST 2 plug-in: it has no VST entry point "
                                    "(VSTPluginMain or main), or that gave no effect."}),
    [](const auto& testCase) { return std::string(testCase.param.kind) + "_" + std::to_string(testCase.index); });

// Files that only look like plug-ins by their name: what they are is said in plain words, and
// none of them is loaded into the program to find out.
TEST_F(PluginLibrary, FilesThatAreNoPluginsForThisComputerAreRefusedByWhatTheyAre)
{
    ASSERT_TRUE(LibImportPlugin(Source("Stereo", "Reverb.so"))) << LibGetLastError();
    const auto before = Snapshot();
    // The first 20 bytes of an ELF shared object: class, byte order, type and machine.
    const auto elf = [](unsigned char elfClass, unsigned char order, unsigned type, unsigned machine) {
        std::vector<unsigned char> bytes = {0x7F, 'E', 'L', 'F', elfClass, order, 1, 0};
        bytes.resize(16, 0);
        const bool little = order == 1;
        for (const unsigned value : {type, machine}) {
            bytes.push_back(static_cast<unsigned char>(little ? value & 0xFF : value >> 8));
            bytes.push_back(static_cast<unsigned char>(little ? value >> 8 : value & 0xFF));
        }
        bytes.resize(64, 0);
        return bytes;
    };
    const std::vector<std::pair<std::vector<unsigned char>, std::string>> cases = {
        {std::vector<unsigned char>{'h', 'e', 'l', 'l', 'o', '\n'},
         "\"odd.so\" is not a VST plug-in for Linux: a plug-in here is a shared library (.so)."},
        {{}, "\"odd.so\" is not a VST plug-in for Linux: a plug-in here is a shared library (.so)."},
        {elf(1, 1, 3, 3), "\"odd.so\" is a 32-bit plug-in; Larimo loads 64-bit plug-ins only."},
        {elf(2, 1, 2, 62), "\"odd.so\" is not a VST plug-in for Linux: a plug-in here is a shared library (.so)."},
#if defined(__x86_64__)
        {elf(2, 1, 3, 183), "\"odd.so\" is built for another kind of processor (ARM64), not for this computer."},
        {elf(2, 2, 3, 21), "\"odd.so\" is built for another kind of processor (PowerPC), not for this computer."},
#endif
    };
    for (const auto& [bytes, message] : cases) {
        const fs::path path = m_sources / "odd.so";
        std::ofstream(path, std::ios::binary | std::ios::trunc)
            .write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
        EXPECT_EQ(PluginFileProblem(path), message);
        EXPECT_FALSE(LibImportPlugin(path));
        EXPECT_EQ(LibGetLastError(), message);
        EXPECT_EQ(Snapshot(), before);
    }
    // A real plug-in and a library without an entry point pass the header check.
    EXPECT_EQ(PluginFileProblem(test::TestPluginPath("Stereo")), "");
    EXPECT_EQ(PluginFileProblem(test::TestPluginPath("NoEntry")), "");
}

TEST_F(PluginLibrary, TestingAPluginGivesTheTextOfItsLoadResult)
{
    std::string text = "stale";
    EXPECT_TRUE(LibTestPlugin(test::TestPluginPath("Stereo"), text));
    EXPECT_EQ(text, "Success");
    EXPECT_FALSE(LibTestPlugin(m_sources / "none.so", text));
    EXPECT_EQ(text, "VST plug-in could not be found");
    EXPECT_FALSE(LibImportPlugin(m_sources / "none.so"));
    EXPECT_EQ(LibGetLastError(), "VST plug-in could not be found");
}

} // namespace
} // namespace larimo
