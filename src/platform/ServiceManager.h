// SPDX-License-Identifier: GPL-3.0-or-later
// The per-user service manager: registers the voice service, starts, stops and watches it.
//
// Two backends sit behind one interface, picked when a manager is opened:
//  - systemd user units over D-Bus, whenever the user's systemd answers (a desktop session);
//  - a small supervisor of our own everywhere else (containers, CI, minimal desktops): a
//    registration file per service and a detached process with a recorded pid.
// The environment variable LARIMO_SERVICE_BACKEND ("systemd" or "supervisor") forces one.
//
// Every operation answers an NtServiceErrorNum and, on failure, leaves an errno-style code of
// the cause in LastServiceError() of the calling thread (0 when the failure has no system code).
// A service runs as the user, so no operation needs administrative rights.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

namespace larimo {

/// Results of the service operations; texts in NTService.h (NtServiceErrorText).
enum NtServiceErrorNum : int {
    kNtsSuccess = 0,
    kNtsQueryFailed = 1,
    kNtsNotFound = 2,
    kNtsManagerDenied = 3,
    kNtsAccessDenied = 4,
    kNtsOpenFailed = 5,
    kNtsStartFailed = 6,
    kNtsStartNoResponse = 7,
    kNtsStopNoResponse = 8,
    kNtsStopFailed = 9,
    kNtsDeleteFailed = 10,
};

/// The state a status query reports, with the numbers callers compare against.
enum ServiceState : uint32_t {
    kServiceStopped = 1,
    kServiceStartPending = 2,
    kServiceStopPending = 3,
    kServiceRunning = 4,
};

/// What a registration holds.
struct ServiceIdentity {
    std::string m_name; // letters, digits, '-', '_' and '.', at most 200 bytes
    std::string m_displayName;
    std::string m_description;
    std::string m_program; // absolute path of the service program
};

/// errno-style code of the last failing service operation of the calling thread.
uint32_t LastServiceError();
void SetLastServiceError(uint32_t code);

/// Whether `name` can name a service: 1 to 200 letters, digits, '-', '_' and '.', not starting
/// with '.' or '-'. Any thread.
bool IsValidServiceName(std::string_view name);

/// One connection to the service manager. Not shared between threads: each thread opens its own.
class ServiceManager {
public:
    virtual ~ServiceManager() = default;

    /// "systemd" or "supervisor".
    virtual std::string_view Backend() const = 0;

    /// Registers a service that starts with the user's session. False with LastServiceError()
    /// EEXIST when one of that name exists, EBUSY when the process of a removed one of that name
    /// still runs (after a short grace for it to end), EINVAL for a name that cannot be a
    /// service name, or the cause of a failed write.
    virtual bool Create(const ServiceIdentity& identity) = 0;
    /// Replaces the description of a registered service (ENOENT when there is none).
    virtual bool SetDescription(const std::string& name, const std::string& description) = 0;
    /// Makes the service's output reach the user's log under `identifier` (ENOENT when the
    /// service is not registered).
    virtual bool RegisterLogSource(const std::string& name, const std::string& identifier) = 0;

    /// Starts the service without waiting for it to run. kNtsSuccess also when it already runs
    /// or is starting; kNtsStartFailed when it is stopping or cannot be started.
    virtual int Start(const std::string& name) = 0;
    /// Asks the service to stop without waiting. kNtsSuccess also when it is stopped or stopping.
    virtual int Stop(const std::string& name) = 0;
    /// The state of the service; kNtsNotFound when there is no such service.
    virtual int Status(const std::string& name, ServiceState& state) = 0;
    /// The registered program of the service.
    virtual int GetPath(const std::string& name, std::string& path) = 0;
    /// Asks the service to stop (without waiting and without looking at the answer), then
    /// removes its registration. While its process still runs, the removal stays pending: a
    /// status query still sees it, and Create of the same name fails.
    virtual int Uninstall(const std::string& name) = 0;
};

/// Opens the manager of the calling user: the backend LARIMO_SERVICE_BACKEND names, else systemd
/// when the user's systemd answers on D-Bus, else the supervisor. Null, with the cause in
/// LastServiceError(), when the chosen backend cannot be reached. Any thread.
std::unique_ptr<ServiceManager> OpenServiceManager();

} // namespace larimo
