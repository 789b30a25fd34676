// SPDX-License-Identifier: GPL-3.0-or-later
// The desktop session's autostart entry: where it goes, what it starts, and a folder that
// cannot take it.
#include "platform/Autostart.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include <unistd.h>

namespace larimo {
namespace {

namespace fs = std::filesystem;

class AutostartTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_root = fs::temp_directory_path() / ("larimo-autostart-" + std::to_string(::getpid()));
        fs::create_directories(m_root);
        ::setenv("XDG_CONFIG_HOME", m_root.c_str(), 1);
    }
    void TearDown() override
    {
        ::unsetenv("XDG_CONFIG_HOME");
        std::error_code ignored;
        fs::permissions(m_root, fs::perms::owner_all, ignored);
        fs::remove_all(m_root, ignored);
    }
    std::string Entry() const
    {
        std::ifstream in(m_root / "autostart" / "larimo.desktop");
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }
    fs::path m_root;
};

TEST_F(AutostartTest, AnEntryIsWrittenReadBackAndRemoved)
{
    const std::string program = "/opt/My Apps/larimo \"beta\"/larimo";
    EXPECT_EQ(AutostartEntryPath(), (m_root / "autostart" / "larimo.desktop").string());
    EXPECT_FALSE(AutostartEnabled(program));
    std::string error;
    ASSERT_TRUE(SetAutostart(true, program, error)) << error;
    EXPECT_TRUE(AutostartEnabled(program));
    EXPECT_FALSE(AutostartEnabled("/usr/bin/larimo")) << "an entry of another app folder is not ours";
    // The path is quoted for the Exec key, spaces, quotes and all.
    EXPECT_NE(Entry().find("Exec=\"/opt/My Apps/larimo \\\"beta\\\"/larimo\"\n"), std::string::npos) << Entry();
    EXPECT_NE(Entry().find("[Desktop Entry]\nType=Application\n"), std::string::npos);
    EXPECT_FALSE(fs::exists(m_root / "autostart" / "larimo.desktop.part"));

    ASSERT_TRUE(SetAutostart(false, program, error)) << error;
    EXPECT_FALSE(AutostartEnabled(program));
    EXPECT_FALSE(fs::exists(m_root / "autostart" / "larimo.desktop"));
    EXPECT_TRUE(SetAutostart(false, program, error)) << "removing what is not there is no failure";
}

TEST_F(AutostartTest, WithoutXdgConfigHomeTheEntryGoesBelowHome)
{
    ::unsetenv("XDG_CONFIG_HOME");
    const char* home = std::getenv("HOME");
    ASSERT_NE(home, nullptr);
    EXPECT_EQ(AutostartEntryPath(), (fs::path(home) / ".config" / "autostart" / "larimo.desktop").string());
}

TEST_F(AutostartTest, AnEntryTheUserHidOrAFolderThatCannotBeWrittenIsReported)
{
    const std::string program = "/opt/larimo/larimo";
    std::string error;
    ASSERT_TRUE(SetAutostart(true, program, error)) << error;
    std::ofstream(m_root / "autostart" / "larimo.desktop", std::ios::app) << "Hidden=true\n";
    EXPECT_FALSE(AutostartEnabled(program)) << "a desktop hides an entry the user turned off";

    fs::remove_all(m_root / "autostart");
    std::ofstream(m_root / "autostart") << "a file where the folder should be";
    EXPECT_FALSE(SetAutostart(true, program, error));
    EXPECT_NE(error.find("autostart"), std::string::npos) << error;
    EXPECT_FALSE(AutostartEnabled(program));
}

} // namespace
} // namespace larimo
