// SPDX-License-Identifier: GPL-3.0-or-later
// Starting the panel with the user's desktop session: an XDG autostart entry,
// "$XDG_CONFIG_HOME/autostart/larimo.desktop" (~/.config/autostart when the variable is unset).
#pragma once

#include <string>

namespace larimo {

/// The entry's path for the current user; empty when neither XDG_CONFIG_HOME nor HOME is set.
/// Any thread.
std::string AutostartEntryPath();

/// Whether the entry exists and starts `program` (the full path of this app folder's larimo).
/// Any thread.
bool AutostartEnabled(const std::string& program);

/// Writes (`on`) or removes the entry at once; the entry is replaced whole, never left half
/// written. False with the reason in `error` (in plain words) when the folder or the file
/// cannot be written. Removing an entry that is not there succeeds. Any thread.
bool SetAutostart(bool on, const std::string& program, std::string& error);

} // namespace larimo
