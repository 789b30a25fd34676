// SPDX-License-Identifier: GPL-3.0-or-later
// Hot keys that work while another program has the focus. One backend per kind of desktop:
// key grabs on X11, the GlobalShortcuts portal on Wayland. A key another program already owns
// is logged and stays inactive; it is never fatal.
#pragma once

#include <QObject>

#include <cstdint>
#include <memory>
#include <string>

namespace larimo {

/// Window thread only. Activated is emitted on the window thread.
class GlobalHotKeys : public QObject {
    Q_OBJECT
public:
    using QObject::QObject;
    ~GlobalHotKeys() override = default;

    /// Registers hot key `id` for the virtual-key code and modifier bits (kModAlt, kModCtrl,
    /// kModShift of keyboard.h). False, with a log record, when the key cannot be had.
    virtual bool Register(int id, uint32_t virtualKey, uint32_t modifiers) = 0;
    /// Drops every registration of this object.
    virtual void UnregisterAll() = 0;
    /// Whether the desktop lets this backend work at all.
    virtual bool Available() const = 0;
    virtual std::string BackendName() const = 0;

signals:
    void Activated(int id);
};

/// The backend that fits the running desktop (X11 grabs when the platform is xcb, the portal
/// on Wayland, otherwise one that reports hot keys as unavailable), as a child of `parent`.
GlobalHotKeys* CreateGlobalHotKeys(QObject* parent);

} // namespace larimo
