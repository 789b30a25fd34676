// SPDX-License-Identifier: GPL-3.0-or-later
#include "KeyMap.h"

#include <QtCore/qnamespace.h>

#include <array>

namespace larimo {

namespace {

struct NamedKey {
    uint32_t virtualKey;
    uint32_t keysym;
    std::string_view name;
};

// Every key the shortcut editor can name, plus the few unnamed ones a settings file may hold.
constexpr std::array<NamedKey, 52> kNamedKeys{{
    {8, 0xff08, "BackSpace"},     {9, 0xff09, "Tab"},           {13, 0xff0d, "Return"},
    {19, 0xff13, "Pause"},        {20, 0xffe5, "Caps_Lock"},    {27, 0xff1b, "Escape"},
    {32, 0x0020, "space"},        {33, 0xff55, "Prior"},        {34, 0xff56, "Next"},
    {35, 0xff57, "End"},          {36, 0xff50, "Home"},         {37, 0xff51, "Left"},
    {38, 0xff52, "Up"},           {39, 0xff53, "Right"},        {40, 0xff54, "Down"},
    {45, 0xff63, "Insert"},       {46, 0xffff, "Delete"},       {96, 0xffb0, "KP_0"},
    {97, 0xffb1, "KP_1"},         {98, 0xffb2, "KP_2"},         {99, 0xffb3, "KP_3"},
    {100, 0xffb4, "KP_4"},        {101, 0xffb5, "KP_5"},        {102, 0xffb6, "KP_6"},
    {103, 0xffb7, "KP_7"},        {104, 0xffb8, "KP_8"},        {105, 0xffb9, "KP_9"},
    {106, 0xffaa, "KP_Multiply"}, {107, 0xffab, "KP_Add"},      {109, 0xffad, "KP_Subtract"},
    {110, 0xffae, "KP_Decimal"},  {111, 0xffaf, "KP_Divide"},   {144, 0xff7f, "Num_Lock"},
    {145, 0xff14, "Scroll_Lock"}, {186, 0x003b, "semicolon"},   {187, 0x003d, "equal"},
    {188, 0x002c, "comma"},       {189, 0x002d, "minus"},       {190, 0x002e, "period"},
    {191, 0x002f, "slash"},       {192, 0x0060, "grave"},       {219, 0x005b, "bracketleft"},
    {220, 0x005c, "backslash"},   {221, 0x005d, "bracketright"}, {222, 0x0027, "apostrophe"},
    {16, 0xffe1, "Shift_L"},      {17, 0xffe3, "Control_L"},    {18, 0xffe9, "Alt_L"},
    {91, 0xffeb, "Super_L"},      {93, 0xff67, "Menu"},         {12, 0xff0b, "Clear"},
    {3, 0xff6b, "Break"},
}};

constexpr std::array<std::string_view, 26> kLetters{"a", "b", "c", "d", "e", "f", "g", "h", "i",
                                                    "j", "k", "l", "m", "n", "o", "p", "q", "r",
                                                    "s", "t", "u", "v", "w", "x", "y", "z"};
constexpr std::array<std::string_view, 10> kDigits{"0", "1", "2", "3", "4", "5", "6", "7", "8", "9"};
constexpr std::array<std::string_view, 24> kFunctionKeys{
    "F1",  "F2",  "F3",  "F4",  "F5",  "F6",  "F7",  "F8",  "F9",  "F10", "F11", "F12",
    "F13", "F14", "F15", "F16", "F17", "F18", "F19", "F20", "F21", "F22", "F23", "F24"};

constexpr uint32_t kVkFirstFunction = 112; // F1
constexpr uint32_t kKeysymF1 = 0xffbe;

} // namespace

uint32_t VirtualKeyToKeysym(uint32_t virtualKey)
{
    if (virtualKey >= 'A' && virtualKey <= 'Z')
        return virtualKey - 'A' + 'a';
    if (virtualKey >= '0' && virtualKey <= '9')
        return virtualKey;
    if (virtualKey >= kVkFirstFunction && virtualKey < kVkFirstFunction + kFunctionKeys.size())
        return kKeysymF1 + (virtualKey - kVkFirstFunction);
    for (const NamedKey& key : kNamedKeys) {
        if (key.virtualKey == virtualKey)
            return key.keysym;
    }
    return 0;
}

std::string_view VirtualKeyToKeysymName(uint32_t virtualKey)
{
    if (virtualKey >= 'A' && virtualKey <= 'Z')
        return kLetters[virtualKey - 'A'];
    if (virtualKey >= '0' && virtualKey <= '9')
        return kDigits[virtualKey - '0'];
    if (virtualKey >= kVkFirstFunction && virtualKey < kVkFirstFunction + kFunctionKeys.size())
        return kFunctionKeys[virtualKey - kVkFirstFunction];
    for (const NamedKey& key : kNamedKeys) {
        if (key.virtualKey == virtualKey)
            return key.name;
    }
    return {};
}

namespace {

struct QtKey {
    int qtKey;
    uint32_t virtualKey;
};

// Keys with a virtual-key code of their own, and the symbols a US layout puts on them with
// Shift, so that Shift+= is stored as the "=" key with Shift.
constexpr QtKey kQtKeys[] = {
    {Qt::Key_Backspace, 8},     {Qt::Key_Tab, 9},          {Qt::Key_Backtab, 9},       {Qt::Key_Return, 13},
    {Qt::Key_Enter, 13},        {Qt::Key_Pause, 19},       {Qt::Key_CapsLock, 20},     {Qt::Key_Escape, 27},
    {Qt::Key_Space, 32},        {Qt::Key_PageUp, 33},      {Qt::Key_PageDown, 34},     {Qt::Key_End, 35},
    {Qt::Key_Home, 36},         {Qt::Key_Left, 37},        {Qt::Key_Up, 38},           {Qt::Key_Right, 39},
    {Qt::Key_Down, 40},         {Qt::Key_Insert, 45},      {Qt::Key_Delete, 46},       {Qt::Key_NumLock, 144},
    {Qt::Key_ScrollLock, 145},  {Qt::Key_Semicolon, 186},  {Qt::Key_Colon, 186},       {Qt::Key_Equal, 187},
    {Qt::Key_Plus, 187},        {Qt::Key_Comma, 188},      {Qt::Key_Less, 188},        {Qt::Key_Minus, 189},
    {Qt::Key_Underscore, 189},  {Qt::Key_Period, 190},     {Qt::Key_Greater, 190},     {Qt::Key_Slash, 191},
    {Qt::Key_Question, 191},    {Qt::Key_QuoteLeft, 192},  {Qt::Key_AsciiTilde, 192},  {Qt::Key_BracketLeft, 219},
    {Qt::Key_BraceLeft, 219},   {Qt::Key_Backslash, 220},  {Qt::Key_Bar, 220},         {Qt::Key_BracketRight, 221},
    {Qt::Key_BraceRight, 221},  {Qt::Key_Apostrophe, 222}, {Qt::Key_QuoteDbl, 222},    {Qt::Key_Exclam, '1'},
    {Qt::Key_At, '2'},          {Qt::Key_NumberSign, '3'}, {Qt::Key_Dollar, '4'},      {Qt::Key_Percent, '5'},
    {Qt::Key_AsciiCircum, '6'}, {Qt::Key_Ampersand, '7'},  {Qt::Key_Asterisk, '8'},    {Qt::Key_ParenLeft, '9'},
    {Qt::Key_ParenRight, '0'},  {Qt::Key_Shift, 16},       {Qt::Key_Control, 17},      {Qt::Key_Alt, 18},
    {Qt::Key_Meta, 91},         {Qt::Key_Menu, 93},        {Qt::Key_Clear, 12},        {Qt::Key_Print, 44},
};

// The keypad's keys, told apart from the main block by the keypad flag.
constexpr QtKey kKeypadKeys[] = {
    {Qt::Key_Asterisk, 106}, {Qt::Key_Plus, 107}, {Qt::Key_Minus, 109},
    {Qt::Key_Period, 110},   {Qt::Key_Comma, 110}, {Qt::Key_Slash, 111},
};

} // namespace

uint32_t QtKeyToVirtualKey(int qtKey, bool keypad)
{
    if (keypad) {
        if (qtKey >= Qt::Key_0 && qtKey <= Qt::Key_9)
            return 96 + static_cast<uint32_t>(qtKey - Qt::Key_0);
        for (const QtKey& key : kKeypadKeys) {
            if (key.qtKey == qtKey)
                return key.virtualKey;
        }
    }
    if (qtKey >= Qt::Key_A && qtKey <= Qt::Key_Z)
        return 'A' + static_cast<uint32_t>(qtKey - Qt::Key_A);
    if (qtKey >= Qt::Key_0 && qtKey <= Qt::Key_9)
        return '0' + static_cast<uint32_t>(qtKey - Qt::Key_0);
    if (qtKey >= Qt::Key_F1 && qtKey <= Qt::Key_F24)
        return kVkFirstFunction + static_cast<uint32_t>(qtKey - Qt::Key_F1);
    for (const QtKey& key : kQtKeys) {
        if (key.qtKey == qtKey)
            return key.virtualKey;
    }
    return 0;
}

} // namespace larimo
