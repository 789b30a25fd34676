// SPDX-License-Identifier: GPL-3.0-or-later
// The parameter window of a plug-in: the generated rows (any platform) and, on an X display,
// plug-in editors, the test plug-ins' and a real third-party one's.
#include "QtTestApplication.h"
#include "VSTEditDialog.h"

#include "EffectTestSupport.h"
#include "RecordingSink.h"
#include "effect.h"
#include "error.h"
#include "mlog.h"
#include "texts.h"

#include <QApplication>
#include <QDialog>
#include <QDir>
#include <QGuiApplication>
#include <QImage>
#include <QLabel>
#include <QLineEdit>
#include <QPixmap>
#include <QPushButton>
#include <QScreen>
#include <QSet>
#include <QSlider>
#include <QTest>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace larimo {
namespace {

namespace fs = std::filesystem;

// What the window tells the effect's owner.
struct Listened {
    int changes = 0;
    std::vector<ParamValue> last;
    int closed = 0;
};

void OnChange(void* context, const std::vector<ParamValue>& params)
{
    auto* listened = static_cast<Listened*>(context);
    ++listened->changes;
    listened->last = params;
}

void OnClosed(void* context)
{
    ++static_cast<Listened*>(context)->closed;
}

class ParamWindow : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        const fs::path log = fs::temp_directory_path() / ("larimo-paramwindow-" + std::to_string(::getpid()) + ".log");
        LogOpen(log.string(), false, false, false, false, false);
        s_log = log;
    }
    void SetUp() override
    {
        const std::string source = LARIMO_SOURCE_DIR;
        ASSERT_TRUE(StartTexts(source + "/data/lang/", source + "/data/lang/larimo_en.tra"));
        SetMessageBoxSink(&m_sink);
        SetMessageDefaults(nullptr, "Larimo");
        SetEffectParamWindowFactory(&VSTEditDialog::Make);
        VSTEditDialog::ForgetPosition();
        m_parent.resize(200, 100);
        m_parent.show();
    }
    void TearDown() override
    {
        m_effect.UnLoad();
        QTest::qWait(20);
        SetEffectParamWindowFactory(nullptr);
        SetMessageBoxSink(nullptr);
        EndTexts();
    }

    void Load(const std::string& path)
    {
        ASSERT_EQ(m_effect.SafeLoad(path, false, nullptr), kVstSuccess) << path;
        m_effect.SetParamChangeListener(&OnChange);
        m_effect.SetEditorClosedListener(&OnClosed);
    }
    VSTEditDialog* Open()
    {
        if (!m_effect.Config(&m_parent, &m_listened))
            return nullptr;
        m_window = dynamic_cast<VSTEditDialog*>(m_effect.ParamWindow());
        return m_window;
    }
    template <typename T>
    T* Control(int id)
    {
        QDialog* window = m_window != nullptr ? m_window->Window() : nullptr;
        return window != nullptr ? window->findChild<T*>(QStringLiteral("ctrl%1").arg(id)) : nullptr;
    }
    // Types into a value field as a user does: the field has the focus.
    void Type(int row, const QString& text)
    {
        QLineEdit* field = Control<QLineEdit>(VSTEditDialog::kValueIdBase + row);
        ASSERT_NE(field, nullptr);
        QApplication::setActiveWindow(m_window->Window());
        field->setFocus();
        field->selectAll();
        QTest::keyClicks(field, text);
    }
    static std::string Log()
    {
        std::ifstream in(s_log);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

    static inline fs::path s_log;
    MoAudioEffect m_effect;
    QWidget m_parent;
    Listened m_listened;
    test::RecordingSink m_sink;
    VSTEditDialog* m_window = nullptr;
};

bool OnX11()
{
    return QGuiApplication::platformName() == QLatin1String("xcb");
}

TEST_F(ParamWindow, AnEffectWithNothingToTurnSaysSoAndOpensNoWindow)
{
    Load(test::TestPluginPath("NoParams"));
    EXPECT_EQ(Open(), nullptr);
    ASSERT_EQ(m_sink.m_boxes.size(), 1U);
    EXPECT_EQ(m_sink.m_boxes[0].text, "Effect has no configurable parameters.");
    EXPECT_EQ(m_sink.m_boxes[0].style & MB_ICONWARNING, MB_ICONWARNING);
}

TEST_F(ParamWindow, RowsShowTheValuesAndEveryTurnReachesThePluginAtOnce)
{
    if (OnX11())
        GTEST_SKIP() << "on X11 this plug-in shows its own editor";
    Load(test::TestPluginPath("Stereo"));
    ASSERT_NE(Open(), nullptr);
    EXPECT_FALSE(m_window->ShowsPluginEditor());
    EXPECT_EQ(m_window->Window()->windowTitle(), "Larimo Test Effect");

    // The second parameter stands at 0.25.
    ASSERT_NE(Control<QLineEdit>(2001), nullptr);
    EXPECT_EQ(Control<QLineEdit>(2001)->text(), "0.250000");
    EXPECT_EQ(Control<QSlider>(3001)->value(), 250);
    EXPECT_EQ(m_window->Window()->findChild<QLabel*>("shown1")->text(), "25 %");
    EXPECT_EQ(Control<QLineEdit>(2003)->maxLength(), 8);
    m_window->Window()->grab().save(QDir::tempPath() + "/larimo-param-rows.png");

    Type(0, "1.5");
    EXPECT_EQ(Control<QSlider>(3000)->value(), 1000);
    EXPECT_FLOAT_EQ(m_effect.GetParameter(0), 1.0f);
    EXPECT_FALSE(m_effect.ParamsModified()) << "typing does not count as a turn of the knob";
    Type(0, "abc");
    EXPECT_EQ(Control<QSlider>(3000)->value(), 0);
    EXPECT_FLOAT_EQ(m_effect.GetParameter(0), 0.0f);

    Control<QSlider>(3002)->setValue(600);
    EXPECT_FLOAT_EQ(m_effect.GetParameter(2), 0.6f);
    EXPECT_EQ(Control<QLineEdit>(2002)->text(), "0.600000");
    EXPECT_EQ(m_window->Window()->findChild<QLabel*>("shown2")->text(), "60 %");
    EXPECT_TRUE(m_effect.ParamsModified());
    // The window's timer hands the turned knobs to the owner and clears the flag.
    ASSERT_TRUE(QTest::qWaitFor([&] { return m_listened.changes > 0; }, 2000));
    ASSERT_EQ(m_listened.last.size(), 4U);
    EXPECT_FLOAT_EQ(m_listened.last[2].m_value, 0.6f);
    EXPECT_FALSE(m_effect.ParamsModified());

    QTest::mouseClick(Control<QPushButton>(VSTEditDialog::kOkId), Qt::LeftButton);
    EXPECT_EQ(m_window->Window(), nullptr);
    EXPECT_EQ(m_window->Result(), 1);
    EXPECT_EQ(m_listened.closed, 1);
}

TEST_F(ParamWindow, TheFirstWindowOpensAtAQuarterOfTheDesktopTheNextWhereTheLastWasMoved)
{
    Load(test::TestPluginPath("BothEntries"));
    ASSERT_NE(Open(), nullptr);
    QDialog* first = m_window->Window();
    const QRect desktop = m_parent.screen()->availableGeometry();
    const QSize size = first->frameGeometry().size();
    const QPoint quarter(desktop.left() + desktop.width() / 4 - size.width() / 2,
                         desktop.top() + desktop.height() / 4 - size.height() / 2);
    EXPECT_EQ(first->geometry().topLeft(), quarter);

    const QPoint moved(desktop.left() + 150, desktop.top() + 120);
    first->move(moved - (first->geometry().topLeft() - first->frameGeometry().topLeft()));
    ASSERT_TRUE(QTest::qWaitFor([&] { return VSTEditDialog::RememberedPosition() == moved; }, 2000));
    m_effect.CloseConfig();
    EXPECT_EQ(m_listened.closed, 1);

    ASSERT_NE(Open(), nullptr);
    EXPECT_EQ(m_window->Window()->geometry().topLeft(), moved);
}

TEST_F(ParamWindow, AFaultInAKnobIsReportedTheWindowGoesAndThePanelLivesOn)
{
    if (OnX11())
        GTEST_SKIP() << "the rows are tested without X11";
    Load(test::TestPluginPath("CrashOnParameter"));
    ASSERT_NE(Open(), nullptr);
    const std::string module = m_effect.ModulePath();
    Control<QSlider>(3000)->setValue(400);
    EXPECT_EQ(m_window->Window(), nullptr);
    EXPECT_EQ(m_window->Result(), 2);
    EXPECT_FALSE(m_effect.IsLoaded());
    ASSERT_EQ(m_sink.m_boxes.size(), 1U);
    EXPECT_NE(m_sink.m_boxes[0].text.find("Module: \"" + module + "\""), std::string::npos) << m_sink.m_boxes[0].text;
    EXPECT_NE(m_sink.m_boxes[0].text.find("Effect will be closed."), std::string::npos);
    EXPECT_EQ(m_sink.m_boxes[0].caption, "Larimo Test Effect");
    EXPECT_NE(Log().find("Unhandled exception in effect Larimo Test Effect"), std::string::npos);
    // The panel goes on: another plug-in loads and opens its window.
    Load(test::TestPluginPath("BothEntries"));
    EXPECT_NE(Open(), nullptr);
}

// On an X display: plug-ins draw their own editors into the window.
class ParamWindowX11 : public ParamWindow {
protected:
    void SetUp() override
    {
        if (!OnX11())
            GTEST_SKIP() << "plug-in editors need an X display (the xvfb run of this program)";
        ParamWindow::SetUp();
    }
};

TEST_F(ParamWindowX11, ATinyEditorGetsFiftyByFiftyAndItsKnobsReachTheOwner)
{
    Load(test::TestPluginPath("Stereo"));
    ASSERT_NE(Open(), nullptr);
    ASSERT_TRUE(m_window->ShowsPluginEditor());
    EXPECT_EQ(m_window->Window()->geometry().size(), QSize(50, 50));
    // The test editor turns its second knob whenever it gets idle time.
    ASSERT_TRUE(QTest::qWaitFor([&] { return m_listened.changes > 0; }, 2000));
    EXPECT_FLOAT_EQ(m_listened.last.at(1).m_value, 0.75f);
    m_effect.CloseConfig();
    EXPECT_EQ(m_listened.closed, 1);
}

TEST_F(ParamWindowX11, AnEditorThatFaultsIsReportedAndThePanelLivesOn)
{
    Load(test::TestPluginPath("CrashOnEditor"));
    EXPECT_EQ(Open(), nullptr);
    EXPECT_FALSE(m_effect.IsLoaded());
    ASSERT_EQ(m_sink.m_boxes.size(), 1U);
    EXPECT_NE(m_sink.m_boxes[0].text.find("Effect editor will be closed"), std::string::npos);
    Load(test::TestPluginPath("Stereo"));
    EXPECT_NE(Open(), nullptr);
}

TEST_F(ParamWindowX11, AThirdPartyEditorIsDrawnAndClosesCleanly)
{
    const std::string plugin = "/usr/lib/vst/3BandEQ-vst.so";
    ASSERT_TRUE(fs::exists(plugin)) << "dpf-plugins-vst is not installed";
    Load(plugin);
    ASSERT_NE(Open(), nullptr);
    ASSERT_TRUE(m_window->ShowsPluginEditor());
    QWidget* host = m_window->Window()->findChild<QWidget*>("pluginEditor");
    ASSERT_NE(host, nullptr);
    EXPECT_GT(host->width(), 50);
    QImage shot;
    int colours = 0;
    const bool drawn = QTest::qWaitFor(
        [&] {
            shot = m_parent.screen()->grabWindow(host->winId()).toImage();
            QSet<QRgb> seen;
            for (int y = 0; y < shot.height(); y += 3) {
                for (int x = 0; x < shot.width(); x += 3)
                    seen.insert(shot.pixel(x, y));
            }
            colours = static_cast<int>(seen.size());
            return colours > 16;
        },
        5000);
    const QString where = QDir::tempPath() + "/larimo-3bandeq-editor.png";
    shot.save(where);
    EXPECT_TRUE(drawn);
    EXPECT_GT(colours, 16) << "the editor looks blank; see " << where.toStdString();
    m_effect.CloseConfig();
    EXPECT_EQ(m_listened.closed, 1);
    QTest::qWait(100);
    m_effect.UnLoad();
}

} // namespace
} // namespace larimo
