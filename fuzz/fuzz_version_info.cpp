// SPDX-License-Identifier: GPL-3.0-or-later
// The ELF section finder and the version record parser on arbitrary bytes, as a damaged or
// foreign program file gives them: nothing may crash or read outside the image, and a section
// found must lie inside it.
#include "VersionInfo.h"
#include "platform/ElfSection.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const larimo::ElfByteReader read = [data, size](uint64_t offset, void* target, size_t count) {
        if (offset > size || count > size - offset)
            return false;
        std::memcpy(target, data + offset, count);
        return true;
    };
    larimo::ElfSectionPlace place;
    if (larimo::FindElfSection(read, size, larimo::kVersionSection, place) == 0) {
        if (place.m_offset > size || place.m_size > size - place.m_offset)
            __builtin_trap();
        const std::string_view section(reinterpret_cast<const char*>(data) + place.m_offset, place.m_size);
        larimo::VersionRecord record;
        (void)larimo::ParseVersionRecord(section, larimo::kVersionLanguage, larimo::kVersionCodePage, record);
    }

    // The same bytes taken as a record straight away.
    larimo::VersionRecord record;
    const std::string_view bytes(reinterpret_cast<const char*>(data), size);
    if (larimo::ParseVersionRecord(bytes, larimo::kVersionLanguage, larimo::kVersionCodePage, record)) {
        const auto numbers = larimo::SplitVersionNumbers(record.m_productVersionText);
        if (numbers != record.m_productNumbers)
            __builtin_trap();
    }
    return 0;
}
