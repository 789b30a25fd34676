// SPDX-License-Identifier: GPL-3.0-or-later
#include "keyboard.h"

#include <array>

namespace larimo {

namespace {

struct NamedKey {
    uint32_t m_code;
    std::string_view m_name;
};

// Keys whose names are more than the character they produce. Letters and digits are handled
// apart: their name is the character itself.
constexpr auto kNamedKeys = std::to_array<NamedKey>({
    { 8, "Back Space" },
    { 19, "Pause" },
    { 20, "Caps Lock" },
    { 33, "Page Up" },
    { 34, "Page Down" },
    { 35, "End" },
    { 36, "Home" },
    { 37, "Left" },
    { 38, "Up" },
    { 39, "Right" },
    { 40, "Down" },
    { 45, "Insert" },
    { 46, "Delete" },
    { 96, "Num 0" },
    { 97, "Num 1" },
    { 98, "Num 2" },
    { 99, "Num 3" },
    { 100, "Num 4" },
    { 101, "Num 5" },
    { 102, "Num 6" },
    { 103, "Num 7" },
    { 104, "Num 8" },
    { 105, "Num 9" },
    { 106, "Num *" },
    { 107, "Num +" },
    { 109, "Num -" },
    { 111, "Num /" },
    { 112, "F1" },
    { 113, "F2" },
    { 114, "F3" },
    { 115, "F4" },
    { 116, "F5" },
    { 117, "F6" },
    { 118, "F7" },
    { 119, "F8" },
    { 120, "F9" },
    { 121, "F10" },
    { 122, "F11" },
    { 123, "F12" },
    { 144, "Num Lock" },
    { 145, "Scroll Lock" },
    { 186, ";" },
    { 187, "=" },
    { 188, "," },
    { 189, "-" },
    { 190, "." },
    { 191, "/" },
    { 192, "`" },
    { 219, "[" },
    { 220, "\\" },
    { 221, "]" },
    { 222, "'" },
    // What is left of "Num +" once the text has been split at every '+'.
    { kVkAdd, "Num" },
});

std::string_view TrimBlanks(std::string_view text)
{
    while (!text.empty() && text.front() == ' ')
        text.remove_prefix(1);
    while (!text.empty() && text.back() == ' ')
        text.remove_suffix(1);
    return text;
}

} // namespace

std::string_view KeyName(uint32_t key)
{
    static constexpr std::string_view kCharacters = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ";
    if (key >= '0' && key <= '9')
        return kCharacters.substr(key - '0', 1);
    if (key >= 'A' && key <= 'Z')
        return kCharacters.substr(10 + key - 'A', 1);
    for (const NamedKey& named : kNamedKeys) {
        if (named.m_code == key)
            return named.m_name;
    }
    return {};
}

std::string ShortcutToText(uint32_t key, uint32_t modifiers)
{
    if (key == 0 && modifiers == 0)
        return {};
    std::string text;
    if (modifiers & kModCtrl)
        text += "Ctrl+";
    if (modifiers & kModAlt)
        text += "Alt+";
    if (modifiers & kModShift)
        text += "Shift+";
    if (key == kVkShift || key == kVkControl || key == kVkMenu)
        return text;
    text += KeyName(key);
    return text;
}

uint64_t ShortcutFromText(std::string_view text)
{
    uint32_t key = 0;
    uint32_t modifiers = 0;
    while (!text.empty()) {
        const size_t plus = text.find('+');
        const std::string_view piece = TrimBlanks(text.substr(0, plus));
        text = plus == std::string_view::npos ? std::string_view {} : text.substr(plus + 1);
        if (piece.empty())
            continue;

        if (piece == "Ctrl") {
            modifiers |= kModCtrl;
            continue;
        }
        if (piece == "Alt") {
            modifiers |= kModAlt;
            continue;
        }
        if (piece == "Shift") {
            modifiers |= kModShift;
            continue;
        }
        bool named = false;
        for (const NamedKey& candidate : kNamedKeys) {
            if (candidate.m_name == piece) {
                key = candidate.m_code;
                named = true;
                break;
            }
        }
        if (named || piece.size() != 1)
            continue;
        const char c = piece.front();
        if ((c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z'))
            key = static_cast<uint32_t>(c);
    }
    return MakeShortcut(key, modifiers);
}

} // namespace larimo
