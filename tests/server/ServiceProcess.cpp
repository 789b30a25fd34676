// SPDX-License-Identifier: GPL-3.0-or-later
#include "ServiceProcess.h"

#include "moipc_cli.h"
#include "server/moipc_cmds.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace larimo::test {

namespace fs = std::filesystem;

std::string Shell(const std::string& command)
{
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr)
        return output;
    char buffer[4096];
    size_t got = 0;
    while ((got = fread(buffer, 1, sizeof buffer, pipe)) > 0)
        output.append(buffer, got);
    pclose(pipe);
    return output;
}

ServiceProcess::ServiceProcess(const std::string& configIni)
{
    char pattern[] = "/tmp/larimo-app-XXXXXX";
    m_folder = mkdtemp(pattern);
    fs::copy_file(fs::path(LARIMO_APP_DIR) / "LarimoServer", Program());
    if (!configIni.empty())
        std::ofstream(m_folder / "config.ini") << configIni;
}

ServiceProcess::~ServiceProcess()
{
    if (m_pid > 0)
        Stop(SIGKILL);
    std::error_code ignored;
    fs::remove_all(m_folder, ignored);
}

pid_t ServiceProcess::Spawn() const
{
    const pid_t pid = fork();
    if (pid == 0) {
        const std::string program = Program().string();
        execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    return pid;
}

void WriteSineWav(const std::filesystem::path& path, double hz, double amplitude, size_t count)
{
    std::filesystem::create_directories(path.parent_path());
    const auto dataBytes = static_cast<uint32_t>(count * 2);
    std::ofstream file(path, std::ios::binary);
    const auto u32 = [&file](uint32_t value) { file.write(reinterpret_cast<const char*>(&value), 4); };
    const auto u16 = [&file](uint16_t value) { file.write(reinterpret_cast<const char*>(&value), 2); };
    file.write("RIFF", 4);
    u32(36 + dataBytes);
    file.write("WAVEfmt ", 8);
    u32(16);
    u16(1);
    u16(1);
    u32(44100);
    u32(88200);
    u16(2);
    u16(16);
    file.write("data", 4);
    u32(dataBytes);
    for (size_t i = 0; i < count; ++i)
        u16(static_cast<uint16_t>(
            static_cast<int16_t>(amplitude * std::sin(2 * M_PI * hz * static_cast<double>(i) / 44100.0))));
}

void ServiceProcess::AddSound(const std::string& relativePath, double seconds) const
{
    WriteSineWav(m_folder / relativePath, 440, 1000, static_cast<size_t>(seconds * 44100));
}

bool ServiceProcess::Start()
{
    m_pid = Spawn();
    if (m_pid <= 0)
        return false;
    return WaitFor(10000, [] { return ConnectToService(kIpcBaseName) != nullptr; });
}

int ServiceProcess::RunToEnd() const
{
    const pid_t pid = Spawn();
    int status = 0;
    waitpid(pid, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

void ServiceProcess::Signal(int signal) const
{
    if (m_pid > 0)
        kill(m_pid, signal);
}

int ServiceProcess::Stop(int signal)
{
    if (m_pid <= 0)
        return -1;
    kill(m_pid, signal);
    int status = 0;
    waitpid(m_pid, &status, 0);
    m_pid = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace larimo::test
