// SPDX-License-Identifier: GPL-3.0-or-later
// Reading language files (".tra"), which use the gettext PO syntax: msgid holds the English
// text, msgstr its translation.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace larimo {

/// One entry of a PO file as written, before any decision about its use.
struct PoEntry {
    unsigned line = 0;             ///< line of the entry's msgid (1-based)
    bool hasContext = false;       ///< whether a msgctxt was given
    std::string context;           ///< msgctxt, decoded
    std::string id;                ///< msgid, decoded (UTF-8)
    bool hasPlural = false;        ///< whether a msgid_plural was given (it may be empty)
    std::string idPlural;          ///< msgid_plural, decoded
    std::vector<std::string> translations; ///< msgstr, or msgstr[0], msgstr[1], ...
    bool fuzzy = false;            ///< marked "#, fuzzy"
};

/// The whole file: entries in file order, or the first syntax error.
struct PoParseResult {
    bool ok = false;
    unsigned errorLine = 0;        ///< 1-based line of the error when !ok
    std::string error;             ///< what is wrong, in English, when !ok
    std::vector<PoEntry> entries;
};

/// Largest language file read; anything bigger is refused as not a language file.
inline constexpr std::size_t kPoMaxFileBytes = 16u * 1024u * 1024u;

/// Parses PO text (a leading UTF-8 byte order mark and CRLF line ends are accepted). Strings
/// must be valid UTF-8 after unescaping, and a header that names a charset must name UTF-8.
/// Never throws for bad input. Any thread.
PoParseResult ParsePo(std::string_view content);

/// The printf conversions of a format text in order, one token each ("s", "u", "lu", "*" for a
/// width or precision taken from the arguments, "!" for a '%' that starts no valid
/// conversion); "%%" gives none. Two texts can be filled with the same arguments exactly when
/// their token lists are equal. Any thread.
std::vector<std::string> PrintfConversions(std::string_view format);

/// Quotes a text as a PO string: escapes, and for a text with line breaks the usual
/// multi-line form. `keyword` is "msgid", "msgstr", ... Any thread.
std::string PoQuote(std::string_view keyword, std::string_view text);

/// The translations of a parsed file that may be used: entries that are not fuzzy, not the
/// header, have a non-empty translation whose printf conversions equal the English text's.
/// Immutable once built, so any thread may read it.
class PoCatalog {
public:
    PoCatalog() = default;
    /// Builds the catalogue; the reason for each entry left out is added to `warnings`
    /// (fuzzy and untranslated entries are normal and give no warning).
    static PoCatalog FromEntries(const std::vector<PoEntry>& entries,
                                 std::vector<std::string>* warnings = nullptr);

    /// The translation of `id` given without context, or null.
    const std::string* Find(std::string_view id) const;
    /// The translation of `id` in `context`, or null.
    const std::string* Find(std::string_view context, std::string_view id) const;
    std::size_t Size() const { return m_translations.size(); }
    /// The header entry's text (msgstr of msgid ""), empty when there is none.
    const std::string& Header() const { return m_header; }

private:
    static std::string Key(bool hasContext, std::string_view context, std::string_view id);

    std::unordered_map<std::string, std::string> m_translations;
    std::string m_header;
};

} // namespace larimo
