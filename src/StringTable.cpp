// SPDX-License-Identifier: GPL-3.0-or-later
#include "StringTable.h"

#include "PoCatalog.h"

#include <algorithm>
#include <map>
#include <vector>

namespace larimo {

namespace {

constexpr StringTableEntry kEntries[] = {
#define LARIMO_STRING(id, text) {id, text},
#include "StringTable.inc"
#undef LARIMO_STRING
};

constexpr bool IsSortedAndInRange()
{
    for (std::size_t i = 0; i < std::size(kEntries); ++i) {
        if (kEntries[i].id < kFirstStringId || kEntries[i].id > kLastStringId)
            return false;
        if (i > 0 && kEntries[i - 1].id >= kEntries[i].id)
            return false;
    }
    return true;
}
static_assert(IsSortedAndInRange(), "string IDs must ascend within 100..400");

} // namespace

std::span<const StringTableEntry> StringTable()
{
    return kEntries;
}

const char* StringTableText(unsigned id)
{
    const auto it = std::lower_bound(std::begin(kEntries), std::end(kEntries), id,
                                     [](const StringTableEntry& e, unsigned v) { return e.id < v; });
    return (it != std::end(kEntries) && it->id == id) ? it->text : nullptr;
}

std::string StringTablePoTemplate()
{
    std::string po =
        "# English texts of Larimo, the source of every translation.\n"
        "# Generated from src/StringTable.inc by scripts/update-lang.sh; do not edit.\n"
        "msgid \"\"\n"
        "msgstr \"\"\n"
        "\"Project-Id-Version: Larimo\\n\"\n"
        "\"Language: en\\n\"\n"
        "\"MIME-Version: 1.0\\n\"\n"
        "\"Content-Type: text/plain; charset=UTF-8\\n\"\n"
        "\"Content-Transfer-Encoding: 8bit\\n\"\n";

    // Equal texts under several IDs are one msgid, as PO allows each msgid once.
    std::vector<std::string> order;
    std::map<std::string, std::string> ids;
    for (const StringTableEntry& entry : kEntries) {
        auto [it, inserted] = ids.try_emplace(entry.text, std::to_string(entry.id));
        if (inserted)
            order.emplace_back(entry.text);
        else
            it->second += ", " + std::to_string(entry.id);
    }
    for (const std::string& text : order) {
        const std::string& list = ids[text];
        po += (list.find(',') == std::string::npos ? "\n#. string " : "\n#. strings ") + list + "\n";
        if (!PrintfConversions(text).empty())
            po += "#, c-format\n";
        po += PoQuote("msgid", text);
        po += "msgstr \"\"\n";
    }
    return po;
}

} // namespace larimo
