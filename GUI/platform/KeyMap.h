// SPDX-License-Identifier: GPL-3.0-or-later
// The settings keep hot keys as classic virtual-key codes so that settings files travel between
// systems; the hot-key backends need the desktop's key symbols instead. Pure functions, any thread.
#pragma once

#include <cstdint>
#include <string_view>

namespace larimo {

/// The X11 key symbol of a virtual-key code, 0 when the code names no key we can grab.
uint32_t VirtualKeyToKeysym(uint32_t virtualKey);
/// The key symbol's name as the shortcut triggers of desktop portals write it ("F5", "a",
/// "KP_Add"); empty when the code names no key.
std::string_view VirtualKeyToKeysymName(uint32_t virtualKey);

/// The virtual-key code of a key Qt reports (a Qt::Key value; `keypad` when it came from the
/// numeric keypad). Shifted symbols of a US layout map to their key ("+" is the "=" key);
/// 0 for a key the settings cannot name.
uint32_t QtKeyToVirtualKey(int qtKey, bool keypad);

} // namespace larimo
