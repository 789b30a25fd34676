// SPDX-License-Identifier: GPL-3.0-or-later
#include "PluginHarness.h"

#include <dlfcn.h>

#include <algorithm>
#include <array>

namespace larimo::test {

namespace {

intptr_t HostCallback(vst::AEffect* /*effect*/, int32_t opcode, int32_t /*index*/, intptr_t /*value*/,
                      void* /*ptr*/, float /*opt*/)
{
    return opcode == vst::audioMasterVersion ? vst::kHostVstVersion : 0;
}

} // namespace

const std::vector<std::string>& ShippedEffects()
{
    static const std::vector<std::string> names { "Pitch", "Robot", "Radio", "Echo", "Reverb", "Alien" };
    return names;
}

std::string EffectPath(const std::string& name)
{
    return std::string(LARIMO_APP_DIR) + "/effects/" + name + ".so";
}

void PluginHarness::LibraryCloser::operator()(void* handle) const
{
    dlclose(handle);
}

std::unique_ptr<PluginHarness> PluginHarness::Load(const std::string& path, std::string& error, const char* entry)
{
    auto harness = std::make_unique<PluginHarness>();
    harness->m_library.reset(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL));
    if (!harness->m_library) {
        error = dlerror();
        return nullptr;
    }
    auto* proc = reinterpret_cast<vst::EntryProc>(dlsym(harness->m_library.get(), entry));
    if (proc == nullptr) {
        error = std::string("no entry point ") + entry;
        return nullptr;
    }
    harness->m_effect = proc(&HostCallback);
    if (harness->m_effect == nullptr || harness->m_effect->magic != vst::kEffectMagic) {
        error = "the entry point returned no effect";
        harness->m_effect = nullptr;
        return nullptr;
    }
    harness->Dispatch(vst::effOpen);
    return harness;
}

PluginHarness::~PluginHarness()
{
    if (m_effect != nullptr)
        m_effect->dispatcher(m_effect, vst::effClose, 0, 0, nullptr, 0.0f);
}

intptr_t PluginHarness::Dispatch(int32_t opcode, int32_t index, intptr_t value, void* ptr, float opt)
{
    return m_effect->dispatcher(m_effect, opcode, index, value, ptr, opt);
}

void PluginHarness::Start(float sampleRate, int32_t blockSize)
{
    Dispatch(vst::effSetSampleRate, 0, 0, nullptr, sampleRate);
    Dispatch(vst::effSetBlockSize, 0, blockSize);
    Dispatch(vst::effMainsChanged, 0, 1);
    Dispatch(vst::effStartProcess);
}

std::string PluginHarness::Text(int32_t opcode, int32_t index)
{
    // Larger than any limit, and pre-filled so that a missing terminator shows.
    std::array<char, 256> buffer {};
    buffer.fill('\x7f');
    buffer[0] = '\0';
    Dispatch(opcode, index, 0, buffer.data());
    const auto end = std::find(buffer.begin(), buffer.end(), '\0');
    return std::string(buffer.begin(), end);
}

std::vector<std::vector<float>> PluginHarness::Process(const std::vector<std::vector<float>>& inputs, int32_t block)
{
    const size_t frames = inputs.empty() ? 0 : inputs[0].size();
    std::vector<std::vector<float>> in(static_cast<size_t>(m_effect->numInputs), std::vector<float>(frames, 0.0f));
    for (size_t c = 0; c < in.size() && c < inputs.size(); ++c)
        std::copy(inputs[c].begin(), inputs[c].end(), in[c].begin());
    std::vector<std::vector<float>> out(static_cast<size_t>(m_effect->numOutputs), std::vector<float>(frames, 0.0f));
    std::vector<float*> inPtr(in.size());
    std::vector<float*> outPtr(out.size());
    for (size_t done = 0; done < frames;) {
        const auto n = static_cast<int32_t>(std::min<size_t>(static_cast<size_t>(block), frames - done));
        for (size_t c = 0; c < in.size(); ++c)
            inPtr[c] = in[c].data() + done;
        for (size_t c = 0; c < out.size(); ++c)
            outPtr[c] = out[c].data() + done;
        m_effect->processReplacing(m_effect, inPtr.data(), outPtr.data(), n);
        done += static_cast<size_t>(n);
    }
    return out;
}

std::vector<float> PluginHarness::ProcessMono(const std::vector<float>& input, int32_t block)
{
    return Process({ input }, block)[0];
}

} // namespace larimo::test
