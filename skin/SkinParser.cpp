// SPDX-License-Identifier: GPL-3.0-or-later
#include "SkinParser.h"

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <utility>

#include "CursorFile.h"
#include "DynBitmap.h"
#include "DynRgn.h"
#include "textformat.h"

namespace larimo {

namespace {

// Far beyond any real skin; keeps a stray multi-gigabyte file from being read into memory.
constexpr std::uintmax_t kMaxSkinFileBytes = 16U * 1024U * 1024U;
constexpr std::size_t kMaxFaceChars = 31;

SkinTraceHook& TraceHook()
{
    static SkinTraceHook hook;
    return hook;
}

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\v' || c == '\f';
}

std::string_view TrimLeft(std::string_view text)
{
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    return text;
}

std::string_view TrimRight(std::string_view text)
{
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

std::string_view Trim(std::string_view text) { return TrimRight(TrimLeft(text)); }

std::vector<std::string_view> SplitKeepEmpty(std::string_view text, char separator)
{
    std::vector<std::string_view> pieces;
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = text.find(separator, start);
        if (end == std::string_view::npos) {
            pieces.push_back(text.substr(start));
            return pieces;
        }
        pieces.push_back(text.substr(start, end - start));
        start = end + 1;
    }
}

// Trace texts are bounded like every other diagnostic text.
constexpr std::size_t kMaxTraceUnits = 2000;

bool ReadLines(const std::string& path, std::vector<std::string>& lines, int& cause)
{
    std::error_code error;
    const auto status = std::filesystem::status(path, error);
    if (error || !std::filesystem::is_regular_file(status)) {
        cause = error ? error.value() : ENOENT;
        return false;
    }
    const std::uintmax_t size = std::filesystem::file_size(path, error);
    if (error || size > kMaxSkinFileBytes) {
        cause = error ? error.value() : EFBIG;
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        cause = errno != 0 ? errno : EACCES;
        return false;
    }
    std::string bytes(static_cast<std::size_t>(size), '\0');
    in.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(in.gcount()));

    // Skins written on any system read the same: "\r\n" and "\n" both end a line.
    lines.clear();
    std::size_t start = 0;
    while (start < bytes.size()) {
        std::size_t end = bytes.find('\n', start);
        if (end == std::string::npos)
            end = bytes.size();
        std::string line = bytes.substr(start, end - start);
        if (!line.empty() && line.back() == '\r')
            line.pop_back();
        lines.push_back(std::move(line));
        start = end + 1;
    }
    // A UTF-8 byte order mark would otherwise hide the first header or identification line.
    if (!lines.empty() && lines.front().starts_with("\xEF\xBB\xBF"))
        lines.front().erase(0, 3);
    return true;
}

// A line after the object's header that carries a key, split as key and value.
bool SplitKeyLine(std::string_view line, std::string& key, std::string& value)
{
    const std::string_view trimmed = Trim(line);
    const std::size_t equals = trimmed.find('=');
    if (equals == std::string_view::npos || trimmed.front() == '[')
        return false;
    key = std::string(TrimRight(trimmed.substr(0, equals)));
    value = std::string(TrimLeft(trimmed.substr(equals + 1)));
    return true;
}

} // namespace

void SetSkinTraceHook(SkinTraceHook hook) { TraceHook() = std::move(hook); }

int SkinAtoi(std::string_view text)
{
    text = TrimLeft(text);
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    long long magnitude = 0;
    for (const char c : text) {
        if (c < '0' || c > '9')
            break;
        magnitude = magnitude * 10 + (c - '0');
        if (magnitude > static_cast<long long>(INT_MAX) + 1)
            magnitude = static_cast<long long>(INT_MAX) + 1;
    }
    const long long result = negative ? -magnitude : magnitude;
    if (result > INT_MAX)
        return INT_MAX;
    return static_cast<int>(result);
}

std::vector<int> SkinNumbers(std::string_view value, std::size_t count)
{
    std::vector<int> numbers;
    numbers.reserve(count);
    if (value.size() >= 2) {
        for (const std::string_view piece : SplitKeepEmpty(value, ',')) {
            if (numbers.size() == count)
                break;
            if (!piece.empty())
                numbers.push_back(SkinAtoi(piece));
        }
    }
    numbers.resize(count, 0);
    return numbers;
}

CSkinParser::~CSkinParser() { Close(); }

bool CSkinParser::Init(const std::string& fileName, const std::string& identifier)
{
    Close();
    int cause = 0;
    if (!ReadLines(fileName, m_lines, cause)) {
        Trace(FormatCut(kMaxTraceUnits, "Error initializing parser from file [%s] - cause [%d]", fileName.c_str(), cause));
        m_lines.clear();
        return false;
    }
    m_open = true;
    m_next = 0;

    if (!identifier.empty()) {
        std::string key;
        std::string value;
        const bool found = !m_lines.empty() && SplitKeyLine(m_lines.front(), key, value) &&
                           !key.empty() && !value.empty() && key == identifier;
        if (!found) {
            Trace(FormatCut(kMaxTraceUnits, "Error cannot find matching ID [%s] in file [%s]", identifier.c_str(),
                         fileName.c_str()));
            Close();
            return false;
        }
        m_identifier = value;
        m_next = 1;
    }

    std::error_code error;
    std::filesystem::path full = std::filesystem::absolute(fileName, error);
    if (error)
        full = fileName;
    m_baseFolder = full.parent_path().string();
    if (m_baseFolder.empty() || m_baseFolder.back() != '/')
        m_baseFolder += '/';
    return true;
}

void CSkinParser::Close()
{
    m_open = false;
    m_lines.clear();
    m_next = 0;
    m_baseFolder.clear();
    m_identifier.clear();
    m_key.clear();
    m_value.clear();
}

bool CSkinParser::FindObject(const std::string& name)
{
    if (!m_open)
        return false;
    for (std::size_t i = 0; i < m_lines.size(); ++i) {
        if (TrimLeft(m_lines[i]).starts_with(name)) {
            m_next = i + 1;
            return true;
        }
    }
    m_next = m_lines.size();
    Trace(FormatCut(kMaxTraceUnits, "couldn't find skin object %s", name.c_str()));
    return false;
}

bool CSkinParser::NextKey()
{
    if (!m_open || m_next >= m_lines.size())
        return false;
    std::string key;
    std::string value;
    if (!SplitKeyLine(m_lines[m_next], key, value))
        return false;
    ++m_next;
    m_key = std::move(key);
    m_value = std::move(value);
    return true;
}

bool CSkinParser::Accepts(std::string_view key) const
{
    return !m_key.empty() && !m_value.empty() && m_key == key;
}

std::string CSkinParser::ResolvePath(const std::string& value) const
{
    // Skins made on other systems write "bitmaps\bg.bmp"; the folder separator is ours.
    std::string path = m_baseFolder + value;
    for (char& c : path) {
        if (c == '\\')
            c = '/';
    }
    return path;
}

void CSkinParser::Trace(const std::string& text) const
{
    if (TraceHook())
        TraceHook()(text);
}

bool CSkinParser::GetInt(std::string_view key, int& value)
{
    if (!Accepts(key))
        return false;
    value = SkinAtoi(m_value);
    return true;
}

bool CSkinParser::GetBool(std::string_view key, bool& value)
{
    if (!Accepts(key))
        return false;
    value = SkinAtoi(m_value) != 0;
    return true;
}

bool CSkinParser::GetColor(std::string_view key, ColorRef& value)
{
    if (!Accepts(key))
        return false;
    const std::vector<int> rgb = SkinNumbers(m_value, 3);
    value = MakeColorRef(static_cast<unsigned>(rgb[0]), static_cast<unsigned>(rgb[1]),
                         static_cast<unsigned>(rgb[2]));
    return true;
}

bool CSkinParser::GetSize(std::string_view key, int& first, int& second)
{
    if (!Accepts(key))
        return false;
    const std::vector<int> numbers = SkinNumbers(m_value, 2);
    first = numbers[0];
    second = numbers[1];
    return true;
}

bool CSkinParser::GetPosition(std::string_view key, QPoint& first, QPoint& second)
{
    if (!Accepts(key))
        return false;
    const std::vector<int> numbers = SkinNumbers(m_value, 4);
    first = QPoint(numbers[0], numbers[1]);
    second = QPoint(numbers[2], numbers[3]);
    return true;
}

bool CSkinParser::GetString(std::string_view key, std::string& value)
{
    if (!Accepts(key))
        return false;
    value = m_value;
    return true;
}

bool CSkinParser::ParseFont(std::string_view value, SkinFont& font)
{
    const std::vector<std::string_view> pieces = SplitKeepEmpty(value, ',');
    if (pieces.size() < 2)
        return false;
    const std::string_view face = Trim(pieces[0]);
    if (face.empty() || Trim(pieces[1]).empty())
        return false;
    SkinFont made;
    made.face = std::string(face.substr(0, kMaxFaceChars));
    made.height = SkinAtoi(pieces[1]);
    made.weight = pieces.size() > 2 && Trim(pieces[2]) == "bold" ? 700 : 400;
    for (std::size_t i = 3; i < pieces.size() && i < 5; ++i) {
        const std::string_view style = Trim(pieces[i]);
        if (style == "italic")
            made.italic = true;
        else if (style == "underline")
            made.underline = true;
    }
    font = std::move(made);
    return true;
}

bool CSkinParser::GetFont(std::string_view key, SkinFont& value)
{
    if (!Accepts(key))
        return false;
    if (!ParseFont(m_value, value)) {
        Trace(FormatCut(kMaxTraceUnits, "couldn't dissolve %s to font", m_value.c_str()));
        return false;
    }
    return true;
}

bool CSkinParser::GetBitmap(std::string_view key, CDynBitmap& bitmap)
{
    if (!Accepts(key))
        return false;
    if (!bitmap.LoadFromPath(ResolvePath(m_value))) {
        Trace(FormatCut(kMaxTraceUnits, "couldn't load bitmap %s (%s)", m_value.c_str(), bitmap.LastError().c_str()));
        return false;
    }
    return true;
}

bool CSkinParser::GetRegion(std::string_view key, CDynRgn& region)
{
    if (!Accepts(key))
        return false;
    if (!region.LoadFromPath(ResolvePath(m_value), 1.0, 1.0)) {
        Trace(FormatCut(kMaxTraceUnits, "couldn't load region %s (%s)", m_value.c_str(), region.LastError().c_str()));
        return false;
    }
    return true;
}

bool CSkinParser::GetCursor(std::string_view key, QCursor& cursor)
{
    if (!Accepts(key))
        return false;
    const std::string path = ResolvePath(m_value);
    CursorImage image;
    std::string why;
    if (!LoadCursorFile(path, image, why)) {
        Trace(FormatCut(kMaxTraceUnits, "couldn't load cursor from file %s (%s)", path.c_str(), why.c_str()));
        cursor = QCursor();
        return false;
    }
    cursor = image.ToCursor();
    return true;
}

bool CSkinParser::GetFilePath(std::string_view key, std::string& path)
{
    if (!Accepts(key))
        return false;
    const std::string full = ResolvePath(m_value);
    std::error_code error;
    if (!std::filesystem::exists(full, error)) {
        Trace(FormatCut(kMaxTraceUnits, "couldn't find file %s", m_value.c_str()));
        return false;
    }
    path = full;
    return true;
}

} // namespace larimo
