// SPDX-License-Identifier: GPL-3.0-or-later
// The service's rules for each request, without IPC.
#include "server/CommandDispatcher.h"

#include "wintools.h"

#include <gtest/gtest.h>

#include <cstring>

namespace larimo {
namespace {

ServiceState ThreeFunSounds()
{
    ServiceState state;
    state.activeEffect = 1;
    state.funSounds = {{"A.wav"}, {"B.wav"}, {"Group\\C.wav"}};
    return state;
}

std::vector<uint8_t> U32(uint32_t value)
{
    std::vector<uint8_t> bytes(4);
    std::memcpy(bytes.data(), &value, 4);
    return bytes;
}

std::vector<uint8_t> SlotAndText(uint32_t slot, const std::string& text)
{
    std::vector<uint8_t> bytes = U32(slot);
    std::u16string wide = Utf8ToUtf16(text);
    wide.push_back(0);
    const auto* raw = reinterpret_cast<const uint8_t*>(wide.data());
    bytes.insert(bytes.end(), raw, raw + wide.size() * 2);
    return bytes;
}

class DispatcherTest : public ::testing::Test {
protected:
    CommandDispatcher::Result Handle(uint32_t code, const std::vector<uint8_t>& payload)
    {
        return m_dispatcher.Handle(code, payload);
    }

    int m_loads = 0;
    ServiceState m_onDisk = ThreeFunSounds();
    CommandDispatcher m_dispatcher{[this] {
                                       ++m_loads;
                                       return m_onDisk;
                                   },
                                   1024};
};

TEST_F(DispatcherTest, SlotsAreSetClearedAndCheckedForRange)
{
    auto result = Handle(kCmdEffectSetActive, U32(2));
    EXPECT_TRUE(result.valid);
    EXPECT_TRUE(result.stateChanged);
    EXPECT_EQ(m_dispatcher.State().activeEffect, 2);

    result = Handle(kCmdEffectSetActive, U32(kNoSlot));
    EXPECT_EQ(m_dispatcher.State().activeEffect, -1);

    result = Handle(kCmdBackSoundSetActive, U32(1));
    EXPECT_EQ(m_dispatcher.State().activeBackSound, 1);

    // Out of range: rejected, nothing changes, one error text.
    for (uint32_t bad : {3u, 0xFFFFFFFEu}) {
        result = Handle(kCmdBackSoundSetActive, U32(bad));
        EXPECT_FALSE(result.valid);
        EXPECT_FALSE(result.stateChanged);
        EXPECT_EQ(m_dispatcher.State().activeBackSound, 1);
    }
    EXPECT_EQ(m_dispatcher.Errors().size(), 2u);

    // The same value again is no change for the pipeline.
    result = Handle(kCmdBackSoundSetActive, U32(1));
    EXPECT_TRUE(result.valid);
    EXPECT_FALSE(result.stateChanged);
}

TEST_F(DispatcherTest, PayloadSizesMustMatchExactly)
{
    std::vector<uint8_t> longer = U32(0);
    longer.push_back(0);
    EXPECT_FALSE(Handle(kCmdEffectSetActive, longer).valid);
    EXPECT_FALSE(Handle(kCmdEffectSetActive, {0, 0}).valid);
    EXPECT_FALSE(Handle(kCmdSrvUpdate, {0}).valid);
    EXPECT_FALSE(Handle(kCmdBackSoundSetVol, U32(0)).valid);
    EXPECT_FALSE(Handle(kCmdMonitorSet, {}).valid);
    EXPECT_FALSE(Handle(12345, {}).valid);
    EXPECT_EQ(m_dispatcher.State(), ThreeFunSounds());
}

TEST_F(DispatcherTest, TextsMustEndInsideThePayload)
{
    auto payload = SlotAndText(1, "Robot");
    EXPECT_TRUE(Handle(kCmdEffectSelect, payload).valid);
    EXPECT_EQ(m_dispatcher.State().effectSlots[1], "Robot");

    payload.pop_back(); // half a terminator
    EXPECT_FALSE(Handle(kCmdEffectSelect, payload).valid);
    payload.pop_back(); // no terminator at all
    EXPECT_FALSE(Handle(kCmdEffectSelect, payload).valid);

    auto trailing = SlotAndText(1, "Echo");
    trailing.push_back('x');
    EXPECT_FALSE(Handle(kCmdEffectSelect, trailing).valid);
    EXPECT_EQ(m_dispatcher.State().effectSlots[1], "Robot");

    EXPECT_TRUE(Handle(kCmdBackSoundSelect, SlotAndText(2, "Café.wav")).valid);
    EXPECT_EQ(m_dispatcher.State().backSounds[2].file, "Café.wav");
}

TEST_F(DispatcherTest, VolumesAreClampedToPercent)
{
    auto payload = U32(0);
    payload.push_back(static_cast<uint8_t>(static_cast<int8_t>(-5)));
    EXPECT_TRUE(Handle(kCmdBackSoundSetVol, payload).valid);
    EXPECT_EQ(m_dispatcher.State().backSounds[0].volume, 0);
    payload.back() = 127;
    Handle(kCmdBackSoundSetVol, payload);
    EXPECT_EQ(m_dispatcher.State().backSounds[0].volume, 100);
    payload.back() = 42;
    Handle(kCmdBackSoundSetVol, payload);
    EXPECT_EQ(m_dispatcher.State().backSounds[0].volume, 42);

    Handle(kCmdMonitorSetVol, {250});
    EXPECT_EQ(m_dispatcher.State().monitorVol, 100);
    Handle(kCmdMonitorSet, {1});
    EXPECT_TRUE(m_dispatcher.State().monitorOn);
}

TEST_F(DispatcherTest, FunSoundFlagsAndTheirChangeNotices)
{
    auto result = Handle(kCmdEmoticPlay, U32(1));
    EXPECT_TRUE(result.funSoundsChanged);
    const uint32_t firstStart = m_dispatcher.State().funSounds[1].starts;

    // Playing a playing sound restarts it: no flag changes, but the pipeline must see it.
    result = Handle(kCmdEmoticPlay, U32(1));
    EXPECT_FALSE(result.funSoundsChanged);
    EXPECT_TRUE(result.stateChanged);
    EXPECT_EQ(m_dispatcher.State().funSounds[1].starts, firstStart + 1);

    // The end of the first run comes late and must not stop the second one.
    EXPECT_FALSE(m_dispatcher.FunSoundEnded(1, firstStart));
    EXPECT_TRUE(m_dispatcher.State().funSounds[1].playing);
    EXPECT_TRUE(m_dispatcher.FunSoundEnded(1, firstStart + 1));
    EXPECT_FALSE(m_dispatcher.State().funSounds[1].playing);

    Handle(kCmdEmoticPlay, U32(0));
    Handle(kCmdEmoticPlay, U32(2));
    result = Handle(kCmdEmoticsStatus, {});
    EXPECT_EQ(result.answer, (std::vector<uint8_t>{3, 0, 0, 0, 1, 0, 1}));

    result = Handle(kCmdEmoticStopAll, {});
    EXPECT_TRUE(result.funSoundsChanged);
    result = Handle(kCmdEmoticStopAll, {});
    EXPECT_FALSE(result.funSoundsChanged);

    EXPECT_FALSE(Handle(kCmdEmoticPlay, U32(3)).valid);
    EXPECT_TRUE(Handle(kCmdEmoticSelect, SlotAndText(3, "New.wav")).valid);
    EXPECT_EQ(m_dispatcher.State().funSounds.size(), 4u);
    EXPECT_FALSE(Handle(kCmdEmoticSelect, SlotAndText(9, "Far.wav")).valid);
}

TEST_F(DispatcherTest, ReloadKeepsSoundsThatStayInTheirSlot)
{
    Handle(kCmdEmoticPlay, U32(0));
    Handle(kCmdEmoticPlay, U32(1));
    m_onDisk.funSounds[1].file = "Other.wav";
    m_onDisk.activeEffect = 0;
    const auto result = Handle(kCmdSrvUpdate, {});
    EXPECT_EQ(m_loads, 2);
    EXPECT_TRUE(result.funSoundsChanged);
    EXPECT_TRUE(m_dispatcher.State().funSounds[0].playing);
    EXPECT_FALSE(m_dispatcher.State().funSounds[1].playing);
    EXPECT_EQ(m_dispatcher.State().activeEffect, 0);
}

TEST_F(DispatcherTest, ErrorsAreHandedOverOnceAndOnlyAsManyAsFit)
{
    for (int i = 0; i < 40; ++i)
        m_dispatcher.AddError("Error loading VST plug-in: number " + std::to_string(i) + " of forty");
    auto result = Handle(kCmdSrvGetErrors, {});
    uint32_t count = 0;
    std::memcpy(&count, result.answer.data(), 4);
    EXPECT_GT(count, 0u);
    EXPECT_LT(count, 40u);
    EXPECT_LE(result.answer.size(), 1024u);

    uint32_t total = count;
    while (!m_dispatcher.Errors().empty()) {
        result = Handle(kCmdSrvGetErrors, {});
        std::memcpy(&count, result.answer.data(), 4);
        ASSERT_GT(count, 0u);
        total += count;
    }
    EXPECT_EQ(total, 40u);
    result = Handle(kCmdSrvGetErrors, {});
    EXPECT_EQ(result.answer, (std::vector<uint8_t>{0, 0, 0, 0}));
}

} // namespace
} // namespace larimo
