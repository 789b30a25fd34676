// SPDX-License-Identifier: GPL-3.0-or-later
#include "defsnc.h"

#include "audio/AudioTestSupport.h"
#include "wmme.h"

#include <gtest/gtest.h>

namespace larimo {
namespace {

struct DefaultCase {
    std::vector<std::string> outputs;
    int preferredBefore;
    int preferredAfter;
};

class ResetRender : public test::VirtualAudioTest, public ::testing::WithParamInterface<DefaultCase> {
protected:
    ResetRender()
        : VirtualAudioTest({"Microphone"}, GetParam().outputs)
    {
    }
};

TEST_P(ResetRender, MovesThePlaybackDefaultOffTheVirtualMicrophoneOnlyWhenItCan)
{
    const DefaultCase& c = GetParam();
    ASSERT_EQ(m_audio->SetPreferredWaveDevice(WaveDirection::Render, c.preferredBefore), kMmOk);
    _ResetRenderLarimo();
    EXPECT_EQ(m_audio->PreferredWaveDevice(WaveDirection::Render), c.preferredAfter);
}

INSTANTIATE_TEST_SUITE_P(
    Layouts, ResetRender,
    ::testing::Values(DefaultCase{{"Speakers", "Larimo Microphone"}, 0, 0},
                      DefaultCase{{"Larimo Microphone", "Speakers"}, 0, 1},
                      DefaultCase{{"Speakers", "Larimo Microphone"}, 1, 0},
                      DefaultCase{{"Speakers", "Headset", "Larimo Microphone"}, 2, 0},
                      DefaultCase{{"Larimo Microphone"}, 0, 0},
                      DefaultCase{{"Speakers", "Headset"}, 1, 1}));

class VirtualCard : public test::VirtualAudioTest {
protected:
    VirtualCard()
        : VirtualAudioTest({"Microphone (USB)", "Line In"}, {"Speakers"})
    {
    }
};

TEST_F(VirtualCard, CheckMakesTheCardOnceAndSelectMakesItTheDefaultRecordingDevice)
{
    EXPECT_TRUE(CheckSoundDriver());
    EXPECT_TRUE(CheckSoundDriver());
    std::vector<std::string> names;
    PaGetSoundDevList(names, 1);
    EXPECT_EQ(names, (std::vector<std::string>{"Microphone (USB)", "Line In", "Larimo Microphone"}));
    names.clear();
    PaGetSoundDevList(names, 2);
    EXPECT_EQ(names, (std::vector<std::string>{"Speakers", "Larimo Microphone"}));

    EXPECT_EQ(CSoundDevices(CSoundDevices::kCapture).DefaultIndex(), 0);
    EXPECT_TRUE(SelectDefSndc());
    EXPECT_EQ(CSoundDevices(CSoundDevices::kCapture).DefaultIndex(), 2);
    EXPECT_EQ(CSoundDevices(CSoundDevices::kRender).DefaultIndex(), 0);
    // Already the default: nothing changes, still true.
    EXPECT_TRUE(SelectDefSndc());
    EXPECT_EQ(m_audio->PreferredWaveDevice(WaveDirection::Capture), 2);

    CSoundDevices capture(CSoundDevices::kCapture);
    EXPECT_EQ(FindDeviceByName(capture, "Larimo"), 2);
    EXPECT_EQ(FindDeviceByName(capture, "larimo"), -1);
    EXPECT_FALSE(SetDefaultDevice(capture, 3));
    EXPECT_TRUE(SetDefaultDevice(capture, 1));
    EXPECT_EQ(capture.DefaultIndex(), 1);
}

TEST_F(VirtualCard, CheckFailsWithItsMessageWhenTheCardCannotBeMade)
{
    m_audio->SetVirtualMicrophoneRefused(true);
    EXPECT_FALSE(CheckSoundDriver());
    const std::string log = test::ReadTestLog();
    EXPECT_NE(log.find("Virtual sound card driver \"Larimo Microphone\" not found."), std::string::npos);
    EXPECT_NE(log.find("check virtual sound card driver..."), std::string::npos);
    // Without the card SelectDefSndc has nothing to do and does not fail.
    EXPECT_TRUE(SelectDefSndc());
}

TEST_F(VirtualCard, ControlAnswerMovesOnlyWhileSomeoneRecordsFromTheCard)
{
    std::unique_ptr<DriverControl> handle;
    DriverControlOpen(handle);
    EXPECT_EQ(handle, nullptr);
    EXPECT_EQ(DriverControlQuery(handle.get(), 1), 0U);

    ASSERT_TRUE(CheckSoundDriver());
    DriverControlOpen(handle);
    ASSERT_NE(handle, nullptr);
    const uint32_t idle = DriverControlQuery(handle.get(), 1);
    EXPECT_NE(idle, 0U);
    EXPECT_EQ(DriverControlQuery(handle.get(), 1), idle);
    EXPECT_EQ(DriverControlQuery(handle.get(), 2), 0U);
    EXPECT_EQ(DriverControlQuery(handle.get(), 0xFFFFFFFFU), 0U);

    test::CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    int device = kNoDevice;
    ASSERT_EQ(PaGetDevNByName("Larimo Microphone", 1, device), kMmeSuccess);
    PaStreamIn in;
    ASSERT_EQ(in.Open(engine.ThreadId(), device, 16, 44100, 20, 2), kMmeSuccess);
    // Open but not recording yet.
    EXPECT_EQ(DriverControlQuery(handle.get(), 1), idle);
    ASSERT_EQ(in.Start(), kMmeSuccess);
    const uint32_t first = DriverControlQuery(handle.get(), 1);
    const uint32_t second = DriverControlQuery(handle.get(), 1);
    EXPECT_NE(first, idle);
    EXPECT_NE(second, first);
    EXPECT_EQ(DriverControlQuery(handle.get(), 0), second);
    in.Stop();
    const uint32_t stopped = DriverControlQuery(handle.get(), 1);
    EXPECT_EQ(DriverControlQuery(handle.get(), 1), stopped);
}

} // namespace
} // namespace larimo
