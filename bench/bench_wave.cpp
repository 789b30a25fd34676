// SPDX-License-Identifier: GPL-3.0-or-later
// Importing a long recording into the library format: read, decode, mix down, resample,
// quantise and write. The input is LARIMO_BENCH_WAV when set (scripts/bench-import.sh passes
// the file it times sox on), otherwise a 10-minute 48 kHz stereo 24-bit file made here.
#include "wave.h"

#include <benchmark/benchmark.h>
#include <sndfile.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <string>
#include <vector>

namespace {

constexpr int kRate = 48000;
constexpr int kChannels = 2;
constexpr int kSeconds = 600;

// A two-tone signal written in one-second pieces, so the generator stays small.
bool MakeInput(const std::string& path)
{
    SF_INFO info{};
    info.samplerate = kRate;
    info.channels = kChannels;
    info.format = SF_FORMAT_WAV | SF_FORMAT_PCM_24;
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    if (!file)
        return false;
    std::vector<float> second(static_cast<std::size_t>(kRate * kChannels));
    bool ok = true;
    for (int s = 0; s < kSeconds && ok; ++s) {
        for (int n = 0; n < kRate; ++n) {
            const double t = s + static_cast<double>(n) / kRate;
            second[static_cast<std::size_t>(n * 2)] = static_cast<float>(0.4 * std::sin(2 * std::numbers::pi * 1000 * t));
            second[static_cast<std::size_t>(n * 2 + 1)] = static_cast<float>(0.4 * std::sin(2 * std::numbers::pi * 1500 * t));
        }
        ok = sf_writef_float(file, second.data(), kRate) == kRate;
    }
    return sf_close(file) == 0 && ok;
}

const std::string& InputPath()
{
    static const std::string path = [] {
        if (const char* given = std::getenv("LARIMO_BENCH_WAV"); given && *given)
            return std::string(given);
        const std::string made = (std::filesystem::temp_directory_path() / "larimo-bench-import-48k-24bit.wav").string();
        if (!std::filesystem::exists(made) && !MakeInput(made))
            return std::string();
        return made;
    }();
    return path;
}

double AudioSeconds(const larimo::WaveFormat& format, std::uint32_t dataSize)
{
    return format.nAvgBytesPerSec > 0 ? static_cast<double>(dataSize) / format.nAvgBytesPerSec : 0;
}

// The whole import from file to file, as the library does it.
void ImportToLibraryFormat(benchmark::State& state)
{
    const std::string input = InputPath();
    if (input.empty()) {
        state.SkipWithError("cannot make the input file");
        return;
    }
    const std::string output = (std::filesystem::temp_directory_path() / "larimo-bench-import-out.wav").string();
    double seconds = 0;
    std::int64_t bytes = 0;
    for (auto _ : state) {
        larimo::Wave wave;
        if (wave.ReadFromFile(input) != larimo::kWaveSuccess) {
            state.SkipWithError("cannot read the input file");
            return;
        }
        seconds = AudioSeconds(wave.Format(), wave.DataSize());
        bytes += wave.DataSize();
        if (wave.ConvertToOneChanel16Bit() != larimo::kConvertSuccess ||
            wave.WriteToFile(output) != larimo::kWaveSuccess) {
            state.SkipWithError("conversion failed");
            return;
        }
    }
    std::remove(output.c_str());
    state.SetBytesProcessed(bytes);
    state.counters["audio_seconds"] = seconds;
    state.counters["x_realtime"] =
        benchmark::Counter(seconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(ImportToLibraryFormat)->Unit(benchmark::kMillisecond)->UseRealTime();

// Only the conversion, the input already in memory.
void ConvertInMemory(benchmark::State& state)
{
    const std::string input = InputPath();
    larimo::Wave source;
    if (input.empty() || source.ReadFromFile(input) != larimo::kWaveSuccess) {
        state.SkipWithError("cannot read the input file");
        return;
    }
    const double seconds = AudioSeconds(source.Format(), source.DataSize());
    for (auto _ : state) {
        state.PauseTiming();
        larimo::Wave wave = source;
        state.ResumeTiming();
        if (wave.ConvertToOneChanel16Bit() != larimo::kConvertSuccess) {
            state.SkipWithError("conversion failed");
            return;
        }
        benchmark::DoNotOptimize(wave.Data().data());
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(source.DataSize()) * state.iterations());
    state.counters["x_realtime"] =
        benchmark::Counter(seconds * static_cast<double>(state.iterations()), benchmark::Counter::kIsRate);
}
BENCHMARK(ConvertInMemory)->Unit(benchmark::kMillisecond)->UseRealTime();

} // namespace
