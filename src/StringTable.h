// SPDX-License-Identifier: GPL-3.0-or-later
// The program's own English texts by string ID, compiled in from StringTable.inc.
#pragma once

#include <span>
#include <string>

namespace larimo {

inline constexpr unsigned kFirstStringId = 100;
inline constexpr unsigned kLastStringId = 400;

struct StringTableEntry {
    unsigned id;
    const char* text; ///< UTF-8
};

/// Every entry of the table in ascending ID order. Any thread.
std::span<const StringTableEntry> StringTable();

/// The English text of `id`, or null when the table has none. Any thread.
const char* StringTableText(unsigned id);

/// A PO template of the table: a header, then each distinct text once as msgid with an empty
/// msgstr, preceded by a comment naming its string IDs. Any thread.
std::string StringTablePoTemplate();

} // namespace larimo
