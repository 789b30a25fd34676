// SPDX-License-Identifier: GPL-3.0-or-later
// The panel's local previews: over simulated devices where the case needs exact samples, and
// against the private sound server for an effect on a real recording.
#include "teststream.h"

#include "config.h"
#include "platform/pulse/PulseBackend.h"
#include "wave.h"

#include "EffectTestSupport.h"
#include "WaveTestFiles.h"
#include "audio/AudioTestSupport.h"

#include <gtest/gtest.h>
#include <sndfile.h>

#include <cstdlib>
#include <cstring>
#include <deque>
#include <filesystem>
#include <mutex>
#include <thread>

namespace larimo {
namespace {

namespace fs = std::filesystem;
using test::Eventually;

// Counts the stop notices and keeps the calls the stream hands to the "window thread" until
// the test runs them, as an event loop would.
class Owner : public TestStreamOwner {
public:
    void OnTestStop() override { ++m_stops; }

    TestStream::Poster Poster()
    {
        return [this](std::function<void()> call) {
            const std::lock_guard lock(m_mutex);
            m_posted.push_back(std::move(call));
        };
    }
    std::size_t PostedCount()
    {
        const std::lock_guard lock(m_mutex);
        return m_posted.size();
    }
    void RunPosted()
    {
        std::deque<std::function<void()>> calls;
        {
            const std::lock_guard lock(m_mutex);
            calls.swap(m_posted);
        }
        for (auto& call : calls)
            call();
    }

    int m_stops = 0;

private:
    std::mutex m_mutex;
    std::deque<std::function<void()>> m_posted;
};

std::string AppEffect(const std::string& name)
{
    return std::string(LARIMO_APP_DIR) + "/effects/" + name + ".so";
}

class Preview : public test::VirtualAudioTest {
protected:
    void SetUp() override
    {
        test::VirtualAudioTest::SetUp();
        test::StartEnglishTexts();
        test::TestLogPath();
        m_folder = fs::temp_directory_path() / ("larimo-teststream-" + std::to_string(::getpid()));
        fs::create_directories(m_folder);
    }
    void TearDown() override
    {
        std::error_code ignored;
        fs::remove_all(m_folder, ignored);
        test::VirtualAudioTest::TearDown();
    }

    // A library-format sound of `count` samples, each `value`.
    std::string ConstantSound(std::size_t count, int16_t value)
    {
        const std::string path = (m_folder / "constant.wav").string();
        test::WriteSound(path, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 44100, 1, std::vector<int16_t>(count, value));
        return path;
    }

    std::vector<int16_t> Played(int output)
    {
        const std::vector<uint8_t> bytes = m_audio->TakePlayed(output);
        std::vector<int16_t> samples(bytes.size() / 2);
        std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
        return samples;
    }

    // Plays a sound shorter than one buffer until the engine has handed its stop over.
    bool PlayShortSoundToItsEnd(TestStream& stream)
    {
        if (stream.OpenStream(0, 0, "", 25, 4) != kMmeSuccess ||
            stream.LoadWave(ConstantSound(300, 1000)) != kWaveSuccess || stream.TestStart() != kMmeSuccess)
            return false;
        return Eventually([&] {
            m_audio->Advance(25);
            return m_owner.PostedCount() > 0;
        });
    }

    fs::path m_folder;
    Owner m_owner;
};

TEST_F(Preview, PlaybackGetsHalfAgainAsManyBuffersAndAMixingBufferOfOne)
{
    TestStream stream(&m_owner, m_owner.Poster());
    ASSERT_EQ(stream.OpenStream(0, 0, "", 25, 4), kMmeSuccess);
    EXPECT_EQ(stream.PlaybackStream().BufferCount(), 6U);
    EXPECT_EQ(stream.RecordingStream().BufferCount(), 4U);
    EXPECT_TRUE(stream.HasMixBuffer());
    ASSERT_EQ(stream.OpenStream(0, 0, "", 25, 5), kMmeSuccess);
    EXPECT_EQ(stream.PlaybackStream().BufferCount(), 7U);
    stream.CloseStream();
    EXPECT_FALSE(stream.HasMixBuffer());
    EXPECT_FALSE(stream.PlaybackStream().IsOpen());
}

TEST_F(Preview, ShortSoundPlaysOneLastBufferAtTheTestVolumeAndStopsOnceOnTheWindowThread)
{
    TestStream stream(&m_owner, m_owner.Poster());
    ASSERT_EQ(stream.OpenStream(0, 0, "", 25, 4), kMmeSuccess);
    ASSERT_EQ(stream.LoadWave(ConstantSound(300, 1000)), kWaveSuccess);
    stream.SetTestVolume(50);
    ASSERT_EQ(stream.TestStart(), kMmeSuccess);
    EXPECT_TRUE(stream.IsRunning());
    EXPECT_FALSE(stream.RecordingStream().IsActive()) << "a sound preview needs no microphone";

    ASSERT_TRUE(Eventually([&] {
        m_audio->Advance(25);
        return m_owner.PostedCount() > 0;
    }));
    // The engine thread only hands the stop over; nothing is stopped until the window runs it.
    EXPECT_EQ(m_owner.m_stops, 0);
    EXPECT_TRUE(stream.IsRunning());
    m_owner.RunPosted();
    EXPECT_EQ(m_owner.m_stops, 1);
    EXPECT_FALSE(stream.IsRunning());

    const std::vector<int16_t> played = Played(0);
    const uint32_t perBuffer = stream.PlaybackStream().SamplesPerBuffer();
    ASSERT_GE(played.size(), perBuffer);
    for (std::size_t i = 0; i < 300; ++i)
        ASSERT_EQ(played[i], 500) << "sample " << i;
    for (std::size_t i = 300; i < played.size(); ++i)
        ASSERT_EQ(played[i], 0) << "sample " << i;

    for (int i = 0; i < 8; ++i)
        m_audio->Advance(25);
    EXPECT_EQ(m_owner.PostedCount(), 0U) << "the end of the sound was reported twice";
}

TEST_F(Preview, FullVolumeLeavesSamplesAsTheyAre)
{
    TestStream stream(&m_owner, m_owner.Poster());
    ASSERT_EQ(stream.OpenStream(0, 0, "", 25, 4), kMmeSuccess);
    ASSERT_EQ(stream.LoadWave(ConstantSound(3000, -1234)), kWaveSuccess);
    ASSERT_EQ(stream.TestStart(), kMmeSuccess);
    for (int i = 0; i < 6; ++i)
        m_audio->Advance(25);
    ASSERT_TRUE(Eventually([&] { return m_owner.PostedCount() > 0; }));
    const std::vector<int16_t> played = Played(0);
    ASSERT_GE(played.size(), 3000U);
    for (std::size_t i = 0; i < 3000; ++i)
        ASSERT_EQ(played[i], -1234) << "sample " << i;
}

TEST_F(Preview, OnlyAnEffectPreviewRecordsFromTheMicrophone)
{
    TestStream stream(&m_owner, m_owner.Poster());
    ASSERT_EQ(stream.OpenStream(0, 0, "", 25, 4), kMmeSuccess);
    ASSERT_EQ(stream.TestStart(), kMmeSuccess);
    EXPECT_FALSE(stream.RecordingStream().IsActive());
    stream.Stop();
    EXPECT_EQ(m_owner.m_stops, 1);

    ASSERT_EQ(stream.LoadEffect(AppEffect("Pitch")), kVstSuccess);
    ASSERT_EQ(stream.TestStart(), kMmeSuccess);
    EXPECT_TRUE(stream.RecordingStream().IsActive());
    stream.Stop();
    EXPECT_FALSE(stream.RecordingStream().IsActive());
    EXPECT_FALSE(stream.Effect().IsLoaded()) << "a stop unloads the effect";
}

TEST_F(Preview, WithoutAPlaybackDeviceTheTestStopsAtOnce)
{
    TestStream stream(&m_owner, m_owner.Poster());
    Config settings;
    settings.m_input.clear();
    settings.m_monitor.clear();
    settings.m_inBuffSizeMs = 25;
    settings.m_inBuffsN = 4;
    ASSERT_TRUE(stream.InitTestStream(settings));
    EXPECT_EQ(stream.PlaybackStream().Device(), kNoDevice);
    ASSERT_EQ(stream.LoadWave(ConstantSound(300, 1000)), kWaveSuccess);
    EXPECT_EQ(stream.TestStart(), kMmeDeviceNotFound);
    EXPECT_FALSE(stream.IsRunning());
    EXPECT_EQ(m_owner.m_stops, 1);
}

TEST_F(Preview, ASoundWithoutAMixingBufferIsAnErrorNotSilence)
{
    TestStream stream(&m_owner, m_owner.Poster());
    // No recording device: no mixer, so no mixing buffer.
    ASSERT_EQ(stream.OpenStream(kNoDevice, 0, "", 25, 4), kMmeSuccess);
    EXPECT_FALSE(stream.HasMixBuffer());
    ASSERT_EQ(stream.LoadWave(ConstantSound(300, 1000)), kWaveSuccess);
    EXPECT_EQ(stream.TestStart(), kMmeBufferError);
    EXPECT_FALSE(stream.IsRunning());
    EXPECT_EQ(m_owner.m_stops, 1);
}

TEST_F(Preview, AStopHandedOverForAnEarlierPreviewLeavesTheNextOneRunning)
{
    TestStream stream(&m_owner, m_owner.Poster());
    ASSERT_TRUE(PlayShortSoundToItsEnd(stream));
    // Before the window gets to the handed-over stop, the user starts another preview.
    stream.Stop();
    ASSERT_EQ(stream.LoadWave(ConstantSound(44100, 1000)), kWaveSuccess);
    ASSERT_EQ(stream.TestStart(), kMmeSuccess);
    m_owner.RunPosted();
    EXPECT_TRUE(stream.IsRunning());
    EXPECT_EQ(m_owner.m_stops, 1);
    stream.Stop();
}

TEST_F(Preview, DevicesThatAreNotFoundAreReportedByKind)
{
    TestStream stream(&m_owner, m_owner.Poster());
    Config settings;
    settings.m_inBuffSizeMs = 25;
    settings.m_inBuffsN = 4;
    settings.m_input = "Microphone (USB Audio Device)";
    settings.m_monitor = "No Such Speakers";
    EXPECT_FALSE(stream.InitTestStream(settings));
    EXPECT_NE(test::ReadTestLog().find("Playback sound device name error"), std::string::npos);
    settings.m_monitor = "Speakers";
    settings.m_input = "No Such Microphone";
    EXPECT_FALSE(stream.InitTestStream(settings));
    EXPECT_NE(test::ReadTestLog().find("Recording sound device name error"), std::string::npos);
    settings.m_input = "Microphone (USB Audio Device)";
    EXPECT_TRUE(stream.InitTestStream(settings));
}

TEST_F(Preview, DestroyingTheStreamWithAStopStillPostedIsSafe)
{
    {
        TestStream stream(&m_owner, m_owner.Poster());
        ASSERT_TRUE(PlayShortSoundToItsEnd(stream));
    }
    m_owner.RunPosted();
    EXPECT_EQ(m_owner.m_stops, 0);
}

// An effect preview on the private sound server: the test microphone hears a tone, the stream
// carries it through the pitch effect to the speakers, whose monitor is measured.
class PreviewOnSoundServer : public test::PrivateSoundServerTest {};

TEST_F(PreviewOnSoundServer, AnEffectPreviewPitchesTheMicrophone)
{
    constexpr double kToneHz = 300.0;
    ASSERT_EQ(std::system("pactl load-module module-sine sink=mic_feed frequency=300 >/dev/null"), 0);
    struct Unload {
        ~Unload() { std::system("pactl unload-module module-sine >/dev/null 2>&1"); }
    } unload;

    Owner owner;
    TestStream stream(&owner, owner.Poster());
    Config settings;
    settings.m_input = "Microphone (Test)";
    settings.m_monitor = "Speakers";
    settings.m_inBuffSizeMs = 25;
    settings.m_inBuffsN = 4;
    ASSERT_TRUE(stream.InitTestStream(settings));

    // What reaches the speakers, heard through their monitor.
    test::CallbackEngine listener;
    ASSERT_EQ(listener.StartEngine(), kMmeSuccess);
    PaStreamIn heard;
    ASSERT_TRUE(test::StartRecording(listener, heard, "Monitor of Speakers", 25, 4));

    const auto measure = [&](bool withEffect) {
        if (withEffect) {
            EXPECT_EQ(stream.LoadEffect(AppEffect("Pitch")), kVstSuccess);
            // The shipped Chipmunk preset.
            stream.Effect().SetParameter(0, 1.0f);
            stream.Effect().SetParameter(1, 0.791667f);
        }
        EXPECT_EQ(stream.TestStart(), kMmeSuccess);
        const std::size_t from = listener.Inputs().size();
        // Let the effect settle, then take a second of what the speakers play.
        EXPECT_TRUE(listener.WaitInputs(from + 60));
        std::vector<int16_t> samples;
        const auto seen = listener.Inputs();
        for (std::size_t i = from + 20; i < seen.size(); ++i) {
            const auto* data = reinterpret_cast<const int16_t*>(seen[i].bytes.data());
            samples.insert(samples.end(), data, data + seen[i].bytes.size() / 2);
        }
        stream.Stop();
        return test::DominantFrequency(samples, 44100, 100, 2000);
    };
    // A preview with no effect loaded records nothing and plays nothing of the microphone.
    const double dry = measure(false);
    const double pitched = measure(true);
    heard.Stop();
    heard.Close();
    std::printf("tone %.0f Hz: speakers dominant %.1f Hz without effect, %.1f Hz with Chipmunk (ratio %.3f)\n",
                kToneHz, dry, pitched, pitched / kToneHz);
    EXPECT_GT(pitched / kToneHz, 1.4) << "the preview did not pitch the microphone up";
    EXPECT_LT(pitched / kToneHz, 2.6);
    EXPECT_EQ(owner.m_stops, 2);
}

} // namespace
} // namespace larimo
