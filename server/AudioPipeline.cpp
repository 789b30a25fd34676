// SPDX-License-Identifier: GPL-3.0-or-later
#include "AudioPipeline.h"

#include "MixPlan.h"
#include "ServiceTexts.h"
#include "config.h"
#include "mix.h"
#include "mlog.h"
#include "modb.h"
#include "platform/AudioBackend.h"
#include "platform/CrashGuard.h"
#include "platform/ProcessInfo.h"
#include "platform/Realtime.h"
#include "platform/ThreadMessages.h"
#include "wmme.h"

#include <sched.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <future>
#include <map>
#include <optional>
#include <set>
#include <vector>

namespace larimo {

namespace {

constexpr uint32_t kSampleRate = 44100;
constexpr uint32_t kMinBlockMs = 2;
constexpr uint32_t kMaxBlockMs = 200;
constexpr uint32_t kMaxBlockSamples = kMaxBlockMs * kSampleRate / 1000;
// Buffers the output devices may hold when the next one is written. A device that hands its
// buffers back as soon as the sound server has them holds at most one, keeping its own lead
// (WaveBufferShape::leadBytes); one that returns them only once played (the simulated devices)
// holds the one playing and the next. Beyond that a burst after a stall is dropped.
constexpr uint32_t kMaxOutputQueued = 4;
// Silence the output devices keep ahead of the newest block against a late block, whatever
// the block's length: how late a block comes depends on the machine and on the recording's
// fragments (5 to 6 ms), not on the block. The devices keep pace with their clocks, so the lead
// only has to cover that; they lengthen it by themselves where it proves too short.
constexpr uint32_t kOutputLeadMs = 6;
// Under-runs this soon after resuming belong to the pause, not to the voice.
constexpr uint32_t kResumeGraceMs = 50;
constexpr int64_t kGapLogEveryNs = 10'000'000'000;
constexpr int64_t kMinStallNs = 1'000'000'000;
// Some sources take a while to send their first data (a Bluetooth headset switching profile,
// a monitor of a sink that ran with a long latency until now); reopening then only starts the
// wait again.
constexpr int64_t kFirstInputStallNs = 5'000'000'000;
constexpr int64_t kActiveTickNs = 20'000'000;
// A block grows or shrinks by at most one sample in this many, so that the pitch of no block
// moves by more than that share when the output keeps pace with its device's clock.
constexpr uint32_t kStretchDivisor = 128;
constexpr uint32_t kDeviceGone = UINT32_MAX;
constexpr int64_t kIdleTickNs = 100'000'000;
constexpr int64_t kInUsePollActiveNs = 500'000'000;


// What the audio thread knows of one output device's under-runs: the device's count last seen
// and the blocks fed to it since it last went unfed, up to the grace.
struct UnderrunWatch {
    uint64_t seen = 0;
    uint32_t fedBlocks = 0;
};

struct TraceBlock {
    uint32_t count = 0;
    int16_t samples[kMaxBlockSamples];
};
using TraceRing = WaitFreeRing<TraceBlock, 16>;

int64_t NowNs() noexcept
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

bool IsVirtualMicName(const std::string& name)
{
    return name.find(kVirtualDeviceName) != std::string::npos;
}

// What the devices are opened with; a change means closing and opening them again.
struct DeviceSettings {
    std::string input;
    std::string monitor;
    uint32_t blockMs = 25;
    uint32_t inCount = 40;
    uint32_t outCount = 40;
    uint32_t monCount = 40;
    bool operator==(const DeviceSettings&) const = default;
};

DeviceSettings DeviceSettingsOf(const ServiceState& state)
{
    DeviceSettings devices;
    if (const Config* settings = state.settings.get()) {
        devices.input = settings->m_input;
        devices.monitor = settings->m_monitor;
        if (settings->m_inBuffSizeMs != 0)
            devices.blockMs = settings->m_inBuffSizeMs;
        devices.inCount = settings->m_inBuffsN;
        devices.outCount = settings->m_outBuffsN;
        devices.monCount = settings->m_monBuffsN;
    }
    devices.blockMs = std::clamp(devices.blockMs, kMinBlockMs, kMaxBlockMs);
    devices.inCount = std::clamp<uint32_t>(devices.inCount, 2, 255);
    devices.outCount = std::clamp<uint32_t>(devices.outCount, 2, 255);
    devices.monCount = std::clamp<uint32_t>(devices.monCount, 2, 255);
    return devices;
}

// The buffers of one device: headers and one contiguous block of sample memory.
struct BufferPool {
    std::unique_ptr<WaveHeader[]> headers;
    std::vector<int16_t> data;
    uint32_t count = 0;
    uint32_t next = 0;

    void Allocate(uint32_t buffers, uint32_t samples)
    {
        count = buffers;
        headers = std::make_unique<WaveHeader[]>(buffers);
        data.assign(size_t{buffers} * samples, 0);
        for (uint32_t i = 0; i < buffers; ++i) {
            headers[i].data = reinterpret_cast<char*>(data.data() + size_t{i} * samples);
            headers[i].bufferLength = samples * 2;
        }
    }

    // The next buffer in turn, or null when it is still queued or `limit` are queued. RT call.
    WaveHeader* TakeRT(uint32_t limit) noexcept
    {
        uint32_t queued = 0;
        for (uint32_t i = 0; i < count; ++i)
            queued += (headers[i].flags.load(std::memory_order_acquire) & kWhdrInQueue) != 0 ? 1 : 0;
        WaveHeader& header = headers[next];
        if (queued >= limit || (header.flags.load(std::memory_order_acquire) & kWhdrInQueue) != 0)
            return nullptr;
        next = (next + 1) % count;
        return &header;
    }
};

struct Session {
    std::shared_ptr<ThreadMessageQueue> queue;
    std::unique_ptr<WaveInDevice> in;
    std::unique_ptr<WaveOutDevice> out;
    std::unique_ptr<WaveOutDevice> monitor;
    BufferPool inPool;
    BufferPool outPool;
    BufferPool monPool;
    std::vector<int16_t> work;
    uint32_t blockSamples = 0;
    std::unique_ptr<VoiceCleaner> cleaner;
    DeviceSettings devices;
    std::thread audio;
    std::atomic<bool> lost{false};
    std::atomic<int64_t> lastInputNs{0};
    int64_t openedNs = 0;
    // The audio thread's own: what it knows of the under-runs of the virtual microphone and of
    // the listen-in device, and how many fed blocks still count as resuming.
    UnderrunWatch outWatch;
    UnderrunWatch monitorWatch;
    uint32_t graceBlocks = 0;
    // The audio thread's as well: the samples it added to what it wrote to each output device
    // (negative: left out) to keep pace with the device's clock, what it wrote to the virtual
    // microphone, and the most one block may grow or shrink by.
    int64_t outCorrected = 0;
    int64_t monitorCorrected = 0;
    uint64_t outWritten = 0;
    uint32_t maxStretch = 1;
    // The backend's count of programs recording from the virtual microphone; null when it
    // cannot keep one and the control thread asks instead.
    std::shared_ptr<const std::atomic<int32_t>> recorders;
};

} // namespace

struct AudioPipeline::Control {
    Control(Options options, Events events)
        : m_options(options)
        , m_events(std::move(events))
        , m_trace(std::make_unique<TraceRing>())
        , m_ended(std::make_unique<EndedFunSoundRing>())
    {
    }

    // --- control thread -------------------------------------------------------------------

    void Run()
    {
        LogInfo("AudioPipeline: control thread started");
        for (;;) {
            std::shared_ptr<const ServiceState> state;
            uint64_t taken = 0;
            {
                std::unique_lock lock(m_mutex);
                m_wake.wait_for(lock, std::chrono::nanoseconds(Tick()), [this] { return m_quit || m_pending; });
                if (m_quit)
                    break;
                state = std::move(m_pending);
                taken = m_published;
            }
            if (state) {
                TakeState(std::move(state));
                std::lock_guard lock(m_mutex);
                m_applied = taken;
                m_appliedWake.notify_all();
            }
            ManageSession();
            DrainAudioNews();
            CheckEffectFault();
            ManageIdle();
            HintRecording();
            ReapPlans();
            LogGaps(false);
        }
        CloseSession();
        DrainAudioNews();
        m_current = nullptr;
        m_latest.store(nullptr, std::memory_order_release);
        m_plans.clear();
        m_effect.reset();
        LogInfo("AudioPipeline: stopped after %llu blocks, %llu dropped, %llu under-runs of the virtual microphone, "
                "%llu of the listen-in device",
                static_cast<unsigned long long>(m_blocks.load()),
                static_cast<unsigned long long>(m_outputDropped.load()),
                static_cast<unsigned long long>(m_underruns.load()),
                static_cast<unsigned long long>(m_monitorUnderruns.load()));
    }

    // News of gaps (under-runs of either device, blocks dropped behind a stall) at most every
    // few seconds, so a struggling machine does not also fill the log; `now` reports whatever
    // is new at once.
    void LogGaps(bool now)
    {
        struct Gap {
            const std::atomic<uint64_t>& count;
            uint64_t& logged;
            const char* what;
        };
        const Gap gaps[] = {
            {m_underruns, m_loggedUnderruns, "the virtual microphone ran out of data"},
            {m_monitorUnderruns, m_loggedMonitorUnderruns, "the listen-in device ran out of data"},
            {m_outputDropped, m_loggedDropped, "a block was dropped to catch up after a stall"},
        };
        const bool news = std::any_of(std::begin(gaps), std::end(gaps), [](const Gap& gap) {
            return gap.count.load(std::memory_order_relaxed) != gap.logged;
        });
        const int64_t time = NowNs();
        if (!news || (!now && time < m_nextGapLogNs))
            return;
        for (const Gap& gap : gaps) {
            const uint64_t count = gap.count.load(std::memory_order_relaxed);
            if (count == gap.logged)
                continue;
            LogWarning("AudioPipeline: %s %llu times (%llu since the last report)", gap.what,
                       static_cast<unsigned long long>(count), static_cast<unsigned long long>(count - gap.logged));
            gap.logged = count;
        }
        m_nextGapLogNs = time + kGapLogEveryNs;
    }

    int64_t Tick() const
    {
        // While idle the check for a recording program paces the loop: one block at most. A
        // backend that counts recorders itself needs no asking; the audio thread reads it.
        if (m_session && !m_session->recorders && m_idle.load(std::memory_order_relaxed))
            return int64_t{m_session->devices.blockMs} * 1'000'000;
        // Otherwise, paused, there is nothing to pass on: an idle service wakes seldom.
        if (m_session && m_idle.load(std::memory_order_relaxed))
            return kIdleTickNs;
        return kActiveTickNs;
    }

    void TakeState(std::shared_ptr<const ServiceState> state)
    {
        const bool reloaded = !m_state || m_state->settings != state->settings;
        m_state = std::move(state);
        if (reloaded) {
            // A reload is the user's way to retry what failed.
            m_failedSounds.clear();
            m_failedEffectKey.clear();
        }
        if (m_session && DeviceSettingsOf(*m_state) != m_session->devices) {
            LogInfo("AudioPipeline: device settings changed, opening the devices again");
            CloseSession();
            m_nextAttemptNs = 0;
        }
        BuildPlan();
    }

    std::shared_ptr<const PipelineSound> Sound(const std::string& path, bool report)
    {
        if (auto found = m_sounds.find(path); found != m_sounds.end())
            return found->second;
        if (m_failedSounds.count(path) != 0)
            return nullptr;
        std::string error;
        auto sound = LoadPipelineSound(path, error);
        if (!sound) {
            m_failedSounds.insert(path);
            LogError("AudioPipeline: %s", error.c_str());
            if (report)
                Report(error);
            return nullptr;
        }
        m_sounds.emplace(path, sound);
        return sound;
    }

    std::shared_ptr<EffectInstance> Effect(const ServiceState& state)
    {
        if (state.activeEffect < 0 || state.activeEffect >= kEffectSlots || !state.settings)
            return nullptr;
        const std::string& name = state.effectSlots[static_cast<size_t>(state.activeEffect)];
        if (name.empty())
            return nullptr;
        const int index = state.settings->FindEffect(name);
        const VoiceEffect* definition = index >= 0 ? &state.settings->m_effects[static_cast<size_t>(index)] : nullptr;
        if (definition == nullptr || definition->m_plugin.empty()) {
            const std::string key = "undefined:" + name;
            if (m_failedEffectKey != key) {
                m_failedEffectKey = key;
                const std::string text = ServiceTextWith(212, name);
                LogError("AudioPipeline: %s", text.c_str());
                Report(text);
            }
            return nullptr;
        }
        const std::string path = LibPluginPath(definition->m_plugin);
        std::string key = path;
        for (const ParamValue& value : definition->m_values)
            key += " " + std::to_string(value.m_value);
        if (m_effect && m_effect->key == key && !m_effect->faultReported)
            return m_effect;
        if (m_failedEffectKey == key)
            return nullptr;

        auto effect = std::make_shared<EffectInstance>();
        effect->name = name;
        effect->key = key;
        const MoVstErrorNum result = effect->host.SafeLoad(path, false, nullptr);
        if (result != kVstSuccess) {
            m_failedEffectKey = key;
            const std::string text = ServiceText(153) + ": " + path + "\nError string: " + ServiceVstErrorText(result);
            LogError("AudioPipeline: voice effect \"%s\": %s", name.c_str(), text.c_str());
            Report(text);
            return nullptr;
        }
        effect->host.SetParams(definition->m_values);
        effect->host.SetProcessingEnabled(true);
        if (!effect->host.IsLoaded()) {
            // It faulted while taking its values.
            m_failedEffectKey = key;
            Report(CrashText(*effect, path));
            return nullptr;
        }
        const int delay = effect->host.InitialDelay();
        LogInfo("AudioPipeline: voice effect \"%s\" loaded from \"%s\", delay %d samples (%.1f ms)", name.c_str(),
                path.c_str(), delay, delay * 1000.0 / MoAudioEffect::kSampleRate);
        m_effect = effect;
        return effect;
    }

    static std::string CrashText(const EffectInstance& effect, const std::string& path)
    {
        return ServiceText(153) + ": " + path + "\nError string: the plug-in of voice effect \"" + effect.name +
               "\" crashed and was unloaded; the voice passes unchanged.";
    }

    void BuildPlan()
    {
        const ServiceState& state = *m_state;
        auto plan = std::make_unique<MixPlan>();
        plan->generation = ++m_generation;
        plan->effect = Effect(state);
        if (!plan->effect)
            m_effect.reset();

        if (state.activeBackSound >= 0 && state.activeBackSound < kBackSoundSlots) {
            const BackSoundSlot& slot = state.backSounds[static_cast<size_t>(state.activeBackSound)];
            if (!slot.file.empty()) {
                plan->background = Sound(LibBackSoundPath(slot.file), true);
                plan->backgroundGain = static_cast<float>(std::clamp(slot.volume, 0, 100)) * 0.01f;
            }
        }

        std::vector<EndedFunSound> unplayable;
        plan->funSounds.resize(state.funSounds.size());
        for (size_t i = 0; i < state.funSounds.size(); ++i) {
            const FunSoundSlot& slot = state.funSounds[i];
            MixPlan::FunSound& sound = plan->funSounds[i];
            sound.playing = slot.playing;
            sound.starts = slot.starts;
            // Fun sounds are read when first played and kept while their slot holds them.
            if (!slot.file.empty() && (slot.playing || m_sounds.count(LibFunSoundPath(slot.file)) != 0))
                sound.sound = Sound(LibFunSoundPath(slot.file), slot.playing);
            if (slot.playing && !sound.sound)
                unplayable.push_back({static_cast<uint32_t>(i), slot.starts});
        }
        plan->voices.resize(plan->funSounds.size());

        const int listen = state.settings ? state.settings->m_listen : 0;
        plan->monitor = state.monitorOn && (listen == 0 || state.activeEffect >= 0);
        plan->monitorVolume = static_cast<uint8_t>(std::clamp(state.monitorVol, 0, 100));
        if (state.settings) {
            const Config& settings = *state.settings;
            plan->voice = VoiceCleaner::Clamped({settings.m_noiseSuppression, settings.m_noiseStrength,
                                                 settings.m_gate, settings.m_gateThreshold});
        }
        if (!m_loggedVoice || !(*m_loggedVoice == plan->voice)) {
            LogVoiceCleanup(plan->voice);
            m_loggedVoice = plan->voice;
        }

        ForgetUnusedSounds(*plan);
        MixPlan* published = plan.get();
        m_plans.push_back(std::move(plan));
        m_latest.store(published, std::memory_order_release);
        if (!m_session)
            AdoptWithoutAudio();
        // A sound that cannot be read ends at once, so the panel does not show it playing.
        for (const EndedFunSound& ended : unplayable)
            Notify(ended);
    }

    static void LogVoiceCleanup(const VoiceCleanup& voice)
    {
        const std::string noise = voice.noiseSuppression ? "on, up to " + std::to_string(voice.noiseStrengthDb) + " dB" : "off";
        const std::string gate = voice.gate ? "opens at " + std::to_string(voice.gateThresholdDb) + " dBFS" : "off";
        LogInfo("AudioPipeline: noise suppression %s; noise gate %s", noise.c_str(), gate.c_str());
    }

    void ForgetUnusedSounds(const MixPlan& plan)
    {
        std::set<const PipelineSound*> used;
        if (plan.background)
            used.insert(plan.background.get());
        for (const MixPlan::FunSound& sound : plan.funSounds)
            used.insert(sound.sound.get());
        std::erase_if(m_sounds, [&used](const auto& entry) { return used.count(entry.second.get()) == 0; });
    }

    // Without devices nothing plays: the newest plan is taken over here, and what would play
    // ends at once.
    void AdoptWithoutAudio()
    {
        MixPlan* plan = AdoptLatestRT();
        if (plan == nullptr)
            return;
        for (size_t i = 0; i < plan->voices.size(); ++i) {
            if (plan->voices[i].active) {
                plan->voices[i].active = false;
                Notify({static_cast<uint32_t>(i), plan->funSounds[i].starts});
            }
        }
    }

    void ReapPlans()
    {
        const uint64_t inUse = m_inUse.load(std::memory_order_acquire);
        while (m_plans.size() > 1 && m_plans.front()->generation < inUse)
            m_plans.pop_front();
    }

    void Report(const std::string& text)
    {
        if (m_events.error)
            m_events.error(text);
    }

    void Notify(const EndedFunSound& ended)
    {
        if (m_events.funSoundEnded)
            m_events.funSoundEnded(ended.slot, ended.starts);
    }

    void DrainAudioNews()
    {
        while (const TraceBlock* block = m_trace->Front()) {
            if (m_events.trace)
                m_events.trace(block->samples, block->count);
            m_trace->Pop();
        }
        while (const EndedFunSound* ended = m_ended->Front()) {
            const EndedFunSound copy = *ended;
            m_ended->Pop();
            Notify(copy);
        }
    }

    void CheckEffectFault()
    {
        std::shared_ptr<EffectInstance> effect = m_effect;
        if (!effect || effect->faultReported || effect->host.IsLoaded())
            return;
        effect->faultReported = true;
        const std::string path = effect->host.ModulePath();
        // Logs the fault and drops the plug-in; the audio thread has stopped calling it.
        effect->host.SetProcessingEnabled(false);
        m_failedEffectKey = effect->key;
        Report(CrashText(*effect, path));
    }

    // --- devices ----------------------------------------------------------------------------

    void ManageSession()
    {
        if (!m_state)
            return;
        const int64_t now = NowNs();
        if (m_session) {
            const int64_t lastInput = m_session->lastInputNs.load(std::memory_order_acquire);
            const int64_t stall = lastInput == m_session->openedNs
                                      ? kFirstInputStallNs
                                      : std::max<int64_t>(kMinStallNs, int64_t{m_session->devices.blockMs} * 10'000'000);
            const bool lost = m_session->lost.load(std::memory_order_acquire);
            if (!lost && now - lastInput < stall)
                return;
            LogError("AudioPipeline: the sound devices stopped (%s); the service goes on and reconnects",
                     lost ? "a device went away" : "no recorded data arrives");
            CloseSession();
            m_outage = true;
            m_nextAttemptNs = now;
        }
        if (now < m_nextAttemptNs)
            return;
        m_nextAttemptNs = now + int64_t{m_options.reconnectMs} * 1'000'000;
        if (OpenSession(DeviceSettingsOf(*m_state)) && m_outage) {
            m_outage = false;
            LogInfo("AudioPipeline: the sound devices are back");
        }
    }

    // Logs a failure to open once per outage, not on every retry.
    void OpenFailure(const std::string& text)
    {
        if (text != m_lastOpenFailure)
            LogError("AudioPipeline: %s", text.c_str());
        m_lastOpenFailure = text;
        m_outage = true;
    }

    int ResolveInput(AudioBackend& backend, const std::string& name)
    {
        const std::vector<std::string> names = backend.WaveDeviceNames(WaveDirection::Capture);
        if (!name.empty()) {
            int device = kNoDevice;
            if (PaGetDevNByName(name, 1, device) == kMmeSuccess && device >= 0 &&
                static_cast<size_t>(device) < names.size() && !IsVirtualMicName(names[static_cast<size_t>(device)]))
                return device;
            LogWarning("AudioPipeline: recording device \"%s\" not found; the default recording device is used",
                       name.c_str());
        }
        // Recording our own output would feed the voice back into itself.
        const int preferred = backend.PreferredWaveDevice(WaveDirection::Capture);
        if (preferred < 0 || static_cast<size_t>(preferred) >= names.size() ||
            !IsVirtualMicName(names[static_cast<size_t>(preferred)]))
            return -1;
        // The first microphone or line then; a monitor only where there is nothing else, since
        // it hears speakers, not a voice.
        int monitor = kNoDevice;
        for (size_t i = 0; i < names.size(); ++i) {
            if (IsVirtualMicName(names[i]))
                continue;
            if (!backend.IsMonitorDevice(static_cast<int>(i))) {
                LogInfo("AudioPipeline: the default recording device is the virtual microphone itself; "
                        "recording from \"%s\" instead", names[i].c_str());
                return static_cast<int>(i);
            }
            if (monitor == kNoDevice)
                monitor = static_cast<int>(i);
        }
        return monitor;
    }

    int ResolveMonitor(AudioBackend& backend, const std::string& name)
    {
        const std::vector<std::string> names = backend.WaveDeviceNames(WaveDirection::Render);
        if (!name.empty()) {
            int device = kNoDevice;
            if (PaGetDevNByName(name, 2, device) == kMmeSuccess && device >= 0 &&
                static_cast<size_t>(device) < names.size() && !IsVirtualMicName(names[static_cast<size_t>(device)]))
                return device;
            LogWarning("AudioPipeline: monitor device \"%s\" not found; the default playback device is used",
                       name.c_str());
        }
        const int preferred = backend.PreferredWaveDevice(WaveDirection::Render);
        if (preferred >= 0 && static_cast<size_t>(preferred) < names.size() &&
            IsVirtualMicName(names[static_cast<size_t>(preferred)]))
            return kNoDevice;
        return -1;
    }

    bool OpenSession(const DeviceSettings& devices)
    {
        std::shared_ptr<AudioBackend> backend = CurrentAudioBackend();
        std::string why;
        if (!backend->EnsureVirtualMicrophone(why)) {
            OpenFailure("the virtual microphone \"" + std::string(kVirtualDeviceName) + "\" cannot be made: " + why);
            return false;
        }
        int output = kNoDevice;
        if (PaGetDevNByName(std::string(kVirtualDeviceName), 2, output) != kMmeSuccess || output < 0) {
            OpenFailure("the virtual microphone is not among the playback devices");
            return false;
        }
        const int input = ResolveInput(*backend, devices.input);
        if (input == kNoDevice) {
            OpenFailure("there is no recording device other than the virtual microphone");
            return false;
        }
        const int monitor = ResolveMonitor(*backend, devices.monitor);

        auto session = std::make_unique<Session>();
        session->devices = devices;
        session->blockSamples = VoiceCleaner::BlockFor(devices.blockMs, kSampleRate);
        session->graceBlocks = std::max<uint32_t>(2, (kResumeGraceMs + devices.blockMs - 1) / devices.blockMs);
        session->maxStretch = std::max<uint32_t>(1, session->blockSamples / kStretchDivisor);
        session->queue = ThreadMessageQueue::Create();
        const uint32_t bytes = session->blockSamples * 2;
        const StreamFormat format = MonoPcmFormat(kSampleRate, 16);

        unsigned result = backend->OpenWaveIn(input, format, {bytes, devices.inCount}, session->queue->Id(), session->in);
        if (result != kMmOk) {
            OpenFailure("the recording device cannot be opened (error " + std::to_string(result) + ")");
            session->queue->Unregister();
            return false;
        }
        // The device holds the newest block and a little lead, whatever the buffer counts allow:
        // they bound the queue, and filling it would only delay the voice.
        const WaveBufferShape outShape{bytes, 1, kOutputLeadMs * kSampleRate / 1000 * 2};
        result = backend->OpenWaveOut(output, format, outShape, session->queue->Id(), session->out);
        if (result != kMmOk) {
            OpenFailure("the virtual microphone cannot be opened for playing (error " + std::to_string(result) + ")");
            session->in.reset();
            session->queue->Unregister();
            return false;
        }
        if (monitor != kNoDevice) {
            result = backend->OpenWaveOut(monitor, format, outShape, session->queue->Id(), session->monitor);
            if (result != kMmOk) {
                LogWarning("AudioPipeline: the monitor device cannot be opened (error %u); listen-in stays silent",
                           result);
                session->monitor.reset();
            }
        }

        session->inPool.Allocate(devices.inCount, session->blockSamples);
        const uint32_t outSamples = session->blockSamples + session->maxStretch;
        session->outPool.Allocate(devices.outCount, outSamples);
        session->monPool.Allocate(session->monitor ? devices.monCount : 0, outSamples);
        session->work.assign(session->blockSamples, 0);
        session->cleaner = std::make_unique<VoiceCleaner>(session->blockSamples, kSampleRate);
        LogInfo("AudioPipeline: the microphone is cleaned in frames of %u samples "
                "(%.1f ms of delay while noise suppression is on)",
                session->cleaner->LatencySamples(),
                session->cleaner->LatencySamples() * 1000.0 / kSampleRate);
        for (uint32_t i = 0; i < session->inPool.count; ++i)
            session->in->PrepareHeader(session->inPool.headers[i]);
        for (uint32_t i = 0; i < session->outPool.count; ++i)
            session->out->PrepareHeader(session->outPool.headers[i]);
        for (uint32_t i = 0; i < session->monPool.count; ++i)
            session->monitor->PrepareHeader(session->monPool.headers[i]);
        for (uint32_t i = 0; i < session->inPool.count; ++i) {
            if (session->in->AddBuffer(session->inPool.headers[i]) != kMmOk) {
                OpenFailure("the recording device refused its buffers");
                ShutDevices(*session);
                return false;
            }
        }

        if (m_options.idleWhenUnused)
            session->recorders = backend->WatchVirtualMicrophone();
        session->openedNs = NowNs();
        session->lastInputNs.store(session->openedNs);
        Session* raw = session.get();
        m_session = std::move(session);
        std::promise<pid_t> audioThreadId;
        m_session->audio = std::thread([this, raw, &audioThreadId] {
            audioThreadId.set_value(static_cast<pid_t>(CurrentThreadId()));
            AudioThread(*raw);
        });
        RaisePriority(audioThreadId.get_future().get());
        result = m_session->in->Start();
        if (result != kMmOk) {
            OpenFailure("the recording device does not start (error " + std::to_string(result) + ")");
            CloseSession();
            return false;
        }
        m_lastOpenFailure.clear();
        m_sessions.fetch_add(1, std::memory_order_relaxed);
        m_runningBlock.store(m_session->blockSamples, std::memory_order_relaxed);
        m_inUsePollNs = 0;
        LogInfo("AudioPipeline: recording device %d, virtual microphone %d, monitor %d, blocks of %u ms (%u samples), "
                "%u/%u/%u buffers",
                input, output, monitor, devices.blockMs, m_session->blockSamples, devices.inCount, devices.outCount,
                m_session->monPool.count);
        return true;
    }

    // The audio thread runs the voice through the effects, and the backend's stream thread
    // hands every block to it and on to the sound server: both must win against a busy
    // desktop, or a block comes late and the virtual microphone runs dry.
    static void RaisePriority(pid_t audioThread)
    {
        const RealtimeResult raised = MakeThreadRealtime(audioThread, AudioThreadRealtimePriority());
        if (!raised.ok) {
            LogWarning("AudioPipeline: no real-time priority for the audio thread: %s; the voice may break up on a "
                       "busy machine",
                       raised.error.c_str());
            return;
        }
        LogInfo("AudioPipeline: the audio thread runs at real-time priority %d%s", raised.priority,
                raised.throughRtkit ? ", granted by RealtimeKit" : "");
        const unsigned streamThread = CurrentAudioBackend()->StreamThreadId();
        if (streamThread == 0)
            return;
        const RealtimeResult stream = MakeThreadRealtime(static_cast<pid_t>(streamThread), raised.priority);
        if (stream.ok)
            LogInfo("AudioPipeline: the sound server's stream thread runs at real-time priority %d", stream.priority);
        else
            LogWarning("AudioPipeline: no real-time priority for the sound server's stream thread: %s",
                       stream.error.c_str());
    }

    static void ShutDevices(Session& session)
    {
        if (session.in) {
            session.in->Reset();
            session.in->Close();
        }
        for (WaveOutDevice* out : {session.out.get(), session.monitor.get()}) {
            if (out != nullptr) {
                out->Reset();
                out->Close();
            }
        }
        session.in.reset();
        session.out.reset();
        session.monitor.reset();
        session.queue->Unregister();
    }

    void CloseSession()
    {
        if (!m_session)
            return;
        if (m_session->audio.joinable()) {
            m_session->queue->Post(kMsgQuit, nullptr);
            m_session->audio.join();
        }
        LogClockMatch(*m_session);
        ShutDevices(*m_session);
        m_session.reset();
        LogGaps(true);
        m_runningBlock.store(0, std::memory_order_relaxed);
        m_idle.store(false, std::memory_order_relaxed);
        m_loggedIdle = false;
        m_hintedIdle = false;
        AdoptWithoutAudio();
    }

    // How far the virtual microphone's clock was from the recording's: on a machine where they
    // differ, the samples added or left out show it.
    static void LogClockMatch(const Session& session)
    {
        if (session.outWritten == 0 || session.outCorrected == 0)
            return;
        LogInfo("AudioPipeline: %lld samples %s in %llu to keep pace with the virtual microphone's clock (%+.0f ppm)",
                static_cast<long long>(std::llabs(session.outCorrected)),
                session.outCorrected > 0 ? "added" : "left out",
                static_cast<unsigned long long>(session.outWritten),
                1e6 * static_cast<double>(session.outCorrected) / static_cast<double>(session.outWritten));
    }

    void ManageIdle()
    {
        if (!m_session || !m_options.idleWhenUnused) {
            m_idle.store(false, std::memory_order_relaxed);
            return;
        }
        const MixPlan* plan = m_latest.load(std::memory_order_acquire);
        const bool listening = plan != nullptr && plan->monitor && m_session->monitor;
        const bool idle = m_idle.load(std::memory_order_relaxed);
        const int64_t now = NowNs();
        if (m_session->recorders) {
            // The audio thread decides from the backend's count; only the news is logged here.
            const bool audioIdle = m_idle.load(std::memory_order_relaxed);
            if (audioIdle != m_loggedIdle) {
                m_loggedIdle = audioIdle;
                LogIdle(audioIdle);
            }
            return;
        }
        if (listening) {
            SetIdle(false);
            return;
        }
        // Idle, the question is asked every block so that recording resumes within one.
        if (!idle && now < m_inUsePollNs)
            return;
        m_inUsePollNs = now + kInUsePollActiveNs;
        bool inUse = true;
        if (!CurrentAudioBackend()->VirtualMicrophoneInUse(inUse))
            inUse = true;
        SetIdle(!inUse);
    }

    // Paused, the recording need not wake the audio thread as often.
    void HintRecording()
    {
        if (!m_session || !m_session->in)
            return;
        const bool idle = m_idle.load(std::memory_order_relaxed);
        if (idle == m_hintedIdle)
            return;
        m_hintedIdle = idle;
        m_session->in->SetIdle(idle);
    }

    void SetIdle(bool idle)
    {
        if (m_idle.exchange(idle, std::memory_order_relaxed) != idle)
            LogIdle(idle);
        m_loggedIdle = idle;
    }

    static void LogIdle(bool idle)
    {
        LogInfo(idle ? "AudioPipeline: nobody records from the virtual microphone; processing pauses"
                     : "AudioPipeline: processing resumes");
    }

    // --- audio thread -----------------------------------------------------------------------

    void AudioThread(Session& session)
    {
        CrashGuard::PrepareThread();
        for (;;) {
            const ThreadMessage message = session.queue->Wait();
            if (message.message == kMsgQuit)
                return;
            if (message.message != kMsgWaveInData || message.param == nullptr)
                continue;
            auto* header = static_cast<WaveHeader*>(message.param);
            ProcessBlockRT(session, *header);
            if (session.in->AddBuffer(*header) != kMmOk)
                session.lost.store(true, std::memory_order_release);
        }
    }

    // Takes over the newest plan when one is waiting. RT call (and the control thread's while
    // no audio thread runs).
    MixPlan* AdoptLatestRT() noexcept
    {
        MixPlan* latest = m_latest.load(std::memory_order_acquire);
        if (latest != m_current) {
            if (latest != nullptr)
                TakeOverPlanRT(*latest, m_current);
            m_current = latest;
            m_inUse.store(latest != nullptr ? latest->generation : 0, std::memory_order_release);
        }
        return m_current;
    }

    void ProcessBlockRT(Session& session, const WaveHeader& header) noexcept
    {
        session.lastInputNs.store(NowNs(), std::memory_order_release);
        m_blocks.fetch_add(1, std::memory_order_relaxed);
        MixPlan* plan = AdoptLatestRT();
        const uint32_t count = std::min(header.bytesRecorded / 2, session.blockSamples);
        if (count == 0)
            return;
        int16_t* samples = session.work.data();
        std::memcpy(samples, header.data, size_t{count} * 2);

        const bool idle = IdleRT(session, plan);
        const bool listening = !idle && plan != nullptr && plan->monitor && session.monitor;
        CountUnderrunsRT(*session.out, session.outWatch, !idle, session.graceBlocks, m_underruns);
        if (session.monitor)
            CountUnderrunsRT(*session.monitor, session.monitorWatch, listening, session.graceBlocks, m_monitorUnderruns);
        if (idle) {
            if (plan != nullptr)
                MixSoundsRT(*plan, samples, count, false, *m_ended);
            return;
        }
        if (plan != nullptr) {
            session.cleaner->ProcessRT(samples, count, plan->voice);
            ProcessEffectRT(*plan, samples, count);
            MixSoundsRT(*plan, samples, count, true, *m_ended);
        }
        const uint32_t written = WriteRT(*session.out, session.outPool, session.outCorrected, session.maxStretch,
                                         samples, count, nullptr);
        if (written == kDeviceGone)
            session.lost.store(true, std::memory_order_release);
        else
            session.outWritten += written;
        if (listening)
            WriteRT(*session.monitor, session.monPool, session.monitorCorrected, session.maxStretch, samples, count,
                    plan);

        if (TraceBlock* block = m_trace->BeginPush()) {
            block->count = count;
            std::memcpy(block->samples, samples, size_t{count} * 2);
            m_trace->CommitPush();
        } else {
            m_traceDropped.fetch_add(1, std::memory_order_relaxed);
        }
    }

    // With a backend that counts recorders the decision is taken per block, so processing
    // resumes with the first block after a program started recording. RT call.
    bool IdleRT(const Session& session, const MixPlan* plan) noexcept
    {
        if (!session.recorders)
            return m_idle.load(std::memory_order_relaxed);
        const bool listening = plan != nullptr && plan->monitor && session.monitor;
        // An unknown count (the server is away) keeps the voice flowing.
        const bool idle = !listening && session.recorders->load(std::memory_order_acquire) == 0;
        m_idle.store(idle, std::memory_order_relaxed);
        return idle;
    }

    // Counts an output device's under-runs, leaving out those of not feeding it: a paused
    // pipeline, or listen-in switched off, lets the device run dry on purpose, and the sound
    // server may tell so a little after feeding started again. RT call.
    static void CountUnderrunsRT(const WaveOutDevice& device, UnderrunWatch& watch, bool fed, uint32_t graceBlocks,
                                 std::atomic<uint64_t>& total) noexcept
    {
        if (!fed)
            watch.fedBlocks = 0;
        else if (watch.fedBlocks <= graceBlocks)
            ++watch.fedBlocks;
        const uint64_t seen = device.Underruns();
        if (seen == watch.seen)
            return;
        if (watch.fedBlocks > graceBlocks)
            total.fetch_add(seen - watch.seen, std::memory_order_relaxed);
        watch.seen = seen;
    }

    // Queues one block, a sample or a few longer or shorter where the device's clock asks
    // for it (`corrected` keeps count); `scale` gives the listen-in volume. Returns the samples
    // queued, or kDeviceGone. RT call.
    uint32_t WriteRT(WaveOutDevice& device, BufferPool& pool, int64_t& corrected, uint32_t maxStretch,
                     const int16_t* samples, uint32_t count, const MixPlan* scale) noexcept
    {
        WaveHeader* header = pool.TakeRT(kMaxOutputQueued);
        if (header == nullptr) {
            if (scale == nullptr)
                m_outputDropped.fetch_add(1, std::memory_order_relaxed);
            return 0;
        }
        auto* out = reinterpret_cast<int16_t*>(header->data);
        const int64_t owed = device.ClockCorrectionFrames() - corrected;
        const auto stretch = static_cast<int32_t>(
            std::clamp<int64_t>(owed, -static_cast<int64_t>(std::min(maxStretch, count - 1)), maxStretch));
        const uint32_t length = count + stretch;
        if (stretch == 0)
            std::memcpy(out, samples, size_t{count} * 2);
        else
            StretchSamples(samples, count, out, length);
        corrected += stretch;
        header->bufferLength = length * 2;
        if (scale != nullptr)
            ScaleMonitorRT(out, length, scale->monitorVolume);
        return device.Write(*header) == kMmNoDriver ? kDeviceGone : length;
    }

    Options m_options;
    Events m_events;

    std::mutex m_mutex;
    std::condition_variable m_wake;
    bool m_quit = false;
    std::shared_ptr<const ServiceState> m_pending;
    // How many states were handed over, and how many of them the control thread has acted on.
    uint64_t m_published = 0;
    uint64_t m_applied = 0;
    std::condition_variable m_appliedWake;
    std::thread m_thread;

    // Control thread.
    std::shared_ptr<const ServiceState> m_state;
    std::unique_ptr<Session> m_session;
    std::deque<std::unique_ptr<MixPlan>> m_plans;
    uint64_t m_generation = 0;
    std::shared_ptr<EffectInstance> m_effect;
    std::string m_failedEffectKey;
    std::map<std::string, std::shared_ptr<const PipelineSound>> m_sounds;
    std::set<std::string> m_failedSounds;
    int64_t m_nextAttemptNs = 0;
    int64_t m_inUsePollNs = 0;
    bool m_outage = false;
    bool m_loggedIdle = false;
    std::optional<VoiceCleanup> m_loggedVoice;
    bool m_hintedIdle = false; // what the recording device was last told
    std::string m_lastOpenFailure;
    uint64_t m_loggedUnderruns = 0;
    uint64_t m_loggedMonitorUnderruns = 0;
    uint64_t m_loggedDropped = 0;
    int64_t m_nextGapLogNs = 0;

    // Between the threads.
    std::atomic<MixPlan*> m_latest{nullptr};
    std::atomic<uint64_t> m_inUse{0};
    std::atomic<bool> m_idle{false};
    std::unique_ptr<TraceRing> m_trace;
    std::unique_ptr<EndedFunSoundRing> m_ended;
    std::atomic<uint64_t> m_blocks{0};
    std::atomic<uint64_t> m_outputDropped{0};
    std::atomic<uint64_t> m_traceDropped{0};
    std::atomic<uint64_t> m_underruns{0};
    std::atomic<uint64_t> m_monitorUnderruns{0};
    std::atomic<uint64_t> m_sessions{0};
    std::atomic<uint32_t> m_runningBlock{0};

    // The audio thread's, or the control thread's while no audio thread runs.
    MixPlan* m_current = nullptr;
};

AudioPipeline::AudioPipeline(Options options, Events events)
    : m_control(std::make_unique<Control>(options, std::move(events)))
{
}

AudioPipeline::~AudioPipeline()
{
    Stop();
}

void AudioPipeline::Apply(std::shared_ptr<const ServiceState> state)
{
    Control& control = *m_control;
    std::lock_guard lock(control.m_mutex);
    if (control.m_quit)
        return;
    control.m_pending = std::move(state);
    ++control.m_published;
    if (!control.m_thread.joinable())
        control.m_thread = std::thread([&control] { control.Run(); });
    control.m_wake.notify_one();
}

bool AudioPipeline::WaitApplied(uint32_t timeoutMs)
{
    Control& control = *m_control;
    std::unique_lock lock(control.m_mutex);
    return control.m_appliedWake.wait_for(lock, std::chrono::milliseconds(timeoutMs), [&control] {
        return control.m_quit || control.m_applied >= control.m_published;
    });
}

void AudioPipeline::Stop()
{
    Control& control = *m_control;
    {
        std::lock_guard lock(control.m_mutex);
        control.m_quit = true;
        control.m_wake.notify_one();
        control.m_appliedWake.notify_all();
    }
    if (control.m_thread.joinable())
        control.m_thread.join();
}

AudioPipeline::Stats AudioPipeline::GetStats() const
{
    const Control& control = *m_control;
    Stats stats;
    stats.blocks = control.m_blocks.load(std::memory_order_relaxed);
    stats.outputDropped = control.m_outputDropped.load(std::memory_order_relaxed);
    stats.traceDropped = control.m_traceDropped.load(std::memory_order_relaxed);
    stats.underruns = control.m_underruns.load(std::memory_order_relaxed);
    stats.monitorUnderruns = control.m_monitorUnderruns.load(std::memory_order_relaxed);
    stats.sessions = control.m_sessions.load(std::memory_order_relaxed);
    stats.idle = control.m_idle.load(std::memory_order_relaxed);
    stats.blockSamples = control.m_runningBlock.load(std::memory_order_relaxed);
    stats.running = stats.blockSamples != 0;
    return stats;
}

} // namespace larimo
