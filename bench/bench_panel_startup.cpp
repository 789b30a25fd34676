// SPDX-License-Identifier: GPL-3.0-or-later
// The control panel's start-up, measured from outside: the real `larimo` is started again and
// again from a prepared copy of the app folder (wizard answered, devices chosen) while its voice
// service already runs, against a private sound server and a private object namespace, on a
// virtual X display of its own (Xvfb) or, where there is no Xvfb, on Qt's offscreen platform.
//
// Each launch is timed from just before fork() to the panel's "main window shown" line
// (LARIMO_REPORT_SHOWN=1: the first paint of the main window, on the same monotonic clock);
// the resident memory is the panel's VmHWM and its CPU time (user + system) are read from
// /proc as soon as that line arrives. The machine's load average goes with them: on a busy
// machine the wall-clock times grow while the CPU time stays.
// The panel ends itself through --screenshot after it has settled.
//
// Prints Google Benchmark style JSON; --benchmark_out=FILE writes it there too, --launches=N
// sets the number of measured launches (default 10). Other --benchmark_* arguments are
// accepted and ignored. Skips with a message when the sound server cannot start.
#include "platform/NamedObjects.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace fs = std::filesystem;

namespace {

constexpr double kGoalMs = 400;
constexpr double kGoalMb = 80;
constexpr int kLaunchTimeoutMs = 20000;
constexpr const char* kShownLine = "larimo: main window shown ";

long long NowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

int Shell(const std::string& command)
{
    return std::system(command.c_str());
}

std::optional<fs::path> FindProgram(const std::string& name)
{
    const char* path = std::getenv("PATH");
    std::istringstream folders(path != nullptr ? path : "/usr/bin:/bin");
    std::string folder;
    while (std::getline(folders, folder, ':')) {
        const fs::path candidate = fs::path(folder) / name;
        if (access(candidate.c_str(), X_OK) == 0)
            return candidate;
    }
    return std::nullopt;
}

// A kB figure ("VmHWM:   51234 kB") of /proc/<pid>/status; 0 when it cannot be read.
double StatusKb(pid_t pid, const std::string& key)
{
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind(key + ":", 0) == 0)
            return std::atof(line.c_str() + key.size() + 1);
    }
    return 0;
}

// CPU time (user + system) the process has used so far, in milliseconds; clock-tick resolution.
double CpuMs(pid_t pid)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    const std::size_t close = text.rfind(')');
    if (close == std::string::npos)
        return 0;
    std::istringstream rest(text.substr(close + 2));
    std::string field;
    double ticks = 0;
    // The state is field 3; utime and stime are fields 14 and 15.
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i >= 14)
            ticks += std::atof(field.c_str());
    }
    return ticks * 1000.0 / static_cast<double>(sysconf(_SC_CLK_TCK));
}

// The machine's load over the last minute: the times above mean little on a busy machine.
double LoadAverage()
{
    std::ifstream file("/proc/loadavg");
    double load = -1;
    file >> load;
    return load;
}

// Waits up to `ms` for the child to end; kills it when it does not.
int Reap(pid_t pid, int ms)
{
    int status = 0;
    for (int waited = 0; waited < ms; waited += 10) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            return status;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return status;
}

// The virtual display: Xvfb on a free display number it picks itself.
class VirtualDisplay {
public:
    explicit VirtualDisplay(const fs::path& xvfb)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        m_pid = fork();
        if (m_pid == 0) {
            close(fds[0]);
            const int null = open("/dev/null", O_WRONLY);
            dup2(null, 1);
            dup2(null, 2);
            const std::string fd = std::to_string(fds[1]);
            execl(xvfb.c_str(), "Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "1024x768x24", "-nolisten", "tcp",
                  nullptr);
            _exit(127);
        }
        close(fds[1]);
        pollfd wait{fds[0], POLLIN, 0};
        char number[32] = {};
        if (m_pid > 0 && poll(&wait, 1, 10000) == 1) {
            const ssize_t got = read(fds[0], number, sizeof number - 1);
            if (got > 0)
                m_display = ":" + std::string(number, static_cast<std::size_t>(got - (number[got - 1] == '\n' ? 1 : 0)));
        }
        close(fds[0]);
    }
    ~VirtualDisplay()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            Reap(m_pid, 5000);
        }
    }
    VirtualDisplay(const VirtualDisplay&) = delete;
    VirtualDisplay& operator=(const VirtualDisplay&) = delete;

    const std::string& Display() const { return m_display; }

private:
    pid_t m_pid = -1;
    std::string m_display;
};

struct Launch {
    bool shown = false;
    double ms = 0;
    double hwmMb = 0;
    double rssMb = 0;
    double cpuMs = 0;
    int status = 0;
};

// Starts the panel once and waits for its "shown" line, then for its own end.
Launch StartPanel(const fs::path& app, const fs::path& shot)
{
    Launch launch;
    int fds[2];
    if (pipe(fds) != 0)
        return launch;
    const std::string program = (app / "larimo").string();
    const std::string log = (app.parent_path() / "panel-stderr.log").string();
    const long long started = NowNs();
    const pid_t pid = fork();
    if (pid == 0) {
        close(fds[0]);
        dup2(fds[1], 1);
        const int errors = open(log.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
        dup2(errors, 2);
        execl(program.c_str(), program.c_str(), "--screenshot", shot.c_str(), nullptr);
        _exit(127);
    }
    close(fds[1]);
    if (pid < 0) {
        close(fds[0]);
        return launch;
    }
    std::string output;
    const long long deadline = started + static_cast<long long>(kLaunchTimeoutMs) * 1000000;
    while (!launch.shown && NowNs() < deadline) {
        pollfd wait{fds[0], POLLIN, 0};
        if (poll(&wait, 1, 100) != 1)
            continue;
        char chunk[256];
        const ssize_t got = read(fds[0], chunk, sizeof chunk);
        if (got <= 0)
            break;
        output.append(chunk, static_cast<std::size_t>(got));
        const std::size_t at = output.find(kShownLine);
        if (at == std::string::npos || output.find('\n', at) == std::string::npos)
            continue;
        // Memory first, while the panel still sits where it was when it reported.
        launch.hwmMb = StatusKb(pid, "VmHWM") / 1024.0;
        launch.rssMb = StatusKb(pid, "VmRSS") / 1024.0;
        launch.cpuMs = CpuMs(pid);
        const long long shownAt = std::atoll(output.c_str() + at + std::strlen(kShownLine));
        launch.ms = static_cast<double>(shownAt - started) / 1e6;
        launch.shown = true;
    }
    // The rest of the output is not needed; the pipe must not fill up while the panel ends.
    std::thread drain([fd = fds[0]] {
        char chunk[256];
        while (read(fd, chunk, sizeof chunk) > 0) {
        }
    });
    launch.status = Reap(pid, kLaunchTimeoutMs);
    drain.join();
    close(fds[0]);
    return launch;
}

// The voice services started from `app` (the panel starts them detached).
std::vector<pid_t> Services(const fs::path& app)
{
    std::vector<pid_t> found;
    const fs::path server = app / "LarimoServer";
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc", error)) {
        const std::string name = entry.path().filename().string();
        if (name.find_first_not_of("0123456789") != std::string::npos)
            continue;
        std::error_code unreadable;
        if (fs::read_symlink(entry.path() / "exe", unreadable) == server)
            found.push_back(static_cast<pid_t>(std::stol(name)));
    }
    return found;
}

void StopServices(const fs::path& app)
{
    for (const pid_t pid : Services(app))
        kill(pid, SIGTERM);
    for (int i = 0; i < 100 && !Services(app).empty(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
}

void PrepareAppFolder(const fs::path& app)
{
    fs::copy(LARIMO_APP_DIR, app, fs::copy_options::recursive);
    // Set up as the wizard would have left it on the private sound server.
    std::string settings;
    {
        std::ifstream file(app / "config.ini");
        settings.assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }
    const std::size_t at = settings.find("wizard=0");
    if (at != std::string::npos)
        settings.replace(at, 8, "wizard=1");
    else
        settings += "\n[sys]\nwizard=1\n";
    settings += "\n[soundcards]\ninput=Microphone (Test)\nmonitor=Speakers\n";
    std::ofstream(app / "config.ini", std::ios::trunc) << settings;
}

// The value at fraction `p` of the sorted values (0 the smallest, 1 the largest).
double Percentile(std::vector<double> values, double p)
{
    if (values.empty())
        return NAN;
    std::sort(values.begin(), values.end());
    const double rank = std::ceil(p * static_cast<double>(values.size())) - 1;
    const auto index = static_cast<std::size_t>(std::clamp(rank, 0.0, static_cast<double>(values.size() - 1)));
    return values[index];
}

std::string Json(const std::string& platform, const std::vector<Launch>& launches, int failed, double load)
{
    std::vector<double> times;
    std::vector<double> peaks;
    std::vector<double> cpu;
    for (const Launch& launch : launches) {
        times.push_back(launch.ms);
        peaks.push_back(launch.hwmMb);
        cpu.push_back(launch.cpuMs);
    }
    const auto number = [](double value) { return std::isfinite(value) ? value : -1.0; };
    std::ostringstream out;
    out << "{\n  \"context\": {\"executable\": \"bench_panel_startup\", \"library_build_type\": \""
#ifdef NDEBUG
        << "release"
#else
        << "debug"
#endif
        << "\", \"display\": \"" << platform << "\"},\n  \"benchmarks\": [";
    if (!launches.empty() || failed > 0) {
        const double median = Percentile(times, 0.5);
        out << "\n    {\"name\": \"PanelStartup/" << platform << "\", \"label\": \"" << platform
            << "\", \"run_type\": \"iteration\", \"iterations\": " << launches.size()
            << ", \"real_time\": " << number(median) << ", \"cpu_time\": " << number(Percentile(cpu, 0.5))
            << ", \"time_unit\": \"ms\", \"median_ms\": " << number(median)
            << ", \"max_ms\": " << number(Percentile(times, 1.0))
            << ", \"min_ms\": " << number(Percentile(times, 0.0))
            << ", \"median_cpu_ms\": " << number(Percentile(cpu, 0.5))
            << ", \"peak_rss_mb\": " << number(Percentile(peaks, 1.0))
            << ", \"median_rss_mb\": " << number(Percentile(peaks, 0.5)) << ", \"failed_launches\": " << failed
            << ", \"load_average\": " << load << ", \"goal_ms\": " << kGoalMs << ", \"goal_rss_mb\": " << kGoalMb << "}";
    }
    out << "\n  ]\n}\n";
    return out.str();
}

} // namespace

int main(int argc, char** argv)
{
    std::string outPath;
    int count = 10;
    for (int i = 1; i < argc; ++i) {
        const std::string argument = argv[i];
        if (argument.rfind("--benchmark_out=", 0) == 0)
            outPath = argument.substr(16);
        else if (argument.rfind("--launches=", 0) == 0)
            count = std::max(1, std::atoi(argument.c_str() + 11));
    }
    char pattern[] = "/tmp/larimo-bench-panel-XXXXXX";
    const char* made = mkdtemp(pattern);
    if (made == nullptr)
        return 1;
    const fs::path root(made);
    const fs::path app = root / "app";
    const std::string server = std::string(LARIMO_SOURCE_DIR) + "/scripts/test-soundserver.sh";
    const std::string ns = "benchpanel" + std::to_string(getpid());

    std::string platform = "none";
    std::vector<Launch> launches;
    int failed = 0;
    const double load = LoadAverage();
    if (Shell(server + " start " + (root / "sound").string() + " >/dev/null 2>&1") != 0) {
        std::fprintf(stderr, "bench_panel_startup: skipped: the private sound server cannot start (pulseaudio missing?)\n");
    } else {
        PrepareAppFolder(app);
        // Service registration, settings and named objects of this run stay inside `root`.
        setenv("PULSE_SERVER", ("unix:" + (root / "sound" / "native").string()).c_str(), 1);
        setenv("HOME", (root / "home").c_str(), 1);
        setenv("XDG_CONFIG_HOME", (root / "home" / ".config").c_str(), 1);
        setenv("XDG_RUNTIME_DIR", (root / "runtime").c_str(), 1);
        setenv("LARIMO_SERVICE_BACKEND", "supervisor", 1);
        setenv("LARIMO_OBJECT_NAMESPACE", ns.c_str(), 1);
        setenv("LARIMO_REPORT_SHOWN", "1", 1);
        unsetenv("DBUS_SESSION_BUS_ADDRESS");
        unsetenv("WAYLAND_DISPLAY");
        fs::create_directories(root / "home" / ".config");
        fs::create_directories(root / "runtime");
        chmod((root / "runtime").c_str(), 0700);

        std::optional<VirtualDisplay> display;
        if (const std::optional<fs::path> xvfb = FindProgram("Xvfb")) {
            display.emplace(*xvfb);
            if (!display->Display().empty()) {
                setenv("DISPLAY", display->Display().c_str(), 1);
                unsetenv("QT_QPA_PLATFORM");
                platform = "xvfb";
            } else {
                display.reset();
            }
        }
        if (platform != "xvfb") {
            setenv("QT_QPA_PLATFORM", "offscreen", 1);
            platform = "offscreen";
        }
        std::fprintf(stderr, "bench_panel_startup: the panel runs on %s\n",
                     platform == "xvfb" ? "a virtual X display (Xvfb)" : "Qt's offscreen platform (no Xvfb found)");

        // The first start registers and starts the voice service and fills the file cache;
        // every start after it finds the service running.
        const Launch first = StartPanel(app, root / "shot.png");
        if (!first.shown) {
            std::fprintf(stderr, "bench_panel_startup: the panel did not show its main window; see %s and %s\n",
                         (root / "panel-stderr.log").c_str(), (app / "larimocl.log").c_str());
            ++failed;
        } else {
            for (int i = 0; i < count; ++i) {
                const Launch launch = StartPanel(app, root / "shot.png");
                if (launch.shown)
                    launches.push_back(launch);
                else
                    ++failed;
            }
        }
        StopServices(app);
        display.reset();
        Shell(server + " stop " + (root / "sound").string() + " >/dev/null 2>&1");
        // The named objects of this run's namespace, now that nothing uses them.
        larimo::RemoveNamedObjectNamespace(ns);
    }
    if (failed == 0) {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    const std::string json = Json(platform, launches, failed, load);
    std::fputs(json.c_str(), stdout);
    if (!outPath.empty())
        std::ofstream(outPath) << json;
    return 0;
}
