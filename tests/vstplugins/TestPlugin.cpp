// SPDX-License-Identifier: GPL-3.0-or-later
// A VST 2 effect that misbehaves in one chosen way (LARIMO_TEST_PLUGIN_KIND), built once per
// behaviour. Its audio is easy to predict: out = 2 * in + 0.9 + 1000 * (second input), and the
// second output is filled with rubbish the host must ignore.
#include "VstAbi.h"
#include "tests/vstplugins/TestPluginKinds.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>

#define LARIMO_PLUGIN_EXPORT extern "C" __attribute__((visibility("default"), used))

namespace {

using larimo::test::TestPluginKind;
using namespace larimo::vst;

constexpr TestPluginKind kKind = TestPluginKind::LARIMO_TEST_PLUGIN_KIND;
constexpr int kNumParams = 4;
constexpr int kMaxCalls = 256;

AEffect g_effect;
AEffect g_notAnEffect;
HostCallback g_host = nullptr;
intptr_t g_hostVersion = -1;
const char* g_effectName = "Larimo Test Effect";
float g_params[kNumParams] = {0.5f, 0.25f, 0.0f, 1.0f};
int32_t g_calls[kMaxCalls];
int g_callCount = 0;
int g_processCount = 0;
ERect g_editorRect{0, 0, 20, 30};

// Through a volatile copy, so that neither the optimiser nor the sanitizer sees the bad address.
volatile uintptr_t g_badAddress = 0x10;

void Crash()
{
    *reinterpret_cast<volatile int*>(g_badAddress) = 1;
}

const char* ParamName(int index)
{
    static const char* const kNames[kNumParams] = {"Gain", "   Mix  ", "Tone", ""};
    return index >= 0 && index < kNumParams ? kNames[index] : "";
}

intptr_t Dispatcher(AEffect* effect, int32_t opcode, int32_t index, intptr_t /*value*/, void* ptr, float /*opt*/)
{
    if (g_callCount < kMaxCalls)
        g_calls[g_callCount++] = opcode;
    switch (opcode) {
    case effOpen:
        if constexpr (kKind == TestPluginKind::CrashOnLoad)
            Crash();
        if constexpr (kKind == TestPluginKind::CrashOnProcess) {
            // Some plug-ins install handlers of their own; the host must still catch our fault.
            std::signal(SIGSEGV, SIG_DFL);
            std::signal(SIGBUS, SIG_DFL);
        }
        return 0;
    case effGetEffectName:
        std::strcpy(static_cast<char*>(ptr), g_effectName);
        return 1;
    case effGetParamName:
        std::strcpy(static_cast<char*>(ptr), ParamName(index));
        return 0;
    case effGetParamDisplay:
        if (index >= 0 && index < kNumParams)
            std::snprintf(static_cast<char*>(ptr), 8, "%d", static_cast<int>(g_params[index] * 100.0f + 0.5f));
        return 0;
    case effGetParamLabel:
        std::strcpy(static_cast<char*>(ptr), "%");
        return 0;
    case effEditGetRect:
        *static_cast<ERect**>(ptr) = &g_editorRect;
        return 1;
    case effEditOpen:
        if constexpr (kKind == TestPluginKind::CrashOnEditor)
            Crash();
        return 1;
    case effEditIdle:
        // As if the user had turned the second knob of the editor.
        if (g_host != nullptr)
            g_host(effect, audioMasterAutomate, 1, 0, nullptr, 0.75f);
        g_params[1] = 0.75f;
        return 0;
    default:
        return 0;
    }
}

void Render(float** inputs, float** outputs, int32_t frames, bool accumulate)
{
    ++g_processCount;
    if constexpr (kKind == TestPluginKind::CrashOnProcess)
        Crash();
    for (int32_t i = 0; i < frames; ++i) {
        float value = 2.0f * inputs[0][i] + 0.9f;
        if (g_effect.numInputs > 1)
            value += 1000.0f * inputs[1][i];
        outputs[0][i] = accumulate ? outputs[0][i] + value : value;
        if (g_effect.numOutputs > 1)
            outputs[1][i] = 12345.0f;
    }
}

void ProcessReplacing(AEffect* /*effect*/, float** inputs, float** outputs, int32_t frames)
{
    Render(inputs, outputs, frames, false);
}

void ProcessAccumulating(AEffect* /*effect*/, float** inputs, float** outputs, int32_t frames)
{
    Render(inputs, outputs, frames, true);
}

void SetParameter(AEffect* /*effect*/, int32_t index, float value)
{
    if constexpr (kKind == TestPluginKind::CrashOnParameter)
        Crash();
    if (index >= 0 && index < kNumParams)
        g_params[index] = value;
}

float GetParameter(AEffect* /*effect*/, int32_t index)
{
    return index >= 0 && index < kNumParams ? g_params[index] : 0.0f;
}

AEffect* Create(HostCallback host, const char* name)
{
    g_host = host;
    g_hostVersion = host(nullptr, audioMasterVersion, 0, 0, nullptr, 0.0f);
    g_effectName = name;
    if constexpr (kKind == TestPluginKind::NullEffect)
        return nullptr;
    if constexpr (kKind == TestPluginKind::WrongMagic) {
        std::memset(&g_notAnEffect, 0x5A, sizeof g_notAnEffect);
        return &g_notAnEffect;
    }
    g_effect = AEffect{};
    g_effect.magic = kEffectMagic;
    g_effect.dispatcher = &Dispatcher;
    g_effect.setParameter = &SetParameter;
    g_effect.getParameter = &GetParameter;
    g_effect.numParams = kKind == TestPluginKind::NoParams ? 0 : kNumParams;
    g_effect.numInputs = kKind == TestPluginKind::Stereo ? 2 : 1;
    g_effect.numOutputs = kKind == TestPluginKind::Stereo ? 2 : kKind == TestPluginKind::NoOutputs ? 0 : 1;
    g_effect.ioRatio = 1.0f;
    g_effect.uniqueID = 0x4C724D54;
    g_effect.version = 1;
    if constexpr (kKind == TestPluginKind::Accumulating) {
        g_effect.process = &ProcessAccumulating;
    } else {
        g_effect.flags |= kFlagCanReplacing;
        g_effect.processReplacing = &ProcessReplacing;
    }
    if constexpr (kKind == TestPluginKind::Stereo || kKind == TestPluginKind::CrashOnEditor)
        g_effect.flags |= kFlagHasEditor;
    return &g_effect;
}

} // namespace

#if LARIMO_TEST_PLUGIN_EXPORTS_ENTRY
// A Linux plug-in exports its "main" under that symbol name; C++ forbids defining a function
// called main that is not the program's, so the name is given to the assembler.
LARIMO_PLUGIN_EXPORT AEffect* LarimoTestMainEntry(HostCallback host) __asm__("main");
LARIMO_PLUGIN_EXPORT AEffect* VSTPluginMain(HostCallback host);

LARIMO_PLUGIN_EXPORT AEffect* VSTPluginMain(HostCallback host)
{
    return Create(host, kKind == TestPluginKind::BothEntries ? "Entered through VSTPluginMain" : "Larimo Test Effect");
}

#if LARIMO_TEST_PLUGIN_EXPORTS_MAIN
LARIMO_PLUGIN_EXPORT AEffect* LarimoTestMainEntry(HostCallback host)
{
    return Create(host, "Entered through main");
}
#endif
#else
// An entry point under a name no host looks for.
LARIMO_PLUGIN_EXPORT AEffect* PluginEntry(HostCallback host)
{
    return Create(host, "Larimo Test Effect");
}
#endif

LARIMO_PLUGIN_EXPORT int LarimoTestPluginCalls(int32_t* opcodes, int capacity)
{
    std::copy_n(g_calls, std::min(capacity, g_callCount), opcodes);
    return g_callCount;
}

LARIMO_PLUGIN_EXPORT void LarimoTestPluginReset()
{
    g_callCount = 0;
    g_processCount = 0;
    g_hostVersion = -1;
    g_params[0] = 0.5f;
    g_params[1] = 0.25f;
    g_params[2] = 0.0f;
    g_params[3] = 1.0f;
}

LARIMO_PLUGIN_EXPORT intptr_t LarimoTestPluginHostVersion()
{
    return g_hostVersion;
}

LARIMO_PLUGIN_EXPORT int LarimoTestPluginProcessCount()
{
    return g_processCount;
}
