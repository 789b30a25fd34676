// SPDX-License-Identifier: GPL-3.0-or-later
// The real LarimoServer against the private sound server: a tone fed into the fake microphone
// comes out of "Larimo Microphone" shifted by the shipped pitch preset, dry without an effect,
// with the background and fun sounds mixed in, and on the speakers only when listen-in should
// be heard. Commands go through larimoctl, as a script would send them.
#include "NoisySpeech.h"
#include "ServiceProcess.h"

#include "platform/NamedObjects.h"
#include "server/moipc_cmds.h"

#include <gtest/gtest.h>

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace larimo {
namespace {

namespace fs = std::filesystem;

using test::Shell;

// `seconds` of 44100 Hz mono from a source of the private sound server.
std::vector<int16_t> Record(const std::string& source, double seconds)
{
    const std::string bytes =
        Shell("timeout " + std::to_string(seconds) + " parec --device=" + source +
            " --format=s16le --rate=44100 --channels=1 --latency-msec=20 --raw");
    std::vector<int16_t> samples(bytes.size() / 2);
    if (!samples.empty())
        std::memcpy(samples.data(), bytes.data(), samples.size() * 2);
    return samples;
}

// The last second or so, where whatever was switched has settled.
std::vector<int16_t> Tail(const std::vector<int16_t>& samples)
{
    const size_t take = std::min<size_t>(samples.size(), 32768);
    return {samples.end() - static_cast<std::ptrdiff_t>(take), samples.end()};
}

double Rms(const std::vector<int16_t>& samples)
{
    double sum = 0;
    for (int16_t s : samples)
        sum += static_cast<double>(s) * s;
    return samples.empty() ? 0 : std::sqrt(sum / static_cast<double>(samples.size()));
}

// The level of a steady sound, as the median of 100 ms windows: a gap of the recording side
// (a busy machine delays the test's own recorder) touches a few windows, not the answer.
double SteadyRms(const std::vector<int16_t>& samples)
{
    constexpr size_t kWindow = 4410;
    std::vector<double> levels;
    for (size_t at = 0; at + kWindow <= samples.size(); at += kWindow)
        levels.push_back(Rms(std::vector<int16_t>(samples.begin() + static_cast<std::ptrdiff_t>(at),
                                                  samples.begin() + static_cast<std::ptrdiff_t>(at + kWindow))));
    if (levels.empty())
        return Rms(samples);
    std::nth_element(levels.begin(), levels.begin() + static_cast<std::ptrdiff_t>(levels.size() / 2), levels.end());
    return levels[levels.size() / 2];
}

// The fundamental by autocorrelation between 60 and 700 Hz.
double PitchHz(const std::vector<int16_t>& samples)
{
    const size_t n = std::min<size_t>(samples.size(), 8192);
    if (n < 2048)
        return 0;
    // A periodic signal correlates as well at two periods as at one: take the shortest lag whose
    // correlation comes close to the best, so the answer is never an octave low.
    std::vector<double> correlation(736, 0.0);
    double best = 0;
    for (int lag = 63; lag <= 735; ++lag) {
        double sum = 0;
        for (size_t i = 0; i + static_cast<size_t>(lag) < n; ++i)
            sum += static_cast<double>(samples[i]) * samples[i + static_cast<size_t>(lag)];
        correlation[static_cast<size_t>(lag)] = sum / static_cast<double>(n - static_cast<size_t>(lag));
        best = std::max(best, correlation[static_cast<size_t>(lag)]);
    }
    if (best <= 0)
        return 0;
    for (int lag = 64; lag < 735; ++lag) {
        const double c = correlation[static_cast<size_t>(lag)];
        if (c >= 0.9 * best && c >= correlation[static_cast<size_t>(lag) - 1] &&
            c >= correlation[static_cast<size_t>(lag) + 1])
            return 44100.0 / lag;
    }
    return 0;
}

class ServiceAudioTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { test::UsePrivateObjectNamespace(); }
    static void TearDownTestSuite() { test::RemovePrivateObjectNamespace(); }

    void SetUp() override
    {
        ASSERT_NE(std::getenv("PULSE_SERVER"), nullptr) << "needs the private sound server";
        const fs::path app(LARIMO_APP_DIR);
        const fs::path folder = m_service.Folder();
        fs::copy_file(app / "larimoctl", folder / "larimoctl");
        fs::copy(app / "effects", folder / "effects", fs::copy_options::recursive);
        fs::copy_file(app / "voiceeffects.ini", folder / "voiceeffects.ini");
        test::WriteSineWav(folder / "backsounds" / "Hum.wav", 1000, 8000, 44100);
        test::WriteSineWav(folder / "emoticsounds" / "Beep.wav", 2000, 8000, 22050);
        test::WriteSineWav(folder / "emoticsounds" / "Long.wav", 2000, 8000, 44100 * 30);
    }

    void TearDown() override
    {
        m_service.Stop(SIGTERM);
        if (!m_toneModule.empty())
            Shell("pactl unload-module " + m_toneModule);
    }

    void Start()
    {
        ASSERT_TRUE(m_service.Start());
        // The fake microphone is a null sink's monitor, which can take a second or two to send
        // its first data; measure once the voice flows.
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!m_toneModule.empty() && std::chrono::steady_clock::now() < end &&
               Rms(Record("larimo_mic_source", 0.5)) < 300) {
        }
    }

    void Tone(int hz)
    {
        m_toneModule = Shell("pactl load-module module-sine sink=mic_feed frequency=" + std::to_string(hz));
        while (!m_toneModule.empty() && (m_toneModule.back() == '\n'))
            m_toneModule.pop_back();
    }

    std::string Ctl(const std::string& arguments)
    {
        return Shell((m_service.Folder() / "larimoctl").string() + " " + arguments);
    }

    std::vector<int16_t> RecordVirtualMic(double seconds = 2.5) { return Tail(Record("larimo_mic_source", seconds)); }

    // The voice of most cases is a steady tone, which noise suppression rightly takes for noise:
    // it is off here, and on in the case that tests it.
    test::ServiceProcess m_service{"[voice]\nnoiseSuppression=0\n"
                                   "[effects]\neff_0=Chipmunk\neff_1=Broken\n"
                                   "[sound_0]\nfile=Hum.wav\nvolume=100\n"
                                   "[emotics]\nnum=2\nname_0=Beep\nfile_0=Beep.wav\nname_1=Long\nfile_1=Long.wav\n"};
    std::string m_toneModule;
};

// On a desktop Larimo makes its own microphone the default one; a service told to use the
// default must still hear the user's microphone, not itself or a speaker's monitor.
TEST_F(ServiceAudioTest, WithItsOwnMicrophoneAsTheDefaultTheServiceHearsTheRealOne)
{
    Tone(150);
    Start();
    Shell("pactl set-default-source larimo_mic_source");
    m_service.Stop(SIGTERM);
    Start();
    const double heard = PitchHz(RecordVirtualMic());
    Shell("pactl set-default-source test_mic");
    EXPECT_NEAR(heard, 150, 5);
}

TEST_F(ServiceAudioTest, PitchPresetShiftsTheVoiceAndOffPassesItDry)
{
    Tone(150);
    Start();
    const double dry = PitchHz(RecordVirtualMic());
    EXPECT_NEAR(dry, 150, 5) << "no effect active: the voice should pass unchanged";

    Ctl("effect 1");
    // The shipped Chipmunk preset raises the pitch by an octave.
    const double expected = 300;
    EXPECT_NEAR(PitchHz(RecordVirtualMic()), expected, expected * 0.04);

    Ctl("effect off");
    EXPECT_NEAR(PitchHz(RecordVirtualMic()), 150, 5);
}

TEST_F(ServiceAudioTest, BackgroundComesInAtItsVolume)
{
    Start();
    Ctl("background 1");
    const double full = SteadyRms(RecordVirtualMic());
    EXPECT_NEAR(full, 8000 / std::sqrt(2.0), 300);
    Ctl("background-volume 1 50");
    EXPECT_NEAR(SteadyRms(RecordVirtualMic()) / full, 0.5, 0.05);
    Ctl("background off");
    EXPECT_LT(Rms(RecordVirtualMic()), 50);
}

TEST_F(ServiceAudioTest, FunSoundPlaysOnceEndsWithTheEventAndStopAllSilences)
{
    Start();
    const ObjHandle event = OpenNamedEvent(kEmoticEventName);
    ASSERT_NE(event, 0u);
    // Nobody records yet: the sound still ends in its own time.
    Ctl("fun 1 play");
    EXPECT_NE(Ctl("status").find("Beep"), std::string::npos);
    while (WaitForObject(event, 0) == kWaitObject0) {
    }
    // The half-second sound ends by itself: the event is set and the mark cleared.
    EXPECT_EQ(WaitForObject(event, 5000), kWaitObject0);
    EXPECT_NE(Ctl("status").find("Fun sounds playing: none"), std::string::npos);
    CloseObject(event);

    Ctl("fun 2 play");
    EXPECT_GT(Rms(RecordVirtualMic(1.5)), 3000);
    Ctl("stop-all");
    EXPECT_LT(Rms(RecordVirtualMic(1.5)), 50);
}

TEST_F(ServiceAudioTest, ListenInReachesTheSpeakersOnlyWhenItShould)
{
    Tone(300);
    Shell("sed -i '1i [monitors]\\nmonitorOn=1\\nlisten=only\\nmonitorVol=100\\n' " +
        (m_service.Folder() / "config.ini").string());
    Start();
    EXPECT_LT(Rms(Tail(Record("speakers.monitor", 2))), 50) << "listen mode only, no effect active";
    Ctl("effect 1");
    EXPECT_GT(Rms(Tail(Record("speakers.monitor", 2))), 1000);
    Ctl("listen off");
    EXPECT_LT(Rms(Tail(Record("speakers.monitor", 2))), 50);
}

// Speech in a room with a fan and a keyboard, played into the fake microphone: with noise
// suppression and the gate on, the room at "Larimo Microphone" falls by at least 20 dB while
// the voice keeps its level.
TEST_F(ServiceAudioTest, NoiseSuppressionAndGateSilenceTheRoomButNotTheVoice)
{
    const std::vector<int16_t> sentence = test::SpokenSentence("Hello there, can you hear my new voice?");
    ASSERT_FALSE(sentence.empty()) << "espeak-ng and sox are needed to make the spoken sample";
    const fs::path room = m_service.Folder() / "room.wav";
    const fs::path voice = m_service.Folder() / "voice.wav";
    const size_t roomSamples = 44100 * 10;
    std::vector<int16_t> noise = test::FanNoise(roomSamples, -45.0, 3);
    const std::vector<int16_t> keys = test::KeyboardNoise(roomSamples, -48.0, 5);
    for (size_t i = 0; i < roomSamples; ++i)
        noise[i] = static_cast<int16_t>(std::clamp(noise[i] + keys[i], -32768, 32767));
    ASSERT_TRUE(test::WriteWav(room.string(), noise));
    std::vector<int16_t> speech;
    for (int i = 0; i < 4; ++i)
        speech.insert(speech.end(), sentence.begin(), sentence.end());
    ASSERT_TRUE(test::WriteWav(voice.string(), speech));

    Start();
    // The service cleans only while a program records from it, and the suppressor learns the
    // room anew within about a second: the last two of five seconds are measured.
    // The room is measured as the level most of the time (a keystroke may open the gate for a
    // moment), the voice as its whole energy.
    const auto heard = [&](const fs::path& file) {
        Shell("paplay --device=mic_feed " + file.string() + " >/dev/null 2>&1 &");
        const std::vector<int16_t> recorded = Record("larimo_mic_source", 5.0);
        Shell("pkill -f 'paplay --device=mic_feed'");
        const size_t take = std::min<size_t>(recorded.size(), 44100 * 2);
        const std::vector<int16_t> last(recorded.end() - static_cast<std::ptrdiff_t>(take), recorded.end());
        const double level = file == room ? SteadyRms(last) : Rms(last);
        return 20 * std::log10(std::max(1.0, level) / 32768.0);
    };
    // A first round only wakes the whole path (the service opens the microphone when somebody
    // records, which takes a while on a loaded machine); what it heard does not count.
    heard(room);
    const double roomOff = heard(room);
    const double voiceOff = heard(voice);
    EXPECT_GT(roomOff, -55.0) << "the room should be heard with nothing switched on";

    EXPECT_EQ(Ctl("noise on").find("larimoctl:"), std::string::npos);
    EXPECT_EQ(Ctl("gate -40").find("larimoctl:"), std::string::npos);
    EXPECT_NE(Ctl("status").find("Noise gate: opens at -40 dBFS"), std::string::npos);
    // On a loaded machine the suppressor may take longer than a round to learn the room anew.
    heard(room);
    EXPECT_LE(heard(room), roomOff - 20.0);
    EXPECT_NEAR(heard(voice), voiceOff, 2.0);

    // Switched off again the room comes back: the service applied each change as it came.
    Ctl("noise off");
    Ctl("gate off");
    EXPECT_NEAR(heard(room), roomOff, 3.0);
}

// With short blocks the virtual microphone keeps only a short lead. A service that stalls (here:
// stopped for a moment) runs it dry; afterwards the voice must flow on, and the under-run must
// be counted.
TEST_F(ServiceAudioTest, AfterAStallWithShortBlocksTheVoiceFlowsOnAndTheUnderRunIsCounted)
{
    Tone(440);
    Shell("sed -i '1i [stream]\\ninBuffSizeMs=5\\n' " + (m_service.Folder() / "config.ini").string());
    Start();
    std::vector<int16_t> heard;
    std::thread recorder([&heard] { heard = Record("larimo_mic_source", 4.0); });
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));
    m_service.Signal(SIGSTOP);
    std::this_thread::sleep_for(std::chrono::milliseconds(400));
    m_service.Signal(SIGCONT);
    recorder.join();
    const std::vector<int16_t> after = Tail(heard);
    EXPECT_GT(Rms(after), 1000);
    EXPECT_NEAR(PitchHz(after), 440, 10);
    ASSERT_GT(heard.size(), 44100u * 3) << "the recording stopped short";
    // The stall must show in the stop line, not be hidden.
    ASSERT_EQ(m_service.Stop(SIGTERM), 0);
    const std::string log = Shell("cat " + (m_service.Folder() / "larimosrv.log").string());
    std::smatch stopLine;
    ASSERT_TRUE(std::regex_search(log, stopLine, std::regex("stopped after \\d+ blocks, \\d+ dropped, (\\d+) under-runs")))
        << log;
    EXPECT_GE(std::stoull(stopLine[1].str()), 1u) << log;
}

// The names of a process's threads under SCHED_FIFO (the policy is field 41 of
// /proc/<pid>/task/<tid>/stat, the name field 2).
std::vector<std::string> RealtimeThreads(pid_t pid)
{
    std::vector<std::string> names;
    for (const auto& task : fs::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        std::ifstream stat(task.path() / "stat");
        std::string line;
        std::getline(stat, line);
        const size_t nameEnd = line.rfind(')');
        if (nameEnd == std::string::npos)
            continue;
        const size_t nameBegin = line.find('(');
        std::istringstream fields(line.substr(nameEnd + 2));
        std::string field;
        for (int number = 3; number <= 41 && fields >> field; ++number) {
            if (number == 41 && std::stoi(field) == SCHED_FIFO)
                names.push_back(line.substr(nameBegin + 1, nameEnd - nameBegin - 1));
        }
    }
    return names;
}

// The audio thread and the thread that hands its blocks to and from the sound server run at
// real-time priority, and only they: whatever else the service does (commands, loading
// sounds, the control thread) must never hold a core against the desktop.
TEST_F(ServiceAudioTest, AudioAndStreamThreadsAloneRunAtRealTimePriority)
{
    Start();
    ASSERT_TRUE(test::WaitFor(5000, [&] {
        return Shell("cat " + (m_service.Folder() / "larimosrv.log").string()).find("real-time priority") !=
               std::string::npos;
    }));
    const std::string log = Shell("cat " + (m_service.Folder() / "larimosrv.log").string());
    rlimit allowed{};
    getrlimit(RLIMIT_RTPRIO, &allowed);
    if (geteuid() != 0 && allowed.rlim_cur == 0) {
        // Without the right, RealtimeKit is asked; where it is missing the log says so.
        EXPECT_TRUE(log.find("runs at real-time priority") != std::string::npos ||
                    log.find("RealtimeKit") != std::string::npos)
            << log;
        return;
    }
    ASSERT_TRUE(test::WaitFor(5000, [&] {
        return Shell("cat " + (m_service.Folder() / "larimosrv.log").string()).find("stream thread runs") !=
               std::string::npos;
    }));
    const std::vector<std::string> names = RealtimeThreads(m_service.Pid());
    ASSERT_EQ(names.size(), 2u) << log;
    // libpulse names its event loop thread.
    EXPECT_EQ(std::count(names.begin(), names.end(), "threaded-ml"), 1) << log;
    EXPECT_EQ(log.find("no real-time priority"), std::string::npos) << log;
}

TEST_F(ServiceAudioTest, BrokenPluginGivesAnErrorTextAndADryVoice)
{
    std::ofstream(m_service.Folder() / "effects" / "Garbage.so") << "not a plug-in";
    const fs::path definitions = m_service.Folder() / "voiceeffects.ini";
    std::string text = Shell("cat " + definitions.string());
    const size_t count = text.find("numEffects=11");
    ASSERT_NE(count, std::string::npos);
    text.replace(count, 13, "numEffects=12");
    std::ofstream(definitions) << text << "\n[eff_11]\nvst=Garbage\nname=Broken\nnumParams=0\n";
    Tone(150);
    Start();
    Ctl("effect 2");
    EXPECT_NEAR(PitchHz(RecordVirtualMic()), 150, 5);
    const std::string errors = Ctl("errors");
    EXPECT_NE(errors.find("Error loading VST plug-in: "), std::string::npos) << errors;
    EXPECT_NE(errors.find("Garbage.so"), std::string::npos) << errors;
    EXPECT_NE(Ctl("status").find("Voice service: running"), std::string::npos);
}

} // namespace
} // namespace larimo
