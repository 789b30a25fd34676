// SPDX-License-Identifier: GPL-3.0-or-later
#include "ServiceSandbox.h"

#include "ServiceProcess.h"
#include "VersionInfo.h"
#include "moipc_cli.h"
#include "platform/ElfSection.h"
#include "server/moipc_cmds.h"

#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

namespace larimo::test {

namespace fs = std::filesystem;

namespace {

std::string ReadText(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

} // namespace

ServiceSandbox::ServiceSandbox()
{
    char pattern[] = "/tmp/larimo-svc-XXXXXX";
    m_root = mkdtemp(pattern);
    m_app = m_root / "app";
    m_config = m_root / "config";
    fs::create_directories(m_app);
    fs::create_directories(m_config);
    fs::copy_file(fs::path(LARIMO_APP_DIR) / "LarimoServer", m_app / "LarimoServer");
    fs::copy_file(fs::path(LARIMO_APP_DIR) / "larimoctl", m_app / "larimoctl");
    if (const char* old = std::getenv("XDG_CONFIG_HOME")) {
        m_hadConfigHome = true;
        m_oldConfigHome = old;
    }
    setenv("XDG_CONFIG_HOME", m_config.c_str(), 1);
    setenv("LARIMO_SERVICE_BACKEND", "supervisor", 1);
}

ServiceSandbox::~ServiceSandbox()
{
    std::error_code ignored;
    const fs::path folder = m_config / "larimo" / "services";
    for (const auto& entry : fs::directory_iterator(folder, ignored)) {
        if (entry.path().extension() != ".service")
            continue;
        const pid_t pid = RecordedPid(entry.path().stem().string());
        if (pid > 0 && ProcessStartTime(pid) != 0) {
            kill(pid, SIGKILL);
            WaitFor(5000, [pid] { return !ProcessAlive(pid); });
        }
    }
    unsetenv("LARIMO_SERVICE_BACKEND");
    if (m_hadConfigHome)
        setenv("XDG_CONFIG_HOME", m_oldConfigHome.c_str(), 1);
    else
        unsetenv("XDG_CONFIG_HOME");
    fs::remove_all(m_root, ignored);
}

fs::path ServiceSandbox::Registration(const std::string& name) const
{
    return m_config / "larimo" / "services" / (name + ".service");
}

pid_t ServiceSandbox::RecordedPid(const std::string& name) const
{
    std::istringstream lines(ReadText(Registration(name)));
    std::string line;
    while (std::getline(lines, line)) {
        if (line.rfind("Pid=", 0) == 0)
            return static_cast<pid_t>(std::atol(line.c_str() + 4));
    }
    return 0;
}

void ServiceSandbox::WriteRegistration(const std::string& name, const std::string& program, pid_t pid,
                                       uint64_t startTime) const
{
    fs::create_directories(Registration(name).parent_path());
    std::ofstream(Registration(name)) << "[Service]\nName=" << name << "\nProgram=" << program
                                      << "\nStartType=auto\nDeletePending=0\n[Process]\nPid=" << pid
                                      << "\nStartTime=" << startTime << "\nStopRequested=0\n";
}

uint64_t ProcessStartTime(pid_t pid)
{
    const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    if (close == std::string::npos)
        return 0;
    std::istringstream fields(stat.substr(close + 2));
    std::string field;
    for (int index = 3; index <= 22 && fields >> field; ++index) {
        if (index == 22)
            return std::strtoull(field.c_str(), nullptr, 10);
    }
    return 0;
}

bool ProcessAlive(pid_t pid)
{
    const std::string stat = ReadText("/proc/" + std::to_string(pid) + "/stat");
    const size_t close = stat.rfind(')');
    return close != std::string::npos && close + 2 < stat.size() && stat[close + 2] != 'Z';
}

bool ServiceAnswers()
{
    return ConnectToService(kIpcBaseName) != nullptr;
}

bool CopyWithProductVersion(const fs::path& source, const fs::path& target, const std::string& version)
{
    std::string section;
    ElfSectionPlace place;
    if (ReadElfSection(source.string(), kVersionSection, 1 << 16, section, &place) != 0)
        return false;
    const std::string key = std::string("ProductVersion") + '\0';
    const size_t at = section.find(key);
    if (at == std::string::npos)
        return false;
    const size_t value = at + key.size();
    const size_t end = section.find('\0', value);
    if (end == std::string::npos || end - value != version.size())
        return false;
    std::string image = ReadText(source);
    image.replace(static_cast<size_t>(place.m_offset) + value, version.size(), version);
    const fs::path temporary = target.string() + ".new";
    std::ofstream(temporary, std::ios::binary) << image;
    chmod(temporary.c_str(), 0755);
    std::error_code error;
    fs::rename(temporary, target, error);
    return !error;
}

std::string WhyNoUserSystemd(uint32_t error)
{
    std::error_code ignored;
    // A user manager runs only on a machine whose init is systemd (containers mostly are not).
    if (!fs::is_directory("/run/systemd/system", ignored))
        return "this machine was not booted with systemd (no /run/systemd/system), so no user manager can run here; "
               "these tests run inside a desktop session";
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    if (runtime == nullptr || *runtime == '\0')
        return "XDG_RUNTIME_DIR is not set, so neither the user bus nor the manager's private socket can be found "
               "(a login through the session manager sets it)";
    return "no user bus and no " + std::string(runtime) + "/systemd/private answer (error " + std::to_string(error)
        + "); the user manager may not run for this user (loginctl enable-linger, or a desktop session)";
}

} // namespace larimo::test
