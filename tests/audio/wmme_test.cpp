// SPDX-License-Identifier: GPL-3.0-or-later
#include "wmme.h"

#include "audio/AudioTestSupport.h"
#include "platform/virtual/VirtualAudio.h"
#include "mlog.h"
#include "platform/Realtime.h"
#include "texts.h"

#include <gtest/gtest.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <numeric>
#include <thread>

#include <pthread.h>
#include <sched.h>

namespace larimo {
namespace {

using test::CallbackEngine;
using test::Eventually;

class Engine : public test::VirtualAudioTest {};

std::vector<uint8_t> Ramp(std::size_t count, uint8_t start = 0)
{
    std::vector<uint8_t> bytes(count);
    std::iota(bytes.begin(), bytes.end(), start);
    return bytes;
}

TEST_F(Engine, EveryErrorNumberHasItsText)
{
    const std::vector<std::pair<unsigned, std::string>> expected = {
        {0, "Success"}, {1, "Error creating I/O thread"}, {2, "Time-out expired"}, {3, "Error opening stream"},
        {4, "Insufficient memory"}, {5, "Error creating I/O buffers"}, {6, "I/O stream not found"},
        {7, "Error starting stream"}, {8, "Error stopping stream"}, {9, "No free output buffers available"},
        {10, "I/O Error"}, {11, "Undefined error"}, {12, "Incorrect parameter"}, {13, "Undefined error"},
        {14, "Device not found"}, {15, "Undefined error"}, {16, "Undefined error"}, {0xFFFFFFFFU, "Undefined error"},
    };
    for (const auto& [number, text] : expected)
        EXPECT_EQ(MmeErrorText(number), text) << number;
}

struct FormatCase {
    uint32_t bits;
    uint32_t rate;
    uint32_t ms;
    uint32_t roundedBits;
    uint32_t samples;
    uint32_t bytes;
};

class StreamFormat : public test::VirtualAudioTest, public ::testing::WithParamInterface<FormatCase> {};

TEST_P(StreamFormat, NoDeviceSetsTheFormatAndOpensNothing)
{
    const FormatCase& c = GetParam();
    PaStreamIn in;
    EXPECT_EQ(in.Open(1234, kNoDevice, c.bits, c.rate, c.ms, 4), kMmeSuccess);
    EXPECT_EQ(in.BitsPerSample(), c.roundedBits);
    EXPECT_EQ(in.SamplesPerBuffer(), c.samples);
    EXPECT_EQ(in.BufferSize(), c.bytes);
    EXPECT_EQ(in.Format().formatTag, kStreamFormatPcm);
    EXPECT_EQ(in.Format().channels, 1);
    EXPECT_EQ(in.Format().blockAlign, c.roundedBits / 8);
    EXPECT_EQ(in.Format().avgBytesPerSec, c.roundedBits / 8 * c.rate);
    EXPECT_EQ(in.Device(), kNoDevice);
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0);
    EXPECT_EQ(in.Start(), kMmeStreamNotFound);

    PaStreamOut out;
    EXPECT_EQ(out.Open(1234, kNoDevice, c.bits, c.rate, c.ms, 4), kMmeSuccess);
    EXPECT_EQ(out.BufferSize(), c.bytes);
    out.Activate();
    const std::vector<char> data(c.bytes, 1);
    EXPECT_EQ(out.Write(data.data(), c.bytes, false), kMmeSuccess);
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 0);
}

INSTANTIATE_TEST_SUITE_P(Formats, StreamFormat,
                         ::testing::Values(FormatCase{16, 44100, 20, 16, 882, 1764}, FormatCase{12, 44100, 20, 16, 882, 1764},
                                           FormatCase{8, 8000, 10, 8, 80, 80}, FormatCase{20, 48000, 5, 24, 240, 720},
                                           FormatCase{32, 22050, 3, 32, 66, 264}, FormatCase{1, 11025, 1, 8, 11, 11}));

TEST_F(Engine, OpenRefusesMissingThreadAndUnknownDevice)
{
    CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamIn in;
    EXPECT_EQ(in.Open(0, 0, 16, 44100, 20, 4), kMmeOpenError);
    EXPECT_EQ(in.Device(), kNoDevice);
    EXPECT_EQ(in.Open(engine.ThreadId(), 7, 16, 44100, 20, 4), kMmeOpenError);
    PaStreamOut out;
    EXPECT_EQ(out.Open(0, 0, 16, 44100, 20, 4), kMmeOpenError);
    m_audio->SetDeviceGone(WaveDirection::Render, 1, true);
    EXPECT_EQ(out.Open(engine.ThreadId(), 1, 16, 44100, 20, 4), kMmeOpenError);
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 0);
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0);
}

// The panel's engine feeds the sound server like the voice service does, so its thread must
// never be scheduled before the server's own threads.
TEST_F(Engine, TheEngineThreadStaysBelowTheSoundServersPriority)
{
    CallbackEngine engine;
    std::atomic<int> policy{-1};
    std::atomic<int> priority{-1};
    engine.m_onInput = [&](PaBuffer) {
        sched_param param{};
        int which = 0;
        pthread_getschedparam(pthread_self(), &which, &param);
        policy = which;
        priority = param.sched_priority;
    };
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamIn in;
    ASSERT_EQ(in.Open(engine.ThreadId(), 0, 16, 8000, 10, 2), kMmeSuccess);
    ASSERT_EQ(in.Start(), kMmeSuccess);
    m_audio->Advance(10);
    ASSERT_TRUE(engine.WaitInputs(1));
    in.Stop();
    in.Close();
    if (policy.load() == SCHED_FIFO)
        EXPECT_LE(priority.load(), AudioThreadRealtimePriority());
    else
        EXPECT_EQ(priority.load(), 0) << "without the right to real-time scheduling the thread stays ordinary";
    EXPECT_LT(AudioThreadRealtimePriority(), 5) << "PulseAudio's own threads run at 5";
}

TEST_F(Engine, RecordingDeliversInjectedBytesInQueueOrderAndRequeues)
{
    CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamIn in;
    // 8 kHz, 8 bit, 10 ms: 80 bytes per buffer.
    ASSERT_EQ(in.Open(engine.ThreadId(), 0, 8, 8000, 10, 3), kMmeSuccess);
    const std::vector<uint8_t> injected = Ramp(80 * 7, 5);
    m_audio->InjectInput(0, injected);
    ASSERT_EQ(in.Start(), kMmeSuccess);
    for (std::size_t i = 1; i <= 7; ++i) {
        m_audio->Advance(10);
        ASSERT_TRUE(engine.WaitInputs(i)) << i;
        ASSERT_TRUE(Eventually([&] { return in.QueuedCount() == 3; })) << i;
    }
    const auto seen = engine.Inputs();
    std::vector<uint8_t> joined;
    for (std::size_t i = 0; i < seen.size(); ++i) {
        EXPECT_EQ(seen[i].buffer.index, i % 3);
        EXPECT_EQ(seen[i].buffer.direction, 0U);
        EXPECT_EQ(seen[i].buffer.stream, &in);
        EXPECT_EQ(seen[i].buffer.validBytes, 80U);
        EXPECT_EQ(seen[i].buffer.capacity, 80U);
        joined.insert(joined.end(), seen[i].bytes.begin(), seen[i].bytes.end());
    }
    EXPECT_EQ(joined, injected);
    // With nothing injected the device records silence.
    m_audio->Advance(10);
    ASSERT_TRUE(engine.WaitInputs(8));
    const auto silence = engine.Inputs().back().bytes;
    EXPECT_TRUE(std::all_of(silence.begin(), silence.end(), [](char c) { return c == 0; }));
    EXPECT_EQ(in.Stop(), kMmeSuccess);
    EXPECT_TRUE(in.Close());
    EXPECT_EQ(in.Device(), kNoDevice);
    EXPECT_EQ(in.BufferSize(), 0U);
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0);
}

TEST_F(Engine, PlaybackQueuesUpToTheBufferCountAndReportsEachBufferOnce)
{
    CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamOut out;
    ASSERT_EQ(out.Open(engine.ThreadId(), 1, 16, 8000, 10, 3), kMmeSuccess);
    ASSERT_EQ(out.BufferSize(), 160U);
    m_audio->SetLoopback(1, 1);
    const std::vector<uint8_t> block = Ramp(160);

    // Not yet active: nothing is written.
    EXPECT_EQ(out.Write(block.data(), 160, false), kMmeSuccess);
    EXPECT_EQ(out.QueuedCount(), 0U);
    out.Activate();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(out.Write(block.data(), 160, false), kMmeSuccess);
    EXPECT_EQ(out.QueuedCount(), 3U);
    EXPECT_EQ(out.Write(block.data(), 160, false), kMmeNoFreeBuffers);

    m_audio->Advance(20);
    ASSERT_TRUE(engine.WaitOutputs(2));
    ASSERT_TRUE(Eventually([&] { return out.QueuedCount() == 1; }));
    // A short last buffer fits into a freed one.
    EXPECT_EQ(out.Write(block.data(), 100, true), kMmeSuccess);
    m_audio->Advance(20);
    ASSERT_TRUE(engine.WaitOutputs(4));
    const auto done = engine.Outputs();
    ASSERT_EQ(done.size(), 4U);
    EXPECT_EQ(done[0].buffer.index, 0U);
    EXPECT_EQ(done[1].buffer.index, 1U);
    EXPECT_EQ(done[2].buffer.index, 2U);
    EXPECT_EQ(done[3].buffer.validBytes, 100U);
    EXPECT_TRUE(done[3].buffer.last);
    EXPECT_FALSE(done[0].buffer.last);
    EXPECT_EQ(done[0].buffer.direction, 1U);

    std::vector<uint8_t> expected;
    for (int i = 0; i < 3; ++i)
        expected.insert(expected.end(), block.begin(), block.end());
    expected.insert(expected.end(), block.begin(), block.begin() + 100);
    EXPECT_EQ(m_audio->TakePlayed(1), expected);
    out.Close();
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 0);
}

TEST_F(Engine, WriteRefusalsLeaveTheStreamUsable)
{
    CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamOut out;
    ASSERT_EQ(out.Open(engine.ThreadId(), 0, 16, 8000, 10, 2), kMmeSuccess);
    out.Activate();
    const std::vector<uint8_t> big(out.BufferSize() + 1, 7);
    // More than a buffer from outside the engine thread is refused, not fatal.
    EXPECT_EQ(out.Write(big.data(), static_cast<uint32_t>(big.size()), false), kMmeBadParameter);
    EXPECT_EQ(out.QueuedCount(), 0U);
    m_audio->SetDeviceGone(WaveDirection::Render, 0, true);
    EXPECT_EQ(out.Write(big.data(), out.BufferSize(), false), kMmeNoDriver);
    EXPECT_EQ(out.QueuedCount(), 0U);
    m_audio->SetDeviceGone(WaveDirection::Render, 0, false);
    EXPECT_EQ(out.Write(big.data(), out.BufferSize(), false), kMmeSuccess);
    EXPECT_EQ(out.QueuedCount(), 1U);
}

TEST_F(Engine, StopAndCloseWithBuffersQueuedReturnEveryBufferWithoutCallbacks)
{
    CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamIn in;
    PaStreamOut out;
    ASSERT_EQ(in.Open(engine.ThreadId(), 0, 16, 8000, 10, 4), kMmeSuccess);
    ASSERT_EQ(out.Open(engine.ThreadId(), 0, 16, 8000, 10, 4), kMmeSuccess);
    ASSERT_EQ(in.Start(), kMmeSuccess);
    out.Activate();
    const std::vector<uint8_t> block(out.BufferSize(), 3);
    for (int i = 0; i < 4; ++i)
        ASSERT_EQ(out.Write(block.data(), out.BufferSize(), false), kMmeSuccess);
    EXPECT_EQ(in.QueuedCount(), 4U);
    EXPECT_EQ(out.QueuedCount(), 4U);

    EXPECT_EQ(in.Stop(), kMmeSuccess);
    EXPECT_EQ(out.Stop(), kMmeSuccess);
    EXPECT_FALSE(in.IsActive());
    EXPECT_TRUE(Eventually([&] { return in.QueuedCount() == 0 && out.QueuedCount() == 0; }));
    EXPECT_EQ(in.Stop(), kMmeSuccess);
    EXPECT_TRUE(in.Close());
    out.Close();
    EXPECT_TRUE(engine.Inputs().empty());
    EXPECT_TRUE(engine.Outputs().empty());
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Capture), 0);
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 0);

    // Closing straight away, without a Stop first, does the same; and the destructor closes.
    {
        PaStreamOut again;
        ASSERT_EQ(again.Open(engine.ThreadId(), 0, 16, 8000, 10, 2), kMmeSuccess);
        again.Activate();
        ASSERT_EQ(again.Write(block.data(), again.BufferSize(), false), kMmeSuccess);
        EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 1);
    }
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 0);
}

TEST_F(Engine, LoopbackCarriesPlaybackIntoRecordingAndCallbacksMayWrite)
{
    CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamIn in;
    PaStreamOut out;
    ASSERT_EQ(in.Open(engine.ThreadId(), 1, 16, 8000, 10, 2), kMmeSuccess);
    ASSERT_EQ(out.Open(engine.ThreadId(), 0, 16, 8000, 10, 2), kMmeSuccess);
    m_audio->SetLoopback(0, 1);
    // Each recorded buffer is played straight back, as the test stream does.
    engine.m_onInput = [&](PaBuffer buffer) { out.Write(buffer.data, buffer.validBytes, false); };
    out.Activate();
    const std::vector<uint8_t> first = Ramp(160, 1);
    m_audio->InjectInput(1, first);
    ASSERT_EQ(in.Start(), kMmeSuccess);
    for (std::size_t step = 1; step <= 4; ++step) {
        m_audio->Advance(10);
        ASSERT_TRUE(engine.WaitInputs(step));
        ASSERT_TRUE(Eventually([&] { return in.QueuedCount() == 2; }));
    }
    // Recorded in step 1, played back in step 2, recorded again in step 2 (same step order).
    const auto seen = engine.Inputs();
    EXPECT_EQ(std::vector<uint8_t>(seen[0].bytes.begin(), seen[0].bytes.end()), first);
    EXPECT_EQ(std::vector<uint8_t>(seen[1].bytes.begin(), seen[1].bytes.end()), first);
    EXPECT_EQ(std::vector<uint8_t>(seen[3].bytes.begin(), seen[3].bytes.end()), first);
}

TEST_F(Engine, StuckEngineTimesOutKeepsItsThreadAndStopsOnceFreed)
{
    CallbackEngine engine;
    engine.SetStopTimeout(100);
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    std::atomic<bool> release{false};
    std::atomic<bool> entered{false};
    engine.m_onInput = [&](PaBuffer) {
        entered = true;
        while (!release)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    };
    PaStreamIn in;
    ASSERT_EQ(in.Open(engine.ThreadId(), 0, 8, 8000, 10, 2), kMmeSuccess);
    ASSERT_EQ(in.Start(), kMmeSuccess);
    m_audio->Advance(20);
    ASSERT_TRUE(Eventually([&] { return entered.load(); }));

    EXPECT_EQ(engine.StopEngine(), kMmeTimeout);
    EXPECT_TRUE(engine.EngineRunning());
    EXPECT_NE(engine.ThreadId(), 0U);
    EXPECT_NE(test::ReadTestLog().find("Stop mme engine error: Wait timeout expire"), std::string::npos);

    // Closing while the engine holds a buffer is bounded: the buffers are kept, the device goes.
    std::thread closer([&] { in.Stop(); });
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    release = true;
    closer.join();
    EXPECT_EQ(engine.StopEngine(), kMmeSuccess);
    EXPECT_FALSE(engine.EngineRunning());
    EXPECT_EQ(engine.ThreadId(), 0U);
    EXPECT_TRUE(in.Close());
}

TEST_F(Engine, CloseWithoutAnEngineIsBoundedAndKeepsTheBuffers)
{
    CallbackEngine engine;
    engine.SetStopTimeout(100);
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    const ThreadMessageId id = engine.ThreadId();
    ASSERT_EQ(engine.StopEngine(), kMmeSuccess);
    // The queue of a stopped engine is gone: open refuses; use a queue nobody reads instead.
    auto deaf = ThreadMessageQueue::Create();
    PaStreamOut out;
    EXPECT_EQ(out.Open(id, 0, 16, 8000, 10, 2), kMmeOpenError);
    ASSERT_EQ(out.Open(deaf->Id(), 0, 16, 8000, 10, 2), kMmeSuccess);
    out.Activate();
    const std::vector<uint8_t> block(out.BufferSize(), 9);
    ASSERT_EQ(out.Write(block.data(), out.BufferSize(), false), kMmeSuccess);
    out.Close();
    EXPECT_EQ(out.Device(), kNoDevice);
    EXPECT_EQ(out.OrphanedBuffers(), 1U);
    EXPECT_EQ(deaf->Pending(), 1U);
    EXPECT_EQ(m_audio->OpenCount(WaveDirection::Render), 0);
    EXPECT_NE(test::ReadTestLog().find("PaStreamOut::Close: 1 buffers still queued"), std::string::npos);
}

class FaultyEngine : public CallbackEngine {
public:
    int m_faults = 0;

protected:
    void OnIoException(unsigned message) override
    {
        ++m_faults;
        LogError("fault callback for %u", message);
    }
};

TEST_F(Engine, FaultInACallbackEndsTheProcessAfterItsLogLine)
{
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto runFault = [this](bool overrun) {
        FaultyEngine engine;
        engine.StartEngine();
        PaStreamOut out;
        out.Open(engine.ThreadId(), 0, 8, 8000, 10, 2);
        PaStreamIn in;
        in.Open(engine.ThreadId(), 0, 8, 8000, 10, 2);
        engine.m_onInput = [&](PaBuffer) {
            if (overrun) {
                std::vector<char> big(out.BufferSize() * 2);
                out.Write(big.data(), static_cast<uint32_t>(big.size()), false);
            } else {
                std::raise(SIGSEGV);
            }
        };
        out.Activate();
        in.Start();
        m_audio->Advance(10);
        std::this_thread::sleep_for(std::chrono::seconds(5));
        std::exit(0);
    };
    EXPECT_EXIT(runFault(false), ::testing::ExitedWithCode(1), "");
    EXPECT_EXIT(runFault(true), ::testing::ExitedWithCode(1), "");
    const std::string log = test::ReadTestLog();
    EXPECT_NE(log.find("Audio input exception. "), std::string::npos) << log;
    EXPECT_NE(log.find("Exception code: e0000001"), std::string::npos);
    EXPECT_NE(log.find("wmme critical error (dataSize > buffSize)"), std::string::npos);
    EXPECT_NE(log.find("fault callback for 960"), std::string::npos);
}

} // namespace
} // namespace larimo
