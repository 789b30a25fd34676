// SPDX-License-Identifier: GPL-3.0-or-later
#include "teststream.h"

#include "config.h"
#include "error.h"
#include "filltext.h"
#include "mlog.h"
#include "platform/AudioBackend.h"
#include "texts.h"
#include "wave.h"

#include <algorithm>
#include <chrono>
#include <thread>

namespace larimo {

namespace {

// Both stream locks, the recording stream's first, as every caller takes them.
class BothLocks {
public:
    BothLocks(PaStream& in, PaStream& out)
        : m_in(in)
        , m_out(out)
    {
        m_in.Lock();
        m_out.Lock();
    }
    ~BothLocks()
    {
        m_out.Unlock();
        m_in.Unlock();
    }
    BothLocks(const BothLocks&) = delete;
    BothLocks& operator=(const BothLocks&) = delete;

private:
    PaStream& m_in;
    PaStream& m_out;
};

// How long a stop waits for the device to hand back the buffers it dropped, so that their
// late done notices cannot be taken for the next preview's.
constexpr auto kDrainLimit = std::chrono::milliseconds(300);
constexpr auto kDrainStep = std::chrono::milliseconds(2);

} // namespace

TestStream::TestStream(TestStreamOwner* owner, Poster poster)
    : m_owner(owner)
    , m_poster(std::move(poster))
    , m_alive(std::make_shared<TestStream*>(this))
{
    SetStopTimeout(kStopTimeoutMs);
    if (StartEngine() != 0)
        LogError("TestStream: the audio engine thread could not be started");
}

TestStream::~TestStream()
{
    m_alive.reset();
    CloseStream();
    StopEngine();
    UnLoad();
}

bool TestStream::InitTestStream(const Config& settings, void* messageOwner)
{
    LogEnter("TestStream::InitTestStream");
    int recDevice = kNoDevice;
    int playDevice = kNoDevice;
    std::string failure;
    if (!settings.m_monitor.empty() && PaGetDevNByName(settings.m_monitor, 2, playDevice) != kMmeSuccess)
        failure = FillText(193, GetText(195).c_str(), settings.m_monitor.c_str());
    else if (!settings.m_input.empty() && PaGetDevNByName(settings.m_input, 1, recDevice) != kMmeSuccess)
        failure = FillText(193, GetText(194).c_str(), settings.m_input.c_str());
    if (failure.empty()) {
        const unsigned result = OpenStream(recDevice, playDevice, settings.m_mixInSrc, settings.m_inBuffSizeMs,
                                           settings.m_inBuffsN);
        if (result != kMmeSuccess)
            failure = FillText(205, MmeErrorText(result).c_str());
    }
    if (!failure.empty()) {
        LogError("TestStream::InitTestStream: %s", failure.c_str());
        ShowMessage(messageOwner, MB_OK | MB_ICONERROR, "%s", failure.c_str());
    }
    LogLeaveResult("TestStream::InitTestStream", failure.empty());
    return failure.empty();
}

unsigned TestStream::OpenStream(int recDevice, int playDevice, const std::string& mixInSrc, uint32_t bufferMs,
                                uint32_t bufferCount)
{
    LogEnter("TestStream::OpenStream", "recDev=%d, playDev=%d, mixInSrc=%s, buffSizeMs=%u, buffsN=%u", recDevice,
             playDevice, mixInSrc.c_str(), bufferMs, bufferCount);
    CloseStream();
    const auto playCount = static_cast<uint8_t>(bufferCount * 3 / 2);
    unsigned result = m_out.Open(ThreadId(), playDevice, 16, kSampleRate, bufferMs, playCount);
    if (result == kMmeSuccess)
        result = m_in.Open(ThreadId(), recDevice, 16, kSampleRate, bufferMs, bufferCount);
    if (result == kMmeSuccess) {
        unsigned mixerId = 0;
        const bool mixerOpen = recDevice >= 0 &&
                               CurrentAudioBackend()->GetMixerId(recDevice, WaveDirection::Capture, mixerId) == kMmOk &&
                               m_mixer.Open(mixerId, kMixerObjectWaveIn, nullptr);
        if (mixerOpen) {
            m_out.Lock();
            m_mixBuffer.assign(m_out.SamplesPerBuffer(), 0);
            m_out.Unlock();
        } else {
            LogError("Erorr of open port mixer");
            LogError("mixer error");
        }
    } else {
        CloseStream();
    }
    LogLeaveResult("TestStream::OpenStream", MmeErrorText(result));
    return result;
}

void TestStream::CloseStream()
{
    m_running = false;
    m_out.Stop();
    m_in.Stop();
    m_out.Close();
    m_in.Close();
    m_mixer.Close();
    m_out.Lock();
    m_mixBuffer.clear();
    m_mixBuffer.shrink_to_fit();
    m_out.Unlock();
}

MoVstErrorNum TestStream::LoadEffect(const std::string& path)
{
    MoVstErrorNum result;
    {
        const BothLocks locks(m_in, m_out);
        result = m_effect.SafeLoad(path, false, nullptr);
        if (result == kVstSuccess)
            m_effect.SetProcessingEnabled(true);
    }
    LogInfo("TestStream::LoadEffect(%s) = %s", path.c_str(), MoVstErrorText(result).c_str());
    return result;
}

unsigned TestStream::LoadWave(const std::string& path)
{
    unsigned result;
    {
        const BothLocks locks(m_in, m_out);
        result = m_sound.Load(path);
        m_sound.SetActive(true);
        m_sound.SetLoop(false);
        m_soundLoaded = result == kWaveSuccess;
    }
    LogInfo("TestStream::LoadWave(%s) = %s", path.c_str(), WaveErrorText(result).c_str());
    return result;
}

unsigned TestStream::TestStart()
{
    m_stopRequested.store(false);
    m_generation.fetch_add(1);
    if (!m_out.IsOpen()) {
        LogWarning("TestStream::TestStart: no playback device is open");
        Stop();
        return kMmeDeviceNotFound;
    }
    m_out.Activate();
    if (m_effect.IsLoaded()) {
        const unsigned result = m_in.Start();
        if (result != kMmeSuccess) {
            Stop();
            return result;
        }
    }
    {
        const BothLocks locks(m_in, m_out);
        if (m_soundLoaded && m_mixBuffer.empty()) {
            LogError("TestStream::TestStart: no mixing buffer for the sound (the mixer could not be opened)");
        } else {
            for (int i = 0; i < kPrimeBuffers && m_soundLoaded && m_sound.Playing(); ++i) {
                if (!WriteSoundBuffer())
                    break;
            }
            m_running = true;
            return kMmeSuccess;
        }
    }
    Stop();
    return kMmeBufferError;
}

bool TestStream::WriteSoundBuffer()
{
    const std::size_t count = m_mixBuffer.size();
    std::fill(m_mixBuffer.begin(), m_mixBuffer.end(), int16_t{0});
    m_sound.MixInto(m_mixBuffer.data(), count);
    ScaleVolume(m_mixBuffer.data(), count, TestVolume());
    const bool last = !m_sound.Playing();
    return m_out.Write(m_mixBuffer.data(), static_cast<uint32_t>(count * sizeof(int16_t)), last) == kMmeSuccess;
}

void TestStream::Stop()
{
    m_running = false;
    m_out.Stop();
    m_in.Stop();
    // The buffers the device dropped come back as done notices; wait for them here so that
    // none of them is taken for the end of the next preview.
    const auto deadline = std::chrono::steady_clock::now() + kDrainLimit;
    while (m_out.QueuedCount() > 0 && std::chrono::steady_clock::now() < deadline)
        std::this_thread::sleep_for(kDrainStep);
    if (m_owner != nullptr)
        m_owner->OnTestStop();
    UnLoad();
}

void TestStream::UnLoad()
{
    const BothLocks locks(m_in, m_out);
    m_effect.CloseConfig();
    m_effect.UnLoad();
    m_sound.Clear();
    m_soundLoaded = false;
}

void TestStream::OnInputData(PaBuffer buffer)
{
    const BothLocks locks(m_in, m_out);
    if (!m_effect.IsLoaded())
        return;
    auto* samples = reinterpret_cast<int16_t*>(buffer.data);
    const uint32_t bytes = std::min(buffer.validBytes, m_out.BufferSize());
    m_effect.ProcessMono(samples, bytes);
    ScaleVolume(samples, bytes / sizeof(int16_t), TestVolume());
    m_out.Write(samples, bytes, false);
}

void TestStream::OnOutputDone(PaBuffer buffer)
{
    // The playback stream is locked here; the sound and the mixing buffer are only touched
    // with it held, so the recording stream's lock is never taken after it.
    if (!m_soundLoaded || m_stopRequested.load())
        return;
    if (buffer.last) {
        m_stopRequested.store(true);
        StopFromEngine();
        return;
    }
    if (m_sound.Playing() && !m_mixBuffer.empty())
        WriteSoundBuffer();
}

void TestStream::StopFromEngine()
{
    if (!m_poster)
        return;
    const uint64_t generation = m_generation.load();
    std::weak_ptr<TestStream*> alive = m_alive;
    m_poster([alive, generation] {
        const std::shared_ptr<TestStream*> stream = alive.lock();
        if (stream && (*stream)->m_generation.load() == generation && (*stream)->m_running)
            (*stream)->Stop();
    });
}

} // namespace larimo
