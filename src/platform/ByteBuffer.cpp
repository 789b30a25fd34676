// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ByteBuffer.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <utility>

namespace larimo {

namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;
// Below this the ordinary allocator serves well and wastes less.
constexpr std::size_t kMapThreshold = std::size_t{4} << 20;

struct Block {
    std::uint8_t* data = nullptr;
    std::size_t capacity = 0;
    bool mapped = false;
};

Block Allocate(std::size_t capacity)
{
    if (capacity >= kMapThreshold) {
        const std::size_t rounded = (capacity + kHugePage - 1) / kHugePage * kHugePage;
        void* p = mmap(nullptr, rounded, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED)
            throw std::bad_alloc();
        // Only advice: without transparent huge pages the mapping still works.
        madvise(p, rounded, MADV_HUGEPAGE);
        return {static_cast<std::uint8_t*>(p), rounded, true};
    }
    void* p = std::malloc(std::max<std::size_t>(capacity, 1));
    if (!p)
        throw std::bad_alloc();
    return {static_cast<std::uint8_t*>(p), capacity, false};
}

void Free(std::uint8_t* data, std::size_t capacity, bool mapped) noexcept
{
    if (!data)
        return;
    if (mapped)
        munmap(data, capacity);
    else
        std::free(data);
}

} // namespace

ByteBuffer::~ByteBuffer()
{
    Release();
}

ByteBuffer::ByteBuffer(const ByteBuffer& other)
{
    Append(other.View());
}

ByteBuffer& ByteBuffer::operator=(const ByteBuffer& other)
{
    if (this != &other) {
        ByteBuffer copy(other);
        *this = std::move(copy);
    }
    return *this;
}

ByteBuffer::ByteBuffer(ByteBuffer&& other) noexcept
    : m_data(std::exchange(other.m_data, nullptr)),
      m_size(std::exchange(other.m_size, 0)),
      m_capacity(std::exchange(other.m_capacity, 0)),
      m_mapped(std::exchange(other.m_mapped, false))
{
}

ByteBuffer& ByteBuffer::operator=(ByteBuffer&& other) noexcept
{
    if (this != &other) {
        Release();
        m_data = std::exchange(other.m_data, nullptr);
        m_size = std::exchange(other.m_size, 0);
        m_capacity = std::exchange(other.m_capacity, 0);
        m_mapped = std::exchange(other.m_mapped, false);
    }
    return *this;
}

void ByteBuffer::Release() noexcept
{
    Free(m_data, m_capacity, m_mapped);
    m_data = nullptr;
    m_size = 0;
    m_capacity = 0;
    m_mapped = false;
}

void ByteBuffer::Reserve(std::size_t capacity)
{
    if (capacity <= m_capacity)
        return;
    const Block block = Allocate(capacity);
    if (m_size > 0)
        std::memcpy(block.data, m_data, m_size);
    Free(m_data, m_capacity, m_mapped);
    m_data = block.data;
    m_capacity = block.capacity;
    m_mapped = block.mapped;
}

void ByteBuffer::Resize(std::size_t size)
{
    if (size > m_capacity)
        Reserve(std::max(size, m_capacity + m_capacity / 2));
    m_size = size;
}

void ByteBuffer::Append(std::span<const std::uint8_t> bytes)
{
    if (bytes.empty())
        return;
    const std::size_t at = m_size;
    Resize(m_size + bytes.size());
    std::memcpy(m_data + at, bytes.data(), bytes.size());
}

void ByteBuffer::Clear()
{
    Release();
}

} // namespace larimo
