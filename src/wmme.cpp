// SPDX-License-Identifier: GPL-3.0-or-later
#include "wmme.h"

#include "platform/Realtime.h"

#include "SelectDefSound/SoundDevices.h"
#include "error.h"
#include "exception.h"
#include "mlog.h"
#include "platform/CrashGuard.h"
#include "texts.h"
#include "wintools.h"

#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <functional>
#include <new>
#include <system_error>
#include <thread>

namespace larimo {

namespace {

// Bound on the close paths' wait for buffers the engine has not taken back yet.
constexpr auto kCloseWaitLimit = std::chrono::milliseconds(2000);
constexpr auto kClosePollStep = std::chrono::milliseconds(5);
constexpr int kCloseAttempts = 20;

// Thrown on the engine thread to end the dispatch the way a hardware fault would.
struct RaisedException {
    uint32_t code;
};

thread_local bool t_onEngineThread = false;

// Real-time scheduling when the system allows it, otherwise the best nice value it grants.
void RaiseThreadPriority()
{
    // Like the voice service's audio thread: below the sound server's threads, which would
    // otherwise wait for a preview's engine.
    sched_param param{};
    const int highest = AudioThreadRealtimePriority();
    param.sched_priority = highest;
    if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0)
        return;
    rlimit limit{};
    if (getrlimit(RLIMIT_RTPRIO, &limit) == 0 && limit.rlim_cur > 0) {
        param.sched_priority = static_cast<int>(std::min<rlim_t>(limit.rlim_cur, static_cast<rlim_t>(highest)));
        if (pthread_setschedparam(pthread_self(), SCHED_FIFO, &param) == 0)
            return;
    }
    for (int niceValue = -20; niceValue < 0; niceValue += 5) {
        if (setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), niceValue) == 0)
            return;
    }
}

} // namespace

const std::string& MmeErrorText(unsigned error)
{
    if (error <= kMmeIoError)
        return GetText(120 + error);
    switch (error) {
    case kMmeBadParameter:
        return GetText(140);
    case kMmeDeviceNotFound:
        return GetText(133);
    default:
        return GetText(141);
    }
}

// ---------------------------------------------------------------------------------------------
// PortAudio

struct PortAudio::Engine {
    std::shared_ptr<ThreadMessageQueue> queue;
    std::thread thread;
    std::mutex mutex;
    std::condition_variable ended;
    bool finished = false;
};

PortAudio::PortAudio() = default;

PortAudio::~PortAudio()
{
    if (m_engine) {
        StopEngine();
        if (m_engine && m_engine->thread.joinable()) {
            LogError("PortAudio: the engine thread did not end; it is left behind");
            m_engine->thread.detach();
        }
    }
}

bool PortAudio::EngineRunning() const
{
    return m_engine != nullptr;
}

ThreadMessageId PortAudio::ThreadId() const
{
    return m_engine ? m_engine->queue->Id() : 0;
}

unsigned PortAudio::StartEngine()
{
    LogEnter("PortAudio::StartEngine");
    if (m_engine && StopEngine() != kMmeSuccess && m_engine) {
        m_engine->thread.detach();
        m_engine.reset();
    }
    auto engine = std::make_shared<Engine>();
    engine->queue = ThreadMessageQueue::Create();
    unsigned result = kMmeSuccess;
    try {
        engine->thread = std::thread([this, engine] { ThreadProc(engine); });
        m_engine = std::move(engine);
    } catch (const std::system_error& error) {
        LogError("Start mme engine error: %d", error.code().value());
        result = kMmeThreadError;
    }
    LogLeaveResult("PortAudio::StartEngine", result);
    return result;
}

unsigned PortAudio::StopEngine()
{
    LogEnter("PortAudio::StopEngine");
    unsigned result = kMmeSuccess;
    if (m_engine) {
        LogInfo("send WM_QUIT");
        m_engine->queue->Post(kMsgQuit, nullptr);
        LogInfo("wait close thread ...");
        bool ended = false;
        {
            std::unique_lock lock(m_engine->mutex);
            ended = m_engine->ended.wait_for(lock, std::chrono::milliseconds(m_stopTimeoutMs),
                                             [this] { return m_engine->finished; });
        }
        if (!ended) {
            LogError("Stop mme engine error: Wait timeout expire");
            result = kMmeTimeout;
        } else {
            m_engine->thread.join();
            m_engine.reset();
        }
    }
    LogLeaveResult("PortAudio::StopEngine", result);
    return result;
}

void PortAudio::ThreadProc(const std::shared_ptr<Engine>& engine)
{
    t_onEngineThread = true;
    LogScopeInfo("PortAudio::ThreadProc", "Enter thread");
    RaiseThreadPriority();
    CrashGuard::Install();
    CrashGuard::PrepareThread();
    for (;;) {
        const ThreadMessage message = engine->queue->Wait();
        if (message.message == kMsgQuit)
            break;
        DispatchGuarded(message.message, static_cast<WaveHeader*>(message.param));
    }
    LogLeaveResult("PortAudio::ThreadProc", "Exit from thread");
    std::lock_guard lock(engine->mutex);
    engine->finished = true;
    engine->ended.notify_all();
}

void PortAudio::DispatchGuarded(unsigned message, WaveHeader* header)
{
    ExceptionRecord record;
    std::string text;
    bool ok = false;
    try {
        ok = CrashGuard::Run([&] { Dispatch(message, header); }, record);
        if (!ok)
            text = DescribeException(record);
    } catch (const RaisedException& raised) {
        ExceptionRecord raisedRecord;
        raisedRecord.code = raised.code;
        text = DescribeException(raisedRecord);
    } catch (const std::exception& error) {
        text = error.what();
    } catch (...) {
        text = "Unknown exception.";
    }
    if (ok)
        return;
    if (message == kMsgWaveOutDone) {
        LogException("Audio output exception. %s", text.c_str());
    } else if (message == kMsgWaveInData) {
        LogException("Audio input exception. %s", text.c_str());
    } else {
        const std::string number = std::to_string(message);
        LogException("Audio IO exception (msg==%s). %s", number.c_str(), text.c_str());
    }
    OnIoException(message);
    _exit(1);
}

void PortAudio::Dispatch(unsigned message, WaveHeader* header)
{
    if ((message != kMsgWaveOutDone && message != kMsgWaveInData) || header == nullptr)
        return;
    auto* record = reinterpret_cast<PaBuffer*>(header->user);
    if (record == nullptr || record->stream == nullptr)
        return;
    PaStream& stream = *record->stream;
    std::lock_guard lock(stream.m_lock);
    record->queued = 0;
    if (!stream.m_active)
        return;
    record->data = header->data;
    if (message == kMsgWaveOutDone) {
        OnOutputDone(*record);
        return;
    }
    record->validBytes = header->bytesRecorded;
    OnInputData(*record);
    // A callback that stopped the stream must not leave a buffer with the device, or Close
    // would wait for a buffer nobody returns.
    if (stream.m_active)
        static_cast<PaStreamIn&>(stream).QueueBuffer(record->index);
}

void PortAudio::OnInputData(PaBuffer /*buffer*/) {}
void PortAudio::OnOutputDone(PaBuffer /*buffer*/) {}
void PortAudio::OnIoException(unsigned /*message*/) {}

// ---------------------------------------------------------------------------------------------
// PaStream

PaStream::PaStream(uint32_t direction)
    : m_direction(direction)
{
}

PaStream::~PaStream() = default;

void PaStream::Activate()
{
    std::lock_guard lock(m_lock);
    m_active = true;
}

bool PaStream::IsActive()
{
    std::lock_guard lock(m_lock);
    return m_active;
}

bool PaStream::IsOpen()
{
    std::lock_guard lock(m_lock);
    return m_device != kNoDevice && m_buffers.headers != nullptr;
}

uint32_t PaStream::QueuedCount()
{
    std::lock_guard lock(m_lock);
    uint32_t queued = 0;
    for (const auto& record : m_buffers.records)
        queued += record->queued != 0 ? 1 : 0;
    return queued;
}

void PaStream::SetupFormat(int device, uint32_t bits, uint32_t rate, uint32_t bufferMs, uint32_t count)
{
    m_bufferCount = count;
    m_device = device;
    m_bitsPerSample = (bits + 7) & ~7U;
    m_bufferMs = bufferMs;
    m_samplesPerBuffer = static_cast<uint32_t>(static_cast<uint64_t>(bufferMs) * rate / 1000);
    const uint32_t bytesPerSample = m_bitsPerSample / 8;
    m_bufferSize = m_samplesPerBuffer * bytesPerSample;
    m_format = MonoPcmFormat(rate, static_cast<uint16_t>(m_bitsPerSample));
}

void PaStream::ClearFormat()
{
    m_device = kNoDevice;
    m_format = StreamFormat{};
    m_bitsPerSample = 0;
    m_bufferCount = 0;
    m_bufferSize = 0;
    m_bufferMs = 0;
    m_samplesPerBuffer = 0;
}

unsigned PaStream::AllocateBuffers()
{
    try {
        BufferSet set;
        set.headers = std::make_unique<WaveHeader[]>(m_bufferCount);
        set.count = m_bufferCount;
        for (uint32_t i = 0; i < m_bufferCount; ++i) {
            set.data.push_back(std::make_unique<char[]>(m_bufferSize));
            auto record = std::make_unique<PaBuffer>();
            record->direction = m_direction;
            record->stream = this;
            record->index = i;
            record->capacity = m_bufferSize;
            record->data = set.data.back().get();
            WaveHeader& header = set.headers[i];
            header.data = record->data;
            header.bufferLength = m_bufferSize;
            header.user = reinterpret_cast<uintptr_t>(record.get());
            set.records.push_back(std::move(record));
        }
        m_buffers = std::move(set);
    } catch (const std::bad_alloc&) {
        return kMmeNoMemory;
    } catch (const std::length_error&) {
        return kMmeNoMemory;
    }
    return kMmeSuccess;
}

bool PaStream::WaitForQueuedBuffers(const char* scope)
{
    const auto deadline = std::chrono::steady_clock::now() + kCloseWaitLimit;
    for (;;) {
        if (QueuedCount() == 0)
            return true;
        if (std::chrono::steady_clock::now() >= deadline)
            break;
        std::this_thread::sleep_for(kClosePollStep);
    }
    LogWarning("%s: %u buffers still queued after %lld ms; they are kept until the stream is destroyed",
               scope, QueuedCount(), static_cast<long long>(kCloseWaitLimit.count()));
    return false;
}

namespace {

// Shared by both directions of Open: the buffers and their preparation with the device.
template <typename Device>
unsigned PrepareAll(WaveHeader* headers, uint32_t count, Device& device, const char* call)
{
    for (uint32_t i = 0; i < count; ++i) {
        const unsigned code = device.PrepareHeader(headers[i]);
        if (code != kMmOk) {
            LogError("%s == %u", call, code);
            return kMmeBufferError;
        }
    }
    return kMmeSuccess;
}

} // namespace

// ---------------------------------------------------------------------------------------------
// PaStreamIn

PaStreamIn::PaStreamIn()
    : PaStream(0)
{
}

PaStreamIn::~PaStreamIn()
{
    Stop();
    Close();
}

unsigned PaStreamIn::Open(ThreadMessageId threadId, int device, uint32_t bitsPerSample, uint32_t sampleRate,
                          uint32_t bufferMs, uint32_t bufferCount)
{
    LogEnter("PaStreamIn::Open", "threadId=%d, nDev=%d, bitPerSample=%u, sampleRate=%u, sizeofBuferMs=%u, numberOfBufers=%u",
             static_cast<int>(threadId), device, bitsPerSample, sampleRate, bufferMs, bufferCount);
    Close();
    std::lock_guard lock(m_lock);
    SetupFormat(device, bitsPerSample, sampleRate, bufferMs, bufferCount);
    if (device == kNoDevice) {
        LogWarning("Sound card not defined");
        LogLeaveResult("PaStreamIn::Open", 0);
        return kMmeSuccess;
    }
    unsigned result = kMmeSuccess;
    if (threadId == 0) {
        LogError("Stream In: threadId == 0");
        result = kMmeOpenError;
    }
    if (result == kMmeSuccess) {
        m_backend = CurrentAudioBackend();
        const unsigned code = m_backend->OpenWaveIn(device, m_format, WaveBufferShape{m_bufferSize, m_bufferCount}, threadId, m_handle);
        if (code != kMmOk) {
            LogError("waveInOpen == %u", code);
            result = kMmeOpenError;
        }
    }
    if (result == kMmeSuccess)
        result = AllocateBuffers();
    if (result == kMmeSuccess)
        result = PrepareAll(m_buffers.headers.get(), m_buffers.count, *m_handle, "waveInPrepareHeader");
    if (result != kMmeSuccess) {
        LogError("Open input stream error: %s", MmeErrorText(result).c_str());
        Close();
    }
    LogLeaveResult("PaStreamIn::Open", result);
    return result;
}

bool PaStreamIn::QueueBuffer(uint32_t index)
{
    PaBuffer& record = Record(index);
    record.queued = 1;
    const unsigned code = m_handle->AddBuffer(m_buffers.headers[index]);
    if (code != kMmOk) {
        record.queued = 0;
        LogError("Add in buffer error: %u", code);
        return false;
    }
    return true;
}

unsigned PaStreamIn::Start()
{
    LogEnter("PaStreamIn::Start");
    unsigned result = kMmeSuccess;
    if (!m_handle) {
        LogError("hWaveIn == NULL");
        result = kMmeStreamNotFound;
    } else if (!m_buffers.headers) {
        LogError("inputBuffers == NULL");
        result = kMmeStartError;
    } else {
        bool ok = true;
        for (uint32_t i = 0; i < m_buffers.count && ok; ++i) {
            std::lock_guard lock(m_lock);
            if (!QueueBuffer(i)) {
                LogError("waveInAddBuffer error %u", i);
                ok = false;
            }
        }
        if (ok) {
            {
                std::lock_guard lock(m_lock);
                m_active = true;
            }
            const unsigned code = m_handle->Start();
            if (code != kMmOk) {
                LogError("waveInStart error %u", code);
                ok = false;
            }
        }
        if (!ok) {
            LogError("Error of start input stream");
            Stop();
            // Buffers queued before the failure are with the device until a reset.
            if (m_handle)
                m_handle->Reset();
            result = kMmeStartError;
        }
    }
    LogLeaveResult("PaStreamIn::Start", result);
    return result;
}

unsigned PaStreamIn::Stop()
{
    if (!m_handle)
        return kMmeSuccess;
    {
        std::lock_guard lock(m_lock);
        if (!m_active)
            return kMmeSuccess;
        m_active = false;
    }
    const unsigned code = m_handle->Reset();
    if (code != kMmOk) {
        LogError("reset input stream");
        LogError("waveInReset error %u", code);
        return kMmeStopError;
    }
    return kMmeSuccess;
}

bool PaStreamIn::Close()
{
    if (!m_handle) {
        std::lock_guard lock(m_lock);
        ClearFormat();
        return true;
    }
    LogEnter("PaStreamIn::Close");
    Stop();
    if (QueuedCount() > 0)
        m_handle->Reset();
    if (m_buffers.count > 0) {
        bool keep = !WaitForQueuedBuffers("PaStreamIn::Close");
        for (uint32_t i = 0; i < m_buffers.count && !keep; ++i) {
            const unsigned code = m_handle->UnprepareHeader(m_buffers.headers[i]);
            if (code != kMmOk) {
                LogError("Close input stream error");
                LogError("waveInUnprepareHeader error: %u. nBuffer = %d", code, static_cast<int>(i));
                keep = true;
            }
        }
        std::lock_guard lock(m_lock);
        if (keep)
            m_orphans.push_back(std::move(m_buffers));
        m_buffers = BufferSet{};
    }
    unsigned code = kMmOk;
    for (int attempt = 0; attempt < kCloseAttempts; ++attempt) {
        code = m_handle->Close();
        if (code != kWaveErrStillPlaying)
            break;
        LogWarning("Input stream is still playing");
        LogWarning("waveInClose == WAVERR_STILLPLAYING");
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
    }
    {
        std::lock_guard lock(m_lock);
        m_handle.reset();
        m_active = false;
        ClearFormat();
    }
    const bool ok = code == kMmOk;
    if (!ok)
        LogError("Close input stream. Error code: %u", code);
    LogLeaveResult("PaStreamIn::Close", ok);
    return ok;
}

// ---------------------------------------------------------------------------------------------
// PaStreamOut

PaStreamOut::PaStreamOut()
    : PaStream(1)
{
}

PaStreamOut::~PaStreamOut()
{
    Stop();
    Close();
}

unsigned PaStreamOut::Open(ThreadMessageId threadId, int device, uint32_t bitsPerSample, uint32_t sampleRate,
                           uint32_t bufferMs, uint32_t bufferCount)
{
    LogEnter("PaStreamOut::Open", "threadId=%d, nDev=%d, bitPerSample=%u, sampleRate=%u, sizeofBuferMs=%u, numberOfBufers=%u",
             static_cast<int>(threadId), device, bitsPerSample, sampleRate, bufferMs, bufferCount);
    Close();
    std::lock_guard lock(m_lock);
    SetupFormat(device, bitsPerSample, sampleRate, bufferMs, bufferCount);
    if (device == kNoDevice) {
        LogWarning("sound card not defined");
        LogLeaveResult("PaStreamOut::Open", 0);
        return kMmeSuccess;
    }
    unsigned result = kMmeSuccess;
    if (threadId == 0) {
        LogError("threadId == 0");
        LogError("Output thread is not created");
        result = kMmeOpenError;
    }
    if (result == kMmeSuccess) {
        m_backend = CurrentAudioBackend();
        const unsigned code = m_backend->OpenWaveOut(device, m_format, WaveBufferShape{m_bufferSize, m_bufferCount}, threadId, m_handle);
        if (code != kMmOk) {
            LogError("waveOutOpen == %u", code);
            result = kMmeOpenError;
        }
    }
    if (result == kMmeSuccess)
        result = AllocateBuffers();
    if (result == kMmeSuccess)
        result = PrepareAll(m_buffers.headers.get(), m_buffers.count, *m_handle, "waveOutPrepareHeader");
    if (result != kMmeSuccess) {
        LogError("Open output stream error: %s", MmeErrorText(result).c_str());
        Close();
    }
    LogLeaveResult("PaStreamOut::Open", result);
    return result;
}

unsigned PaStreamOut::Write(const void* data, uint32_t count, bool last)
{
    std::lock_guard lock(m_lock);
    if (!m_active || !m_handle)
        return kMmeSuccess;
    if (count > m_bufferSize) {
        LogError("wmme critical error (dataSize > buffSize)");
        // On the engine thread this ends the process like any fault in a callback; a caller
        // elsewhere gets the refusal instead of a dead program.
        if (t_onEngineThread)
            throw RaisedException{kExceptionBufferOverrun};
        return kMmeBadParameter;
    }
    uint32_t index = 0;
    for (; index < m_buffers.count; ++index) {
        // A buffer the device has returned but whose done message the engine has not seen yet
        // is still busy: reusing it would make that message report the new contents.
        if ((m_buffers.headers[index].flags.load() & kWhdrInQueue) == 0 && Record(index).queued == 0)
            break;
    }
    if (index == m_buffers.count)
        return kMmeNoFreeBuffers;
    WaveHeader& header = m_buffers.headers[index];
    PaBuffer& record = Record(index);
    if (count > 0)
        std::memcpy(header.data, data, count);
    header.bufferLength = count;
    record.validBytes = count;
    record.last = last;
    record.queued = 1;
    const unsigned code = m_handle->Write(header);
    if (code == kMmOk)
        return kMmeSuccess;
    LogError("Out write error: %u", code);
    record.queued = 0;
    record.validBytes = 0;
    LogError("waveOutWrite error %d", static_cast<int>(code));
    return code == kMmNoDriver ? kMmeNoDriver : kMmeIoError;
}

unsigned PaStreamOut::Stop()
{
    if (!m_handle)
        return kMmeSuccess;
    {
        std::lock_guard lock(m_lock);
        if (!m_active)
            return kMmeSuccess;
        m_active = false;
    }
    const unsigned code = m_handle->Reset();
    if (code != kMmOk) {
        LogError("Error of reset output stream");
        LogError("waveOutReset error %u", code);
        return kMmeStopError;
    }
    return kMmeSuccess;
}

void PaStreamOut::Close()
{
    if (!m_handle) {
        std::lock_guard lock(m_lock);
        ClearFormat();
        return;
    }
    LogEnter("PaStreamOut::Close");
    Stop();
    if (QueuedCount() > 0)
        m_handle->Reset();
    if (m_buffers.count > 0) {
        bool keep = !WaitForQueuedBuffers("PaStreamOut::Close");
        for (uint32_t i = 0; i < m_buffers.count && !keep; ++i) {
            unsigned code = m_handle->UnprepareHeader(m_buffers.headers[i]);
            for (int left = kCloseAttempts - 1; code == kWaveErrStillPlaying && left >= 0; --left) {
                LogWarning("Fault unprepear buffer. Num of attempts: %d", left);
                std::this_thread::sleep_for(std::chrono::milliseconds(10));
                code = m_handle->UnprepareHeader(m_buffers.headers[i]);
            }
            if (code != kMmOk) {
                LogError("Close output stream error");
                LogError("waveOutUnprepareHeader error: %u. nBuffer = %d", code, static_cast<int>(i));
                keep = true;
            }
        }
        std::lock_guard lock(m_lock);
        if (keep)
            m_orphans.push_back(std::move(m_buffers));
        m_buffers = BufferSet{};
    }
    unsigned code = kMmOk;
    for (int attempt = 0; attempt < kCloseAttempts; ++attempt) {
        code = m_handle->Close();
        if (code != kWaveErrStillPlaying)
            break;
        LogWarning("Output stream is still playing");
        LogWarning("waveOutClose == WAVERR_STILLPLAYING");
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    {
        std::lock_guard lock(m_lock);
        m_handle.reset();
        m_active = false;
        ClearFormat();
    }
    if (code != kMmOk)
        LogError("Close output stream. Error code: %u", code);
    LogLeave("PaStreamOut::Close");
}

// ---------------------------------------------------------------------------------------------
// Device numbers and names

namespace {

int DirectionOfType(int type)
{
    return type == 1 ? CSoundDevices::kCapture : CSoundDevices::kRender;
}

} // namespace

unsigned PaGetDevNByName(const std::string& name, int type, int& device)
{
    LogEnter("PaGetDevNByName");
    device = kNoDevice;
    unsigned result = kMmeSuccess;
    if (type != 1 && type != 2) {
        result = kMmeBadParameter;
    } else {
        LogInfo("Search SoundDev=\"%s\" type = %s", name.c_str(), type == 1 ? "in" : "out");
        if (name.empty()) {
            result = kMmeDeviceNotFound;
        } else {
            const CSoundDevices devices(DirectionOfType(type));
            const std::shared_ptr<AudioBackend> backend = CurrentAudioBackend();
            // The description the user chose wins; a part of it is only a fallback for names
            // that changed a little (a number added by the sound server). A monitor hears the
            // speakers, so a recording device is never a monitor by a part of its name: a
            // headset's microphone and speakers usually share one description.
            int index = -1;
            const char* why = "its description is the stored name";
            for (int i = 0; i < devices.Count() && index < 0; ++i) {
                if (devices.Name(i) == name)
                    index = i;
            }
            for (int i = 0; i < devices.Count() && index < 0; ++i) {
                if (devices.Name(i).find(name) == std::string::npos)
                    continue;
                if (type == 1 && backend->IsMonitorDevice(devices.WaveDevice(i)))
                    continue;
                index = i;
                why = "its description contains the stored name";
            }
            if (index < 0) {
                result = kMmeDeviceNotFound;
            } else {
                device = devices.WaveDevice(index);
                LogInfo("SoundDev=\"%s\" id=%d (%s)", devices.Name(index).c_str(), device, why);
            }
        }
    }
    LogLeaveResult("PaGetDevNByName", result);
    return result;
}

unsigned PaGetSoundDevList(std::vector<std::string>& names, int type)
{
    if (type != 1 && type != 2)
        return kMmeBadParameter;
    const CSoundDevices devices(DirectionOfType(type));
    for (int i = 0; i < devices.Count(); ++i) {
        std::string name = devices.Name(i);
        if (!name.empty())
            names.push_back(std::move(name));
    }
    return kMmeSuccess;
}

unsigned PaGetMixerId(const std::string& name, int type, unsigned& mixerId)
{
    LogEnter("PaGetMixerId");
    int device = kNoDevice;
    unsigned result = PaGetDevNByName(name, type, device);
    if (result == kMmeSuccess) {
        const WaveDirection direction = type == 1 ? WaveDirection::Capture : WaveDirection::Render;
        const unsigned code = CurrentAudioBackend()->GetMixerId(device, direction, mixerId);
        switch (code) {
        case kMmOk:
            break;
        case kMmInvalHandle:
        case kMmInvalFlag:
        case kMmInvalParam:
            result = kMmeBadParameter;
            break;
        case kMmNoDriver:
            result = kMmeMixerNoDriver;
            break;
        default:
            result = kMmeMixerIdError;
            break;
        }
    }
    LogLeaveResult("PaGetMixerId", result);
    return result;
}

void PaLogSoundDevices()
{
    const CSoundDevices inputs(CSoundDevices::kCapture);
    const CSoundDevices outputs(CSoundDevices::kRender);
    LogInfo("%s", "");
    LogInfo("    -= Sound devices =-");
    LogInfo("%s", "");
    LogInfo("Enumirate drivers on input (nDevs=%d):", inputs.Count());
    for (int i = 0; i < inputs.Count(); ++i)
        LogInfo("Device [%d] (devId=%d) = %s", i, inputs.WaveDevice(i), inputs.Name(i).c_str());
    LogInfo("Enumirate drivers on output (nDevs=%d):", outputs.Count());
    for (int i = 0; i < outputs.Count(); ++i)
        LogInfo("Device [%d] (devId=%d) = %s", i, outputs.WaveDevice(i), outputs.Name(i).c_str());
    LogInfo("%s", "");
}

// ---------------------------------------------------------------------------------------------
// PortMixer

PortMixer::~PortMixer()
{
    Close();
}

bool PortMixer::Open(unsigned mixerId, unsigned flags, MixerNotify* callback)
{
    if (callback != nullptr)
        flags |= kMixerCallbackWindow;
    else
        flags &= ~kMixerCallbackWindow;
    LogEnter("PortMixer::Open", "uMxId=%d, flags=%u, callBackWindow=%u", static_cast<int>(mixerId), flags,
             callback != nullptr ? 1U : 0U);
    Close();
    const unsigned code = CurrentAudioBackend()->OpenMixer(mixerId, callback, m_mixer);
    if (code != kMmOk) {
        LogError("Open mixer. Error code: %u", code);
        m_mixer.reset();
        LogLeaveResult("PortMixer::Open", false);
        return false;
    }
    m_recSources.clear();
    m_playSources.clear();
    m_recVolume = RecSource{};
    m_master = RecSource{};
    InitOutput();
    InitInput();
    LogLeaveResult("PortMixer::Open", true);
    return true;
}

unsigned PortMixer::Close()
{
    m_mixer.reset();
    m_muxId = -1;
    m_muxCount = 0;
    return kMmOk;
}

bool PortMixer::InitInput()
{
    if (!m_mixer)
        return false;
    m_muxId = -1;
    m_muxCount = 0;
    m_recSources.clear();
    MixerLine destination;
    unsigned code = m_mixer->GetLineByComponent(MixerComponent::DstWaveIn, destination);
    if (code != kMmOk) {
        LogWarning("Mixer line info errorcode: %u", code);
        return false;
    }
    m_recDestinationId = destination.lineId;
    LogInfo("Search mix control...");
    MixerControl control;
    code = m_mixer->GetLineControl(destination.lineId, MixerControlType::Mux, control);
    if (code == kMixErrInvalControl)
        code = m_mixer->GetLineControl(destination.lineId, MixerControlType::Mixer, control);
    if (code == kMixErrInvalControl) {
        LogInfo("Mix control not found...");
        LogInfo("Search recording volume...");
        const bool found = DefineRecVol();
        LogInfo("Volume ctrl: lineId=%u, volId=%u, name=%s", static_cast<unsigned>(m_recVolume.lineId),
                static_cast<unsigned>(m_recVolume.volumeId), m_recVolume.name.c_str());
        return found;
    }
    if (code != kMmOk) {
        LogError("Get line controls error: %u", code);
        return false;
    }
    m_muxId = control.controlId;
    m_muxCount = control.itemCount;
    std::vector<MixerItem> items;
    code = m_mixer->GetMuxItems(control.controlId, items);
    if (code != kMmOk) {
        if (code == kMmInvalParam)
            LogWarning("Mixer did not found.");
        else
            LogError("mixerGetControlDetails for muxer returned value: %u", code);
        m_muxCount = 0;
    }
    // Items beyond the source records cannot be represented; they are left out.
    m_muxCount = std::min<uint32_t>(m_muxCount, static_cast<uint32_t>(std::min(items.size(), kMaxSources)));
    for (uint32_t i = 0; i < m_muxCount; ++i)
        m_recSources.push_back(RecSource{items[i].name, items[i].lineId, -1});
    for (std::size_t i = 0; i < m_recSources.size(); ++i) {
        MixerControl volume;
        code = m_mixer->GetLineControl(static_cast<uint32_t>(m_recSources[i].lineId), MixerControlType::Volume, volume);
        if (code == kMmOk) {
            m_recSources[i].volumeId = volume.controlId;
        } else {
            LogInfo("volume control for muxer line did not found (number: %d) returned value: %u, line id: 0x%x",
                    static_cast<int>(i), code, static_cast<unsigned>(m_recSources[i].lineId));
        }
    }
    return true;
}

bool PortMixer::DefineRecVol()
{
    if (!m_mixer)
        return false;
    MixerLine destination;
    unsigned code = m_mixer->GetLineById(static_cast<uint32_t>(m_recDestinationId), destination);
    if (code != kMmOk)
        return false;
    LogInfo("Get wave in volume");
    MixerControl control;
    code = m_mixer->GetLineControl(destination.lineId, MixerControlType::Volume, control);
    if (code == kMmOk) {
        LogInfo("Wave in volume founded");
        m_recVolume = RecSource{control.name, destination.lineId, control.controlId};
        return true;
    }
    if (code != kMixErrInvalControl) {
        LogWarning("Get wave in volume error: %u", code);
        return false;
    }
    LogInfo("Wave in volume not found. Search microphone");
    if (destination.sourceCount == 0) {
        LogError("Search microphone error: %u", code);
        return false;
    }
    MixerLine chosen;
    unsigned lastCode = kMmOk;
    for (uint32_t i = 0; i < destination.sourceCount; ++i) {
        MixerLine source;
        lastCode = m_mixer->GetSourceLine(destination.lineId, i, source);
        if (lastCode == kMmOk)
            chosen = source;
        if (lastCode == kMmOk && source.component == MixerComponent::SrcMicrophone)
            break;
    }
    if (lastCode != kMmOk) {
        LogError("Search microphone error: %u", lastCode);
        return false;
    }
    LogInfo("Get microphone volume");
    code = m_mixer->GetLineControl(chosen.lineId, MixerControlType::Volume, control);
    if (code != kMmOk) {
        LogError("Get microphone error: %u", code);
        return false;
    }
    m_recVolume = RecSource{control.name, chosen.lineId, control.controlId};
    return true;
}

bool PortMixer::InitOutput()
{
    if (!m_mixer)
        return false;
    m_playSources.clear();
    MixerLine speakers;
    unsigned code = m_mixer->GetLineByComponent(MixerComponent::DstSpeakers, speakers);
    if (code != kMmOk) {
        LogWarning("Mixer line info errorcode: %u", code);
        return false;
    }
    m_speakerLineId = speakers.lineId;
    MixerControl control;
    if (m_mixer->GetLineControl(speakers.lineId, MixerControlType::Volume, control) == kMmOk)
        m_master = RecSource{control.name, speakers.lineId, control.controlId};
    const uint32_t count = std::min<uint32_t>(speakers.sourceCount, kMaxSources);
    for (uint32_t i = 0; i < count; ++i) {
        MixerLine source;
        if (m_mixer->GetSourceLine(speakers.lineId, i, source) != kMmOk)
            continue;
        RecSource entry{source.name, source.lineId, -1};
        if (m_mixer->GetLineControl(source.lineId, MixerControlType::Volume, control) == kMmOk)
            entry.volumeId = control.controlId;
        m_playSources.push_back(std::move(entry));
    }
    return true;
}

bool PortMixer::GetVolControl(MixerComponent component, int64_t& controlId)
{
    if (!m_mixer)
        return false;
    MixerLine line;
    if (m_mixer->GetLineByComponent(component, line) != kMmOk) {
        LogError("error");
        return false;
    }
    MixerControl control;
    if (m_mixer->GetLineControl(line.lineId, MixerControlType::Volume, control) != kMmOk) {
        LogError("Get volume control");
        return false;
    }
    controlId = control.controlId;
    return true;
}

int64_t PortMixer::GetVolume(int64_t controlId)
{
    if (!m_mixer || controlId == -1)
        return -1;
    uint32_t value = 0;
    const unsigned code = m_mixer->GetVolume(static_cast<uint32_t>(controlId), value);
    if (code != kMmOk) {
        LogError("Get volume Error. Return code: %u", code);
        return -1;
    }
    return value;
}

bool PortMixer::SetVolume(int64_t controlId, uint32_t value)
{
    if (!m_mixer || controlId == -1)
        return false;
    return m_mixer->SetVolume(static_cast<uint32_t>(controlId), value) == kMmOk;
}

bool PortMixer::HasMux() const
{
    return m_muxId != -1 && m_muxCount > 0;
}

bool PortMixer::HasNoRecControl() const
{
    return !HasMux() && m_recVolume.volumeId == -1;
}

int PortMixer::GetSelectedMuxItem()
{
    if (!m_mixer || !HasMux())
        return -1;
    std::vector<bool> values;
    if (m_mixer->GetMuxValues(static_cast<uint32_t>(m_muxId), values) != kMmOk)
        return -1;
    for (std::size_t i = 0; i < values.size() && i < m_muxCount; ++i) {
        if (values[i])
            return static_cast<int>(i);
    }
    return -1;
}

bool PortMixer::SelectMuxItem(int index)
{
    if (!m_mixer || index < 0 || static_cast<uint32_t>(index) >= m_muxCount)
        return false;
    // The selector's value array holds 32 items; later ones cannot be chosen this way.
    if (static_cast<std::size_t>(index) >= kMaxMuxValues)
        return false;
    std::vector<bool> values(std::min<std::size_t>(m_muxCount, kMaxMuxValues), false);
    values[static_cast<std::size_t>(index)] = true;
    return m_mixer->SetMuxValues(static_cast<uint32_t>(m_muxId), values) == kMmOk;
}

void PortMixer::GetRecSources(std::vector<RecSource>& sources)
{
    sources.clear();
    if (!m_mixer)
        return;
    if (HasMux()) {
        sources = m_recSources;
        return;
    }
    if (m_recVolume.volumeId != -1)
        sources.push_back(m_recVolume);
    else
        sources.push_back(RecSource{GetText(137), -1, -1});
}

bool PortMixer::SelectRecSource(const std::string& name)
{
    std::vector<RecSource> sources;
    GetRecSources(sources);
    for (std::size_t i = 0; i < sources.size(); ++i) {
        if (sources[i].name == name)
            return SelectMuxItem(static_cast<int>(i));
    }
    return false;
}

void PortMixer::GetRecSourceName(std::string& name)
{
    const int selected = GetSelectedMuxItem();
    if (selected >= 0 && static_cast<std::size_t>(selected) < m_recSources.size())
        name = m_recSources[static_cast<std::size_t>(selected)].name;
    else if (m_recVolume.volumeId != -1)
        name = m_recVolume.name;
    else
        name = GetText(137);
}

int64_t PortMixer::SelectedVolumeControl()
{
    const int selected = GetSelectedMuxItem();
    if (selected >= 0 && static_cast<std::size_t>(selected) < m_recSources.size())
        return m_recSources[static_cast<std::size_t>(selected)].volumeId;
    return m_recVolume.volumeId;
}

bool PortMixer::GetRecVolume(uint32_t& value)
{
    if (!m_mixer)
        return false;
    const int64_t control = SelectedVolumeControl();
    if (control == -1)
        return false;
    const int64_t volume = GetVolume(control);
    if (volume < 0)
        return false;
    value = static_cast<uint32_t>(volume);
    return true;
}

bool PortMixer::SetRecVolume(uint32_t value)
{
    if (!m_mixer)
        return false;
    const int64_t control = SelectedVolumeControl();
    if (control == -1)
        return false;
    return SetVolume(control, value);
}

bool FindMicLine(PortMixer& mixer, std::string& name)
{
    LogEnter("FindMicLine");
    static constexpr std::array<const char*, 5> kMicNames = {"microphone", "microfon", "mic", "mikro", "micro"};
    std::vector<RecSource> sources;
    mixer.GetRecSources(sources);
    bool found = false;
    for (const RecSource& source : sources) {
        for (const char* micName : kMicNames) {
            if (EqualsNoCase(source.name, micName)) {
                name = source.name;
                found = true;
                break;
            }
        }
        if (found)
            break;
    }
    LogLeaveResult("FindMicLine", found);
    return found;
}

bool FindMicLine(const std::string& deviceName, std::string& name)
{
    name.clear();
    unsigned mixerId = 0;
    if (PaGetMixerId(deviceName, 1, mixerId) != kMmeSuccess)
        return false;
    PortMixer mixer;
    if (!mixer.Open(mixerId, 0, nullptr)) {
        ShowMessage(nullptr, MB_OK | MB_ICONERROR, "%s", GetText(239).c_str());
        return false;
    }
    return FindMicLine(mixer, name);
}

} // namespace larimo
