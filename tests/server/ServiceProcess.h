// SPDX-License-Identifier: GPL-3.0-or-later
// Runs the real LarimoServer from a temporary app folder for multi-process tests.
#pragma once

#include "../PrivateObjects.h"

#include <sys/types.h>

#include <chrono>
#include <filesystem>
#include <string>
#include <thread>

namespace larimo::test {

class ServiceProcess {
public:
    /// A fresh app folder holding a copy of the built LarimoServer and `configIni`.
    explicit ServiceProcess(const std::string& configIni = {});
    ~ServiceProcess();
    ServiceProcess(const ServiceProcess&) = delete;
    ServiceProcess& operator=(const ServiceProcess&) = delete;

    /// Puts a quiet tone of `seconds` in the library format at `relativePath` of the app folder
    /// ("emoticsounds/Voices/Laugh.wav"), so the service has a real sound to play.
    void AddSound(const std::string& relativePath, double seconds) const;

    /// Starts the service and waits until it answers (at most 10 s). False if it did not.
    bool Start();
    /// Runs a second instance to its end and returns its exit status (-1 on a signal).
    int RunToEnd() const;
    /// Sends the signal and reaps the process; returns the exit status, or 128 + signal.
    int Stop(int signal);
    void Signal(int signal) const;

    pid_t Pid() const { return m_pid; }
    const std::filesystem::path& Folder() const { return m_folder; }
    std::filesystem::path Program() const { return m_folder / "LarimoServer"; }

private:
    pid_t Spawn() const;

    std::filesystem::path m_folder;
    pid_t m_pid = -1;
};

/// Writes a mono 16-bit 44.1 kHz WAV file holding a sine of `count` samples, making its folder.
void WriteSineWav(const std::filesystem::path& path, double hz, double amplitude, size_t count);

/// Runs a shell command and gives back what it printed (standard output and error).
std::string Shell(const std::string& command);

/// Waits for `predicate` up to `ms` milliseconds, checking every 5 ms.
template <typename Predicate>
bool WaitFor(int ms, const Predicate& predicate)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
    while (std::chrono::steady_clock::now() < end) {
        if (predicate())
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return predicate();
}

} // namespace larimo::test
