// SPDX-License-Identifier: GPL-3.0-or-later
// A reader for RIFF files: a byte source (a file or a block of memory) and a walker over its
// chunks. The walker never reads outside the source and never trusts a declared size for more
// than locating the next chunk, so truncated and lying files end in "not found" or a short read.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace larimo {

/// A chunk identifier from its four characters, as the bytes lie in the file.
constexpr std::uint32_t FourCc(const char (&text)[5])
{
    return static_cast<std::uint32_t>(static_cast<unsigned char>(text[0])) |
           static_cast<std::uint32_t>(static_cast<unsigned char>(text[1])) << 8 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(text[2])) << 16 |
           static_cast<std::uint32_t>(static_cast<unsigned char>(text[3])) << 24;
}

/// Random-access bytes of bounded size. One thread at a time.
class ByteSource {
public:
    virtual ~ByteSource() = default;
    virtual std::uint64_t Size() const = 0;
    /// Copies up to `count` bytes from `offset`; returns how many were copied (fewer at the end
    /// of the source or on a read error).
    virtual std::size_t ReadAt(std::uint64_t offset, void* destination, std::size_t count) = 0;
    /// The system's error number of the last failure, 0 when there was none.
    virtual int LastErrno() const { return 0; }
};

/// A block of memory that outlives the source.
class MemorySource final : public ByteSource {
public:
    explicit MemorySource(std::span<const std::uint8_t> bytes) : m_bytes(bytes) {}
    std::uint64_t Size() const override { return m_bytes.size(); }
    std::size_t ReadAt(std::uint64_t offset, void* destination, std::size_t count) override;

private:
    std::span<const std::uint8_t> m_bytes;
};

/// A regular file opened for reading.
class FileSource final : public ByteSource {
public:
    /// Opens `path`; false (with LastErrno set) when it is missing, unreadable or not a
    /// regular file.
    bool Open(const std::string& path);
    std::uint64_t Size() const override { return m_size; }
    std::size_t ReadAt(std::uint64_t offset, void* destination, std::size_t count) override;
    int LastErrno() const override { return m_errno; }

private:
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, Closer> m_file;
    std::uint64_t m_size = 0;
    int m_errno = 0;
};

/// One chunk: its identifier, where its content starts and its declared content size (which
/// may reach beyond the end of the source).
struct RiffChunk {
    std::uint32_t id = 0;
    std::uint64_t offset = 0;
    std::uint32_t size = 0;
};

/// Walks the chunks of a RIFF source. One thread at a time.
class RiffReader {
public:
    explicit RiffReader(ByteSource& source) : m_source(source) {}

    /// The first top-level "RIFF" chunk of the given form type ("WAVE").
    std::optional<RiffChunk> FindForm(std::uint32_t formType);
    /// The first chunk `id` among the sub-chunks of a "RIFF" or "LIST" chunk, searched from
    /// the start of its content.
    std::optional<RiffChunk> FindChunk(const RiffChunk& parent, std::uint32_t id);
    /// Every sub-chunk of a "RIFF" or "LIST" chunk in file order.
    std::vector<RiffChunk> ListChunks(const RiffChunk& parent);
    /// The form or list type of a "RIFF" or "LIST" chunk; 0 when it cannot be read.
    std::uint32_t ListType(const RiffChunk& parent);

    /// Reads up to `count` bytes from `offsetInChunk` of the chunk's content. The read is
    /// bounded by the source, not by the chunk's declared size; returns the bytes read.
    std::size_t Read(const RiffChunk& chunk, std::uint64_t offsetInChunk, void* destination,
                     std::size_t count);

    ByteSource& Source() { return m_source; }

private:
    std::optional<RiffChunk> HeaderAt(std::uint64_t position, std::uint64_t end);
    std::uint64_t NextPosition(const RiffChunk& chunk, std::uint64_t end);
    template <typename Visit>
    void Walk(std::uint64_t begin, std::uint64_t end, Visit&& visit);

    ByteSource& m_source;
};

} // namespace larimo
