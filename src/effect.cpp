// SPDX-License-Identifier: GPL-3.0-or-later
#include "effect.h"

#include "error.h"
#include "exception.h"
#include "mlog.h"
#include "modb.h"
#include "textformat.h"
#include "texts.h"
#include "wintools.h"

#include <algorithm>
#include <cmath>
#include <thread>

namespace larimo {

namespace {

// A plug-in that throws out of a call is as broken as one that faults; it is reported with the
// code a C++ exception carries as a structured exception.
constexpr uint32_t kExceptionCppException = 0xE06D7363U;
constexpr char kMessageCaption[] = "Larimo";
// Plug-ins write well past the nominal 8 or 32 characters of names.
constexpr size_t kPluginTextBuffer = 512;
// More channels than any effect has; a larger count is a broken structure.
constexpr int kMaxChannels = 64;
constexpr size_t kMaxTitleLength = 399;
constexpr size_t kMaxMessageLength = 3999;

std::atomic<EffectParamWindowFactory> g_paramWindowFactory{nullptr};

// Plug-in text as valid UTF-8: bytes that are not become U+FFFD.
std::string CleanText(const char* text)
{
    return Utf16ToUtf8(Utf8ToUtf16(text));
}

std::string TrimBlanks(const std::string& text)
{
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return {};
    const auto last = text.find_last_not_of(" \t");
    return text.substr(first, last - first + 1);
}

// RT call.
// Plug-ins work at the published full scale of +-1.0: one 16-bit step is 1 / 32768.
constexpr float kFullScale = 32768.0f;

int16_t ToSample(float value) noexcept
{
    if (value != value)
        return 0;
    const float clamped = std::clamp(value, -1.0f, 1.0f);
    const long rounded = std::lrint(clamped * kFullScale);
    return static_cast<int16_t>(std::clamp(rounded, -32768L, 32767L));
}

} // namespace

const std::string& MoVstErrorText(unsigned error)
{
    switch (error) {
    case kVstSuccess:
        return GetText(120);
    case kVstLoadError:
        return GetText(153);
    case kVstNotFound:
        return GetText(154);
    case kVstBadFormat:
        return GetText(155);
    case kVstNoEffect:
        return GetText(156);
    default:
        return GetText(141);
    }
}

void SetEffectParamWindowFactory(EffectParamWindowFactory factory)
{
    g_paramWindowFactory.store(factory, std::memory_order_release);
}

MoAudioEffect::MoAudioEffect() = default;

MoAudioEffect::~MoAudioEffect()
{
    CloseConfig();
    UnLoad();
}

template <typename Call>
bool MoAudioEffect::Guarded(Call&& call, ExceptionRecord& fault) noexcept
{
    ExceptionRecord record;
    bool returned = false;
    try {
        returned = CrashGuard::Run(call, record);
    } catch (...) {
        record = ExceptionRecord{};
        record.code = kExceptionCppException;
    }
    if (!returned)
        fault = record;
    return returned;
}

template <typename Call>
bool MoAudioEffect::GuardedOrDrop(const char* scope, Call&& call)
{
    if (Guarded(call, m_fault))
        return true;
    ReportFault(scope);
    return false;
}

void MoAudioEffect::ReportFault(const char* scope)
{
    LogException("%s(): %s. Module: %s", scope, DescribeException(m_fault).c_str(), m_modulePath.c_str());
    ++m_faultCount;
    m_moduleFaulted = true;
    Terminate();
}

void MoAudioEffect::HandleAudioFault()
{
    if (!m_audioFaulted.load(std::memory_order_acquire) || m_effect.load(std::memory_order_relaxed) == nullptr)
        return;
    m_fault = m_audioFault;
    ReportFault("MoAudioEffect::ProcessMono");
}

vst::AEffect* MoAudioEffect::LiveEffect()
{
    HandleAudioFault();
    return m_effect.load(std::memory_order_relaxed);
}

intptr_t MoAudioEffect::Dispatch(vst::AEffect* effect, int32_t opcode, int32_t index, intptr_t value, void* ptr,
                                 float opt)
{
    return effect->dispatcher(effect, opcode, index, value, ptr, opt);
}

std::string MoAudioEffect::PluginText(const char* scope, int32_t opcode, int32_t index)
{
    vst::AEffect* effect = LiveEffect();
    if (effect == nullptr)
        return {};
    char buffer[kPluginTextBuffer] = {};
    if (!GuardedOrDrop(scope, [&] { Dispatch(effect, opcode, index, 0, buffer); }))
        return {};
    buffer[kPluginTextBuffer - 1] = '\0';
    return CleanText(buffer);
}

vst::AEffect* MoAudioEffect::Detach()
{
    m_processingEnabled.store(false, std::memory_order_seq_cst);
    vst::AEffect* effect = m_effect.exchange(nullptr, std::memory_order_seq_cst);
    // ProcessMono marks itself busy before it reads the effect: once the mark is seen clear
    // after the exchange, no call is using the old effect and none will.
    while (m_processing.load(std::memory_order_seq_cst))
        std::this_thread::yield();
    return effect;
}

void MoAudioEffect::AllocateChannels()
{
    const auto block = static_cast<size_t>(kBlockSize);
    m_channelData.assign(static_cast<size_t>(m_numInputs + m_numOutputs) * block, 0.0f);
    m_inputs.resize(static_cast<size_t>(m_numInputs));
    m_outputs.resize(static_cast<size_t>(m_numOutputs));
    float* next = m_channelData.data();
    for (float*& channel : m_inputs) {
        channel = next;
        next += block;
    }
    for (float*& channel : m_outputs) {
        channel = next;
        next += block;
    }
}

void MoAudioEffect::FreeChannels()
{
    m_channelData = {};
    m_inputs = {};
    m_outputs = {};
}

MoVstErrorNum MoAudioEffect::SafeLoad(const std::string& path, bool processingEnabled, void* owner)
{
    const MoVstErrorNum result = SecureLoad(path, processingEnabled);
    if (result == kVstException) {
        const std::string message = FormatCut(kMaxMessageLength, "%s\n\nEffect: \"%s\"",
                                              DescribeException(m_fault).c_str(), path.c_str());
        if (owner != nullptr)
            ShowMessageBox(owner, message, kMessageCaption, MB_ICONERROR);
        LogException("%s", message.c_str());
    }
    return result;
}

MoVstErrorNum MoAudioEffect::SecureLoad(const std::string& path, bool processingEnabled)
{
    static constexpr char kScope[] = "MoAudioEffect::SecureLoad";
    LogEnter(kScope, "\"%s\", isOn=%d", path.c_str(), processingEnabled ? 1 : 0);
    UnLoad();
    const MoVstErrorNum result = LoadSteps(path);
    if (result == kVstSuccess) {
        SetProcessingEnabled(processingEnabled);
    } else if (result == kVstException) {
        // Never call a plug-in again once it faulted: no effClose, no destructors.
        m_moduleFaulted = true;
        Terminate();
    } else {
        UnLoad();
    }
    LogLeaveResult(kScope, static_cast<unsigned>(result));
    return result;
}

MoVstErrorNum MoAudioEffect::LoadSteps(const std::string& path)
{
    m_modulePath = path;

    SharedLibrary::OpenError openError = SharedLibrary::OpenError::None;
    uint32_t code = 0;
    std::string loaderMessage;
    bool opened = false;
    // Loading runs the plug-in's constructors.
    if (!Guarded([&] { opened = m_module.Open(path, openError, code, loaderMessage); }, m_fault))
        return kVstException;
    if (!opened) {
        LogError("Error of load vst plug-in. Error code: %u", code);
        LogError("%s", loaderMessage.c_str());
        return openError == SharedLibrary::OpenError::Missing ? kVstNotFound : kVstLoadError;
    }

    // Where a plug-in exports both, "main" is the one meant for this host.
    void* entryAddress = m_module.Symbol("main");
    if (entryAddress == nullptr)
        entryAddress = m_module.Symbol("VSTPluginMain");
    if (entryAddress == nullptr) {
        LogError("MoAudioEffect::SecureLoad(): no entry point \"main\" or \"VSTPluginMain\" in %s", path.c_str());
        return kVstBadFormat;
    }
    const auto entry = reinterpret_cast<vst::EntryProc>(entryAddress);

    vst::AEffect* effect = nullptr;
    bool wellFormed = false;
    if (!Guarded(
            [&] {
                effect = entry(&MoAudioEffect::HostCallback);
                wellFormed = effect != nullptr && effect->magic == vst::kEffectMagic && effect->dispatcher != nullptr;
            },
            m_fault))
        return kVstException;
    if (!wellFormed) {
        // An effect that is not one is never called, not even to close it.
        LogError("MoAudioEffect::SecureLoad(): the entry point of %s gave %s", path.c_str(),
                 effect == nullptr ? "no effect" : "a structure that is not a VST 2 effect");
        return kVstBadFormat;
    }
    effect->user = this;
    // Processing stays disabled until the end of loading, so the audio thread leaves it alone.
    m_effect.store(effect, std::memory_order_seq_cst);

    if (!Guarded([&] { Dispatch(effect, vst::effOpen); }, m_fault))
        return kVstException;

    m_fileName = path.substr(path.find_last_of("/\\") == std::string::npos ? 0 : path.find_last_of("/\\") + 1);
    m_baseName = LibBaseName(m_fileName);

    char name[kPluginTextBuffer] = {};
    int numInputs = 0;
    int numOutputs = 0;
    bool canReplace = false;
    bool canAccumulate = false;
    if (!Guarded(
            [&] {
                Dispatch(effect, vst::effGetEffectName, 0, 0, name);
                numInputs = effect->numInputs;
                numOutputs = effect->numOutputs;
                canReplace = effect->processReplacing != nullptr;
                canAccumulate = effect->process != nullptr;
                m_useReplacing = canReplace && ((effect->flags & vst::kFlagCanReplacing) != 0 || !canAccumulate);
            },
            m_fault))
        return kVstException;
    name[kPluginTextBuffer - 1] = '\0';
    const std::string effectName = CleanText(name);
    m_effectName = effectName.empty() ? m_baseName : std::string(CutToUtf16(effectName, kMaxNameLength));

    m_numInputs = numInputs;
    m_numOutputs = numOutputs;
    if (numInputs <= 0 || numOutputs <= 0) {
        LogError("MoAudioEffect::SecureLoad(): %s has %d inputs and %d outputs", path.c_str(), numInputs, numOutputs);
        return kVstNoEffect;
    }
    if (numInputs > kMaxChannels || numOutputs > kMaxChannels || (!canReplace && !canAccumulate)) {
        LogError("MoAudioEffect::SecureLoad(): %s has %d inputs, %d outputs and %s processing function",
                 path.c_str(), numInputs, numOutputs, canReplace || canAccumulate ? "a" : "no");
        return kVstBadFormat;
    }

    AllocateChannels();
    // The usual activation order: rate and block size first, then switch on.
    if (!Guarded(
            [&] {
                Dispatch(effect, vst::effSetSampleRate, 0, 0, nullptr, static_cast<float>(kSampleRate));
                Dispatch(effect, vst::effSetBlockSize, 0, kBlockSize);
                Dispatch(effect, vst::effMainsChanged, 0, 1);
                Dispatch(effect, vst::effStartProcess);
            },
            m_fault))
        return kVstException;
    m_active = true;
    LogScopeInfo("MoAudioEffect::SecureLoad", "\"%s\": %d inputs, %d outputs, %d parameters", m_effectName.c_str(),
                 numInputs, numOutputs, effect->numParams);
    return kVstSuccess;
}

void MoAudioEffect::UnLoad()
{
    HandleAudioFault();
    vst::AEffect* effect = Detach();
    if (effect != nullptr) {
        LogEnter("MoAudioEffect::UnLoad", "\"%s\"", m_modulePath.c_str());
        const bool active = m_active;
        m_active = false;
        const bool closed = Guarded(
            [&] {
                if (active) {
                    Dispatch(effect, vst::effStopProcess);
                    Dispatch(effect, vst::effMainsChanged, 0, 0);
                }
                Dispatch(effect, vst::effClose);
            },
            m_fault);
        if (!closed) {
            LogException("%s(): %s. Module: %s", "MoAudioEffect::UnLoad", DescribeException(m_fault).c_str(),
                         m_modulePath.c_str());
            m_moduleFaulted = true;
        }
        LogLeave("MoAudioEffect::UnLoad");
    }
    Terminate();
}

void MoAudioEffect::Terminate()
{
    Detach();
    m_active = false;
    if (m_moduleFaulted) {
        // Its code stays mapped: threads the plug-in started may still be running in it.
        m_module.Abandon();
    } else if (m_module.IsOpen() && !Guarded([&] { m_module.Close(); }, m_fault)) {
        LogException("%s(): %s. Module: %s", "MoAudioEffect::Terminate", DescribeException(m_fault).c_str(),
                     m_modulePath.c_str());
    }
    m_moduleFaulted = false;
    m_audioFaulted.store(false, std::memory_order_release);
    FreeChannels();
    m_numInputs = 0;
    m_numOutputs = 0;
    m_effectName.clear();
    m_baseName.clear();
    m_fileName.clear();
    m_modulePath.clear();
}

bool MoAudioEffect::IsLoaded() const noexcept
{
    return m_effect.load(std::memory_order_acquire) != nullptr && !m_audioFaulted.load(std::memory_order_acquire);
}

void MoAudioEffect::SetProcessingEnabled(bool enabled)
{
    HandleAudioFault();
    m_processingEnabled.store(enabled && m_effect.load(std::memory_order_relaxed) != nullptr,
                              std::memory_order_release);
}

void MoAudioEffect::ProcessMono(int16_t* samples, size_t byteCount) noexcept
{
    m_processing.store(true, std::memory_order_seq_cst);
    vst::AEffect* effect = m_effect.load(std::memory_order_seq_cst);
    if (effect != nullptr && samples != nullptr && m_processingEnabled.load(std::memory_order_acquire) &&
        !m_audioFaulted.load(std::memory_order_relaxed)) {
        size_t remaining = byteCount / 2;
        while (remaining > 0) {
            const size_t frames = std::min(remaining, static_cast<size_t>(kBlockSize));
            float* input = m_inputs[0];
            for (size_t i = 0; i < frames; ++i)
                input[i] = static_cast<float>(samples[i]) / kFullScale;
            // The plug-in may have written into any buffer last time; it gets silence on the
            // other inputs and clean outputs (the accumulating form adds into them).
            for (size_t c = 1; c < m_inputs.size(); ++c)
                std::fill_n(m_inputs[c], frames, 0.0f);
            for (float* output : m_outputs)
                std::fill_n(output, frames, 0.0f);
            const auto count = static_cast<int32_t>(frames);
            const bool returned = Guarded(
                [&] {
                    if (m_useReplacing)
                        effect->processReplacing(effect, m_inputs.data(), m_outputs.data(), count);
                    else
                        effect->process(effect, m_inputs.data(), m_outputs.data(), count);
                },
                m_audioFault);
            if (!returned) {
                m_audioFaulted.store(true, std::memory_order_release);
                break;
            }
            const float* output = m_outputs[0];
            for (size_t i = 0; i < frames; ++i)
                samples[i] = ToSample(output[i]);
            samples += frames;
            remaining -= frames;
        }
    }
    m_processing.store(false, std::memory_order_seq_cst);
}

int MoAudioEffect::GetNumParams()
{
    vst::AEffect* effect = LiveEffect();
    return effect != nullptr ? std::max(effect->numParams, 0) : 0;
}

std::string MoAudioEffect::GetParamName(int index)
{
    if (index < 0 || index >= GetNumParams())
        return {};
    const std::string name = TrimBlanks(PluginText("MoAudioEffect::GetParamName", vst::effGetParamName, index));
    if (!name.empty() || !IsLoaded())
        return name;
    return "Undefined parameter" + FormatCut(32, " %d", index);
}

float MoAudioEffect::GetParameter(int index)
{
    if (index < 0 || index >= GetNumParams())
        return 0.0f;
    vst::AEffect* effect = LiveEffect();
    float value = 0.0f;
    if (effect->getParameter == nullptr ||
        !GuardedOrDrop("MoAudioEffect::GetParameter", [&] { value = effect->getParameter(effect, index); }))
        return 0.0f;
    return value;
}

std::string MoAudioEffect::GetParamDisplay(int index)
{
    if (index < 0 || index >= GetNumParams())
        return {};
    return TrimBlanks(PluginText("MoAudioEffect::GetParamDisplay", vst::effGetParamDisplay, index));
}

std::string MoAudioEffect::GetParamLabel(int index)
{
    if (index < 0 || index >= GetNumParams())
        return {};
    return TrimBlanks(PluginText("MoAudioEffect::GetParamLabel", vst::effGetParamLabel, index));
}

int MoAudioEffect::InitialDelay() const
{
    const vst::AEffect* effect = m_effect.load(std::memory_order_acquire);
    return effect != nullptr ? std::max(0, effect->initialDelay) : 0;
}

std::string MoAudioEffect::LastFaultText() const
{
    return DescribeException(m_fault);
}

void MoAudioEffect::SetParameter(int index, float value)
{
    if (index < 0 || index >= GetNumParams())
        return;
    vst::AEffect* effect = LiveEffect();
    if (effect->setParameter != nullptr)
        GuardedOrDrop("MoAudioEffect::SetParameter", [&] { effect->setParameter(effect, index, value); });
}

void MoAudioEffect::GetParams(std::vector<ParamValue>& params)
{
    params.clear();
    const int count = GetNumParams();
    for (int i = 0; i < count && IsLoaded(); ++i) {
        ParamValue param;
        param.m_text = GetParamName(i);
        param.m_value = GetParameter(i);
        params.push_back(std::move(param));
    }
}

void MoAudioEffect::SetParams(const std::vector<ParamValue>& params)
{
    const int count = std::min(GetNumParams(), static_cast<int>(std::min<size_t>(params.size(), INT32_MAX)));
    for (int i = 0; i < count && IsLoaded(); ++i)
        SetParameter(i, params[static_cast<size_t>(i)].m_value);
}

bool MoAudioEffect::HasEditor()
{
    vst::AEffect* effect = LiveEffect();
    return effect != nullptr && (effect->flags & vst::kFlagHasEditor) != 0;
}

bool MoAudioEffect::EditOpen(uintptr_t nativeWindow, const std::string& title, void* owner)
{
    vst::AEffect* effect = LiveEffect();
    if (effect == nullptr)
        return false;
    const std::string caption(CutToUtf16(title, kMaxTitleLength));
    if (Guarded([&] { Dispatch(effect, vst::effEditOpen, 0, 0, reinterpret_cast<void*>(nativeWindow)); }, m_fault))
        return true;
    ShowMessageBox(owner, DescribeException(m_fault) + "\nEffect editor will be closed", caption, MB_ICONERROR);
    LogException("Unhandled exception in effect %s", caption.c_str());
    ++m_faultCount;
    m_moduleFaulted = true;
    Terminate();
    return false;
}

bool MoAudioEffect::EditGetRect(vst::ERect& rect)
{
    vst::AEffect* effect = LiveEffect();
    if (effect == nullptr)
        return false;
    bool given = false;
    GuardedOrDrop("MoAudioEffect::EditGetRect", [&] {
        vst::ERect* reported = nullptr;
        Dispatch(effect, vst::effEditGetRect, 0, 0, &reported);
        if (reported != nullptr) {
            rect = *reported;
            given = true;
        }
    });
    return given;
}

void MoAudioEffect::EditIdle()
{
    if (vst::AEffect* effect = LiveEffect())
        GuardedOrDrop("MoAudioEffect::EditIdle", [&] { Dispatch(effect, vst::effEditIdle); });
}

void MoAudioEffect::EditClose()
{
    if (vst::AEffect* effect = LiveEffect())
        GuardedOrDrop("MoAudioEffect::EditClose", [&] { Dispatch(effect, vst::effEditClose); });
}

bool MoAudioEffect::Config(void* parent, void* owner)
{
    static constexpr char kScope[] = "MoAudioEffect::Config";
    LogEnter(kScope);
    CloseConfig();
    bool shown = false;
    const EffectParamWindowFactory factory = g_paramWindowFactory.load(std::memory_order_acquire);
    if (LiveEffect() == nullptr) {
        LogWarning("%s(): no effect is loaded", kScope);
    } else if (factory == nullptr) {
        LogWarning("%s(): this program has no parameter window", kScope);
    } else if ((m_paramWindow = factory(*this, m_baseName, parent)) != nullptr) {
        m_listenerContext = owner;
        shown = m_paramWindow->ShowNotModal(parent);
        if (!shown)
            m_paramWindow.reset();
    }
    LogLeaveResult(kScope, shown);
    return shown;
}

void MoAudioEffect::CloseConfig()
{
    if (std::unique_ptr<EffectParamWindow> window = std::move(m_paramWindow))
        window->Close();
}

intptr_t MoAudioEffect::HostCallback(vst::AEffect* effect, int32_t opcode, int32_t index, intptr_t /*value*/,
                                     void* /*ptr*/, float opt)
{
    switch (opcode) {
    case vst::audioMasterVersion:
        return vst::kHostVstVersion;
    // Not asked for by every plug-in, but some read the rate here while they are created.
    case vst::audioMasterGetSampleRate:
        return kSampleRate;
    case vst::audioMasterGetBlockSize:
        return kBlockSize;
    case vst::audioMasterAutomate: {
        auto* host = effect != nullptr ? static_cast<MoAudioEffect*>(effect->user) : nullptr;
        // The structure is the plug-in's: a stray user field must not send us anywhere.
        if (host == nullptr || host->m_effect.load(std::memory_order_relaxed) != effect)
            return 0;
        host->SetParamsModified(true);
        if (ParamAutomateListener listener = host->m_paramAutomateListener) {
            try {
                ParamValue changed;
                changed.m_value = opt;
                listener(host->m_listenerContext, index, changed);
            } catch (...) {
                // Nothing may be thrown back into the plug-in.
            }
        }
        return 0;
    }
    default:
        return 0;
    }
}

} // namespace larimo
