// SPDX-License-Identifier: GPL-3.0-or-later
#include "PortalHotKeys.h"

#include "KeyMap.h"
#include "config.h"
#include "keyboard.h"
#include "mlog.h"

#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusVariant>

#include <algorithm>

namespace larimo {

namespace {

const QString kPortalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPortalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kShortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");
const QString kRequestInterface = QStringLiteral("org.freedesktop.portal.Request");
const QString kSessionInterface = QStringLiteral("org.freedesktop.portal.Session");
const QString kRegistryInterface = QStringLiteral("org.freedesktop.host.portal.Registry");

constexpr uint kResponseSuccess = 0;

QString SessionPathOf(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<QDBusObjectPath>())
        return value.value<QDBusObjectPath>().path();
    return value.toString();
}

void RegisterTypes()
{
    static const bool registered = [] {
        qDBusRegisterMetaType<PortalShortcut>();
        qDBusRegisterMetaType<PortalShortcutList>();
        return true;
    }();
    (void)registered;
}

} // namespace

QDBusArgument& operator<<(QDBusArgument& argument, const PortalShortcut& shortcut)
{
    argument.beginStructure();
    argument << shortcut.id << shortcut.properties;
    argument.endStructure();
    return argument;
}

const QDBusArgument& operator>>(const QDBusArgument& argument, PortalShortcut& shortcut)
{
    argument.beginStructure();
    argument >> shortcut.id >> shortcut.properties;
    argument.endStructure();
    return argument;
}

QString PortalTrigger(uint32_t virtualKey, uint32_t modifiers)
{
    const std::string_view name = VirtualKeyToKeysymName(virtualKey);
    if (name.empty())
        return {};
    QString trigger;
    if ((modifiers & kModCtrl) != 0)
        trigger += QStringLiteral("CTRL+");
    if ((modifiers & kModAlt) != 0)
        trigger += QStringLiteral("ALT+");
    if ((modifiers & kModShift) != 0)
        trigger += QStringLiteral("SHIFT+");
    return trigger + QString::fromLatin1(name.data(), static_cast<qsizetype>(name.size()));
}

PortalHotKeys::PortalHotKeys(QObject* parent, const QDBusConnection& bus)
    : GlobalHotKeys(parent)
    , m_bus(bus)
{
    RegisterTypes();
    m_bindTimer.setSingleShot(true);
    m_bindTimer.setInterval(0);
    connect(&m_bindTimer, &QTimer::timeout, this, &PortalHotKeys::BindNow);

    if (!m_bus.isConnected()) {
        m_state = State::Unavailable;
        LogWarning("PortalHotKeys: no session bus (%s), hot keys are off",
                   m_bus.lastError().message().toUtf8().constData());
        return;
    }

    // A program outside a sandbox tells the portal its app id first, so that the desktop can
    // show our name and icon with the shortcuts. Portals older than the registry don't need it.
    QDBusMessage registration = QDBusMessage::createMethodCall(kPortalService, kPortalPath, kRegistryInterface,
                                                               QStringLiteral("Register"));
    registration << QString::fromLatin1(kAppId) << QVariantMap();
    auto* registered = new QDBusPendingCallWatcher(m_bus.asyncCall(registration), this);
    connect(registered, &QDBusPendingCallWatcher::finished, this, [](QDBusPendingCallWatcher* watcher) {
        if (watcher->isError())
            LogInfo("PortalHotKeys: app id not registered with the portal: %s",
                    watcher->error().message().toUtf8().constData());
        watcher->deleteLater();
    });

    QDBusMessage version = QDBusMessage::createMethodCall(kPortalService, kPortalPath,
                                                          QStringLiteral("org.freedesktop.DBus.Properties"),
                                                          QStringLiteral("Get"));
    version << kShortcutsInterface << QStringLiteral("version");
    auto* checked = new QDBusPendingCallWatcher(m_bus.asyncCall(version), this);
    connect(checked, &QDBusPendingCallWatcher::finished, this, &PortalHotKeys::OnVersion);
}

PortalHotKeys::~PortalHotKeys()
{
    DropEverything();
}

void PortalHotKeys::OnVersion(QDBusPendingCallWatcher* watcher)
{
    watcher->deleteLater();
    QDBusPendingReply<QDBusVariant> reply = *watcher;
    if (reply.isError()) {
        m_state = State::Unavailable;
        LogWarning("PortalHotKeys: the desktop has no global shortcuts portal (%s); hot keys are off",
                   reply.error().message().toUtf8().constData());
        if (!m_pending.empty()) {
            m_pending.clear();
            emit BindFinished(false);
        }
        return;
    }
    m_state = State::Ready;
    LogInfo("PortalHotKeys: global shortcuts portal version %u", reply.value().variant().toUInt());
    if (!m_pending.empty())
        m_bindTimer.start();
}

bool PortalHotKeys::Register(int id, uint32_t virtualKey, uint32_t modifiers)
{
    if (m_state == State::Unavailable || id < 0 || id >= kShortcutCount)
        return false;
    const QString trigger = PortalTrigger(virtualKey, modifiers);
    if (trigger.isEmpty()) {
        LogWarning("PortalHotKeys: key %u has no name the desktop knows; hot key %d is off", virtualKey, id);
        return false;
    }
    m_pending.erase(std::remove_if(m_pending.begin(), m_pending.end(), [id](const Pending& p) { return p.id == id; }),
                    m_pending.end());
    m_pending.push_back({id, trigger});
    m_bindTimer.start();
    return true;
}

void PortalHotKeys::UnregisterAll()
{
    // The keys stay bound until the next pass: the same keys registered again in the same turn
    // keep their session, so the desktop does not ask the user about them once more.
    m_pending.clear();
    m_unbinding = true;
    if (m_state != State::Unavailable)
        m_bindTimer.start();
}

void PortalHotKeys::DropEverything()
{
    m_bindTimer.stop();
    m_pending.clear();
    m_unbinding = false;
    if (m_step != Step::None) {
        // Abandon the request under way; its answer must not bind anything any more.
        m_bus.disconnect(kPortalService, m_requestPath, kRequestInterface, QStringLiteral("Response"), this,
                         SLOT(OnResponse(uint, QVariantMap)));
        m_bus.call(QDBusMessage::createMethodCall(kPortalService, m_requestPath, kRequestInterface,
                                                  QStringLiteral("Close")),
                   QDBus::NoBlock);
        m_step = Step::None;
    }
    m_requested.clear();
    CloseSession();
}

void PortalHotKeys::CloseSession()
{
    m_boundCount = 0;
    if (m_session.isEmpty())
        return;
    m_bus.call(QDBusMessage::createMethodCall(kPortalService, m_session, kSessionInterface, QStringLiteral("Close")),
               QDBus::NoBlock);
    m_session.clear();
}

void PortalHotKeys::BindNow()
{
    if (m_state == State::Checking || m_step != Step::None)
        return; // the version check or the request under way starts us again
    const bool unbinding = m_unbinding;
    m_unbinding = false;
    if (m_pending.empty()) {
        // Every key was dropped and none registered again.
        if (unbinding) {
            m_requested.clear();
            CloseSession();
        }
        return;
    }
    if (m_state == State::Unavailable) {
        m_pending.clear();
        emit BindFinished(false);
        return;
    }
    // The keys the desktop has already bound need neither a new session nor a new question.
    const auto same = [](const std::vector<Pending>& a, const std::vector<Pending>& b) {
        return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](const Pending& x, const Pending& y) {
                   return x.id == y.id && x.trigger == y.trigger;
               });
    };
    if (!m_session.isEmpty() && m_boundCount > 0 && same(m_pending, m_requested)) {
        m_pending.clear();
        emit BindFinished(true);
        return;
    }
    // A session binds its shortcuts once; a changed set needs a new session.
    CloseSession();
    m_requested = std::move(m_pending);
    m_pending.clear();
    ++m_requestCount;
    QVariantMap options;
    options.insert(QStringLiteral("session_handle_token"), QStringLiteral("larimo_session%1").arg(m_requestCount));
    SendRequest("CreateSession", {options}, Step::CreatingSession);
}

bool PortalHotKeys::SendRequest(const char* method, const QList<QVariant>& arguments, Step step)
{
    // The answer comes as a Response signal of a Request object whose path we can predict from
    // our bus name and a token; listen there before asking, or a quick portal is missed.
    const QString token = QStringLiteral("larimo_request%1_%2").arg(m_requestCount).arg(static_cast<int>(step));
    QString sender = m_bus.baseService().mid(1);
    sender.replace(QLatin1Char('.'), QLatin1Char('_'));
    m_requestPath = QStringLiteral("/org/freedesktop/portal/desktop/request/%1/%2").arg(sender, token);
    m_bus.connect(kPortalService, m_requestPath, kRequestInterface, QStringLiteral("Response"), this,
                  SLOT(OnResponse(uint, QVariantMap)));
    m_step = step;

    QList<QVariant> withToken = arguments;
    QVariantMap options = withToken.takeLast().toMap();
    options.insert(QStringLiteral("handle_token"), token);
    withToken.append(options);
    QDBusMessage call = QDBusMessage::createMethodCall(kPortalService, kPortalPath, kShortcutsInterface,
                                                       QString::fromLatin1(method));
    call.setArguments(withToken);

    const unsigned requestCount = m_requestCount;
    auto* watcher = new QDBusPendingCallWatcher(m_bus.asyncCall(call), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this,
            [this, method, requestCount, step](QDBusPendingCallWatcher* finished) {
                finished->deleteLater();
                if (requestCount != m_requestCount || m_step != step)
                    return; // abandoned meanwhile
                QDBusPendingReply<QDBusObjectPath> reply = *finished;
                if (reply.isError()) {
                    LogWarning("PortalHotKeys: %s failed: %s", method, reply.error().message().toUtf8().constData());
                    Finish(false);
                    return;
                }
                const QString handle = reply.value().path();
                if (handle != m_requestPath) {
                    // Portals before the predictable paths answer elsewhere.
                    m_bus.disconnect(kPortalService, m_requestPath, kRequestInterface, QStringLiteral("Response"), this,
                                     SLOT(OnResponse(uint, QVariantMap)));
                    m_requestPath = handle;
                    m_bus.connect(kPortalService, m_requestPath, kRequestInterface, QStringLiteral("Response"), this,
                                  SLOT(OnResponse(uint, QVariantMap)));
                }
            });
    return true;
}

void PortalHotKeys::OnResponse(uint response, const QVariantMap& results)
{
    m_bus.disconnect(kPortalService, m_requestPath, kRequestInterface, QStringLiteral("Response"), this,
                     SLOT(OnResponse(uint, QVariantMap)));
    const Step step = m_step;
    m_step = Step::None;
    if (step == Step::CreatingSession) {
        m_session = response == kResponseSuccess ? SessionPathOf(results.value(QStringLiteral("session_handle"))) : QString();
        if (m_session.isEmpty()) {
            LogWarning("PortalHotKeys: the desktop gave no shortcut session (response %u); hot keys are off", response);
            Finish(false);
            return;
        }
        if (!m_listening) {
            // Listened for once a session exists: only then can activations concern us.
            m_listening = m_bus.connect(kPortalService, kPortalPath, kShortcutsInterface, QStringLiteral("Activated"),
                                        this, SLOT(OnActivated(QDBusObjectPath, QString, qulonglong, QVariantMap)));
        }
        PortalShortcutList shortcuts;
        for (const Pending& pending : m_requested) {
            QVariantMap properties;
            properties.insert(QStringLiteral("description"),
                              QString::fromStdString(ShortcutActionText(static_cast<ShortcutAction>(pending.id))));
            properties.insert(QStringLiteral("preferred_trigger"), pending.trigger);
            const std::string_view key = kShortcutKeys[static_cast<size_t>(pending.id)];
            shortcuts.push_back({QString::fromLatin1(key.data(), static_cast<qsizetype>(key.size())), properties});
        }
        SendRequest("BindShortcuts",
                    {QVariant::fromValue(QDBusObjectPath(m_session)), QVariant::fromValue(shortcuts), QString(),
                     QVariantMap()},
                    Step::Binding);
        return;
    }
    if (step != Step::Binding)
        return;
    if (response != kResponseSuccess) {
        // 1: the user said no in the desktop's dialog; 2: anything else.
        LogWarning("PortalHotKeys: the desktop did not bind the hot keys (response %u)", response);
        Finish(false);
        return;
    }
    PortalShortcutList bound;
    const QVariant list = results.value(QStringLiteral("shortcuts"));
    if (list.userType() == qMetaTypeId<QDBusArgument>())
        list.value<QDBusArgument>() >> bound;
    int count = 0;
    for (const PortalShortcut& shortcut : bound) {
        if (ActionOf(shortcut.id) < 0)
            continue;
        ++count;
        LogInfo("PortalHotKeys: %s bound to %s", shortcut.id.toUtf8().constData(),
                shortcut.properties.value(QStringLiteral("trigger_description")).toString().toUtf8().constData());
    }
    m_boundCount = count;
    Finish(true);
}

void PortalHotKeys::Finish(bool bound)
{
    m_step = Step::None;
    if (!bound)
        m_boundCount = 0;
    emit BindFinished(bound);
    if (!m_pending.empty())
        m_bindTimer.start();
}

int PortalHotKeys::ActionOf(const QString& shortcutId) const
{
    for (const Pending& pending : m_requested) {
        const std::string_view key = kShortcutKeys[static_cast<size_t>(pending.id)];
        if (shortcutId == QLatin1String(key.data(), static_cast<qsizetype>(key.size())))
            return pending.id;
    }
    return -1;
}

void PortalHotKeys::OnActivated(const QDBusObjectPath& session, const QString& shortcutId, qulonglong /*timestamp*/,
                                const QVariantMap& /*options*/)
{
    if (m_session.isEmpty() || session.path() != m_session)
        return; // another program's session, or one we closed
    const int action = ActionOf(shortcutId);
    if (action >= 0)
        emit Activated(action);
}

} // namespace larimo
