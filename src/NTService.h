// SPDX-License-Identifier: GPL-3.0-or-later
// Installing, upgrading, starting and stopping the voice service, and the texts of the results.
//
// The control panel calls InstallServer and RunServer at start-up; the sound card page's restart
// button uses NtServiceStop and NtServiceStart. The service is the user service "LarimoSrv" with
// the program "LarimoServer" of the program folder (the data root); ServiceManager.h says where
// it is registered. Failures that the user must see are shown through the message boxes of
// error.h with the application title and written to the log.
//
// All functions run on the window thread at start-up or on one worker at a time; they block for
// as long as the service manager needs to answer.
#pragma once

#include "platform/ServiceManager.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace larimo {

inline constexpr char kServiceName[] = "LarimoSrv";
inline constexpr char kServiceDisplayName[] = "Larimo Service";
inline constexpr char kServiceDescription[] = "Capturing sound from microphone and sending to loopback adapter";
inline constexpr char kServiceProgram[] = "LarimoServer";
/// Capacity, in characters, that InstallServer gives the registered program path.
inline constexpr size_t kServicePathCapacity = 520;

/// The text of a result of the NtService operations (NtServiceErrorNum); "Undefined error" for
/// any other number.
std::string NtServiceErrorText(int result);

/// Starts the service unless it runs or is starting; does not wait for it.
int NtServiceStart(const std::string& name);
/// Asks the service to stop unless it is stopped or stopping; does not wait for it.
int NtServiceStop(const std::string& name);
/// Stops (without waiting) and removes the service.
int NtServiceUninstall(const std::string& name);
/// The service's state (ServiceState: 1 stopped, 2 start pending, 3 stop pending, 4 running).
int NtServiceStatus(const std::string& name, uint32_t& state);
/// The registered program, cut to `capacity` - 1 characters (UTF-16 units).
int NtServiceGetPath(const std::string& name, std::string& path, size_t capacity);

/// Registers the service with the program of the program folder; false after showing why.
bool _InstallServerBse();
/// Installs the service when missing, reinstalls it when its program's version differs from the
/// `version` stored in "config.ini"; stores the installed version. False after showing why.
bool InstallServer();
/// Starts the service when it is stopped. False after showing why.
bool RunServer();

/// FileVersion with messages: true with `version` set; false after showing that the file is
/// missing or has no readable version.
bool FileVersionSecure(const std::string& path, std::string& version);

} // namespace larimo
