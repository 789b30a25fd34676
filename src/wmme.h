// SPDX-License-Identifier: GPL-3.0-or-later
// The program's own small audio engine: one engine thread that receives the wave devices'
// buffer notifications, a recording stream that hands every filled buffer to the engine's
// input callback and queues it again, and a playback stream that plays what callers write and
// reports each finished buffer. Also the device functions and the recording mixer.
//
// Streams are opened, started, written, stopped and closed by one caller thread (the window
// thread); the callbacks run on the engine thread while it holds the lock of the stream that
// owns the buffer. Users that take both streams' locks take the recording stream's first.
#pragma once

#include "platform/AudioBackend.h"
#include "platform/ThreadMessages.h"

#include <array>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace larimo {

/// Results of the engine and device operations.
enum MmeErrorNum : unsigned {
    kMmeSuccess = 0,
    kMmeThreadError = 1,
    kMmeTimeout = 2,
    kMmeOpenError = 3,
    kMmeNoMemory = 4,
    kMmeBufferError = 5,
    kMmeStreamNotFound = 6,
    kMmeStartError = 7,
    kMmeStopError = 8,
    kMmeNoFreeBuffers = 9,
    kMmeIoError = 10,
    kMmeNoDriver = 11,
    kMmeBadParameter = 12,
    kMmeMixerIdError = 13,
    kMmeDeviceNotFound = 14,
    kMmeMixerNoDriver = 15,
};

/// The translated text of an MmeErrorNum; numbers without a text of their own give
/// "Undefined error". Any thread, between StartTexts and EndTexts.
const std::string& MmeErrorText(unsigned error);

/// The device number that stands for "no device".
constexpr int kNoDevice = -2;

/// The code raised when a caller writes more than one buffer.
constexpr uint32_t kExceptionBufferOverrun = 0xE0000001U;

class PaStream;

/// One buffer of a stream, as the callbacks see it.
struct PaBuffer {
    uint32_t direction = 0; ///< 0 recording, 1 playback
    PaStream* stream = nullptr;
    uint32_t index = 0;
    uint32_t validBytes = 0;
    uint32_t capacity = 0;
    char* data = nullptr;
    bool last = false;
    uint8_t queued = 0;
};

/// The engine: owns the engine thread and the callbacks a user class overrides.
class PortAudio {
public:
    PortAudio();
    virtual ~PortAudio();
    PortAudio(const PortAudio&) = delete;
    PortAudio& operator=(const PortAudio&) = delete;

    /// Starts the engine thread (stopping a running one first): 0, or 1 when no thread could
    /// be made. Caller thread.
    unsigned StartEngine();
    /// Asks the thread to quit and waits for it up to the stop time-out: 0, or 2 when it did
    /// not end in time (the thread is then kept, and a later call may succeed). Caller thread.
    unsigned StopEngine();
    /// Whether a thread is kept (running, or stuck after a failed stop). Any thread.
    bool EngineRunning() const;
    /// The id streams open with as their notification target; 0 when not running. Any thread.
    ThreadMessageId ThreadId() const;

    void SetStopTimeout(uint32_t milliseconds) { m_stopTimeoutMs = milliseconds; }
    uint32_t StopTimeout() const { return m_stopTimeoutMs; }

protected:
    /// Handles one message of the engine thread. Engine thread.
    virtual void Dispatch(unsigned message, WaveHeader* header);
    /// A recording buffer is full; `buffer.data` holds `buffer.validBytes` bytes. Engine thread,
    /// recording stream locked.
    virtual void OnInputData(PaBuffer buffer);
    /// A playback buffer has been played. Engine thread, playback stream locked.
    virtual void OnOutputDone(PaBuffer buffer);
    /// Called after a fault in a callback, just before the process ends. Engine thread.
    virtual void OnIoException(unsigned message);

    uint32_t m_stopTimeoutMs = 2000;

private:
    struct Engine;
    void ThreadProc(const std::shared_ptr<Engine>& engine);
    void DispatchGuarded(unsigned message, WaveHeader* header);

    std::shared_ptr<Engine> m_engine;
};

/// State shared by both stream directions, guarded by the stream's re-entrant lock.
class PaStream {
public:
    virtual ~PaStream();
    PaStream(const PaStream&) = delete;
    PaStream& operator=(const PaStream&) = delete;

    void Lock() { m_lock.lock(); }
    void Unlock() { m_lock.unlock(); }
    /// Marks the stream active (playback streams before the first write). Caller thread.
    void Activate();
    bool IsActive();
    bool IsOpen();

    int Device() const { return m_device; }
    uint32_t BufferCount() const { return m_bufferCount; }
    uint32_t BufferSize() const { return m_bufferSize; }
    uint32_t BufferMs() const { return m_bufferMs; }
    uint32_t SamplesPerBuffer() const { return m_samplesPerBuffer; }
    uint32_t BitsPerSample() const { return m_bitsPerSample; }
    const StreamFormat& Format() const { return m_format; }
    /// How many buffers are with the device now. Any thread.
    uint32_t QueuedCount();
    /// Bytes of the buffers kept after a close that found them still queued.
    std::size_t OrphanedBuffers() const { return m_orphans.size(); }

protected:
    explicit PaStream(uint32_t direction);

    /// The buffers: headers, data blocks and the records the headers point at.
    struct BufferSet {
        std::unique_ptr<WaveHeader[]> headers;
        std::vector<std::unique_ptr<char[]>> data;
        std::vector<std::unique_ptr<PaBuffer>> records;
        uint32_t count = 0;
    };

    void SetupFormat(int device, uint32_t bits, uint32_t rate, uint32_t bufferMs, uint32_t count);
    void ClearFormat();
    /// Allocates the buffers (4 on failure).
    unsigned AllocateBuffers();
    /// Waits, bounded, until the engine has taken every buffer back. True when it has.
    bool WaitForQueuedBuffers(const char* scope);
    PaBuffer& Record(uint32_t index) { return *m_buffers.records[index]; }

    std::recursive_mutex m_lock;
    bool m_active = false;
    BufferSet m_buffers;
    std::vector<BufferSet> m_orphans;
    uint32_t m_bufferCount = 0;
    uint32_t m_bufferSize = 0;
    uint32_t m_bufferMs = 0;
    uint32_t m_samplesPerBuffer = 0;
    int m_device = kNoDevice;
    uint32_t m_bitsPerSample = 0;
    StreamFormat m_format;
    std::shared_ptr<AudioBackend> m_backend;
    const uint32_t m_direction;

private:
    friend class PortAudio;
};

/// A recording stream.
class PaStreamIn : public PaStream {
public:
    PaStreamIn();
    ~PaStreamIn() override;

    /// Opens device `device` (-2: nothing is opened, result 0). Caller thread.
    unsigned Open(ThreadMessageId threadId, int device, uint32_t bitsPerSample, uint32_t sampleRate,
                  uint32_t bufferMs, uint32_t bufferCount);
    /// Queues every buffer and starts recording. Caller thread.
    unsigned Start();
    unsigned Stop();
    /// True on success; the device is forgotten either way. Caller thread.
    bool Close();

private:
    friend class PortAudio;
    /// Queues one buffer again; false when the device refused. Stream locked.
    bool QueueBuffer(uint32_t index);
    std::unique_ptr<WaveInDevice> m_handle;
};

/// A playback stream.
class PaStreamOut : public PaStream {
public:
    PaStreamOut();
    ~PaStreamOut() override;

    /// Opens device `device` (-2: nothing is opened, result 0). Caller thread.
    unsigned Open(ThreadMessageId threadId, int device, uint32_t bitsPerSample, uint32_t sampleRate,
                  uint32_t bufferMs, uint32_t bufferCount);
    /// Copies `count` bytes (at most one buffer) into a free buffer and queues it; 0 without
    /// writing when the stream is not active. Caller thread or engine thread (from a callback).
    unsigned Write(const void* data, uint32_t count, bool last);
    unsigned Stop();
    void Close();

private:
    std::unique_ptr<WaveOutDevice> m_handle;
};

// Device numbers and names. Types: 1 recording, 2 playback. Caller thread.

/// The wave device number of the device of `type` whose name is `name`, else of the first one
/// whose name contains it; for recording, a monitor of a playback device is found only by its
/// whole name.
unsigned PaGetDevNByName(const std::string& name, int type, int& device);
/// The names of all devices of `type`, empty names left out.
unsigned PaGetSoundDevList(std::vector<std::string>& names, int type);
/// The mixer of the device of `type` whose name contains `name`.
unsigned PaGetMixerId(const std::string& name, int type, unsigned& mixerId);
/// Writes the device listing to the log.
void PaLogSoundDevices();

/// One recording (or playback) source of a mixer; ids are -1 when absent.
struct RecSource {
    std::string name;
    int64_t lineId = -1;
    int64_t volumeId = -1;
};

// Flags of PortMixer::Open.
constexpr unsigned kMixerObjectWaveIn = 0x20000000U;
constexpr unsigned kMixerObjectWaveOut = 0x10000000U;
constexpr unsigned kMixerCallbackWindow = 0x00010000U;

/// One open mixer of a recording device. Caller thread; change notifications reach the
/// callback target on the sound system's thread.
class PortMixer {
public:
    static constexpr std::size_t kMaxSources = 64;
    static constexpr std::size_t kMaxMuxValues = 32;

    PortMixer() = default;
    ~PortMixer();
    PortMixer(const PortMixer&) = delete;
    PortMixer& operator=(const PortMixer&) = delete;

    bool Open(unsigned mixerId, unsigned flags, MixerNotify* callback);
    unsigned Close();
    bool IsOpen() const { return m_mixer != nullptr; }

    bool InitInput();
    bool InitOutput();
    bool DefineRecVol();
    bool GetVolControl(MixerComponent component, int64_t& controlId);
    int64_t GetVolume(int64_t controlId);
    bool SetVolume(int64_t controlId, uint32_t value);
    bool SelectMuxItem(int index);
    int GetSelectedMuxItem();
    void GetRecSources(std::vector<RecSource>& sources);
    bool SelectRecSource(const std::string& name);
    void GetRecSourceName(std::string& name);
    bool GetRecVolume(uint32_t& value);
    bool SetRecVolume(uint32_t value);
    bool HasMux() const;
    bool HasNoRecControl() const;

    const std::vector<RecSource>& PlaybackSources() const { return m_playSources; }
    const RecSource& MasterVolume() const { return m_master; }
    const RecSource& RecordingVolume() const { return m_recVolume; }

private:
    int64_t SelectedVolumeControl();

    std::unique_ptr<MixerDevice> m_mixer;
    uint32_t m_muxCount = 0;
    int64_t m_muxId = -1;
    std::vector<RecSource> m_recSources;
    std::vector<RecSource> m_playSources;
    int64_t m_speakerLineId = -1;
    RecSource m_master;
    int64_t m_recDestinationId = -1;
    RecSource m_recVolume;
};

/// Finds the microphone among the mixer's recording sources.
bool FindMicLine(PortMixer& mixer, std::string& name);
/// Opens the mixer of recording device `deviceName` and finds its microphone source.
bool FindMicLine(const std::string& deviceName, std::string& name);

} // namespace larimo
