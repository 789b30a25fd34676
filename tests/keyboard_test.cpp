// SPDX-License-Identifier: GPL-3.0-or-later
#include "keyboard.h"

#include <gtest/gtest.h>

namespace larimo {
namespace {

struct TextCase {
    uint32_t m_key;
    uint32_t m_modifiers;
    const char* m_text;
};

class ShortcutText : public ::testing::TestWithParam<TextCase> { };

TEST_P(ShortcutText, ToText)
{
    EXPECT_EQ(ShortcutToText(GetParam().m_key, GetParam().m_modifiers), GetParam().m_text);
    EXPECT_EQ(ShortcutToText(MakeShortcut(GetParam().m_key, GetParam().m_modifiers)), GetParam().m_text);
}

INSTANTIATE_TEST_SUITE_P(Examples, ShortcutText,
                         ::testing::Values(TextCase { 65, 7, "Ctrl+Alt+Shift+A" }, TextCase { 116, 3, "Ctrl+Alt+F5" },
                                           TextCase { 103, 4, "Shift+Num 7" }, TextCase { 107, 2, "Ctrl+Num +" },
                                           TextCase { 17, 2, "Ctrl+" }, TextCase { 16, 4, "Shift+" },
                                           TextCase { 18, 0, "" }, TextCase { 0, 1, "Alt+" }, TextCase { 0, 0, "" },
                                           TextCase { 32, 2, "Ctrl+" }, TextCase { 13, 0, "" },
                                           TextCase { 220, 0, "\\" }, TextCase { 8, 6, "Ctrl+Shift+Back Space" },
                                           TextCase { 145, 0, "Scroll Lock" }, TextCase { 57, 0, "9" }));

TEST(ShortcutFromText, OrderAndBlanksDoNotMatterButLetterCaseDoes)
{
    const uint64_t ctrlShiftA = MakeShortcut('A', kModCtrl | kModShift);
    EXPECT_EQ(ShortcutFromText("Shift+Ctrl+A"), ctrlShiftA);
    EXPECT_EQ(ShortcutFromText("  Shift  +  Ctrl +A  "), ctrlShiftA);
    EXPECT_EQ(ShortcutFromText("A+Ctrl+Shift"), ctrlShiftA);
    EXPECT_EQ(ShortcutFromText("ctrl+a"), 0u);
    EXPECT_EQ(ShortcutFromText("CTRL+num 1"), 0u);
    EXPECT_EQ(ShortcutFromText(""), 0u);
}

TEST(ShortcutFromText, OddPieces)
{
    EXPECT_EQ(ShortcutFromText("Ctrl+Num +"), MakeShortcut(107, kModCtrl)) << "the split leaves \"Num\"";
    EXPECT_EQ(ShortcutFromText("A+B"), MakeShortcut('B', 0)) << "a later key replaces an earlier one";
    EXPECT_EQ(ShortcutFromText("Ctrl+Ctrl"), MakeShortcut(0, kModCtrl));
    EXPECT_EQ(ShortcutFromText("++Alt++"), MakeShortcut(0, kModAlt));
    EXPECT_EQ(ShortcutFromText("Foo+Alt+F13+Space"), MakeShortcut(0, kModAlt));
    EXPECT_EQ(ShortcutFromText("Alt+\tA"), MakeShortcut(0, kModAlt)) << "only blanks are trimmed";
    EXPECT_EQ(ShortcutFromText("Page Down"), MakeShortcut(34, 0));
    EXPECT_EQ(ShortcutFromText("Shift+="), MakeShortcut(187, kModShift));
    EXPECT_EQ(ShortcutFromText("Alt+\xC3\x84"), MakeShortcut(0, kModAlt)) << "a non-ASCII letter is no key";
}

TEST(ShortcutFromText, EveryNamedKeyWithEveryModifierSurvivesTheTextForm)
{
    int named = 0;
    for (uint32_t key = 0; key < 256; ++key) {
        if (KeyName(key).empty())
            continue;
        ++named;
        for (uint32_t modifiers = 0; modifiers < 8; ++modifiers) {
            const uint64_t value = MakeShortcut(key, modifiers);
            EXPECT_EQ(ShortcutFromText(ShortcutToText(value)), value)
                << "key " << key << " modifiers " << modifiers << " text " << ShortcutToText(value);
        }
    }
    EXPECT_EQ(named, 10 + 26 + 10 + 4 + 12 + 13 + 2 + 11) << "digits, letters, keypad, F keys, the rest";
}

TEST(ShortcutValue, PacksKeyHighAndModifiersLow)
{
    const uint64_t value = MakeShortcut(0x74, kModCtrl | kModAlt);
    EXPECT_EQ(value, 0x0000007400000003ull);
    EXPECT_EQ(ShortcutKey(value), 0x74u);
    EXPECT_EQ(ShortcutModifiers(value), 3u);
    EXPECT_EQ(ShortcutKey(MakeShortcut(0xFFFFFFFFu, 0xFFFFFFFFu)), 0xFFFFFFFFu);
}

} // namespace
} // namespace larimo
