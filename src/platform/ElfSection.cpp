// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ElfSection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>

namespace larimo {

namespace {

constexpr uint32_t kShtNoBits = 8;
constexpr uint16_t kShnXIndex = 0xFFFF;
// More headers than any real program has; beyond it the file is taken as damaged.
constexpr uint64_t kMaxSections = 1U << 20;
constexpr uint64_t kMaxNameTable = 16U << 20;

struct Layout {
    bool m_is64 = false;
    bool m_bigEndian = false;
};

uint64_t Field(const uint8_t* bytes, size_t size, const Layout& layout)
{
    uint64_t value = 0;
    for (size_t i = 0; i < size; ++i) {
        const size_t index = layout.m_bigEndian ? i : size - 1 - i;
        value = (value << 8) | bytes[index];
    }
    return value;
}

bool InsideFile(uint64_t offset, uint64_t size, uint64_t fileSize)
{
    return offset <= fileSize && size <= fileSize - offset;
}

struct SectionHeader {
    uint32_t m_name = 0;
    uint32_t m_type = 0;
    uint64_t m_offset = 0;
    uint64_t m_size = 0;
    uint32_t m_link = 0;
};

bool ReadSectionHeader(const ElfByteReader& read, const Layout& layout, uint64_t at, SectionHeader& header)
{
    std::array<uint8_t, 64> bytes{};
    const size_t size = layout.m_is64 ? 64 : 40;
    if (!read(at, bytes.data(), size))
        return false;
    header.m_name = static_cast<uint32_t>(Field(&bytes[0], 4, layout));
    header.m_type = static_cast<uint32_t>(Field(&bytes[4], 4, layout));
    if (layout.m_is64) {
        header.m_offset = Field(&bytes[24], 8, layout);
        header.m_size = Field(&bytes[32], 8, layout);
        header.m_link = static_cast<uint32_t>(Field(&bytes[40], 4, layout));
    } else {
        header.m_offset = Field(&bytes[16], 4, layout);
        header.m_size = Field(&bytes[20], 4, layout);
        header.m_link = static_cast<uint32_t>(Field(&bytes[24], 4, layout));
    }
    return true;
}

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : m_fd(fd) { }
    ~FileDescriptor()
    {
        if (m_fd >= 0)
            close(m_fd);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int Get() const { return m_fd; }

private:
    int m_fd;
};

} // namespace

int FindElfSection(const ElfByteReader& read, uint64_t fileSize, std::string_view name, ElfSectionPlace& place)
{
    std::array<uint8_t, 64> ident{};
    if (fileSize < 52 || !read(0, ident.data(), 52))
        return ENOEXEC;
    if (ident[0] != 0x7F || ident[1] != 'E' || ident[2] != 'L' || ident[3] != 'F')
        return ENOEXEC;
    Layout layout;
    if (ident[4] != 1 && ident[4] != 2)
        return ENOEXEC;
    if (ident[5] != 1 && ident[5] != 2)
        return ENOEXEC;
    layout.m_is64 = ident[4] == 2;
    layout.m_bigEndian = ident[5] == 2;
    if (layout.m_is64 && (fileSize < 64 || !read(0, ident.data(), 64)))
        return ENOEXEC;

    const uint64_t sectionTable = layout.m_is64 ? Field(&ident[0x28], 8, layout) : Field(&ident[0x20], 4, layout);
    const uint64_t entrySize = Field(&ident[layout.m_is64 ? 0x3A : 0x2E], 2, layout);
    uint64_t count = Field(&ident[layout.m_is64 ? 0x3C : 0x30], 2, layout);
    uint64_t nameIndex = Field(&ident[layout.m_is64 ? 0x3E : 0x32], 2, layout);
    if (sectionTable == 0)
        return ENODATA;
    if (entrySize != (layout.m_is64 ? 64U : 40U))
        return ENOEXEC;

    // Files with very many sections keep the real count and name-table index in header 0.
    SectionHeader first;
    if (!InsideFile(sectionTable, entrySize, fileSize) || !ReadSectionHeader(read, layout, sectionTable, first))
        return ENOEXEC;
    if (count == 0)
        count = first.m_size;
    if (nameIndex == kShnXIndex)
        nameIndex = first.m_link;
    if (count == 0 || count > kMaxSections || nameIndex >= count)
        return ENOEXEC;
    if (!InsideFile(sectionTable, count * entrySize, fileSize))
        return ENOEXEC;

    SectionHeader names;
    if (!ReadSectionHeader(read, layout, sectionTable + nameIndex * entrySize, names))
        return ENOEXEC;
    if (names.m_type == kShtNoBits || names.m_size > kMaxNameTable || !InsideFile(names.m_offset, names.m_size, fileSize))
        return ENOEXEC;
    std::string table(static_cast<size_t>(names.m_size), '\0');
    if (!table.empty() && !read(names.m_offset, table.data(), table.size()))
        return ENOEXEC;

    for (uint64_t i = 0; i < count; ++i) {
        SectionHeader header;
        if (!ReadSectionHeader(read, layout, sectionTable + i * entrySize, header))
            return ENOEXEC;
        if (header.m_name >= table.size())
            continue;
        const size_t end = table.find('\0', header.m_name);
        if (end == std::string::npos)
            continue;
        if (std::string_view(table).substr(header.m_name, end - header.m_name) != name)
            continue;
        if (header.m_type == kShtNoBits)
            return ENODATA;
        if (!InsideFile(header.m_offset, header.m_size, fileSize))
            return ENOEXEC;
        place.m_offset = header.m_offset;
        place.m_size = header.m_size;
        return 0;
    }
    return ENODATA;
}

int ReadElfSection(const std::string& path, std::string_view name, size_t maxBytes, std::string& bytes,
                   ElfSectionPlace* place)
{
    FileDescriptor fd(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.Get() < 0)
        return errno;
    struct stat info {};
    if (fstat(fd.Get(), &info) != 0)
        return errno;
    if (S_ISDIR(info.st_mode))
        return EISDIR;
    if (!S_ISREG(info.st_mode))
        return ENOEXEC;
    const ElfByteReader read = [&fd](uint64_t offset, void* data, size_t size) {
        auto* target = static_cast<char*>(data);
        size_t done = 0;
        while (done < size) {
            const ssize_t got = pread(fd.Get(), target + done, size - done, static_cast<off_t>(offset + done));
            if (got < 0 && errno == EINTR)
                continue;
            if (got <= 0)
                return false;
            done += static_cast<size_t>(got);
        }
        return true;
    };
    ElfSectionPlace found;
    if (const int error = FindElfSection(read, static_cast<uint64_t>(info.st_size), name, found); error != 0)
        return error;
    if (found.m_size > maxBytes)
        return EFBIG;
    std::string contents(static_cast<size_t>(found.m_size), '\0');
    if (!contents.empty() && !read(found.m_offset, contents.data(), contents.size()))
        return EIO;
    bytes = std::move(contents);
    if (place != nullptr)
        *place = found;
    return 0;
}

} // namespace larimo
