// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ProcessExitWatch.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <system_error>
#include <thread>

namespace larimo {

namespace {

int OpenPidFd(pid_t pid)
{
#ifdef SYS_pidfd_open
    return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
#else
    (void)pid;
    errno = ENOSYS;
    return -1;
#endif
}

} // namespace

ProcessExitWatch::ProcessExitWatch(std::function<void()> onExit)
    : m_onExit(std::move(onExit))
{
}

bool ProcessExitWatch::Watch(pid_t pid)
{
    if (pid <= 0)
        return false;
    std::lock_guard<std::mutex> guard(m_lock);
    if (m_unsupported)
        return false;
    if (m_threadOf != getpid() && !StartLocked())
        return false;
    if (std::any_of(m_watched.begin(), m_watched.end(), [pid](const Watched& entry) { return entry.pid == pid; }))
        return true;
    const int fd = OpenPidFd(pid);
    if (fd < 0) {
        // ESRCH: gone already, which the caller sees when it looks.
        if (errno == ENOSYS || errno == EPERM)
            m_unsupported = true;
        return false;
    }
    m_watched.push_back({ pid, fd });
    const uint64_t one = 1;
    (void)!write(m_wake, &one, sizeof one);
    return true;
}

size_t ProcessExitWatch::Count()
{
    std::lock_guard<std::mutex> guard(m_lock);
    return m_threadOf == getpid() ? m_watched.size() : 0;
}

bool ProcessExitWatch::StartLocked()
{
    // In a forked child the list and the descriptors are the parent's copies and no thread
    // runs: start afresh.
    for (const Watched& entry : m_watched)
        close(entry.fd);
    m_watched.clear();
    if (m_wake >= 0)
        close(m_wake);
    m_threadOf = 0;
    m_wake = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (m_wake < 0)
        return false;
    try {
        std::thread([this, wake = m_wake] { Run(wake); }).detach();
    } catch (const std::system_error&) {
        close(m_wake);
        m_wake = -1;
        return false;
    }
    m_threadOf = getpid();
    return true;
}

void ProcessExitWatch::Run(int wake)
{
    std::vector<pollfd> descriptors;
    std::vector<pid_t> pids;
    for (;;) {
        descriptors.assign(1, pollfd { wake, POLLIN, 0 });
        pids.assign(1, 0);
        {
            std::lock_guard<std::mutex> guard(m_lock);
            if (m_wake != wake)
                return; // a forked child took over the object
            for (const Watched& entry : m_watched) {
                descriptors.push_back(pollfd { entry.fd, POLLIN, 0 });
                pids.push_back(entry.pid);
            }
        }
        if (poll(descriptors.data(), descriptors.size(), -1) < 0)
            continue;
        if (descriptors[0].revents != 0) {
            uint64_t count = 0;
            (void)!read(wake, &count, sizeof count);
        }
        bool ended = false;
        {
            std::lock_guard<std::mutex> guard(m_lock);
            for (size_t i = 1; i < descriptors.size(); ++i) {
                if (descriptors[i].revents == 0)
                    continue;
                ended = true;
                const auto found = std::find_if(m_watched.begin(), m_watched.end(),
                                                [&](const Watched& entry) { return entry.pid == pids[i]; });
                if (found != m_watched.end()) {
                    close(found->fd);
                    m_watched.erase(found);
                }
            }
        }
        if (ended)
            m_onExit();
    }
}

} // namespace larimo
