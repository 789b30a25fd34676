// SPDX-License-Identifier: GPL-3.0-or-later
// Time each shipped voice effect takes for one 25 ms block (1103 samples at 44100 Hz), loaded
// from its module and fed as the voice service feeds it: the voice on channel 0, channel 1
// silent. The goal is under 2 % of the block's duration (0.5 ms) on one core.
#include "PluginHarness.h"
#include "TestSignals.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int32_t kBlock = 1103;
constexpr float kRate = 44100.0f;

void ProcessBlocks(benchmark::State& state, const std::string& name)
{
    std::string error;
    auto plugin = larimo::test::PluginHarness::Load(larimo::test::EffectPath(name), error);
    if (!plugin) {
        state.SkipWithError(error.c_str());
        return;
    }
    plugin->Start(kRate, kBlock);
    // A gliding voice keeps the pitch tracker and the grains busy as real speech does.
    const std::vector<float> voice = larimo::test::GlidingVoice(100.0, 220.0, kRate, 4.0);
    std::vector<float> in1(kBlock, 0.0f);
    std::vector<float> out0(kBlock);
    std::vector<float> out1(kBlock);
    larimo::vst::AEffect& e = plugin->Effect();
    size_t position = 0;
    for (auto _ : state) {
        if (position + kBlock > voice.size())
            position = 0;
        float* ins[] = { const_cast<float*>(voice.data()) + position, in1.data() };
        float* outs[] = { out0.data(), out1.data() };
        e.processReplacing(&e, ins, outs, kBlock);
        benchmark::DoNotOptimize(out0.data());
        position += kBlock;
    }
    state.SetItemsProcessed(state.iterations() * kBlock);
}

} // namespace

int main(int argc, char** argv)
{
    for (const std::string& name : larimo::test::ShippedEffects())
        benchmark::RegisterBenchmark(("BM_Effect/" + name).c_str(), ProcessBlocks, name)->Unit(benchmark::kMicrosecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
