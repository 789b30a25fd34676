// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ServiceManager.h"

#include "mlog.h"
#include "platform/SupervisorServiceManager.h"
#include "platform/SystemdServiceManager.h"

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace larimo {

namespace {

thread_local uint32_t t_lastServiceError = 0;

constexpr size_t kMaxServiceName = 200;

// Which backend answered last, so a change (a session bus that came or went) is logged once.
std::atomic<int> g_reportedBackend{0};

void ReportBackend(int backend, const char* text)
{
    if (g_reportedBackend.exchange(backend) != backend)
        LogInfo("Service manager: %s", text);
}

} // namespace

uint32_t LastServiceError()
{
    return t_lastServiceError;
}

void SetLastServiceError(uint32_t code)
{
    t_lastServiceError = code;
}

bool IsValidServiceName(std::string_view name)
{
    if (name.empty() || name.size() > kMaxServiceName || name.front() == '.' || name.front() == '-')
        return false;
    for (const char c : name) {
        const bool letter = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
        const bool digit = c >= '0' && c <= '9';
        if (!letter && !digit && c != '-' && c != '_' && c != '.')
            return false;
    }
    return true;
}

std::unique_ptr<ServiceManager> OpenServiceManager()
{
    const char* forced = std::getenv("LARIMO_SERVICE_BACKEND");
    const bool wantSystemd = forced != nullptr && std::strcmp(forced, "systemd") == 0;
    const bool wantSupervisor = forced != nullptr && std::strcmp(forced, "supervisor") == 0;
    if (forced != nullptr && forced[0] != '\0' && !wantSystemd && !wantSupervisor) {
        LogError("LARIMO_SERVICE_BACKEND=\"%s\" names no service manager (systemd, supervisor)", forced);
        SetLastServiceError(EINVAL);
        return nullptr;
    }
    if (!wantSupervisor) {
        std::unique_ptr<ServiceManager> systemd = OpenSystemdServiceManager();
        if (systemd) {
            ReportBackend(1, "systemd user units");
            return systemd;
        }
        if (wantSystemd)
            return nullptr;
    }
    std::unique_ptr<ServiceManager> supervisor = OpenSupervisorServiceManager();
    if (supervisor)
        ReportBackend(2, "Larimo's own supervisor (no user systemd)");
    return supervisor;
}

} // namespace larimo
