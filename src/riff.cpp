// SPDX-License-Identifier: GPL-3.0-or-later
#include "riff.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace larimo {

namespace {

constexpr std::uint64_t kHeaderSize = 8;

std::uint32_t ReadLe32(const std::uint8_t* bytes)
{
    return static_cast<std::uint32_t>(bytes[0]) | static_cast<std::uint32_t>(bytes[1]) << 8 |
           static_cast<std::uint32_t>(bytes[2]) << 16 | static_cast<std::uint32_t>(bytes[3]) << 24;
}

bool IsPrintableId(std::uint32_t id)
{
    for (int shift = 0; shift < 32; shift += 8) {
        const auto c = static_cast<unsigned char>(id >> shift);
        if (c < 0x20 || c > 0x7e)
            return false;
    }
    return true;
}

} // namespace

std::size_t MemorySource::ReadAt(std::uint64_t offset, void* destination, std::size_t count)
{
    if (offset >= m_bytes.size())
        return 0;
    const auto available = static_cast<std::size_t>(m_bytes.size() - offset);
    const std::size_t n = std::min(count, available);
    if (n > 0)
        std::memcpy(destination, m_bytes.data() + offset, n);
    return n;
}

bool FileSource::Open(const std::string& path)
{
    m_file.reset();
    m_size = 0;
    m_errno = 0;
    std::error_code ec;
    const auto status = std::filesystem::status(path, ec);
    if (ec || !std::filesystem::exists(status)) {
        m_errno = ec ? ec.value() : ENOENT;
        return false;
    }
    // fopen() happily opens a directory and only the first read fails; a FIFO would block.
    if (!std::filesystem::is_regular_file(status)) {
        m_errno = std::filesystem::is_directory(status) ? EISDIR : EINVAL;
        return false;
    }
    errno = 0;
    m_file.reset(std::fopen(path.c_str(), "rb"));
    if (!m_file) {
        m_errno = errno;
        return false;
    }
    if (std::fseek(m_file.get(), 0, SEEK_END) != 0) {
        m_errno = errno;
        m_file.reset();
        return false;
    }
    const long end = std::ftell(m_file.get());
    if (end < 0) {
        m_errno = errno;
        m_file.reset();
        return false;
    }
    m_size = static_cast<std::uint64_t>(end);
    return true;
}

std::size_t FileSource::ReadAt(std::uint64_t offset, void* destination, std::size_t count)
{
    if (!m_file || offset >= m_size || count == 0)
        return 0;
    if (std::fseek(m_file.get(), static_cast<long>(offset), SEEK_SET) != 0) {
        m_errno = errno;
        return 0;
    }
    const auto available = static_cast<std::size_t>(m_size - offset);
    const std::size_t n = std::fread(destination, 1, std::min(count, available), m_file.get());
    if (n < std::min(count, available))
        m_errno = std::ferror(m_file.get()) ? (errno != 0 ? errno : EIO) : 0;
    return n;
}

std::optional<RiffChunk> RiffReader::HeaderAt(std::uint64_t position, std::uint64_t end)
{
    if (position > end || end - position < kHeaderSize)
        return std::nullopt;
    std::uint8_t header[kHeaderSize];
    if (m_source.ReadAt(position, header, sizeof header) != sizeof header)
        return std::nullopt;
    return RiffChunk{ReadLe32(header), position + kHeaderSize, ReadLe32(header + 4)};
}

std::uint64_t RiffReader::NextPosition(const RiffChunk& chunk, std::uint64_t end)
{
    const std::uint64_t unpadded = chunk.offset + chunk.size;
    if ((chunk.size & 1u) == 0)
        return unpadded;
    // Chunks are word-aligned, yet some writers leave out the pad byte after an odd chunk.
    // Take the unpadded position only when it, and not the padded one, looks like a chunk.
    const std::uint64_t padded = unpadded + 1;
    const auto atPadded = HeaderAt(padded, end);
    if (atPadded && IsPrintableId(atPadded->id))
        return padded;
    const auto atUnpadded = HeaderAt(unpadded, end);
    if (atUnpadded && IsPrintableId(atUnpadded->id))
        return unpadded;
    return padded;
}

template <typename Visit>
void RiffReader::Walk(std::uint64_t begin, std::uint64_t end, Visit&& visit)
{
    std::uint64_t position = begin;
    while (auto chunk = HeaderAt(position, end)) {
        if (!visit(*chunk))
            return;
        position = NextPosition(*chunk, end);
    }
}

std::uint32_t RiffReader::ListType(const RiffChunk& parent)
{
    if (parent.size < 4)
        return 0;
    std::uint8_t type[4];
    if (m_source.ReadAt(parent.offset, type, sizeof type) != sizeof type)
        return 0;
    return ReadLe32(type);
}

std::optional<RiffChunk> RiffReader::FindForm(std::uint32_t formType)
{
    std::optional<RiffChunk> found;
    Walk(0, m_source.Size(), [&](const RiffChunk& chunk) {
        if (chunk.id == FourCc("RIFF") && ListType(chunk) == formType) {
            found = chunk;
            return false;
        }
        return true;
    });
    return found;
}

std::optional<RiffChunk> RiffReader::FindChunk(const RiffChunk& parent, std::uint32_t id)
{
    std::optional<RiffChunk> found;
    if (parent.size < 4)
        return found;
    // A container that claims more than the file holds is searched up to the end of the file.
    const std::uint64_t end = std::min(parent.offset + parent.size, m_source.Size());
    Walk(parent.offset + 4, end, [&](const RiffChunk& chunk) {
        if (chunk.id == id) {
            found = chunk;
            return false;
        }
        return true;
    });
    return found;
}

std::vector<RiffChunk> RiffReader::ListChunks(const RiffChunk& parent)
{
    std::vector<RiffChunk> chunks;
    if (parent.size < 4)
        return chunks;
    const std::uint64_t end = std::min(parent.offset + parent.size, m_source.Size());
    Walk(parent.offset + 4, end, [&](const RiffChunk& chunk) {
        chunks.push_back(chunk);
        return true;
    });
    return chunks;
}

std::size_t RiffReader::Read(const RiffChunk& chunk, std::uint64_t offsetInChunk, void* destination,
                             std::size_t count)
{
    return m_source.ReadAt(chunk.offset + offsetInChunk, destination, count);
}

} // namespace larimo
