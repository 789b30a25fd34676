// SPDX-License-Identifier: GPL-3.0-or-later
// The sound system as the engine sees it: numbered wave devices that take queued buffers and
// report each one back, in queue order, as a message to the thread that opened them; the
// system's device lists and defaults; recording mixers; the virtual microphone.
//
// Two backends: the sound server through libpulse (src/platform/pulse/, also PipeWire through
// pipewire-pulse) and simulated devices for tests (src/platform/virtual/).
#pragma once

#include "platform/ThreadMessages.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace larimo {

// Results of device and mixer calls, numbered as the engine's log lines report them.
constexpr unsigned kMmOk = 0;
constexpr unsigned kMmError = 1;
constexpr unsigned kMmBadDeviceId = 2;
constexpr unsigned kMmInvalHandle = 5;
constexpr unsigned kMmNoDriver = 6;
constexpr unsigned kMmNoMem = 7;
constexpr unsigned kMmInvalFlag = 10;
constexpr unsigned kMmInvalParam = 11;
constexpr unsigned kWaveErrBadFormat = 32;
constexpr unsigned kWaveErrStillPlaying = 33;
constexpr unsigned kWaveErrUnprepared = 34;
constexpr unsigned kMixErrInvalLine = 1024;
constexpr unsigned kMixErrInvalControl = 1025;

// Header flags.
constexpr uint32_t kWhdrDone = 0x01;
constexpr uint32_t kWhdrPrepared = 0x02;
constexpr uint32_t kWhdrInQueue = 0x10;

/// One buffer as it travels between a stream and its device. The device sets and clears
/// `flags` on its own thread, so they are atomic; everything else changes only while the
/// buffer is not queued.
struct WaveHeader {
    char* data = nullptr;
    uint32_t bufferLength = 0;
    uint32_t bytesRecorded = 0;
    uintptr_t user = 0;
    std::atomic<uint32_t> flags{0};
    uint32_t loops = 0;
    WaveHeader* next = nullptr;
    uintptr_t reserved = 0;
};

/// PCM stream format, laid out as the wave format record everyone knows.
struct StreamFormat {
    uint16_t formatTag = 0;
    uint16_t channels = 0;
    uint32_t samplesPerSec = 0;
    uint32_t avgBytesPerSec = 0;
    uint16_t blockAlign = 0;
    uint16_t bitsPerSample = 0;
    uint16_t cbSize = 0;
};

constexpr uint16_t kStreamFormatPcm = 1;

/// Mono PCM of `bitsPerSample` (a multiple of 8) at `samplesPerSec`.
inline StreamFormat MonoPcmFormat(uint32_t samplesPerSec, uint16_t bitsPerSample)
{
    StreamFormat format;
    format.formatTag = kStreamFormatPcm;
    format.channels = 1;
    format.samplesPerSec = samplesPerSec;
    format.blockAlign = static_cast<uint16_t>(bitsPerSample / 8);
    format.avgBytesPerSec = samplesPerSec * format.blockAlign;
    format.bitsPerSample = bitsPerSample;
    return format;
}

/// How a stream will queue its buffers; backends size their own buffering from it.
struct WaveBufferShape {
    uint32_t bufferBytes = 0;
    uint32_t bufferCount = 0;
    /// Playback only: silence the device keeps ahead of the first buffer, and puts back after
    /// every under-run, so a writer that hands over one buffer per period, a little late now
    /// and then, never leaves it without data. Where the backend can tell, what waits ahead of a
    /// new buffer is also held near the lead: a surplus is skipped, not played late, and the
    /// writer learns from ClockCorrectionFrames how to keep pace with the device. 0: none;
    /// the device starts with one buffer and plays everything.
    uint32_t leadBytes = 0;
};

/// 0 = playback (render), 1 = recording (capture), as device lists number them.
enum class WaveDirection : int { Render = 0, Capture = 1 };

/// Marks a header prepared; a queued header gives kWaveErrStillPlaying. Any thread.
unsigned PrepareWaveHeader(WaveHeader& header);
/// Unmarks it; a queued header gives kWaveErrStillPlaying. Any thread.
unsigned UnprepareWaveHeader(WaveHeader& header);

/// An open recording device. Every buffer added is handed back once, in the order added, by
/// posting kMsgWaveInData with the header to the target thread, after the device has set
/// kWhdrDone and cleared kWhdrInQueue: full when recording filled it, partly filled when
/// Reset returned it. Calls come from one thread at a time (the stream's lock).
class WaveInDevice {
public:
    virtual ~WaveInDevice() = default;
    virtual unsigned PrepareHeader(WaveHeader& header) { return PrepareWaveHeader(header); }
    virtual unsigned UnprepareHeader(WaveHeader& header) { return UnprepareWaveHeader(header); }
    virtual unsigned AddBuffer(WaveHeader& header) = 0;
    virtual unsigned Start() = 0;
    /// A hint that nobody needs the recording promptly for now: the device may gather larger
    /// pieces and wake its reader less often, though never later than one buffer. Recording
    /// goes on either way. Not on the reader's real-time thread.
    virtual void SetIdle(bool idle) { (void)idle; }
    /// Stops recording and hands every queued buffer back.
    virtual unsigned Reset() = 0;
    /// kWaveErrStillPlaying while buffers are queued; after success the device is gone.
    virtual unsigned Close() = 0;
};

/// An open playback device. Each written buffer is played after those written before it and
/// handed back by posting kMsgWaveOutDone to the target thread (kWhdrDone set, kWhdrInQueue
/// cleared). Calls come from one thread at a time (the stream's lock).
class WaveOutDevice {
public:
    virtual ~WaveOutDevice() = default;
    virtual unsigned PrepareHeader(WaveHeader& header) { return PrepareWaveHeader(header); }
    virtual unsigned UnprepareHeader(WaveHeader& header) { return UnprepareWaveHeader(header); }
    /// Queues `header->bufferLength` bytes; kMmNoDriver when the device has gone away.
    virtual unsigned Write(WaveHeader& header) = 0;
    /// Drops what is queued and hands every queued buffer back.
    virtual unsigned Reset() = 0;
    /// kWaveErrStillPlaying while buffers are queued; after success the device is gone.
    virtual unsigned Close() = 0;
    /// Times the device ran out of data while playing, since it was opened; 0 where the
    /// backend cannot tell. Wait-free, any thread. RT call.
    virtual uint64_t Underruns() const { return 0; }
    /// Frames the writer should have added to what it wrote since the device was opened, so
    /// that it keeps pace with the device's clock; negative when it should have left frames
    /// out. A running total; 0 where the device plays by the writer's clock. Wait-free, any
    /// thread. RT call.
    virtual int64_t ClockCorrectionFrames() const { return 0; }
};

enum class MixerComponent { DstSpeakers, DstWaveIn, SrcMicrophone, SrcLine, SrcOther };
enum class MixerControlType { Volume, Mux, Mixer };

struct MixerLine {
    uint32_t lineId = 0;
    MixerComponent component = MixerComponent::SrcOther;
    std::string name;
    uint32_t sourceCount = 0;
};

struct MixerControl {
    uint32_t controlId = 0;
    std::string name;
    uint32_t itemCount = 0;
};

struct MixerItem {
    std::string name;
    uint32_t lineId = 0;
};

/// Receives a mixer's change notifications. Called on the sound system's own thread: keep it
/// short, never call back into the mixer from it.
class MixerNotify {
public:
    virtual ~MixerNotify() = default;
    virtual void OnMixerControlChange(uint32_t controlId) = 0;
};

/// One open mixer: a recording destination with its sources (or a selector of items), a
/// speaker destination, and volume controls. Volumes run from 0 to 65535. Missing lines give
/// kMixErrInvalLine, missing controls kMixErrInvalControl. One thread at a time.
class MixerDevice {
public:
    virtual ~MixerDevice() = default;
    virtual unsigned GetLineByComponent(MixerComponent component, MixerLine& line) = 0;
    virtual unsigned GetLineById(uint32_t lineId, MixerLine& line) = 0;
    virtual unsigned GetSourceLine(uint32_t destinationLineId, uint32_t index, MixerLine& line) = 0;
    virtual unsigned GetLineControl(uint32_t lineId, MixerControlType type, MixerControl& control) = 0;
    virtual unsigned GetMuxItems(uint32_t controlId, std::vector<MixerItem>& items) = 0;
    virtual unsigned GetMuxValues(uint32_t controlId, std::vector<bool>& values) = 0;
    virtual unsigned SetMuxValues(uint32_t controlId, const std::vector<bool>& values) = 0;
    virtual unsigned GetVolume(uint32_t controlId, uint32_t& value) = 0;
    virtual unsigned SetVolume(uint32_t controlId, uint32_t value) = 0;
};

/// An endpoint of the sound server: its description and its own name.
struct EndpointInfo {
    std::string name;
    std::string serverName;
};

/// The sound system. Every method may be called from any thread except the real-time audio
/// thread and the backend's own callback thread; they may block briefly on the sound server.
class AudioBackend {
public:
    virtual ~AudioBackend() = default;

    /// Names of the numbered wave devices of one direction, in device order.
    virtual std::vector<std::string> WaveDeviceNames(WaveDirection direction) = 0;
    /// Opens a device (-1: the default one) for buffers of `shape`, notifying `target`.
    virtual unsigned OpenWaveIn(int device, const StreamFormat& format, const WaveBufferShape& shape,
                                ThreadMessageId target, std::unique_ptr<WaveInDevice>& opened) = 0;
    virtual unsigned OpenWaveOut(int device, const StreamFormat& format, const WaveBufferShape& shape,
                                 ThreadMessageId target, std::unique_ptr<WaveOutDevice>& opened) = 0;

    /// True when devices are listed as the server's endpoints, false for the plain numbered
    /// model (where the preferred wave device is the default).
    virtual bool HasEndpoints() = 0;
    /// The endpoints of a direction and the server name of the default one; false when the
    /// server cannot be asked.
    virtual bool ListEndpoints(WaveDirection direction, std::vector<EndpointInfo>& endpoints,
                               std::string& defaultServerName) = 0;
    virtual bool SetDefaultEndpoint(WaveDirection direction, const std::string& serverName) = 0;
    virtual int PreferredWaveDevice(WaveDirection direction) = 0;
    virtual unsigned SetPreferredWaveDevice(WaveDirection direction, int device) = 0;
    /// Whether recording device `device` hears what a playback device plays (a monitor)
    /// rather than a microphone or a line.
    virtual bool IsMonitorDevice(int device)
    {
        (void)device;
        return false;
    }

    /// The mixer of a wave device.
    virtual unsigned GetMixerId(int device, WaveDirection direction, unsigned& mixerId) = 0;
    /// Opens a mixer; `notify` (may be null, not owned) must outlive the mixer.
    virtual unsigned OpenMixer(unsigned mixerId, MixerNotify* notify,
                               std::unique_ptr<MixerDevice>& opened) = 0;

    /// Makes sure the virtual microphone exists as a playback and a recording device; false,
    /// with the reason in `why`, when it could not be made.
    virtual bool EnsureVirtualMicrophone(std::string& why) = 0;
    /// Whether some program records from the virtual microphone now; false when unknown.
    virtual bool VirtualMicrophoneInUse(bool& inUse) = 0;
    /// A count of the programs recording from the virtual microphone that the backend keeps
    /// current from the sound system's own notifications, so nobody has to ask: the number of
    /// running recording streams on it, kRecordersUnknown while the backend cannot tell. Null
    /// when the backend cannot watch (VirtualMicrophoneInUse answers then). Reading the count
    /// is wait-free and allowed on the audio thread; it lives as long as the pointer.
    virtual std::shared_ptr<const std::atomic<int32_t>> WatchVirtualMicrophone() { return nullptr; }
    /// The thread (CurrentThreadId of ProcessInfo.h) that hands the streams' data to and from
    /// the sound system, for whoever needs it at real-time priority; 0 where there is none.
    virtual unsigned StreamThreadId() { return 0; }
};

/// What WatchVirtualMicrophone's count holds while the backend cannot tell.
constexpr int32_t kRecordersUnknown = -1;

/// The backend in use: the one installed, or else the sound server's (created on first use).
/// Any thread.
std::shared_ptr<AudioBackend> CurrentAudioBackend();
/// Installs a backend (tests install the virtual one); null returns to the sound server's.
/// Returns the one installed before. Any thread; streams already open keep their devices.
std::shared_ptr<AudioBackend> SetAudioBackend(std::shared_ptr<AudioBackend> backend);

} // namespace larimo
