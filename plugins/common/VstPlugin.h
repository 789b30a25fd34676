// SPDX-License-Identifier: GPL-3.0-or-later
// The small VST 2 glue every Larimo effect shares: it hands the host an AEffect, answers the
// dispatcher, turns host values (0..1) into plain units and runs one EffectDsp per channel.
#pragma once

#include "EffectDsp.h"
#include "VstAbi.h"

#include <array>
#include <atomic>
#include <cstdint>
#include <memory>

namespace larimo::fx {

class VstPlugin {
public:
    static constexpr int kChannels = 2;
    using Factory = std::unique_ptr<EffectDsp> (*)();

    /// Makes a plug-in that runs `Dsp` and returns its AEffect. The plug-in owns itself from
    /// here on and is destroyed by effClose.
    template <class Dsp>
    static vst::AEffect* Create(const EffectInfo& info)
    {
        return Create(info, [] { return std::unique_ptr<EffectDsp>(std::make_unique<Dsp>()); });
    }
    static vst::AEffect* Create(const EffectInfo& info, Factory factory);

    VstPlugin(const EffectInfo& info, Factory factory);
    VstPlugin(const VstPlugin&) = delete;
    VstPlugin& operator=(const VstPlugin&) = delete;
    ~VstPlugin();

private:
    static VstPlugin* From(vst::AEffect* effect);
    static intptr_t DispatchThunk(vst::AEffect* effect, int32_t opcode, int32_t index, intptr_t value,
                                  void* ptr, float opt);
    static void ProcessReplacingThunk(vst::AEffect* effect, float** inputs, float** outputs, int32_t frames);
    static void ProcessAccumulatingThunk(vst::AEffect* effect, float** inputs, float** outputs,
                                         int32_t frames);
    static void SetParameterThunk(vst::AEffect* effect, int32_t index, float value);
    static float GetParameterThunk(vst::AEffect* effect, int32_t index);

    intptr_t Dispatch(int32_t opcode, int32_t index, intptr_t value, void* ptr, float opt);
    void SetSampleRate(float rate);
    void ApplyParametersRT();
    void ProcessReplacingRT(float** inputs, float** outputs, int32_t frames);
    void ProcessAccumulatingRT(float** inputs, float** outputs, int32_t frames);
    void ProcessChannelRT(int channel, const float* in, float* out, int32_t frames);

    const EffectInfo& m_info;
    std::unique_ptr<vst::AEffect> m_effect;
    std::array<std::unique_ptr<EffectDsp>, kChannels> m_dsp;
    // A channel whose input has been silent for longer than the effect's tail is idle: it
    // outputs zeros without running its DSP, which keeps the unused channel of a mono host free.
    std::array<bool, kChannels> m_idle {};
    std::array<int64_t, kChannels> m_silentFrames {};
    // Host values, written by any thread; the audio thread picks up the dirty ones per block.
    std::unique_ptr<std::atomic<float>[]> m_values;
    std::unique_ptr<std::atomic<bool>[]> m_dirty;
    std::atomic<bool> m_anyDirty { false };
    float m_sampleRate = 44100.0f;
    bool m_prepared = false;
    // The accumulating process adds into the host's buffers, so it processes through this.
    static constexpr int32_t kScratchFrames = 256;
    std::array<float, kScratchFrames> m_scratch {};
};

} // namespace larimo::fx
