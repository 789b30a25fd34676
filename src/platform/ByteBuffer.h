// SPDX-License-Identifier: GPL-3.0-or-later
// A growable byte array for sound data of up to gigabytes. New bytes are not initialised, and
// large buffers are backed by huge pages: touching a fresh 200 MB buffer then costs a hundred
// page faults instead of fifty thousand, which dominates reading a long recording.
//
// One thread at a time; never allocate on the real-time audio thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

namespace larimo {

class ByteBuffer {
public:
    ByteBuffer() = default;
    ~ByteBuffer();
    ByteBuffer(const ByteBuffer& other);
    ByteBuffer& operator=(const ByteBuffer& other);
    ByteBuffer(ByteBuffer&& other) noexcept;
    ByteBuffer& operator=(ByteBuffer&& other) noexcept;

    std::uint8_t* Data() { return m_data; }
    const std::uint8_t* Data() const { return m_data; }
    std::size_t Size() const { return m_size; }
    bool Empty() const { return m_size == 0; }
    std::span<const std::uint8_t> View() const { return {m_data, m_size}; }

    /// Sets the size; bytes beyond the old size have no defined value. Throws std::bad_alloc.
    void Resize(std::size_t size);
    /// Makes room for `capacity` bytes without changing the size. Throws std::bad_alloc.
    void Reserve(std::size_t capacity);
    /// Throws std::bad_alloc.
    void Append(std::span<const std::uint8_t> bytes);
    /// Frees the memory.
    void Clear();

private:
    void Release() noexcept;

    std::uint8_t* m_data = nullptr;
    std::size_t m_size = 0;
    std::size_t m_capacity = 0;
    bool m_mapped = false;
};

} // namespace larimo
