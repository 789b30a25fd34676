// SPDX-License-Identifier: GPL-3.0-or-later
// Finding a named section in an ELF file (32 or 64 bit, either byte order) from its section
// headers, without loading or running the file.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace larimo {

struct ElfSectionPlace {
    uint64_t m_offset = 0;
    uint64_t m_size = 0;
};

/// Reads `size` bytes at `offset` of the file; false when they are not all there.
using ElfByteReader = std::function<bool(uint64_t offset, void* data, size_t size)>;

/// Finds the section `name` in an ELF image of `fileSize` bytes. 0 with `place` filled (the
/// section lies wholly inside the image); ENOEXEC when the image is no ELF file or its headers
/// are damaged; ENODATA when it has no such section or the section has no bytes in the file.
/// Any thread.
int FindElfSection(const ElfByteReader& read, uint64_t fileSize, std::string_view name, ElfSectionPlace& place);

/// The bytes of section `name` of the file at `path`: 0, or an errno-style code (ENOENT for a
/// missing file, EFBIG for a section larger than `maxBytes`, else as FindElfSection). When
/// `place` is given it receives where the section lies. Any thread.
int ReadElfSection(const std::string& path, std::string_view name, size_t maxBytes, std::string& bytes,
                   ElfSectionPlace* place = nullptr);

} // namespace larimo
