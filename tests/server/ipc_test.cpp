// SPDX-License-Identifier: GPL-3.0-or-later
// The service link against the real LarimoServer in its own process.
#include "ServiceProcess.h"

#include "ProgrammState.h"
#include "ServiceEventThread.h"
#include "mlog.h"
#include "platform/NamedObjects.h"
#include "moipc_cli.h"
#include "server/moipc_cmds.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <thread>

namespace larimo {
namespace {

using test::ServiceProcess;
using test::WaitFor;
using Clock = std::chrono::steady_clock;

const char* const kConfig = "[sys]\r\nactiveEffect=1\r\nactiveBackSound=-1\r\n"
                            "[emotics]\r\nnum=3\r\n"
                            "name_0=Laugh\r\nfile_0=Voices\\Laugh.wav\r\n"
                            "name_1=Boing\r\nfile_1=Effects\\Boing.wav\r\n"
                            "name_2=Horn\r\nfile_2=Effects\\Horn.wav\r\n";

std::string ReadFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

class ServiceLinkTest : public ::testing::Test {
protected:
    static void SetUpTestSuite()
    {
        test::UsePrivateObjectNamespace();
        s_log = std::filesystem::temp_directory_path() / ("larimo-ipc-test-" + std::to_string(getpid()) + ".log");
        LogOpen(s_log.string(), true, false, false, false, false);
    }
    static void TearDownTestSuite()
    {
        std::filesystem::remove(s_log);
        test::RemovePrivateObjectNamespace();
    }

    static std::filesystem::path s_log;
};

std::filesystem::path ServiceLinkTest::s_log;

TEST_F(ServiceLinkTest, OpenWithoutServiceTriesEveryObjectAndReportsTheMissingMapping)
{
    IPC ipc(kIpcBaseName);
    EXPECT_FALSE(ipc.Open());
    EXPECT_FALSE(ipc.IsOpen());
    const std::string log = ReadFile(s_log);
    EXPECT_NE(log.find("Open ipc connection."), std::string::npos);
    EXPECT_NE(log.find("IPC::Open(): hIsWork=0, hReq=0, hAnsw=0, shmerror=4"), std::string::npos);

    ipc.Close();
    ipc.Close();
    EXPECT_FALSE(ipc.IsOpen());
}

// The service plays what it is told: give it real sounds that outlast the test.
void AddFunSounds(const ServiceProcess& service)
{
    for (const char* path : {"emoticsounds/Voices/Laugh.wav", "emoticsounds/Effects/Boing.wav",
                             "emoticsounds/Effects/Horn.wav", "emoticsounds/Voices/Oops.wav"})
        service.AddSound(path, 20);
    service.AddSound("backsounds/Rain.wav", 2);
}

TEST_F(ServiceLinkTest, CommandsRoundTripAndChangeTheServiceState)
{
    ServiceProcess service(kConfig);
    AddFunSounds(service);
    ASSERT_TRUE(service.Start());
    auto client = ConnectToService(kIpcBaseName);
    ASSERT_NE(client, nullptr);

    EXPECT_TRUE(client->CliOnStarted());
    std::vector<std::string> errors;
    EXPECT_TRUE(client->SrvGetErrors(errors));
    EXPECT_TRUE(errors.empty());

    std::vector<bool> playing;
    ASSERT_TRUE(client->EmoticsStatus(playing));
    EXPECT_EQ(playing, (std::vector<bool>{false, false, false}));

    EXPECT_TRUE(client->EmoticPlay(1));
    EXPECT_TRUE(client->EmoticPlay(2));
    playing.clear();
    ASSERT_TRUE(client->EmoticsStatus(playing));
    EXPECT_EQ(playing, (std::vector<bool>{false, true, true}));

    EXPECT_TRUE(client->EmoticStop(2));
    playing.clear();
    ASSERT_TRUE(client->EmoticsStatus(playing));
    EXPECT_EQ(playing, (std::vector<bool>{false, true, false}));

    EXPECT_TRUE(client->EmoticStopAll());
    playing.clear();
    ASSERT_TRUE(client->EmoticsStatus(playing));
    EXPECT_EQ(playing, (std::vector<bool>{false, false, false}));

    // The wire layout of the commands with a payload.
    EXPECT_TRUE(client->EffectSelect(2, "Robot"));
    EXPECT_TRUE(client->EffectSetActive(kNoSlot));
    EXPECT_TRUE(client->BackSoundSelect(0, "Rain.wav"));
    EXPECT_TRUE(client->BackSoundSetVol(0, 55));
    EXPECT_TRUE(client->BackSoundSetActive(0));
    EXPECT_TRUE(client->MonitorSet(true));
    EXPECT_TRUE(client->MonitorSetVol(80));
    EXPECT_TRUE(client->EmoticSelect(3, "Voices\\Oops.wav"));
    EXPECT_TRUE(client->SrvUpdate());
    EXPECT_TRUE(client->SrvGetErrors(errors));
    // Every command was well formed; what the service could not load (the effect "Robot" has
    // no definition here) is its own report, not a rejection.
    for (const std::string& error : errors)
        EXPECT_EQ(error.find("malformed"), std::string::npos) << error;
    EXPECT_TRUE(client->CliOnClose());
}

TEST_F(ServiceLinkTest, PayloadSizesOnTheWire)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());
    IPC ipc(kIpcBaseName);
    ASSERT_TRUE(ipc.Open());

    ipc.Lock();
    ipc.ResetData();
    const uint32_t slot = 2;
    ipc.Write(&slot, 4);
    ipc.WriteString("Robot");
    EXPECT_EQ(ipc.SizeWord(), 16u);
    ipc.ResetData();
    const int8_t volume = 40;
    ipc.Write(&slot, 4);
    ipc.Write(&volume, 1);
    EXPECT_EQ(ipc.SizeWord(), 5u);
    ipc.ResetData();
    EXPECT_EQ(ipc.SizeWord(), 0u);
    ipc.Unlock();
}

TEST_F(ServiceLinkTest, MalformedRequestsAreAnsweredEmptyReportedAndChangeNothing)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());
    auto client = ConnectToService(kIpcBaseName);
    ASSERT_NE(client, nullptr);
    IPC& ipc = client->Connection();

    const auto send = [&](uint32_t code, const std::vector<uint8_t>& payload, uint32_t sizeWord) {
        ipc.Lock();
        ipc.ResetData();
        if (!payload.empty())
            ipc.Write(payload.data(), payload.size());
        ipc.WriteAt(&sizeWord, 4, kIpcSizeWordOffset);
        const bool answered = ipc.SendMessageW(code);
        const uint32_t answer = ipc.SizeWord();
        ipc.Unlock();
        return std::make_pair(answered, answer);
    };

    // A slot that is too short, one out of range, a text without its zero, an unknown code,
    // and a size word beyond the data area.
    EXPECT_EQ(send(kCmdEmoticPlay, {1, 0}, 2), std::make_pair(true, 0u));
    EXPECT_EQ(send(kCmdEmoticPlay, {7, 0, 0, 0}, 4), std::make_pair(true, 0u));
    EXPECT_EQ(send(kCmdEffectSelect, {0, 0, 0, 0, 'A', 0, 'B', 0}, 8), std::make_pair(true, 0u));
    EXPECT_EQ(send(999, {}, 0), std::make_pair(true, 0u));
    EXPECT_EQ(send(kCmdEmoticPlay, {0, 0, 0, 0}, 0xFFFFFF00u), std::make_pair(true, 0u));

    std::vector<bool> playing;
    ASSERT_TRUE(client->EmoticsStatus(playing));
    EXPECT_EQ(playing, (std::vector<bool>{false, false, false}));

    std::vector<std::string> errors;
    ASSERT_TRUE(client->SrvGetErrors(errors));
    ASSERT_EQ(errors.size(), 5u);
    for (const std::string& error : errors)
        EXPECT_NE(error.find("malformed"), std::string::npos) << error;
    errors.clear();
    ASSERT_TRUE(client->SrvGetErrors(errors));
    EXPECT_TRUE(errors.empty());
}

TEST_F(ServiceLinkTest, AShortAnswerGivesOnlyWhatTheSizeWordAllows)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());
    IPC ipc(kIpcBaseName);
    ASSERT_TRUE(ipc.Open());
    // The service's answer to a question for its errors, when it has none, is one count word.
    ipc.Lock();
    ipc.ResetData();
    ASSERT_TRUE(ipc.SendMessageW(kCmdSrvGetErrors));
    uint64_t value = ~uint64_t{0};
    size_t got = 0;
    ipc.Read(&value, 8, &got);
    EXPECT_EQ(got, 4u) << "more was read than the service's size word allows";
    EXPECT_EQ(value & 0xFFFFFFFFu, 0u);
    ipc.Read(&value, 4, &got);
    EXPECT_EQ(got, 0u);
    ipc.Unlock();
}

TEST_F(ServiceLinkTest, ASendFailsAtOnceWhenTheServiceDiesDuringTheExchange)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());
    auto client = ConnectToService(kIpcBaseName);
    ASSERT_NE(client, nullptr);

    // Frozen, the service takes the request but never answers; then it dies.
    service.Signal(SIGSTOP);
    std::thread killer([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        service.Stop(SIGKILL);
    });
    const auto start = Clock::now();
    EXPECT_FALSE(client->EffectSetActive(0));
    const auto elapsed = Clock::now() - start;
    killer.join();
    // Far below the 2000 ms a silent service would cost.
    EXPECT_LT(elapsed, std::chrono::milliseconds(1500));
}

// A sender that stops in the middle of a command (larimoctl after Ctrl+Z) keeps the message
// channel: the next sender gives up after the command time-out instead of hanging.
TEST_F(ServiceLinkTest, ASenderThatNeverLetsGoOfTheChannelCostsTheNextOneATimeOutNotAHang)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());
    auto client = ConnectToService(kIpcBaseName);
    ASSERT_NE(client, nullptr);

    std::atomic<bool> holding{false};
    std::atomic<bool> release{false};
    std::thread stopped([&] {
        const ObjHandle channel = CreateNamedMutex(std::string(kIpcBaseName) + "msg", true);
        holding = true;
        while (!release.load())
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ReleaseNamedMutex(channel);
        CloseObject(channel);
    });
    while (!holding.load())
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const auto start = Clock::now();
    EXPECT_FALSE(client->SrvUpdate());
    const auto waited = Clock::now() - start;
    release = true;
    stopped.join();
    // Bounded by the command time-out, with room for a slow machine.
    EXPECT_LT(waited, std::chrono::milliseconds(kIpcTimeoutMs * 3));
    // The channel is free again: the next command goes through.
    EXPECT_TRUE(client->SrvUpdate());
}

// A message area left by another version, still held by one of its programs, has another
// size: the service refuses it, and says so, instead of answering through a layout it was not
// made for.
TEST_F(ServiceLinkTest, AStaleMessageAreaOfAnotherSizeIsRefused)
{
    const ObjHandle stale = CreateNamedMapping(std::string(kIpcBaseName) + "mem", 4096);
    ASSERT_NE(stale, 0u);
    ServiceProcess service(kConfig);
    EXPECT_NE(service.RunToEnd(), 0) << "the service ran on a message area of another size";
    const std::string log = ReadFile(service.Folder() / "larimosrv.log");
    EXPECT_NE(log.find("exists with 4096 bytes, not 65536"), std::string::npos) << log;
    CloseObject(stale);
    // Once the old program has let go, the service starts.
    EXPECT_TRUE(service.Start());
}

// The window thread and the event thread share the panel's client. Commands from both, while
// the service stops and starts under them, must never mix into a frame the service rejects.
TEST_F(ServiceLinkTest, TwoThreadsSharingTheClientNeverMixTheirFrames)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());
    std::shared_ptr<MoIpcCli> client = ConnectToService(kIpcBaseName);
    ASSERT_NE(client, nullptr);
    std::atomic<bool> stop{false};
    std::atomic<int> answered{0};
    const auto hammer = [&](uint32_t slot, const std::string& name) {
        while (!stop.load()) {
            answered += client->EffectSelect(slot, name) ? 1 : 0;
            std::vector<bool> playing;
            answered += client->EmoticsStatus(playing) ? 1 : 0;
        }
    };
    std::thread window(hammer, 0, std::string(200, 'w'));
    std::thread events(hammer, 1, std::string(3, 'e'));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    service.Stop(SIGTERM);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    ASSERT_TRUE(service.Start());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    stop = true;
    window.join();
    events.join();
    EXPECT_GT(answered.load(), 10);
    const std::string log = ReadFile(service.Folder() / "larimosrv.log");
    const size_t rejected = log.find("Rejected command");
    EXPECT_EQ(rejected, std::string::npos)
        << "two commands were mixed into one frame:\n"
        << log.substr(rejected > 3000 ? rejected - 3000 : 0, 3300);
    // A fresh connection to the restarted service works.
    client = ConnectToService(kIpcBaseName);
    ASSERT_NE(client, nullptr);
    EXPECT_TRUE(client->SrvUpdate());
}

// A command sent while the service was away fails at once, but the panel keeps the request
// event set; the next service must not take it for a request of its own.
TEST_F(ServiceLinkTest, ARequestSetWhileNoServiceRanIsNotServedByTheNextOne)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());
    std::shared_ptr<MoIpcCli> client = ConnectToService(kIpcBaseName);
    ASSERT_NE(client, nullptr);
    service.Stop(SIGTERM);
    EXPECT_FALSE(client->EffectSelect(0, "Chipmunk"));
    ASSERT_TRUE(service.Start());
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    const std::string log = ReadFile(service.Folder() / "larimosrv.log");
    const size_t serving = log.rfind("LarimoServer::Run(): serving");
    ASSERT_NE(serving, std::string::npos);
    EXPECT_EQ(log.find("Request ", serving), std::string::npos) << log.substr(serving);
}

TEST_F(ServiceLinkTest, TheServiceRunsOncePerUserAndEndsCleanlyOnSigterm)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());
    ServiceProcess second(kConfig);
    EXPECT_EQ(second.RunToEnd(), 1);
    EXPECT_EQ(service.Stop(SIGTERM), 0);
    EXPECT_EQ(ConnectToService(kIpcBaseName), nullptr);

    // After a crash the next service starts without trouble.
    ServiceProcess again(kConfig);
    ASSERT_TRUE(again.Start());
    EXPECT_EQ(again.Stop(SIGKILL), 128 + SIGKILL);
    ServiceProcess third(kConfig);
    EXPECT_TRUE(third.Start());
}

class CountingListener : public ServiceLinkListener {
public:
    void ServOnStart() override { ++starts; }
    void ServOnStop() override { ++stops; }
    std::atomic<int> starts{0};
    std::atomic<int> stops{0};
};

TEST_F(ServiceLinkTest, TheObserverFollowsStartStopCrashAndRestart)
{
    ServiceProcess service(kConfig);
    ASSERT_TRUE(service.Start());

    CountingListener listener;
    ServState observer(kServStateBaseName);
    ASSERT_TRUE(observer.ObserverStart(&listener));
    // Already running: reported at once, before the first pause.
    EXPECT_TRUE(WaitFor(250, [&] { return listener.starts == 1; }));

    EXPECT_EQ(service.Stop(SIGTERM), 0);
    EXPECT_TRUE(WaitFor(2000, [&] { return listener.stops == 1; }));

    ASSERT_TRUE(service.Start());
    EXPECT_TRUE(WaitFor(2000, [&] { return listener.starts == 2; }));

    service.Stop(SIGKILL);
    EXPECT_TRUE(WaitFor(2000, [&] { return listener.stops == 2; }));

    ASSERT_TRUE(service.Start());
    EXPECT_TRUE(WaitFor(2000, [&] { return listener.starts == 3; }));
    observer.ObserverStop();
    EXPECT_EQ(listener.stops, 2);
}

TEST_F(ServiceLinkTest, TheEventThreadSeesFunSoundChangesAndEndsAfterTheServiceWent)
{
    ServiceProcess service(kConfig);
    AddFunSounds(service);
    ASSERT_TRUE(service.Start());
    auto client = ConnectToService(kIpcBaseName);
    ASSERT_NE(client, nullptr);

    std::atomic<int> emotics{0};
    ServiceEventThread events;
    ASSERT_TRUE(events.Start({[&] { ++emotics; }, nullptr}));
    EXPECT_TRUE(client->EmoticPlay(0));
    EXPECT_TRUE(WaitFor(2000, [&] { return emotics == 1; }));
    EXPECT_TRUE(client->EmoticPlay(0)); // already playing: restarted, no change of state
    EXPECT_TRUE(client->EmoticStop(0));
    EXPECT_TRUE(WaitFor(2000, [&] { return emotics == 2; }));
    // The service goes first, as when it crashes: the thread still waits on the events it
    // left behind, and the stop the panel then makes ends it within its limit.
    service.Stop(SIGTERM);
    EXPECT_TRUE(events.IsRunning());
    const auto start = Clock::now();
    events.Stop();
    EXPECT_FALSE(events.IsRunning());
    EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(3500));
}

// A callback that does not come back (a listener stuck on something of its own) must not keep
// the panel from ending: each stop gives up on its thread after its limit. The callbacks are
// held until the stop has returned, or 10 s have passed, and are let go only then.
class StuckCallback {
public:
    void Enter()
    {
        std::unique_lock lock(m_mutex);
        m_entered = true;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_released; });
        m_returned = true;
    }
    bool WaitEntered()
    {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, std::chrono::seconds(5), [this] { return m_entered; });
    }
    void Release()
    {
        std::lock_guard lock(m_mutex);
        m_released = true;
        m_changed.notify_all();
    }
    bool Returned()
    {
        std::lock_guard lock(m_mutex);
        return m_returned;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_entered = false;
    bool m_released = false;
    bool m_returned = false;
};

// Runs `stop` on a thread of its own; how long it took, or 10 s and more when it hung (the
// stuck callback is let go then, so that it ends at all).
template <typename Stop>
double SecondsToStop(StuckCallback& stuck, Stop stop)
{
    std::atomic<bool> done { false };
    const auto start = Clock::now();
    std::thread stopper([&] {
        stop();
        done = true;
    });
    WaitFor(10000, [&] { return done.load(); });
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    stuck.Release();
    stopper.join();
    return seconds;
}

TEST_F(ServiceLinkTest, StoppingTheObserverEndsInTimeWhileACallbackHangs)
{
    class StuckListener : public ServiceLinkListener {
    public:
        void ServOnStart() override { stuck.Enter(); }
        void ServOnStop() override { }
        StuckCallback stuck;
    };
    // A service as the observer sees one: its "work" mutex, owned.
    const ObjHandle work = CreateNamedMutex(std::string(kServStateBaseName) + kServIsWorkSuffix, true);
    ASSERT_NE(work, 0u);
    auto listener = std::make_unique<StuckListener>();
    auto observer = std::make_unique<ServState>(kServStateBaseName);
    ASSERT_TRUE(observer->ObserverStart(listener.get()));
    ASSERT_TRUE(listener->stuck.WaitEntered());

    const double seconds = SecondsToStop(listener->stuck, [&] { observer->ObserverStop(); });
    EXPECT_LT(seconds, 4.0) << "the stop waited for the stuck callback";
    // Given up on, the thread ends by itself once the callback returns, without the observer.
    observer.reset();
    EXPECT_TRUE(WaitFor(2000, [&] { return listener->stuck.Returned(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    ReleaseNamedMutex(work);
    CloseObject(work);
}

TEST_F(ServiceLinkTest, StoppingTheEventThreadEndsInTimeWhileAHandlerHangs)
{
    // The service's two events, as a running service has them.
    const ObjHandle emotics = CreateNamedEvent(kEmoticEventName, false, false);
    const ObjHandle osci = CreateNamedEvent(kOsciEventName, false, false);
    ASSERT_NE(emotics, 0u);
    ASSERT_NE(osci, 0u);
    StuckCallback stuck;
    auto events = std::make_unique<ServiceEventThread>();
    ASSERT_TRUE(events->Start({[&] { stuck.Enter(); }, nullptr}));
    SetNamedEvent(emotics);
    ASSERT_TRUE(stuck.WaitEntered());

    const double seconds = SecondsToStop(stuck, [&] { events->Stop(); });
    EXPECT_LT(seconds, 5.0) << "the stop waited for the stuck handler";
    EXPECT_FALSE(events->IsRunning());
    events.reset();
    EXPECT_TRUE(WaitFor(2000, [&] { return stuck.Returned(); }));
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    CloseObject(emotics);
    CloseObject(osci);
}

} // namespace
} // namespace larimo
