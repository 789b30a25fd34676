// SPDX-License-Identifier: GPL-3.0-or-later
// Hot keys on Wayland, where no program may grab keys: the desktop's GlobalShortcuts portal
// binds them for us. Our keys travel as preferred triggers; the desktop may ask the user to
// confirm or change them, and it alone decides which key finally fires which action.
#pragma once

#include "GlobalHotKeys.h"

#include <QDBusArgument>
#include <QDBusConnection>
#include <QList>
#include <QString>
#include <QTimer>
#include <QVariantMap>

#include <vector>

class QDBusMessage;
class QDBusObjectPath;
class QDBusPendingCallWatcher;

namespace larimo {

/// One entry of the portal's shortcut lists: an id and its properties ("description",
/// "preferred_trigger" going out; "description", "trigger_description" coming back).
struct PortalShortcut {
    QString id;
    QVariantMap properties;
};
using PortalShortcutList = QList<PortalShortcut>;

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut);
const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut);

/// The portal's trigger text ("CTRL+ALT+F2", "SHIFT+KP_Add") of a virtual-key code and the
/// modifier bits of keyboard.h; empty when the key has no name the portal knows.
QString PortalTrigger(uint32_t virtualKey, uint32_t modifiers);

class PortalHotKeys final : public GlobalHotKeys {
    Q_OBJECT
public:
    /// The app id the portal knows us by; our desktop file is named after it.
    static constexpr const char* kAppId = "larimo";

    /// Window thread. `bus` is the session bus the portal lives on.
    explicit PortalHotKeys(QObject* parent, const QDBusConnection& bus = QDBusConnection::sessionBus());
    ~PortalHotKeys() override;

    /// Queues the key; every key queued in one pass of the event loop is bound in one request,
    /// because a portal session binds its shortcuts once. True when the key can be offered.
    bool Register(int id, uint32_t virtualKey, uint32_t modifiers) override;
    /// Closes the session, which releases every binding.
    void UnregisterAll() override;
    bool Available() const override { return m_state != State::Unavailable; }
    std::string BackendName() const override { return "GlobalShortcuts portal"; }

    /// How many actions the desktop bound in the last finished request.
    int BoundCount() const { return m_boundCount; }

signals:
    /// A bind request ended; `bound` false when the desktop refused it or failed.
    void BindFinished(bool bound);

private slots:
    void OnResponse(uint response, const QVariantMap& results);
    void OnActivated(const QDBusObjectPath& session, const QString& shortcutId, qulonglong timestamp,
                     const QVariantMap& options);

private:
    enum class State { Checking, Ready, Unavailable };
    enum class Step { None, CreatingSession, Binding };
    struct Pending {
        int id;
        QString trigger;
    };

    void OnVersion(QDBusPendingCallWatcher* watcher);
    void BindNow();
    void CloseSession();
    // Closes the session and forgets every key at once (when the object goes).
    void DropEverything();
    bool SendRequest(const char* method, const QList<QVariant>& arguments, Step step);
    void Finish(bool bound);
    int ActionOf(const QString& shortcutId) const;

    QDBusConnection m_bus;
    State m_state = State::Checking;
    Step m_step = Step::None;
    QTimer m_bindTimer;
    std::vector<Pending> m_pending;    // queued for the next bind request
    std::vector<Pending> m_requested;  // sent in the request under way or bound
    QString m_session;                 // the open session's object path
    QString m_requestPath;             // the Request object whose Response we wait for
    unsigned m_requestCount = 0;
    bool m_listening = false;         // connected to the portal's activations
    int m_boundCount = 0;
    bool m_unbinding = false;          // every key was dropped; the next pass decides what stays
};

} // namespace larimo

Q_DECLARE_METATYPE(larimo::PortalShortcut)
