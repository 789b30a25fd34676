// SPDX-License-Identifier: GPL-3.0-or-later
// The options sheet against the real LarimoServer and the private sound server: what reaches
// config.ini and the service for OK, Apply and Cancel, previews on a tab change, help and the
// tabs, and the main window's Options button.
#include "QtTestApplication.h"
#include "OptionsSheet.h"

#include "FFButton.h"
#include "LarimoDlg.h"
#include "OptionsTestSupport.h"
#include "config.h"
#include "error.h"
#include "help.h"
#include "modb.h"
#include "moipc_cli.h"
#include "moipc_cmds.h"
#include "texts.h"
#include "wintools.h"

#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QPushButton>
#include <QTabWidget>
#include <QTest>
#include <QTimer>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>

extern "C" const char* __asan_default_options()
{
    return "detect_leaks=0";
}

namespace larimo {
namespace {

namespace fs = std::filesystem;

std::string Settings()
{
    return test::PanelSettings("skinFile=" + std::string(LARIMO_SOURCE_DIR) + "/data/skins/en/Default.sdf\n"
                               "[soundcards]\ninput=Microphone (Test)\nmonitor=Speakers\n"
                               "[monitors]\nmonitorOn=1\nmonitorVol=70\n");
}

bool Pump(int ms, const std::function<bool()>& done)
{
    return test::WaitFor(ms, [&] {
        QCoreApplication::processEvents();
        return done();
    });
}

struct HelpRequests final : HelpViewer {
    void DisplayTopic(void* /*owner*/, const std::string& target) override { targets->push_back(target); }
    std::shared_ptr<std::vector<std::string>> targets = std::make_shared<std::vector<std::string>>();
};

// A page that changes what a test tells it to and previews the shipped test sound.
class ProbePage final : public COptionsPage {
public:
    ProbePage(COptionsSheet& sheet, int templateId)
        : COptionsPage(sheet, templateId)
    {
    }
    void OnTestStop() override
    {
        ++m_stops;
        if (m_previewing)
            MonitorRestore();
        m_previewing = false;
    }
    unsigned StartPreview()
    {
        m_previewing = true;
        MonitorOff();
        const std::string sound = std::string(LARIMO_SOURCE_DIR) + "/data/test.wav";
        EXPECT_EQ(Test().LoadWave(sound), 0U);
        return Test().TestStart();
    }
    int m_stops = 0;
    bool m_previewing = false;
};

class OptionsSheetTest : public test::OptionsTest {
protected:
    OptionsSheetTest()
        : OptionsTest(Settings())
    {
    }

    void SetUp() override
    {
        OptionsTest::SetUp();
        if (IsSkipped())
            return;
        auto viewer = std::make_unique<HelpRequests>();
        m_help = viewer->targets;
        SetHelpViewer(std::move(viewer));
        SetHelpFilePath((m_service.Folder() / "help" / "larimo_en.html").string());
        Connect();
    }
    void TearDown() override
    {
        SetHelpViewer(nullptr);
        OptionsTest::TearDown();
    }

    std::unique_ptr<COptionsSheet> Sheet(int probes)
    {
        auto sheet = std::make_unique<COptionsSheet>(nullptr, *m_settings, &m_connected);
        for (int i = 0; i < probes; ++i) {
            auto* page = new ProbePage(*sheet, kPageEffects + i);
            m_probes.push_back(page);
            sheet->AddPage(page);
        }
        sheet->show();
        return sheet;
    }

    struct FileStamp {
        ino_t inode = 0;
        std::string text;
        bool operator==(const FileStamp&) const = default;
    };
    FileStamp ConfigFile() const
    {
        const fs::path path = m_service.Folder() / "config.ini";
        struct stat info {};
        ::stat(path.c_str(), &info);
        std::ifstream in(path);
        std::stringstream text;
        text << in.rdbuf();
        return {info.st_ino, text.str()};
    }

    std::vector<ProbePage*> m_probes;
    std::shared_ptr<std::vector<std::string>> m_help;
};

TEST_F(OptionsSheetTest, OkWithoutAChangeSavesNothingAndOnlyRestoresTheListenIn)
{
    const FileStamp before = ConfigFile();
    const int updates = Requests(kCmdSrvUpdate);
    const int monitors = Requests(kCmdMonitorSet);
    {
        auto sheet = Sheet(3);
        sheet->SetActivePage(1);
        sheet->SetActivePage(2);
        EXPECT_FALSE(sheet->Button(QDialogButtonBox::Apply)->isEnabled());
        sheet->PressOk();
        EXPECT_EQ(sheet->result(), QDialog::Accepted);
    }
    EXPECT_EQ(ConfigFile(), before) << "OK without a change wrote the settings";
    EXPECT_EQ(Requests(kCmdSrvUpdate), updates);
    EXPECT_EQ(Requests(kCmdMonitorSet), monitors + 1);
    EXPECT_TRUE(m_sink.m_texts.empty()) << m_sink.m_texts.front();
}

TEST_F(OptionsSheetTest, ApplySavesAndUpdatesOnceForAllVisitedPagesAndOkAfterItNothingMore)
{
    const int updates = Requests(kCmdSrvUpdate);
    auto sheet = Sheet(3);
    sheet->SetActivePage(1);
    m_probes[1]->Working().m_monitorVol = 33;
    m_probes[1]->SetModified(true);
    sheet->SetActivePage(2);
    EXPECT_EQ(m_settings->m_monitorVol, 70) << "a page changed the real settings before Apply";
    ASSERT_TRUE(sheet->Button(QDialogButtonBox::Apply)->isEnabled());

    sheet->PressApply();
    EXPECT_EQ(m_settings->m_monitorVol, 33);
    Config saved(m_service.Folder().string());
    saved.LoadAll();
    EXPECT_EQ(saved.m_monitorVol, 33);
    EXPECT_EQ(Requests(kCmdSrvUpdate), updates + 1) << "one update however many pages were visited";
    EXPECT_FALSE(sheet->Button(QDialogButtonBox::Apply)->isEnabled());
    EXPECT_FALSE(COptionsPage::IsModified());

    const FileStamp afterApply = ConfigFile();
    sheet->PressOk();
    EXPECT_EQ(ConfigFile(), afterApply);
    EXPECT_EQ(Requests(kCmdSrvUpdate), updates + 1);
}

TEST_F(OptionsSheetTest, CancelAfterAChangeLeavesTheRealSettingsAndTheFile)
{
    const FileStamp before = ConfigFile();
    const int updates = Requests(kCmdSrvUpdate);
    auto sheet = Sheet(2);
    m_probes[0]->Working().m_monitorOn = false;
    m_probes[0]->Working().m_input = "Somewhere Else";
    m_probes[0]->SetModified(true);
    sheet->PressCancel();
    EXPECT_EQ(sheet->result(), QDialog::Rejected);
    EXPECT_TRUE(m_settings->m_monitorOn);
    EXPECT_EQ(m_settings->m_input, "Microphone (Test)");
    EXPECT_FALSE(COptionsPage::IsModified());
    EXPECT_EQ(ConfigFile(), before);
    EXPECT_EQ(Requests(kCmdSrvUpdate), updates);
}

TEST_F(OptionsSheetTest, LeavingATabStopsItsPreviewAndTheListenInComesBack)
{
    auto sheet = Sheet(2);
    const int monitors = Requests(kCmdMonitorSet);
    ASSERT_EQ(m_probes[0]->StartPreview(), 0U);
    EXPECT_TRUE(sheet->Test().IsRunning());
    EXPECT_EQ(sheet->Test().Owner(), m_probes[0]);

    sheet->SetActivePage(1);
    EXPECT_FALSE(sheet->Test().IsRunning());
    EXPECT_GE(m_probes[0]->m_stops, 1);
    EXPECT_FALSE(m_probes[0]->m_previewing);
    EXPECT_EQ(sheet->Test().Owner(), m_probes[1]);
    EXPECT_EQ(Requests(kCmdMonitorSet), monitors + 2) << "off for the preview, then back";
    EXPECT_TRUE(m_sink.m_texts.empty()) << m_sink.m_texts.front();
}

TEST_F(OptionsSheetTest, AShortPreviewEndsByItselfAndTellsItsPage)
{
    auto sheet = Sheet(1);
    ASSERT_EQ(m_probes[0]->StartPreview(), 0U);
    // The shipped test sound lasts a few seconds; its end comes through the window's queue.
    EXPECT_TRUE(Pump(15000, [&] { return !m_probes[0]->m_previewing; }));
    EXPECT_FALSE(sheet->Test().IsRunning());
    const int stops = m_probes[0]->m_stops;
    QTest::qWait(300);
    EXPECT_EQ(m_probes[0]->m_stops, stops) << "the end of the sound was reported twice";
}

TEST_F(OptionsSheetTest, TabsAreTheFivePagesInOrderEffectsFirstWithTheirHelp)
{
    COptionsSheet sheet(nullptr, *m_settings, &m_connected);
    sheet.AddPages(nullptr);
    sheet.show();
    ASSERT_EQ(sheet.PageCount(), 5);
    EXPECT_EQ(sheet.ActiveIndex(), 0);
    EXPECT_EQ(sheet.windowTitle(), "Options");
    auto* tabs = sheet.findChild<QTabWidget*>("pages");
    ASSERT_NE(tabs, nullptr);
    const QStringList titles = {"Voice Effects", "Background", "Fun Sounds", "Shortcut Keys", "General"};
    const int topics[] = {107, 108, 134, 106, 109};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(tabs->tabText(i), titles[i]);
        EXPECT_EQ(sheet.Page(i)->TemplateId(), topics[i]);
    }

    sheet.grab().save(QDir::tempPath() + "/larimo-options-sheet.png");
    sheet.PressHelp();
    sheet.SetActivePage(4);
    QTest::keyClick(sheet.Page(4), Qt::Key_F1);
    ASSERT_EQ(m_help->size(), 2U);
    EXPECT_NE(m_help->at(0).find("options.html#effects"), std::string::npos) << m_help->at(0);
    EXPECT_NE(m_help->at(1).find("options.html#general"), std::string::npos) << m_help->at(1);
    sheet.PressCancel();
}

TEST_F(OptionsSheetTest, TabsAndButtonsSpeakTheInterfaceLanguage)
{
    EndTexts();
    const std::string source = LARIMO_SOURCE_DIR;
    ASSERT_TRUE(StartTexts(source + "/data/lang/", source + "/data/lang/larimo_de.tra"));
    COptionsSheet sheet(nullptr, *m_settings, &m_connected);
    sheet.AddPages(nullptr);
    auto* tabs = sheet.findChild<QTabWidget*>("pages");
    EXPECT_EQ(tabs->tabText(0), "Stimmeffekte");
    EXPECT_EQ(tabs->tabText(4), "Allgemein");
    EXPECT_EQ(sheet.windowTitle(), "Optionen");
    EXPECT_EQ(sheet.Button(QDialogButtonBox::Cancel)->text(), "Abbrechen");
    sheet.PressCancel();
}

TEST_F(OptionsSheetTest, TheOptionsButtonOpensTheSheetModallyOnTheEffectsPage)
{
    CLarimoDlg dialog;
    ASSERT_TRUE(dialog.OnInitDialog());
    dialog.show();
    auto* options = dialog.ControlAs<CFFButton>(CLarimoDlg::kOptions);
    ASSERT_NE(options, nullptr);
    EXPECT_TRUE(options->isEnabled());

    int seenIndex = -1;
    QString seenTitle;
    QTimer::singleShot(200, [&] {
        auto* sheet = qobject_cast<COptionsSheet*>(QApplication::activeModalWidget());
        ASSERT_NE(sheet, nullptr);
        seenIndex = sheet->ActiveIndex();
        seenTitle = sheet->windowTitle();
        sheet->PressCancel();
    });
    dialog.OnOptions();
    EXPECT_EQ(seenIndex, 0);
    EXPECT_EQ(seenTitle, "Options");
}

} // namespace
} // namespace larimo
