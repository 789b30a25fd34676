// SPDX-License-Identifier: GPL-3.0-or-later
// How a worker thread tells its owner that it ended, and how the owner waits for that within a
// limit: a thread still busy after the limit (inside a callback that does not come back) is
// given up on and left to end by itself. What such a thread uses must be shared with it, and it
// cleans up after itself when Done says it was given up on.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace larimo {

class ThreadEnd {
public:
    /// The thread's last act. True when its owner gave up on it: then nobody else closes what
    /// it used.
    bool Done()
    {
        std::lock_guard lock(m_mutex);
        m_done = true;
        m_signal.notify_all();
        return m_givenUp;
    }

    /// The owner: waits up to `limit` for Done, then joins the thread; when it did not come,
    /// gives up on the thread and detaches it. Returns whether the thread ended.
    bool WaitOrGiveUp(std::thread& thread, std::chrono::milliseconds limit)
    {
        std::unique_lock lock(m_mutex);
        const bool ended = m_signal.wait_for(lock, limit, [this] { return m_done; });
        if (!ended)
            m_givenUp = true;
        lock.unlock();
        if (ended)
            thread.join();
        else
            thread.detach();
        return ended;
    }

    /// Whether the owner gave up on the thread: it must make no further call through the owner.
    bool GivenUp() const { return m_givenUp; }

private:
    std::mutex m_mutex;
    std::condition_variable m_signal;
    bool m_done = false;
    std::atomic<bool> m_givenUp { false };
};

} // namespace larimo
