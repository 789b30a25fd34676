// SPDX-License-Identifier: GPL-3.0-or-later
#include "wintools.h"

#include <gtest/gtest.h>

namespace larimo {
namespace {

TEST(SettingsPathToFs, RelativeBackslashPathsResolveAgainstTheBase)
{
    EXPECT_EQ(SettingsPathToFs(".\\lang\\larimo_en.tra", "/opt/larimo/"), "/opt/larimo/lang/larimo_en.tra");
    EXPECT_EQ(SettingsPathToFs("help\\larimo_de.chm", "/opt/larimo"), "/opt/larimo/help/larimo_de.chm");
    EXPECT_EQ(SettingsPathToFs(".\\lang\\", "/opt/larimo/"), "/opt/larimo/lang/");
    EXPECT_EQ(SettingsPathToFs("Party\\Laugh.wav", "/a/emoticsounds/"), "/a/emoticsounds/Party/Laugh.wav");
}

TEST(SettingsPathToFs, AbsoluteAndDottedPaths)
{
    EXPECT_EQ(SettingsPathToFs("/usr/share/x.tra", "/opt/larimo/"), "/usr/share/x.tra");
    EXPECT_EQ(SettingsPathToFs("..\\shared\\skin.sdf", "/opt/larimo/"), "/opt/shared/skin.sdf");
    EXPECT_EQ(SettingsPathToFs("/../../etc", "/x/"), "/etc");
    EXPECT_EQ(SettingsPathToFs("", "/opt/larimo/"), "/opt/larimo");
}

TEST(DataRoot, DefaultsToTheProgramFolderAndGetsATrailingSlash)
{
    EXPECT_EQ(DataRoot(), ProgramFolder());
    ASSERT_FALSE(ProgramFolder().empty());
    EXPECT_EQ(ProgramFolder().back(), '/');

    SetDataRoot("/tmp/app");
    EXPECT_EQ(DataRoot(), "/tmp/app/");
    SetDataRoot("/tmp/app\\");
    EXPECT_EQ(DataRoot(), "/tmp/app/");
    SetDataRoot(ProgramFolder());
}

TEST(EqualsNoCase, IgnoresTheCaseOfEveryLetter)
{
    EXPECT_TRUE(EqualsNoCase("Reverb", "reVERB"));
    EXPECT_FALSE(EqualsNoCase("Reverb", "Reverb2"));
    EXPECT_FALSE(EqualsNoCase("a", "b"));
    EXPECT_TRUE(EqualsNoCase("Ärger", "ärger"));
    EXPECT_TRUE(EqualsNoCase("ÜBER ALLES", "über alles"));
    EXPECT_TRUE(EqualsNoCase("Ελληνικά", "ελληνικά"));
    EXPECT_TRUE(EqualsNoCase("ПРИВЕТ", "привет"));
    EXPECT_FALSE(EqualsNoCase("Ärger", "Arger"));
    EXPECT_FALSE(EqualsNoCase("é", "e"));
    // Bytes that are no UTF-8 compare as themselves.
    EXPECT_TRUE(EqualsNoCase("\xFF\xFE" "a", "\xFF\xFE" "A"));
    EXPECT_FALSE(EqualsNoCase("\xC3", "\xC4"));
}

TEST(CapitalizeFirst, MakesTheFirstLetterUpperCaseWhateverTheAlphabet)
{
    EXPECT_EQ(CapitalizeFirst("über"), "Über");
    EXPECT_EQ(CapitalizeFirst("ärger.so"), "Ärger.so");
    EXPECT_EQ(CapitalizeFirst("école"), "École");
    EXPECT_EQ(CapitalizeFirst("reverb"), "Reverb");
    EXPECT_EQ(CapitalizeFirst("9lives"), "9lives");
    EXPECT_EQ(CapitalizeFirst(""), "");
    EXPECT_EQ(FoldCase("Straße ÄÖÜ"), "straße äöü");
}

} // namespace
} // namespace larimo
