// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ServiceFiles.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdlib>

namespace larimo {

namespace {

constexpr size_t kMaxSmallFile = 1024 * 1024;

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) { }
    ~FileDescriptor()
    {
        if (m_fd >= 0) {
            const int saved = errno;
            close(m_fd);
            errno = saved;
        }
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int Get() const { return m_fd; }
    // Closing reports late write errors of some file systems; the caller wants to know them.
    bool CloseChecked()
    {
        const int fd = m_fd;
        m_fd = -1;
        return close(fd) == 0;
    }

private:
    int m_fd;
};

} // namespace

std::string UserConfigHome()
{
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    if (configHome != nullptr && configHome[0] == '/')
        return configHome;
    const char* home = std::getenv("HOME");
    if (home != nullptr && home[0] == '/')
        return std::string(home) + "/.config";
    std::array<char, 4096> buffer{};
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found != nullptr &&
        found->pw_dir != nullptr && found->pw_dir[0] == '/')
        return std::string(found->pw_dir) + "/.config";
    return {};
}

bool ReadSmallFile(const std::string& path, std::string& contents)
{
    FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.Get() < 0)
        return false;
    struct stat info {};
    if (fstat(fd.Get(), &info) != 0)
        return false;
    if (!S_ISREG(info.st_mode)) {
        errno = EISDIR;
        return false;
    }
    if (static_cast<size_t>(info.st_size) > kMaxSmallFile) {
        errno = EFBIG;
        return false;
    }
    std::string text;
    std::array<char, 4096> chunk{};
    for (;;) {
        const ssize_t got = read(fd.Get(), chunk.data(), chunk.size());
        if (got < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (got == 0)
            break;
        text.append(chunk.data(), static_cast<size_t>(got));
        if (text.size() > kMaxSmallFile) {
            errno = EFBIG;
            return false;
        }
    }
    contents = std::move(text);
    return true;
}

bool ReplaceFile(const std::string& path, const std::string& contents)
{
    const std::string temporary = path + ".tmp";
    FileDescriptor fd(open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644));
    if (fd.Get() < 0)
        return false;
    size_t written = 0;
    while (written < contents.size()) {
        const ssize_t put = write(fd.Get(), contents.data() + written, contents.size() - written);
        if (put < 0) {
            if (errno == EINTR)
                continue;
            const int saved = errno;
            unlink(temporary.c_str());
            errno = saved;
            return false;
        }
        written += static_cast<size_t>(put);
    }
    if (fsync(fd.Get()) != 0 || !fd.CloseChecked() || rename(temporary.c_str(), path.c_str()) != 0) {
        const int saved = errno;
        unlink(temporary.c_str());
        errno = saved;
        return false;
    }
    return true;
}

bool MakeFolders(const std::string& folder)
{
    if (folder.empty()) {
        errno = ENOENT;
        return false;
    }
    for (size_t slash = folder.find('/', 1); ; slash = folder.find('/', slash + 1)) {
        const std::string part = folder.substr(0, slash);
        if (!part.empty() && mkdir(part.c_str(), 0700) != 0 && errno != EEXIST)
            return false;
        if (slash == std::string::npos)
            break;
    }
    struct stat info {};
    if (stat(folder.c_str(), &info) != 0)
        return false;
    if (!S_ISDIR(info.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

} // namespace larimo
