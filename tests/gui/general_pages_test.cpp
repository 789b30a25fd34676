// SPDX-License-Identifier: GPL-3.0-or-later
// The shortcut keys tab and the general tab against the real service and the private sound
// server: keys pressed into a binding, the device lists, the autostart entry and the restart.
#include "QtTestApplication.h"

#include "MicCleanupGroup.h"
#include "OptionsSheet.h"
#include "OptionsTestSupport.h"
#include "../server/ServiceSandbox.h"
#include "NTService.h"
#include "platform/ServiceManager.h"
#include "PgShortcuts.h"
#include "PgSoundCard.h"
#include "keyboard.h"
#include "moipc_cmds.h"
#include "platform/Autostart.h"
#include "texts.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDir>
#include <QLabel>
#include <QPushButton>
#include <QTest>
#include <QTreeWidget>

#include <cmath>
#include <cstdio>
#include <sstream>
#include <filesystem>
#include <fstream>
#include <thread>

namespace larimo {
namespace {

namespace fs = std::filesystem;

std::string Settings()
{
    return test::PanelSettings("[soundcards]\ninput=Microphone\nmonitor=Speakers\n"
                               "[Shortcuts]\nVoiceEffect1=Ctrl+F5\nListen=Alt+L\n");
}

class GeneralPagesTest : public test::OptionsTest {
protected:
    GeneralPagesTest()
        : OptionsTest(Settings())
    {
    }
    void SetUp() override
    {
        OptionsTest::SetUp();
        m_config = fs::temp_directory_path() / ("larimo-general-" + std::to_string(::getpid()));
        fs::create_directories(m_config);
        ::setenv("XDG_CONFIG_HOME", m_config.c_str(), 1);
    }
    void TearDown() override
    {
        m_sheet.reset();
        ::unsetenv("XDG_CONFIG_HOME");
        std::error_code ignored;
        fs::remove_all(m_config, ignored);
        OptionsTest::TearDown();
    }

    CPgShortcuts& Shortcuts() { return OpenPage<CPgShortcuts>(3); }
    CPgSoundCard& SoundCard() { return OpenPage<CPgSoundCard>(4); }

    static QString KeyText(CPgShortcuts& page, int row) { return page.List()->topLevelItem(row)->text(1); }

    fs::path m_config;
};

TEST_F(GeneralPagesTest, PressedKeysBecomeTheBindingInTheTextOfTheSettings)
{
    CPgShortcuts& page = Shortcuts();
    ASSERT_EQ(page.List()->topLevelItemCount(), kShortcutCount);
    EXPECT_EQ(page.List()->topLevelItem(8)->text(0), "Background 1 Volume +");
    EXPECT_EQ(KeyText(page, 0), "Ctrl+F5");
    EXPECT_EQ(page.PageState(), CPgShortcuts::State::Idle);

    page.SelectRow(kScVoiceEffect2);
    page.OnChange();
    ASSERT_EQ(page.PageState(), CPgShortcuts::State::Capturing);
    EXPECT_EQ(page.findChild<QPushButton*>("ctrl1124")->text(), "Press Keys...");
    m_sheet->grab().save(QDir::tempPath() + "/larimo-shortcuts-page.png");
    QWidget* focus = page.List();
    QTest::keyPress(focus, Qt::Key_Control, Qt::ControlModifier);
    QTest::keyPress(focus, Qt::Key_Shift, Qt::ControlModifier | Qt::ShiftModifier);
    QTest::keyPress(focus, Qt::Key_F7, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(KeyText(page, kScVoiceEffect2), "Ctrl+Shift+F7");
    QTest::keyRelease(focus, Qt::Key_F7, Qt::ControlModifier | Qt::ShiftModifier);
    EXPECT_EQ(page.PageState(), CPgShortcuts::State::Selected);
    EXPECT_TRUE(COptionsPage::IsModified());
    EXPECT_EQ(page.Working().m_shortcuts[kScVoiceEffect2], ShortcutFromText("Ctrl+Shift+F7"));

    // A keypad key and a shifted symbol are stored as their keys.
    page.SelectRow(kScStop);
    page.OnChange();
    QTest::keyClick(focus, Qt::Key_Plus, Qt::KeypadModifier);
    EXPECT_EQ(page.Working().m_shortcuts[kScStop], MakeShortcut(kVkAdd, 0));

    m_sheet->PressOk();
    const std::string ini = File("config.ini");
    EXPECT_NE(ini.find("VoiceEffect2=Ctrl+Shift+F7"), std::string::npos) << ini;
    EXPECT_NE(ini.find("Stop=" + ShortcutToText(MakeShortcut(kVkAdd, 0))), std::string::npos) << ini;
}

TEST_F(GeneralPagesTest, EscapeOrOnlyModifiersKeepWhatWasBound)
{
    CPgShortcuts& page = Shortcuts();
    page.SelectRow(kScVoiceEffect1);
    page.OnChange();
    QTest::keyPress(page.List(), Qt::Key_A);
    EXPECT_EQ(KeyText(page, kScVoiceEffect1), "A");
    QTest::keyPress(page.List(), Qt::Key_Escape);
    EXPECT_EQ(KeyText(page, kScVoiceEffect1), "Ctrl+F5");
    EXPECT_EQ(page.Working().m_shortcuts[kScVoiceEffect1], ShortcutFromText("Ctrl+F5"));
    EXPECT_EQ(page.PageState(), CPgShortcuts::State::Selected);

    page.OnChange();
    QTest::keyPress(page.List(), Qt::Key_Shift, Qt::ShiftModifier);
    EXPECT_EQ(KeyText(page, kScVoiceEffect1), "Shift+");
    QTest::keyRelease(page.List(), Qt::Key_Shift);
    EXPECT_EQ(KeyText(page, kScVoiceEffect1), "Ctrl+F5") << "a capture of modifiers alone shows the binding again";
    EXPECT_EQ(page.Working().m_shortcuts[kScVoiceEffect1], ShortcutFromText("Ctrl+F5"));
    EXPECT_FALSE(COptionsPage::IsModified());
}

TEST_F(GeneralPagesTest, RemoveClearsABindingAndIsOffWhereThereIsNone)
{
    CPgShortcuts& page = Shortcuts();
    auto* remove = page.findChild<QPushButton*>("ctrl1152");
    page.SelectRow(kScFunSound1);
    EXPECT_FALSE(remove->isEnabled());
    page.SelectRow(kScListen);
    ASSERT_TRUE(remove->isEnabled());
    remove->click();
    EXPECT_EQ(KeyText(page, kScListen), "");
    EXPECT_EQ(page.Working().m_shortcuts[kScListen], 0U);
    EXPECT_FALSE(remove->isEnabled());
    EXPECT_TRUE(COptionsPage::IsModified());
}

TEST_F(GeneralPagesTest, AKeyUsedTwiceOrKeptByTheDesktopIsSaidOnThePage)
{
    CPgShortcuts& page = Shortcuts();
    page.SelectRow(kScStop);
    page.OnChange();
    QTest::keyPress(page.List(), Qt::Key_F5, Qt::ControlModifier);
    QTest::keyRelease(page.List(), Qt::Key_F5, Qt::ControlModifier);
    EXPECT_EQ(page.Notice()->text(), "Ctrl+F5 is also the shortcut of \"Voice Effect 1\"; pressing it does both.");

    page.SetKeyProbe([](uint32_t key, uint32_t modifiers) { return !(key == 'P' && modifiers == kModAlt); });
    page.OnChange();
    EXPECT_EQ(page.Notice()->text(), "") << "a new capture clears the old notice";
    QTest::keyPress(page.List(), Qt::Key_P, Qt::AltModifier);
    QTest::keyRelease(page.List(), Qt::Key_P, Qt::AltModifier);
    EXPECT_EQ(page.Notice()->text(),
              "The desktop does not let Larimo have Alt+P: another program holds it. Choose other keys.");
}

TEST_F(GeneralPagesTest, DeviceListsHoldNeitherMonitorsNorTheVirtualMicrophone)
{
    // Make sure the virtual microphone exists, as it does while the service runs.
    Connect();
    CPgSoundCard& page = SoundCard();
    QStringList recording;
    for (int i = 0; i < page.Recording()->count(); ++i)
        recording << page.Recording()->itemText(i);
    QStringList playback;
    for (int i = 0; i < page.Playback()->count(); ++i)
        playback << page.Playback()->itemText(i);
    EXPECT_TRUE(recording.contains("Microphone (Test)")) << recording.join(", ").toStdString();
    EXPECT_TRUE(playback.contains("Speakers")) << playback.join(", ").toStdString();
    for (const QString& name : recording + playback) {
        EXPECT_FALSE(name.contains("Larimo Microphone")) << name.toStdString();
        EXPECT_FALSE(name.startsWith("Monitor of")) << name.toStdString();
    }
    // "Microphone" is stored: the first name that begins with it is chosen.
    EXPECT_EQ(page.Recording()->currentText(), "Microphone (Test)");
    EXPECT_EQ(page.Playback()->currentText(), "Speakers");
    EXPECT_NE(page.MicGroup(), nullptr);
    EXPECT_TRUE(page.MicGroup()->isVisible());
    m_sheet->grab().save(QDir::tempPath() + "/larimo-general-page.png");
}

// The microphone chosen on the page is the one the voice service records from once OK is
// pressed: a tone fed to it arrives at "Larimo Microphone".
TEST_F(GeneralPagesTest, TheChosenMicrophoneIsWhatTheServiceRecordsAfterOk)
{
    const auto shell = [](const std::string& command) { return test::Shell(command); };
    // A second microphone with a tone on it; the service starts on the silent test microphone.
    std::istringstream ids(shell(
        "pactl load-module module-null-sink sink_name=desk_feed \"sink_properties='device.description=\\\"Desk Feed\\\"'\" && "
        "pactl load-module module-remap-source master=desk_feed.monitor source_name=desk_mic "
        "\"source_properties='device.description=\\\"Desk Microphone\\\"'\" && "
        "pactl load-module module-sine sink=desk_feed frequency=440"));
    std::vector<std::string> modules;
    for (std::string id; std::getline(ids, id);)
        modules.push_back(id);
    ASSERT_EQ(modules.size(), 3U);
    const auto level = [&] {
        const std::string file = (m_config / "heard.raw").string();
        shell("timeout 2 parec --device=larimo_mic_source --raw --format=s16le --rate=44100 --channels=1 > '" + file +
              "' 2>/dev/null");
        std::ifstream in(file, std::ios::binary);
        std::vector<int16_t> samples;
        for (int16_t sample; in.read(reinterpret_cast<char*>(&sample), 2);)
            samples.push_back(sample);
        double sum = 0;
        for (size_t i = samples.size() / 2; i < samples.size(); ++i)
            sum += static_cast<double>(samples[i]) * samples[i];
        return samples.size() < 1000 ? 0.0 : std::sqrt(sum / static_cast<double>(samples.size() - samples.size() / 2));
    };
    std::ofstream(m_service.Folder() / "config.ini", std::ios::app) << "[voice]\nnoiseSuppression=0\n";
    m_settings->LoadAll();
    Connect();
    const double before = level();

    CPgSoundCard& page = OpenPage<CPgSoundCard>(4);
    const int desk = page.Recording()->findText("Desk Microphone");
    ASSERT_GT(desk, 0);
    page.Recording()->setCurrentIndex(desk);
    m_sheet->PressOk();
    EXPECT_EQ(m_settings->m_input, "Desk Microphone");
    EXPECT_TRUE(test::WaitFor(5000, [&] { return level() > 1000.0; }))
        << "the tone on the chosen microphone never reached Larimo Microphone (level before: " << before << ")";
    EXPECT_LT(before, 300.0) << "the tone was heard before the microphone was chosen";
    for (auto id = modules.rbegin(); id != modules.rend(); ++id)
        shell("pactl unload-module " + *id);
}

TEST_F(GeneralPagesTest, TheEmptyRecordingEntryEmptiesTheDeviceAndItsLine)
{
    CPgSoundCard& page = SoundCard();
    ASSERT_GT(page.Recording()->currentIndex(), 0);
    EXPECT_EQ(page.Working().m_input, "Microphone (Test)");
    page.Recording()->setCurrentIndex(0);
    EXPECT_EQ(page.Working().m_input, "");
    EXPECT_EQ(page.Working().m_mixInSrc, "");
    EXPECT_FALSE(page.Source()->isEnabled());
    EXPECT_TRUE(COptionsPage::IsModified());
    page.Playback()->setCurrentIndex(0);
    EXPECT_EQ(page.Working().m_monitor, "");
    m_sheet->PressApply();
    EXPECT_EQ(m_settings->m_input, "");
    EXPECT_EQ(m_settings->m_monitor, "");
}

TEST_F(GeneralPagesTest, TheAutostartBoxWritesTheEntryAtOnceEvenWhenTheSheetIsCancelled)
{
    CPgSoundCard& page = SoundCard();
    const std::string program = (m_service.Folder() / "larimo").string();
    EXPECT_FALSE(page.Autostart()->isChecked());
    page.Autostart()->click();
    EXPECT_TRUE(page.Autostart()->isChecked());
    EXPECT_TRUE(AutostartEnabled(program));
    EXPECT_FALSE(COptionsPage::IsModified());
    m_sheet->PressCancel();
    EXPECT_TRUE(AutostartEnabled(program));

    CPgSoundCard& again = SoundCard();
    EXPECT_TRUE(again.Autostart()->isChecked());
    again.Autostart()->click();
    EXPECT_FALSE(AutostartEnabled(program));

    // A file where the autostart folder should be: the box stays off and the page says why.
    fs::remove_all(m_config / "autostart");
    std::ofstream(m_config / "autostart") << "not a folder";
    again.Autostart()->click();
    EXPECT_FALSE(again.Autostart()->isChecked());
    EXPECT_TRUE(again.AutostartNote()->isVisibleTo(&again));
    EXPECT_TRUE(again.AutostartNote()->text().startsWith("Larimo cannot start with your desktop session:"))
        << again.AutostartNote()->text().toStdString();
}

TEST_F(GeneralPagesTest, RestartStopsWaitsForTheServiceToGoAndStartsItOnce)
{
    CPgSoundCard& page = SoundCard();
    m_connected = true;
    std::atomic<int> stops{0};
    std::atomic<int> starts{0};
    page.SetServiceCalls(
        [&](const std::string& name) {
            EXPECT_EQ(name, "LarimoSrv");
            ++stops;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
            m_connected = false;
            return 0;
        },
        [&](const std::string&) {
            ++starts;
            return 0;
        });
    page.RestartButton()->click();
    EXPECT_FALSE(page.RestartButton()->isEnabled());
    EXPECT_EQ(page.RestartButton()->text(), "Service is restarting");
    page.OnRestart();
    ASSERT_TRUE(QTest::qWaitFor([&] { return page.RestartButton()->isEnabled(); }, 5000));
    EXPECT_EQ(page.RestartButton()->text(), "Restart service");
    EXPECT_EQ(stops.load(), 1) << "a second click while it runs does nothing";
    EXPECT_EQ(starts.load(), 1);

    // A service that never seems to stop is not started again; a failing stop says why.
    m_connected = true;
    page.SetServiceCalls([](const std::string&) { return 0; }, [&](const std::string&) { return ++starts, 0; });
    page.OnRestart();
    ASSERT_TRUE(QTest::qWaitFor([&] { return page.RestartButton()->isEnabled(); }, 6000));
    EXPECT_EQ(starts.load(), 1);
    page.SetServiceCalls([](const std::string&) { return 1; }, [&](const std::string&) { return ++starts, 0; });
    page.OnRestart();
    ASSERT_TRUE(QTest::qWaitFor([&] { return page.RestartButton()->isEnabled() && !m_sink.m_texts.empty(); }, 5000));
    EXPECT_NE(m_sink.m_texts.back().find("\nError code: "), std::string::npos) << m_sink.m_texts.back();
    EXPECT_EQ(starts.load(), 1);
}

// The real thing: a service registered with the supervisor, restarted from the page through
// the service manager, while a watcher plays the main window's connected flag.
TEST_F(GeneralPagesTest, RestartServiceRestartsTheRegisteredServiceThroughTheSupervisor)
{
    test::ServiceSandbox sandbox;
    const std::unique_ptr<ServiceManager> manager = OpenServiceManager();
    ASSERT_NE(manager, nullptr);
    ASSERT_EQ(manager->Backend(), "supervisor");
    ASSERT_TRUE(manager->Create({kServiceName, "Larimo Service", "Capturing sound", sandbox.Program().string()}));
    ASSERT_EQ(manager->Start(kServiceName), kNtsSuccess);
    ASSERT_TRUE(test::WaitFor(10000, test::ServiceAnswers));
    const pid_t first = sandbox.RecordedPid(kServiceName);

    std::atomic<bool> watching{true};
    std::thread watcher([&] {
        while (watching.load()) {
            m_connected = test::ServiceAnswers();
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
    });
    CPgSoundCard& page = OpenPage<CPgSoundCard>(4);
    page.OnRestart();
    const bool ended = QTest::qWaitFor([&] { return page.RestartButton()->isEnabled(); }, 15000);
    watching = false;
    watcher.join();
    ASSERT_TRUE(ended);
    EXPECT_TRUE(m_sink.m_texts.empty()) << m_sink.m_texts.front();
    EXPECT_TRUE(test::WaitFor(10000, test::ServiceAnswers)) << "the service was not started again";
    const pid_t second = sandbox.RecordedPid(kServiceName);
    EXPECT_GT(second, 0);
    EXPECT_NE(second, first) << "the service was not restarted";
    EXPECT_FALSE(test::ProcessAlive(first));
    manager->Stop(kServiceName);
}

TEST_F(GeneralPagesTest, APageClosedDuringARestartIsNotTouchedByIt)
{
    CPgSoundCard& page = SoundCard();
    m_connected = false;
    std::atomic<bool> started{false};
    page.SetServiceCalls(
        [](const std::string&) {
            // Longer than a closing page waits for it.
            std::this_thread::sleep_for(std::chrono::milliseconds(CPgSoundCard::kWorkerWaitMs + 1000));
            return 0;
        },
        [&](const std::string&) { return started = true, 0; });
    page.OnRestart();
    m_sheet.reset();
    // The worker ends after the page is gone; what it posts then must find nothing to touch.
    ASSERT_TRUE(QTest::qWaitFor([&] { return started.load(); }, 5000));
    QTest::qWait(200);
    EXPECT_NE(File("larimocl.log").find("the service restart still runs as the page closes"), std::string::npos);
}

} // namespace
} // namespace larimo
