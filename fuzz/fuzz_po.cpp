// SPDX-License-Identifier: GPL-3.0-or-later
// Language files come from users and translators: the PO reader must refuse anything without
// crashing, and whatever it accepts must survive being written out and read again.
#include "PoCatalog.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

namespace {

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string_view content(reinterpret_cast<const char*>(data), size);
    const larimo::PoParseResult parsed = larimo::ParsePo(content);
    if (!parsed.ok) {
        Check(!parsed.error.empty() && parsed.entries.empty());
        return 0;
    }

    std::vector<std::string> warnings;
    const larimo::PoCatalog catalog = larimo::PoCatalog::FromEntries(parsed.entries, &warnings);
    std::string rewritten;
    for (const larimo::PoEntry& entry : parsed.entries) {
        Check(!entry.translations.empty());
        if (const std::string* translation = catalog.Find(entry.id)) {
            Check(larimo::PrintfConversions(*translation) == larimo::PrintfConversions(entry.id));
            Check(!entry.fuzzy || entry.hasContext);
        }
        if (entry.hasContext)
            rewritten += larimo::PoQuote("msgctxt", entry.context);
        rewritten += larimo::PoQuote("msgid", entry.id);
        if (entry.hasPlural) {
            rewritten += larimo::PoQuote("msgid_plural", entry.idPlural);
            for (std::size_t i = 0; i < entry.translations.size(); ++i)
                rewritten += larimo::PoQuote("msgstr[" + std::to_string(i) + "]", entry.translations[i]);
        } else {
            rewritten += larimo::PoQuote("msgstr", entry.translations.front());
        }
        rewritten += '\n';
    }

    const larimo::PoParseResult again = larimo::ParsePo(rewritten);
    Check(again.ok);
    Check(again.entries.size() == parsed.entries.size());
    for (std::size_t i = 0; i < again.entries.size(); ++i) {
        Check(again.entries[i].id == parsed.entries[i].id);
        Check(again.entries[i].context == parsed.entries[i].context);
        Check(again.entries[i].hasPlural == parsed.entries[i].hasPlural);
        Check(again.entries[i].idPlural == parsed.entries[i].idPlural);
        Check(again.entries[i].translations == parsed.entries[i].translations);
    }
    return 0;
}
