// SPDX-License-Identifier: GPL-3.0-or-later
// The host of one VST 2 effect plug-in (a shared object): loading, 16-bit mono processing,
// parameters, the plug-in's own editor and unloading. Every call into plug-in code runs under
// the crash guard; a plug-in that faults is reported and dropped, and never called again.
#pragma once

#include "VstAbi.h"
#include "platform/CrashGuard.h"
#include "platform/SharedLibrary.h"
#include "voiceconfig.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace larimo {

/// Results of loading a plug-in.
enum MoVstErrorNum : unsigned {
    kVstSuccess = 0,
    kVstLoadError = 1,  ///< the file cannot be loaded
    kVstNotFound = 2,   ///< the file, or a library it needs, is missing
    kVstBadFormat = 3,  ///< no entry point, or the entry point gave no valid effect
    kVstNoEffect = 4,   ///< the effect has no audio input or no audio output
    kVstException = 5,  ///< the plug-in faulted while it was being loaded
};

/// The text of a load result; "Undefined error" for numbers without one. Any thread, between
/// StartTexts and EndTexts.
const std::string& MoVstErrorText(unsigned error);

class MoAudioEffect;

/// The parameter window of an effect, made by the GUI (a native window showing the plug-in's
/// own editor or rows of sliders). Window thread only.
class EffectParamWindow {
public:
    virtual ~EffectParamWindow() = default;
    /// Shows the window modeless over `parent`; false when it cannot be shown (it then
    /// has told the user why).
    virtual bool ShowNotModal(void* parent) = 0;
    /// Closes the window; it calls the effect's EditorClosedListener.
    virtual void Close() = 0;
};

/// Makes the parameter window of `effect`; null when it cannot.
using EffectParamWindowFactory = std::unique_ptr<EffectParamWindow> (*)(MoAudioEffect& effect,
                                                                         const std::string& baseName,
                                                                         void* parent);

/// Installs the maker of parameter windows (the GUI does at start-up; null removes it).
/// Main thread, before windows are opened.
void SetEffectParamWindowFactory(EffectParamWindowFactory factory);

/// One hosted plug-in.
///
/// Threads: loading, unloading, parameters, the editor and Config run on one control thread
/// (the window thread). ProcessMono and IsLoaded may run at the same time on the real-time
/// audio thread: unloading waits for a ProcessMono call in progress to return, and a new
/// effect is seen by ProcessMono only once processing is enabled, so the audio thread never
/// sees a half-loaded or freed effect. Plug-in notifications (the automate listener) arrive on
/// whatever thread the plug-in calls from.
class MoAudioEffect {
public:
    using ParamChangeListener = void (*)(void* context, const std::vector<ParamValue>& params);
    using ParamAutomateListener = void (*)(void* context, int index, const ParamValue& value);
    using EditorClosedListener = void (*)(void* context);

    static constexpr uint32_t kSampleRate = 44100;
    static constexpr int kBlockSize = 1024;
    static constexpr size_t kMaxNameLength = 260;

    MoAudioEffect();
    ~MoAudioEffect();
    MoAudioEffect(const MoAudioEffect&) = delete;
    MoAudioEffect& operator=(const MoAudioEffect&) = delete;

    /// SecureLoad, reporting a plug-in that faulted while loading: the message (the fault's
    /// description and the path) is logged and, when `owner` is given, shown in an error box
    /// over it. Returns kVstException then. Control thread.
    MoVstErrorNum SafeLoad(const std::string& path, bool processingEnabled, void* owner);

    /// Unloads what is loaded, loads the plug-in at `path`, opens its effect and makes it
    /// ready for audio at 44100 Hz in blocks of up to kBlockSize frames. Processing is enabled
    /// when `processingEnabled` is set. Every failure is logged; the plug-in is then unloaded.
    /// Control thread.
    MoVstErrorNum SecureLoad(const std::string& path, bool processingEnabled);

    /// Stops and closes a live effect and unloads the plug-in. Control thread.
    void UnLoad();
    /// Drops the effect without calling it and unloads the plug-in (when its code never
    /// faulted) and forgets the names. Control thread.
    void Terminate();

    /// True while a usable effect is loaded. RT call: any thread.
    bool IsLoaded() const noexcept;
    /// Control thread.
    void SetProcessingEnabled(bool enabled);
    bool IsProcessingEnabled() const noexcept { return m_processingEnabled.load(std::memory_order_acquire); }

    /// Runs the effect in place over `byteCount / 2` signed 16-bit mono samples; does nothing
    /// unless an effect is loaded and processing is enabled. The plug-in sees the samples as
    /// floats at full scale +-1.0 (sample / 32768) on its first input, zeros on the others;
    /// its first output comes back clipped to +-1.0 and rounded to 16 bits.
    /// A fault stops all further processing; it is logged and the plug-in dropped on the next
    /// call on the control thread. RT call: no allocation, no lock, no log. Call
    /// CrashGuard::PrepareThread() on the audio thread first.
    void ProcessMono(int16_t* samples, size_t byteCount) noexcept;

    /// Parameters: nothing happens (0, empty) without an effect or for an index out of range.
    /// Values are 0..1. Control thread.
    int GetNumParams();
    /// The trimmed name, or "Undefined parameter <index>" when the plug-in gives none.
    std::string GetParamName(int index);
    float GetParameter(int index);
    /// The value as the plug-in shows it ("+5.0") and its unit ("st"); empty when it gives none.
    std::string GetParamDisplay(int index);
    std::string GetParamLabel(int index);
    void SetParameter(int index, float value);
    /// One entry per parameter: its value and name.
    void GetParams(std::vector<ParamValue>& params);
    /// Parameter i gets params[i].m_value, for the entries the effect has parameters for.
    void SetParams(const std::vector<ParamValue>& params);

    /// The plug-in's own editor. EditOpen embeds it into the X11 window `nativeWindow`; a
    /// fault is shown over `owner` with `title` as the caption and logged, the effect dropped,
    /// and the result is false. Control thread.
    bool HasEditor();
    bool EditOpen(uintptr_t nativeWindow, const std::string& title, void* owner = nullptr);
    /// The editor's size, false when the plug-in tells none.
    bool EditGetRect(vst::ERect& rect);
    void EditIdle();
    void EditClose();

    /// Opens the parameter window for this effect over `parent` and makes `owner` the
    /// listener context; false without a window maker or when the window cannot be shown.
    /// Control thread.
    bool Config(void* parent, void* owner);
    /// Closes and destroys the parameter window. Control thread.
    void CloseConfig();
    /// The parameter window Config made, or null. Control thread.
    EffectParamWindow* ParamWindow() const { return m_paramWindow.get(); }

    /// How many times plug-in code has faulted under this host (each fault drops the effect),
    /// and the description of the last fault. Control thread.
    unsigned FaultCount() const { return m_faultCount; }
    std::string LastFaultText() const;

    const std::string& EffectName() const { return m_effectName; }
    const std::string& BaseName() const { return m_baseName; }
    const std::string& FileName() const { return m_fileName; }
    const std::string& ModulePath() const { return m_modulePath; }
    int NumInputs() const { return m_numInputs; }
    /// The delay the plug-in says it adds, in samples (0 without an effect). Control thread.
    int InitialDelay() const;
    int NumOutputs() const { return m_numOutputs; }

    /// Listeners and the flag the parameter window and the plug-in share. Set the listeners
    /// and their context on the control thread while the plug-in cannot call back (before
    /// loading, or with no audio running); the flag may be touched on any thread.
    void SetListenerContext(void* context) { m_listenerContext = context; }
    void* ListenerContext() const { return m_listenerContext; }
    void SetParamChangeListener(ParamChangeListener listener) { m_paramChangeListener = listener; }
    ParamChangeListener GetParamChangeListener() const { return m_paramChangeListener; }
    void SetParamAutomateListener(ParamAutomateListener listener) { m_paramAutomateListener = listener; }
    void SetEditorClosedListener(EditorClosedListener listener) { m_editorClosedListener = listener; }
    EditorClosedListener GetEditorClosedListener() const { return m_editorClosedListener; }
    bool ParamsModified() const noexcept { return m_paramsModified.load(std::memory_order_acquire); }
    void SetParamsModified(bool modified) noexcept { m_paramsModified.store(modified, std::memory_order_release); }

private:
    static intptr_t HostCallback(vst::AEffect* effect, int32_t opcode, int32_t index, intptr_t value, void* ptr,
                                 float opt);

    // Runs `call` on the plug-in under the crash guard; a fault (or an exception thrown
    // out of the plug-in) is stored in `fault` and makes the result false. RT call.
    template <typename Call>
    static bool Guarded(Call&& call, ExceptionRecord& fault) noexcept;
    // A guarded call made on the control thread; a fault is logged under `scope` and the
    // effect dropped.
    template <typename Call>
    bool GuardedOrDrop(const char* scope, Call&& call);
    void ReportFault(const char* scope);
    // Logs and drops an effect that faulted on the audio thread.
    void HandleAudioFault();
    // The effect for a control-thread call, or null.
    vst::AEffect* LiveEffect();
    intptr_t Dispatch(vst::AEffect* effect, int32_t opcode, int32_t index = 0, intptr_t value = 0,
                      void* ptr = nullptr, float opt = 0.0f);
    std::string PluginText(const char* scope, int32_t opcode, int32_t index);
    MoVstErrorNum LoadSteps(const std::string& path);
    // Takes the effect away from the audio thread and waits until it no longer uses it.
    vst::AEffect* Detach();
    void AllocateChannels();
    void FreeChannels();

    SharedLibrary m_module;
    bool m_moduleFaulted = false;
    std::string m_effectName;
    std::string m_baseName;
    std::string m_fileName;
    std::string m_modulePath;

    std::atomic<vst::AEffect*> m_effect{nullptr};
    std::atomic<bool> m_processingEnabled{false};
    std::atomic<bool> m_processing{false};
    std::atomic<bool> m_audioFaulted{false};
    bool m_active = false;
    bool m_useReplacing = true;
    int m_numInputs = 0;
    int m_numOutputs = 0;

    std::vector<float> m_channelData;
    std::vector<float*> m_inputs;
    std::vector<float*> m_outputs;

    // The last fault on the control thread, and one the audio thread left for it to report.
    ExceptionRecord m_fault;
    ExceptionRecord m_audioFault;
    unsigned m_faultCount = 0;

    std::unique_ptr<EffectParamWindow> m_paramWindow;
    void* m_listenerContext = nullptr;
    std::atomic<bool> m_paramsModified{false};
    ParamChangeListener m_paramChangeListener = nullptr;
    ParamAutomateListener m_paramAutomateListener = nullptr;
    EditorClosedListener m_editorClosedListener = nullptr;
};

} // namespace larimo
