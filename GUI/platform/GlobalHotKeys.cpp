// SPDX-License-Identifier: GPL-3.0-or-later
#include "GlobalHotKeys.h"

#include "PortalHotKeys.h"
#include "X11HotKeys.h"
#include "mlog.h"

#include <QGuiApplication>

namespace larimo {

namespace {

// Offscreen and other platforms without a desktop: the panel works, hot keys stay off.
class NoHotKeys final : public GlobalHotKeys {
public:
    NoHotKeys(QObject* parent, std::string why)
        : GlobalHotKeys(parent)
        , m_why(std::move(why))
    {
        LogInfo("Global hot keys are off: %s", m_why.c_str());
    }
    bool Register(int /*id*/, uint32_t /*virtualKey*/, uint32_t /*modifiers*/) override { return false; }
    void UnregisterAll() override {}
    bool Available() const override { return false; }
    std::string BackendName() const override { return "none (" + m_why + ")"; }

private:
    std::string m_why;
};

} // namespace

GlobalHotKeys* CreateGlobalHotKeys(QObject* parent)
{
    // LARIMO_HOTKEYS=x11|portal|none overrides the choice, e.g. to try the portal from X11.
    const QByteArray wanted = qgetenv("LARIMO_HOTKEYS");
    if (wanted == "portal")
        return new PortalHotKeys(parent);
    if (wanted == "none")
        return new NoHotKeys(parent, "switched off by LARIMO_HOTKEYS");
    const QString platform = QGuiApplication::platformName();
    if (platform == "xcb" || wanted == "x11")
        return new X11HotKeys(parent);
    if (platform == "wayland")
        return new PortalHotKeys(parent);
    return new NoHotKeys(parent, "the platform \"" + platform.toStdString() + "\" has no global key grabs");
}

} // namespace larimo
