// SPDX-License-Identifier: GPL-3.0-or-later
// What a guarded plug-in call costs the audio thread, next to a plain call, and what one log
// record costs a writer.
#include "mlog.h"
#include "platform/CrashGuard.h"

#include <benchmark/benchmark.h>

#include <unistd.h>

#include <filesystem>
#include <string>

namespace {

__attribute__((noinline)) void Process(void* context)
{
    benchmark::DoNotOptimize(*static_cast<int*>(context) += 1);
}

void BM_PlainCall(benchmark::State& state)
{
    int counter = 0;
    void (*volatile function)(void*) = &Process;
    for (auto _ : state)
        function(&counter);
}
BENCHMARK(BM_PlainCall);

void BM_GuardedCall(benchmark::State& state)
{
    larimo::CrashGuard::PrepareThread();
    int counter = 0;
    larimo::ExceptionRecord record;
    for (auto _ : state)
        benchmark::DoNotOptimize(larimo::CrashGuard::Call(&Process, &counter, record));
}
BENCHMARK(BM_GuardedCall);

void BM_GuardedFault(benchmark::State& state)
{
    larimo::CrashGuard::PrepareThread();
    larimo::ExceptionRecord record;
    for (auto _ : state) {
        benchmark::DoNotOptimize(larimo::CrashGuard::Run(
            [] {
                const volatile uintptr_t where = 0x10;
                *reinterpret_cast<volatile int*>(where) = 1;
            },
            record));
    }
}
BENCHMARK(BM_GuardedFault);

void BM_LogRecord(benchmark::State& state)
{
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("larimo-bench-" + std::to_string(getpid()) + ".log");
    larimo::LogOpen(path.string(), true, true, false, false, false);
    for (auto _ : state)
        larimo::LogEnter("IPC::SendMessageW", "%d, %u", 201, 4U);
    larimo::LogOpen("", false, false, false, false, false);
    std::filesystem::remove(path);
}
BENCHMARK(BM_LogRecord);

} // namespace
