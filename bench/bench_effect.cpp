// SPDX-License-Identifier: GPL-3.0-or-later
// What hosting costs: one 10 ms block through a real plug-in by way of the host (conversion,
// silence on the other channels, the crash guard) next to calling the plug-in directly, and
// the time to load and unload one.
#include "VstAbi.h"
#include "effect.h"
#include "platform/CrashGuard.h"

#include <benchmark/benchmark.h>

#include <dlfcn.h>

#include <cmath>
#include <numbers>
#include <string>
#include <vector>

namespace {

using larimo::MoAudioEffect;
namespace vst = larimo::vst;

constexpr size_t kFrames = 441;
const std::string kPitchShifter = "/usr/lib/vst/MaPitchshift-vst.so";
const std::string kEqualizer = "/usr/lib/vst/3BandEQ-vst.so";

std::vector<int16_t> Tone()
{
    std::vector<int16_t> samples(kFrames);
    for (size_t i = 0; i < kFrames; ++i)
        samples[i] = static_cast<int16_t>(16000.0 * std::sin(2.0 * std::numbers::pi * 440.0 * static_cast<double>(i) / 44100.0));
    return samples;
}

void BM_HostedBlock(benchmark::State& state, const std::string& path)
{
    larimo::CrashGuard::PrepareThread();
    MoAudioEffect effect;
    if (effect.SecureLoad(path, true) != larimo::kVstSuccess) {
        state.SkipWithError("the plug-in does not load (is dpf-plugins-vst installed?)");
        return;
    }
    const std::vector<int16_t> tone = Tone();
    std::vector<int16_t> block(kFrames);
    for (auto _ : state) {
        block = tone;
        effect.ProcessMono(block.data(), block.size() * 2);
        benchmark::DoNotOptimize(block.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrames));
}
BENCHMARK_CAPTURE(BM_HostedBlock, PitchShifter, kPitchShifter);
BENCHMARK_CAPTURE(BM_HostedBlock, Equalizer, kEqualizer);

intptr_t QuietHost(vst::AEffect*, int32_t opcode, int32_t, intptr_t, void*, float)
{
    return opcode == vst::audioMasterVersion ? vst::kHostVstVersion : 0;
}

// The same plug-in called straight, float buffers ready: the floor the host is measured against.
void BM_DirectBlock(benchmark::State& state, const std::string& path)
{
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    const auto entry = library != nullptr ? reinterpret_cast<vst::EntryProc>(dlsym(library, "main")) : nullptr;
    vst::AEffect* effect = entry != nullptr ? entry(&QuietHost) : nullptr;
    if (effect == nullptr || effect->processReplacing == nullptr) {
        state.SkipWithError("the plug-in does not load (is dpf-plugins-vst installed?)");
        if (library != nullptr)
            dlclose(library);
        return;
    }
    effect->dispatcher(effect, vst::effOpen, 0, 0, nullptr, 0.0f);
    effect->dispatcher(effect, vst::effSetSampleRate, 0, 0, nullptr, 44100.0f);
    effect->dispatcher(effect, vst::effSetBlockSize, 0, MoAudioEffect::kBlockSize, nullptr, 0.0f);
    effect->dispatcher(effect, vst::effMainsChanged, 0, 1, nullptr, 0.0f);
    const std::vector<int16_t> tone = Tone();
    const auto channels = static_cast<size_t>(std::max(effect->numInputs, effect->numOutputs));
    std::vector<std::vector<float>> inputs(channels, std::vector<float>(kFrames));
    std::vector<std::vector<float>> outputs(channels, std::vector<float>(kFrames));
    std::vector<float*> in;
    std::vector<float*> out;
    for (size_t c = 0; c < channels; ++c) {
        in.push_back(inputs[c].data());
        out.push_back(outputs[c].data());
    }
    for (size_t i = 0; i < kFrames; ++i)
        inputs[0][i] = tone[i];
    for (auto _ : state) {
        effect->processReplacing(effect, in.data(), out.data(), static_cast<int32_t>(kFrames));
        benchmark::DoNotOptimize(out[0]);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kFrames));
    effect->dispatcher(effect, vst::effMainsChanged, 0, 0, nullptr, 0.0f);
    effect->dispatcher(effect, vst::effClose, 0, 0, nullptr, 0.0f);
    dlclose(library);
}
BENCHMARK_CAPTURE(BM_DirectBlock, PitchShifter, kPitchShifter);
BENCHMARK_CAPTURE(BM_DirectBlock, Equalizer, kEqualizer);

void BM_LoadAndUnload(benchmark::State& state)
{
    MoAudioEffect effect;
    for (auto _ : state) {
        if (effect.SecureLoad(kPitchShifter, false) != larimo::kVstSuccess) {
            state.SkipWithError("the plug-in does not load (is dpf-plugins-vst installed?)");
            break;
        }
        effect.UnLoad();
    }
}
BENCHMARK(BM_LoadAndUnload)->Unit(benchmark::kMicrosecond);

} // namespace
