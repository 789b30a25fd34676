// SPDX-License-Identifier: GPL-3.0-or-later
// The built-in supervisor: services for machines without a user systemd.
//
// A service is a registration file "<name>.service" in "<config home>/larimo/services/", an INI
// file of two sections:
//   [Service]  Name, DisplayName, Description, Program, StartType ("auto"), LogIdentifier,
//              DeletePending (1 once removed while its process still ran)
//   [Process]  Pid, StartTime (the process's start in clock ticks after boot, /proc/<pid>/stat
//              field 22), StopRequested (1 after a stop request)
// Start launches the program detached from the caller (a session of its own, its working folder
// the program's, output appended to "<name>.log" beside the registration). The state comes from
// the recorded process: gone, a zombie or a different process under the same pid = stopped;
// the recorded process before it has become the program = start pending; the program after a
// stop request = stop pending; the program = running. Operations on one service from several
// processes are serialised by an exclusive lock on "<name>.lock".
//
// Unlike systemd, the supervisor is no process of its own: it restarts nothing on failure, and
// "automatic start" means the control panel starts the service each time it starts.
#pragma once

#include "platform/ServiceManager.h"

#include <memory>
#include <string>

namespace larimo {

/// The folder of the registrations, ending in '/'; empty when no configuration folder is known.
/// Any thread.
std::string SupervisorFolder();

/// The supervisor over SupervisorFolder(). Null, with the cause in LastServiceError(), when the
/// folder cannot be made. Any thread; the object is then used by one thread.
std::unique_ptr<ServiceManager> OpenSupervisorServiceManager();

} // namespace larimo
