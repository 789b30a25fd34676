// SPDX-License-Identifier: GPL-3.0-or-later
// Learns of the end of other processes from the kernel (a pidfd each) instead of asking /proc
// again and again: one thread of its own sleeps until a watched process ends and then calls
// back. Any thread may add processes; the callback runs on the watch's thread.
#pragma once

#include <sys/types.h>

#include <functional>
#include <mutex>
#include <vector>

namespace larimo {

class ProcessExitWatch {
public:
    /// `onExit` runs on the watch's thread after one or more watched processes ended. It must
    /// not call Watch.
    explicit ProcessExitWatch(std::function<void()> onExit);
    ProcessExitWatch(const ProcessExitWatch&) = delete;
    ProcessExitWatch& operator=(const ProcessExitWatch&) = delete;
    /// Never destroyed while its thread may run: make it once and keep it.
    ~ProcessExitWatch() = delete;

    /// Watches `pid` until it ends (a process watched already is not added twice). False when
    /// it cannot be watched (no pidfds on this system, or no thread or descriptor to spare):
    /// then the caller has to look for itself.
    bool Watch(pid_t pid);

    /// How many processes are watched now. Any thread.
    size_t Count();

    /// For pthread_atfork: the list must not be left locked in a forked child.
    void LockForFork() { m_lock.lock(); }
    void UnlockAfterFork() { m_lock.unlock(); }

private:
    struct Watched {
        pid_t pid;
        int fd;
    };

    bool StartLocked();
    void Run(int wake);

    std::function<void()> m_onExit;
    std::mutex m_lock;
    std::vector<Watched> m_watched;
    int m_wake = -1;          // eventfd that tells the thread the list changed
    pid_t m_threadOf = 0;     // the process whose thread runs; a forked child starts its own
    bool m_unsupported = false;
};

} // namespace larimo
