// SPDX-License-Identifier: GPL-3.0-or-later
// Cost of the named objects the IPC transport is built on: a command round trip between two
// processes through two auto-reset events, and the uncontended operations on one thread.
#include "platform/NamedObjects.h"

#include <benchmark/benchmark.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <string>
#include <vector>

namespace larimo {
namespace {

// Objects of the benchmark's own, apart from a Larimo the user runs; removed when it ends.
struct OwnNamespace {
    OwnNamespace()
        : name("bench" + std::to_string(getpid()))
    {
        setenv("LARIMO_OBJECT_NAMESPACE", name.c_str(), 1);
    }
    ~OwnNamespace() { RemoveNamedObjectNamespace(name); }
    std::string name;
};
const OwnNamespace g_namespace;

std::string BenchName(const std::string& stem)
{
    static std::atomic<int> counter { 0 };
    return "Global\\LarimoBench_" + std::to_string(getpid()) + "_" + std::to_string(counter++) + "_" + stem;
}

double Percentile(std::vector<double>& samples, double fraction)
{
    if (samples.empty())
        return 0.0;
    const auto index = static_cast<size_t>(fraction * static_cast<double>(samples.size() - 1));
    std::nth_element(samples.begin(), samples.begin() + static_cast<std::ptrdiff_t>(index), samples.end());
    return samples[index];
}

void BM_EventRoundTripBetweenProcesses(benchmark::State& state)
{
    const std::string base = BenchName("rt");
    const ObjHandle request = CreateNamedEvent(base + "req", false, false);
    const ObjHandle answer = CreateNamedEvent(base + "answ", false, false);
    const ObjHandle quit = CreateNamedEvent(base + "quit", true, false);
    if (request == 0 || answer == 0 || quit == 0) {
        state.SkipWithError("cannot create the events");
        return;
    }
    const pid_t server = fork();
    if (server == 0) {
        const ObjHandle serverRequest = OpenNamedEvent(base + "req");
        const ObjHandle serverAnswer = OpenNamedEvent(base + "answ");
        const ObjHandle serverQuit = OpenNamedEvent(base + "quit");
        const ObjHandle waitSet[] = { serverQuit, serverRequest };
        while (WaitForAnyObject(waitSet, 2, 10000) == kWaitObject0 + 1)
            SetNamedEvent(serverAnswer);
        _exit(0);
    }

    std::vector<double> microseconds;
    microseconds.reserve(1 << 16);
    for (auto _ : state) {
        const auto start = std::chrono::steady_clock::now();
        SetNamedEvent(request);
        const uint32_t result = WaitForObject(answer, 5000);
        const auto elapsed = std::chrono::steady_clock::now() - start;
        if (result != kWaitObject0) {
            state.SkipWithError("the other process did not answer");
            break;
        }
        const double seconds = std::chrono::duration<double>(elapsed).count();
        state.SetIterationTime(seconds);
        microseconds.push_back(seconds * 1e6);
    }
    SetNamedEvent(quit);
    waitpid(server, nullptr, 0);
    CloseObject(quit);
    CloseObject(answer);
    CloseObject(request);

    state.counters["median_us"] = Percentile(microseconds, 0.5);
    state.counters["p99_us"] = Percentile(microseconds, 0.99);
}
BENCHMARK(BM_EventRoundTripBetweenProcesses)->UseManualTime()->Unit(benchmark::kMicrosecond);

void BM_SetAndWaitOneThread(benchmark::State& state)
{
    const ObjHandle event = CreateNamedEvent(BenchName("ev"), false, false);
    for (auto _ : state) {
        SetNamedEvent(event);
        benchmark::DoNotOptimize(WaitForObject(event, 0));
    }
    CloseObject(event);
}
BENCHMARK(BM_SetAndWaitOneThread);

void BM_MutexTakeAndRelease(benchmark::State& state)
{
    const ObjHandle mutex = CreateNamedMutex(BenchName("mx"), false);
    for (auto _ : state) {
        benchmark::DoNotOptimize(WaitForObject(mutex, 0));
        ReleaseNamedMutex(mutex);
    }
    CloseObject(mutex);
}
BENCHMARK(BM_MutexTakeAndRelease);

void BM_OpenAndClose(benchmark::State& state)
{
    const std::string name = BenchName("open");
    const ObjHandle keep = CreateNamedEvent(name, false, false);
    for (auto _ : state)
        CloseObject(OpenNamedEvent(name));
    CloseObject(keep);
}
BENCHMARK(BM_OpenAndClose);

} // namespace
} // namespace larimo
