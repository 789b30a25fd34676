// SPDX-License-Identifier: GPL-3.0-or-later
// The first-run wizard against simulated devices: which pages appear, what each page offers,
// the buttons, the live level and the test sound, the failures, and what is stored.
#include "PgWzInput.h"
#include "PgWzMonitor.h"
#include "WizardSheet.h"
#include "wizard.h"

#include "WizardTestSupport.h"
#include "osci.h"
#include "platform/virtual/VirtualAudio.h"
#include "texts.h"
#include "wintools.h"

#include <QAbstractButton>
#include <QApplication>
#include <QImage>
#include <QComboBox>
#include <QLabel>
#include <QPushButton>
#include <QSlider>

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

namespace larimo {
namespace {

using Topology = VirtualMixerTopology;

Topology MuxOf(std::vector<std::string> names, int selected = 0)
{
    Topology topology;
    topology.hasMux = true;
    topology.selected = selected;
    for (std::string& name : names)
        topology.sources.push_back({std::move(name), MixerComponent::SrcLine, true});
    return topology;
}

class WizardTest : public WizardFixture {
protected:
    void Install(std::vector<std::string> inputs, std::vector<std::string> outputs)
    {
        m_audio = std::make_shared<VirtualAudio>(std::move(inputs), std::move(outputs));
        m_previous = SetAudioBackend(m_audio);
    }
    void TearDown() override
    {
        if (m_audio)
            SetAudioBackend(m_previous);
        WizardFixture::TearDown();
    }

    std::shared_ptr<VirtualAudio> m_audio;
    std::shared_ptr<AudioBackend> m_previous;
};

// The buttons as the user sees them, in the flags of the page's table.
unsigned VisibleButtons(QWizard& sheet)
{
    unsigned flags = 0;
    auto shown = [&](QWizard::WizardButton which) {
        QAbstractButton* button = sheet.button(which);
        return button != nullptr && button->isVisible();
    };
    if (shown(QWizard::BackButton) && sheet.button(QWizard::BackButton)->isEnabled())
        flags |= kWizBack;
    if (shown(QWizard::NextButton) && sheet.button(QWizard::NextButton)->isEnabled())
        flags |= kWizNext;
    if (shown(QWizard::FinishButton))
        flags |= sheet.button(QWizard::FinishButton)->isEnabled() ? kWizFinish : kWizDisabledFinish;
    return flags;
}

TEST(WizardButtons, TableOfBothPages)
{
    EXPECT_EQ(WizardButtonsFor(false, true, 2), kWizNext);
    EXPECT_EQ(WizardButtonsFor(false, true, 1), kWizFinish);
    EXPECT_EQ(WizardButtonsFor(false, false, 2), 0U);
    EXPECT_EQ(WizardButtonsFor(false, false, 1), kWizDisabledFinish);
    EXPECT_EQ(WizardButtonsFor(true, true, 2), kWizBack | kWizFinish);
    EXPECT_EQ(WizardButtonsFor(true, true, 1), kWizFinish);
    EXPECT_EQ(WizardButtonsFor(true, false, 2), kWizBack | kWizDisabledFinish);
    EXPECT_EQ(WizardButtonsFor(true, false, 1), kWizDisabledFinish);
}

TEST(WizardSliders, PositionsSurviveTheRoundTripThroughTheMixer)
{
    EXPECT_EQ(PositionToVolume(0), 0U);
    EXPECT_EQ(PositionToVolume(50), 32767U);
    EXPECT_EQ(PositionToVolume(100), 65535U);
    EXPECT_EQ(PositionToVolume(250), 65535U);
    for (int position = 0; position <= 100; ++position)
        EXPECT_EQ(VolumeToPosition(PositionToVolume(position)), position) << position;
    EXPECT_EQ(VolumeToPosition(65535), 100);
    EXPECT_EQ(VolumeToPosition(0), 0);
}

TEST_F(WizardTest, OnlyDevicesWithAMicrophoneLineNeedNoQuestions)
{
    Install({"Microphone (USB Audio)"}, {"Speakers (USB Audio)"});
    m_audio->SetMixerTopology(0, MuxOf({"Line In", "Mic", "CD"}));
    const SheetWatch watch = WatchForSheet([](CWizardSheet& sheet) { sheet.reject(); });
    EXPECT_TRUE(WizardStart(m_settings));
    EXPECT_FALSE(watch->shown);
    EXPECT_EQ(m_settings.m_input, "Microphone (USB Audio)");
    EXPECT_EQ(m_settings.m_mixInSrc, "Mic");
    EXPECT_EQ(m_settings.m_monitor, "Speakers (USB Audio)");
}

TEST_F(WizardTest, NoDevicesOfAKindEndsTheProgram)
{
    Install({"Microphone"}, {});
    EXPECT_FALSE(WizardStart(m_settings));
    ASSERT_EQ(m_messages.texts.size(), 1U);
    EXPECT_EQ(m_messages.texts[0], GetText(240));
    EXPECT_EQ(m_messages.styles[0] & MB_ICONMASK, MB_ICONERROR);
}

TEST_F(WizardTest, RecordingDeviceWithoutMicrophoneLineAsksOnlyForTheChannel)
{
    Install({"Webcam Audio"}, {"Speakers"});
    m_audio->SetMixerTopology(0, MuxOf({"Line In", "CD", "Aux"}, 2));
    const SheetWatch watch = WatchForSheet([this](CWizardSheet& sheet) {
        ASSERT_NE(sheet.InputPage(), nullptr);
        EXPECT_EQ(sheet.MonitorPage(), nullptr);
        CPgWzInput& page = *sheet.InputPage();
        auto* devices = Ctrl<QComboBox>(page, 1120);
        EXPECT_EQ(devices->currentText(), "Webcam Audio");
        EXPECT_FALSE(devices->isEnabled());
        EXPECT_EQ(Ctrl<QLabel>(page, 1119)->text().toStdString(), GetText(104));
        auto* label = Ctrl<QLabel>(page, 1121);
        auto* channels = Ctrl<QComboBox>(page, 1122);
        EXPECT_TRUE(label->isVisible());
        EXPECT_EQ(label->text().toStdString(), GetText(106));
        EXPECT_TRUE(channels->isEnabled());
        EXPECT_EQ(channels->currentText(), "Aux") << "the mixer's own choice is shown";
        EXPECT_EQ(channels->count(), 3);
        EXPECT_EQ(VisibleButtons(sheet), kWizFinish);
        EXPECT_TRUE(page.Recording());
        EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 1);

        channels->setCurrentIndex(channels->findText("CD"));
        PortMixer other;
        ASSERT_TRUE(other.Open(0, 0, nullptr));
        std::string selected;
        other.GetRecSourceName(selected);
        EXPECT_EQ(selected, "CD") << "a channel chosen is selected in the mixer at once";
        sheet.button(QWizard::FinishButton)->click();
    });
    EXPECT_TRUE(WizardStart(m_settings));
    EXPECT_TRUE(watch->shown);
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0);
    EXPECT_EQ(m_settings.m_input, "Webcam Audio");
    EXPECT_EQ(m_settings.m_mixInSrc, "CD");
    EXPECT_EQ(m_settings.m_monitor, "Speakers");
}

TEST_F(WizardTest, TwoPagesOfferNoWayOnUntilDevicesAreChosen)
{
    Install({"Microphone (USB)", "Line In (Onboard)"}, {"Headset", "Speakers"});
    m_audio->SetMixerTopology(0, MuxOf({"Mic", "Line"}));
    const SheetWatch watch = WatchForSheet([this](CWizardSheet& sheet) {
        CPgWzInput& input = *sheet.InputPage();
        auto* devices = Ctrl<QComboBox>(input, 1120);
        EXPECT_EQ(Ctrl<QLabel>(input, 1119)->text().toStdString(), GetText(102));
        EXPECT_TRUE(devices->isEnabled());
        EXPECT_EQ(devices->currentIndex(), -1);
        EXPECT_FALSE(Ctrl<QComboBox>(input, 1122)->isVisible());
        EXPECT_FALSE(Ctrl<QSlider>(input, 1073)->isEnabled());
        EXPECT_EQ(VisibleButtons(sheet), 0U);
        EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0);

        devices->setCurrentIndex(devices->findText("Microphone (USB)"));
        EXPECT_EQ(VisibleButtons(sheet), kWizNext);
        EXPECT_EQ(Ctrl<QLabel>(input, 1121)->text().toStdString(), GetText(105));
        EXPECT_FALSE(Ctrl<QComboBox>(input, 1122)->isEnabled());
        EXPECT_EQ(Ctrl<QComboBox>(input, 1122)->currentText(), "Mic");
        sheet.next();
        EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0) << "the recording stops when the page is left";

        CPgWzMonitor& monitor = *sheet.MonitorPage();
        EXPECT_EQ(Ctrl<QLabel>(monitor, 1119)->text().toStdString(), GetText(109));
        EXPECT_EQ(VisibleButtons(sheet), kWizBack | kWizDisabledFinish);
        Ctrl<QPushButton>(monitor, 1028)->click();
        ASSERT_EQ(m_messages.texts.size(), 1U);
        EXPECT_EQ(m_messages.texts[0], GetText(232));
        auto* outputs = Ctrl<QComboBox>(monitor, 1120);
        outputs->setCurrentIndex(outputs->findText("Speakers"));
        EXPECT_EQ(VisibleButtons(sheet), kWizBack | kWizFinish);

        sheet.back();
        EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 1) << "coming back records again";
        sheet.next();
        sheet.button(QWizard::FinishButton)->click();
    });
    EXPECT_TRUE(WizardStart(m_settings));
    EXPECT_EQ(m_settings.m_input, "Microphone (USB)");
    EXPECT_EQ(m_settings.m_mixInSrc, "Mic");
    EXPECT_EQ(m_settings.m_monitor, "Speakers");
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture) + m_audio->OpenCount(WaveDirection::Render), 0);
}

TEST_F(WizardTest, VirtualMicrophoneCountsForThePagesButIsNeverOffered)
{
    Install({"Larimo Microphone", "Microphone (Test)"}, {"Larimo Microphone", "Speakers"});
    m_audio->SetMixerTopology(1, MuxOf({"Mic"}));
    const SheetWatch watch = WatchForSheet([](CWizardSheet& sheet) {
        ASSERT_NE(sheet.InputPage(), nullptr) << "the mic line was found, but two recording devices";
        ASSERT_NE(sheet.MonitorPage(), nullptr);
        auto* devices = Ctrl<QComboBox>(*sheet.InputPage(), 1120);
        ASSERT_EQ(devices->count(), 1);
        EXPECT_EQ(devices->currentText(), "Microphone (Test)");
        EXPECT_FALSE(devices->isEnabled());
        EXPECT_EQ(VisibleButtons(sheet), kWizNext);
        sheet.next();
        auto* outputs = Ctrl<QComboBox>(*sheet.MonitorPage(), 1120);
        ASSERT_EQ(outputs->count(), 1);
        EXPECT_EQ(outputs->currentText(), "Speakers");
        EXPECT_EQ(VisibleButtons(sheet), kWizBack | kWizFinish);
        sheet.button(QWizard::FinishButton)->click();
    });
    EXPECT_TRUE(WizardStart(m_settings));
    EXPECT_EQ(m_settings.m_input, "Microphone (Test)");
    EXPECT_EQ(m_settings.m_monitor, "Speakers");
}

TEST_F(WizardTest, CancelOnEitherPageEndsWithDevicesClosed)
{
    for (const bool onSecondPage : {false, true}) {
        SCOPED_TRACE(onSecondPage ? "playback page" : "recording page");
        Install({"Mic A", "Mic B"}, {"Out A", "Out B"});
        const Config before = m_settings;
        const SheetWatch watch = WatchForSheet([&](CWizardSheet& sheet) {
            auto* devices = Ctrl<QComboBox>(*sheet.InputPage(), 1120);
            devices->setCurrentIndex(0);
            if (onSecondPage) {
                sheet.next();
                auto* outputs = Ctrl<QComboBox>(*sheet.MonitorPage(), 1120);
                outputs->setCurrentIndex(0);
                Ctrl<QPushButton>(*sheet.MonitorPage(), 1028)->click();
                EXPECT_TRUE(sheet.MonitorPage()->Playing());
                EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 1);
            } else {
                EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 1);
            }
            sheet.button(QWizard::CancelButton)->click();
        });
        EXPECT_FALSE(WizardStart(m_settings));
        EXPECT_TRUE(watch->shown);
        EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture) + m_audio->OpenCount(WaveDirection::Render), 0);
        EXPECT_EQ(m_settings.m_monitor, before.m_monitor);
        SetAudioBackend(m_previous);
    }
}

TEST_F(WizardTest, LevelFollowsTheMixerAndTheMicrophoneSignal)
{
    Install({"Microphone (USB)"}, {"Speakers"});
    m_audio->SetMixerTopology(0, MuxOf({"Line In", "CD"}, 1));
    CWizardSheet sheet(m_settings, true, false);
    sheet.show();
    CPgWzInput& page = *sheet.InputPage();
    auto* level = Ctrl<QSlider>(page, 1073);
    ASSERT_TRUE(level->isEnabled());

    PortMixer other;
    ASSERT_TRUE(other.Open(0, 0, nullptr));
    ASSERT_TRUE(other.SetRecVolume(PositionToVolume(30)));
    ASSERT_TRUE(WaitUntil([&] { return level->value() == 30; })) << level->value();

    level->setValue(80);
    uint32_t volume = 0;
    ASSERT_TRUE(other.GetRecVolume(volume));
    EXPECT_EQ(volume, PositionToVolume(80));

    ASSERT_TRUE(other.SelectRecSource("Line In"));
    auto* channels = Ctrl<QComboBox>(page, 1122);
    EXPECT_TRUE(WaitUntil([&] { return channels->currentText() == "Line In"; }));

    auto* osci = page.findChild<OSCI*>("ctrl1083");
    ASSERT_NE(osci, nullptr);
    osci->ClearData();
    m_audio->InjectInput(0, SineBytes(440.0, 8000, 4410));
    m_audio->Advance(100);
    EXPECT_TRUE(WaitUntil([&] { return osci->QueuedSamples() > 0; }));
    sheet.reject();
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0);
}

TEST_F(WizardTest, TestPlaysTheTestSoundInALoopIntoTheChosenDevice)
{
    Install({"Mic"}, {"Headset", "Speakers"});
    CWizardSheet sheet(m_settings, false, true);
    sheet.show();
    CPgWzMonitor& page = *sheet.MonitorPage();
    auto* outputs = Ctrl<QComboBox>(page, 1120);
    outputs->setCurrentIndex(outputs->findText("Headset"));
    auto* test = Ctrl<QPushButton>(page, 1028);
    EXPECT_EQ(test->text().toStdString(), GetText(110));
    test->click();
    ASSERT_TRUE(page.Playing());
    EXPECT_EQ(test->text().toStdString(), GetText(111));

    const std::vector<int16_t> expected = TestWaveSamples();
    ASSERT_FALSE(expected.empty());
    // Longer than the sound, so the loop shows as the sound starting again.
    const std::size_t wanted = expected.size() + 44100 / 10;
    std::vector<int16_t> played;
    for (int round = 0; round < 400 && played.size() < wanted; ++round) {
        m_audio->Advance(50);
        WaitUntil([] { return false; }, 5);
        const std::vector<uint8_t> bytes = m_audio->TakePlayed(0);
        const auto* samples = reinterpret_cast<const int16_t*>(bytes.data());
        played.insert(played.end(), samples, samples + bytes.size() / 2);
    }
    ASSERT_GE(played.size(), wanted);
    EXPECT_TRUE(std::equal(expected.begin(), expected.end(), played.begin()));
    EXPECT_TRUE(std::equal(expected.begin(), expected.begin() + 4410, played.begin() + static_cast<long>(expected.size())));
    EXPECT_TRUE(m_audio->TakePlayed(1).empty()) << "nothing goes to the other device";

    test->click();
    EXPECT_FALSE(page.Playing());
    EXPECT_EQ(test->text().toStdString(), GetText(110));
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 0);
    sheet.reject();
}

TEST_F(WizardTest, FailuresAreToldAndLeaveNothingOpen)
{
    Install({"Mic A", "Mic B"}, {"Out A", "Out B"});
    CWizardSheet sheet(m_settings, true, true);
    sheet.show();

    m_audio->SetDeviceGone(WaveDirection::Capture, 1, true);
    Ctrl<QComboBox>(*sheet.InputPage(), 1120)->setCurrentIndex(1);
    ASSERT_GE(m_messages.texts.size(), 1U);
    EXPECT_EQ(m_messages.texts[0].rfind("Error opening test stream: ", 0), 0U) << m_messages.texts[0];
    EXPECT_EQ(m_messages.styles[0] & MB_ICONMASK, MB_ICONERROR);
    EXPECT_NE(std::find(m_messages.texts.begin(), m_messages.texts.end(), FillTextFor(112, "Mic B")),
              m_messages.texts.end());
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0);
    m_messages.Clear();

    Ctrl<QComboBox>(*sheet.InputPage(), 1120)->setCurrentIndex(0);
    sheet.next();
    m_audio->SetDeviceGone(WaveDirection::Render, 1, true);
    Ctrl<QComboBox>(*sheet.MonitorPage(), 1120)->setCurrentIndex(1);
    EXPECT_NE(std::find(m_messages.texts.begin(), m_messages.texts.end(), FillTextFor(235, "Out B")),
              m_messages.texts.end());
    EXPECT_NE(std::find(m_messages.texts.begin(), m_messages.texts.end(), GetText(236)), m_messages.texts.end());
    m_messages.Clear();
    Ctrl<QPushButton>(*sheet.MonitorPage(), 1028)->click();
    ASSERT_EQ(m_messages.texts.size(), 1U);
    EXPECT_EQ(m_messages.texts[0].rfind("Error opening test stream: ", 0), 0U);
    EXPECT_FALSE(sheet.MonitorPage()->Playing());
    m_messages.Clear();

    std::filesystem::remove(m_root / "test.wav");
    Ctrl<QComboBox>(*sheet.MonitorPage(), 1120)->setCurrentIndex(0);
    Ctrl<QPushButton>(*sheet.MonitorPage(), 1028)->click();
    ASSERT_EQ(m_messages.texts.size(), 1U);
    EXPECT_EQ(m_messages.texts[0], GetText(237));
    EXPECT_FALSE(sheet.MonitorPage()->Playing());
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 0);
    sheet.reject();
}

TEST_F(WizardTest, ShowWizardStoresTheAnswersOnlyWhenCompleted)
{
    Install({"Mic A", "Mic B"}, {"Speakers"});
    {
        const SheetWatch watch = WatchForSheet([](CWizardSheet& sheet) { sheet.reject(); });
        EXPECT_FALSE(ShowWizard(m_settings));
        Config reread(m_root.string());
        reread.LoadAll();
        EXPECT_FALSE(reread.m_wizard);
        EXPECT_EQ(reread.m_input, "");
    }
    const SheetWatch watch = WatchForSheet([](CWizardSheet& sheet) {
        Ctrl<QComboBox>(*sheet.InputPage(), 1120)->setCurrentIndex(1);
        sheet.button(QWizard::FinishButton)->click();
    });
    EXPECT_TRUE(ShowWizard(m_settings));
    Config reread(m_root.string());
    reread.LoadAll();
    EXPECT_TRUE(reread.m_wizard);
    EXPECT_EQ(reread.m_input, "Mic B");
    EXPECT_EQ(reread.m_monitor, "Speakers");

    const SheetWatch never = WatchForSheet([](CWizardSheet& sheet) { sheet.reject(); });
    EXPECT_TRUE(ShowWizard(reread));
    EXPECT_FALSE(never->shown) << "a completed wizard is not shown again";
}

// Renders both pages for a person to look at (wizard-render/ beside the test) and checks
// that the banner keeps the default skin's dark look behind the header text.
TEST_F(WizardTest, RendersBothPagesOnTheDarkBanner)
{
    Install({"Microphone (USB Audio)", "Line In (Onboard Audio)"}, {"Headset (USB Audio)", "Speakers (Onboard Audio)"});
    m_audio->SetMixerTopology(0, MuxOf({"Line In", "Microphone", "CD"}));
    CWizardSheet sheet(m_settings, true, true);
    sheet.resize(640, 500);
    sheet.show();
    auto* devices = Ctrl<QComboBox>(*sheet.InputPage(), 1120);
    devices->setCurrentIndex(devices->findText("Microphone (USB Audio)"));
    PortMixer other;
    ASSERT_TRUE(other.Open(0, 0, nullptr));
    other.SetRecVolume(PositionToVolume(70));
    EXPECT_TRUE(WaitUntil([&] { return Ctrl<QSlider>(*sheet.InputPage(), 1073)->value() == 70; }))
        << Ctrl<QSlider>(*sheet.InputPage(), 1073)->value();
    auto* osci = sheet.InputPage()->findChild<OSCI*>("ctrl1083");
    osci->ClearData();
    m_audio->InjectInput(0, SineBytes(330.0, 12000, 44100 / 5));
    m_audio->Advance(50);
    WaitUntil([&] { return osci->QueuedSamples() > 0; });

    std::filesystem::create_directories("wizard-render");
    const QImage input = sheet.grab().toImage();
    ASSERT_TRUE(input.save("wizard-render/wizard-input.png"));
    const QColor corner = input.pixelColor(8, 8);
    EXPECT_LT(corner.lightness(), 70) << "the banner is dark";

    sheet.next();
    auto* outputs = Ctrl<QComboBox>(*sheet.MonitorPage(), 1120);
    outputs->setCurrentIndex(outputs->findText("Headset (USB Audio)"));
    Ctrl<QPushButton>(*sheet.MonitorPage(), 1028)->click();
    EXPECT_GT(sheet.MonitorPage()->findChild<OSCI*>("ctrl1083")->QueuedSamples(), 0U) << "primed buffers are shown";
    const QImage monitor = sheet.grab().toImage();
    ASSERT_TRUE(monitor.save("wizard-render/wizard-monitor.png"));
    sheet.reject();

    const QPixmap banner = WizardBanner(QSize(400, 76));
    const QImage image = banner.toImage();
    EXPECT_LT(image.pixelColor(10, 38).lightness(), 60) << "room for the title on the left";
    EXPECT_TRUE(image.save("wizard-render/wizard-banner.png"));
}

} // namespace
} // namespace larimo
