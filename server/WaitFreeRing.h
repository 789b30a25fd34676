// SPDX-License-Identifier: GPL-3.0-or-later
// A fixed-size single-producer single-consumer ring: how the audio thread hands trace blocks
// and fun-sound endings to the pipeline's control thread without locking or allocating.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>

namespace larimo {

/// `Capacity` must be a power of two. One thread pushes, one thread pops; both sides are
/// wait-free and never allocate, so either side may be the real-time audio thread.
template <typename T, std::size_t Capacity>
class WaitFreeRing {
    static_assert(Capacity >= 2 && (Capacity & (Capacity - 1)) == 0, "capacity must be a power of two");

public:
    /// The slot the producer may fill next, or null when the ring is full. Producer only.
    T* BeginPush() noexcept
    {
        const std::size_t head = m_head.load(std::memory_order_relaxed);
        if (head - m_tail.load(std::memory_order_acquire) == Capacity)
            return nullptr;
        return &m_slots[head & (Capacity - 1)];
    }

    /// Publishes the slot BeginPush gave. Producer only.
    void CommitPush() noexcept { m_head.store(m_head.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

    /// Copies `value` in; false when the ring is full. Producer only.
    bool Push(const T& value) noexcept
    {
        T* slot = BeginPush();
        if (slot == nullptr)
            return false;
        *slot = value;
        CommitPush();
        return true;
    }

    /// The oldest published slot, or null when empty. Consumer only.
    const T* Front() const noexcept
    {
        const std::size_t tail = m_tail.load(std::memory_order_relaxed);
        if (m_head.load(std::memory_order_acquire) == tail)
            return nullptr;
        return &m_slots[tail & (Capacity - 1)];
    }

    /// Releases the slot Front gave back to the producer. Consumer only.
    void Pop() noexcept { m_tail.store(m_tail.load(std::memory_order_relaxed) + 1, std::memory_order_release); }

private:
    std::array<T, Capacity> m_slots{};
    alignas(64) std::atomic<std::size_t> m_head{0};
    alignas(64) std::atomic<std::size_t> m_tail{0};
};

} // namespace larimo
