// SPDX-License-Identifier: GPL-3.0-or-later
// File helpers shared by the service manager backends.
#pragma once

#include <string>

namespace larimo {

/// The user's configuration folder without a trailing '/': $XDG_CONFIG_HOME when it is an
/// absolute path, else $HOME/.config, else the home folder of the user database plus
/// "/.config"; empty when none is known. Any thread.
std::string UserConfigHome();

/// Reads the whole of a small file (at most 1 MiB). False with errno set (ENOENT for a missing
/// file, EFBIG for a larger one). Any thread.
bool ReadSmallFile(const std::string& path, std::string& contents);

/// Replaces `path` with `contents` atomically (a temporary file beside it, flushed, renamed),
/// mode 0644. False with errno set; the old file is then untouched. Any thread.
bool ReplaceFile(const std::string& path, const std::string& contents);

/// Creates `folder` and its missing parents with mode 0700. False with errno set. Any thread.
bool MakeFolders(const std::string& folder);

} // namespace larimo
