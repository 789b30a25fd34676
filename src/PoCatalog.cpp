// SPDX-License-Identifier: GPL-3.0-or-later
#include "PoCatalog.h"

#include <cstdio>
#include <unordered_set>
#include <utility>

namespace larimo {

namespace {

bool IsSpace(char c)
{
    return c == ' ' || c == '\t' || c == '\v' || c == '\f';
}

std::string_view TrimLeft(std::string_view text)
{
    size_t i = 0;
    while (i < text.size() && IsSpace(text[i]))
        ++i;
    return text.substr(i);
}

bool StartsWith(std::string_view text, std::string_view prefix)
{
    return text.substr(0, prefix.size()) == prefix;
}

bool IsValidUtf8(std::string_view text)
{
    size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<unsigned char>(text[i]);
        size_t length = 0;
        char32_t cp = 0;
        char32_t minimum = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        }
        if ((lead & 0xE0) == 0xC0) {
            length = 2, cp = lead & 0x1F, minimum = 0x80;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3, cp = lead & 0x0F, minimum = 0x800;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4, cp = lead & 0x07, minimum = 0x10000;
        } else {
            return false;
        }
        if (i + length > text.size())
            return false;
        for (size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if ((next & 0xC0) != 0x80)
                return false;
            cp = (cp << 6) | (next & 0x3F);
        }
        if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))
            return false;
        i += length;
    }
    return true;
}

int HexValue(char c)
{
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

std::string Printable(std::string_view text)
{
    std::string result;
    for (char c : text.substr(0, 60)) {
        if (c == '\n')
            result += "\\n";
        else if (static_cast<unsigned char>(c) < 0x20)
            result += '?';
        else
            result += c;
    }
    if (text.size() > 60)
        result += "...";
    return result;
}

// Reads lines and assembles entries; the first error stops it.
class PoParser {
public:
    explicit PoParser(std::string_view content) : m_content(content) {}

    PoParseResult Run()
    {
        if (m_content.size() > kPoMaxFileBytes) {
            Fail(0, "the file is larger than 16 MiB");
            return std::move(m_result);
        }
        if (StartsWith(m_content, "\xEF\xBB\xBF"))
            m_content.remove_prefix(3);

        size_t start = 0;
        while (start <= m_content.size() && !m_failed) {
            size_t end = m_content.find('\n', start);
            if (end == std::string_view::npos)
                end = m_content.size();
            std::string_view line = m_content.substr(start, end - start);
            if (!line.empty() && line.back() == '\r')
                line.remove_suffix(1);
            ++m_line;
            HandleLine(line);
            start = end + 1;
        }
        if (!m_failed)
            FinishAtEnd();
        if (!m_failed)
            CheckHeaderCharset();
        m_result.ok = !m_failed;
        return std::move(m_result);
    }

private:
    enum class Slot { None, Context, Id, IdPlural, Translation };

    void Fail(unsigned line, std::string message)
    {
        m_failed = true;
        m_result.errorLine = line;
        m_result.error = std::move(message);
        m_result.entries.clear();
    }

    void Error(std::string message) { Fail(m_line, std::move(message)); }

    bool HasTranslation() const { return !m_entry.translations.empty(); }

    void HandleLine(std::string_view raw)
    {
        const std::string_view line = TrimLeft(raw);
        if (line.empty())
            return;
        if (line.front() == '#') {
            HandleComment(line);
            return;
        }
        if (line.front() == '"') {
            HandleContinuation(line);
            return;
        }
        size_t keywordEnd = 0;
        while (keywordEnd < line.size() && !IsSpace(line[keywordEnd]) && line[keywordEnd] != '"')
            ++keywordEnd;
        const std::string_view keyword = line.substr(0, keywordEnd);
        const bool known = keyword == "msgctxt" || keyword == "msgid" ||
                           keyword == "msgid_plural" || keyword == "msgstr" ||
                           (StartsWith(keyword, "msgstr[") && keyword.back() == ']');
        if (!known) {
            Error("unknown keyword \"" + Printable(keyword) + "\"");
            return;
        }
        std::string value;
        if (!ReadString(line.substr(keywordEnd), value))
            return;

        if (keyword == "msgctxt") {
            FinishIfComplete();
            if (m_open) {
                Error("msgctxt inside an entry that has no msgstr yet");
                return;
            }
            Open();
            m_entry.hasContext = true;
            m_entry.context = std::move(value);
            m_slot = Slot::Context;
        } else if (keyword == "msgid") {
            FinishIfComplete();
            if (m_open && m_slot != Slot::Context) {
                Error("msgid follows a msgid that has no msgstr");
                return;
            }
            if (!m_open)
                Open();
            m_haveId = true;
            m_entry.line = m_line;
            m_entry.id = std::move(value);
            m_slot = Slot::Id;
        } else if (keyword == "msgid_plural") {
            if (!m_haveId || HasTranslation() || m_havePlural) {
                Error("msgid_plural without a msgid before it");
                return;
            }
            m_havePlural = true;
            m_entry.hasPlural = true;
            m_entry.idPlural = std::move(value);
            m_slot = Slot::IdPlural;
        } else if (keyword == "msgstr") {
            if (!m_haveId) {
                Error("msgstr without a msgid before it");
                return;
            }
            if (m_havePlural) {
                Error("an entry with msgid_plural needs msgstr[0], msgstr[1], ...");
                return;
            }
            if (HasTranslation()) {
                Error("two msgstr for one msgid");
                return;
            }
            m_entry.translations.push_back(std::move(value));
            m_slot = Slot::Translation;
        } else {
            if (!m_havePlural) {
                Error("msgstr[] in an entry without msgid_plural");
                return;
            }
            const std::string_view digits = keyword.substr(7, keyword.size() - 8);
            size_t index = 0;
            bool numeric = !digits.empty() && digits.size() < 4;
            for (char c : digits) {
                numeric = numeric && c >= '0' && c <= '9';
                index = index * 10 + static_cast<size_t>(c - '0');
            }
            if (!numeric || index != m_entry.translations.size()) {
                Error("msgstr index out of order: " + std::string(keyword));
                return;
            }
            m_entry.translations.push_back(std::move(value));
            m_slot = Slot::Translation;
        }
    }

    void HandleComment(std::string_view line)
    {
        // Obsolete entries ("#~") and the previous-text comments ("#|") are only history.
        if (StartsWith(line, "#~") || StartsWith(line, "#|"))
            return;
        if (!StartsWith(line, "#,"))
            return;
        FinishIfComplete();
        std::string_view flags = line.substr(2);
        while (!flags.empty()) {
            const size_t comma = flags.find(',');
            std::string_view flag = TrimLeft(flags.substr(0, comma));
            while (!flag.empty() && IsSpace(flag.back()))
                flag.remove_suffix(1);
            if (flag == "fuzzy")
                m_pendingFuzzy = true;
            if (comma == std::string_view::npos)
                break;
            flags.remove_prefix(comma + 1);
        }
    }

    void HandleContinuation(std::string_view line)
    {
        std::string value;
        if (!ReadString(line, value))
            return;
        switch (m_slot) {
        case Slot::Context:
            m_entry.context += value;
            break;
        case Slot::Id:
            m_entry.id += value;
            break;
        case Slot::IdPlural:
            m_entry.idPlural += value;
            break;
        case Slot::Translation:
            m_entry.translations.back() += value;
            break;
        case Slot::None:
            Error("a string that belongs to no keyword");
            break;
        }
    }

    // One quoted string, alone on the rest of the line apart from blanks.
    bool ReadString(std::string_view rest, std::string& out)
    {
        rest = TrimLeft(rest);
        if (rest.empty() || rest.front() != '"') {
            Error("a quoted string is expected");
            return false;
        }
        size_t i = 1;
        bool closed = false;
        while (i < rest.size()) {
            const char c = rest[i++];
            if (c == '"') {
                closed = true;
                break;
            }
            if (c != '\\') {
                if (!AppendByte(static_cast<unsigned char>(c), out))
                    return false;
                continue;
            }
            if (i >= rest.size())
                break;
            const char e = rest[i++];
            switch (e) {
            case 'n': out += '\n'; break;
            case 't': out += '\t'; break;
            case 'r': out += '\r'; break;
            case 'a': out += '\a'; break;
            case 'b': out += '\b'; break;
            case 'f': out += '\f'; break;
            case 'v': out += '\v'; break;
            case '"': out += '"'; break;
            case '\'': out += '\''; break;
            case '?': out += '?'; break;
            case '\\': out += '\\'; break;
            case 'x': {
                int value = 0;
                int digits = 0;
                while (digits < 2 && i < rest.size() && HexValue(rest[i]) >= 0) {
                    value = value * 16 + HexValue(rest[i++]);
                    ++digits;
                }
                if (digits == 0) {
                    Error("\\x without hexadecimal digits");
                    return false;
                }
                if (!AppendByte(value, out))
                    return false;
                break;
            }
            default:
                if (e >= '0' && e <= '7') {
                    int value = e - '0';
                    for (int digits = 1; digits < 3 && i < rest.size() && rest[i] >= '0' &&
                                         rest[i] <= '7';
                         ++digits)
                        value = value * 8 + (rest[i++] - '0');
                    if (value > 0xFF) {
                        Error("octal escape above \\377");
                        return false;
                    }
                    if (!AppendByte(value, out))
                        return false;
                    break;
                }
                Error(std::string("unknown escape sequence \\") + Printable(std::string_view(&e, 1)));
                return false;
            }
        }
        if (!closed) {
            Error("the string has no closing quote");
            return false;
        }
        if (!TrimLeft(rest.substr(i)).empty()) {
            Error("text after the closing quote");
            return false;
        }
        return true;
    }

    bool AppendByte(int value, std::string& out)
    {
        // A NUL would silently cut the text wherever it is used as a C string.
        if (value == 0) {
            Error("a string may not contain a NUL character");
            return false;
        }
        out += static_cast<char>(value);
        return true;
    }

    void Open()
    {
        m_open = true;
        m_entry = PoEntry{};
        m_entry.line = m_line;
        m_entry.fuzzy = m_pendingFuzzy;
        m_pendingFuzzy = false;
        m_haveId = false;
        m_havePlural = false;
    }

    void FinishIfComplete()
    {
        if (m_open && HasTranslation())
            Finish();
    }

    void FinishAtEnd()
    {
        if (!m_open)
            return;
        if (!m_haveId) {
            Error("msgctxt at the end of the file without msgid");
            return;
        }
        if (!HasTranslation()) {
            Fail(m_entry.line, "msgid without msgstr");
            return;
        }
        Finish();
    }

    void Finish()
    {
        m_open = false;
        m_slot = Slot::None;
        if (m_havePlural && m_entry.translations.size() < 1) {
            Fail(m_entry.line, "msgid_plural without msgstr[0]");
            return;
        }
        for (const std::string* text : {&m_entry.context, &m_entry.id, &m_entry.idPlural}) {
            if (!IsValidUtf8(*text)) {
                Fail(m_entry.line, "the text is not valid UTF-8");
                return;
            }
        }
        for (const std::string& text : m_entry.translations) {
            if (!IsValidUtf8(text)) {
                Fail(m_entry.line, "the translation is not valid UTF-8");
                return;
            }
        }
        std::string key = m_entry.hasContext ? m_entry.context + '\x04' + m_entry.id : m_entry.id;
        if (!m_keys.insert(std::move(key)).second) {
            Fail(m_entry.line, "the msgid \"" + Printable(m_entry.id) + "\" is defined twice");
            return;
        }
        m_result.entries.push_back(std::move(m_entry));
    }

    void CheckHeaderCharset()
    {
        for (const PoEntry& entry : m_result.entries) {
            if (entry.hasContext || !entry.id.empty() || entry.translations.empty())
                continue;
            const std::string& header = entry.translations.front();
            const size_t at = header.find("charset=");
            if (at == std::string::npos)
                return;
            size_t end = at + 8;
            while (end < header.size() && header[end] != '\n' && header[end] != ';' &&
                   !IsSpace(header[end]))
                ++end;
            std::string charset = header.substr(at + 8, end - at - 8);
            for (char& c : charset)
                c = (c >= 'a' && c <= 'z') ? static_cast<char>(c - 'a' + 'A') : c;
            // "CHARSET" is what an unfilled template says; ASCII is a subset of UTF-8.
            if (charset != "UTF-8" && charset != "UTF8" && charset != "CHARSET" &&
                charset != "ASCII" && charset != "US-ASCII")
                Fail(entry.line, "unsupported charset \"" + Printable(charset) +
                                     "\"; language files are UTF-8");
            return;
        }
    }

    std::string_view m_content;
    PoParseResult m_result;
    bool m_failed = false;
    unsigned m_line = 0;

    PoEntry m_entry;
    bool m_open = false;
    bool m_haveId = false;
    bool m_havePlural = false;
    bool m_pendingFuzzy = false;
    Slot m_slot = Slot::None;
    std::unordered_set<std::string> m_keys;
};

bool IsConversionChar(char c)
{
    static constexpr std::string_view kConversions = "diouxXeEfFgGaAcspnCS";
    return kConversions.find(c) != std::string_view::npos;
}

} // namespace

PoParseResult ParsePo(std::string_view content)
{
    return PoParser(content).Run();
}

std::vector<std::string> PrintfConversions(std::string_view format)
{
    std::vector<std::string> tokens;
    size_t i = 0;
    const auto digits = [&] {
        while (i < format.size() && format[i] >= '0' && format[i] <= '9')
            ++i;
    };
    while (i < format.size()) {
        if (format[i++] != '%')
            continue;
        if (i < format.size() && format[i] == '%') {
            ++i;
            continue;
        }
        std::string token;
        // A positional argument ("%2$s") changes which argument is used, so it is part of it.
        const size_t numberStart = i;
        digits();
        if (i > numberStart && i < format.size() && format[i] == '$')
            token = std::string(format.substr(numberStart, ++i - numberStart));
        else
            i = numberStart;
        while (i < format.size() && std::string_view("-+ #0'").find(format[i]) != std::string_view::npos)
            ++i;
        if (i < format.size() && format[i] == '*') {
            tokens.emplace_back("*");
            ++i;
        } else {
            digits();
        }
        if (i < format.size() && format[i] == '.') {
            ++i;
            if (i < format.size() && format[i] == '*') {
                tokens.emplace_back("*");
                ++i;
            } else {
                digits();
            }
        }
        for (std::string_view length : {"hh", "ll", "I64", "I32", "h", "l", "L", "q", "j", "z", "t", "I"}) {
            if (format.substr(i, length.size()) == length) {
                token += length;
                i += length.size();
                break;
            }
        }
        if (i < format.size() && IsConversionChar(format[i])) {
            token += format[i++];
            tokens.push_back(std::move(token));
        } else {
            tokens.emplace_back("!");
        }
    }
    return tokens;
}

std::string PoQuote(std::string_view keyword, std::string_view text)
{
    const auto escape = [](std::string_view piece) {
        std::string out;
        for (char c : piece) {
            switch (c) {
            case '\\': out += "\\\\"; break;
            case '"': out += "\\\""; break;
            case '\n': out += "\\n"; break;
            case '\t': out += "\\t"; break;
            case '\r': out += "\\r"; break;
            default:
                if (static_cast<unsigned char>(c) < 0x20) {
                    char octal[8];
                    std::snprintf(octal, sizeof octal, "\\%03o", static_cast<unsigned>(c));
                    out += octal;
                } else {
                    out += c;
                }
            }
        }
        return out;
    };

    std::string result(keyword);
    const size_t firstBreak = text.find('\n');
    if (firstBreak == std::string_view::npos || firstBreak + 1 == text.size()) {
        result += " \"" + escape(text) + "\"\n";
        return result;
    }
    result += " \"\"\n";
    size_t start = 0;
    while (start < text.size()) {
        size_t end = text.find('\n', start);
        end = (end == std::string_view::npos) ? text.size() : end + 1;
        result += "\"" + escape(text.substr(start, end - start)) + "\"\n";
        start = end;
    }
    return result;
}

std::string PoCatalog::Key(bool hasContext, std::string_view context, std::string_view id)
{
    if (!hasContext)
        return std::string(id);
    std::string key(context);
    key += '\x04';
    key += id;
    return key;
}

PoCatalog PoCatalog::FromEntries(const std::vector<PoEntry>& entries,
                                 std::vector<std::string>* warnings)
{
    PoCatalog catalog;
    for (const PoEntry& entry : entries) {
        if (entry.translations.empty())
            continue;
        if (!entry.hasContext && entry.id.empty()) {
            catalog.m_header = entry.translations.front();
            continue;
        }
        const std::string& translation = entry.translations.front();
        if (entry.fuzzy || translation.empty())
            continue;
        // The caller fills the translation with the English text's arguments; other
        // conversions would read arguments of the wrong type.
        if (PrintfConversions(translation) != PrintfConversions(entry.id)) {
            if (warnings)
                warnings->push_back("line " + std::to_string(entry.line) +
                                    ": the translation of \"" + Printable(entry.id) +
                                    "\" has other printf conversions than the English text "
                                    "and is not used");
            continue;
        }
        catalog.m_translations.emplace(Key(entry.hasContext, entry.context, entry.id), translation);
    }
    return catalog;
}

const std::string* PoCatalog::Find(std::string_view id) const
{
    if (id.find('\x04') != std::string_view::npos)
        return nullptr;
    const auto it = m_translations.find(std::string(id));
    return it == m_translations.end() ? nullptr : &it->second;
}

const std::string* PoCatalog::Find(std::string_view context, std::string_view id) const
{
    const auto it = m_translations.find(Key(true, context, id));
    return it == m_translations.end() ? nullptr : &it->second;
}

} // namespace larimo
