// SPDX-License-Identifier: GPL-3.0-or-later
// Maintains the language files: writes the English template from the string table and tells
// what a translation lacks.
//   larimo-langtool template          the English language file, on standard output
//   larimo-langtool check FILE.tra    lists missing, untranslated, fuzzy, stale and broken
//                                     entries; exit status 1 when the file is incomplete
#include "PoCatalog.h"
#include "StringTable.h"

#include <cstdio>
#include <fstream>
#include <iterator>
#include <map>
#include <set>
#include <string>
#include <string_view>

namespace {

int Usage()
{
    std::fprintf(stderr, "usage: larimo-langtool template | check FILE.tra\n");
    return 2;
}

std::string Ids(const std::string& text)
{
    std::string ids;
    for (const larimo::StringTableEntry& entry : larimo::StringTable()) {
        if (text == entry.text)
            ids += (ids.empty() ? "" : ", ") + std::to_string(entry.id);
    }
    return ids;
}

int Check(const char* path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        std::fprintf(stderr, "%s: cannot open\n", path);
        return 2;
    }
    const std::string content((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const larimo::PoParseResult parsed = larimo::ParsePo(content);
    if (!parsed.ok) {
        std::fprintf(stderr, "%s:%u: %s\n", path, parsed.errorLine, parsed.error.c_str());
        return 2;
    }

    std::map<std::string, const larimo::PoEntry*> byId;
    for (const larimo::PoEntry& entry : parsed.entries) {
        if (!entry.hasContext && !entry.id.empty())
            byId[entry.id] = &entry;
    }
    std::set<std::string> wanted;
    for (const larimo::StringTableEntry& entry : larimo::StringTable())
        wanted.insert(entry.text);

    unsigned problems = 0;
    for (const std::string& text : wanted) {
        const auto it = byId.find(text);
        const char* what = nullptr;
        if (it == byId.end())
            what = "missing";
        else if (it->second->translations.front().empty())
            what = "untranslated";
        else if (it->second->fuzzy)
            what = "fuzzy";
        else if (larimo::PrintfConversions(it->second->translations.front()) !=
                 larimo::PrintfConversions(text))
            what = "printf conversions differ";
        if (what) {
            ++problems;
            std::printf("%s: %s (string %s)\n%s", path, what, Ids(text).c_str(),
                        larimo::PoQuote("msgid", text).c_str());
        }
    }
    for (const auto& [id, entry] : byId) {
        if (wanted.count(id) == 0)
            std::printf("%s:%u: stale entry, no longer in the string table\n", path, entry->line);
    }
    std::printf("%s: %zu texts, %u need work\n", path, wanted.size(), problems);
    return problems == 0 ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::string_view(argv[1]) == "template") {
        const std::string po = larimo::StringTablePoTemplate();
        std::fwrite(po.data(), 1, po.size(), stdout);
        return 0;
    }
    if (argc == 3 && std::string_view(argv[1]) == "check")
        return Check(argv[2]);
    return Usage();
}
