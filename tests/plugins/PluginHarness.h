// SPDX-License-Identifier: GPL-3.0-or-later
// A minimal VST 2 host for tests and benchmarks: loads one of Larimo's effect modules with
// dlopen, drives it through the AEffect interface and runs buffers through it.
#pragma once

#include "VstAbi.h"

#include <memory>
#include <string>
#include <vector>

namespace larimo::test {

/// The effects Larimo ships, by file name without ".so".
const std::vector<std::string>& ShippedEffects();
/// Where the build staged an effect.
std::string EffectPath(const std::string& name);

class PluginHarness {
public:
    /// Loads and opens the module, entering through `entry` ("VSTPluginMain" or "main");
    /// null with `error` set when that fails.
    static std::unique_ptr<PluginHarness> Load(const std::string& path, std::string& error,
                                               const char* entry = "VSTPluginMain");
    PluginHarness() = default;
    ~PluginHarness();
    PluginHarness(const PluginHarness&) = delete;
    PluginHarness& operator=(const PluginHarness&) = delete;

    vst::AEffect& Effect() { return *m_effect; }
    intptr_t Dispatch(int32_t opcode, int32_t index = 0, intptr_t value = 0, void* ptr = nullptr, float opt = 0.0f);
    /// The usual activation: sample rate, block size, resume, start.
    void Start(float sampleRate, int32_t blockSize = 1103);

    std::string Text(int32_t opcode, int32_t index = 0);
    void SetParameter(int32_t index, float value) { m_effect->setParameter(m_effect, index, value); }
    float GetParameter(int32_t index) { return m_effect->getParameter(m_effect, index); }

    /// Runs every channel through processReplacing in blocks of `block` frames; missing
    /// channels get silence. Returns one buffer per output.
    std::vector<std::vector<float>> Process(const std::vector<std::vector<float>>& inputs, int32_t block = 1103);
    /// Channel 0 only, as Larimo's voice service feeds an effect; the other input is silent.
    std::vector<float> ProcessMono(const std::vector<float>& input, int32_t block = 1103);

private:
    struct LibraryCloser {
        void operator()(void* handle) const;
    };
    std::unique_ptr<void, LibraryCloser> m_library;
    vst::AEffect* m_effect = nullptr;
};

} // namespace larimo::test
