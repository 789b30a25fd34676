// SPDX-License-Identifier: GPL-3.0-or-later
// The voice service measured from outside, against a private sound server of its own:
//  - latency from the microphone to Larimo Microphone: clicks played into the fake microphone
//    are timed as they arrive, once on the microphone's own monitor and once on the virtual
//    microphone; both are recorded the same way, so the difference is what the service adds.
//    At 25 ms and at 5 ms blocks ([stream] inBuffSizeMs of config.ini), with noise suppression
//    on (the default; it delays the voice by one of its frames) and off.
//  - CPU of LarimoServer (utime + stime of /proc/<pid>/stat) while a pitch effect, a background
//    sound and two fun sounds play and somebody records, and while nobody records (idle).
//    --cpu_seconds=N sets how long the busy case runs (default 10; 600 for the long run).
//  - with --soak_seconds=N: the under-runs of the virtual microphone in N seconds of the busy
//    case, at 25 ms and at 5 ms blocks, alone and while another process keeps a core busy; and
//    beside them the stalls of the machine itself, as a thread at the highest real-time
//    priority sees them, and how many of the under-runs came right after such a stall.
// --benchmark_filter=TEXT runs only the cases whose name holds TEXT.
// Every case also reports the under-runs of the virtual microphone, the blocks the service
// dropped and how far it corrected for the virtual microphone's clock, as the service's log
// gives them when it stops.
// Prints Google Benchmark style JSON; --benchmark_out=FILE writes it there too. Other
// --benchmark_* arguments are accepted and ignored. Skips with a message when there is no
// sound server to start.
#include "platform/NamedObjects.h"

#include <pulse/error.h>
#include <pulse/simple.h>

#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr uint32_t kRate = 44100;
constexpr uint32_t kChunk = 64; // frames per read: arrival times are known to about 1.5 ms
constexpr int kClicks = 40;
constexpr int kClickEveryMs = 150;

double NowMs()
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int Shell(const std::string& command)
{
    return std::system(command.c_str());
}

void WriteWav(const fs::path& path, double hz, int amplitude, uint32_t frames)
{
    std::vector<int16_t> samples(frames);
    for (uint32_t i = 0; i < frames; ++i)
        samples[i] = static_cast<int16_t>(amplitude * std::sin(2.0 * M_PI * hz * i / kRate));
    std::ofstream file(path, std::ios::binary);
    const auto u32 = [&file](uint32_t v) { file.write(reinterpret_cast<const char*>(&v), 4); };
    const auto u16 = [&file](uint16_t v) { file.write(reinterpret_cast<const char*>(&v), 2); };
    file.write("RIFF", 4);
    u32(36 + frames * 2);
    file.write("WAVEfmt ", 8);
    u32(16);
    u16(1);
    u16(1);
    u32(kRate);
    u32(kRate * 2);
    u16(2);
    u16(16);
    file.write("data", 4);
    u32(frames * 2);
    file.write(reinterpret_cast<const char*>(samples.data()), static_cast<std::streamsize>(frames * 2));
}

pa_simple* OpenStream(pa_stream_direction_t direction, const char* device, uint32_t bufferBytes)
{
    const pa_sample_spec format{PA_SAMPLE_S16LE, kRate, 1};
    pa_buffer_attr attr{};
    attr.maxlength = static_cast<uint32_t>(-1);
    attr.tlength = direction == PA_STREAM_PLAYBACK ? bufferBytes : static_cast<uint32_t>(-1);
    attr.prebuf = static_cast<uint32_t>(-1);
    attr.minreq = static_cast<uint32_t>(-1);
    attr.fragsize = direction == PA_STREAM_RECORD ? bufferBytes : static_cast<uint32_t>(-1);
    int error = 0;
    pa_simple* stream =
        pa_simple_new(nullptr, "bench_service", direction, device, "bench", &format, nullptr, &attr, &error);
    if (stream == nullptr)
        std::fprintf(stderr, "bench_service: %s: %s\n", device, pa_strerror(error));
    return stream;
}

// Records `device` until `stop`, noting the estimated arrival time of each click's first sample.
class ClickRecorder {
public:
    explicit ClickRecorder(const char* device)
        : m_stream(OpenStream(PA_STREAM_RECORD, device, kChunk * 2))
    {
        if (m_stream != nullptr)
            m_thread = std::thread([this] { Run(); });
    }
    ~ClickRecorder()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
        if (m_stream != nullptr)
            pa_simple_free(m_stream);
    }
    bool Ok() const { return m_stream != nullptr; }
    void Stop()
    {
        m_stop = true;
        if (m_thread.joinable())
            m_thread.join();
    }
    std::vector<double> Arrivals()
    {
        std::lock_guard lock(m_mutex);
        return m_arrivals;
    }

private:
    void Run()
    {
        int16_t chunk[kChunk];
        int64_t frame = 0;
        int64_t lastLoud = -100000;
        while (!m_stop) {
            if (pa_simple_read(m_stream, chunk, sizeof chunk, nullptr) < 0)
                return;
            const double now = NowMs();
            for (uint32_t i = 0; i < kChunk; ++i, ++frame) {
                if (std::abs(int{chunk[i]}) < 6000)
                    continue;
                // A click after 50 ms of quiet; its ringing is not a new one.
                if (frame - lastLoud > kRate / 20) {
                    std::lock_guard lock(m_mutex);
                    m_arrivals.push_back(now - (kChunk - i) * 1000.0 / kRate);
                }
                lastLoud = frame;
            }
        }
    }

    pa_simple* m_stream;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::vector<double> m_arrivals;
};

double Percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    const auto index = static_cast<size_t>(std::min<double>(values.size() - 1, std::ceil(p * values.size()) - 1));
    return values[index];
}

struct Result {
    std::string name;
    std::vector<std::pair<std::string, double>> counters;
};

uint64_t CpuTicks(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const size_t close = text.rfind(')');
    if (close == std::string::npos)
        return 0;
    std::istringstream rest(text.substr(close + 2));
    std::string field;
    uint64_t utime = 0;
    uint64_t stime = 0;
    // Fields 3 to 13 come first; utime and stime are fields 14 and 15.
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14)
            utime = std::stoull(field);
        if (i == 15)
            stime = std::stoull(field);
    }
    return utime + stime;
}

double CpuPercent(pid_t pid, double seconds)
{
    const uint64_t before = CpuTicks(pid);
    const double start = NowMs();
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
    const uint64_t after = CpuTicks(pid);
    const double elapsed = (NowMs() - start) / 1000.0;
    return 100.0 * static_cast<double>(after - before) / static_cast<double>(sysconf(_SC_CLK_TCK)) / elapsed;
}

class Service {
public:
    Service(const fs::path& root, uint32_t blockMs, bool noiseSuppression = true)
        : m_folder(root / ("app" + std::to_string(blockMs)))
    {
        const fs::path app(LARIMO_APP_DIR);
        // The benchmark library may run a case more than once: start from an empty folder.
        fs::remove_all(m_folder);
        fs::create_directories(m_folder / "backsounds");
        fs::create_directories(m_folder / "emoticsounds");
        for (const char* name : {"LarimoServer", "larimoctl", "voiceeffects.ini"})
            fs::copy_file(app / name, m_folder / name);
        fs::copy(app / "effects", m_folder / "effects", fs::copy_options::recursive);
        // The service as installed, with its language files, so its log reads as a user's does.
        fs::copy(app / "lang", m_folder / "lang", fs::copy_options::recursive);
        WriteWav(m_folder / "backsounds" / "Hum.wav", 300, 3000, kRate * 2);
        WriteWav(m_folder / "emoticsounds" / "Beep.wav", 2000, 3000, kRate * 30);
        WriteWav(m_folder / "emoticsounds" / "Tune.wav", 700, 3000, kRate * 30);
        std::ofstream(m_folder / "config.ini") << "[stream]\ninBuffSizeMs=" << blockMs
                                              << "\n[effects]\neff_0=Chipmunk\n"
                                                 "[sound_0]\nfile=Hum.wav\nvolume=100\n"
                                                 "[emotics]\nnum=2\nname_0=Beep\nfile_0=Beep.wav\n"
                                                 "name_1=Tune\nfile_1=Tune.wav\n"
                                              << "[voice]\nnoiseSuppression=" << (noiseSuppression ? 1 : 0)
                                              << "\n";
        m_pid = fork();
        if (m_pid == 0) {
            const std::string program = (m_folder / "LarimoServer").string();
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            dup2(null, 2);
            execl(program.c_str(), program.c_str(), nullptr);
            _exit(127);
        }
        for (int i = 0; i < 100 && Ctl("status") != 0; ++i)
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    ~Service() { Stop(); }

    // Ends the service and adds what its log says about the run: under-runs of the virtual
    // microphone and dropped blocks (-1 each when the log does not say).
    void Stop(Result* result = nullptr)
    {
        if (m_pid <= 0)
            return;
        kill(m_pid, SIGTERM);
        waitpid(m_pid, nullptr, 0);
        m_pid = -1;
        if (result == nullptr)
            return;
        double dropped = -1;
        double underruns = -1;
        double clockPpm = 0;
        std::ifstream log(Log());
        const std::string marker = "AudioPipeline: stopped after ";
        const std::string clockMarker = "virtual microphone's clock (";
        for (std::string line; std::getline(log, line);) {
            if (const size_t clockAt = line.find(clockMarker); clockAt != std::string::npos)
                clockPpm = std::atof(line.c_str() + clockAt + clockMarker.size());
            const size_t at = line.find(marker);
            unsigned long long blocks = 0;
            unsigned long long drops = 0;
            unsigned long long runs = 0;
            if (at != std::string::npos &&
                std::sscanf(line.c_str() + at + marker.size(), "%llu blocks, %llu dropped, %llu under-runs", &blocks,
                            &drops, &runs) == 3) {
                dropped = static_cast<double>(drops);
                underruns = static_cast<double>(runs);
            }
        }
        result->counters.emplace_back("underruns", underruns);
        result->counters.emplace_back("dropped_blocks", dropped);
        result->counters.emplace_back("clock_correction_ppm", clockPpm);
    }
    bool Ok() { return m_pid > 0 && Ctl("status") == 0; }
    fs::path Log() const { return m_folder / "larimosrv.log"; }
    pid_t Pid() const { return m_pid; }
    int Ctl(const std::string& arguments)
    {
        return Shell((m_folder / "larimoctl").string() + " " + arguments + " >/dev/null 2>&1");
    }

private:
    fs::path m_folder;
    pid_t m_pid = -1;
};

std::string LatencyName(uint32_t blockMs, bool withEffect, bool noiseSuppression)
{
    return "ServiceLatency/block_ms:" + std::to_string(blockMs) + (withEffect ? "/chipmunk" : "/dry") +
           (noiseSuppression ? "" : "/noise_suppression_off");
}

std::string SoakName(uint32_t blockMs, bool load)
{
    return "ServiceSoak/block_ms:" + std::to_string(blockMs) + (load ? "/core_busy" : "/alone");
}

// The delay from the microphone to the virtual microphone, dry or through the Chipmunk pitch
// effect of slot 1, with or without noise suppression.
Result MeasureLatency(const fs::path& root, uint32_t blockMs, bool withEffect, bool noiseSuppression)
{
    Result result{LatencyName(blockMs, withEffect, noiseSuppression), {}};
    Service service(root, blockMs, noiseSuppression);
    if (!service.Ok() || (withEffect && service.Ctl("effect 1") != 0)) {
        std::fprintf(stderr, "bench_service: the voice service did not start\n");
        return result;
    }
    ClickRecorder reference("mic_feed.monitor");
    ClickRecorder virtualMic("larimo_mic_source");
    pa_simple* player = OpenStream(PA_STREAM_PLAYBACK, "mic_feed", kRate / 100 * 2);
    if (!reference.Ok() || !virtualMic.Ok() || player == nullptr) {
        if (player != nullptr)
            pa_simple_free(player);
        return result;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    std::vector<int16_t> period(kRate * kClickEveryMs / 1000, 0);
    for (size_t i = 0; i < 22; ++i)
        period[i] = (i % 2 == 0) ? 30000 : -30000;
    for (int click = 0; click < kClicks; ++click)
        pa_simple_write(player, period.data(), period.size() * 2, nullptr);
    pa_simple_drain(player, nullptr);
    pa_simple_free(player);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    reference.Stop();
    virtualMic.Stop();

    const std::vector<double> sent = reference.Arrivals();
    const std::vector<double> came = virtualMic.Arrivals();
    std::vector<double> delays;
    for (double at : sent) {
        // The first arrival on the virtual microphone after the click, within one period.
        const auto found = std::lower_bound(came.begin(), came.end(), at - 2.0);
        if (found != came.end() && *found - at < kClickEveryMs)
            delays.push_back(std::max(0.0, *found - at));
    }
    result.counters = {{"clicks_sent", static_cast<double>(sent.size())},
                       {"clicks_arrived", static_cast<double>(delays.size())},
                       {"median_ms", Percentile(delays, 0.5)},
                       {"p99_ms", Percentile(delays, 0.99)},
                       // Noise suppression may add one of its frames (5 ms here), at most a block.
                       {"goal_ms", (blockMs >= 25 ? 40.0 : 15.0) + (withEffect ? 5.0 : 0.0) +
                                       (noiseSuppression ? 5.0 : 0.0)}};
    service.Stop(&result);
    return result;
}

// Watches the machine itself: a thread at the highest real-time priority asks to wake every
// millisecond and notes each time it woke late. Where even it could not run, neither could the
// sound server's threads nor the service's: the machine stalled (on a virtual machine, its host
// held it).
class StallWatch {
public:
    // Less than the virtual microphone's lead (6 ms): a stall that long may run it dry.
    static constexpr double kStallMs = 5.0;

    StallWatch() : m_thread([this] { Run(); }) {}
    ~StallWatch()
    {
        m_stop = true;
        m_thread.join();
    }

    bool Realtime() const { return m_realtime; }
    // When each stall of at least kStallMs began (NowMs) and how long it was.
    std::vector<std::pair<double, double>> Stalls()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_stalls;
    }

private:
    void Run()
    {
        sched_param priority{};
        priority.sched_priority = sched_get_priority_max(SCHED_FIFO);
        m_realtime = pthread_setschedparam(pthread_self(), SCHED_FIFO, &priority) == 0;
        timespec due{};
        clock_gettime(CLOCK_MONOTONIC, &due);
        while (!m_stop) {
            due.tv_nsec += 1000000;
            if (due.tv_nsec >= 1000000000) {
                due.tv_nsec -= 1000000000;
                ++due.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &due, nullptr);
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            const double lateMs = static_cast<double>(now.tv_sec - due.tv_sec) * 1000.0 +
                                  static_cast<double>(now.tv_nsec - due.tv_nsec) / 1e6;
            if (lateMs >= kStallMs) {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_stalls.emplace_back(NowMs() - lateMs, lateMs);
            }
            if (lateMs > 1.0)
                due = now; // no burst of wake-ups to catch up
        }
    }

    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_realtime{false};
    std::mutex m_mutex;
    std::vector<std::pair<double, double>> m_stalls;
    std::thread m_thread;
};

// Follows the service's log while it runs and notes when each report of under-runs of the
// virtual microphone appeared and how many it told of.
class UnderrunReports {
public:
    explicit UnderrunReports(fs::path log) : m_log(std::move(log)), m_thread([this] { Run(); }) {}
    ~UnderrunReports()
    {
        m_stop = true;
        m_thread.join();
    }

    // (NowMs when seen, under-runs since the report before)
    std::vector<std::pair<double, unsigned long long>> Reports()
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_reports;
    }

private:
    void Run()
    {
        static const std::string marker = "the virtual microphone ran out of data ";
        std::streamoff read = 0;
        std::string partial;
        while (!m_stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
            std::ifstream log(m_log, std::ios::binary);
            if (!log.seekg(read))
                continue;
            std::string fresh((std::istreambuf_iterator<char>(log)), std::istreambuf_iterator<char>());
            read += static_cast<std::streamoff>(fresh.size());
            partial += fresh;
            for (size_t end; (end = partial.find('\n')) != std::string::npos; partial.erase(0, end + 1)) {
                const std::string line = partial.substr(0, end);
                const size_t at = line.find(marker);
                if (at == std::string::npos)
                    continue;
                unsigned long long all = 0;
                unsigned long long since = 0;
                const char* count = line.c_str() + at + marker.size();
                if (std::sscanf(count, "%llu times (%llu since", &all, &since) == 2) {
                    const std::lock_guard<std::mutex> lock(m_mutex);
                    m_reports.emplace_back(NowMs(), since);
                }
            }
        }
    }

    fs::path m_log;
    std::atomic<bool> m_stop{false};
    std::mutex m_mutex;
    std::vector<std::pair<double, unsigned long long>> m_reports;
    std::thread m_thread;
};

// How many of the reported under-runs may be laid to a stall of the machine: those of a report
// with such stalls since the report before, at most one per stall. The service reports at once,
// or within ten seconds when it has just reported.
double UnderrunsAtStalls(const std::vector<std::pair<double, unsigned long long>>& reports,
                         const std::vector<std::pair<double, double>>& stalls, double since)
{
    double count = 0;
    for (const auto& [seen, underruns] : reports) {
        const double from = std::max(since, seen - 11000.0);
        const auto between = std::count_if(stalls.begin(), stalls.end(), [&](const auto& stall) {
            return stall.first > from && stall.first <= seen;
        });
        count += static_cast<double>(std::min(underruns, static_cast<unsigned long long>(between)));
        since = seen;
    }
    return count;
}

// A pitch effect, a background sound and two fun sounds of 30 s, for `seconds`, the fun sounds
// started again whenever they may have ended so that two always play.
void PlayEverything(Service& service, double seconds)
{
    service.Ctl("effect 1");
    service.Ctl("background 1");
    const auto startFunSounds = [&service] {
        service.Ctl("fun 1 play");
        service.Ctl("fun 2 play");
    };
    startFunSounds();
    for (double left = seconds; left > 0; left -= 25.0) {
        std::this_thread::sleep_for(std::chrono::duration<double>(std::min(left, 25.0)));
        if (left > 25.0)
            startFunSounds();
    }
}

// Under-runs of the virtual microphone while everything plays and somebody records, with or
// without another process that keeps one core busy.
Result MeasureSoak(const fs::path& root, uint32_t blockMs, double seconds, bool load)
{
    Result result{SoakName(blockMs, load), {}};
    std::fprintf(stderr, "bench_service: %s for %.0f s\n", result.name.c_str(), seconds);
    Service service(root, blockMs);
    if (!service.Ok())
        return result;
    pid_t spinner = -1;
    if (load) {
        spinner = fork();
        if (spinner == 0) {
            volatile uint64_t turn = 0;
            for (;;)
                turn = turn + 1;
        }
    }
    auto listener = std::make_unique<ClickRecorder>("larimo_mic_source");
    const double start = NowMs();
    auto watch = std::make_unique<StallWatch>();
    auto reports = std::make_unique<UnderrunReports>(service.Log());
    PlayEverything(service, seconds);
    const auto stalls = watch->Stalls();
    double longest = 0;
    for (const auto& stall : stalls)
        longest = std::max(longest, stall.second);
    // -1: the watching thread got no real-time priority, so its figures would say nothing.
    const bool watched = watch->Realtime();
    result.counters = {{"seconds", (NowMs() - start) / 1000.0},
                       {"goal_underruns", 0.0},
                       {"machine_stalls_over_5ms", watched ? static_cast<double>(stalls.size()) : -1.0},
                       {"longest_machine_stall_ms", watched ? longest : -1.0}};
    watch.reset();
    listener.reset();
    if (spinner > 0) {
        kill(spinner, SIGKILL);
        waitpid(spinner, nullptr, 0);
    }
    // The last report comes as the service stops.
    service.Stop(&result);
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    const auto seen = reports->Reports();
    result.counters.emplace_back("underruns_right_after_a_machine_stall",
                                 UnderrunsAtStalls(seen, stalls, start));
    // When, for a closer look beside the service's log.
    for (const auto& [at, length] : stalls) {
        std::fprintf(stderr, "bench_service: the machine stalled %.1f ms at %.1f s\n", length,
                     (at - start) / 1000.0);
    }
    for (const auto& [at, count] : seen) {
        std::fprintf(stderr, "bench_service: %llu under-runs reported at %.1f s\n", count,
                     (at - start) / 1000.0);
    }
    return result;
}

std::vector<Result> MeasureCpu(const fs::path& root, double seconds)
{
    std::vector<Result> results;
    Service service(root, 25);
    if (!service.Ok())
        return results;
    std::this_thread::sleep_for(std::chrono::milliseconds(1000));
    // Ten seconds at least: the kernel counts CPU time in ticks of 10 ms.
    results.push_back({"ServiceCpu/idle_nobody_records",
                       {{"cpu_percent", CpuPercent(service.Pid(), std::min(seconds, 20.0))}, {"goal_percent", 0.5}}});
    auto listener = std::make_unique<ClickRecorder>("larimo_mic_source");
    PlayEverything(service, 1.0);
    const uint64_t ticksBefore = CpuTicks(service.Pid());
    const double start = NowMs();
    PlayEverything(service, seconds);
    const double elapsed = (NowMs() - start) / 1000.0;
    const double percent = 100.0 * static_cast<double>(CpuTicks(service.Pid()) - ticksBefore) /
                           static_cast<double>(sysconf(_SC_CLK_TCK)) / elapsed;
    Result busy{"ServiceCpu/pitch_background_two_fun_sounds",
                {{"cpu_percent", percent}, {"seconds", elapsed}, {"goal_percent", 5.0}}};
    listener.reset();
    service.Stop(&busy);
    results.push_back(std::move(busy));
    return results;
}

std::string Json(const std::vector<Result>& results)
{
    std::ostringstream out;
    out << "{\n  \"context\": {\"executable\": \"bench_service\", \"library_build_type\": \""
#ifdef NDEBUG
        << "release"
#else
        << "debug"
#endif
        << "\"},\n  \"benchmarks\": [";
    for (size_t i = 0; i < results.size(); ++i) {
        out << (i == 0 ? "\n" : ",\n") << "    {\"name\": \"" << results[i].name
            << "\", \"run_type\": \"iteration\", \"iterations\": 1";
        for (const auto& [key, value] : results[i].counters)
            out << ", \"" << key << "\": " << (std::isfinite(value) ? value : -1.0);
        out << "}";
    }
    out << "\n  ]\n}\n";
    return out.str();
}

} // namespace

int main(int argc, char** argv)
{
    std::string outPath;
    double cpuSeconds = 10.0;
    double soakSeconds = 0;
    std::string filter;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.rfind("--benchmark_out=", 0) == 0)
            outPath = argument.substr(16);
        else if (argument.rfind("--cpu_seconds=", 0) == 0)
            cpuSeconds = std::max(1.0, std::atof(argument.c_str() + 14));
        else if (argument.rfind("--soak_seconds=", 0) == 0)
            soakSeconds = std::max(0.0, std::atof(argument.c_str() + 15));
        else if (argument.rfind("--benchmark_filter=", 0) == 0)
            filter = argument.substr(19);
    }
    char pattern[] = "/tmp/larimo-bench-service-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr)
        return 1;
    const fs::path root(made);
    const std::string server = std::string(LARIMO_SOURCE_DIR) + "/scripts/test-soundserver.sh";
    std::vector<Result> results;
    if (Shell(server + " start " + (root / "sound").string() + " >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "bench_service: skipped: the private sound server cannot start (pulseaudio missing?)\n");
    } else {
        setenv("PULSE_SERVER", ("unix:" + (root / "sound" / "native").string()).c_str(), 1);
        setenv("LARIMO_OBJECT_NAMESPACE", ("bench" + std::to_string(getpid())).c_str(), 1);
        const auto wanted = [&filter](const std::string& name) { return name.find(filter) != std::string::npos; };
        for (const bool noiseSuppression : {true, false}) {
            for (const bool withEffect : {false, true}) {
                for (const uint32_t blockMs : {25u, 5u}) {
                    if (wanted(LatencyName(blockMs, withEffect, noiseSuppression)))
                        results.push_back(MeasureLatency(root, blockMs, withEffect, noiseSuppression));
                }
            }
        }
        if (wanted("ServiceCpu/")) {
            for (Result& result : MeasureCpu(root, cpuSeconds))
                results.push_back(std::move(result));
        }
        for (const bool load : {false, true}) {
            for (const uint32_t blockMs : {25u, 5u}) {
                if (soakSeconds > 0 && wanted(SoakName(blockMs, load)))
                    results.push_back(MeasureSoak(root, blockMs, soakSeconds, load));
            }
        }
        Shell(server + " stop " + (root / "sound").string() + " >/dev/null 2>&1");
    }
    std::error_code ignored;
    fs::remove_all(root, ignored);
    // The named objects of the benchmark's own namespace go with it.
    larimo::RemoveNamedObjectNamespace("bench" + std::to_string(getpid()));
    const std::string json = Json(results);
    std::fputs(json.c_str(), stdout);
    if (!outPath.empty())
        std::ofstream(outPath) << json;
    return 0;
}
