// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/AppendFile.h"

#include <cerrno>

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

namespace larimo {

namespace {

class FileLockHold {
public:
    explicit FileLockHold(int fd) : m_fd(fd)
    {
        while (flock(m_fd, LOCK_EX) != 0) {
            if (errno != EINTR) {
                // Without the lock the write is still one O_APPEND write, which local file
                // systems keep whole; going on beats losing the record.
                m_locked = false;
                return;
            }
        }
    }
    ~FileLockHold()
    {
        if (m_locked)
            flock(m_fd, LOCK_UN);
    }
    FileLockHold(const FileLockHold&) = delete;
    FileLockHold& operator=(const FileLockHold&) = delete;

private:
    int m_fd;
    bool m_locked = true;
};

} // namespace

AppendFile::~AppendFile()
{
    Close();
}

bool AppendFile::Open(const std::string& path)
{
    Close();
    if (path.empty())
        return false;
    int fd = -1;
    do {
        fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    } while (fd < 0 && errno == EINTR);
    m_fd = fd;
    return m_fd >= 0;
}

void AppendFile::Close()
{
    if (m_fd >= 0) {
        ::close(m_fd);
        m_fd = -1;
    }
}

bool AppendFile::Append(std::string_view bytes)
{
    if (m_fd < 0)
        return false;
    FileLockHold hold(m_fd);
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t written = ::write(m_fd, bytes.data() + done, bytes.size() - done);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (written == 0)
            return false;
        done += static_cast<size_t>(written);
    }
    return true;
}

} // namespace larimo
