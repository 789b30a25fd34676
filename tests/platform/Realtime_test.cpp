// SPDX-License-Identifier: GPL-3.0-or-later
// Real-time priority, both ways: set directly where the process may, and asked of RealtimeKit,
// here a stand-in daemon on a private bus that checks what the real one checks.
#include "platform/ProcessInfo.h"
#include "platform/Realtime.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <thread>

namespace larimo {
namespace {

// A dbus-daemon of our own; the code under test finds it as the system bus.
class PrivateBus {
public:
    PrivateBus()
    {
        int pipeEnds[2];
        if (pipe(pipeEnds) != 0)
            return;
        m_pid = fork();
        if (m_pid == 0) {
            dup2(pipeEnds[1], STDOUT_FILENO);
            close(pipeEnds[0]);
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", "--nopidfile", "--print-address=1",
                   static_cast<char*>(nullptr));
            _exit(127);
        }
        close(pipeEnds[1]);
        FILE* output = fdopen(pipeEnds[0], "r");
        char line[512] = {};
        if (output != nullptr && std::fgets(line, sizeof line, output) != nullptr) {
            m_address = line;
            while (!m_address.empty() && m_address.back() == '\n')
                m_address.pop_back();
        }
        if (output != nullptr)
            std::fclose(output);
    }
    ~PrivateBus()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
    }
    const std::string& Address() const { return m_address; }

private:
    pid_t m_pid = -1;
    std::string m_address;
};

// Answers like RealtimeKit: its limits as properties, and MakeThreadRealtime only for a process
// whose RLIMIT_RTTIME is within its limit (this one: it runs in the test's own process).
class StandInRtkit {
public:
    StandInRtkit(const std::string& address, int32_t maxPriority, int64_t maxRtTimeUs, bool refuse)
        : m_maxPriority(maxPriority), m_maxRtTimeUs(maxRtTimeUs), m_refuse(refuse)
    {
        std::promise<bool> ready;
        std::future<bool> registered = ready.get_future();
        m_thread = std::thread([this, address, &ready] { Serve(address, ready); });
        m_ok = registered.get();
    }
    ~StandInRtkit()
    {
        m_stop = true;
        m_thread.join();
    }
    bool Ok() const { return m_ok; }
    int Calls() const { return m_calls.load(); }
    uint64_t LastThread() const { return m_lastThread.load(); }
    uint32_t LastPriority() const { return m_lastPriority.load(); }

private:
    void Serve(const std::string& address, std::promise<bool>& ready)
    {
        sd_bus* bus = nullptr;
        sd_bus_slot* slot = nullptr;
        bool ok = sd_bus_new(&bus) >= 0 && sd_bus_set_address(bus, address.c_str()) >= 0 &&
                  sd_bus_set_bus_client(bus, 1) >= 0 && sd_bus_start(bus) >= 0 &&
                  sd_bus_add_object_vtable(bus, &slot, "/org/freedesktop/RealtimeKit1", "org.freedesktop.RealtimeKit1",
                                           kVtable, this) >= 0 &&
                  sd_bus_request_name(bus, "org.freedesktop.RealtimeKit1", 0) >= 0;
        ready.set_value(ok);
        while (ok && !m_stop) {
            const int processed = sd_bus_process(bus, nullptr);
            if (processed < 0)
                break;
            if (processed == 0)
                sd_bus_wait(bus, 20'000);
        }
        sd_bus_slot_unref(slot);
        sd_bus_flush_close_unref(bus);
    }

    static int GetMaxPriority(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                              sd_bus_error*)
    {
        return sd_bus_message_append(reply, "i", static_cast<StandInRtkit*>(self)->m_maxPriority);
    }
    static int GetMaxRtTime(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void* self,
                            sd_bus_error*)
    {
        return sd_bus_message_append(reply, "x", static_cast<StandInRtkit*>(self)->m_maxRtTimeUs);
    }
    static int MakeThreadRealtime(sd_bus_message* call, void* data, sd_bus_error* error)
    {
        auto* self = static_cast<StandInRtkit*>(data);
        uint64_t thread = 0;
        uint32_t priority = 0;
        const int read = sd_bus_message_read(call, "tu", &thread, &priority);
        if (read < 0)
            return read;
        rlimit limit{};
        getrlimit(RLIMIT_RTTIME, &limit);
        if (self->m_refuse || limit.rlim_max == RLIM_INFINITY ||
            limit.rlim_max > static_cast<rlim_t>(self->m_maxRtTimeUs) ||
            priority > static_cast<uint32_t>(self->m_maxPriority))
            return sd_bus_error_set(error, SD_BUS_ERROR_ACCESS_DENIED, "Operation not permitted by policy");
        self->m_lastThread = thread;
        self->m_lastPriority = priority;
        ++self->m_calls;
        return sd_bus_reply_method_return(call, "");
    }

    static constexpr sd_bus_vtable kVtable[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("MaxRealtimePriority", "i", GetMaxPriority, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_PROPERTY("RTTimeUSecMax", "x", GetMaxRtTime, 0, SD_BUS_VTABLE_PROPERTY_CONST),
        SD_BUS_METHOD("MakeThreadRealtime", "tu", "", MakeThreadRealtime, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END};

    const int32_t m_maxPriority;
    const int64_t m_maxRtTimeUs;
    const bool m_refuse;
    bool m_ok = false;
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_calls{0};
    std::atomic<uint64_t> m_lastThread{0};
    std::atomic<uint32_t> m_lastPriority{0};
    std::thread m_thread;
};

class RtkitTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        ASSERT_FALSE(m_bus.Address().empty()) << "dbus-daemon is needed for this test";
        setenv("DBUS_SYSTEM_BUS_ADDRESS", m_bus.Address().c_str(), 1);
    }

    PrivateBus m_bus;
};

TEST_F(RtkitTest, GrantsAtItsCeilingOnceTheRealTimeBudgetIsLimited)
{
    StandInRtkit rtkit(m_bus.Address(), 5, 200'000, false);
    ASSERT_TRUE(rtkit.Ok());
    const auto tid = static_cast<pid_t>(CurrentThreadId());

    const RealtimeResult result = RequestRealtimeFromRtkit(tid, 11);
    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_TRUE(result.throughRtkit);
    EXPECT_EQ(result.priority, 5);
    EXPECT_EQ(rtkit.Calls(), 1);
    EXPECT_EQ(rtkit.LastThread(), static_cast<uint64_t>(tid));
    EXPECT_EQ(rtkit.LastPriority(), 5u);
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_RTTIME, &limit), 0);
    EXPECT_EQ(limit.rlim_max, 200'000u);
    EXPECT_LE(limit.rlim_cur, limit.rlim_max);

    // Asked again, the limit already set stays as it is.
    ASSERT_TRUE(RequestRealtimeFromRtkit(tid, 1).ok);
    EXPECT_EQ(rtkit.LastPriority(), 1u);
    ASSERT_EQ(getrlimit(RLIMIT_RTTIME, &limit), 0);
    EXPECT_EQ(limit.rlim_max, 200'000u);
}

TEST_F(RtkitTest, AbsenceRefusalAndNoBusAreExplained)
{
    const auto tid = static_cast<pid_t>(CurrentThreadId());
    RealtimeResult result = RequestRealtimeFromRtkit(tid, 11);
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find("not available"), std::string::npos) << result.error;

    {
        StandInRtkit refusing(m_bus.Address(), 20, 200'000, true);
        ASSERT_TRUE(refusing.Ok());
        result = RequestRealtimeFromRtkit(tid, 11);
        EXPECT_FALSE(result.ok);
        EXPECT_NE(result.error.find("refused (Operation not permitted by policy)"), std::string::npos) << result.error;
    }
    {
        StandInRtkit grantsNothing(m_bus.Address(), 0, 200'000, false);
        ASSERT_TRUE(grantsNothing.Ok());
        result = RequestRealtimeFromRtkit(tid, 11);
        EXPECT_FALSE(result.ok);
        EXPECT_EQ(grantsNothing.Calls(), 0);
    }

    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/larimo-test-bus", 1);
    result = RequestRealtimeFromRtkit(tid, 11);
    EXPECT_FALSE(result.ok);
    EXPECT_NE(result.error.find("no system bus"), std::string::npos) << result.error;
}

// Where the process has the right, no daemon is asked, and programs the thread starts do not
// inherit the priority.
TEST(Realtime, DirectlySetWhereAllowedAndNotPassedToChildren)
{
    rlimit allowed{};
    getrlimit(RLIMIT_RTPRIO, &allowed);
    if (geteuid() != 0 && allowed.rlim_cur == 0)
        GTEST_SKIP() << "this process may not set real-time priority itself";
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/larimo-test-bus", 1);
    std::promise<pid_t> started;
    std::promise<void> finish;
    std::thread worker([&] {
        started.set_value(static_cast<pid_t>(CurrentThreadId()));
        finish.get_future().wait();
    });
    const pid_t tid = started.get_future().get();
    const RealtimeResult result = MakeThreadRealtime(tid, 11);
    const int policy = sched_getscheduler(tid);
    sched_param param{};
    sched_getparam(tid, &param);
    finish.set_value();
    worker.join();

    ASSERT_TRUE(result.ok) << result.error;
    EXPECT_FALSE(result.throughRtkit);
    EXPECT_EQ(policy & ~SCHED_RESET_ON_FORK, SCHED_FIFO);
    EXPECT_NE(policy & SCHED_RESET_ON_FORK, 0);
    EXPECT_EQ(param.sched_priority, 11);
}

} // namespace
} // namespace larimo
