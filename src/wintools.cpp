// SPDX-License-Identifier: GPL-3.0-or-later
#include "wintools.h"

#include "platform/ProcessInfo.h"

#include <algorithm>
#include <wctype.h>
#include <locale.h>
#include <cwctype>
#include <clocale>
#include <vector>

namespace larimo {

namespace {

std::string& DataRootStorage()
{
    static std::string root = ProgramFolder();
    return root;
}

char LowerAscii(char c)
{
    return (c >= 'A' && c <= 'Z') ? static_cast<char>(c - 'A' + 'a') : c;
}

} // namespace

std::string ProgramFolder()
{
    const std::string exe = ExecutablePath();
    const auto slash = exe.rfind('/');
    if (slash == std::string::npos)
        return {};
    return exe.substr(0, slash + 1);
}

const std::string& DataRoot()
{
    return DataRootStorage();
}

void SetDataRoot(std::string_view folder)
{
    std::string root(folder);
    if (!root.empty() && root.back() == '\\')
        root.back() = '/';
    DataRootStorage() = WithTrailingSlash(root);
}

std::string WithTrailingSlash(std::string_view folder)
{
    std::string result(folder);
    if (!result.empty() && result.back() != '/')
        result += '/';
    return result;
}

std::string SettingsPathToFs(std::string_view settingsPath, std::string_view baseFolder)
{
    std::string path(settingsPath);
    std::replace(path.begin(), path.end(), '\\', '/');
    const bool trailingSlash = !path.empty() && path.back() == '/';
    if (path.empty() || path.front() != '/') {
        std::string base(baseFolder);
        std::replace(base.begin(), base.end(), '\\', '/');
        path = WithTrailingSlash(base) + path;
    }

    const bool absolute = !path.empty() && path.front() == '/';
    std::vector<std::string> segments;
    size_t start = 0;
    while (start <= path.size()) {
        size_t end = path.find('/', start);
        if (end == std::string::npos)
            end = path.size();
        const std::string segment = path.substr(start, end - start);
        if (segment == "..") {
            if (!segments.empty() && segments.back() != "..")
                segments.pop_back();
            else if (!absolute)
                segments.push_back(segment);
        } else if (!segment.empty() && segment != ".") {
            segments.push_back(segment);
        }
        start = end + 1;
    }

    std::string result = absolute ? "/" : "";
    for (size_t i = 0; i < segments.size(); ++i) {
        if (i > 0)
            result += '/';
        result += segments[i];
    }
    if (trailingSlash && !segments.empty())
        result += '/';
    if (result.empty())
        return std::string(1, '.');
    return result;
}

namespace {

// The C library's Unicode character classes (glibc's C.UTF-8 knows every letter), kept apart
// from the program's own locale so no thread's setting changes what a name matches.
locale_t UnicodeLocale()
{
    static const locale_t locale = [] {
        locale_t made = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(nullptr));
        return made != static_cast<locale_t>(nullptr) ? made : newlocale(LC_CTYPE_MASK, "C", static_cast<locale_t>(nullptr));
    }();
    return locale;
}

// One code point from `text` at `at`, which moves past it; a byte that starts no valid UTF-8
// sequence stands for itself.
char32_t NextCodePoint(std::string_view text, size_t& at)
{
    const auto lead = static_cast<unsigned char>(text[at]);
    const int length = lead < 0x80 ? 1 : (lead >> 5) == 0x6 ? 2 : (lead >> 4) == 0xE ? 3 : (lead >> 3) == 0x1E ? 4 : 0;
    if (length <= 1 || at + static_cast<size_t>(length) > text.size()) {
        ++at;
        return lead;
    }
    char32_t point = lead & (0x7F >> length);
    for (int i = 1; i < length; ++i) {
        const auto next = static_cast<unsigned char>(text[at + static_cast<size_t>(i)]);
        if ((next & 0xC0) != 0x80) {
            ++at;
            return lead;
        }
        point = (point << 6) | (next & 0x3F);
    }
    at += static_cast<size_t>(length);
    return point;
}

void AppendUtf8(std::string& out, char32_t point)
{
    if (point < 0x80) {
        out += static_cast<char>(point);
    } else if (point < 0x800) {
        out += static_cast<char>(0xC0 | (point >> 6));
        out += static_cast<char>(0x80 | (point & 0x3F));
    } else if (point < 0x10000) {
        out += static_cast<char>(0xE0 | (point >> 12));
        out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (point & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (point >> 18));
        out += static_cast<char>(0x80 | ((point >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((point >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (point & 0x3F));
    }
}

char32_t Lower(char32_t point)
{
    return point < 0x80 ? static_cast<char32_t>(LowerAscii(static_cast<char>(point)))
                        : static_cast<char32_t>(towlower_l(static_cast<wint_t>(point), UnicodeLocale()));
}

} // namespace

std::string FoldCase(std::string_view text)
{
    std::string folded;
    folded.reserve(text.size());
    for (size_t at = 0; at < text.size();)
        AppendUtf8(folded, Lower(NextCodePoint(text, at)));
    return folded;
}

std::string CapitalizeFirst(std::string_view text)
{
    if (text.empty())
        return {};
    size_t at = 0;
    const char32_t first = NextCodePoint(text, at);
    std::string result;
    AppendUtf8(result, static_cast<char32_t>(towupper_l(static_cast<wint_t>(first), UnicodeLocale())));
    result.append(text.substr(at));
    return result;
}

bool EqualsNoCase(std::string_view a, std::string_view b)
{
    // Most names are plain ASCII: compared in place, without building folded copies.
    const auto ascii = [](std::string_view text) {
        return std::all_of(text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) < 0x80; });
    };
    if (ascii(a) && ascii(b))
        return a.size() == b.size() &&
               std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) { return LowerAscii(x) == LowerAscii(y); });
    return FoldCase(a) == FoldCase(b);
}

} // namespace larimo

namespace larimo {

namespace {

// Decodes one code point at `i`, advancing it; malformed input yields U+FFFD and one byte.
char32_t DecodeUtf8(std::string_view text, size_t& i)
{
    const auto byte = [&](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
        ++i;
        return lead;
    }
    size_t length = 0;
    char32_t cp = 0;
    char32_t minimum = 0;
    if ((lead & 0xE0) == 0xC0) {
        length = 2, cp = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, cp = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, cp = lead & 0x07, minimum = 0x10000;
    } else {
        ++i;
        return 0xFFFD;
    }
    if (i + length > text.size()) {
        ++i;
        return 0xFFFD;
    }
    for (size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) {
            ++i;
            return 0xFFFD;
        }
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) {
        ++i;
        return 0xFFFD;
    }
    i += length;
    return cp;
}

} // namespace

std::u16string Utf8ToUtf16(std::string_view text)
{
    std::u16string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size();) {
        const char32_t cp = DecodeUtf8(text, i);
        if (cp >= 0x10000) {
            result += static_cast<char16_t>(0xD800 + ((cp - 0x10000) >> 10));
            result += static_cast<char16_t>(0xDC00 + ((cp - 0x10000) & 0x3FF));
        } else {
            result += static_cast<char16_t>(cp);
        }
    }
    return result;
}

std::string Utf16ToUtf8(std::u16string_view text)
{
    std::string result;
    result.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        char32_t cp = text[i];
        if (cp >= 0xD800 && cp <= 0xDBFF && i + 1 < text.size() && text[i + 1] >= 0xDC00 &&
            text[i + 1] <= 0xDFFF) {
            cp = 0x10000 + ((cp - 0xD800) << 10) + (text[i + 1] - 0xDC00);
            ++i;
        } else if (cp >= 0xD800 && cp <= 0xDFFF) {
            cp = 0xFFFD;
        }
        if (cp < 0x80) {
            result += static_cast<char>(cp);
        } else if (cp < 0x800) {
            result += static_cast<char>(0xC0 | (cp >> 6));
            result += static_cast<char>(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            result += static_cast<char>(0xE0 | (cp >> 12));
            result += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            result += static_cast<char>(0x80 | (cp & 0x3F));
        } else {
            result += static_cast<char>(0xF0 | (cp >> 18));
            result += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
            result += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
            result += static_cast<char>(0x80 | (cp & 0x3F));
        }
    }
    return result;
}

} // namespace larimo
