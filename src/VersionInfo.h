// SPDX-License-Identifier: GPL-3.0-or-later
// The version record every Larimo program carries, read from the program file without running it.
//
// The build places the record in the section ".larimo.version" of each program: the magic
// "LRMV", then "StringFileInfo", then tables, each a key of language and code page as eight hex
// digits ("040904b0") followed by "name", "value" pairs and an empty name; an empty table key
// ends the record. Every text ends with a NUL byte.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

namespace larimo {

inline constexpr char kVersionSection[] = ".larimo.version";
inline constexpr uint16_t kVersionLanguage = 1033; // 0x0409, U.S. English
inline constexpr uint16_t kVersionCodePage = 1200; // 0x04B0, Unicode

struct VersionRecord {
    std::string m_comments;
    std::string m_companyName;
    std::string m_fileDescription;
    std::string m_fileVersionText;
    std::string m_internalName;
    std::string m_legalCopyright;
    std::string m_legalTrademarks;
    std::string m_originalFilename;
    std::string m_productName;
    std::string m_productVersionText;
    std::string m_privateBuild;
    std::string m_specialBuild;
    std::string m_productVersion; // "%u.%u.%u.%u" of m_productNumbers
    std::string m_fileVersion; // "%u.%u.%u.%u" of m_fileNumbers
    std::array<uint16_t, 4> m_productNumbers{};
    std::array<uint16_t, 4> m_fileNumbers{};
};

/// The four numbers of a version text split at '.' and ',' with blanks ignored ("1, 5, 24, 0"
/// gives 1 5 24 0). Missing parts and parts that are no number give 0; parts above 65535 give
/// 65535; parts after the fourth are ignored. Any thread.
std::array<uint16_t, 4> SplitVersionNumbers(std::string_view text);

/// Fills `record` from the bytes of a version section: the texts of the table of `language` and
/// `codePage` (all empty when the record has no such table), then the dotted versions and their
/// numbers. False, leaving `record` alone, for bytes that are no well-formed record. Any thread.
bool ParseVersionRecord(std::string_view section, uint16_t language, uint16_t codePage, VersionRecord& record);

/// The version record of the program file `path`: 0 with `record` filled; 2 when the file does
/// not exist; otherwise an errno-style code (ENOEXEC: no ELF file, ENODATA: no version record,
/// EBADMSG: a damaged record, or why the file could not be read). Any thread.
int ReadVersionInfo(const std::string& path, uint16_t language, uint16_t codePage, VersionRecord& record);

/// The product version of `path` as four dotted numbers, with ReadVersionInfo's result. Any thread.
int FileVersion(const std::string& path, std::string& version);

/// The start-up's version line: when `programPath` has a version record, an empty line and
/// "Larimo version: <product version>" go to the log. Returns whether they did. Any thread.
bool LogProgramVersion(const std::string& programPath);

} // namespace larimo
