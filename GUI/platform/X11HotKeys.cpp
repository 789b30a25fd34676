// SPDX-License-Identifier: GPL-3.0-or-later
#include "X11HotKeys.h"

#include "KeyMap.h"
#include "keyboard.h"
#include "mlog.h"

#include <QGuiApplication>

#include <xcb/xcb.h>
#include <xcb/xcb_keysyms.h>

#include <array>
#include <cstdlib>

namespace larimo {

namespace {

constexpr uint8_t kBadAccess = 10;
constexpr uint16_t kMatchedModifiers = XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1;
// A grab matches the modifier state exactly, so NumLock (Mod2 on every common layout) and
// CapsLock would each turn a hot key off; every key is grabbed with all four combinations.
constexpr std::array<uint16_t, 4> kLockVariants{0, XCB_MOD_MASK_2, XCB_MOD_MASK_LOCK,
                                                XCB_MOD_MASK_2 | XCB_MOD_MASK_LOCK};

uint16_t XModifiers(uint32_t modifiers)
{
    uint16_t result = 0;
    if ((modifiers & kModAlt) != 0)
        result |= XCB_MOD_MASK_1;
    if ((modifiers & kModCtrl) != 0)
        result |= XCB_MOD_MASK_CONTROL;
    if ((modifiers & kModShift) != 0)
        result |= XCB_MOD_MASK_SHIFT;
    return result;
}

} // namespace

X11HotKeys::X11HotKeys(QObject* parent)
    : GlobalHotKeys(parent)
{
    auto* x11 = qGuiApp == nullptr ? nullptr : qGuiApp->nativeInterface<QNativeInterface::QX11Application>();
    if (x11 == nullptr || x11->connection() == nullptr) {
        LogWarning("X11HotKeys: no X11 connection, hot keys are off");
        return;
    }
    m_connection = x11->connection();
    m_symbols = xcb_key_symbols_alloc(m_connection);
    const xcb_setup_t* setup = xcb_get_setup(m_connection);
    m_root = xcb_setup_roots_iterator(setup).data->root;
    qGuiApp->installNativeEventFilter(this);
}

X11HotKeys::~X11HotKeys()
{
    if (m_connection == nullptr)
        return;
    if (qGuiApp != nullptr)
        qGuiApp->removeNativeEventFilter(this);
    UnregisterAll();
    xcb_key_symbols_free(m_symbols);
}

bool X11HotKeys::Register(int id, uint32_t virtualKey, uint32_t modifiers)
{
    if (m_connection == nullptr || virtualKey == 0)
        return false;
    const uint32_t keysym = VirtualKeyToKeysym(virtualKey);
    xcb_keycode_t* codes = keysym == 0 ? nullptr : xcb_key_symbols_get_keycode(m_symbols, keysym);
    if (codes == nullptr || codes[0] == XCB_NO_SYMBOL) {
        LogWarning("X11HotKeys: key %u has no key on this keyboard; hot key %d is off", virtualKey, id);
        std::free(codes);
        return false;
    }
    const uint8_t keycode = codes[0];
    std::free(codes);
    const uint16_t base = XModifiers(modifiers);

    bool taken = false;
    std::vector<Grab> made;
    for (uint16_t variant : kLockVariants) {
        const uint16_t mods = static_cast<uint16_t>(base | variant);
        const xcb_void_cookie_t cookie = xcb_grab_key_checked(m_connection, 1, m_root, mods, keycode,
                                                              XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
        xcb_generic_error_t* error = xcb_request_check(m_connection, cookie);
        if (error != nullptr) {
            taken = taken || error->error_code == kBadAccess;
            if (error->error_code != kBadAccess)
                LogWarning("X11HotKeys: grab of key %u failed with X error %u", virtualKey, error->error_code);
            std::free(error);
            continue;
        }
        made.push_back({id, keycode, mods});
    }
    if (taken) {
        // Half a grab would fire only with some lock keys on; give the key up entirely.
        LogWarning("X11HotKeys: %s is already taken by another program; hot key %d is off",
                   ShortcutToText(virtualKey, modifiers).c_str(), id);
        for (const Grab& grab : made)
            Ungrab(grab);
        xcb_flush(m_connection);
        return false;
    }
    m_grabs.insert(m_grabs.end(), made.begin(), made.end());
    xcb_flush(m_connection);
    return !made.empty();
}

void X11HotKeys::Ungrab(const Grab& grab)
{
    xcb_ungrab_key(m_connection, grab.keycode, m_root, grab.modifiers);
}

void X11HotKeys::UnregisterAll()
{
    if (m_connection == nullptr)
        return;
    for (const Grab& grab : m_grabs)
        Ungrab(grab);
    m_grabs.clear();
    xcb_flush(m_connection);
}

bool X11HotKeys::nativeEventFilter(const QByteArray& eventType, void* message, qintptr* /*result*/)
{
    if (eventType != "xcb_generic_event_t" || message == nullptr)
        return false;
    const auto* event = static_cast<const xcb_generic_event_t*>(message);
    if ((event->response_type & 0x7F) != XCB_KEY_PRESS)
        return false;
    const auto* press = static_cast<const xcb_key_press_event_t*>(message);
    if (press->event != m_root)
        return false;
    const uint16_t state = press->state & kMatchedModifiers;
    for (const Grab& grab : m_grabs) {
        if (grab.keycode == press->detail && (grab.modifiers & kMatchedModifiers) == state) {
            emit Activated(grab.id);
            return true;
        }
    }
    return false;
}

} // namespace larimo
