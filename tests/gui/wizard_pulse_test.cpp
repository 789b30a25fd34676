// SPDX-License-Identifier: GPL-3.0-or-later
// The first-run wizard on a real sound server: the private PulseAudio daemon of the CTest
// fixture (scripts/test-soundserver.sh), whose fake microphone "Microphone (Test)" hears
// whatever plays into the sink "Microphone Feed", and whose sink "Speakers" is heard again on
// its monitor. The recording page must show the microphone's signal, the playback page must
// play test.wav into the chosen sink, and nothing of ours may stay open on the server.
#include "PgWzInput.h"
#include "PgWzMonitor.h"
#include "WizardSheet.h"
#include "wizard.h"

#include "WizardTestSupport.h"
#include "osci.h"
#include "platform/pulse/PulseBackend.h"

#include <QComboBox>
#include <QElapsedTimer>
#include <QImage>
#include <QPushButton>
#include <QSlider>

#include <gtest/gtest.h>
#include <pulse/error.h>
#include <pulse/simple.h>

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <thread>
#include <unistd.h>

namespace larimo {
namespace {

constexpr int kRate = 44100;

std::string Pactl(const std::string& arguments)
{
    std::string output;
    FILE* pipe = ::popen(("pactl " + arguments + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return output;
    char chunk[4096];
    std::size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof chunk, pipe)) > 0)
        output.append(chunk, got);
    ::pclose(pipe);
    return output;
}

// Streams of one kind ("sink-inputs", "source-outputs") that this process holds on the server.
int OurStreams(const std::string& kind)
{
    const std::string listing = Pactl("list " + kind);
    const std::string mine = "application.process.id = \"" + std::to_string(::getpid()) + "\"";
    int count = 0;
    for (std::size_t at = listing.find(mine); at != std::string::npos; at = listing.find(mine, at + 1))
        ++count;
    return count;
}

// A sine tone played into the fake microphone's feed while the object lives.
class FakeMicrophoneTone {
public:
    explicit FakeMicrophoneTone(int hertz)
        : m_module(Pactl("load-module module-sine sink=mic_feed frequency=" + std::to_string(hertz)))
    {
        while (!m_module.empty() && std::isspace(static_cast<unsigned char>(m_module.back())))
            m_module.pop_back();
    }
    ~FakeMicrophoneTone()
    {
        if (Loaded())
            Pactl("unload-module " + m_module);
    }
    FakeMicrophoneTone(const FakeMicrophoneTone&) = delete;
    FakeMicrophoneTone& operator=(const FakeMicrophoneTone&) = delete;

    bool Loaded() const
    {
        return !m_module.empty() && m_module.find_first_not_of("0123456789") == std::string::npos;
    }
    const std::string& Answer() const { return m_module; }

private:
    std::string m_module;
};

// Records a source of the server as 16-bit mono on a thread of its own, through the sound
// server's own simple client rather than our wave layer.
class SourceRecorder {
public:
    explicit SourceRecorder(const char* source)
    {
        const pa_sample_spec sampleFormat{PA_SAMPLE_S16LE, kRate, 1};
        pa_buffer_attr attributes{};
        attributes.maxlength = static_cast<uint32_t>(-1);
        attributes.fragsize = kRate / 50 * 2;
        int error = 0;
        m_client = pa_simple_new(nullptr, "wizard_pulse_test", PA_STREAM_RECORD, source, "what the speakers play",
                                 &sampleFormat, nullptr, &attributes, &error);
        if (m_client == nullptr) {
            m_error = pa_strerror(error);
            return;
        }
        m_thread = std::thread([this] { Run(); });
    }
    ~SourceRecorder() { Stop(); }
    SourceRecorder(const SourceRecorder&) = delete;
    SourceRecorder& operator=(const SourceRecorder&) = delete;

    bool Recording() const { return m_client != nullptr; }
    const std::string& Error() const { return m_error; }

    std::size_t Samples()
    {
        const std::lock_guard lock(m_lock);
        return m_samples.size();
    }

    /// Ends the recording and closes the stream; what was recorded.
    std::vector<int16_t> Stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        if (m_client != nullptr) {
            pa_simple_free(m_client);
            m_client = nullptr;
        }
        const std::lock_guard lock(m_lock);
        return m_samples;
    }

private:
    void Run()
    {
        std::vector<int16_t> chunk(kRate / 50);
        while (!m_stop) {
            int error = 0;
            if (pa_simple_read(m_client, chunk.data(), chunk.size() * sizeof(int16_t), &error) < 0)
                return;
            const std::lock_guard lock(m_lock);
            m_samples.insert(m_samples.end(), chunk.begin(), chunk.end());
        }
    }

    pa_simple* m_client = nullptr;
    std::string m_error;
    std::thread m_thread;
    std::atomic<bool> m_stop{false};
    std::mutex m_lock;
    std::vector<int16_t> m_samples;
};

// How far the oscilloscope's trace strays from its middle line, in pixels, drawing what it
// has queued now (drawing empties the queue).
int TraceSpread(OSCI& osci)
{
    const QImage image = osci.grab().toImage();
    const int middle = (image.height() - 2) / 2;
    int spread = 0;
    for (int y = 0; y < image.height(); ++y) {
        for (int x = 0; x < image.width(); ++x) {
            if (image.pixelColor(x, y) == osci.TraceColor())
                spread = std::max(spread, std::abs(y - middle));
        }
    }
    return spread;
}

// The widest trace the oscilloscope draws over `ms` of live signal; -1 when no signal
// arrived at all.
int WidestTrace(OSCI& osci, int ms)
{
    osci.ClearData();
    int widest = -1;
    QElapsedTimer clock;
    clock.start();
    while (clock.elapsed() < ms) {
        if (WaitUntil([&] { return osci.QueuedSamples() >= kRate / 50; }, 200))
            widest = std::max(widest, TraceSpread(osci));
    }
    return widest;
}

struct Match {
    std::size_t at = 0;
    double similarity = 0;
    double gain = 0;
};

// The normalised correlation of the `length` values at `block` with `heard` at each start
// in [from, to].
std::vector<double> Similarities(const std::vector<double>& heard, const double* block, std::size_t length,
                                 std::size_t from, std::size_t to)
{
    double blockEnergy = 0;
    for (std::size_t i = 0; i < length; ++i)
        blockEnergy += block[i] * block[i];
    std::vector<double> scores;
    if (heard.size() < length || blockEnergy <= 0)
        return scores;
    to = std::min(to, heard.size() - length);
    for (std::size_t at = from; at <= to; ++at) {
        double dot = 0;
        double energy = 0;
        for (std::size_t i = 0; i < length; ++i) {
            dot += heard[at + i] * block[i];
            energy += heard[at + i] * heard[at + i];
        }
        scores.push_back(energy > 0 ? dot / std::sqrt(energy * blockEnergy) : 0);
    }
    return scores;
}

// The best of those starts, with the level heard there relative to the block's.
Match BestMatch(const std::vector<double>& heard, const double* block, std::size_t length, std::size_t from,
                std::size_t to)
{
    const std::vector<double> scores = Similarities(heard, block, length, from, to);
    Match best;
    for (std::size_t i = 0; i < scores.size(); ++i) {
        if (scores[i] > best.similarity)
            best = Match{from + i, scores[i], 0};
    }
    if (best.similarity > 0) {
        double blockEnergy = 0;
        double energy = 0;
        for (std::size_t i = 0; i < length; ++i) {
            blockEnergy += block[i] * block[i];
            energy += heard[best.at + i] * heard[best.at + i];
        }
        best.gain = std::sqrt(energy / blockEnergy);
    }
    return best;
}

// A signal at full rate and as means of kCoarse samples, so searches over long stretches
// stay short: found coarsely first, then to the sample.
constexpr std::size_t kCoarse = 4;

struct Signal {
    explicit Signal(const std::vector<int16_t>& samples)
        : full(samples.begin(), samples.end())
        , coarse(samples.size() / kCoarse)
    {
        for (std::size_t i = 0; i < coarse.size(); ++i) {
            double sum = 0;
            for (std::size_t j = 0; j < kCoarse; ++j)
                sum += samples[i * kCoarse + j];
            coarse[i] = sum / kCoarse;
        }
    }
    std::vector<double> full;
    std::vector<double> coarse;
};

// Where `length` samples of `block` from `blockAt` lie best in `heard`, starting in [from, to].
// A voice repeats itself every pitch period, so the coarse search keeps its few best
// candidates and each is tried to the sample.
Match Locate(const Signal& heard, const Signal& block, std::size_t blockAt, std::size_t length, std::size_t from,
             std::size_t to)
{
    const std::size_t coarseFrom = from / kCoarse;
    const std::vector<double> scores = Similarities(heard.coarse, block.coarse.data() + blockAt / kCoarse,
                                                    length / kCoarse, coarseFrom, to / kCoarse);
    std::vector<std::size_t> order(scores.size());
    for (std::size_t i = 0; i < order.size(); ++i)
        order[i] = i;
    std::sort(order.begin(), order.end(), [&](std::size_t x, std::size_t y) { return scores[x] > scores[y]; });
    constexpr std::size_t kCandidates = 8;
    const std::size_t slack = 2 * kCoarse;
    std::vector<std::size_t> tried;
    Match best;
    for (const std::size_t index : order) {
        if (tried.size() == kCandidates)
            break;
        if (std::any_of(tried.begin(), tried.end(), [&](std::size_t t) { return t + 2 >= index && index + 2 >= t; }))
            continue;
        tried.push_back(index);
        const std::size_t near = (coarseFrom + index) * kCoarse;
        const Match fine = BestMatch(heard.full, block.full.data() + blockAt, length,
                                     std::max(from, near > slack ? near - slack : 0), std::min(to, near + slack));
        if (fine.similarity > best.similarity)
            best = fine;
    }
    return best;
}

class WizardOnPulse : public WizardFixture {
protected:
    void SetUp() override
    {
        const char* server = std::getenv("PULSE_SERVER");
        // Never against a desktop's own sound server: the run changes its volumes.
        if (server == nullptr || std::strstr(server, "soundserver") == nullptr)
            GTEST_SKIP() << "needs the private sound server of the CTest fixture (PULSE_SERVER)";
        WizardFixture::SetUp();
        m_previous = SetAudioBackend(CreatePulseBackend());
        m_installed = true;
        Pactl("set-source-volume test_mic 100%");
        Pactl("set-sink-volume speakers 100%");
    }
    void TearDown() override
    {
        if (!m_installed)
            return;
        SetAudioBackend(m_previous);
        Pactl("set-source-volume test_mic 100%");
        Pactl("set-sink-volume speakers 100%");
        WizardFixture::TearDown();
    }

    std::shared_ptr<AudioBackend> m_previous;
    bool m_installed = false;
};

// The recording page's half of the run: the fake microphone chosen, its level slider and the
// live signal, against silence and against a tone.
void RunRecordingPage(CWizardSheet& sheet)
{
    CPgWzInput& page = *sheet.InputPage();
    auto* devices = Ctrl<QComboBox>(page, 1120);
    ASSERT_GE(devices->findText("Microphone (Test)"), 0);
    for (int i = 0; i < devices->count(); ++i)
        EXPECT_FALSE(devices->itemText(i).startsWith("Monitor of")) << "a monitor hears the speakers, not a voice";
    EXPECT_EQ(devices->findText("Larimo Microphone"), -1);
    // Without the monitors the test microphone is the only choice, and a single device is
    // chosen for the user.
    EXPECT_EQ(devices->currentText(), "Microphone (Test)");

    devices->setCurrentIndex(devices->findText("Microphone (Test)"));
    ASSERT_TRUE(page.Recording());
    EXPECT_EQ(OurStreams("source-outputs"), 1);
    // The fake microphone is a null sink's monitor, which may render its first second or two
    // before it notices a listener that wants short blocks; a real microphone starts at once.
    auto& osci = *page.findChild<OSCI*>("ctrl1083");
    ASSERT_TRUE(WaitUntil([&] { return osci.QueuedSamples() > 0; }, 5000)) << "the recording delivers nothing";
    EXPECT_TRUE(sheet.button(QWizard::NextButton)->isEnabled());

    // The level slider is the source's volume, both ways.
    auto* level = Ctrl<QSlider>(page, 1073);
    ASSERT_TRUE(level->isEnabled());
    EXPECT_EQ(level->value(), 100);
    Pactl("set-source-volume test_mic 30%");
    EXPECT_TRUE(WaitUntil([&] { return level->value() == 30; })) << level->value();
    level->setValue(100);
    EXPECT_NE(Pactl("get-source-volume test_mic").find("100%"), std::string::npos)
        << Pactl("get-source-volume test_mic");

    EXPECT_EQ(WidestTrace(osci, 600), 0) << "silence arrives and draws the flat line";
    {
        FakeMicrophoneTone tone(440);
        ASSERT_TRUE(tone.Loaded()) << tone.Answer();
        // The sine is half of full scale; the trace reaches a quarter of the view's height.
        const int quarter = (osci.height() - 2) / 4;
        EXPECT_GT(WidestTrace(osci, 800), quarter * 3 / 4) << "the tone moves the trace";

        // The screenshot shows the tone on the trace.
        osci.ClearData();
        WaitUntil([&] { return osci.QueuedSamples() >= kRate / 10; }, 1000);
        std::filesystem::create_directories("wizard-render");
        EXPECT_TRUE(sheet.grab().toImage().save("wizard-render/wizard-input-pulse.png"));

        level->setValue(0);
        WaitUntil([] { return false; }, 200);
        EXPECT_LE(WidestTrace(osci, 600), 1) << "the level slider silences the microphone";
        level->setValue(100);
    }
}

// The playback page's half: "Speakers" chosen, Test plays test.wav there, heard on the
// sink's monitor, and Stop ends the stream.
void RunPlaybackPage(CWizardSheet& sheet)
{
    CPgWzMonitor& page = *sheet.MonitorPage();
    auto* outputs = Ctrl<QComboBox>(page, 1120);
    ASSERT_GE(outputs->findText("Speakers"), 0);
    ASSERT_GE(outputs->findText("Microphone Feed"), 0);
    outputs->setCurrentIndex(outputs->findText("Speakers"));
    auto* volume = Ctrl<QSlider>(page, 1073);
    EXPECT_EQ(volume->value(), 100) << "the slider shows the sink's volume";
    volume->setValue(50);
    EXPECT_EQ(Pactl("get-sink-volume speakers").find("100%"), std::string::npos) << "the slider sets the sink's volume";
    volume->setValue(100);
    EXPECT_NE(Pactl("get-sink-volume speakers").find("100%"), std::string::npos);

    SourceRecorder recorder("speakers.monitor");
    ASSERT_TRUE(recorder.Recording()) << recorder.Error();
    auto* test = Ctrl<QPushButton>(page, 1028);
    test->click();
    ASSERT_TRUE(page.Playing());
    EXPECT_EQ(OurStreams("sink-inputs"), 1);

    const std::vector<int16_t> expected = TestWaveSamples();
    ASSERT_FALSE(expected.empty());
    // The whole sound and the start of its next round, after the server's start-up delay.
    const std::size_t wanted = expected.size() + kRate * 3 / 2;
    auto& osci = *page.findChild<OSCI*>("ctrl1083");
    int widest = -1;
    bool saved = false;
    QElapsedTimer clock;
    clock.start();
    while (recorder.Samples() < wanted && clock.elapsed() < 15000) {
        widest = std::max(widest, WidestTrace(osci, 200));
        if (!saved && widest > 0) {
            // The screenshot shows the sound on the trace, not the line the last look left.
            WaitUntil([&] { return osci.QueuedSamples() >= kRate / 20; }, 500);
            std::filesystem::create_directories("wizard-render");
            saved = sheet.grab().toImage().save("wizard-render/wizard-monitor-pulse.png");
        }
    }
    test->click();
    EXPECT_FALSE(page.Playing());
    const std::vector<int16_t> heard = recorder.Stop();
    EXPECT_GT(widest, 0) << "the played buffers are drawn";
    EXPECT_TRUE(saved);
    EXPECT_EQ(OurStreams("sink-inputs"), 0) << "Stop closes the stream";
    ASSERT_GE(heard.size(), wanted);

    // The monitor may miss the first moments (a sink that was idle starts when the stream
    // arrives), so the sound is followed from wherever the recording first carries it: 100 ms
    // at a time, each block where the previous one ended or a little later when the server
    // had to wait for us, once round the whole sound and over the loop's seam.
    constexpr std::size_t kBlock = kRate / 10;
    constexpr std::size_t kLateBy = kRate / 5;
    std::vector<int16_t> twice = expected;
    twice.insert(twice.end(), expected.begin(), expected.end());
    const Signal sound(twice);
    const Signal recording(heard);
    std::size_t onset = 0;
    while (onset + kBlock <= heard.size()) {
        double energy = 0;
        for (std::size_t i = onset; i < onset + kBlock; ++i)
            energy += recording.full[i] * recording.full[i];
        if (std::sqrt(energy / kBlock) > 1000)
            break;
        onset += kBlock / 4;
    }
    // The block where the sound sets in may still hold the sink's start (a moment of silence or
    // a cut-off first sample): the sound is found from the next half block on.
    onset += kBlock / 2;
    ASSERT_LE(onset + kBlock, heard.size()) << "the monitor stayed silent";
    const Match start = Locate(sound, recording, onset, kBlock, 0, expected.size());
    ASSERT_GT(start.similarity, 0.95) << "what the monitor carries is not test.wav";
    std::size_t inSound = start.at + kBlock;
    std::size_t heardAt = onset + kBlock;
    double gain = 1.0 / start.gain;
    int found = 1;
    const int rounds = static_cast<int>(expected.size() / kBlock) + 1;
    for (; found <= rounds; ++found) {
        const Match match =
            Locate(recording, sound, inSound % expected.size(), kBlock, heardAt - 2, heardAt + kLateBy);
        ASSERT_GT(match.similarity, 0.95) << "lost at " << inSound % expected.size() << " of test.wav, " << match.at
                                          << " samples into the recording";
        gain += match.gain;
        inSound += kBlock;
        heardAt = match.at + kBlock;
    }
    // At full volume on both sides the sink's monitor carries the file's own level.
    EXPECT_NEAR(gain / found, 1.0, 0.1);
}

TEST_F(WizardOnPulse, FakeMicrophoneMovesTheLevelAndTestIsHeardOnTheSpeakers)
{
    const SheetWatch watch = WatchForSheet([](CWizardSheet& sheet) {
        ASSERT_NE(sheet.InputPage(), nullptr);
        ASSERT_NE(sheet.MonitorPage(), nullptr);
        RunRecordingPage(sheet);
        if (::testing::Test::HasFatalFailure())
            return;
        sheet.next();
        EXPECT_EQ(OurStreams("source-outputs"), 0) << "the recording stops when the page is left";
        RunPlaybackPage(sheet);
        if (::testing::Test::HasFatalFailure())
            return;
        // Test again, then Finish while it plays: the sheet stops it on its way out.
        Ctrl<QPushButton>(*sheet.MonitorPage(), 1028)->click();
        EXPECT_EQ(OurStreams("sink-inputs"), 1);
        sheet.button(QWizard::FinishButton)->click();
    });
    EXPECT_TRUE(WizardStart(m_settings));
    ASSERT_TRUE(watch->shown);
    EXPECT_EQ(m_settings.m_input, "Microphone (Test)");
    EXPECT_EQ(m_settings.m_mixInSrc, "") << "a source without ports has no lines to choose";
    EXPECT_EQ(m_settings.m_monitor, "Speakers");
    EXPECT_EQ(OurStreams("sink-inputs"), 0);
    EXPECT_EQ(OurStreams("source-outputs"), 0);
}

TEST_F(WizardOnPulse, CancelWhileBothStreamsWereUsedLeavesNothingOpen)
{
    const SheetWatch watch = WatchForSheet([](CWizardSheet& sheet) {
        auto* devices = Ctrl<QComboBox>(*sheet.InputPage(), 1120);
        devices->setCurrentIndex(devices->findText("Microphone (Test)"));
        EXPECT_EQ(OurStreams("source-outputs"), 1);
        sheet.next();
        auto* outputs = Ctrl<QComboBox>(*sheet.MonitorPage(), 1120);
        outputs->setCurrentIndex(outputs->findText("Speakers"));
        Ctrl<QPushButton>(*sheet.MonitorPage(), 1028)->click();
        EXPECT_EQ(OurStreams("sink-inputs"), 1);
        sheet.back();
        EXPECT_EQ(OurStreams("sink-inputs"), 0) << "going back stops the test sound";
        EXPECT_EQ(OurStreams("source-outputs"), 1) << "and records again";
        sheet.button(QWizard::CancelButton)->click();
    });
    EXPECT_FALSE(WizardStart(m_settings));
    ASSERT_TRUE(watch->shown);
    EXPECT_EQ(OurStreams("sink-inputs"), 0);
    EXPECT_EQ(OurStreams("source-outputs"), 0);
}

} // namespace
} // namespace larimo
