// SPDX-License-Identifier: GPL-3.0-or-later
// Reading of skin definition files (".sdf"): a plain text list of objects, each a header line
// such as "[ERadio1]" followed by "key = value" lines. The parser knows no key names; a control
// offers the current key to the typed getters, and each getter accepts only the name it is given.
//
// A parser is used by one thread at a time (the window thread, while the skin loads).
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <QCursor>
#include <QPoint>

namespace larimo {

class CDynBitmap;
class CDynRgn;

/// A colour as skins write it: red + 256 * green + 65536 * blue.
using ColorRef = std::uint32_t;

constexpr ColorRef MakeColorRef(unsigned red, unsigned green, unsigned blue)
{
    return (red & 0xFFU) | (green & 0xFFU) << 8 | (blue & 0xFFU) << 16;
}

/// A font as a skin describes it. Height follows the usual convention of skin authors: a
/// positive value is the height of the character cell, a negative one the height of the
/// characters themselves, 0 the default size.
struct SkinFont {
    std::string face;
    int height = 0;
    int weight = 400;
    bool italic = false;
    bool underline = false;
    int charSet = 1;
};

/// Receives the parser's diagnostic texts. Skins are loaded silently by default; a program
/// that wants the texts in its log installs a hook. Window thread.
using SkinTraceHook = std::function<void(const std::string&)>;
void SetSkinTraceHook(SkinTraceHook hook);

/// Reads a number as skins write them: leading blanks, an optional sign, then digits up to the
/// first other character; no digits gives 0, values beyond 32 bits saturate.
int SkinAtoi(std::string_view text);

/// The numbers of a comma-separated list, padded with zeros to `count`. Runs of commas count
/// as one separator; a value shorter than two characters gives only zeros.
std::vector<int> SkinNumbers(std::string_view value, std::size_t count);

class CSkinParser {
public:
    CSkinParser() = default;
    ~CSkinParser();
    CSkinParser(const CSkinParser&) = delete;
    CSkinParser& operator=(const CSkinParser&) = delete;

    /// Opens the skin file (relative names are taken from the current folder) and, when
    /// `identifier` is not empty, checks that the first line is a key line with that key.
    bool Init(const std::string& fileName, const std::string& identifier = {});
    /// Forgets the file and every stored text.
    void Close();

    /// Positions the reader just after the first line that, after leading blanks, begins with
    /// `name` (brackets included, case-sensitive). The search always starts at the top.
    bool FindObject(const std::string& name);
    /// Reads the next key line of the current object into CurrentKey and CurrentValue; false
    /// at the end of the object (a blank line, a line without "=", a header, end of file).
    bool NextKey();

    // Each getter returns true and fills its output when the current key equals `key`, the
    // key and value are not empty and the value converts; otherwise the output is unchanged
    // (GetCursor stores an empty cursor on failure).
    bool GetInt(std::string_view key, int& value);
    bool GetBool(std::string_view key, bool& value);
    bool GetColor(std::string_view key, ColorRef& value);
    bool GetSize(std::string_view key, int& first, int& second);
    bool GetPosition(std::string_view key, QPoint& first, QPoint& second);
    bool GetString(std::string_view key, std::string& value);
    bool GetFont(std::string_view key, SkinFont& value);
    bool GetBitmap(std::string_view key, CDynBitmap& bitmap);
    bool GetRegion(std::string_view key, CDynRgn& region);
    bool GetCursor(std::string_view key, QCursor& cursor);
    bool GetFilePath(std::string_view key, std::string& path);

    const std::string& CurrentKey() const { return m_key; }
    const std::string& CurrentValue() const { return m_value; }
    const std::string& Identifier() const { return m_identifier; }
    /// Folder of the skin file, ending in '/'.
    const std::string& BaseFolder() const { return m_baseFolder; }
    bool IsOpen() const { return m_open; }

    /// Parses a font value ("face,height[,weight[,style[,style]]]"); false when it has no
    /// face or no height.
    static bool ParseFont(std::string_view value, SkinFont& font);

private:
    bool Accepts(std::string_view key) const;
    std::string ResolvePath(const std::string& value) const;
    void Trace(const std::string& text) const;

    bool m_open = false;
    std::vector<std::string> m_lines;
    std::size_t m_next = 0;
    std::string m_baseFolder;
    std::string m_identifier;
    std::string m_key;
    std::string m_value;
};

} // namespace larimo
