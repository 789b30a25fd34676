// SPDX-License-Identifier: GPL-3.0-or-later
// The Wayland hot keys against a stand-in for the desktop's GlobalShortcuts portal on a private
// session bus: what is asked of the desktop, which activations reach the panel, re-binding,
// and desktops that refuse or have no such portal.
#include "platform/PortalHotKeys.h"

#include "config.h"
#include "keyboard.h"
#include "texts.h"

#include <QCoreApplication>
#include <QDBusAbstractAdaptor>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusMetaType>
#include <QDBusObjectPath>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QElapsedTimer>
#include <QProcess>
#include <QSignalSpy>
#include <QTimer>

#include <gtest/gtest.h>

#include <functional>

extern "C" const char* __asan_default_options()
{
    // libdbus keeps its connection data until the process ends; it is not ours to free.
    return "detect_leaks=0";
}

namespace larimo {
namespace {

const QString kPortalService = QStringLiteral("org.freedesktop.portal.Desktop");
const QString kPortalPath = QStringLiteral("/org/freedesktop/portal/desktop");
const QString kShortcutsInterface = QStringLiteral("org.freedesktop.portal.GlobalShortcuts");

QCoreApplication& Application()
{
    static int argc = 1;
    static char name[] = "portal_hotkeys_test";
    static char* argv[] = {name, nullptr};
    static QCoreApplication app(argc, argv);
    return app;
}

bool WaitUntil(const std::function<bool()>& done, int milliseconds = 5000)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > milliseconds)
            return false;
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

// Answers the way xdg-desktop-portal does: a request handle as the reply, the result as a
// Response signal on that handle afterwards.
class FakePortal final : public QDBusVirtualObject {
public:
    bool hasShortcuts = true;
    uint bindResponse = 0;

    QStringList appIds;
    QStringList sessions;
    QStringList closedSessions;
    PortalShortcutList bound;

    QString introspect(const QString& /*path*/) const override { return {}; }

    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override
    {
        const QString member = message.member();
        const QList<QVariant> args = message.arguments();
        if (message.interface() == "org.freedesktop.DBus.Properties" && member == "Get") {
            if (hasShortcuts && args.value(0).toString() == kShortcutsInterface)
                return connection.send(message.createReply(QVariant::fromValue(QDBusVariant(2u))));
            return connection.send(message.createErrorReply("org.freedesktop.DBus.Error.UnknownInterface", "no"));
        }
        if (message.interface() == "org.freedesktop.host.portal.Registry" && member == "Register") {
            appIds << args.value(0).toString();
            return connection.send(message.createReply());
        }
        if (message.interface() == "org.freedesktop.portal.Session" && member == "Close") {
            closedSessions << message.path();
            return connection.send(message.createReply());
        }
        if (message.interface() == "org.freedesktop.portal.Request" && member == "Close")
            return connection.send(message.createReply());
        if (message.interface() != kShortcutsInterface || !hasShortcuts)
            return false;

        const QVariantMap options = qdbus_cast<QVariantMap>(args.last());
        QString sender = message.service().mid(1);
        sender.replace('.', '_');
        const QString request = kPortalPath + "/request/" + sender + "/" + options.value("handle_token").toString();
        connection.send(message.createReply(QVariant::fromValue(QDBusObjectPath(request))));

        QVariantMap results;
        uint response = 0;
        if (member == "CreateSession") {
            const QString session =
                kPortalPath + "/session/" + sender + "/" + options.value("session_handle_token").toString();
            sessions << session;
            results.insert("session_handle", session);
        } else if (member == "BindShortcuts") {
            bound = qdbus_cast<PortalShortcutList>(args.value(1));
            PortalShortcutList granted;
            for (PortalShortcut shortcut : bound) {
                shortcut.properties = {{"description", shortcut.properties.value("description")},
                                       {"trigger_description", shortcut.properties.value("preferred_trigger")}};
                granted << shortcut;
            }
            results.insert("shortcuts", QVariant::fromValue(granted));
            response = bindResponse;
        } else {
            return false;
        }
        QDBusMessage signal = QDBusMessage::createSignal(request, "org.freedesktop.portal.Request", "Response");
        signal << response << results;
        return connection.send(signal);
    }
};

class PortalHotKeysTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        Application();
        static const bool texts =
            StartTexts(LARIMO_SOURCE_DIR "/data/lang/", LARIMO_SOURCE_DIR "/data/lang/larimo_en.tra");
        ASSERT_TRUE(texts);
        qDBusRegisterMetaType<PortalShortcut>();
        qDBusRegisterMetaType<PortalShortcutList>();

        m_daemon.start("dbus-daemon", {"--session", "--nofork", "--nopidfile", "--print-address=1"});
        ASSERT_TRUE(m_daemon.waitForStarted(5000)) << "dbus-daemon is needed for this test";
        ASSERT_TRUE(WaitUntil([&] { return m_daemon.canReadLine(); })) << "dbus-daemon gave no address";
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        const QString id = QString::number(++m_connections);
        m_portalBus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(m_address, "portal" + id));
        m_clientBus = std::make_unique<QDBusConnection>(QDBusConnection::connectToBus(m_address, "client" + id));
        ASSERT_TRUE(m_portalBus->isConnected() && m_clientBus->isConnected());
    }

    void TearDown() override
    {
        m_hotKeys.reset();
        const QString portalName = m_portalBus ? m_portalBus->name() : QString();
        const QString clientName = m_clientBus ? m_clientBus->name() : QString();
        m_portalBus.reset();
        m_clientBus.reset();
        QDBusConnection::disconnectFromBus(portalName);
        QDBusConnection::disconnectFromBus(clientName);
        m_daemon.kill();
        m_daemon.waitForFinished(5000);
    }

    void ServePortal()
    {
        ASSERT_TRUE(m_portalBus->registerService(kPortalService));
        ASSERT_TRUE(m_portalBus->registerVirtualObject(kPortalPath, &m_portal, QDBusConnection::SubPath));
    }

    PortalHotKeys& HotKeys()
    {
        if (!m_hotKeys) {
            m_hotKeys = std::make_unique<PortalHotKeys>(nullptr, *m_clientBus);
            m_activated = std::make_unique<QSignalSpy>(m_hotKeys.get(), &GlobalHotKeys::Activated);
            m_finished = std::make_unique<QSignalSpy>(m_hotKeys.get(), &PortalHotKeys::BindFinished);
        }
        return *m_hotKeys;
    }

    bool WaitForBind()
    {
        const qsizetype before = m_binds;
        const bool done = WaitUntil([&] { return m_finished->size() > before; });
        m_binds = m_finished->size();
        return done && m_finished->last().at(0).toBool();
    }

    void Activate(const QString& session, const QString& shortcut)
    {
        QDBusMessage signal = QDBusMessage::createSignal(kPortalPath, kShortcutsInterface, "Activated");
        signal << QVariant::fromValue(QDBusObjectPath(session)) << shortcut << qulonglong(1234) << QVariantMap();
        m_portalBus->send(signal);
    }

    // Activations seen once `expected` have come (or a busy machine's time ran out), plus any
    // stray one sent with them: the bus delivers in order, so a marker signal sent last proves
    // everything before it has been dispatched.
    QList<int> Activations(qsizetype expected)
    {
        WaitUntil([&] { return m_activated->size() >= expected; });
        QTimer marker;
        marker.setSingleShot(true);
        marker.setInterval(60'000);
        m_clientBus->connect(QString(), kPortalPath, "org.larimo.Test", "Marker", &marker, SLOT(start()));
        m_portalBus->send(QDBusMessage::createSignal(kPortalPath, "org.larimo.Test", "Marker"));
        WaitUntil([&] { return marker.isActive(); });
        QList<int> ids;
        for (const QList<QVariant>& call : *m_activated)
            ids << call.at(0).toInt();
        return ids;
    }

    QProcess m_daemon;
    QString m_address;
    static inline int m_connections = 0;
    std::unique_ptr<QDBusConnection> m_portalBus;
    std::unique_ptr<QDBusConnection> m_clientBus;
    FakePortal m_portal;
    std::unique_ptr<PortalHotKeys> m_hotKeys;
    std::unique_ptr<QSignalSpy> m_activated;
    std::unique_ptr<QSignalSpy> m_finished;
    qsizetype m_binds = 0;
};

TEST(PortalTrigger, WritesModifiersThenTheKeySymbol)
{
    EXPECT_EQ(PortalTrigger(113, kModCtrl | kModAlt), "CTRL+ALT+F2");
    EXPECT_EQ(PortalTrigger(kVkAdd, kModShift), "SHIFT+KP_Add");
    EXPECT_EQ(PortalTrigger('A', kModAlt | kModShift | kModCtrl), "CTRL+ALT+SHIFT+a");
    EXPECT_EQ(PortalTrigger('7', 0), "7");
    EXPECT_EQ(PortalTrigger(0xE8, kModCtrl), "") << "an unassigned key code names no key";
}

TEST_F(PortalHotKeysTest, BindsEveryKeyOfOnePassInOneSession)
{
    ServePortal();
    PortalHotKeys& keys = HotKeys();
    // Registered before the portal has even answered whether it has shortcuts.
    EXPECT_TRUE(keys.Register(kScVoiceEffect1, 113, kModCtrl | kModAlt));
    EXPECT_TRUE(keys.Register(kScListen, kVkAdd, kModShift));
    EXPECT_TRUE(keys.Register(kScBackSound2VolSub, 'A', kModAlt));
    EXPECT_FALSE(keys.Register(kScStop, 0xE8, kModCtrl));
    ASSERT_TRUE(WaitForBind());

    EXPECT_EQ(m_portal.appIds, QStringList{"larimo"});
    EXPECT_EQ(m_portal.sessions.size(), 1);
    ASSERT_EQ(m_portal.bound.size(), 3);
    const auto check = [&](int i, const char* id, const char* description, const char* trigger) {
        SCOPED_TRACE(id);
        EXPECT_EQ(m_portal.bound[i].id, id);
        EXPECT_EQ(m_portal.bound[i].properties.value("description").toString(), description);
        EXPECT_EQ(m_portal.bound[i].properties.value("preferred_trigger").toString(), trigger);
    };
    check(0, "VoiceEffect1", "Voice Effect 1", "CTRL+ALT+F2");
    check(1, "Listen", "Listen", "SHIFT+KP_Add");
    check(2, "BackSound2_VolSub", "Background 2 Volume -", "ALT+a");
    EXPECT_EQ(keys.BoundCount(), 3);
    EXPECT_TRUE(keys.Available());
}

TEST_F(PortalHotKeysTest, OnlyOurSessionsKeysReachThePanel)
{
    ServePortal();
    PortalHotKeys& keys = HotKeys();
    keys.Register(kScListen, kVkAdd, kModShift);
    keys.Register(kScFunSound3, 'C', kModCtrl);
    ASSERT_TRUE(WaitForBind());
    const QString session = m_portal.sessions.value(0);

    Activate(session, "FunSound3");
    Activate(session, "Listen");
    Activate(kPortalPath + "/session/someone_else/s1", "Listen");
    Activate(session, "Stop"); // never asked for
    Activate(session, "NoSuchAction");
    EXPECT_EQ(Activations(2), (QList<int>{kScFunSound3, kScListen}));
}

TEST_F(PortalHotKeysTest, ChangedKeysGetANewSessionAndTheOldOneIsClosed)
{
    ServePortal();
    PortalHotKeys& keys = HotKeys();
    keys.Register(kScVoiceEffect2, 114, kModCtrl);
    ASSERT_TRUE(WaitForBind());
    const QString first = m_portal.sessions.value(0);

    keys.UnregisterAll();
    keys.Register(kScVoiceEffect2, 115, kModCtrl);
    keys.Register(kScStop, 'S', kModCtrl | kModShift);
    ASSERT_TRUE(WaitForBind());
    ASSERT_EQ(m_portal.sessions.size(), 2);
    EXPECT_TRUE(WaitUntil([&] { return m_portal.closedSessions.contains(first); }));
    ASSERT_EQ(m_portal.bound.size(), 2);
    EXPECT_EQ(m_portal.bound[0].properties.value("preferred_trigger").toString(), "CTRL+F4");

    Activate(first, "VoiceEffect2");
    Activate(m_portal.sessions.value(1), "Stop");
    EXPECT_EQ(Activations(1), QList<int>{kScStop});

    m_hotKeys.reset();
    EXPECT_TRUE(WaitUntil([&] { return m_portal.closedSessions.contains(m_portal.sessions.value(1)); }))
        << "closing the panel releases its keys";
}

// Every reconnection to the service registers the keys again: the same keys must neither open
// a new session nor make the desktop ask the user once more.
TEST_F(PortalHotKeysTest, TheSameKeysRegisteredAgainKeepTheirSession)
{
    ServePortal();
    PortalHotKeys& keys = HotKeys();
    keys.Register(kScVoiceEffect1, 'E', kModCtrl);
    keys.Register(kScStop, 'S', kModCtrl | kModShift);
    ASSERT_TRUE(WaitForBind());
    const QString session = m_portal.sessions.value(0);

    for (int pass = 0; pass < 3; ++pass) {
        keys.UnregisterAll();
        keys.Register(kScVoiceEffect1, 'E', kModCtrl);
        keys.Register(kScStop, 'S', kModCtrl | kModShift);
        ASSERT_TRUE(WaitForBind());
    }
    EXPECT_EQ(m_portal.sessions.size(), 1) << "the unchanged keys were bound again";
    EXPECT_FALSE(m_portal.closedSessions.contains(session));
    EXPECT_EQ(keys.BoundCount(), 2);
    Activate(session, "Stop");
    EXPECT_EQ(Activations(1), QList<int>{kScStop});

    // Dropping every key and registering none closes the session.
    keys.UnregisterAll();
    EXPECT_TRUE(WaitUntil([&] { return m_portal.closedSessions.contains(session); }));
    EXPECT_EQ(keys.BoundCount(), 0);
}

TEST_F(PortalHotKeysTest, AUserWhoSaysNoLeavesTheKeysOff)
{
    ServePortal();
    m_portal.bindResponse = 1;
    PortalHotKeys& keys = HotKeys();
    keys.Register(kScVoiceEffect1, 113, kModCtrl);
    EXPECT_FALSE(WaitForBind());
    EXPECT_EQ(keys.BoundCount(), 0);

    // Asking again later is allowed, and works once the desktop agrees.
    m_portal.bindResponse = 0;
    keys.UnregisterAll();
    keys.Register(kScVoiceEffect1, 113, kModCtrl);
    EXPECT_TRUE(WaitForBind());
    EXPECT_EQ(keys.BoundCount(), 1);
}

TEST_F(PortalHotKeysTest, DesktopsWithoutThePortalTurnHotKeysOff)
{
    // A portal without GlobalShortcuts (wlroots desktops, older GNOME).
    m_portal.hasShortcuts = false;
    ServePortal();
    PortalHotKeys& keys = HotKeys();
    EXPECT_TRUE(keys.Register(kScListen, kVkAdd, 0)) << "not known yet";
    EXPECT_FALSE(WaitForBind());
    EXPECT_FALSE(keys.Available());
    EXPECT_FALSE(keys.Register(kScListen, kVkAdd, 0));
    EXPECT_TRUE(m_portal.sessions.isEmpty());
}

TEST_F(PortalHotKeysTest, NoPortalOnTheBusAtAll)
{
    PortalHotKeys& keys = HotKeys();
    keys.Register(kScListen, kVkAdd, 0);
    EXPECT_FALSE(WaitForBind());
    EXPECT_FALSE(keys.Available());
}

} // namespace
} // namespace larimo
