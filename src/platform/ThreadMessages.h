// SPDX-License-Identifier: GPL-3.0-or-later
// Per-thread message queues addressed by a numeric thread id: how wave devices hand their
// buffer notifications to the engine thread that opened them.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace larimo {

using ThreadMessageId = uint32_t;

// Message numbers; the buffer notifications keep the numbers callers already log.
constexpr unsigned kMsgQuit = 0x0012;
constexpr unsigned kMsgWaveOutDone = 0x03BD;
constexpr unsigned kMsgWaveInData = 0x03C0;

struct ThreadMessage {
    unsigned message = 0;
    void* param = nullptr;
};

/// A first-in first-out queue of messages for one receiving thread. Posting is allowed from
/// any thread (device threads included: it takes a short lock and allocates only when the
/// queue outgrows its reserve); only the owning thread waits on it.
class ThreadMessageQueue {
public:
    /// Registers a new queue under a fresh non-zero id. Any thread.
    static std::shared_ptr<ThreadMessageQueue> Create();
    /// The queue registered under `id`, or null. Any thread.
    static std::shared_ptr<ThreadMessageQueue> Find(ThreadMessageId id);

    ~ThreadMessageQueue();
    ThreadMessageQueue(const ThreadMessageQueue&) = delete;
    ThreadMessageQueue& operator=(const ThreadMessageQueue&) = delete;

    ThreadMessageId Id() const { return m_id; }
    /// Appends a message. Any thread.
    void Post(unsigned message, void* param);
    /// Takes the oldest message, waiting for one. Owning thread only.
    ThreadMessage Wait();
    /// Number of messages waiting. Any thread.
    std::size_t Pending() const;
    /// Removes the id from the registry, so later Find calls fail; posts still reach holders.
    void Unregister();

private:
    explicit ThreadMessageQueue(ThreadMessageId id);

    const ThreadMessageId m_id;
    mutable std::mutex m_mutex;
    std::condition_variable m_ready;
    std::vector<ThreadMessage> m_ring;
    std::size_t m_head = 0;
    std::size_t m_count = 0;
};

/// Posts to the queue registered under `id`; false when there is none. Any thread.
bool PostThreadMessage(ThreadMessageId id, unsigned message, void* param);

} // namespace larimo
