// SPDX-License-Identifier: GPL-3.0-or-later
#include "VersionInfo.h"

#include "mlog.h"
#include "platform/ElfSection.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <utility>

namespace larimo {

namespace {

constexpr std::string_view kMagic = "LRMV";
constexpr std::string_view kStringFileInfo = "StringFileInfo";
// A record is a few hundred bytes; far more is not ours.
constexpr size_t kMaxSectionBytes = 64 * 1024;

// Reads one NUL-terminated text at `position`; false when the bytes end first.
bool NextText(std::string_view bytes, size_t& position, std::string_view& text)
{
    if (position > bytes.size())
        return false;
    const size_t end = bytes.find('\0', position);
    if (end == std::string_view::npos)
        return false;
    text = bytes.substr(position, end - position);
    position = end + 1;
    return true;
}

std::string Dotted(const std::array<uint16_t, 4>& numbers)
{
    char text[32];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", unsigned{numbers[0]}, unsigned{numbers[1]}, unsigned{numbers[2]},
                  unsigned{numbers[3]});
    return text;
}

std::string* FieldOf(VersionRecord& record, std::string_view key)
{
    const std::pair<std::string_view, std::string VersionRecord::*> fields[] = {
        {"Comments", &VersionRecord::m_comments},
        {"CompanyName", &VersionRecord::m_companyName},
        {"FileDescription", &VersionRecord::m_fileDescription},
        {"FileVersion", &VersionRecord::m_fileVersionText},
        {"InternalName", &VersionRecord::m_internalName},
        {"LegalCopyright", &VersionRecord::m_legalCopyright},
        {"LegalTrademarks", &VersionRecord::m_legalTrademarks},
        {"OriginalFilename", &VersionRecord::m_originalFilename},
        {"ProductName", &VersionRecord::m_productName},
        {"ProductVersion", &VersionRecord::m_productVersionText},
        {"PrivateBuild", &VersionRecord::m_privateBuild},
        {"SpecialBuild", &VersionRecord::m_specialBuild},
    };
    for (const auto& [name, member] : fields) {
        if (name == key)
            return &(record.*member);
    }
    return nullptr;
}

} // namespace

std::array<uint16_t, 4> SplitVersionNumbers(std::string_view text)
{
    std::array<uint16_t, 4> numbers{};
    size_t part = 0;
    uint32_t value = 0;
    bool digits = false;
    bool garbage = false;
    auto finish = [&] {
        if (part < numbers.size())
            numbers[part] = digits && !garbage ? static_cast<uint16_t>(value) : 0;
        ++part;
        value = 0;
        digits = false;
        garbage = false;
    };
    for (const char c : text) {
        if (c == '.' || c == ',') {
            finish();
        } else if (c == ' ' || c == '\t') {
            continue;
        } else if (c >= '0' && c <= '9') {
            digits = true;
            value = std::min<uint32_t>(value * 10 + static_cast<uint32_t>(c - '0'), 65535);
        } else {
            garbage = true;
        }
    }
    finish();
    return numbers;
}

bool ParseVersionRecord(std::string_view section, uint16_t language, uint16_t codePage, VersionRecord& record)
{
    size_t position = 0;
    std::string_view text;
    if (!NextText(section, position, text) || text != kMagic)
        return false;
    if (!NextText(section, position, text) || text != kStringFileInfo)
        return false;
    char wanted[16];
    std::snprintf(wanted, sizeof wanted, "%04x%04x", unsigned{language}, unsigned{codePage});

    VersionRecord filled;
    for (;;) {
        std::string_view table;
        if (!NextText(section, position, table))
            return false;
        if (table.empty())
            break;
        // Hex digits of the key are compared without regard to case.
        bool sameKey = table.size() == 8;
        for (size_t i = 0; sameKey && i < 8; ++i) {
            const char a = table[i] >= 'A' && table[i] <= 'F' ? static_cast<char>(table[i] - 'A' + 'a') : table[i];
            sameKey = a == wanted[i];
        }
        for (;;) {
            std::string_view key;
            std::string_view value;
            if (!NextText(section, position, key))
                return false;
            if (key.empty())
                break;
            if (!NextText(section, position, value))
                return false;
            if (sameKey) {
                if (std::string* field = FieldOf(filled, key))
                    *field = std::string(value);
            }
        }
    }
    filled.m_productNumbers = SplitVersionNumbers(filled.m_productVersionText);
    filled.m_fileNumbers = SplitVersionNumbers(filled.m_fileVersionText);
    filled.m_productVersion = Dotted(filled.m_productNumbers);
    filled.m_fileVersion = Dotted(filled.m_fileNumbers);
    record = std::move(filled);
    return true;
}

int ReadVersionInfo(const std::string& path, uint16_t language, uint16_t codePage, VersionRecord& record)
{
    std::string section;
    const int error = ReadElfSection(path, kVersionSection, kMaxSectionBytes, section);
    if (error == ENOENT || error == ENOTDIR)
        return 2;
    if (error != 0)
        return error;
    if (!ParseVersionRecord(section, language, codePage, record)) {
        LogWarning("ReadVersionInfo: the version record of \"%s\" is damaged", path.c_str());
        return EBADMSG;
    }
    return 0;
}

int FileVersion(const std::string& path, std::string& version)
{
    VersionRecord record;
    const int result = ReadVersionInfo(path, kVersionLanguage, kVersionCodePage, record);
    if (result == 0)
        version = record.m_productVersion;
    return result;
}

bool LogProgramVersion(const std::string& programPath)
{
    VersionRecord record;
    if (ReadVersionInfo(programPath, kVersionLanguage, kVersionCodePage, record) != 0)
        return false;
    LogText("%s", "");
    LogText("Larimo version: %s", record.m_productVersion.c_str());
    return true;
}

} // namespace larimo
