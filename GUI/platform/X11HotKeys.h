// SPDX-License-Identifier: GPL-3.0-or-later
// Hot keys as passive key grabs on the X11 root window, read back in a native event filter.
#pragma once

#include "GlobalHotKeys.h"

#include <QAbstractNativeEventFilter>

#include <vector>

struct xcb_connection_t;
struct _XCBKeySymbols;

namespace larimo {

class X11HotKeys final : public GlobalHotKeys, public QAbstractNativeEventFilter {
    Q_OBJECT
public:
    /// Window thread, with the xcb platform running.
    explicit X11HotKeys(QObject* parent);
    ~X11HotKeys() override;

    bool Register(int id, uint32_t virtualKey, uint32_t modifiers) override;
    void UnregisterAll() override;
    bool Available() const override { return m_connection != nullptr; }
    std::string BackendName() const override { return "X11"; }

    bool nativeEventFilter(const QByteArray& eventType, void* message, qintptr* result) override;

private:
    struct Registration {
        int id;
        uint32_t virtualKey;
        uint32_t modifiers;
    };
    struct Grab {
        int id;
        uint8_t keycode;
        uint16_t modifiers;
    };
    bool GrabKey(const Registration& registration);
    void Ungrab(const Grab& grab);
    void UngrabAll();
    void OnKeyboardMappingChanged();

    xcb_connection_t* m_connection = nullptr;
    _XCBKeySymbols* m_symbols = nullptr;
    uint32_t m_root = 0;
    uint8_t m_xkbFirstEvent = 0; // 0 when the server has no XKB
    bool m_remapPending = false;
    // What the panel asked for, kept to grab again when the keyboard mapping changes.
    std::vector<Registration> m_registrations;
    std::vector<Grab> m_grabs;
};

} // namespace larimo
