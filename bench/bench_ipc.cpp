// SPDX-License-Identifier: GPL-3.0-or-later
// Round trip of one command against the real LarimoServer, beside a Unix-socket ping-pong
// between two processes as the floor of what any IPC on this machine costs.
#include "moipc_cli.h"
#include "platform/NamedObjects.h"
#include "server/moipc_cmds.h"

#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <ctime>
#include <filesystem>
#include <thread>
#include <vector>

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

double g_socketMedianUs = 0;

class ObjectNamespace {
public:
    ObjectNamespace()
        : m_name("bench" + std::to_string(getpid()))
    {
        setenv("LARIMO_OBJECT_NAMESPACE", m_name.c_str(), 1);
    }
    ~ObjectNamespace() { larimo::RemoveNamedObjectNamespace(m_name); }
    ObjectNamespace(const ObjectNamespace&) = delete;
    ObjectNamespace& operator=(const ObjectNamespace&) = delete;

private:
    std::string m_name;
};

struct Percentiles {
    double median = 0;
    double p99 = 0;
};

Percentiles Summarise(std::vector<double>& samples)
{
    if (samples.empty())
        return {};
    std::sort(samples.begin(), samples.end());
    return {samples[samples.size() / 2], samples[std::min(samples.size() - 1, samples.size() * 99 / 100)]};
}

void Report(benchmark::State& state, std::vector<double>& samples)
{
    const Percentiles p = Summarise(samples);
    state.counters["median_us"] = p.median;
    state.counters["p99_us"] = p.p99;
}

void BM_UnixSocketPingPong(benchmark::State& state)
{
    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
        state.SkipWithError("socketpair failed");
        return;
    }
    const pid_t child = fork();
    if (child == 0) {
        close(fds[0]);
        char byte = 0;
        while (read(fds[1], &byte, 1) == 1 && write(fds[1], &byte, 1) == 1) {
        }
        _exit(0);
    }
    close(fds[1]);
    std::vector<double> samples;
    char byte = 'x';
    for (auto _ : state) {
        const auto start = Clock::now();
        if (write(fds[0], &byte, 1) != 1 || read(fds[0], &byte, 1) != 1) {
            state.SkipWithError("the echo process went away");
            break;
        }
        samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
    }
    close(fds[0]);
    waitpid(child, nullptr, 0);
    g_socketMedianUs = Summarise(samples).median;
    Report(state, samples);
}
BENCHMARK(BM_UnixSocketPingPong)->UseRealTime();

void BM_EffectSetActiveRoundTrip(benchmark::State& state)
{
    // A world of objects of its own, apart from a voice service the user may be running. The
    // benchmark library may run this case more than once, and this process keeps the object
    // table it opened, so the namespace stays for the whole process and goes at its end.
    static const ObjectNamespace space;
    char pattern[] = "/tmp/larimo-bench-XXXXXX";
    const fs::path folder = mkdtemp(pattern);
    fs::copy_file(fs::path(LARIMO_APP_DIR) / "LarimoServer", folder / "LarimoServer");
    const pid_t service = fork();
    if (service == 0) {
        const std::string program = (folder / "LarimoServer").string();
        execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    std::shared_ptr<larimo::MoIpcCli> client;
    for (int i = 0; i < 1000 && !client; ++i) {
        client = larimo::ConnectToService(larimo::kIpcBaseName);
        if (!client)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::vector<double> samples;
    if (!client) {
        state.SkipWithError("LarimoServer did not start");
    } else {
        uint32_t slot = 0;
        for (auto _ : state) {
            const auto start = Clock::now();
            if (!client->EffectSetActive(slot)) {
                state.SkipWithError("the service did not answer");
                break;
            }
            samples.push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
            slot = (slot + 1) % 3;
        }
    }
    client.reset();
    kill(service, SIGTERM);
    waitpid(service, nullptr, 0);
    fs::remove_all(folder);
    Report(state, samples);
    if (g_socketMedianUs > 0 && !samples.empty())
        state.counters["x_socket_median"] = Summarise(samples).median / g_socketMedianUs;
}
BENCHMARK(BM_EffectSetActiveRoundTrip)->UseRealTime();

// What the panel's observer costs while the service runs: a thread waits for the mutex another
// process owns (the service's "work" mutex). Reports the waiting thread's CPU time per second.
void BM_IdleWaitForAServicesMutex(benchmark::State& state)
{
    static const ObjectNamespace space;
    const std::string name = "Global\\BenchOwned" + std::to_string(getpid());
    const std::string readyName = name + "Ready";
    const larimo::ObjHandle ready = larimo::CreateNamedEvent(readyName, true, false);
    int hold[2];
    if (pipe(hold) != 0) {
        state.SkipWithError("pipe failed");
        return;
    }
    const pid_t owner = fork();
    if (owner == 0) {
        close(hold[1]);
        const larimo::ObjHandle mutex = larimo::CreateNamedMutex(name, true);
        larimo::SetNamedEvent(larimo::OpenNamedEvent(readyName));
        char byte = 0;
        (void)!read(hold[0], &byte, 1);
        larimo::ReleaseNamedMutex(mutex);
        _exit(0);
    }
    close(hold[0]);
    larimo::WaitForObject(ready, 5000);
    const larimo::ObjHandle mutex = larimo::OpenNamedMutex(name);
    double cpuSeconds = 0;
    double wallSeconds = 0;
    for (auto _ : state) {
        timespec cpuStart {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpuStart);
        const auto start = Clock::now();
        if (larimo::WaitForObject(mutex, 2000) != larimo::kWaitTimeout) {
            state.SkipWithError("the owner let go of the mutex");
            break;
        }
        timespec cpuEnd {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &cpuEnd);
        cpuSeconds += static_cast<double>(cpuEnd.tv_sec - cpuStart.tv_sec) + (cpuEnd.tv_nsec - cpuStart.tv_nsec) / 1e9;
        wallSeconds += std::chrono::duration<double>(Clock::now() - start).count();
    }
    close(hold[1]);
    waitpid(owner, nullptr, 0);
    larimo::CloseObject(mutex);
    larimo::CloseObject(ready);
    if (wallSeconds > 0)
        state.counters["waiter_cpu_percent"] = 100.0 * cpuSeconds / wallSeconds;
}
BENCHMARK(BM_IdleWaitForAServicesMutex)->Iterations(2)->UseRealTime();

} // namespace
