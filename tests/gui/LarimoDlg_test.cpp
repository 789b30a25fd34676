// SPDX-License-Identifier: GPL-3.0-or-later
// The main window against the real LarimoServer and the private sound server: what each handler
// leaves in config.ini, and the controls following the service through stop, kill and restart.
#include "QtTestApplication.h"
#include "LarimoDlg.h"

#include "AboutDlg.h"
#include "QtMessageBoxSink.h"

#include "FFButton.h"
#include "FFSliderCtrl.h"
#include "FFStaticText.h"
#include "MoListBox.h"
#include "OptionsSheet.h"
#include "PgShortcuts.h"

#include "../server/ServiceProcess.h"
#include "RecordingSink.h"

#include "config.h"
#include "error.h"
#include "help.h"
#include "modb.h"
#include "texts.h"
#include "keyboard.h"
#include "wintools.h"

#include <QApplication>
#include <QDesktopServices>
#include <QLabel>
#include <QMenu>
#include <QTest>
#include <QTimer>
#include <QTreeWidget>
#include <QWheelEvent>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sstream>

extern "C" const char* __asan_default_options()
{
    // Qt's platform plugins keep caches until exit; they are not ours to free.
    return "detect_leaks=0";
}

namespace larimo {
namespace {

namespace fs = std::filesystem;

using test::RecordingSink;

std::string Settings(const std::string& extra = {})
{
    const std::string source = LARIMO_SOURCE_DIR;
    return "[sys]\nwizard=1\nskinFile=" + source + "/data/skins/en/Default.sdf\nlangsPath=" + source +
           "/data/lang/\nlangFile=" + source + "/data/lang/larimo_en.tra\n" +
           "[effects]\neff_0=Robot\neff_1=Deep\n[emotics]\nnum=2\nname_0=Laugh\nfile_0=Party\\Laugh.wav\n"
           "name_1=Boing\nfile_1=Party\\Boing.wav\n" + extra;
}

bool Pump(int ms, const std::function<bool()>& done)
{
    return test::WaitFor(ms, [&] {
        QCoreApplication::processEvents();
        return done();
    });
}

// Stands in for the desktop's browser: keeps what the panel asks it to open.
class OpenedUrls final : public QObject {
    Q_OBJECT
public:
    QList<QUrl> m_urls;
public slots:
    void Open(const QUrl& url) { m_urls << url; }
};

class LarimoDlgTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { test::UsePrivateObjectNamespace(); }
    static void TearDownTestSuite() { test::RemovePrivateObjectNamespace(); }

    void SetUp() override
    {
        const fs::path folder = m_service.Folder();
        fs::create_directories(folder / "backsounds");
        fs::create_directories(folder / "emoticsounds" / "Party");
        fs::create_directories(folder / "emoticsounds" / "Empty" / "Deeper");
        for (const char* name : {"Rain.wav", "Cafe.wav"})
            fs::copy_file(fs::path(LARIMO_SOURCE_DIR) / "data" / "test.wav", folder / "backsounds" / name);
        for (const char* name : {"Laugh.wav", "Boing.wav"})
            fs::copy_file(fs::path(LARIMO_SOURCE_DIR) / "data" / "test.wav", folder / "emoticsounds" / "Party" / name);
        std::ofstream(folder / "emoticsounds" / "Empty" / "notes.txt") << "no sound here";
        std::ofstream(folder / "voiceeffects.ini") << "[sys]\nnumEffects=2\n\n[eff_0]\nvst=Robot\nname=Robot\n"
                                                      "numParams=0\n\n[eff_1]\nvst=Pitch\nname=Deep\nnumParams=0\n";
        SetDataRoot(folder.string());
        LibInit(folder.string());
        Config general(folder.string());
        general.ReadGeneral();
        ASSERT_TRUE(StartTexts(general.m_langsPath, general.m_langFile));
        SetMessageBoxSink(&m_sink);
        SetMessageDefaults(nullptr, "Larimo");
    }

    void TearDown() override
    {
        m_dialog.reset();
        SetMessageBoxSink(nullptr);
        EndTexts();
    }

    CLarimoDlg& Open()
    {
        m_dialog = std::make_unique<CLarimoDlg>();
        EXPECT_TRUE(m_dialog->OnInitDialog());
        m_dialog->show();
        return *m_dialog;
    }

    bool WaitConnected(bool connected)
    {
        return Pump(5000, [&] {
            return m_dialog->IsConnected() == connected &&
                   m_dialog->Control(CLarimoDlg::kStopAll)->isEnabled() == connected;
        });
    }

    Config Saved() const
    {
        Config saved(m_service.Folder().string());
        saved.LoadAll();
        return saved;
    }

    test::ServiceProcess m_service{Settings()};
    RecordingSink m_sink;
    std::unique_ptr<CLarimoDlg> m_dialog;
};

TEST_F(LarimoDlgTest, ControlsFollowTheServiceThroughStopKillAndRestart)
{
    CLarimoDlg& dialog = Open();
    EXPECT_FALSE(dialog.Control(CLarimoDlg::kEffectRadio1)->isEnabled());

    ASSERT_TRUE(m_service.Start());
    ASSERT_TRUE(WaitConnected(true));
    EXPECT_TRUE(dialog.Control(CLarimoDlg::kEffectRadio1)->isEnabled());
    EXPECT_TRUE(dialog.Control(CLarimoDlg::kEffectConfig1)->isEnabled());

    m_service.Stop(SIGTERM);
    ASSERT_TRUE(WaitConnected(false));
    EXPECT_FALSE(dialog.Control(CLarimoDlg::kSoundRadio1 + 1)->isEnabled());
    EXPECT_TRUE(dialog.Control(CLarimoDlg::kSoundConfig1 + 1)->isEnabled()) << "configure buttons stay usable";

    ASSERT_TRUE(m_service.Start());
    ASSERT_TRUE(WaitConnected(true));
    m_service.Stop(SIGKILL);
    ASSERT_TRUE(WaitConnected(false)) << "a killed service must read as stopped";
    ASSERT_TRUE(m_service.Start());
    ASSERT_TRUE(WaitConnected(true));
}

TEST_F(LarimoDlgTest, TheWheelOverAVolumeSliderSetsAndSavesTheVolume)
{
    CLarimoDlg& dialog = Open();
    auto* slider = dialog.ControlAs<CFFSliderCtrl>(CLarimoDlg::kSoundSlider1);
    CLarimoDlg::ShowSliderValue(*slider, 50);
    for (int step = 0; step < 5; ++step) {
        const QPointF at(slider->width() / 2.0, slider->height() / 2.0);
        QWheelEvent wheel(at, slider->mapToGlobal(at), QPoint(), QPoint(0, 120), Qt::NoButton, Qt::NoModifier,
                          Qt::NoScrollPhase, false);
        QApplication::sendEvent(slider, &wheel);
    }
    const int shown = CLarimoDlg::SliderValue(*slider);
    EXPECT_NE(shown, 50) << "the wheel did not move the thumb";
    EXPECT_EQ(Saved().m_backSounds[0].m_volume, shown) << "the volume the wheel set was not saved";
    // The next hot-key step starts from there.
    dialog.OnHotKey(kScBackSound1VolSub);
    EXPECT_EQ(Saved().m_backSounds[0].m_volume, std::max(0, shown - 10));
}

TEST_F(LarimoDlgTest, OnlyADoubleClickOnTheTrayIconBringsTheWindowBack)
{
    CLarimoDlg& dialog = Open();
    dialog.MinimizeToTray();
    ASSERT_NE(dialog.TrayIcon(), nullptr);
    // Without a tray on this display the window stays in the task bar; hide it as a tray would.
    dialog.hide();
    emit dialog.TrayIcon()->activated(QSystemTrayIcon::Trigger);
    EXPECT_FALSE(dialog.isVisible()) << "a single click restored the window";
    emit dialog.TrayIcon()->activated(QSystemTrayIcon::DoubleClick);
    EXPECT_TRUE(dialog.isVisible());
}

// The real LoadSkin with a copy of the default skin whose window object says `larimo`.
class SkinVariantTest : public LarimoDlgTest {
protected:
    void UseSkin(const std::string& larimo)
    {
        const fs::path skins = m_service.Folder() / "skins";
        fs::create_directories(skins);
        const fs::path source = fs::path(LARIMO_SOURCE_DIR) / "data" / "skins" / "en";
        fs::copy(source / "Default", skins / "Default", fs::copy_options::recursive | fs::copy_options::skip_existing);
        std::ifstream in(source / "Default.sdf");
        std::stringstream text;
        text << in.rdbuf();
        std::string skin = text.str();
        const size_t from = skin.find("[Larimo]");
        const size_t to = skin.find("\n[", from + 1);
        ASSERT_NE(from, std::string::npos);
        skin.replace(from, to - from, larimo);
        std::ofstream(skins / "Variant.sdf") << skin;
        Config general(m_service.Folder().string());
        general.ReadGeneral();
        general.m_skinFile = (skins / "Variant.sdf").string();
        ASSERT_TRUE(general.WriteGeneral());
    }
};

TEST_F(SkinVariantTest, ARegionFileThatIsMissingGivesARectangularWindow)
{
    UseSkin("[Larimo]\nsize=600,430\nbitmap=Default\\background.bmp\nregion=Default\\missing.rgn\n");
    CLarimoDlg& dialog = Open();
    EXPECT_TRUE(dialog.mask().isEmpty()) << "no region: every pixel of the window is its own";
    EXPECT_EQ(dialog.size(), QSize(600, 430));

    // The shipped region does shape the window, so the check above can tell the two apart.
    m_dialog.reset();
    UseSkin("[Larimo]\nsize=600,430\nbitmap=Default\\background.bmp\nregion=Default\\window.rgn\n");
    CLarimoDlg& shaped = Open();
    EXPECT_FALSE(shaped.mask().isEmpty());
}

TEST_F(SkinVariantTest, ASizeSmallerThanTheBitmapShowsItsTopLeftPart)
{
    UseSkin("[Larimo]\nsize=300,200\nbitmap=Default\\background.bmp\n");
    CLarimoDlg& dialog = Open();
    EXPECT_EQ(dialog.size(), QSize(300, 200));
    const QImage shown = dialog.grab().toImage();
    const QImage bitmap(QString::fromStdString((m_service.Folder() / "skins" / "Default" / "background.bmp").string()));
    ASSERT_FALSE(bitmap.isNull());
    ASSERT_EQ(shown.size(), QSize(300, 200));
    // Where no control covers it, the window shows the bitmap's own pixels.
    for (const QPoint point : {QPoint(2, 2), QPoint(297, 2), QPoint(2, 197)})
        EXPECT_EQ(QColor(shown.pixel(point)), QColor(bitmap.pixel(point))) << point.x() << "," << point.y();
}

// On an X display (the xvfb run of this program): a key bound on the shortcut keys tab works
// as a global hot key as soon as the sheet is closed with OK.
TEST_F(LarimoDlgTest, AKeyBoundInTheOptionsWorksAsAGlobalHotKeyAfterOk)
{
    if (QGuiApplication::platformName() != QLatin1String("xcb"))
        GTEST_SKIP() << "global hot keys need an X display (the xvfb run of this program)";
    ASSERT_TRUE(m_service.Start());
    CLarimoDlg& dialog = Open();
    ASSERT_TRUE(WaitConnected(true));
    bool bound = false;
    QTimer::singleShot(300, [&] {
        auto* sheet = qobject_cast<COptionsSheet*>(QApplication::activeModalWidget());
        if (sheet == nullptr)
            return;
        sheet->SetActivePage(3);
        auto* page = qobject_cast<CPgShortcuts*>(sheet->Page(3));
        page->SelectRow(kScVoiceEffect2);
        page->OnChange();
        QTest::keyPress(page->List(), Qt::Key_F9, Qt::ControlModifier | Qt::ShiftModifier);
        QTest::keyRelease(page->List(), Qt::Key_F9, Qt::ControlModifier | Qt::ShiftModifier);
        bound = true;
        sheet->PressOk();
    });
    dialog.OnOptions();
    ASSERT_TRUE(bound) << "the options sheet did not open";
    EXPECT_EQ(Saved().m_shortcuts[kScVoiceEffect2], ShortcutFromText("Ctrl+Shift+F9"));
    EXPECT_GE(dialog.ActiveHotKeys(), 1);
    ASSERT_EQ(std::system("xdotool key ctrl+shift+F9"), 0);
    EXPECT_TRUE(Pump(5000, [&] { return Saved().m_activeEffect == 1; })) << "the hot key did not select slot 2";
}

TEST_F(LarimoDlgTest, ASecondClickOnTheActiveSlotSwitchesItOff)
{
    ASSERT_TRUE(m_service.Start());
    CLarimoDlg& dialog = Open();
    ASSERT_TRUE(WaitConnected(true));

    auto* second = dialog.ControlAs<CFFButton>(CLarimoDlg::kEffectRadio1 + 1);
    second->SetCheck(1);
    dialog.OnSelectEffect(second->CtrlId());
    EXPECT_EQ(Saved().m_activeEffect, 1);
    EXPECT_EQ(dialog.EffectIndex(), 1);

    dialog.OnSelectEffect(second->CtrlId());
    EXPECT_EQ(Saved().m_activeEffect, -1);
    EXPECT_EQ(second->GetCheck(), 0);

    auto* sound = dialog.ControlAs<CFFButton>(CLarimoDlg::kSoundRadio1 + 2);
    sound->SetCheck(1);
    dialog.OnSelectSound(sound->CtrlId());
    EXPECT_EQ(Saved().m_activeBackSound, 2);
    dialog.OnSelectSound(sound->CtrlId());
    EXPECT_EQ(Saved().m_activeBackSound, -1);
}

TEST_F(LarimoDlgTest, HotKeysToggleSlotsAndStepVolumesWithinRange)
{
    CLarimoDlg& dialog = Open();
    dialog.OnHotKey(kScVoiceEffect2);
    EXPECT_EQ(Saved().m_activeEffect, 1);
    EXPECT_EQ(dialog.ControlAs<CFFButton>(CLarimoDlg::kEffectRadio1 + 1)->GetCheck(), 1);
    dialog.OnHotKey(kScVoiceEffect2);
    EXPECT_EQ(Saved().m_activeEffect, -1);

    auto* slider = dialog.ControlAs<CFFSliderCtrl>(CLarimoDlg::kSoundSlider1);
    CLarimoDlg::ShowSliderValue(*slider, 95);
    dialog.OnHotKey(kScBackSound1VolAdd);
    EXPECT_EQ(Saved().m_backSounds[0].m_volume, 100);
    // The default skin makes the background sliders vertical.
    ASSERT_EQ(slider->orientation(), Qt::Vertical);
    EXPECT_EQ(slider->value(), 0) << "a vertical slider showing 100 has its thumb at the top";
    CLarimoDlg::ShowSliderValue(*slider, 5);
    dialog.OnHotKey(kScBackSound1VolSub);
    EXPECT_EQ(Saved().m_backSounds[0].m_volume, 0);

    dialog.OnHotKey(kScBackSound3);
    EXPECT_EQ(Saved().m_activeBackSound, 2);
    dialog.OnHotKey(kScStop);
    EXPECT_EQ(Saved().m_activeBackSound, -1);
    EXPECT_EQ(Saved().m_activeEffect, -1);
}

TEST_F(LarimoDlgTest, SlidersSaveWhileStoppedAndListenFollowsItsButton)
{
    CLarimoDlg& dialog = Open();
    auto* slider = dialog.ControlAs<CFFSliderCtrl>(CLarimoDlg::kSoundSlider1 + 1);
    slider->setValue(slider->orientation() == Qt::Vertical ? 30 : 70);
    dialog.ChangeSoundFromSlider(1);
    EXPECT_EQ(Saved().m_backSounds[1].m_volume, 70);

    auto* level = dialog.ControlAs<CFFSliderCtrl>(CLarimoDlg::kMonitorLevel);
    level->setValue(level->orientation() == Qt::Vertical ? 60 : 40);
    dialog.ChangeMonitorLvlFromSlider();
    EXPECT_EQ(Saved().m_monitorVol, 40);

    const bool before = Saved().m_monitorOn;
    dialog.OnBnClickedMonitor();
    EXPECT_EQ(Saved().m_monitorOn, !before);
    EXPECT_EQ(dialog.ControlAs<CFFButton>(CLarimoDlg::kMonitor)->GetCheck() != 0, !before);
}

TEST_F(LarimoDlgTest, FunSoundMarksNeedTheServiceAndStopAllClearsThem)
{
    CLarimoDlg& dialog = Open();
    auto* list = dialog.ControlAs<CMoListBox>(CLarimoDlg::kFunSoundList);
    ASSERT_EQ(list->Count(), 2);
    dialog.OnPlayEmotic(0);
    EXPECT_FALSE(list->GetSel(0)) << "nothing changes while not connected";

    ASSERT_TRUE(m_service.Start());
    ASSERT_TRUE(WaitConnected(true));
    dialog.OnPlayEmotic(0);
    EXPECT_TRUE(list->GetSel(0));
    dialog.OnPlayEmotic(0);
    EXPECT_FALSE(list->GetSel(0));
    dialog.OnPlayEmotic(1);
    dialog.StopAll();
    EXPECT_FALSE(list->GetSel(1));
}

TEST_F(LarimoDlgTest, ConfigureMenusCancelEmptiesSlotsAndDismissalChangesNothing)
{
    CLarimoDlg& dialog = Open();
    QStringList shown;
    auto pick = [&](const QString& text) {
        dialog.SetMenuRunner([&shown, text](QMenu& menu, const QPoint&) -> QAction* {
            shown.clear();
            for (QAction* action : menu.actions())
                shown << action->text();
            for (QAction* action : menu.actions()) {
                if (action->text() == text)
                    return action;
            }
            return nullptr;
        });
    };

    pick("Deep");
    dialog.ConfigEffect(0);
    EXPECT_EQ(shown, QStringList({"Robot", "Deep", "Cancel"}));
    EXPECT_EQ(Saved().m_effectSlots[0], "Deep");
    EXPECT_EQ(dialog.ControlAs<CFFStaticText>(CLarimoDlg::kEffectText1)->Text(), "Deep");
    pick({});
    dialog.ConfigEffect(0);
    EXPECT_EQ(Saved().m_effectSlots[0], "Deep") << "a dismissed menu changes nothing";
    pick("Cancel");
    dialog.ConfigEffect(0);
    EXPECT_EQ(Saved().m_effectSlots[0], "");

    pick("Rain");
    dialog.ConfigSound(2);
    EXPECT_TRUE(shown.contains("Cafe") && shown.contains("Rain") && shown.last() == "Cancel");
    EXPECT_EQ(Saved().m_backSounds[2].m_file, "Rain.wav");
    EXPECT_EQ(Saved().m_backSounds[2].m_descr, "Rain");
    pick("Cancel");
    dialog.ConfigSound(2);
    EXPECT_EQ(Saved().m_backSounds[2].m_file, "");

    // The fun sound menu: "Party" holds sounds, "Empty" only a text file and an empty folder.
    dialog.SetMenuRunner([&shown](QMenu& menu, const QPoint&) -> QAction* {
        shown.clear();
        for (QAction* action : menu.actions())
            shown << action->text();
        for (QAction* action : menu.actions()) {
            if (action->menu() != nullptr && action->text() == "Party") {
                for (QAction* item : action->menu()->actions()) {
                    if (item->text() == "Boing")
                        return item;
                }
            }
        }
        return nullptr;
    });
    dialog.ConfigEmotic(0, 0, 0);
    EXPECT_EQ(shown, QStringList({"Party", "Cancel"})) << "empty branches must vanish";
    EXPECT_EQ(Saved().m_emotics[0].m_file, "Party\\Boing.wav");
    EXPECT_EQ(Saved().m_emotics[0].m_name, "Boing");
    EXPECT_EQ(dialog.ControlAs<CMoListBox>(CLarimoDlg::kFunSoundList)->ItemText(0), "Boing");
    pick("Cancel");
    dialog.ConfigEmotic(0, 0, 0);
    EXPECT_EQ(Saved().m_emotics[0].m_file, "Party\\Boing.wav") << "Cancel in the fun sound menu changes nothing";
}

TEST_F(LarimoDlgTest, CheckParamsWarnsOfAMissingRecordingDevice)
{
    CLarimoDlg& dialog = Open();
    Config settings = Saved();
    settings.m_input = "No Such Microphone";
    m_sink.m_boxes.clear();
    dialog.CheckParams(settings);
    ASSERT_FALSE(m_sink.m_boxes.empty());
    EXPECT_NE(m_sink.m_boxes.back().text.find("No Such Microphone"), std::string::npos);
    EXPECT_EQ(m_sink.m_boxes.back().style & MB_ICONMASK, MB_ICONWARNING);
}

TEST_F(LarimoDlgTest, AMissingSkinObjectEndsTheWindowWithOneSkinError)
{
    const fs::path skin = m_service.Folder() / "Broken.sdf";
    std::ofstream(skin) << "[Larimo]\nsize=100,100\n\n[ERadio1]\n\n";
    Config settings = Saved();
    settings.m_skinFile = skin.string();
    settings.WriteGeneral();
    CLarimoDlg dialog;
    EXPECT_FALSE(dialog.OnInitDialog());
    ASSERT_EQ(m_sink.m_boxes.size(), 1U);
    EXPECT_EQ(m_sink.m_boxes[0].caption, "Skin error");
    EXPECT_EQ(m_sink.m_boxes[0].text, "Could not parse skin for [EText1] control.");
}

} // namespace
} // namespace larimo

namespace larimo {
namespace {

TEST_F(LarimoDlgTest, ABrokenEffectsErrorIsShownOnceRightAfterChoosingIt)
{
    std::ofstream(m_service.Folder() / "voiceeffects.ini")
        << "[sys]\nnumEffects=2\n\n[eff_0]\nvst=Robot\nname=Robot\nnumParams=0\n\n"
           "[eff_1]\nvst=NoSuchPlugin\nname=Broken\nnumParams=0\n";
    ASSERT_TRUE(m_service.Start());
    CLarimoDlg& dialog = Open();
    ASSERT_TRUE(WaitConnected(true));
    dialog.OnHotKey(kScVoiceEffect1);
    ASSERT_EQ(Saved().m_activeEffect, 0);
    m_sink.m_boxes.clear();

    dialog.SetMenuRunner([](QMenu& menu, const QPoint&) -> QAction* {
        for (QAction* action : menu.actions()) {
            if (action->text() == "Broken")
                return action;
        }
        return nullptr;
    });
    dialog.ConfigEffect(0);
    ASSERT_EQ(m_sink.m_boxes.size(), 1u) << "the active slot's new plug-in failed to load";
    EXPECT_NE(m_sink.m_boxes[0].text.find("Error loading VST plug-in"), std::string::npos) << m_sink.m_boxes[0].text;
    EXPECT_NE(m_sink.m_boxes[0].text.find("NoSuchPlugin"), std::string::npos);
    EXPECT_EQ(m_sink.m_boxes[0].style & MB_ICONMASK, MB_ICONERROR);

    dialog.ShowServiceErrors();
    dialog.ConfigSound(0);
    EXPECT_EQ(m_sink.m_boxes.size(), 1u) << "an error is shown once";
    EXPECT_FALSE(Pump(300, [&] { return !dialog.IsConnected(); })) << "a broken plug-in never ends the service";
}

TEST_F(LarimoDlgTest, HelpOpensTheTopicPageOfTheSettingsLanguage)
{
    CLarimoDlg& dialog = Open();
    OpenedUrls browser;
    QDesktopServices::setUrlHandler(QStringLiteral("file"), &browser, "Open");
    SetHelpViewer(std::make_unique<DesktopHelpViewer>());
    const std::string help = std::string(LARIMO_SOURCE_DIR) + "/data/help/";

    SetHelpFilePath(help + "en/larimo_en.chm");
    dialog.OnHelp();
    SetHelpFilePath(help + "larimo_de.chm");
    dialog.OnHelp();
    ASSERT_EQ(browser.m_urls.size(), 2);
    EXPECT_EQ(browser.m_urls[0], QUrl::fromLocalFile(QString::fromStdString(help + "en/gui.html")));
    EXPECT_EQ(browser.m_urls[1], QUrl::fromLocalFile(QString::fromStdString(help + "gui.html")));

    // A help folder that went missing is reported, and no browser opens on nothing.
    m_sink.m_boxes.clear();
    SetHelpFilePath(m_service.Folder().string() + "/help/larimo_en.chm");
    dialog.OnHelp();
    EXPECT_EQ(browser.m_urls.size(), 2);
    ASSERT_EQ(m_sink.m_boxes.size(), 1u);
    EXPECT_NE(m_sink.m_boxes[0].text.find("/help/gui.html"), std::string::npos);
    EXPECT_EQ(m_sink.m_boxes[0].style & MB_ICONMASK, MB_ICONWARNING);

    QDesktopServices::unsetUrlHandler(QStringLiteral("file"));
    SetHelpViewer(nullptr);
}

TEST_F(LarimoDlgTest, AboutShowsTheProgramsVersionRecordAndTheProductAddress)
{
    // The version comes from the record built into the program file, not from the source.
    EXPECT_THAT(CAboutDlg::VersionText(LARIMO_APP_DIR "/larimo"), ::testing::MatchesRegex("[0-9]+\\.[0-9]+\\.[0-9]+\\.[0-9]+"));
    EXPECT_EQ(CAboutDlg::VersionText(LARIMO_SOURCE_DIR "/README.md"), "") << "a file without a record";

    CLarimoDlg& dialog = Open();
    CAboutDlg about("https://larimo.example.org/", &dialog);
    auto label = [&](const char* name) {
        auto* found = about.findChild<QLabel*>(QString::fromLatin1(name));
        return found == nullptr ? QString() : found->text();
    };
    EXPECT_TRUE(label("ctrl1154").contains("href=\"https://larimo.example.org/\""));
    EXPECT_FALSE(label("ctrl1150").isEmpty());
    EXPECT_EQ(about.windowTitle().toStdString(), GetText(113));
}

} // namespace
} // namespace larimo

#include "LarimoDlg_test.moc"
