// SPDX-License-Identifier: GPL-3.0-or-later
// The "Microphone" group of the general options on the private sound server: its switches and
// sliders edit the settings they were given, and its meter hears the fake microphone and shows
// the gate open above the threshold and closed below it.
#include "MicCleanupGroup.h"
#include "WizardPage.h"
#include "platform/pulse/PulseBackend.h"
#include "texts.h"
#include "wintools.h"

#include <gtest/gtest.h>

#include <QApplication>
#include <QCheckBox>
#include <QElapsedTimer>
#include <QSlider>

#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

namespace larimo {
namespace {

std::string Pactl(const std::string& arguments)
{
    std::string output;
    FILE* pipe = ::popen(("pactl " + arguments + " 2>/dev/null").c_str(), "r");
    if (pipe == nullptr)
        return output;
    char chunk[256];
    std::size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0)
        output.append(chunk, got);
    ::pclose(pipe);
    while (!output.empty() && output.back() == '\n')
        output.pop_back();
    return output;
}

bool WaitUntil(const std::function<bool()>& done, int timeoutMs)
{
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() > timeoutMs)
            return false;
        QApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

template <typename T>
T* Ctrl(QWidget& parent, int id)
{
    for (T* widget : parent.findChildren<T*>()) {
        if (widget->property(kCtrlIdProperty).toInt() == id)
            return widget;
    }
    return nullptr;
}

class MicCleanupGroupTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_root = std::filesystem::temp_directory_path() / ("larimo-mic-" + std::to_string(::getpid()));
        std::filesystem::create_directories(m_root);
        SetDataRoot(m_root.string());
        static const bool texts = StartTexts(LARIMO_SOURCE_DIR "/data/lang/", LARIMO_SOURCE_DIR "/data/lang/larimo_en.tra");
        ASSERT_TRUE(texts);
        m_settings = Config(m_root.string());
        // Our own sound server connection, closed before the process ends.
        m_previous = SetAudioBackend(CreatePulseBackend());
    }

    void TearDown() override
    {
        if (!m_tone.empty())
            Pactl("unload-module " + m_tone);
        Pactl("set-sink-volume mic_feed 100%");
        SetAudioBackend(m_previous);
        std::filesystem::remove_all(m_root);
    }

    std::filesystem::path m_root;
    Config m_settings;
    std::string m_tone;
    std::shared_ptr<AudioBackend> m_previous;
};

TEST_F(MicCleanupGroupTest, SwitchesAndSlidersEditTheSettingsAndSayTheyChanged)
{
    m_settings.m_noiseSuppression = true;
    m_settings.m_noiseStrength = 30;
    m_settings.m_gate = false;
    m_settings.m_gateThreshold = -45;
    CMicCleanupGroup group(m_settings);
    int changed = 0;
    QObject::connect(&group, &CMicCleanupGroup::Changed, [&changed] { ++changed; });

    auto* noise = Ctrl<QCheckBox>(group, CMicCleanupGroup::kNoiseCheck);
    auto* strength = Ctrl<QSlider>(group, CMicCleanupGroup::kStrengthSlider);
    auto* gate = Ctrl<QCheckBox>(group, CMicCleanupGroup::kGateCheck);
    auto* threshold = Ctrl<QSlider>(group, CMicCleanupGroup::kThresholdSlider);
    ASSERT_TRUE(noise && strength && gate && threshold);
    EXPECT_TRUE(noise->isChecked());
    EXPECT_EQ(strength->value(), 30);
    EXPECT_FALSE(gate->isChecked());
    EXPECT_FALSE(threshold->isEnabled()) << "the threshold means nothing while the gate is off";
    EXPECT_EQ(changed, 0) << "showing the values is no change";
    EXPECT_NE(noise->toolTip().indexOf("5 ms later"), -1) << "the switch says what it adds to the latency";

    gate->click();
    threshold->setValue(-30);
    noise->click();
    EXPECT_TRUE(m_settings.m_gate);
    EXPECT_EQ(m_settings.m_gateThreshold, -30);
    EXPECT_FALSE(m_settings.m_noiseSuppression);
    EXPECT_FALSE(strength->isEnabled());
    EXPECT_EQ(changed, 3);

    // The slider cannot go where the service would not follow.
    threshold->setValue(5);
    EXPECT_EQ(m_settings.m_gateThreshold, VoiceCleaner::kMaxThresholdDb);
}

TEST_F(MicCleanupGroupTest, MeterHearsTheMicrophoneAndShowsWhereTheGateOpens)
{
    ASSERT_NE(std::getenv("PULSE_SERVER"), nullptr) << "needs the private sound server";
    m_tone = Pactl("load-module module-sine sink=mic_feed frequency=300");
    ASSERT_FALSE(m_tone.empty());
    // About -37 dBFS: a quiet voice, between the thresholds tried below.
    Pactl("set-sink-volume mic_feed 30%");
    m_settings.m_input = "Microphone (Test)";
    m_settings.m_inBuffSizeMs = 25;
    m_settings.m_inBuffsN = 4;
    m_settings.m_noiseSuppression = false;
    m_settings.m_gate = true;
    m_settings.m_gateThreshold = -60;

    QWidget window;
    auto* group = new CMicCleanupGroup(m_settings, &window);
    window.show();
    ASSERT_TRUE(group->Metering());
    CMicLevelMeter* meter = group->Meter();
    ASSERT_TRUE(WaitUntil([&] { return meter->RawDb() > -45.0f && meter->GateOpen(); }, 5000))
        << "level " << meter->RawDb() << " dBFS, gate " << (meter->GateOpen() ? "open" : "closed");
    EXPECT_NEAR(meter->CleanedDb(), meter->RawDb(), 1.5f) << "an open gate passes the tone as it is";

    // Above the tone's level the gate closes and nothing goes through.
    Ctrl<QSlider>(*group, CMicCleanupGroup::kThresholdSlider)->setValue(-20);
    EXPECT_TRUE(WaitUntil([&] { return !meter->GateOpen() && meter->CleanedDb() < -60.0f; }, 5000))
        << "level " << meter->CleanedDb() << " dBFS after the gate";

    window.hide();
    EXPECT_FALSE(group->Metering()) << "a hidden group lets go of the microphone";
}

} // namespace
} // namespace larimo

// The application ends with main, while Qt's own statics still exist.
int main(int argc, char** argv)
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM"))
        qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
