// SPDX-License-Identifier: GPL-3.0-or-later
// What cleaning the microphone costs and gives: the time of one block (noise suppression and
// gate on) as a share of the block's duration, the delay it adds, and on speech in a noisy
// room how far the room falls in the pauses and how much the voice and its first syllables
// change, with the gate and with the suppressor alone. Goals: at most 1 % of one core at 25 ms
// blocks, no more than one block of delay, the room 20 dB down, the voice within 2 dB, its
// onsets within 3 dB.
#include "NoisySpeech.h"
#include "VoiceCleaner.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

namespace {

constexpr uint32_t kRate = 44100;

const larimo::test::NoisyScene& Scene()
{
    static const larimo::test::NoisyScene scene = larimo::test::MakeNoisyScene(1.5, 1.2, 3, -45.0, -48.0);
    return scene;
}

void CleanBlocks(benchmark::State& state)
{
    const larimo::test::NoisyScene& scene = Scene();
    if (scene.mix.empty()) {
        state.SkipWithError("espeak-ng and sox are needed for the spoken sample");
        return;
    }
    const uint32_t blockMs = static_cast<uint32_t>(state.range(0));
    // The service's own block for this length.
    const uint32_t block = larimo::VoiceCleaner::BlockFor(blockMs, kRate);
    const larimo::VoiceCleanup settings{true, 25, true, -40};

    // The figures of what is heard, from one pass over the whole scene: with the gate, and the
    // suppressor alone.
    const auto measure = [&](const larimo::VoiceCleanup& chosen, const char* prefix) {
        std::vector<int16_t> cleaned = scene.mix;
        larimo::VoiceCleaner cleaner(block, kRate);
        for (size_t at = 0; at + block <= cleaned.size(); at += block)
            cleaner.ProcessRT(cleaned.data() + at, block, chosen);
        const uint32_t delay = cleaner.LatencySamples();
        cleaned.erase(cleaned.begin(), cleaned.begin() + delay);
        state.counters["added_latency_ms"] = delay * 1000.0 / kRate;
        double pause = 0;
        double speech = 0;
        double onset = 0;
        const auto& words = scene.words;
        for (size_t w = 0; w < words.size(); ++w) {
            const auto [start, end] = words[w];
            const size_t pauseBegin = end + kRate * 4 / 10;
            const size_t pauseEnd =
                w + 1 < words.size() ? words[w + 1].first - kRate / 20 : scene.mix.size() - kRate / 10;
            pause += larimo::test::RmsDb(scene.mix, pauseBegin, pauseEnd) -
                     larimo::test::RmsDb(cleaned, pauseBegin, pauseEnd);
            speech = std::max(speech, std::fabs(larimo::test::RmsDb(cleaned, start, end) -
                                                larimo::test::RmsDb(scene.mix, start, end)));
            onset = std::max(onset, std::fabs(larimo::test::RmsDb(cleaned, start, start + kRate / 20) -
                                              larimo::test::RmsDb(scene.mix, start, start + kRate / 20)));
        }
        const std::string name(prefix);
        state.counters[name + "room_reduction_db"] = pause / static_cast<double>(words.size());
        state.counters[name + "speech_change_db"] = speech;
        state.counters[name + "onset_change_db"] = onset;
    };
    measure(settings, "");
    measure({true, 25, false, -40}, "suppressor_");

    larimo::VoiceCleaner cleaner(block, kRate);
    std::vector<int16_t> work(block);
    size_t position = 0;
    for (auto _ : state) {
        if (position + block > scene.mix.size())
            position = 0;
        std::copy_n(scene.mix.begin() + static_cast<std::ptrdiff_t>(position), block, work.begin());
        cleaner.ProcessRT(work.data(), block, settings);
        benchmark::DoNotOptimize(work.data());
        position += block;
    }
    state.counters["block_ms"] = blockMs;
    // Seconds of processing per second of sound, as a percentage of one core.
    state.counters["cpu_percent"] = benchmark::Counter(static_cast<double>(state.iterations()) * block / kRate / 100.0,
                                                       benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}
BENCHMARK(CleanBlocks)->Arg(25)->Arg(5)->Unit(benchmark::kMicrosecond);

} // namespace

BENCHMARK_MAIN();
