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
#include <cstring>
#include <string>

namespace larimo {

namespace {

constexpr uint8_t kBadAccess = 10;
constexpr uint16_t kMatchedModifiers = XCB_MOD_MASK_SHIFT | XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1;
// A grab matches the modifier state exactly, so NumLock (Mod2 on every common layout) and
// CapsLock would each turn a hot key off; every key is grabbed with all four combinations.
constexpr std::array<uint16_t, 4> kLockVariants{0, XCB_MOD_MASK_2, XCB_MOD_MASK_LOCK,
                                                XCB_MOD_MASK_2 | XCB_MOD_MASK_LOCK};
// XKB event kinds (the byte after the response type) that bring a new key table.
constexpr uint8_t kXkbNewKeyboardNotify = 0;
constexpr uint8_t kXkbMapNotify = 1;
// More columns than any keyboard mapping has; past its last one a key has no symbol.
constexpr int kMaxKeysymColumns = 64;

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

// What the X server itself does with a key symbol of its keyboard map when it comes with
// Ctrl+Alt, or nothing. These are the server actions of xkeyboard-config ("srvr_ctrl" symbols,
// "xfree86" compatibility map): the server acts on the press and hands it to no client, grab
// or not, so a hot key on such a key would be granted and never fire.
std::string ServerActionOf(xcb_keysym_t keysym)
{
    constexpr xcb_keysym_t kSwitchVt1 = 0x1008FE01;
    constexpr xcb_keysym_t kSwitchVt12 = 0x1008FE0C;
    if (keysym >= kSwitchVt1 && keysym <= kSwitchVt12)
        return "switching to console " + std::to_string(keysym - kSwitchVt1 + 1);
    switch (keysym) {
    case 0xFED5: // Terminate_Server
        return "ending itself";
    case 0x1008FE22: // XF86Next_VMode
    case 0x1008FE23: // XF86Prev_VMode
        return "changing the video mode";
    case 0x1008FE24: // XF86LogWindowTree
    case 0x1008FE25: // XF86LogGrabInfo
        return "its debugging output";
    default:
        return {};
    }
}

// The keyboard types of those keys ("CTRL+ALT") choose the server's level for Ctrl+Alt alone,
// whatever the lock keys; with Shift as well the key gives its plain symbol again.
std::string ServerActionOfKey(xcb_key_symbols_t* symbols, xcb_keycode_t keycode, uint16_t modifiers)
{
    constexpr uint16_t kCtrlAlt = XCB_MOD_MASK_CONTROL | XCB_MOD_MASK_1;
    if ((modifiers & kMatchedModifiers) != kCtrlAlt)
        return {};
    for (int column = 0; column < kMaxKeysymColumns; ++column) {
        std::string action = ServerActionOf(xcb_key_symbols_get_keysym(symbols, keycode, column));
        if (!action.empty())
            return action;
    }
    return {};
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
    // Qt listens to XKB's keyboard notifications on this connection; a new key table (another
    // layout, a keyboard plugged in, the desktop applying its settings after we started) comes
    // as one of them instead of the core MappingNotify.
    constexpr char kXkb[] = "XKEYBOARD";
    xcb_query_extension_reply_t* xkb = xcb_query_extension_reply(
        m_connection, xcb_query_extension(m_connection, sizeof kXkb - 1, kXkb), nullptr);
    if (xkb != nullptr && xkb->present != 0)
        m_xkbFirstEvent = xkb->first_event;
    std::free(xkb);
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
    const Registration registration{id, virtualKey, modifiers};
    m_registrations.push_back(registration);
    return GrabKey(registration);
}

bool X11HotKeys::GrabKey(const Registration& registration)
{
    const uint32_t keysym = VirtualKeyToKeysym(registration.virtualKey);
    xcb_keycode_t* codes = keysym == 0 ? nullptr : xcb_key_symbols_get_keycode(m_symbols, keysym);
    if (codes == nullptr || codes[0] == XCB_NO_SYMBOL) {
        LogWarning("X11HotKeys: key %u has no key on this keyboard; hot key %d is off", registration.virtualKey,
                   registration.id);
        std::free(codes);
        return false;
    }
    const uint8_t keycode = codes[0];
    std::free(codes);
    const uint16_t base = XModifiers(registration.modifiers);
    const std::string shortcut = ShortcutToText(registration.virtualKey, registration.modifiers);

    const std::string serverAction = ServerActionOfKey(m_symbols, keycode, base);
    if (!serverAction.empty()) {
        LogWarning("X11HotKeys: the X server keeps %s for %s; hot key %d is off", shortcut.c_str(),
                   serverAction.c_str(), registration.id);
        return false;
    }

    bool taken = false;
    std::vector<Grab> made;
    for (uint16_t variant : kLockVariants) {
        const auto mods = static_cast<uint16_t>(base | variant);
        const xcb_void_cookie_t cookie = xcb_grab_key_checked(m_connection, 1, m_root, mods, keycode,
                                                              XCB_GRAB_MODE_ASYNC, XCB_GRAB_MODE_ASYNC);
        xcb_generic_error_t* error = xcb_request_check(m_connection, cookie);
        if (error != nullptr) {
            taken = taken || error->error_code == kBadAccess;
            if (error->error_code != kBadAccess)
                LogWarning("X11HotKeys: grab of key %u failed with X error %u", registration.virtualKey,
                           error->error_code);
            std::free(error);
            continue;
        }
        made.push_back({registration.id, keycode, mods});
    }
    if (taken) {
        // Half a grab would fire only with some lock keys on; give the key up entirely.
        LogWarning("X11HotKeys: %s is already taken by another program; hot key %d is off", shortcut.c_str(),
                   registration.id);
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

void X11HotKeys::UngrabAll()
{
    for (const Grab& grab : m_grabs)
        Ungrab(grab);
    m_grabs.clear();
    xcb_flush(m_connection);
}

void X11HotKeys::UnregisterAll()
{
    if (m_connection == nullptr)
        return;
    UngrabAll();
    m_registrations.clear();
}

void X11HotKeys::OnKeyboardMappingChanged()
{
    m_remapPending = false;
    // The grabs hold key codes of the old table: the same symbol may sit on another key now.
    xcb_key_symbols_free(m_symbols);
    m_symbols = xcb_key_symbols_alloc(m_connection);
    if (m_registrations.empty())
        return;
    UngrabAll();
    int active = 0;
    for (const Registration& registration : m_registrations) {
        if (GrabKey(registration))
            ++active;
    }
    LogInfo("X11HotKeys: the keyboard mapping changed; %d of %zu hot keys are active", active,
            m_registrations.size());
}

bool X11HotKeys::nativeEventFilter(const QByteArray& eventType, void* message, qintptr* /*result*/)
{
    if (eventType != "xcb_generic_event_t" || message == nullptr)
        return false;
    const auto* event = static_cast<const xcb_generic_event_t*>(message);
    const uint8_t type = event->response_type & 0x7F;
    if (type != XCB_KEY_PRESS) {
        bool remapped = false;
        if (type == XCB_MAPPING_NOTIFY) {
            const auto* mapping = static_cast<const xcb_mapping_notify_event_t*>(message);
            remapped = mapping->request == XCB_MAPPING_KEYBOARD || mapping->request == XCB_MAPPING_MODIFIER;
        } else if (m_xkbFirstEvent != 0 && type == m_xkbFirstEvent) {
            uint8_t xkbType = 0;
            std::memcpy(&xkbType, static_cast<const uint8_t*>(message) + 1, 1);
            remapped = xkbType == kXkbNewKeyboardNotify || xkbType == kXkbMapNotify;
        }
        if (remapped && !m_remapPending) {
            // One table change arrives as several notifications; grab once, after Qt has seen them.
            m_remapPending = true;
            QMetaObject::invokeMethod(this, [this] { OnKeyboardMappingChanged(); }, Qt::QueuedConnection);
        }
        return false;
    }
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
