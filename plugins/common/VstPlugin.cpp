// SPDX-License-Identifier: GPL-3.0-or-later
#include "VstPlugin.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string_view>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace larimo::fx {

namespace {

constexpr const char* kVendor = "Larimo";
// Nominal limits are 8 characters for parameter texts; our texts stay within them and we never
// write more than this, whatever the host's buffer.
constexpr size_t kParamTextLimit = 24;
constexpr size_t kNameTextLimit = 32;

void CopyText(void* ptr, std::string_view text, size_t limit)
{
    if (ptr == nullptr)
        return;
    auto* out = static_cast<char*>(ptr);
    const size_t n = std::min(text.size(), limit - 1);
    std::memcpy(out, text.data(), n);
    out[n] = '\0';
}

// Subnormal numbers in decaying feedback paths cost a hundred times the normal time on x86;
// flushing them to zero for the duration of a block is the usual cure. Restores the caller's mode.
class FlushDenormalsScope {
public:
    FlushDenormalsScope()
    {
#if defined(__SSE__)
        m_saved = _mm_getcsr();
        _mm_setcsr(m_saved | 0x8040u); // flush-to-zero and denormals-are-zero
#endif
    }
    ~FlushDenormalsScope()
    {
#if defined(__SSE__)
        _mm_setcsr(m_saved);
#endif
    }
    FlushDenormalsScope(const FlushDenormalsScope&) = delete;
    FlushDenormalsScope& operator=(const FlushDenormalsScope&) = delete;

private:
    unsigned m_saved = 0;
};

} // namespace

vst::AEffect* VstPlugin::Create(const EffectInfo& info, Factory factory)
{
    // From here the plug-in is owned through its AEffect; effClose takes it back.
    return std::make_unique<VstPlugin>(info, factory).release()->m_effect.get();
}

VstPlugin::VstPlugin(const EffectInfo& info, Factory factory)
    : m_info(info)
    , m_effect(std::make_unique<vst::AEffect>())
{
    const auto paramCount = static_cast<int32_t>(info.m_params.size());
    m_values = std::make_unique<std::atomic<float>[]>(info.m_params.size());
    m_dirty = std::make_unique<std::atomic<bool>[]>(info.m_params.size());
    for (auto& dsp : m_dsp)
        dsp = factory();
    for (int32_t i = 0; i < paramCount; ++i) {
        const ParamInfo& param = info.m_params[static_cast<size_t>(i)];
        m_values[static_cast<size_t>(i)].store(param.ToNormalized(param.m_default));
        for (auto& dsp : m_dsp)
            dsp->SetParameterRT(i, param.m_default);
    }
    SetSampleRate(m_sampleRate);

    vst::AEffect& e = *m_effect;
    std::memset(&e, 0, sizeof e);
    e.magic = vst::kEffectMagic;
    e.dispatcher = &VstPlugin::DispatchThunk;
    e.process = &VstPlugin::ProcessAccumulatingThunk;
    e.setParameter = &VstPlugin::SetParameterThunk;
    e.getParameter = &VstPlugin::GetParameterThunk;
    e.numPrograms = 1;
    e.numParams = paramCount;
    e.numInputs = kChannels;
    e.numOutputs = kChannels;
    e.flags = vst::kFlagCanReplacing;
    e.initialDelay = m_dsp[0]->LatencySamples();
    e.ioRatio = 1.0f;
    e.object = this;
    e.uniqueID = info.m_uniqueId;
    e.version = info.m_version;
    e.processReplacing = &VstPlugin::ProcessReplacingThunk;
}

VstPlugin::~VstPlugin() = default;

VstPlugin* VstPlugin::From(vst::AEffect* effect)
{
    return static_cast<VstPlugin*>(effect->object);
}

intptr_t VstPlugin::DispatchThunk(vst::AEffect* effect, int32_t opcode, int32_t index, intptr_t value, void* ptr,
                                  float opt)
{
    if (effect == nullptr || effect->object == nullptr)
        return 0;
    if (opcode == vst::effClose) {
        // Takes back the ownership Create gave away; the AEffect goes with it.
        std::unique_ptr<VstPlugin> self(From(effect));
        return 0;
    }
    return From(effect)->Dispatch(opcode, index, value, ptr, opt);
}

void VstPlugin::ProcessReplacingThunk(vst::AEffect* effect, float** inputs, float** outputs, int32_t frames)
{
    From(effect)->ProcessReplacingRT(inputs, outputs, frames);
}

void VstPlugin::ProcessAccumulatingThunk(vst::AEffect* effect, float** inputs, float** outputs, int32_t frames)
{
    From(effect)->ProcessAccumulatingRT(inputs, outputs, frames);
}

void VstPlugin::SetParameterThunk(vst::AEffect* effect, int32_t index, float value)
{
    VstPlugin* self = From(effect);
    if (index < 0 || static_cast<size_t>(index) >= self->m_info.m_params.size() || !std::isfinite(value))
        return;
    self->m_values[static_cast<size_t>(index)].store(std::clamp(value, 0.0f, 1.0f));
    self->m_dirty[static_cast<size_t>(index)].store(true, std::memory_order_release);
    self->m_anyDirty.store(true, std::memory_order_release);
}

float VstPlugin::GetParameterThunk(vst::AEffect* effect, int32_t index)
{
    VstPlugin* self = From(effect);
    if (index < 0 || static_cast<size_t>(index) >= self->m_info.m_params.size())
        return 0.0f;
    return self->m_values[static_cast<size_t>(index)].load();
}

intptr_t VstPlugin::Dispatch(int32_t opcode, int32_t index, intptr_t value, void* ptr, float opt)
{
    const auto paramIndexValid = index >= 0 && static_cast<size_t>(index) < m_info.m_params.size();
    switch (opcode) {
    case vst::effGetParamName:
        if (paramIndexValid)
            CopyText(ptr, m_info.m_params[static_cast<size_t>(index)].m_name, kParamTextLimit);
        return 0;
    case vst::effGetParamLabel:
        if (paramIndexValid)
            CopyText(ptr, m_info.m_params[static_cast<size_t>(index)].m_label, kParamTextLimit);
        return 0;
    case vst::effGetParamDisplay:
        if (paramIndexValid && ptr != nullptr) {
            const size_t i = static_cast<size_t>(index);
            m_info.m_params[i].Display(m_values[i].load(), static_cast<char*>(ptr), kParamTextLimit);
        }
        return 0;
    case vst::effGetProgramName:
        CopyText(ptr, "Default", kNameTextLimit);
        return 0;
    case vst::effGetEffectName:
    case vst::effGetProductString:
        CopyText(ptr, m_info.m_effectName, kNameTextLimit);
        return 1;
    case vst::effGetVendorString:
        CopyText(ptr, kVendor, kNameTextLimit);
        return 1;
    case vst::effGetVendorVersion:
        return m_info.m_version;
    case vst::effSetSampleRate:
        SetSampleRate(opt);
        return 0;
    case vst::effMainsChanged:
        if (value != 0) {
            for (int c = 0; c < kChannels; ++c) {
                m_dsp[static_cast<size_t>(c)]->ResetRT();
                m_idle[static_cast<size_t>(c)] = false;
                m_silentFrames[static_cast<size_t>(c)] = 0;
            }
        }
        return 0;
    case vst::effGetPlugCategory:
        return vst::kPlugCategoryEffect;
    case vst::effGetVstVersion:
        return vst::kHostVstVersion;
    case vst::effCanDo: {
        if (ptr == nullptr)
            return 0;
        const std::string_view what(static_cast<const char*>(ptr));
        if (what == "plugAsChannelInsert" || what == "1in1out" || what == "2in2out")
            return 1;
        if (what == "receiveVstEvents" || what == "receiveVstMidiEvent" || what == "sendVstEvents")
            return -1;
        return 0;
    }
    default:
        return 0;
    }
}

void VstPlugin::SetSampleRate(float rate)
{
    // Rates outside anything a sound card delivers would only size absurd buffers.
    if (!std::isfinite(rate) || rate < 8000.0f || rate > 384000.0f)
        return;
    m_sampleRate = rate;
    try {
        for (size_t c = 0; c < m_dsp.size(); ++c) {
            m_dsp[c]->Prepare(rate);
            m_idle[c] = false;
            m_silentFrames[c] = 0;
        }
        m_prepared = true;
    } catch (...) {
        // Half-sized buffers must never be run; the plug-in stays silent until a rate fits.
        m_prepared = false;
    }
    if (m_effect)
        m_effect->initialDelay = m_dsp[0]->LatencySamples();
}

// RT call.
void VstPlugin::ApplyParametersRT()
{
    if (!m_anyDirty.exchange(false, std::memory_order_acquire))
        return;
    for (size_t i = 0; i < m_info.m_params.size(); ++i) {
        if (!m_dirty[i].exchange(false, std::memory_order_acquire))
            continue;
        const float plain = m_info.m_params[i].ToPlain(m_values[i].load());
        for (auto& dsp : m_dsp)
            dsp->SetParameterRT(static_cast<int>(i), plain);
    }
}

// RT call.
void VstPlugin::ProcessChannelRT(int channel, const float* in, float* out, int32_t frames)
{
    const auto c = static_cast<size_t>(channel);
    EffectDsp& dsp = *m_dsp[c];
    int32_t start = 0;
    if (m_idle[c]) {
        while (start < frames && in[start] == 0.0f)
            ++start;
        std::fill(out, out + start, 0.0f);
        if (start == frames)
            return;
        // Waking up: whatever the state held has long decayed, and parameters changed while
        // idle must not glide in from their old values.
        dsp.ResetRT();
        m_idle[c] = false;
        m_silentFrames[c] = 0;
    }
    dsp.ProcessRT(in + start, out + start, frames - start);

    int32_t trailingSilence = 0;
    while (trailingSilence < frames - start && in[frames - 1 - trailingSilence] == 0.0f)
        ++trailingSilence;
    m_silentFrames[c] = trailingSilence == frames - start ? m_silentFrames[c] + trailingSilence : trailingSilence;
    if (m_silentFrames[c] > dsp.TailSamplesRT())
        m_idle[c] = true;
}

// RT call.
void VstPlugin::ProcessReplacingRT(float** inputs, float** outputs, int32_t frames)
{
    if (frames <= 0 || inputs == nullptr || outputs == nullptr)
        return;
    if (!m_prepared) {
        for (int c = 0; c < kChannels; ++c)
            std::fill(outputs[c], outputs[c] + frames, 0.0f);
        return;
    }
    FlushDenormalsScope flush;
    ApplyParametersRT();
    for (int c = 0; c < kChannels; ++c)
        ProcessChannelRT(c, inputs[c], outputs[c], frames);
}

// RT call.
void VstPlugin::ProcessAccumulatingRT(float** inputs, float** outputs, int32_t frames)
{
    if (frames <= 0 || inputs == nullptr || outputs == nullptr || !m_prepared)
        return;
    FlushDenormalsScope flush;
    ApplyParametersRT();
    for (int c = 0; c < kChannels; ++c) {
        for (int32_t done = 0; done < frames;) {
            const int32_t n = std::min(kScratchFrames, frames - done);
            ProcessChannelRT(c, inputs[c] + done, m_scratch.data(), n);
            float* out = outputs[c] + done;
            for (int32_t i = 0; i < n; ++i)
                out[i] += m_scratch[static_cast<size_t>(i)];
            done += n;
        }
    }
}

} // namespace larimo::fx
