// SPDX-License-Identifier: GPL-3.0-or-later
// Local previews without the voice service: a voice effect on the user's own microphone, or a
// sound, played through the user's own speakers by an audio engine inside the panel.
#pragma once

#include "effect.h"
#include "mix.h"
#include "wmme.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace larimo {

class Config;

/// Who hears that a preview has stopped (a page of the options or the effect editor).
class TestStreamOwner {
public:
    virtual ~TestStreamOwner() = default;
    /// The preview has stopped, by the user or at the end of its sound. Window thread.
    virtual void OnTestStop() = 0;
};

/// An engine with one recording stream, one playback stream and the recording device's mixer,
/// holding one effect for effect previews and one sound for sound previews.
///
/// Threads: every public call is for the window thread. The engine thread runs the effect
/// over what the microphone delivers and refills the playback from the sound. When a sound has
/// played to its end, the engine thread never stops the streams itself: it hands the stop to
/// the window thread through the poster, so the owner hears of it there, and no lock is ever
/// taken in two orders.
class TestStream : public PortAudio {
public:
    /// Runs a call on the window thread later (a queued call); the panel passes one that
    /// posts to its event loop.
    using Poster = std::function<void(std::function<void()>)>;

    static constexpr uint32_t kSampleRate = 44100;
    static constexpr uint32_t kStopTimeoutMs = 800;
    /// How many buffers a sound preview queues before the first one has played.
    static constexpr int kPrimeBuffers = 6;

    /// Starts the engine thread. `owner` may be null.
    explicit TestStream(TestStreamOwner* owner, Poster poster);
    ~TestStream() override;

    /// Looks up the recording device `input` and the playback device `monitor` of the sound
    /// cards settings and opens the streams with the stream settings. A device that is not
    /// found or streams that cannot be opened are shown in an error box over `messageOwner`
    /// and logged; the result is then false.
    bool InitTestStream(const Config& settings, void* messageOwner = nullptr);
    /// Device numbers -2 open nothing. The playback side gets one and a half times
    /// `bufferCount` buffers. An MmeErrorNum; a mixer that cannot be opened only leaves sound
    /// previews without their mixing buffer.
    unsigned OpenStream(int recDevice, int playDevice, const std::string& mixInSrc, uint32_t bufferMs,
                        uint32_t bufferCount);
    void CloseStream();

    /// Unloads what is loaded and loads the plug-in at `path` for the next preview.
    MoVstErrorNum LoadEffect(const std::string& path);
    /// Loads the WAV file at `path` to play once in the next preview: a WaveErrorNum.
    unsigned LoadWave(const std::string& path);

    /// Starts the preview of what is loaded: the microphone through the effect, or the sound.
    /// Without an open playback stream it stops at once (and the owner hears of it). An
    /// MmeErrorNum: a sound preview without a mixing buffer gives kMmeBufferError and stops.
    unsigned TestStart();
    /// Stops both streams, tells the owner and unloads the effect and the sound.
    void Stop();
    /// Closes the effect's parameter window and forgets the effect and the sound.
    void UnLoad();

    void SetOwner(TestStreamOwner* owner) { m_owner = owner; }
    TestStreamOwner* Owner() const { return m_owner; }
    bool IsRunning() const { return m_running; }
    /// Percent 0..100 applied to what the preview plays.
    void SetTestVolume(uint8_t percent) { m_testVolume.store(percent, std::memory_order_relaxed); }
    uint8_t TestVolume() const { return m_testVolume.load(std::memory_order_relaxed); }

    MoAudioEffect& Effect() { return m_effect; }
    PortMixer& Mixer() { return m_mixer; }
    PaStreamIn& RecordingStream() { return m_in; }
    PaStreamOut& PlaybackStream() { return m_out; }
    /// Whether a mixing buffer exists (the streams are open and the mixer could be opened).
    bool HasMixBuffer() const { return !m_mixBuffer.empty(); }

protected:
    void OnInputData(PaBuffer buffer) override;
    void OnOutputDone(PaBuffer buffer) override;

private:
    // Mixes the next buffer of the sound into the mixing buffer and queues it. Playback
    // stream locked. False when no buffer was free.
    bool WriteSoundBuffer();
    void StopFromEngine();

    MixSound m_sound;
    MoAudioEffect m_effect;
    PaStreamOut m_out;
    PaStreamIn m_in;
    PortMixer m_mixer;
    std::vector<int16_t> m_mixBuffer;
    std::atomic<bool> m_stopRequested{false};
    bool m_running = false;
    bool m_soundLoaded = false;
    std::atomic<uint8_t> m_testVolume{100};
    TestStreamOwner* m_owner = nullptr;
    Poster m_poster;
    // Each preview has its own number, so a stop handed over for an earlier preview cannot
    // stop a later one; the token tells a posted call whether the stream still exists.
    std::atomic<uint64_t> m_generation{0};
    std::shared_ptr<TestStream*> m_alive;
};

} // namespace larimo
