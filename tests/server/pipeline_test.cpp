// SPDX-License-Identifier: GPL-3.0-or-later
// The audio pipeline over simulated devices, where every sample can be checked: the voice
// passes bit for bit, sounds are mixed at their volume and end once, traces match the output,
// a crashing plug-in leaves the voice dry, and the pipeline pauses and comes back.
#include "AudioPipeline.h"

#include "audio/AudioTestSupport.h"
#include "config.h"
#include "mlog.h"
#include "modb.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <mutex>

namespace larimo {
namespace {

namespace fs = std::filesystem;
using test::Eventually;

constexpr int kMic = 0;
constexpr int kSpeakers = 0;
constexpr int kVirtualOut = 1; // made by the pipeline after the simulated devices
constexpr int kVirtualIn = 1;
constexpr uint32_t kBlock = 440; // 10 ms, rounded to whole noise suppressor frames

std::vector<uint8_t> ToBytes(const std::vector<int16_t>& samples)
{
    std::vector<uint8_t> bytes(samples.size() * 2);
    if (!bytes.empty())
        std::memcpy(bytes.data(), samples.data(), bytes.size());
    return bytes;
}

std::vector<int16_t> ToSamples(const std::vector<uint8_t>& bytes)
{
    std::vector<int16_t> samples(bytes.size() / 2);
    if (!samples.empty())
        std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    return samples;
}

void WriteBytes(const fs::path& path, const std::vector<uint8_t>& bytes)
{
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(bytes.data()),
                                                static_cast<std::streamsize>(bytes.size()));
}

// The canonical 44-byte header of the library format, then the samples.
void WriteLibraryWav(const fs::path& path, const std::vector<int16_t>& samples)
{
    const auto u32 = [](std::vector<uint8_t>& out, uint32_t value) {
        for (int i = 0; i < 4; ++i)
            out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    };
    const auto dataBytes = static_cast<uint32_t>(samples.size() * 2);
    std::vector<uint8_t> file = {'R', 'I', 'F', 'F'};
    u32(file, 36 + dataBytes);
    file.insert(file.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' ', 16, 0, 0, 0, 1, 0, 1, 0});
    u32(file, 44100);
    u32(file, 88200);
    file.insert(file.end(), {2, 0, 16, 0, 'd', 'a', 't', 'a'});
    u32(file, dataBytes);
    const std::vector<uint8_t> data = ToBytes(samples);
    file.insert(file.end(), data.begin(), data.end());
    WriteBytes(path, file);
}

// A recognisable voice: no two neighbouring blocks alike, never silent.
std::vector<int16_t> Voice(size_t count)
{
    std::vector<int16_t> samples(count);
    for (size_t i = 0; i < count; ++i)
        samples[i] = static_cast<int16_t>(1000 + (i * 7919) % 20000);
    return samples;
}

class PipelineTest : public test::VirtualAudioTest {
protected:
    PipelineTest()
        : VirtualAudioTest({"Microphone"}, {"Speakers"})
    {
    }

    void SetUp() override
    {
        VirtualAudioTest::SetUp();
        test::StartEnglishTexts();
        char pattern[] = "/tmp/larimo-pipe-XXXXXX";
        m_root = mkdtemp(pattern);
        LibInit(m_root.string());
        m_settings = std::make_shared<Config>(m_root.string());
        m_settings->m_inBuffSizeMs = 10;
        // The cases find the voice sample by sample in what is played: nothing may clean it.
        m_settings->m_noiseSuppression = false;
        m_settings->m_inBuffsN = 8;
        m_settings->m_outBuffsN = 8;
        m_settings->m_monBuffsN = 8;
        m_audio->SetSpeed(2.0);
    }

    void TearDown() override
    {
        m_pipeline.reset();
        VirtualAudioTest::TearDown();
        std::error_code ignored;
        fs::remove_all(m_root, ignored);
    }

    void StartPipeline(bool idleWhenUnused = false)
    {
        AudioPipeline::Events events;
        events.funSoundEnded = [this](size_t slot, uint32_t starts) {
            std::lock_guard lock(m_mutex);
            m_ended.emplace_back(slot, starts);
        };
        events.error = [this](std::string text) {
            std::lock_guard lock(m_mutex);
            m_errors.push_back(std::move(text));
        };
        events.trace = [this](const int16_t* samples, size_t count) {
            std::lock_guard lock(m_mutex);
            m_trace.insert(m_trace.end(), samples, samples + count);
        };
        AudioPipeline::Options options;
        options.idleWhenUnused = idleWhenUnused;
        options.reconnectMs = 50;
        m_pipeline = std::make_unique<AudioPipeline>(options, std::move(events));
        Apply();
        ASSERT_TRUE(Eventually([this] { return m_pipeline->GetStats().running; }));
        m_audio->TakePlayed(kVirtualOut);
    }

    void Apply()
    {
        m_state.settings = m_settings;
        m_pipeline->Apply(std::make_shared<const ServiceState>(m_state));
    }

    // Collects what the virtual microphone played until `count` samples have come.
    std::vector<int16_t> Played(size_t count, int device = kVirtualOut)
    {
        std::vector<int16_t> played;
        Eventually([&] {
            const std::vector<int16_t> more = ToSamples(m_audio->TakePlayed(device));
            played.insert(played.end(), more.begin(), more.end());
            return played.size() >= count;
        });
        return played;
    }

    std::vector<std::string> Errors()
    {
        std::lock_guard lock(m_mutex);
        return m_errors;
    }

    std::vector<std::pair<size_t, uint32_t>> Ended()
    {
        std::lock_guard lock(m_mutex);
        return m_ended;
    }

    fs::path m_root;
    std::shared_ptr<Config> m_settings;
    ServiceState m_state;
    std::unique_ptr<AudioPipeline> m_pipeline;
    std::mutex m_mutex;
    std::vector<std::string> m_errors;
    std::vector<std::pair<size_t, uint32_t>> m_ended;
    std::vector<int16_t> m_trace;
};

// Finds `part` in `whole`; the index or npos.
size_t Find(const std::vector<int16_t>& whole, const std::vector<int16_t>& part)
{
    const auto at = std::search(whole.begin(), whole.end(), part.begin(), part.end());
    return at == whole.end() ? std::string::npos : static_cast<size_t>(at - whole.begin());
}

TEST_F(PipelineTest, VoicePassesUnchangedAndTheTraceShowsWhatWasPlayed)
{
    StartPipeline();
    const std::vector<int16_t> voice = Voice(kBlock * 20);
    m_audio->InjectInput(kMic, ToBytes(voice));
    const std::vector<int16_t> played = Played(kBlock * 40);
    EXPECT_NE(Find(played, voice), std::string::npos) << "the voice did not come out whole and in order";

    ASSERT_TRUE(Eventually([this] {
        std::lock_guard lock(m_mutex);
        return Find(m_trace, Voice(kBlock * 20)) != std::string::npos;
    }));
    EXPECT_EQ(m_pipeline->GetStats().blockSamples, kBlock);
    EXPECT_TRUE(Errors().empty());
}

TEST_F(PipelineTest, BackgroundLoopsAtItsVolume)
{
    // 300 samples: shorter than a block, so the loop wraps inside blocks.
    std::vector<int16_t> loop(300);
    for (size_t i = 0; i < loop.size(); ++i)
        loop[i] = static_cast<int16_t>(static_cast<int>(i) * 100 - 15000);
    WriteLibraryWav(m_root / "backsounds" / "Ramp.wav", loop);
    m_state.backSounds[1] = {"Ramp.wav", 50};
    m_state.activeBackSound = 1;
    StartPipeline();

    const std::vector<int16_t> played = Played(kBlock * 10);
    std::vector<int16_t> half(loop.size() * 2);
    for (size_t i = 0; i < half.size(); ++i)
        half[i] = static_cast<int16_t>(static_cast<float>(loop[i % loop.size()]) * 0.5f);
    EXPECT_NE(Find(played, half), std::string::npos) << "background missing, at the wrong level or broken at the seam";

    m_state.activeBackSound = -1;
    Apply();
    m_audio->TakePlayed(kVirtualOut);
    Played(kBlock * 4); // the switch takes effect at a block start
    const std::vector<int16_t> after = Played(kBlock * 10);
    EXPECT_TRUE(std::all_of(after.begin(), after.end(), [](int16_t s) { return s == 0; }));
}

TEST_F(PipelineTest, FunSoundPlaysOnceEndsAndCanBeRestartedOrStopped)
{
    WriteLibraryWav(m_root / "emoticsounds" / "Voices" / "Hi.wav", std::vector<int16_t>(2000, 1000));
    WriteLibraryWav(m_root / "emoticsounds" / "Long.wav", std::vector<int16_t>(441000, 500));
    m_state.funSounds = {{"Voices\\Hi.wav"}, {"Long.wav"}};
    StartPipeline();

    m_state.funSounds[0].playing = true;
    m_state.funSounds[0].starts = 1;
    Apply();
    ASSERT_TRUE(Eventually([this] { return !Ended().empty(); }));
    EXPECT_EQ(Ended().front(), (std::pair<size_t, uint32_t>{0, 1}));
    const std::vector<int16_t> played = Played(kBlock * 10);
    EXPECT_EQ(std::count(played.begin(), played.end(), int16_t{1000}), 2000) << "played other than exactly once";

    // The long one is stopped before it ends: silence, and no report of an end.
    m_state.funSounds[0].playing = false;
    m_state.funSounds[1].playing = true;
    m_state.funSounds[1].starts = 1;
    Apply();
    ASSERT_TRUE(Eventually([this] {
        const std::vector<int16_t> more = ToSamples(m_audio->TakePlayed(kVirtualOut));
        return std::count(more.begin(), more.end(), int16_t{500}) > 0;
    }));
    m_state.funSounds[1].playing = false;
    Apply();
    Played(kBlock * 4);
    const std::vector<int16_t> stopped = Played(kBlock * 10);
    EXPECT_EQ(std::count(stopped.begin(), stopped.end(), int16_t{500}), 0);
    EXPECT_EQ(Ended().size(), 1u);
}

TEST_F(PipelineTest, UnreadableSoundsReportAnErrorAndEndAtOnce)
{
    WriteBytes(m_root / "emoticsounds" / "Broken.wav", {'n', 'o', 't', ' ', 'w', 'a', 'v'});
    m_state.funSounds = {{"Broken.wav", true, 1}};
    m_state.backSounds[0] = {"Missing.wav", 100};
    m_state.activeBackSound = 0;
    StartPipeline();
    ASSERT_TRUE(Eventually([this] { return Errors().size() >= 2; }));
    EXPECT_NE(Errors()[0].find("Missing.wav"), std::string::npos);
    EXPECT_NE(Errors()[1].find("Broken.wav"), std::string::npos);
    ASSERT_TRUE(Eventually([this] { return !Ended().empty(); }));
    EXPECT_EQ(Ended().front(), (std::pair<size_t, uint32_t>{0, 1}));
}

class PipelineEffectTest : public PipelineTest {
protected:
    void UseEffect(const std::string& plugin, const fs::path& file)
    {
        fs::create_directories(m_root / "effects");
        fs::copy_file(file, m_root / "effects" / (plugin + ".so"));
        m_settings->m_effects.push_back({plugin, "Broken", {}});
        m_state.effectSlots[2] = "Broken";
        m_state.activeEffect = 2;
    }
};

TEST_F(PipelineEffectTest, CrashingPluginIsReportedAndTheVoiceGoesOnDry)
{
    UseEffect("CrashOnProcess", fs::path(LARIMO_TEST_PLUGIN_DIR) / "CrashOnProcess.so");
    StartPipeline();
    m_audio->InjectInput(kMic, ToBytes(Voice(kBlock * 4)));
    ASSERT_TRUE(Eventually([this] { return !Errors().empty(); }));
    EXPECT_NE(Errors().front().find("crashed"), std::string::npos) << Errors().front();

    m_audio->TakePlayed(kVirtualOut);
    const std::vector<int16_t> voice = Voice(kBlock * 10);
    m_audio->InjectInput(kMic, ToBytes(voice));
    EXPECT_NE(Find(Played(kBlock * 30), voice), std::string::npos);
    EXPECT_TRUE(m_pipeline->GetStats().running);
}

TEST_F(PipelineEffectTest, EffectsThatCannotBeLoadedAreReported)
{
    fs::create_directories(m_root / "effects");
    WriteBytes(m_root / "effects" / "NotAPlugin.so", {1, 2, 3});
    m_settings->m_effects.push_back({"NotAPlugin", "Odd", {}});
    m_state.effectSlots = {"Odd", "Nowhere", ""};
    m_state.activeEffect = 0;
    StartPipeline();
    ASSERT_TRUE(Eventually([this] { return !Errors().empty(); }));
    EXPECT_EQ(Errors()[0].rfind("Error loading VST plug-in: ", 0), 0u) << Errors()[0];

    m_state.activeEffect = 1;
    Apply();
    ASSERT_TRUE(Eventually([this] { return Errors().size() >= 2; }));
    EXPECT_EQ(Errors()[1], "VST plug-in for effect \"Nowhere\" is not defined");
}

TEST_F(PipelineTest, ListenInFollowsTheListenModeAndVolume)
{
    m_settings->m_listen = 1; // only while a voice effect is active
    m_state.monitorOn = true;
    m_state.monitorVol = 50;
    StartPipeline();
    m_audio->InjectInput(kMic, ToBytes(Voice(kBlock * 10)));
    Played(kBlock * 20);
    EXPECT_TRUE(m_audio->TakePlayed(kSpeakers).empty()) << "listen-in played with no voice effect active";

    m_settings->m_listen = 0; // always
    Apply();
    std::vector<int16_t> voice = Voice(kBlock * 10);
    m_audio->InjectInput(kMic, ToBytes(voice));
    const std::vector<int16_t> heard = Played(kBlock * 20, kSpeakers);
    for (int16_t& sample : voice)
        sample = static_cast<int16_t>(static_cast<float>(sample) * 0.5f);
    EXPECT_NE(Find(heard, voice), std::string::npos);
}

TEST_F(PipelineTest, PausesWhileNobodyRecordsAndResumesWhenSomeoneDoes)
{
    StartPipeline(true);
    ASSERT_TRUE(Eventually([this] { return m_pipeline->GetStats().idle; }));
    m_audio->TakePlayed(kVirtualOut);
    EXPECT_TRUE(Played(kBlock * 5).empty()) << "the virtual microphone was fed while nobody recorded";
    EXPECT_TRUE(Eventually([this] { return m_audio->RecordingHintedIdle(kMic); }))
        << "the microphone may wake the service less often meanwhile";

    // A program starts recording from the virtual microphone.
    auto queue = ThreadMessageQueue::Create();
    std::unique_ptr<WaveInDevice> recorder;
    const StreamFormat format = MonoPcmFormat(44100, 16);
    ASSERT_EQ(m_audio->OpenWaveIn(kVirtualIn, format, {kBlock * 2, 4}, queue->Id(), recorder), kMmOk);
    ASSERT_EQ(recorder->Start(), kMmOk);
    ASSERT_TRUE(Eventually([this] { return !m_pipeline->GetStats().idle; }));
    EXPECT_GE(Played(kBlock * 5).size(), kBlock * 5);
    EXPECT_TRUE(Eventually([this] { return !m_audio->RecordingHintedIdle(kMic); }));
    recorder->Reset();
    recorder->Close();
    queue->Unregister();
}

// The simulated devices, with a recorder count the test sets as a sound server's events would.
class CountingAudio final : public AudioBackend {
public:
    explicit CountingAudio(std::shared_ptr<VirtualAudio> audio)
        : m_audio(std::move(audio))
    {
    }

    std::shared_ptr<std::atomic<int32_t>> count = std::make_shared<std::atomic<int32_t>>(0);

    std::vector<std::string> WaveDeviceNames(WaveDirection direction) override
    {
        return m_audio->WaveDeviceNames(direction);
    }
    unsigned OpenWaveIn(int device, const StreamFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
                        std::unique_ptr<WaveInDevice>& opened) override
    {
        return m_audio->OpenWaveIn(device, format, shape, target, opened);
    }
    unsigned OpenWaveOut(int device, const StreamFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
                         std::unique_ptr<WaveOutDevice>& opened) override
    {
        return m_audio->OpenWaveOut(device, format, shape, target, opened);
    }
    bool HasEndpoints() override { return m_audio->HasEndpoints(); }
    bool ListEndpoints(WaveDirection direction, std::vector<EndpointInfo>& endpoints, std::string& byDefault) override
    {
        return m_audio->ListEndpoints(direction, endpoints, byDefault);
    }
    bool SetDefaultEndpoint(WaveDirection direction, const std::string& name) override
    {
        return m_audio->SetDefaultEndpoint(direction, name);
    }
    int PreferredWaveDevice(WaveDirection direction) override { return m_audio->PreferredWaveDevice(direction); }
    unsigned SetPreferredWaveDevice(WaveDirection direction, int device) override
    {
        return m_audio->SetPreferredWaveDevice(direction, device);
    }
    unsigned GetMixerId(int device, WaveDirection direction, unsigned& mixerId) override
    {
        return m_audio->GetMixerId(device, direction, mixerId);
    }
    unsigned OpenMixer(unsigned mixerId, MixerNotify* notify, std::unique_ptr<MixerDevice>& opened) override
    {
        return m_audio->OpenMixer(mixerId, notify, opened);
    }
    bool EnsureVirtualMicrophone(std::string& why) override { return m_audio->EnsureVirtualMicrophone(why); }
    bool VirtualMicrophoneInUse(bool& inUse) override
    {
        ++asked;
        return m_audio->VirtualMicrophoneInUse(inUse);
    }
    std::shared_ptr<const std::atomic<int32_t>> WatchVirtualMicrophone() override { return count; }

    std::atomic<int> asked{0};

private:
    std::shared_ptr<VirtualAudio> m_audio;
};

// Nobody asks the backend while it counts recorders itself: the count alone pauses and
// resumes the voice, an unknown count keeps it flowing, and listening in overrides a zero.
TEST_F(PipelineTest, FollowsTheBackendsRecorderCountWithoutAsking)
{
    auto counting = std::make_shared<CountingAudio>(m_audio);
    SetAudioBackend(counting);
    StartPipeline(true);
    ASSERT_TRUE(Eventually([this] { return m_pipeline->GetStats().idle; }));
    m_audio->TakePlayed(kVirtualOut);
    EXPECT_TRUE(Played(kBlock * 5).empty()) << "the virtual microphone was fed while the count was 0";

    // No real recorder exists, so asking the simulated devices would keep it paused.
    counting->count->store(1);
    ASSERT_TRUE(Eventually([this] { return !m_pipeline->GetStats().idle; }));
    EXPECT_GE(Played(kBlock * 5).size(), kBlock * 5);

    counting->count->store(0);
    ASSERT_TRUE(Eventually([this] { return m_pipeline->GetStats().idle; }));
    counting->count->store(kRecordersUnknown);
    EXPECT_TRUE(Eventually([this] { return !m_pipeline->GetStats().idle; })) << "paused on an unknown count";

    counting->count->store(0);
    ASSERT_TRUE(Eventually([this] { return m_pipeline->GetStats().idle; }));
    m_settings->m_listen = 0;
    m_state.monitorOn = true;
    m_state.monitorVol = 100;
    Apply();
    EXPECT_TRUE(Eventually([this] { return !m_pipeline->GetStats().idle; })) << "paused while listening in";
    EXPECT_EQ(counting->asked.load(), 0) << "the backend was asked although it counts";
}

// Under-runs of the virtual microphone count while the voice flows; those of a pause, when the
// pipeline stops feeding it on purpose, do not. The log says how many there were.
TEST_F(PipelineTest, CountsUnderrunsOnlyWhileTheVirtualMicrophoneIsFed)
{
    const std::string logPath = (std::filesystem::temp_directory_path() /
                                 ("larimo-pipeline-gaps-" + std::to_string(getpid()) + ".log")).string();
    LogOpen(logPath, false, false, false, false, false);
    auto counting = std::make_shared<CountingAudio>(m_audio);
    SetAudioBackend(counting);
    counting->count->store(1);
    StartPipeline(true);
    Played(kBlock * 10);
    m_audio->SimulateUnderrun(kVirtualOut);
    m_audio->SimulateUnderrun(kVirtualOut);
    EXPECT_TRUE(Eventually([this] { return m_pipeline->GetStats().underruns == 2; }));

    counting->count->store(0);
    ASSERT_TRUE(Eventually([this] { return m_pipeline->GetStats().idle; }));
    m_audio->SimulateUnderrun(kVirtualOut);
    // Two more blocks: the audio thread has looked at the device since.
    const uint64_t blocks = m_pipeline->GetStats().blocks;
    ASSERT_TRUE(Eventually([&] { return m_pipeline->GetStats().blocks >= blocks + 2; }));
    counting->count->store(1);
    ASSERT_TRUE(Eventually([this] { return !m_pipeline->GetStats().idle; }));
    Played(kBlock * 10);
    EXPECT_EQ(m_pipeline->GetStats().underruns, 2u) << "counted the under-run of the pause";

    m_audio->SimulateUnderrun(kVirtualOut);
    EXPECT_TRUE(Eventually([this] { return m_pipeline->GetStats().underruns == 3; }));

    m_pipeline.reset();
    LogOpen("", false, false, false, false, false);
    std::ifstream file(logPath);
    const std::string log((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    std::filesystem::remove(logPath);
    EXPECT_NE(log.find("AudioPipeline: the virtual microphone ran out of data 3 times ("), std::string::npos) << log;
    EXPECT_EQ(log.find("dropped to catch up"), std::string::npos) << log;
}

// A device that plays by a clock of its own asks for more (or fewer) samples than the voice
// brings; the blocks grow (or shrink) by a few samples each, smoothly, until it has them.
TEST_F(PipelineTest, BlocksGrowOrShrinkAsTheVirtualMicrophonesClockAsks)
{
    // A tone that is never zero: where it begins and ends in what is played shows its length.
    std::vector<int16_t> tone(kBlock * 20);
    for (size_t i = 0; i < tone.size(); ++i)
        tone[i] = static_cast<int16_t>(std::lround(12000 + 8000 * std::sin(2 * M_PI * 500.0 * i / 44100)));
    int toneStep = 0;
    for (size_t i = 1; i < tone.size(); ++i)
        toneStep = std::max(toneStep, std::abs(tone[i] - tone[i - 1]));

    // Far more than the tone can give: every block of it changes by the most allowed, 3 of 440.
    for (const int64_t asked : {int64_t{1} << 40, -(int64_t{1} << 40)}) {
        SCOPED_TRACE(asked > 0 ? "faster clock" : "slower clock");
        StartPipeline();
        m_audio->SetClockCorrection(kVirtualOut, asked);
        Played(kBlock * 5);
        m_audio->InjectInput(kMic, ToBytes(tone));
        const std::vector<int16_t> played = Played(kBlock * 40);
        const auto first = std::find_if(played.begin(), played.end(), [](int16_t s) { return s != 0; });
        const auto last = std::find_if(played.rbegin(), played.rend(), [](int16_t s) { return s != 0; });
        ASSERT_NE(first, played.end());
        const auto length = static_cast<double>(last.base() - first);
        const double expected = static_cast<double>(tone.size()) * (asked > 0 ? 443.0 : 437.0) / 440.0;
        EXPECT_NEAR(length, expected, 4.0);
        // Inside the tone (the blocks where it begins and ends are stretched with the silence
        // around it), no step is larger than the tone's own and nothing is missing.
        int step = 0;
        for (auto at = first + 2; at < last.base() - 1; ++at)
            step = std::max(step, std::abs(*at - *(at - 1)));
        EXPECT_LE(step, toneStep + toneStep / 50) << "a block was not stretched smoothly";
        EXPECT_TRUE(std::all_of(first + 1, last.base() - 1, [](int16_t s) { return s >= 3990; }))
            << "a gap in the tone";
        m_pipeline.reset();
    }
    EXPECT_TRUE(Errors().empty());
}

// The listen-in device's under-runs count apart, and only while the user listens: switched
// off, it runs dry on purpose.
TEST_F(PipelineTest, CountsListenInUnderrunsOnlyWhileListening)
{
    m_settings->m_listen = 0; // always
    m_state.monitorOn = true;
    m_state.monitorVol = 100;
    StartPipeline();
    Played(kBlock * 10, kSpeakers);
    m_audio->SimulateUnderrun(kSpeakers);
    EXPECT_TRUE(Eventually([this] { return m_pipeline->GetStats().monitorUnderruns == 1; }));
    EXPECT_EQ(m_pipeline->GetStats().underruns, 0u) << "counted as the virtual microphone's";

    m_state.monitorOn = false;
    Apply();
    ASSERT_TRUE(Eventually([this] {
        m_audio->TakePlayed(kSpeakers);
        Played(kBlock * 4);
        return m_audio->TakePlayed(kSpeakers).empty();
    }));
    m_audio->SimulateUnderrun(kSpeakers);
    Played(kBlock * 10);
    EXPECT_EQ(m_pipeline->GetStats().monitorUnderruns, 1u) << "counted the under-run of listen-in switched off";

    m_state.monitorOn = true;
    Apply();
    Played(kBlock * 10, kSpeakers);
    m_audio->SimulateUnderrun(kSpeakers);
    EXPECT_TRUE(Eventually([this] { return m_pipeline->GetStats().monitorUnderruns == 2; }));
}

TEST_F(PipelineTest, ComesBackAfterTheVirtualMicrophoneWentAway)
{
    StartPipeline();
    m_audio->SetDeviceGone(WaveDirection::Render, kVirtualOut, true);
    ASSERT_TRUE(Eventually([this] { return !m_pipeline->GetStats().running; }));
    m_audio->SetDeviceGone(WaveDirection::Render, kVirtualOut, false);
    ASSERT_TRUE(Eventually([this] { return m_pipeline->GetStats().running; }));
    EXPECT_EQ(m_pipeline->GetStats().sessions, 2u);
    m_audio->TakePlayed(kVirtualOut);
    const std::vector<int16_t> voice = Voice(kBlock * 5);
    m_audio->InjectInput(kMic, ToBytes(voice));
    EXPECT_NE(Find(Played(kBlock * 20), voice), std::string::npos);
}

} // namespace
} // namespace larimo
