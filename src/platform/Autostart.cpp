// SPDX-License-Identifier: GPL-3.0-or-later
#include "Autostart.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <system_error>

#include <fcntl.h>
#include <unistd.h>

namespace larimo {

namespace {

namespace fs = std::filesystem;

constexpr const char* kEntryName = "larimo.desktop";

// A path as the Exec key of a desktop entry wants it: quoted, with the characters that the
// quoting rules reserve escaped.
std::string QuotedExec(const std::string& program)
{
    std::string quoted = "\"";
    for (const char c : program) {
        if (c == '"' || c == '`' || c == '$' || c == '\\')
            quoted += '\\';
        quoted += c;
    }
    return quoted + "\"";
}

std::string EntryText(const std::string& program)
{
    return "[Desktop Entry]\n"
           "Type=Application\n"
           "Name=Larimo\n"
           "Comment=Voice changer: the control panel, started with the desktop session\n"
           "Exec=" + QuotedExec(program) + "\n"
           "Icon=larimo\n"
           "Terminal=false\n"
           "X-GNOME-Autostart-enabled=true\n";
}

std::string ErrorText(const std::error_code& error, const std::string& path)
{
    return path + ": " + error.message();
}

} // namespace

std::string AutostartEntryPath()
{
    const char* config = std::getenv("XDG_CONFIG_HOME");
    if (config != nullptr && config[0] == '/')
        return (fs::path(config) / "autostart" / kEntryName).string();
    const char* home = std::getenv("HOME");
    if (home == nullptr || home[0] == '\0')
        return {};
    return (fs::path(home) / ".config" / "autostart" / kEntryName).string();
}

bool AutostartEnabled(const std::string& program)
{
    const std::string path = AutostartEntryPath();
    if (path.empty())
        return false;
    std::ifstream in(path);
    if (!in)
        return false;
    const std::string wanted = "Exec=" + QuotedExec(program);
    bool hidden = false;
    bool starts = false;
    for (std::string line; std::getline(in, line);) {
        if (line == wanted)
            starts = true;
        if (line == "Hidden=true")
            hidden = true;
    }
    return starts && !hidden;
}

bool SetAutostart(bool on, const std::string& program, std::string& error)
{
    const std::string path = AutostartEntryPath();
    if (path.empty()) {
        error = "no home folder is set";
        return false;
    }
    std::error_code ec;
    if (!on) {
        fs::remove(path, ec);
        if (ec) {
            error = ErrorText(ec, path);
            return false;
        }
        return true;
    }
    const fs::path folder = fs::path(path).parent_path();
    fs::create_directories(folder, ec);
    if (ec) {
        error = ErrorText(ec, folder.string());
        return false;
    }
    // Written beside the entry and renamed over it: a session that starts meanwhile sees the
    // old entry or the new one, never half of one.
    const std::string partial = path + ".part";
    const std::string text = EntryText(program);
    const int fd = ::open(partial.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        error = ErrorText(std::error_code(errno, std::generic_category()), partial);
        return false;
    }
    bool written = ::write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    const int writeErrno = errno;
    written = written && ::fsync(fd) == 0;
    ::close(fd);
    if (!written) {
        ::unlink(partial.c_str());
        error = ErrorText(std::error_code(writeErrno != 0 ? writeErrno : EIO, std::generic_category()), partial);
        return false;
    }
    fs::rename(partial, path, ec);
    if (ec) {
        ::unlink(partial.c_str());
        error = ErrorText(ec, path);
        return false;
    }
    return true;
}

} // namespace larimo
