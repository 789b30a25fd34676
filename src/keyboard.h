// SPDX-License-Identifier: GPL-3.0-or-later
// Hot-key values and their text form ("Ctrl+Alt+F5"), as stored in the Shortcuts section.
//
// A shortcut value is 64 bits: the low half holds the modifier bits (kModAlt, kModCtrl,
// kModShift), the high half the virtual-key code of the main key; 0 means no hot key.
// Key codes are the classic virtual-key numbers ('A' is 65, F1 is 112, keypad plus 107), which
// keeps settings files portable; the hot-key backends translate them to their own key symbols.
// All functions are pure and may be called from any thread.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace larimo {

constexpr uint32_t kModAlt = 1;
constexpr uint32_t kModCtrl = 2;
constexpr uint32_t kModShift = 4;

constexpr uint32_t kVkShift = 16;
constexpr uint32_t kVkControl = 17;
constexpr uint32_t kVkMenu = 18;
constexpr uint32_t kVkAdd = 107;

constexpr uint64_t MakeShortcut(uint32_t key, uint32_t modifiers)
{
    return (static_cast<uint64_t>(key) << 32) | modifiers;
}
constexpr uint32_t ShortcutKey(uint64_t shortcut)
{
    return static_cast<uint32_t>(shortcut >> 32);
}
constexpr uint32_t ShortcutModifiers(uint64_t shortcut)
{
    return static_cast<uint32_t>(shortcut & 0xFFFFFFFFu);
}

/// The name of a main key ("F5", "Num 7", "Page Up", "A"), or an empty text for a key that has
/// no name (space, Enter, Tab, ...).
std::string_view KeyName(uint32_t key);

/// The text form: the modifiers always as "Ctrl+", "Alt+", "Shift+" in that order, then the
/// key's name; a bare modifier key (16, 17, 18) leaves the trailing "+"; key and modifiers both
/// 0 give an empty text.
std::string ShortcutToText(uint32_t key, uint32_t modifiers);
inline std::string ShortcutToText(uint64_t shortcut)
{
    return ShortcutToText(ShortcutKey(shortcut), ShortcutModifiers(shortcut));
}

/// The value of a text form. Names are split at '+', trimmed of blanks and matched with their
/// exact letter case; unknown names are ignored, a later key replaces an earlier one, modifiers
/// add up. "ctrl+a" therefore gives 0.
uint64_t ShortcutFromText(std::string_view text);

} // namespace larimo
