// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/SupervisorServiceManager.h"

#include "mlog.h"
#include "platform/Profile.h"
#include "platform/ServiceFiles.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <optional>
#include <thread>

namespace larimo {

namespace {

constexpr std::string_view kService = "Service";
constexpr std::string_view kProcess = "Process";
constexpr off_t kLogRotateBytes = 1024 * 1024;
// How long a new registration waits for the process of a removed one of the same name to end.
constexpr auto kDeletionGrace = std::chrono::milliseconds(3000);

bool Fail(int code)
{
    SetLastServiceError(static_cast<uint32_t>(code));
    return false;
}

int Result(int result, int code)
{
    SetLastServiceError(static_cast<uint32_t>(code));
    return result;
}

uint64_t ParseNumber(std::string_view text)
{
    uint64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    return error == std::errc() && end == text.data() + text.size() ? value : 0;
}

struct ProcessFacts {
    char m_state = '?';
    uint64_t m_startTime = 0;
};

// /proc/<pid>/stat: "pid (comm) state ... starttime(22) ...". The command may hold blanks and
// parentheses, so fields are counted from the last ')'.
std::optional<ProcessFacts> ReadProcessFacts(pid_t pid)
{
    std::string stat;
    if (!ReadSmallFile("/proc/" + std::to_string(pid) + "/stat", stat))
        return std::nullopt;
    const size_t close = stat.rfind(')');
    if (close == std::string::npos)
        return std::nullopt;
    ProcessFacts facts;
    size_t position = close + 1;
    for (int field = 3; field <= 22; ++field) {
        while (position < stat.size() && stat[position] == ' ')
            ++position;
        const size_t end = std::min(stat.find(' ', position), stat.size());
        const std::string_view value(stat.data() + position, end - position);
        if (value.empty())
            return std::nullopt;
        if (field == 3)
            facts.m_state = value.front();
        else if (field == 22)
            facts.m_startTime = ParseNumber(value);
        position = end;
    }
    return facts;
}

std::string ProcessProgram(pid_t pid)
{
    std::array<char, PATH_MAX> buffer{};
    const std::string link = "/proc/" + std::to_string(pid) + "/exe";
    const ssize_t length = readlink(link.c_str(), buffer.data(), buffer.size() - 1);
    if (length <= 0)
        return {};
    std::string path(buffer.data(), static_cast<size_t>(length));
    // A program replaced on disk while it runs (an upgrade) is still the same service.
    constexpr std::string_view kDeleted = " (deleted)";
    if (path.size() > kDeleted.size() && path.compare(path.size() - kDeleted.size(), kDeleted.size(), kDeleted) == 0)
        path.resize(path.size() - kDeleted.size());
    return path;
}

std::string CanonicalProgram(const std::string& program)
{
    std::array<char, PATH_MAX> buffer{};
    if (realpath(program.c_str(), buffer.data()) != nullptr)
        return buffer.data();
    return program;
}

// An exclusive flock for the duration of one operation.
class RegistrationLock {
public:
    explicit RegistrationLock(const std::string& path)
        : m_fd(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600))
    {
        if (m_fd >= 0) {
            while (flock(m_fd, LOCK_EX) != 0 && errno == EINTR) { }
        }
    }
    ~RegistrationLock()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    RegistrationLock(const RegistrationLock&) = delete;
    RegistrationLock& operator=(const RegistrationLock&) = delete;
    bool Held() const { return m_fd >= 0; }

private:
    int m_fd;
};

class Pipe {
public:
    Pipe() { m_ok = pipe2(m_fds.data(), O_CLOEXEC) == 0; }
    ~Pipe()
    {
        CloseRead();
        CloseWrite();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    bool Ok() const { return m_ok; }
    int Read() const { return m_fds[0]; }
    int Write() const { return m_fds[1]; }
    void CloseRead() { CloseEnd(0); }
    void CloseWrite() { CloseEnd(1); }

private:
    void CloseEnd(size_t end)
    {
        if (m_ok && m_fds[end] >= 0) {
            close(m_fds[end]);
            m_fds[end] = -1;
        }
    }
    std::array<int, 2> m_fds{-1, -1};
    bool m_ok = false;
};

bool ReadAll(int fd, void* data, size_t size)
{
    auto* bytes = static_cast<char*>(data);
    size_t done = 0;
    while (done < size) {
        const ssize_t got = read(fd, bytes + done, size - done);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return false;
        done += static_cast<size_t>(got);
    }
    return true;
}

// Only async-signal-safe calls between fork and exec: the caller may have other threads.
[[noreturn]] void RunDetached(const char* program, const char* folder, const char* logPath, int pidPipe, int execPipe)
{
    if (setsid() < 0)
        _exit(126);
    const pid_t service = fork();
    if (service < 0)
        _exit(126);
    if (service > 0) {
        ssize_t ignored = write(pidPipe, &service, sizeof service);
        (void)ignored;
        _exit(0);
    }
    sigset_t all;
    sigemptyset(&all);
    sigprocmask(SIG_SETMASK, &all, nullptr);
    struct sigaction defaults {};
    defaults.sa_handler = SIG_DFL;
    for (int signal = 1; signal < NSIG; ++signal)
        sigaction(signal, &defaults, nullptr);
    const int input = open("/dev/null", O_RDONLY);
    int output = open(logPath, O_WRONLY | O_CREAT | O_APPEND, 0600);
    if (output < 0)
        output = open("/dev/null", O_WRONLY);
    if (input < 0 || output < 0 || dup2(input, 0) < 0 || dup2(output, 1) < 0 || dup2(output, 2) < 0) {
        const int error = errno;
        ssize_t ignored = write(execPipe, &error, sizeof error);
        (void)ignored;
        _exit(127);
    }
    if (chdir(folder) != 0) {
        // The program finds its files from its own path; a folder it cannot enter is no reason
        // not to start it.
    }
    // The caller's descriptors (its locks among them) are none of the service's business.
    if (execPipe > 3)
        close_range(3, static_cast<unsigned>(execPipe) - 1, 0);
    close_range(static_cast<unsigned>(execPipe) + 1, ~0U, 0);
    char* const arguments[] = {const_cast<char*>(program), nullptr};
    execv(program, arguments);
    const int error = errno;
    ssize_t ignored = write(execPipe, &error, sizeof error);
    (void)ignored;
    _exit(127);
}

class SupervisorServiceManager final : public ServiceManager {
public:
    explicit SupervisorServiceManager(std::string folder) : m_folder(std::move(folder)) { }

    std::string_view Backend() const override { return "supervisor"; }

    bool Create(const ServiceIdentity& identity) override
    {
        if (!IsValidServiceName(identity.m_name) || identity.m_program.empty() || identity.m_program.front() != '/')
            return Fail(EINVAL);
        RegistrationLock lock(LockPath(identity.m_name));
        if (!lock.Held())
            return Fail(errno);
        if (std::optional<IniDocument> existing = Load(identity.m_name)) {
            if (existing->Get(kService, "DeletePending", "0") != "1")
                return Fail(EEXIST);
            const auto deadline = std::chrono::steady_clock::now() + kDeletionGrace;
            while (StateOf(*existing) != kServiceStopped) {
                if (std::chrono::steady_clock::now() >= deadline)
                    return Fail(EBUSY);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            if (!Remove(identity.m_name))
                return Fail(errno);
        } else if (errno != ENOENT) {
            return Fail(errno);
        }
        IniDocument document;
        document.Set(kService, "Name", identity.m_name);
        document.Set(kService, "DisplayName", identity.m_displayName);
        document.Set(kService, "Description", identity.m_description);
        document.Set(kService, "Program", identity.m_program);
        document.Set(kService, "StartType", "auto");
        document.Set(kService, "DeletePending", "0");
        document.Set(kProcess, "Pid", "0");
        document.Set(kProcess, "StartTime", "0");
        document.Set(kProcess, "StopRequested", "0");
        return Save(identity.m_name, document);
    }

    bool SetDescription(const std::string& name, const std::string& description) override
    {
        return Edit(name, [&](IniDocument& document) { document.Set(kService, "Description", description); });
    }

    bool RegisterLogSource(const std::string& name, const std::string& identifier) override
    {
        // Output goes to the service's own log file; the identifier is kept for the record.
        return Edit(name, [&](IniDocument& document) { document.Set(kService, "LogIdentifier", identifier); });
    }

    int Start(const std::string& name) override
    {
        std::optional<Opened> opened = OpenService(name);
        if (!opened)
            return Result(OpenFailure(), static_cast<int>(LastServiceError()));
        IniDocument& document = opened->m_document;
        const ServiceState state = StateOf(document);
        if (state == kServiceRunning || state == kServiceStartPending)
            return Result(kNtsSuccess, 0);
        if (state == kServiceStopPending)
            return Result(kNtsStartFailed, EBUSY);

        const std::string program = document.Get(kService, "Program", "", PATH_MAX);
        if (program.empty() || program.front() != '/')
            return Result(kNtsStartFailed, ENOENT);
        if (access(program.c_str(), X_OK) != 0)
            return Result(kNtsStartFailed, errno);
        const std::string logPath = m_folder + name + ".log";
        struct stat logInfo {};
        if (stat(logPath.c_str(), &logInfo) == 0 && logInfo.st_size > kLogRotateBytes)
            rename(logPath.c_str(), (logPath + ".old").c_str());
        std::string folder = program.substr(0, program.rfind('/') + 1);

        Pipe pidPipe;
        Pipe execPipe;
        if (!pidPipe.Ok() || !execPipe.Ok())
            return Result(kNtsStartFailed, errno);
        const pid_t child = fork();
        if (child < 0)
            return Result(kNtsStartFailed, errno);
        if (child == 0)
            RunDetached(program.c_str(), folder.c_str(), logPath.c_str(), pidPipe.Write(), execPipe.Write());
        pidPipe.CloseWrite();
        execPipe.CloseWrite();
        int childStatus = 0;
        while (waitpid(child, &childStatus, 0) < 0 && errno == EINTR) { }
        pid_t service = 0;
        if (!ReadAll(pidPipe.Read(), &service, sizeof service) || service <= 0)
            return Result(kNtsStartFailed, ECHILD);
        // The exec closes its end; an error number arrives only when the exec failed.
        int execError = 0;
        if (ReadAll(execPipe.Read(), &execError, sizeof execError))
            return Result(kNtsStartFailed, execError);

        const std::optional<ProcessFacts> facts = ReadProcessFacts(service);
        document.Set(kProcess, "Pid", std::to_string(service));
        document.Set(kProcess, "StartTime", std::to_string(facts ? facts->m_startTime : 0));
        document.Set(kProcess, "StopRequested", "0");
        if (!Save(name, document)) {
            // Not recorded means not controllable: better no service than an orphan.
            const int error = static_cast<int>(LastServiceError());
            kill(service, SIGTERM);
            return Result(kNtsStartFailed, error);
        }
        LogInfo("Supervisor: started \"%s\" (%s) as process %d", name.c_str(), program.c_str(), static_cast<int>(service));
        return Result(kNtsSuccess, 0);
    }

    int Stop(const std::string& name) override
    {
        std::optional<Opened> opened = OpenService(name);
        if (!opened)
            return Result(OpenFailure(), static_cast<int>(LastServiceError()));
        IniDocument& document = opened->m_document;
        const ServiceState state = StateOf(document);
        if (state == kServiceStopped || state == kServiceStopPending)
            return Result(kNtsSuccess, 0);
        if (kill(RecordedPid(document), SIGTERM) != 0)
            return Result(kNtsStopFailed, errno);
        document.Set(kProcess, "StopRequested", "1");
        if (!Save(name, document))
            return Result(kNtsStopFailed, static_cast<int>(LastServiceError()));
        return Result(kNtsSuccess, 0);
    }

    int Status(const std::string& name, ServiceState& state) override
    {
        if (!IsValidServiceName(name))
            return Result(kNtsNotFound, EINVAL);
        RegistrationLock lock(LockPath(name));
        if (!lock.Held())
            return Result(kNtsManagerDenied, errno);
        std::optional<IniDocument> document = Load(name);
        if (!document)
            return Result(errno == ENOENT ? kNtsNotFound : kNtsQueryFailed, errno);
        const ServiceState current = StateOf(*document);
        if (FinishDeletion(name, *document, current))
            return Result(kNtsNotFound, ENOENT);
        state = current;
        return Result(kNtsSuccess, 0);
    }

    int GetPath(const std::string& name, std::string& path) override
    {
        std::optional<Opened> opened = OpenService(name);
        if (!opened)
            return Result(OpenFailure(), static_cast<int>(LastServiceError()));
        path = opened->m_document.Get(kService, "Program", "", PATH_MAX);
        return Result(kNtsSuccess, 0);
    }

    int Uninstall(const std::string& name) override
    {
        std::optional<Opened> opened = OpenService(name);
        if (!opened)
            return Result(kNtsOpenFailed, static_cast<int>(LastServiceError()));
        IniDocument& document = opened->m_document;
        const ServiceState state = StateOf(document);
        if (state == kServiceStopped)
            return Remove(name) ? Result(kNtsSuccess, 0) : Result(kNtsDeleteFailed, errno);
        kill(RecordedPid(document), SIGTERM);
        document.Set(kProcess, "StopRequested", "1");
        document.Set(kService, "DeletePending", "1");
        if (!Save(name, document))
            return Result(kNtsDeleteFailed, static_cast<int>(LastServiceError()));
        return Result(kNtsSuccess, 0);
    }

private:
    struct Opened {
        std::unique_ptr<RegistrationLock> m_lock;
        IniDocument m_document;
    };

    std::string RegistrationPath(const std::string& name) const { return m_folder + name + ".service"; }
    std::string LockPath(const std::string& name) const { return m_folder + name + ".lock"; }

    // The result an operation gives when OpenService failed, from the cause it left.
    static int OpenFailure()
    {
        const uint32_t cause = LastServiceError();
        if (cause == ENOENT)
            return kNtsNotFound;
        if (cause == EACCES || cause == EPERM)
            return kNtsAccessDenied;
        return kNtsOpenFailed;
    }

    // The registration under its lock, or nothing with the cause in LastServiceError(). A removed
    // registration whose process has ended is finished off here and reads as missing.
    std::optional<Opened> OpenService(const std::string& name)
    {
        if (!IsValidServiceName(name)) {
            SetLastServiceError(EINVAL);
            return std::nullopt;
        }
        Opened opened;
        opened.m_lock = std::make_unique<RegistrationLock>(LockPath(name));
        if (!opened.m_lock->Held()) {
            SetLastServiceError(static_cast<uint32_t>(errno));
            return std::nullopt;
        }
        std::optional<IniDocument> document = Load(name);
        if (!document) {
            SetLastServiceError(static_cast<uint32_t>(errno));
            return std::nullopt;
        }
        if (FinishDeletion(name, *document, StateOf(*document))) {
            SetLastServiceError(ENOENT);
            return std::nullopt;
        }
        opened.m_document = std::move(*document);
        return opened;
    }

    bool FinishDeletion(const std::string& name, const IniDocument& document, ServiceState state)
    {
        if (document.Get(kService, "DeletePending", "0") != "1" || state != kServiceStopped)
            return false;
        if (!Remove(name))
            LogWarning("Supervisor: cannot remove the registration of \"%s\" (errno %d)", name.c_str(), errno);
        return true;
    }

    template <typename EditFunction>
    bool Edit(const std::string& name, const EditFunction& edit)
    {
        std::optional<Opened> opened = OpenService(name);
        if (!opened)
            return false;
        edit(opened->m_document);
        return Save(name, opened->m_document);
    }

    std::optional<IniDocument> Load(const std::string& name) const
    {
        std::string text;
        if (!ReadSmallFile(RegistrationPath(name), text))
            return std::nullopt;
        IniDocument document = IniDocument::Parse(text);
        if (!document.HasSection(kService)) {
            LogWarning("Supervisor: \"%s\" is no service registration, taken as none", RegistrationPath(name).c_str());
            errno = ENOENT;
            return std::nullopt;
        }
        return document;
    }

    bool Save(const std::string& name, const IniDocument& document) const
    {
        if (!ReplaceFile(RegistrationPath(name), document.Serialize()))
            return Fail(errno);
        return true;
    }

    bool Remove(const std::string& name) const
    {
        return unlink(RegistrationPath(name).c_str()) == 0 || errno == ENOENT;
    }

    static pid_t RecordedPid(const IniDocument& document)
    {
        const uint64_t pid = ParseNumber(document.Get(kProcess, "Pid", "0"));
        return pid > 0 && pid <= static_cast<uint64_t>(INT_MAX) ? static_cast<pid_t>(pid) : 0;
    }

    static ServiceState StateOf(const IniDocument& document)
    {
        const pid_t pid = RecordedPid(document);
        if (pid <= 0)
            return kServiceStopped;
        const std::optional<ProcessFacts> facts = ReadProcessFacts(pid);
        if (!facts || facts->m_state == 'Z' || facts->m_state == 'X')
            return kServiceStopped;
        const uint64_t recordedStart = ParseNumber(document.Get(kProcess, "StartTime", "0"));
        if (recordedStart != 0 && facts->m_startTime != recordedStart)
            return kServiceStopped; // the pid now belongs to someone else
        const bool stopRequested = document.Get(kProcess, "StopRequested", "0") == "1";
        const std::string program = document.Get(kService, "Program", "", PATH_MAX);
        const bool isProgram = ProcessProgram(pid) == CanonicalProgram(program);
        if (!isProgram && recordedStart == 0)
            return kServiceStopped; // nothing ties this process to the registration
        if (stopRequested)
            return kServiceStopPending;
        return isProgram ? kServiceRunning : kServiceStartPending;
    }

    std::string m_folder;
};

} // namespace

std::string SupervisorFolder()
{
    const std::string home = UserConfigHome();
    return home.empty() ? std::string() : home + "/larimo/services/";
}

std::unique_ptr<ServiceManager> OpenSupervisorServiceManager()
{
    const std::string folder = SupervisorFolder();
    if (folder.empty()) {
        SetLastServiceError(ENOENT);
        return nullptr;
    }
    if (!MakeFolders(folder.substr(0, folder.size() - 1))) {
        SetLastServiceError(static_cast<uint32_t>(errno));
        return nullptr;
    }
    return std::make_unique<SupervisorServiceManager>(folder);
}

} // namespace larimo
