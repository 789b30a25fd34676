// SPDX-License-Identifier: GPL-3.0-or-later
// Against the private sound server that the CTest fixture starts (scripts/test-soundserver.sh).
#include "SelectDefSound/SoundDevices.h"
#include "VoiceCleaner.h"
#include "defsnc.h"
#include "platform/Realtime.h"
#include "platform/ThreadMessages.h"
#include "platform/pulse/PulseBackend.h"
#include "wmme.h"

#include "audio/AudioTestSupport.h"
#include "server/ServiceProcess.h"

#include <gtest/gtest.h>

#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <random>
#include <sstream>
#include <thread>

namespace larimo {
namespace {

class Pulse : public test::PrivateSoundServerTest {
protected:
    static int CountNamed(int direction, const std::string& text)
    {
        const CSoundDevices devices(direction);
        int count = 0;
        for (int i = 0; i < devices.Count(); ++i)
            count += devices.Name(i).find(text) != std::string::npos ? 1 : 0;
        return count;
    }
};

TEST_F(Pulse, PlayedSignalComesBackThroughTheMonitorWithAMeasuredDelay)
{
    constexpr uint32_t kRate = 44100;
    constexpr uint32_t kBufferMs = 20;
    test::CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    int speakers = kNoDevice;
    int monitor = kNoDevice;
    ASSERT_EQ(PaGetDevNByName("Speakers", 2, speakers), kMmeSuccess);
    ASSERT_EQ(PaGetDevNByName("Monitor of Speakers", 1, monitor), kMmeSuccess);

    // A burst of noise between silences: one sharp correlation peak.
    std::mt19937 random(7);
    std::uniform_int_distribution<int> sample(-12000, 12000);
    const std::size_t perBuffer = kRate * kBufferMs / 1000;
    std::vector<int16_t> signal(perBuffer * 60, 0);
    for (std::size_t i = perBuffer * 10; i < perBuffer * 20; ++i)
        signal[i] = static_cast<int16_t>(sample(random));

    PaStreamOut out;
    PaStreamIn in;
    ASSERT_EQ(out.Open(engine.ThreadId(), speakers, 16, kRate, kBufferMs, 4), kMmeSuccess);
    ASSERT_EQ(in.Open(engine.ThreadId(), monitor, 16, kRate, kBufferMs, 4), kMmeSuccess);
    std::atomic<std::size_t> written{0};
    const auto writeNext = [&] {
        const std::size_t at = written.load();
        if (at >= signal.size())
            return;
        if (out.Write(signal.data() + at, static_cast<uint32_t>(perBuffer * 2), at + perBuffer >= signal.size()) ==
            kMmeSuccess)
            written = at + perBuffer;
    };
    engine.m_onOutput = [&](PaBuffer) { writeNext(); };
    ASSERT_EQ(in.Start(), kMmeSuccess);
    out.Activate();
    for (int i = 0; i < 4; ++i)
        writeNext();
    ASSERT_TRUE(test::Eventually([&] { return written.load() >= signal.size(); }, std::chrono::seconds(10)));
    ASSERT_TRUE(engine.WaitInputs(80));
    in.Stop();
    out.Stop();

    std::vector<int16_t> recorded;
    for (const auto& seen : engine.Inputs()) {
        const auto* samples = reinterpret_cast<const int16_t*>(seen.bytes.data());
        recorded.insert(recorded.end(), samples, samples + seen.bytes.size() / 2);
    }
    // Find the burst: the lag with the largest normalised cross-correlation.
    const std::size_t burstBegin = perBuffer * 10;
    const std::size_t burstLength = perBuffer * 10;
    double energy = 0;
    for (std::size_t i = 0; i < burstLength; ++i)
        energy += static_cast<double>(signal[burstBegin + i]) * signal[burstBegin + i];
    double best = 0;
    std::size_t bestAt = 0;
    for (std::size_t at = 0; at + burstLength <= recorded.size(); at += 1) {
        double dot = 0;
        double power = 0;
        for (std::size_t i = 0; i < burstLength; i += 4) {
            dot += static_cast<double>(recorded[at + i]) * signal[burstBegin + i];
            power += static_cast<double>(recorded[at + i]) * recorded[at + i];
        }
        const double score = power > 0 ? dot / std::sqrt(power * energy / 4) : 0;
        if (score > best) {
            best = score;
            bestAt = at;
        }
    }
    EXPECT_GT(best, 0.9) << "the burst was not found again";
    // Positions count from each stream's first sample; an idle null sink's monitor sends nothing,
    // so this offset is the recording's, and the wall-clock latency is bench_audio_latency's.
    const double offsetMs = (static_cast<double>(bestAt) - static_cast<double>(burstBegin)) * 1000.0 / kRate;
    RecordProperty("burst_offset_ms", std::to_string(offsetMs));
    std::printf("loopback: burst found %.1f ms off its written position (correlation %.3f)\n", offsetMs, best);
}

// A writer that hands the speakers a block at a time, paced by a clock of its own.
struct PacedWriter {
    uint32_t block = 441;
    uint32_t leadMs = 12;
    double seconds = 10;
    double slow = 0;       // how much slower its clock runs than the sink's
    bool corrected = true; // each block grows or shrinks by what the device asks
    bool stall = false;    // a quarter of the way in it stalls for 60 ms, then catches up
};

// What it met.
struct PacedRun {
    uint64_t underruns = 0;
    uint64_t lateUnderruns = 0; // in the second half
    double framesPerSecond = 0; // the correction over the second half
};

PacedRun PlayPaced(const PacedWriter& writer)
{
    constexpr uint32_t kRate = 44100;
    constexpr uint32_t kMaxStretch = 4;
    PacedRun run;
    int speakers = kNoDevice;
    if (PaGetDevNByName("Speakers", 2, speakers) != kMmeSuccess) {
        ADD_FAILURE() << "no speakers";
        return run;
    }
    const std::shared_ptr<ThreadMessageQueue> queue = ThreadMessageQueue::Create();
    std::unique_ptr<WaveOutDevice> out;
    if (CurrentAudioBackend()->OpenWaveOut(speakers, MonoPcmFormat(kRate, 16),
                                           {writer.block * 2, 1, kRate * writer.leadMs / 1000 * 2}, queue->Id(),
                                           out) != kMmOk) {
        ADD_FAILURE() << "the speakers cannot be opened";
        queue->Unregister();
        return run;
    }
    std::vector<WaveHeader> headers(16);
    std::vector<int16_t> data(headers.size() * (writer.block + kMaxStretch), 3000);
    for (size_t i = 0; i < headers.size(); ++i) {
        headers[i].data = reinterpret_cast<char*>(data.data() + i * (writer.block + kMaxStretch));
        out->PrepareHeader(headers[i]);
    }
    // The service feeds the virtual microphone from threads at real-time priority: so does the
    // writer here, or a busy test machine would stall it rather than the stream it measures.
    sched_param before{};
    int policyBefore = SCHED_OTHER;
    pthread_getschedparam(pthread_self(), &policyBefore, &before);
    MakeThreadRealtime(gettid(), AudioThreadRealtimePriority());
    if (const unsigned streamThread = CurrentAudioBackend()->StreamThreadId(); streamThread != 0)
        MakeThreadRealtime(static_cast<pid_t>(streamThread), AudioThreadRealtimePriority());
    const auto period = std::chrono::duration<double>(writer.block / (kRate * (1.0 - writer.slow)));
    const int blocks = static_cast<int>(writer.seconds * kRate / writer.block);
    const auto start = std::chrono::steady_clock::now();
    int64_t applied = 0;
    int64_t appliedAtHalf = 0;
    uint64_t underrunsAtHalf = 0;
    size_t next = 0;
    for (int block = 0; block < blocks; ++block) {
        std::this_thread::sleep_until(start +
                                      std::chrono::duration_cast<std::chrono::steady_clock::duration>(period * block));
        if (writer.stall && block == blocks / 4)
            std::this_thread::sleep_for(std::chrono::milliseconds(60));
        if (block == blocks / 2) {
            appliedAtHalf = applied;
            underrunsAtHalf = out->Underruns();
        }
        WaveHeader& header = headers[next];
        next = (next + 1) % headers.size();
        if ((header.flags.load() & kWhdrInQueue) != 0)
            continue; // the device still holds it: a lost block, which the test tells by under-runs
        int64_t stretch = 0;
        if (writer.corrected)
            stretch = std::clamp<int64_t>(out->ClockCorrectionFrames() - applied, -int64_t{kMaxStretch}, kMaxStretch);
        applied += stretch;
        header.bufferLength = static_cast<uint32_t>(writer.block + stretch) * 2;
        EXPECT_EQ(out->Write(header), kMmOk);
    }
    pthread_setschedparam(pthread_self(), policyBefore, &before);
    run.underruns = out->Underruns();
    run.lateUnderruns = run.underruns - underrunsAtHalf;
    run.framesPerSecond = static_cast<double>(applied - appliedAtHalf) / (writer.seconds / 2);
    out->Reset();
    out->Close();
    queue->Unregister();
    return run;
}

// A writer whose clock runs 0.3 % slow against the sink's, as a microphone's may against the
// virtual microphone's: without the correction the device asks for, it runs dry again and
// again; with it, the sink is fed and the correction matches the difference of the clocks.
// Early on the writer stalls once and then hands over what it owes in a burst: the device
// skips the surplus and goes on as before.
TEST_F(Pulse, AWriterOnASlowerClockKeepsTheSinkFedByTheCorrectionItIsTold)
{
    constexpr double kSlow = 0.003;
    constexpr double kRate = 44100;
    // The lead grows with every under-run, so they come ever more seldom; still the plain run
    // meets one in its second half. The matched one may meet one while it starts, never later.
    const PacedRun plain = PlayPaced({.seconds = 12, .slow = kSlow, .corrected = false, .stall = true});
    EXPECT_GE(plain.lateUnderruns, 1u) << "the slow writer should run the sink dry without the correction";
    const PacedRun matched = PlayPaced({.seconds = 16, .slow = kSlow, .corrected = true, .stall = true});
    EXPECT_EQ(matched.lateUnderruns, 0u);
    EXPECT_NEAR(matched.framesPerSecond, kSlow * kRate, kSlow * kRate * 0.4);
    std::printf("slow writer: %llu under-runs plain (%llu late), %llu matched (%llu late), correction %.1f frames/s "
                "(%.0f expected)\n",
                static_cast<unsigned long long>(plain.underruns), static_cast<unsigned long long>(plain.lateUnderruns),
                static_cast<unsigned long long>(matched.underruns),
                static_cast<unsigned long long>(matched.lateUnderruns), matched.framesPerSecond, kSlow * kRate);
}

// Chat programs record in fragments of 10 to 40 ms. However long they are, the sink must not
// take more of the stream at once than its lead holds: the service's own blocks and lead, 25 ms
// and 5 ms, while a program records the speakers' monitor in 40 ms fragments.
TEST_F(Pulse, AProgramRecordingInLongFragmentsNeverRunsTheSinkDry)
{
    const std::string recorder = test::Shell("parec --latency-msec=40 --device=speakers.monitor >/dev/null "
                                             "2>&1 & echo $!");
    ASSERT_FALSE(recorder.empty());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    for (const uint32_t block : {VoiceCleaner::BlockFor(25, 44100), VoiceCleaner::BlockFor(5, 44100)}) {
        const PacedRun run = PlayPaced({.block = block, .leadMs = 6, .seconds = 6});
        EXPECT_EQ(run.underruns, 0u) << "blocks of " << block << " samples";
    }
    test::Shell("kill " + recorder);
}

// The source hands on what it records in pieces of its own, which never quite match a short
// buffer. Were the fragment as long as the buffer, now and then a buffer would wait for the next
// piece and come a whole buffer late, with the next right behind it (at 5 ms buffers about once
// a second once the recording runs); shorter fragments keep 5 ms buffers coming every 5 ms.
TEST_F(Pulse, ShortRecordingBuffersComeAtAnEvenPace)
{
    test::CallbackEngine engine;
    std::mutex mutex;
    std::vector<std::chrono::steady_clock::time_point> arrivals;
    engine.m_onInput = [&](PaBuffer) {
        std::lock_guard lock(mutex);
        arrivals.push_back(std::chrono::steady_clock::now());
    };
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamIn in;
    ASSERT_TRUE(test::StartRecording(engine, in, "Microphone (Test)", 5, 8));
    std::this_thread::sleep_for(std::chrono::seconds(8));
    in.Stop();
    in.Close();
    std::lock_guard lock(mutex);
    ASSERT_GT(arrivals.size(), 300u) << "the recording should run for seconds";
    int late = 0;
    for (size_t i = 100; i < arrivals.size(); ++i)
        late += arrivals[i] - arrivals[i - 1] >= std::chrono::microseconds(8500) ? 1 : 0;
    std::printf("5 ms buffers: %d of %zu came more than 8.5 ms after the one before\n", late, arrivals.size() - 100);
    EXPECT_LE(late, 2);
}

TEST_F(Pulse, VirtualMicrophoneIsMadeOnceAndBecomesTheDefaultRecordingDevice)
{
    ASSERT_TRUE(CheckSoundDriver());
    ASSERT_TRUE(CheckSoundDriver());
    EXPECT_EQ(CountNamed(CSoundDevices::kRender, "Larimo Microphone"), 1);
    EXPECT_EQ(CountNamed(CSoundDevices::kCapture, "Larimo Microphone"), 1);

    ASSERT_TRUE(SelectDefSndc());
    const CSoundDevices capture(CSoundDevices::kCapture);
    ASSERT_TRUE(capture.EndpointModel());
    const int mic = capture.FindByName("Larimo Microphone");
    EXPECT_EQ(capture.DefaultIndex(), mic);
    EXPECT_EQ(capture.Entry(mic)->endpointId, std::string("{0.0.1.00000000}.") + kVirtualMicSourceName);
    const CSoundDevices render(CSoundDevices::kRender);
    EXPECT_NE(render.DefaultIndex(), render.FindByName("Larimo Microphone"));

    // Made the default playback device by someone else, it is moved off again.
    CSoundDevices playback(CSoundDevices::kRender);
    ASSERT_TRUE(SetDefaultDevice(playback, playback.FindByName("Larimo Microphone")));
    _ResetRenderLarimo();
    const CSoundDevices after(CSoundDevices::kRender);
    EXPECT_EQ(after.DefaultIndex(), after.FindByName("Larimo Microphone") == 0 ? 1 : 0);
}

TEST_F(Pulse, NamesAreFoundBySubstringInTheServersOrder)
{
    const CSoundDevices capture(CSoundDevices::kCapture);
    int device = kNoDevice;
    // "Monitor of Microphone Feed" comes before "Microphone (Test)" in the server's order, but a
    // monitor is no microphone: only its whole name finds it.
    ASSERT_EQ(PaGetDevNByName("Microphone", 1, device), kMmeSuccess);
    EXPECT_EQ(capture.Name(capture.FindByWaveDevice(device)), "Microphone (Test)");
    ASSERT_EQ(PaGetDevNByName("Monitor of Microphone Feed", 1, device), kMmeSuccess);
    EXPECT_EQ(capture.Name(capture.FindByWaveDevice(device)), "Monitor of Microphone Feed");
    ASSERT_EQ(PaGetDevNByName("(Test)", 1, device), kMmeSuccess);
    EXPECT_EQ(capture.Name(capture.FindByWaveDevice(device)), "Microphone (Test)");
    EXPECT_EQ(PaGetDevNByName("Speak", 2, device), kMmeSuccess);
    EXPECT_EQ(PaGetDevNByName("No such device", 2, device), kMmeDeviceNotFound);
    EXPECT_EQ(device, kNoDevice);
}

// A headset: its microphone and its speakers carry one description, so the speakers' monitor
// is "Monitor of" that description. Made in both orders, the microphone is found either way.
TEST_F(Pulse, AHeadsetsMicrophoneIsFoundAndNeverItsSpeakersMonitor)
{
    const auto shell = [](const std::string& command) {
        std::string output = test::Shell(command);
        while (!output.empty() && output.back() == '\n')
            output.pop_back();
        return output;
    };
    const std::string sink = "pactl load-module module-null-sink sink_name=headset_out "
                             "\"sink_properties='device.description=\\\"USB Headset\\\"'\"";
    const std::string source = "pactl load-module module-null-sink sink_name=headset_feed "
                               "\"sink_properties='device.description=\\\"Headset Feed\\\"'\" && "
                               "pactl load-module module-remap-source master=headset_feed.monitor "
                               "source_name=headset_in \"source_properties='device.description=\\\"USB Headset\\\"'\"";
    for (const bool sinkFirst : {true, false}) {
        std::vector<std::string> modules;
        for (const std::string& command : sinkFirst ? std::vector{sink, source} : std::vector{source, sink}) {
            std::istringstream ids(shell(command));
            for (std::string id; std::getline(ids, id);)
                modules.push_back(id);
        }
        int device = kNoDevice;
        ASSERT_EQ(PaGetDevNByName("USB Headset", 1, device), kMmeSuccess);
        EXPECT_FALSE(CurrentAudioBackend()->IsMonitorDevice(device)) << (sinkFirst ? "sink first" : "source first");
        const CSoundDevices capture(CSoundDevices::kCapture);
        EXPECT_EQ(capture.Name(capture.FindByWaveDevice(device)), "USB Headset");
        ASSERT_EQ(PaGetDevNByName("Headset", 1, device), kMmeSuccess);
        EXPECT_FALSE(CurrentAudioBackend()->IsMonitorDevice(device)) << "a part of the name never finds a monitor";
        ASSERT_EQ(PaGetDevNByName("USB Headset", 2, device), kMmeSuccess);
        for (auto id = modules.rbegin(); id != modules.rend(); ++id)
            shell("pactl unload-module " + *id);
    }
}

class Changes : public MixerNotify {
public:
    void OnMixerControlChange(uint32_t) override { ++m_count; }
    std::atomic<int> m_count{0};
};

TEST_F(Pulse, MixerReadsAndSetsTheSourceVolume)
{
    unsigned id = 0;
    ASSERT_EQ(PaGetMixerId("Microphone (Test)", 1, id), kMmeSuccess);
    Changes changes;
    PortMixer mixer;
    ASSERT_TRUE(mixer.Open(id, 0, &changes));
    EXPECT_FALSE(mixer.HasMux());
    EXPECT_FALSE(mixer.HasNoRecControl());
    std::string name;
    mixer.GetRecSourceName(name);
    EXPECT_EQ(name, "Microphone (Test)");
    for (uint32_t value : {0U, 16384U, 32768U, 65535U}) {
        ASSERT_TRUE(mixer.SetRecVolume(value));
        uint32_t read = 0;
        ASSERT_TRUE(mixer.GetRecVolume(read));
        EXPECT_NEAR(static_cast<double>(read), value, 1.0) << value;
    }
    EXPECT_TRUE(test::Eventually([&] { return changes.m_count.load() > 0; }));
    EXPECT_FALSE(mixer.SetRecVolume(70000));
    EXPECT_FALSE(FindMicLine(mixer, name));
}

TEST_F(Pulse, ControlAnswerMovesWhileTheVirtualMicrophoneRecords)
{
    ASSERT_TRUE(CheckSoundDriver());
    std::unique_ptr<DriverControl> handle;
    DriverControlOpen(handle);
    ASSERT_NE(handle, nullptr);
    const uint32_t idle = DriverControlQuery(handle.get(), 1);
    EXPECT_EQ(DriverControlQuery(handle.get(), 1), idle);
    test::CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamIn in;
    ASSERT_TRUE(test::StartRecording(engine, in, "Larimo Microphone", 20, 4));
    ASSERT_TRUE(engine.WaitInputs(2));
    // The answer follows the server's notifications, which come a moment after the stream.
    const auto moving = [&] { return DriverControlQuery(handle.get(), 1) != DriverControlQuery(handle.get(), 1); };
    EXPECT_TRUE(test::Eventually(moving));
    EXPECT_TRUE(in.Close());
    EXPECT_TRUE(test::Eventually([&] { return !moving(); }));
    const uint32_t closed = DriverControlQuery(handle.get(), 1);
    EXPECT_EQ(DriverControlQuery(handle.get(), 1), closed);
}

// The main window asks for the lamp five times a second on its own thread: with the sound
// server stopped (SIGSTOP, as a debugger or an overloaded machine does), every answer must
// still come at once. A server of this test's own, so that stopping it stalls nobody else.
TEST(PulseStalled, LampAnswersWhileTheSoundServerIsStopped)
{
    char pattern[] = "/tmp/larimo-stalled-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string dir = pattern;
    const std::string script = std::string(LARIMO_SOURCE_DIR) + "/scripts/test-soundserver.sh";
    if (test::Shell(script + " start " + dir).find("PULSE_SERVER=") == std::string::npos)
        GTEST_SKIP() << "no private sound server could be started";
    const char* saved = std::getenv("PULSE_SERVER");
    const std::string before = saved != nullptr ? saved : "";
    setenv("PULSE_SERVER", ("unix:" + dir + "/native").c_str(), 1);
    const std::shared_ptr<AudioBackend> previous = SetAudioBackend(CreatePulseBackend());
    const pid_t server = std::atoi(test::Shell("cat " + dir + "/run/pulse/pid").c_str());

    ASSERT_TRUE(CheckSoundDriver());
    std::unique_ptr<DriverControl> handle;
    DriverControlOpen(handle);
    ASSERT_NE(handle, nullptr);
    const uint32_t idle = DriverControlQuery(handle.get(), 1);
    ASSERT_NE(idle, 0U);
    const auto recorders = CurrentAudioBackend()->WatchVirtualMicrophone();
    ASSERT_TRUE(test::Eventually([&] { return recorders && recorders->load() != kRecordersUnknown; }));
    ASSERT_GT(server, 0);
    ASSERT_EQ(kill(server, SIGSTOP), 0);
    std::atomic<int> answered { 0 };
    std::thread asker([&] {
        for (int i = 0; i < 10; ++i) {
            if (DriverControlQuery(handle.get(), 1) == idle)
                ++answered;
            std::this_thread::sleep_for(std::chrono::milliseconds(200));
        }
    });
    // Ten answers take two seconds; a query waiting for the server would never end before it
    // runs again.
    const bool allAnswered = test::Eventually([&] { return answered == 10; }, std::chrono::seconds(4));
    const int whileStopped = answered.load();
    kill(server, SIGCONT);
    asker.join();
    EXPECT_TRUE(allAnswered) << whileStopped << " of 10 queries answered while the server was stopped";

    handle.reset();
    SetAudioBackend(previous);
    if (saved != nullptr)
        setenv("PULSE_SERVER", before.c_str(), 1);
    else
        unsetenv("PULSE_SERVER");
    test::Shell(script + " stop " + dir);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
}

// The count follows the server's events: a program that starts, pauses (corks) and stops
// recording from the virtual microphone, and one recording from another source that must not
// count.
TEST_F(Pulse, RecorderCountFollowsProgramsRecordingFromTheVirtualMicrophone)
{
    std::shared_ptr<AudioBackend> backend = CurrentAudioBackend();
    std::string why;
    ASSERT_TRUE(backend->EnsureVirtualMicrophone(why)) << why;
    const std::shared_ptr<const std::atomic<int32_t>> recorders = backend->WatchVirtualMicrophone();
    ASSERT_NE(recorders, nullptr);
    const auto count = [&recorders] { return recorders->load(); };
    ASSERT_TRUE(test::Eventually([&] { return count() == 0; })) << "count " << count();

    test::CallbackEngine engine;
    ASSERT_EQ(engine.StartEngine(), kMmeSuccess);
    PaStreamIn elsewhere;
    ASSERT_TRUE(test::StartRecording(engine, elsewhere, "Monitor of Speakers", 20, 4));

    int device = kNoDevice;
    ASSERT_EQ(PaGetDevNByName("Larimo Microphone", 1, device), kMmeSuccess);
    PaStreamIn in;
    ASSERT_EQ(in.Open(engine.ThreadId(), device, 16, 44100, 20, 4), kMmeSuccess);
    // Opened but not started: the stream is corked and records nothing yet.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(count(), 0) << "a corked stream or another source's recorder counted";
    ASSERT_EQ(in.Start(), kMmeSuccess);
    EXPECT_TRUE(test::Eventually([&] { return count() == 1; })) << "count " << count();
    EXPECT_TRUE(in.Close());
    EXPECT_TRUE(test::Eventually([&] { return count() == 0; })) << "count " << count();
    EXPECT_TRUE(elsewhere.Close());
}

} // namespace
} // namespace larimo
