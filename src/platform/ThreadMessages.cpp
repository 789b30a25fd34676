// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ThreadMessages.h"

#include <atomic>
#include <map>

namespace larimo {

namespace {

// Enough for every buffer of a pair of streams plus the quit message without growing.
constexpr std::size_t kInitialReserve = 256;

struct Registry {
    std::mutex mutex;
    std::map<ThreadMessageId, std::weak_ptr<ThreadMessageQueue>> queues;
    ThreadMessageId next = 1;
};

Registry& TheRegistry()
{
    static Registry registry;
    return registry;
}

} // namespace

ThreadMessageQueue::ThreadMessageQueue(ThreadMessageId id)
    : m_id(id)
    , m_ring(kInitialReserve)
{
}

ThreadMessageQueue::~ThreadMessageQueue()
{
    Unregister();
}

std::shared_ptr<ThreadMessageQueue> ThreadMessageQueue::Create()
{
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    ThreadMessageId id = registry.next++;
    if (id == 0)
        id = registry.next++;
    std::shared_ptr<ThreadMessageQueue> queue(new ThreadMessageQueue(id));
    registry.queues[id] = queue;
    return queue;
}

std::shared_ptr<ThreadMessageQueue> ThreadMessageQueue::Find(ThreadMessageId id)
{
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    const auto it = registry.queues.find(id);
    return it == registry.queues.end() ? nullptr : it->second.lock();
}

void ThreadMessageQueue::Unregister()
{
    // Ids are never reused, so the entry under ours can only be ours.
    Registry& registry = TheRegistry();
    std::lock_guard lock(registry.mutex);
    registry.queues.erase(m_id);
}

void ThreadMessageQueue::Post(unsigned message, void* param)
{
    {
        std::lock_guard lock(m_mutex);
        if (m_count == m_ring.size()) {
            std::vector<ThreadMessage> grown(m_ring.size() * 2);
            for (std::size_t i = 0; i < m_count; ++i)
                grown[i] = m_ring[(m_head + i) % m_ring.size()];
            m_ring.swap(grown);
            m_head = 0;
        }
        m_ring[(m_head + m_count) % m_ring.size()] = ThreadMessage{message, param};
        ++m_count;
    }
    m_ready.notify_one();
}

ThreadMessage ThreadMessageQueue::Wait()
{
    std::unique_lock lock(m_mutex);
    m_ready.wait(lock, [this] { return m_count > 0; });
    const ThreadMessage message = m_ring[m_head];
    m_head = (m_head + 1) % m_ring.size();
    --m_count;
    return message;
}

std::size_t ThreadMessageQueue::Pending() const
{
    std::lock_guard lock(m_mutex);
    return m_count;
}

bool PostThreadMessage(ThreadMessageId id, unsigned message, void* param)
{
    const std::shared_ptr<ThreadMessageQueue> queue = ThreadMessageQueue::Find(id);
    if (!queue)
        return false;
    queue->Post(message, param);
    return true;
}

} // namespace larimo
