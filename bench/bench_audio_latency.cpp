// SPDX-License-Identifier: GPL-3.0-or-later
// Out-and-back latency through the sound server: a click written into the "Speakers" sink is
// timed until it arrives through "Monitor of Speakers". Without PULSE_SERVER the private sound
// server of scripts/test-soundserver.sh is started for the run and stopped afterwards.
#include "platform/pulse/PulseBackend.h"
#include "wmme.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <string>
#include <vector>

namespace larimo {
namespace {

using Clock = std::chrono::steady_clock;

class PrivateServer {
public:
    PrivateServer()
    {
        if (std::getenv("PULSE_SERVER") != nullptr)
            return;
        std::string pattern = (std::filesystem::temp_directory_path() / "larimo-bench-soundserver-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            return;
        m_dir = pattern;
        const std::string start = std::string(LARIMO_SOURCE_DIR "/scripts/test-soundserver.sh start ") + m_dir + " >/dev/null";
        if (std::system(start.c_str()) == 0)
            setenv("PULSE_SERVER", ("unix:" + m_dir + "/native").c_str(), 1);
    }
    ~PrivateServer()
    {
        if (m_dir.empty())
            return;
        const std::string stop = std::string(LARIMO_SOURCE_DIR "/scripts/test-soundserver.sh stop ") + m_dir;
        if (std::system(stop.c_str()) == 0)
            std::filesystem::remove_all(m_dir);
    }
    PrivateServer(const PrivateServer&) = delete;
    PrivateServer& operator=(const PrivateServer&) = delete;

private:
    std::string m_dir;
};

constexpr uint32_t kRate = 44100;
constexpr int16_t kClick = 20000;

class ClickEngine : public PortAudio {
public:
    ~ClickEngine() override { StopEngine(); }

    PaStreamIn m_in;
    PaStreamOut m_out;

    void Feed()
    {
        std::vector<int16_t> silence(m_out.SamplesPerBuffer(), 0);
        for (uint32_t i = 0; i < m_out.BufferCount(); ++i)
            m_out.Write(silence.data(), m_out.BufferSize(), false);
    }

    /// Sends one click and waits for it; the latency, or a negative value after a time-out.
    double Click()
    {
        std::unique_lock lock(m_mutex);
        m_clickWanted = true;
        m_clickArrived = false;
        if (!m_changed.wait_for(lock, std::chrono::seconds(2), [this] { return m_clickArrived; }))
            return -1;
        return std::chrono::duration<double>(m_arrived - m_sent).count();
    }

protected:
    void OnOutputDone(PaBuffer) override
    {
        std::vector<int16_t>& block = m_block;
        block.assign(m_out.SamplesPerBuffer(), 0);
        {
            std::lock_guard lock(m_mutex);
            if (m_clickWanted) {
                std::fill_n(block.begin(), std::min<std::size_t>(8, block.size()), kClick);
                m_clickWanted = false;
                m_listening = true;
                m_sent = Clock::now();
            }
        }
        m_out.Write(block.data(), m_out.BufferSize(), false);
    }

    void OnInputData(PaBuffer buffer) override
    {
        const auto* samples = reinterpret_cast<const int16_t*>(buffer.data);
        const bool loud = std::any_of(samples, samples + buffer.validBytes / 2,
                                      [](int16_t s) { return s > kClick / 2 || s < -kClick / 2; });
        std::lock_guard lock(m_mutex);
        if (loud && m_listening) {
            m_listening = false;
            m_arrived = Clock::now();
            m_clickArrived = true;
            m_changed.notify_all();
        }
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<int16_t> m_block;
    bool m_clickWanted = false;
    bool m_listening = false;
    bool m_clickArrived = false;
    Clock::time_point m_sent;
    Clock::time_point m_arrived;
};

void BM_OutAndBackLatency(benchmark::State& state)
{
    static PrivateServer server;
    SetAudioBackend(nullptr);
    const auto bufferMs = static_cast<uint32_t>(state.range(0));
    ClickEngine engine;
    int speakers = kNoDevice;
    int monitor = kNoDevice;
    if (engine.StartEngine() != kMmeSuccess || PaGetDevNByName("Speakers", 2, speakers) != kMmeSuccess ||
        PaGetDevNByName("Monitor of Speakers", 1, monitor) != kMmeSuccess) {
        state.SkipWithError("no sound server with a \"Speakers\" sink");
        return;
    }
    if (engine.m_out.Open(engine.ThreadId(), speakers, 16, kRate, bufferMs, 2) != kMmeSuccess ||
        // More recording buffers add no delay (each is handed on when full) but ride out a
        // busy machine without dropping the click.
        engine.m_in.Open(engine.ThreadId(), monitor, 16, kRate, bufferMs, 8) != kMmeSuccess ||
        engine.m_in.Start() != kMmeSuccess) {
        state.SkipWithError("the streams could not be opened");
        return;
    }
    engine.m_out.Activate();
    engine.Feed();
    engine.Click(); // the first click also waits for both streams to settle
    std::vector<double> latencies;
    int lost = 0;
    for (auto _ : state) {
        double latency = engine.Click();
        // A click lost to an underrun is sent again; the losses are reported.
        for (int retry = 0; latency < 0 && retry < 5; ++retry) {
            ++lost;
            latency = engine.Click();
        }
        if (latency < 0) {
            state.SkipWithError("clicks did not come back within 2 s, six times in a row");
            break;
        }
        latencies.push_back(latency);
        state.SetIterationTime(latency);
    }
    engine.m_in.Stop();
    engine.m_out.Stop();
    if (latencies.empty())
        return;
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double fraction) {
        return latencies[std::min(latencies.size() - 1, static_cast<std::size_t>(fraction * latencies.size()))] * 1000.0;
    };
    state.counters["buffer_ms"] = static_cast<double>(bufferMs);
    state.counters["median_ms"] = at(0.5);
    state.counters["p99_ms"] = at(0.99);
    state.counters["two_buffers_ms"] = 2.0 * bufferMs;
    state.counters["lost_clicks"] = lost;
}

BENCHMARK(BM_OutAndBackLatency)->Arg(5)->Arg(25)->Iterations(200)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace
} // namespace larimo
