// SPDX-License-Identifier: GPL-3.0-or-later
// Services as systemd user units, driven over D-Bus (sd-bus).
//
// A service "<name>" is the unit "<name>.service" in the user's unit folder (the manager's own
// configuration-home entry of its unit search path). Its unit starts with the session (wanted by
// default.target), runs after the sound server's units and is restarted on failure. Unit states
// map to the service states: active or reloading = running, activating = start pending,
// deactivating = stop pending, inactive or failed = stopped.
#pragma once

#include "platform/ServiceManager.h"

#include <memory>
#include <string>
#include <string_view>

namespace larimo {

/// Connects to the user's systemd: the user bus ($DBUS_SESSION_BUS_ADDRESS, else
/// $XDG_RUNTIME_DIR/bus), else the manager's private socket ($XDG_RUNTIME_DIR/systemd/private),
/// and checks that the manager answers. Null, with the cause in LastServiceError(), when none
/// does. Any thread; the object is then used by one thread.
std::unique_ptr<ServiceManager> OpenSystemdServiceManager();

/// The text of a new unit for `identity`.
std::string MakeUnitText(const ServiceIdentity& identity);

/// `unitText` with `key` of `section` set to `value` (already escaped for systemd): the key's
/// first line in the section is replaced, or a line is added after the section's last key line;
/// a missing section is added at the end.
std::string SetUnitKey(std::string_view unitText, std::string_view section, std::string_view key,
                       std::string_view value);

/// `text` as a systemd unit value that reads back as `text`: '%' doubled, line breaks as blanks.
std::string EscapeUnitValue(std::string_view text);

} // namespace larimo
