// SPDX-License-Identifier: GPL-3.0-or-later
// INI files with the semantics of the classic profile functions, plus safe replacement.
//
// Reading rules:
//  - A line whose first non-blank character is '[' opens a section; its name runs to the last ']'
//    of the line (or to the end of the line when there is none) and is trimmed of blanks.
//  - A line holding '=' is a key line: the key is the trimmed text before the first '=', the value
//    the trimmed text after it. A value enclosed in a pair of equal quotes ("..." or '...') loses
//    them. Lines starting with ';' or '#' are comments; any other line is kept and ignored.
//  - Section and key names match without regard to ASCII letter case.
//  - Duplicate sections and duplicate keys: the first one in the file is the one read and the one
//    changed; the later ones stay in the file untouched and are never seen.
//  - Lines before the first section belong to no section.
//  - A value is returned cut to the buffer size less one, counted in UTF-16 code units, never inside
//    a UTF-8 sequence. A missing key gives the default (trailing blanks removed, cut the same way).
//  - A UTF-8 byte order mark is accepted and written back.
//
// Writing rules:
//  - Changing a key rewrites only that key's line (as "key=value", the key spelled as in the file);
//    every other byte stays. Line ends follow the file (CRLF or LF; LF for a new file).
//  - A new key goes after the last key line of its section; a new section goes at the end of the
//    file after a blank line.
//  - A null key deletes every section of that name; a null value deletes the key (all of its lines
//    in the section reads use).
//  - A value that would not read back as written (blanks at either end, or enclosed in quotes) is
//    stored in double quotes; line breaks inside a value are stored as blanks.
//  - Files are replaced atomically: a temporary file beside the target ("<name>.tmp") is written,
//    flushed to disk and renamed over the target. Writers hold an exclusive flock on "<name>.lock"
//    from reading the old contents to the rename; readers hold a shared one while reading.
//  - A file that exists but cannot be read is never overwritten.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace larimo {

/// Size of the value buffer of the profile functions, terminator included.
constexpr size_t kProfileBufferChars = 1024;

/// Length in bytes of the longest prefix of `text` that fits into `maxUnits` UTF-16 code units
/// without cutting a UTF-8 sequence. A malformed byte counts as one unit. Any thread.
size_t Utf16PrefixBytes(std::string_view text, size_t maxUnits);

/// The parsed image of one INI file. A value type; not synchronised, one thread at a time.
class IniDocument {
public:
    IniDocument() = default;

    /// Parses file contents (any bytes; nothing is rejected).
    static IniDocument Parse(std::string_view contents);
    /// The file contents as they would be written.
    std::string Serialize() const;

    /// The value of `key` in `section` as the profile reader gives it: trimmed, unquoted and cut
    /// to `bufferChars` - 1 UTF-16 units; `defaultValue` when the key is missing.
    std::string Get(std::string_view section, std::string_view key, std::string_view defaultValue,
                    size_t bufferChars = kProfileBufferChars) const;
    /// The whole value, or nothing when the key is missing.
    std::optional<std::string> Find(std::string_view section, std::string_view key) const;
    bool HasSection(std::string_view section) const;
    /// The keys of the first section of that name, in file order, as spelled in the file.
    std::vector<std::string> Keys(std::string_view section) const;

    /// The profile writer: a null `key` deletes the section, a null `value` deletes the key,
    /// otherwise the key is set (section and key created when missing). False, with a log record,
    /// when a name cannot be stored (empty, or holding a line break, '=' in a key, ']' in a section).
    bool Write(std::string_view section, std::optional<std::string_view> key,
               std::optional<std::string_view> value);
    bool Set(std::string_view section, std::string_view key, std::string_view value)
    {
        return Write(section, key, value);
    }
    void DeleteKey(std::string_view section, std::string_view key) { Write(section, key, std::nullopt); }
    void DeleteSection(std::string_view section) { Write(section, std::nullopt, std::nullopt); }
    /// Gives `section` exactly the keys of `entries`, in this order: what deleting every section of
    /// the name and writing the keys again gives, except that the section keeps its place in the
    /// file (comments inside it go, blank lines closing it stay). Nothing changes when the section
    /// already reads so. False, with a log record, when a name cannot be stored; nothing changes.
    bool ReplaceSection(std::string_view section,
                        const std::vector<std::pair<std::string, std::string>>& entries);
    /// Drops every line (a kept byte order mark stays).
    void Clear();

    /// Whether an edit changed the contents since parsing (or since the last MarkSaved).
    bool Modified() const { return m_modified; }
    void MarkSaved() { m_modified = false; }
    bool HasBom() const { return m_bom; }
    bool UsesCrLf() const { return m_eol == "\r\n"; }

private:
    // Case-insensitive hashing and comparison, so lookups need no folded copy of the name.
    struct NoCaseHash {
        using is_transparent = void;
        size_t operator()(std::string_view text) const;
    };
    struct NoCaseEqual {
        using is_transparent = void;
        bool operator()(std::string_view a, std::string_view b) const;
    };
    using NameIndex = std::unordered_map<std::string, size_t, NoCaseHash, NoCaseEqual>;

    struct Line {
        std::string m_text; // without its line end
        std::string m_eol; // "\n", "\r\n", or empty for a last line without one
        std::string m_keyFolded; // lower-case key of a key line, empty otherwise
    };
    struct Section {
        std::string m_nameFolded; // empty for the lines before the first header
        bool m_hasHeader = false;
        std::vector<Line> m_lines; // from the header (or a blank line before it) to the next header
        NameIndex m_firstKey; // key -> index in m_lines
        void Reindex();
    };

    const Section* FindSection(std::string_view section) const;
    Section* FindSection(std::string_view section);
    void ReindexSections();
    void EnsureLastLineEnds();
    void SetKey(std::string_view section, std::string_view key, std::string_view value);
    void RemoveKey(std::string_view section, std::string_view key);
    void RemoveSection(std::string_view section);
    static bool ValidSectionName(std::string_view section);
    static bool ValidKeyName(std::string_view key);

    std::vector<Section> m_sections; // m_sections[0] holds the lines before the first header
    NameIndex m_firstSection; // name -> index in m_sections
    std::string m_eol = "\n";
    bool m_bom = false;
    bool m_modified = false;
};

/// Reads `path` under a shared lock. A missing file gives an empty document and true; a file that
/// cannot be read (a directory, no permission, too large, an I/O error) gives an empty document,
/// a LogError naming the path and the cause, and false. Any thread.
bool LoadIniFile(const std::string& path, IniDocument& document);

/// Replaces the whole of `path` with `document`, atomically, under the exclusive lock. False with a
/// LogError naming the path and the cause when it fails; the old file is then untouched. Any thread.
bool ReplaceIniFile(const std::string& path, const IniDocument& document);

/// Reads `path`, lets `edit` change the document and writes it back atomically if it changed, all
/// under the exclusive lock, so concurrent updates of different keys by several processes all
/// survive. A missing file starts empty and is created when the edit adds something. A file that
/// cannot be read is left alone. False with a LogError on failure. Any thread.
bool UpdateIniFile(const std::string& path, const std::function<void(IniDocument&)>& edit);

/// One value of `path` read the way GetPrivateProfileString reads it (see IniDocument::Get).
/// Any thread.
std::string ProfileReadString(std::string_view section, std::string_view key, std::string_view defaultValue,
                              const std::string& path, size_t bufferChars = kProfileBufferChars);

/// One change of `path` the way WritePrivateProfileString makes it (see IniDocument::Write),
/// saved at once through UpdateIniFile. Any thread.
bool ProfileWriteString(std::string_view section, std::optional<std::string_view> key,
                        std::optional<std::string_view> value, const std::string& path);

} // namespace larimo
