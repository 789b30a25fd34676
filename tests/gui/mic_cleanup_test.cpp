// SPDX-License-Identifier: GPL-3.0-or-later
// The "Microphone" group of the general options on the private sound server: its switches and
// sliders edit the settings they were given, and its meter hears the fake microphone and shows
// the gate open above the threshold and closed below it.
#include "MicCleanupGroup.h"
#include "WizardTestSupport.h"
#include "platform/pulse/PulseBackend.h"

#include <gtest/gtest.h>

#include <QCheckBox>
#include <QSlider>

#include <cstdio>
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

class MicCleanupGroupTest : public WizardFixture {
protected:
    void SetUp() override
    {
        WizardFixture::SetUp();
        // Our own sound server connection, closed before the process ends.
        m_previous = SetAudioBackend(CreatePulseBackend());
    }

    void TearDown() override
    {
        if (!m_tone.empty())
            Pactl("unload-module " + m_tone);
        Pactl("set-sink-volume mic_feed 100%");
        SetAudioBackend(m_previous);
        WizardFixture::TearDown();
    }

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
