// SPDX-License-Identifier: GPL-3.0-or-later
// The voice effects tab and the effect editor against the real LarimoServer and the private
// sound server: slots, previews, new, edit, delete, and the plug-in library behind them.
#include "QtTestApplication.h"
#include "EditEffect.h"
#include "OptionsSheet.h"
#include "PgEffects.h"

#include "OptionsTestSupport.h"
#include "DialogTools.h"
#include "VSTEditDialog.h"
#include "config.h"
#include "error.h"
#include "modb.h"
#include "moipc_cli.h"
#include "moipc_cmds.h"
#include "texts.h"
#include "wintools.h"

#include <QApplication>
#include <QDir>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QPushButton>
#include <QRadioButton>
#include <QSlider>
#include <QTest>
#include <QTreeWidget>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace larimo {
namespace {

namespace fs = std::filesystem;

std::string Settings()
{
    return test::PanelSettings("[soundcards]\ninput=Microphone (Test)\nmonitor=Speakers\n"
                               "[effects]\neff_0=Robot\neff_1=robot\neff_2=Robot\n[monitors]\nmonitorOn=1\n"
                               "[voice]\nnoiseSuppression=0\n");
}

class EffectsPageTest : public test::OptionsTest {
protected:
    EffectsPageTest()
        : OptionsTest(Settings())
    {
    }

    void SetUp() override
    {
        const fs::path folder = m_service.Folder();
        fs::copy(fs::path(LARIMO_APP_DIR) / "effects", folder / "effects", fs::copy_options::recursive);
        std::ofstream(folder / "voiceeffects.ini")
            << "[sys]\nnumEffects=3\n\n[eff_0]\nvst=Robot\nname=Robot\nnumParams=0\n\n"
               "[eff_1]\nvst=Pitch\nname=Chipmunk\nnumParams=2\nparam_0=1.000000\nparam_1=0.791667\n\n"
               "[eff_2]\nvst=Pitch\nname=Deep\nnumParams=2\nparam_0=1.000000\nparam_1=0.250000\n";
        OptionsTest::SetUp();
        SetEffectParamWindowFactory(&VSTEditDialog::Make);
    }
    void TearDown() override
    {
        m_sheet.reset();
        SetOpenFileChooser(nullptr);
        SetEffectParamWindowFactory(nullptr);
        OptionsTest::TearDown();
    }

    CPgEffects& Page() { return OpenPage<CPgEffects>(0); }

    int Row(CPgEffects& page, const QString& name)
    {
        for (int i = 0; i < page.List()->topLevelItemCount(); ++i) {
            if (page.List()->topLevelItem(i)->text(0) == name)
                return i;
        }
        return -1;
    }

};

TEST_F(EffectsPageTest, TheListShowsEveryEffectAndTakingWithoutASelectionEmptiesTheSlot)
{
    CPgEffects& page = Page();
    ASSERT_EQ(page.List()->topLevelItemCount(), 3);
    EXPECT_EQ(page.List()->topLevelItem(1)->text(0), "Chipmunk");
    EXPECT_EQ(page.List()->topLevelItem(1)->text(1), "Pitch");
    EXPECT_EQ(page.SlotText(1)->text(), "robot");
    EXPECT_FALSE(page.TestButton()->isEnabled()) << "nothing is selected yet";
    m_sheet->grab().save(QDir::tempPath() + "/larimo-effects-page.png");

    page.OnTake(1);
    EXPECT_EQ(page.SlotText(1)->text(), "");
    EXPECT_EQ(page.Working().m_effectSlots[1], "");
    EXPECT_TRUE(COptionsPage::IsModified());
    EXPECT_EQ(m_settings->m_effectSlots[1], "robot") << "the real settings wait for Apply";

    page.SelectRow(2);
    page.OnTake(0);
    EXPECT_EQ(page.Working().m_effectSlots[0], "Deep");

    page.findChild<QRadioButton*>("ctrl1126")->click();
    EXPECT_EQ(page.Working().m_listen, 1);
    m_sheet->PressOk();
    Config saved(m_service.Folder().string());
    saved.LoadAll();
    EXPECT_EQ(saved.m_effectSlots[0], "Deep");
    EXPECT_EQ(saved.m_effectSlots[1], "");
    EXPECT_EQ(saved.m_listen, 1);
}

TEST_F(EffectsPageTest, TestPreviewsTheSelectedEffectFollowsTheSelectionAndStopsWhenThePageIsLeft)
{
    Connect();
    CPgEffects& page = Page();
    const int monitorsBefore = Requests(kCmdMonitorSet);
    page.SelectRow(Row(page, "Chipmunk"));
    page.TestButton()->click();
    ASSERT_TRUE(page.TestButton()->isChecked());
    EXPECT_TRUE(page.Test().IsRunning());
    EXPECT_TRUE(page.Test().Effect().IsLoaded());
    EXPECT_NEAR(page.Test().Effect().GetParameter(1), 0.791667f, 1e-5);

    // Another row while Test is down previews that effect at once.
    page.SelectRow(Row(page, "Deep"));
    EXPECT_TRUE(page.Test().IsRunning());
    EXPECT_NEAR(page.Test().Effect().GetParameter(1), 0.25f, 1e-5);

    m_sheet->SetActivePage(1);
    EXPECT_FALSE(page.Test().IsRunning());
    EXPECT_FALSE(page.TestButton()->isChecked());
    EXPECT_GE(Requests(kCmdMonitorSet), monitorsBefore + 2) << "listen-in off for the preview and back";
    EXPECT_TRUE(m_sink.m_texts.empty()) << m_sink.m_texts.front();
}

TEST_F(EffectsPageTest, AnEffectWithoutAPluginIsNotPreviewed)
{
    CPgEffects& page = Page();
    page.Working().m_effects.push_back({"", "Silent", {}});
    m_sheet->SetActivePage(1);
    m_sheet->SetActivePage(0);
    page.SelectRow(Row(page, "Silent"));
    page.TestButton()->click();
    EXPECT_FALSE(page.Test().IsRunning());
    ASSERT_EQ(m_sink.m_texts.size(), 1U);
    EXPECT_EQ(m_sink.m_texts[0], "VST plug-in for effect \"Silent\" is not defined");
}

TEST_F(EffectsPageTest, ARenameReachesTheSlotsWithTheExactOldNameOnly)
{
    CPgEffects& page = Page();
    page.SetEditorRunner([](QWidget*, VoiceEffect& effect, Config&, Config&) {
        effect.m_name = "Android";
        return true;
    });
    page.SelectRow(Row(page, "Robot"));
    page.OnEdit();
    EXPECT_EQ(page.Working().m_effectSlots[0], "Android");
    EXPECT_EQ(page.Working().m_effectSlots[1], "robot") << "another letter case is another text";
    EXPECT_EQ(page.Working().m_effectSlots[2], "Android");
    EXPECT_EQ(page.SlotText(2)->text(), "Android");
    EXPECT_EQ(page.Working().FindEffect("Robot"), -1);
    EXPECT_EQ(page.Working().FindEffect("Android"), 0);
    EXPECT_GE(Row(page, "Android"), 0);
    EXPECT_TRUE(COptionsPage::IsModified());
}

TEST_F(EffectsPageTest, DeletingAnEffectEmptiesEverySlotThatHeldIt)
{
    CPgEffects& page = Page();
    page.Working().m_effectSlots = {"Deep", "Robot", "Deep"};
    m_sheet->SetActivePage(1);
    m_sheet->SetActivePage(0);
    page.SelectRow(Row(page, "Deep"));
    m_sink.m_answer = IDNO;
    page.OnDelete();
    EXPECT_GE(Row(page, "Deep"), 0) << "No keeps it";
    m_sink.m_answer = IDYES;
    page.SelectRow(Row(page, "Deep"));
    page.OnDelete();
    EXPECT_EQ(Row(page, "Deep"), -1);
    EXPECT_EQ(page.Working().m_effectSlots, (std::array<std::string, 3>{"", "Robot", ""}));
    EXPECT_EQ(page.SlotText(0)->text(), "");
    EXPECT_EQ(page.SlotText(1)->text(), "Robot");
    EXPECT_EQ(m_sink.m_texts.back(), "Do you really want delete the effect \"Deep\"");
}

TEST_F(EffectsPageTest, TheEditorTakesOkOnlyWithANameAndAPluginAndRefusesANameInUse)
{
    CPgEffects& page = Page();
    VoiceEffect fresh;
    CEditEffect editor(&page, fresh, *m_settings, page.Working());
    QPushButton* ok = editor.Button(CEditEffect::kOkId);
    EXPECT_FALSE(ok->isEnabled());
    EXPECT_EQ(editor.PluginList()->count(), 6);
    editor.NameField()->setText("Mine");
    EXPECT_FALSE(ok->isEnabled());
    ASSERT_TRUE(editor.SelectPlugin("pitch"));
    editor.OnUse();
    EXPECT_EQ(editor.UsedPlugin()->text(), "Pitch");
    EXPECT_TRUE(ok->isEnabled());
    editor.grab().save(QDir::tempPath() + "/larimo-effect-editor.png");
    EXPECT_TRUE(editor.Test().Effect().IsLoaded());
    editor.NameField()->clear();
    EXPECT_FALSE(ok->isEnabled());

    editor.NameField()->setText("deep");
    editor.accept();
    EXPECT_EQ(editor.result(), QDialog::Rejected) << "the name of another effect";
    EXPECT_EQ(m_sink.m_texts.back(), "An effect with the name \"deep\" already exists.\nSpecify another name.");
    editor.NameField()->setText("Mine");
    editor.accept();
    EXPECT_EQ(editor.result(), QDialog::Accepted);
    EXPECT_EQ(fresh.m_name, "Mine");
    EXPECT_EQ(fresh.m_plugin, "Pitch");
    EXPECT_EQ(fresh.m_values.size(), 2U);
}

TEST_F(EffectsPageTest, ACaseOnlyRenameIsAccepted)
{
    CPgEffects& page = Page();
    VoiceEffect robot = page.Working().m_effects[0];
    CEditEffect editor(&page, robot, *m_settings, page.Working());
    editor.NameField()->setText("ROBOT");
    editor.accept();
    EXPECT_EQ(editor.result(), QDialog::Accepted);
    EXPECT_EQ(robot.m_name, "ROBOT");
}

TEST_F(EffectsPageTest, UsingTheSamePluginAgainAfterTurningKnobsAsksFirst)
{
    CPgEffects& page = Page();
    VoiceEffect chipmunk = page.Working().m_effects[1];
    CEditEffect editor(&page, chipmunk, *m_settings, page.Working());
    ASSERT_TRUE(editor.Test().Effect().IsLoaded());
    auto* window = dynamic_cast<VSTEditDialog*>(editor.Test().Effect().ParamWindow());
    ASSERT_NE(window, nullptr);
    ASSERT_NE(window->Window(), nullptr);
    // The parameter window stands at the editor's right edge.
    EXPECT_EQ(window->Window()->frameGeometry().left(), editor.frameGeometry().right() + 1);
    window->Window()->findChild<QSlider*>("ctrl3001")->setValue(500);
    ASSERT_TRUE(QTest::qWaitFor([&] { return editor.ParamsChanged(); }, 2000));

    m_sink.m_answer = IDNO;
    editor.SelectPlugin("Pitch");
    editor.OnUse();
    ASSERT_EQ(m_sink.m_texts.size(), 1U);
    EXPECT_EQ(m_sink.m_texts[0],
              "You are losing the changes you've done to voice effect \"Chipmunk\".\nDo you want to continue anyway?");
    EXPECT_NEAR(editor.Test().Effect().GetParameter(1), 0.5f, 1e-5) << "No keeps the turned knob";

    editor.SelectPlugin("Robot");
    editor.OnUse();
    EXPECT_EQ(m_sink.m_texts.size(), 1U) << "another plug-in does not ask";
    EXPECT_EQ(editor.UsedPlugin()->text(), "Robot");
}

TEST_F(EffectsPageTest, DeletingAPluginStripsItEverywhereAndRewritesTheEffectsFileEvenOnCancel)
{
    CPgEffects& page = Page();
    page.Working().m_effectSlots = {"Chipmunk", "Robot", "Deep"};
    m_settings->m_effectSlots = {"Chipmunk", "", ""};
    VoiceEffect deep = page.Working().m_effects[2];
    {
        CEditEffect editor(&page, deep, *m_settings, page.Working());
        EXPECT_EQ(editor.UsedPlugin()->text(), "Pitch");
        m_sink.m_answer = IDYES;
        editor.SelectPlugin("Pitch");
        editor.OnDeletePlugin();
        EXPECT_EQ(editor.UsedPlugin()->text(), "");
        EXPECT_FALSE(editor.Button(CEditEffect::kOkId)->isEnabled());
        EXPECT_FALSE(editor.Test().Effect().IsLoaded());
        EXPECT_FALSE(LibPluginExists("Pitch"));
        editor.reject();
    }
    EXPECT_EQ(page.Working().m_effectSlots, (std::array<std::string, 3>{"", "Robot", ""}));
    EXPECT_EQ(m_settings->m_effectSlots[0], "");
    for (const Config* settings : {m_settings.get(), &page.Working()}) {
        for (const char* name : {"Chipmunk", "Deep"}) {
            const VoiceEffect& effect = settings->m_effects[static_cast<size_t>(settings->FindEffect(name))];
            EXPECT_EQ(effect.m_plugin, "");
            EXPECT_TRUE(effect.m_values.empty());
        }
    }
    m_sheet->PressCancel();
    const std::string written = File("voiceeffects.ini");
    EXPECT_EQ(written.find("vst=Pitch"), std::string::npos) << written;
    EXPECT_NE(written.find("name=Chipmunk"), std::string::npos);
}

TEST_F(EffectsPageTest, APluginInUseByTheServiceIsNotDeleted)
{
    Connect();
    CPgEffects& page = Page();
    m_settings->m_effectSlots = {"Chipmunk", "", ""};
    VoiceEffect robot = page.Working().m_effects[0];
    CEditEffect editor(&page, robot, *m_settings, page.Working());
    editor.SelectPlugin("Pitch");
    editor.OnDeletePlugin();
    EXPECT_EQ(m_sink.m_texts.back(), "You can not delete this plug-in.\nThis plug-in is currently in use.");
    EXPECT_TRUE(LibPluginExists("Pitch"));
}

TEST_F(EffectsPageTest, ImportAnsweredNoChangesNothingAndABadFileSaysWhy)
{
    CPgEffects& page = Page();
    VoiceEffect fresh;
    CEditEffect editor(&page, fresh, *m_settings, page.Working());
    const fs::path outside = fs::temp_directory_path() / ("larimo-import-" + std::to_string(::getpid()));
    fs::create_directories(outside);
    fs::copy_file(fs::path(LARIMO_APP_DIR) / "effects" / "Echo.so", outside / "robot.so",
                  fs::copy_options::overwrite_existing);
    std::ofstream(outside / "notes.so") << "just some text";
    QString chosen;
    SetOpenFileChooser([&](QWidget*, const QString& filter) {
        EXPECT_EQ(filter, "VST plug-ins (*.so)");
        return chosen;
    });
    const auto sizeOf = [&](const char* name) { return fs::file_size(m_service.Folder() / "effects" / name); };
    const auto robotSize = sizeOf("Robot.so");

    chosen = QString::fromStdString((outside / "robot.so").string());
    m_sink.m_answer = IDNO;
    editor.OnImport();
    EXPECT_EQ(m_sink.m_texts.back(), "A VST plug-in named \"Robot\" already exists. Would you like to replace it?");
    EXPECT_EQ(sizeOf("Robot.so"), robotSize);
    EXPECT_EQ(editor.PluginList()->count(), 6);

    chosen = QString::fromStdString((outside / "notes.so").string());
    editor.OnImport();
    EXPECT_EQ(m_sink.m_texts.back(),
              "\"notes.so\" is not a VST plug-in for Linux: a plug-in here is a shared library (.so).");
    EXPECT_FALSE(LibPluginExists("Notes"));

    chosen = QString::fromStdString("/usr/lib/vst/MaPitchshift-vst.so");
    editor.OnImport();
    EXPECT_TRUE(LibPluginExists("MaPitchshift-vst")) << m_sink.m_texts.back();
    EXPECT_EQ(editor.PluginList()->count(), 7);
    fs::remove_all(outside);
}

// What a user does with a third-party plug-in: import it, hear it, put the new effect into a
// slot, press OK, and the voice service plays it.
TEST_F(EffectsPageTest, ANewEffectFromAThirdPartyPluginReachesTheService)
{
    Connect();
    CPgEffects& page = Page();
    SetOpenFileChooser([](QWidget*, const QString&) { return QStringLiteral("/usr/lib/vst/MaPitchshift-vst.so"); });
    bool heard = false;
    page.SetEditorRunner([&](QWidget* parent, VoiceEffect& effect, Config& real, Config& working) {
        CEditEffect editor(parent, effect, real, working);
        editor.OnImport();
        EXPECT_TRUE(editor.SelectPlugin("MaPitchshift-vst"));
        editor.OnUse();
        heard = editor.Test().IsRunning() && editor.Test().Effect().IsLoaded();
        editor.NameField()->setText("Shifted");
        editor.accept();
        return editor.result() == QDialog::Accepted;
    });
    page.OnNew();
    EXPECT_TRUE(heard) << "the editor plays the plug-in while it is chosen";
    const int row = Row(page, "Shifted");
    ASSERT_GE(row, 0);
    page.SelectRow(row);
    page.OnTake(1);
    const int updates = Requests(kCmdSrvUpdate);
    m_sheet->PressOk();
    EXPECT_EQ(Requests(kCmdSrvUpdate), updates + 1);
    EXPECT_NE(File("voiceeffects.ini").find("name=Shifted"), std::string::npos);

    ASSERT_TRUE(CommandClient()->EffectSetActive(1));
    EXPECT_TRUE(test::WaitFor(5000, [&] {
        return File("larimosrv.log").find("voice effect \"Shifted\" loaded") != std::string::npos;
    })) << File("larimosrv.log");
}

} // namespace
} // namespace larimo
