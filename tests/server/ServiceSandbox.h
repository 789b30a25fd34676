// SPDX-License-Identifier: GPL-3.0-or-later
// A private world for service installation tests: an app folder holding copies of the built
// LarimoServer and larimoctl, a configuration home for the supervisor's registrations, and the
// supervisor forced. Everything it registered is killed and removed again at the end.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <filesystem>
#include <string>

namespace larimo::test {

class ServiceSandbox {
public:
    ServiceSandbox();
    ~ServiceSandbox();
    ServiceSandbox(const ServiceSandbox&) = delete;
    ServiceSandbox& operator=(const ServiceSandbox&) = delete;

    const std::filesystem::path& App() const { return m_app; }
    const std::filesystem::path& ConfigHome() const { return m_config; }
    std::filesystem::path Program() const { return m_app / "LarimoServer"; }
    std::filesystem::path Registration(const std::string& name) const;

    /// The pid the registration records, 0 when there is none.
    pid_t RecordedPid(const std::string& name) const;
    /// Writes a registration for `name` by hand: the program, and the process it records.
    void WriteRegistration(const std::string& name, const std::string& program, pid_t pid, uint64_t startTime) const;

private:
    std::filesystem::path m_root;
    std::filesystem::path m_app;
    std::filesystem::path m_config;
    std::string m_oldConfigHome;
    bool m_hadConfigHome = false;
};

/// Field 22 of /proc/<pid>/stat (start time in clock ticks after boot); 0 when unreadable.
uint64_t ProcessStartTime(pid_t pid);
/// Whether the process exists and is no zombie.
bool ProcessAlive(pid_t pid);
/// Whether the voice service answers on its IPC objects.
bool ServiceAnswers();

/// Why the user's systemd cannot be reached here, in words for a skipped test's log line
/// (`error`: what opening the manager left as the last error).
std::string WhyNoUserSystemd(uint32_t error);

/// Copies `source` to `target` (atomically replacing it, executable) with the product version text
/// of its version record changed to `version`, which must be as long as the old one.
bool CopyWithProductVersion(const std::filesystem::path& source, const std::filesystem::path& target,
                            const std::string& version);

} // namespace larimo::test
