// SPDX-License-Identifier: GPL-3.0-or-later
// Simulated sound devices: numbered recording and playback devices with names, a clock that
// runs in real time, faster, or only when told, loopbacks from a playback device into a
// recording device, injectable input, mixers of a chosen topology, and a virtual microphone.
// Recording devices deliver injected or looped-back bytes, silence when there are none.
#pragma once

#include "platform/AudioBackend.h"

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <thread>
#include <vector>

namespace larimo {

/// The mixer of one simulated recording device.
struct VirtualMixerTopology {
    struct Source {
        std::string name;
        MixerComponent component = MixerComponent::SrcLine;
        bool hasVolume = true;
    };
    /// With a selector the sources are its items; without one they are plain source lines.
    bool hasMux = true;
    std::vector<Source> sources;
    /// A volume control on the recording destination itself.
    bool destinationVolume = false;
    int selected = 0;
};

/// The simulated sound system; create it with std::make_shared. All methods may be called from
/// any thread; devices and mixers keep it alive.
class VirtualAudio final : public AudioBackend, public std::enable_shared_from_this<VirtualAudio> {
public:
    VirtualAudio(std::vector<std::string> inputs, std::vector<std::string> outputs);
    ~VirtualAudio() override;

    /// 0: time moves only through Advance. Otherwise virtual time runs `factor` times as fast
    /// as real time on a clock thread of its own.
    void SetSpeed(double factor);
    /// Moves virtual time on and runs every device up to it (manual clock). Delivers the
    /// resulting notifications before returning.
    void Advance(uint32_t milliseconds);
    /// Bytes played by output device `output` go, from now on, to input device `input`
    /// (-1 ends the loopback).
    void SetLoopback(int output, int input);
    /// Bytes input device `input` records before anything looped back after them.
    void InjectInput(int input, std::span<const uint8_t> bytes);
    /// Everything output device `output` has played since the last call.
    std::vector<uint8_t> TakePlayed(int output);
    /// The open streams of output device `output` report one under-run more, as a sound server
    /// reports a stream it had to play without data. Simulated time itself never runs them dry.
    void SimulateUnderrun(int output);
    /// The open streams of output device `output` ask their writer for `frames` frames more
    /// than it wrote so far (fewer when negative), as a device playing by a clock of its own
    /// does. Simulated time itself plays every stream at the same rate.
    void SetClockCorrection(int output, int64_t frames);
    /// A device that is gone refuses to open and to play (kMmNoDriver).
    void SetDeviceGone(WaveDirection direction, int device, bool gone);
    void SetMixerTopology(int input, VirtualMixerTopology topology);
    /// Changes a volume as another program would; open mixers are notified.
    void ChangeVolumeExternally(int input, uint32_t controlId, uint32_t value);
    /// The virtual microphone cannot be made while refused.
    void SetVirtualMicrophoneRefused(bool refused);
    /// While refused, the preferred (default) devices cannot be changed, as when the sound
    /// server denies it.
    void SetDefaultDeviceRefused(bool refused);
    /// Whether a recording stream of input device `input` was told nobody needs it promptly.
    bool RecordingHintedIdle(int input);
    /// How many wave devices of this direction are open now.
    int OpenCount(WaveDirection direction);

    std::vector<std::string> WaveDeviceNames(WaveDirection direction) override;
    unsigned OpenWaveIn(int device, const StreamFormat& format, const WaveBufferShape& shape,
                        ThreadMessageId target, std::unique_ptr<WaveInDevice>& opened) override;
    unsigned OpenWaveOut(int device, const StreamFormat& format, const WaveBufferShape& shape,
                         ThreadMessageId target, std::unique_ptr<WaveOutDevice>& opened) override;
    bool HasEndpoints() override { return false; }
    bool ListEndpoints(WaveDirection direction, std::vector<EndpointInfo>& endpoints,
                       std::string& defaultServerName) override;
    bool SetDefaultEndpoint(WaveDirection direction, const std::string& serverName) override;
    int PreferredWaveDevice(WaveDirection direction) override;
    unsigned SetPreferredWaveDevice(WaveDirection direction, int device) override;
    unsigned GetMixerId(int device, WaveDirection direction, unsigned& mixerId) override;
    unsigned OpenMixer(unsigned mixerId, MixerNotify* notify, std::unique_ptr<MixerDevice>& opened) override;
    bool EnsureVirtualMicrophone(std::string& why) override;
    bool VirtualMicrophoneInUse(bool& inUse) override;

    struct Stream;
    struct MixerState;
    class InDevice;
    class OutDevice;
    class Mixer;

private:
    void RunClock();
    void AdvanceLocked(uint64_t micros);
    void RunStream(Stream& stream);
    int ResolveDevice(WaveDirection direction, int device);
    void Detach(Stream* stream);
    void NotifyMixers(int input, uint32_t controlId);

    std::mutex m_mutex;
    std::vector<std::string> m_inputs;
    std::vector<std::string> m_outputs;
    std::vector<bool> m_inputGone;
    std::vector<bool> m_outputGone;
    std::map<int, int> m_loopbacks;
    std::map<int, std::deque<uint8_t>> m_inputFifo;
    std::map<int, std::vector<uint8_t>> m_played;
    std::map<int, std::shared_ptr<MixerState>> m_mixers;
    std::vector<Stream*> m_streams;
    std::vector<Mixer*> m_openMixers;
    int m_preferred[2] = {0, 0};
    bool m_micRefused = false;
    bool m_defaultRefused = false;
    uint64_t m_nowMicros = 0;

    double m_speed = 0.0;
    bool m_quit = false;
    std::condition_variable m_clockChanged;
    std::thread m_clock;
};

} // namespace larimo
