// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/Profile.h"

#include "mlog.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <system_error>
#include <utility>

namespace larimo {

namespace {

constexpr std::string_view kBom = "\xEF\xBB\xBF";
// Settings files are a few kilobytes; anything this large is not one of ours.
constexpr off_t kMaxFileSize = 64 * 1024 * 1024;

bool IsBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\v' || c == '\f' || c == '\r';
}

std::string_view Trim(std::string_view text)
{
    while (!text.empty() && IsBlank(text.front()))
        text.remove_prefix(1);
    while (!text.empty() && IsBlank(text.back()))
        text.remove_suffix(1);
    return text;
}

std::string Fold(std::string_view text)
{
    std::string folded(text);
    for (char& c : folded) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
    }
    return folded;
}

bool IsQuote(char c)
{
    return c == '"' || c == '\'';
}

std::string_view Unquote(std::string_view value)
{
    if (value.size() >= 2 && IsQuote(value.front()) && value.back() == value.front())
        return value.substr(1, value.size() - 2);
    return value;
}

bool IsComment(std::string_view trimmedLine)
{
    return !trimmedLine.empty() && (trimmedLine.front() == ';' || trimmedLine.front() == '#');
}

// The name of a header line, or nothing when the line is not a header.
std::optional<std::string_view> HeaderName(std::string_view line)
{
    const std::string_view trimmed = Trim(line);
    if (trimmed.empty() || trimmed.front() != '[')
        return std::nullopt;
    std::string_view name = trimmed.substr(1);
    const size_t close = name.rfind(']');
    if (close != std::string_view::npos)
        name = name.substr(0, close);
    return Trim(name);
}

// The key of a key line, or nothing.
std::optional<std::string_view> KeyOf(std::string_view line)
{
    const std::string_view trimmed = Trim(line);
    if (trimmed.empty() || IsComment(trimmed) || trimmed.front() == '[')
        return std::nullopt;
    const size_t equals = trimmed.find('=');
    if (equals == std::string_view::npos)
        return std::nullopt;
    const std::string_view key = Trim(trimmed.substr(0, equals));
    if (key.empty())
        return std::nullopt;
    return key;
}

std::string_view ValueOf(std::string_view line)
{
    const size_t equals = line.find('=');
    return Unquote(Trim(line.substr(equals + 1)));
}

// The text stored after '=' so that reading gives back `value` unchanged.
std::string EncodeValue(std::string_view value)
{
    std::string text(value);
    if (text.find_first_of("\r\n") != std::string::npos) {
        LogWarning("INI value with a line break stored with blanks instead: \"%.60s\"", text.c_str());
        std::replace(text.begin(), text.end(), '\r', ' ');
        std::replace(text.begin(), text.end(), '\n', ' ');
    }
    const bool needsQuotes = !text.empty()
        && (IsBlank(text.front()) || IsBlank(text.back())
            || (text.size() >= 2 && IsQuote(text.front()) && text.back() == text.front()));
    if (needsQuotes)
        return '"' + text + '"';
    return text;
}

std::string ErrnoText(int error)
{
    return std::error_code(error, std::generic_category()).message();
}

// A file descriptor that closes itself.
class Fd {
public:
    Fd() = default;
    explicit Fd(int fd)
        : m_fd(fd)
    {
    }
    ~Fd() { Reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& other) noexcept
        : m_fd(std::exchange(other.m_fd, -1))
    {
    }
    Fd& operator=(Fd&& other) noexcept
    {
        if (this != &other) {
            Reset();
            m_fd = std::exchange(other.m_fd, -1);
        }
        return *this;
    }
    int Get() const { return m_fd; }
    bool Valid() const { return m_fd >= 0; }
    void Reset()
    {
        if (m_fd >= 0)
            ::close(m_fd);
        m_fd = -1;
    }
    // Closes and reports what close() said (it may be the first sign of a full disk).
    int Close()
    {
        const int result = ::close(m_fd);
        m_fd = -1;
        return result;
    }

private:
    int m_fd = -1;
};

// An flock held on "<file>.lock" for as long as the object lives. When the lock file cannot be
// opened (a read-only folder) the operation goes on without it: nobody can write there anyway.
class FileLock {
public:
    FileLock(const std::string& target, bool exclusive)
    {
        const std::string lockPath = target + ".lock";
        m_fd = Fd(::open(lockPath.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW));
        if (!m_fd.Valid())
            m_fd = Fd(::open(lockPath.c_str(), O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0666));
        if (!m_fd.Valid())
            return;
        while (::flock(m_fd.Get(), exclusive ? LOCK_EX : LOCK_SH) != 0) {
            if (errno != EINTR) {
                LogWarning("Cannot lock \"%s\": %s", lockPath.c_str(), ErrnoText(errno).c_str());
                m_fd.Reset();
                return;
            }
        }
    }

private:
    Fd m_fd;
};

// The file a write really replaces: a symbolic link is followed so that the link survives.
std::string ResolveTarget(const std::string& path)
{
    struct stat info {};
    if (::lstat(path.c_str(), &info) != 0 || !S_ISLNK(info.st_mode))
        return path;
    char* resolved = ::realpath(path.c_str(), nullptr);
    if (resolved == nullptr)
        return path;
    std::string target(resolved);
    std::free(resolved);
    return target;
}

enum class ReadResult { Ok, Missing, Failed };

ReadResult ReadWholeFile(const std::string& path, std::string& contents)
{
    contents.clear();
    // O_NONBLOCK keeps a FIFO in place of the file from hanging us; it is dropped by the type check.
    Fd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!fd.Valid()) {
        if (errno == ENOENT)
            return ReadResult::Missing;
        LogError("Cannot open settings file \"%s\": %s", path.c_str(), ErrnoText(errno).c_str());
        return ReadResult::Failed;
    }
    struct stat info {};
    if (::fstat(fd.Get(), &info) != 0) {
        LogError("Cannot examine settings file \"%s\": %s", path.c_str(), ErrnoText(errno).c_str());
        return ReadResult::Failed;
    }
    if (!S_ISREG(info.st_mode)) {
        LogError("Cannot read settings file \"%s\": %s", path.c_str(),
                 S_ISDIR(info.st_mode) ? "it is a directory" : "it is not a regular file");
        return ReadResult::Failed;
    }
    if (info.st_size > kMaxFileSize) {
        LogError("Cannot read settings file \"%s\": %lld bytes is too large", path.c_str(),
                 static_cast<long long>(info.st_size));
        return ReadResult::Failed;
    }
    contents.reserve(static_cast<size_t>(info.st_size));
    char buffer[16384];
    for (;;) {
        const ssize_t got = ::read(fd.Get(), buffer, sizeof buffer);
        if (got == 0)
            break;
        if (got < 0) {
            if (errno == EINTR)
                continue;
            LogError("Cannot read settings file \"%s\": %s", path.c_str(), ErrnoText(errno).c_str());
            contents.clear();
            return ReadResult::Failed;
        }
        contents.append(buffer, static_cast<size_t>(got));
        if (contents.size() > static_cast<size_t>(kMaxFileSize)) {
            LogError("Cannot read settings file \"%s\": it grew beyond %lld bytes", path.c_str(),
                     static_cast<long long>(kMaxFileSize));
            contents.clear();
            return ReadResult::Failed;
        }
    }
    return ReadResult::Ok;
}

bool WriteAll(int fd, std::string_view data)
{
    while (!data.empty()) {
        const ssize_t written = ::write(fd, data.data(), data.size());
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        data.remove_prefix(static_cast<size_t>(written));
    }
    return true;
}

std::string FolderOf(const std::string& path)
{
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos)
        return ".";
    if (slash == 0)
        return "/";
    return path.substr(0, slash);
}

// Writes `contents` to "<target>.tmp", flushes it and renames it over `target`. The caller holds
// the exclusive lock, so the temporary name is ours alone; a stale one from a crash is replaced.
bool ReplaceAtomically(const std::string& path, std::string_view contents)
{
    const std::string target = ResolveTarget(path);
    const std::string temp = target + ".tmp";

    mode_t mode = 0644;
    bool keepOwner = false;
    struct stat info {};
    if (::stat(target.c_str(), &info) == 0) {
        if (S_ISDIR(info.st_mode)) {
            LogError("Cannot write settings file \"%s\": it is a directory", path.c_str());
            return false;
        }
        mode = info.st_mode & 07777;
        keepOwner = true;
    }

    auto fail = [&](const char* step, int error) {
        LogError("Cannot write settings file \"%s\": %s \"%s\" failed: %s", path.c_str(), step, temp.c_str(),
                 ErrnoText(error).c_str());
        ::unlink(temp.c_str());
        return false;
    };

    Fd fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    if (!fd.Valid() && errno != EACCES && errno != EROFS && errno != ENOSPC) {
        // Something odd sits where the temporary file goes (a link, a file we may not open):
        // clear it once and try again.
        ::unlink(temp.c_str());
        fd = Fd(::open(temp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, mode));
    }
    if (!fd.Valid()) {
        const int error = errno;
        LogError("Cannot write settings file \"%s\": creating \"%s\" failed: %s", path.c_str(), temp.c_str(),
                 ErrnoText(error).c_str());
        return false;
    }
    if (keepOwner) {
        // Best effort: the replacement keeps the old file's mode and owner (root may be writing
        // a user's settings); failing here leaves what the umask and our own ids give.
        [[maybe_unused]] const int modeResult = ::fchmod(fd.Get(), mode);
        [[maybe_unused]] const int ownerResult = ::fchown(fd.Get(), info.st_uid, info.st_gid);
    }
    if (!WriteAll(fd.Get(), contents))
        return fail("writing", errno);
    if (::fsync(fd.Get()) != 0)
        return fail("flushing", errno);
    if (fd.Close() != 0)
        return fail("closing", errno);
    if (::rename(temp.c_str(), target.c_str()) != 0)
        return fail("renaming", errno);

    // Make the rename itself durable; the data is safe either way.
    Fd folder(::open(FolderOf(target).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (folder.Valid())
        ::fsync(folder.Get());
    return true;
}

} // namespace

size_t Utf16PrefixBytes(std::string_view text, size_t maxUnits)
{
    size_t pos = 0;
    size_t units = 0;
    while (pos < text.size()) {
        const auto lead = static_cast<unsigned char>(text[pos]);
        size_t length = 1;
        size_t cost = 1;
        if (lead >= 0xC0 && lead < 0xE0)
            length = 2;
        else if (lead >= 0xE0 && lead < 0xF0)
            length = 3;
        else if (lead >= 0xF0 && lead < 0xF8) {
            length = 4;
            cost = 2;
        }
        // A sequence that is cut short or broken counts byte by byte.
        bool complete = pos + length <= text.size();
        for (size_t i = 1; complete && i < length; ++i)
            complete = (static_cast<unsigned char>(text[pos + i]) & 0xC0) == 0x80;
        if (!complete) {
            length = 1;
            cost = 1;
        }
        if (units + cost > maxUnits)
            break;
        units += cost;
        pos += length;
    }
    return pos;
}

size_t IniDocument::NoCaseHash::operator()(std::string_view text) const
{
    // FNV-1a over the lower-cased bytes.
    uint64_t hash = 14695981039346656037ull;
    for (char c : text) {
        if (c >= 'A' && c <= 'Z')
            c = static_cast<char>(c - 'A' + 'a');
        hash = (hash ^ static_cast<unsigned char>(c)) * 1099511628211ull;
    }
    return static_cast<size_t>(hash);
}

bool IniDocument::NoCaseEqual::operator()(std::string_view a, std::string_view b) const
{
    if (a.size() != b.size())
        return false;
    for (size_t i = 0; i < a.size(); ++i) {
        char x = a[i];
        char y = b[i];
        if (x >= 'A' && x <= 'Z')
            x = static_cast<char>(x - 'A' + 'a');
        if (y >= 'A' && y <= 'Z')
            y = static_cast<char>(y - 'A' + 'a');
        if (x != y)
            return false;
    }
    return true;
}

void IniDocument::Section::Reindex()
{
    m_firstKey.clear();
    for (size_t i = 0; i < m_lines.size(); ++i) {
        if (!m_lines[i].m_keyFolded.empty())
            m_firstKey.try_emplace(m_lines[i].m_keyFolded, i);
    }
}

IniDocument IniDocument::Parse(std::string_view contents)
{
    IniDocument document;
    if (contents.substr(0, kBom.size()) == kBom) {
        document.m_bom = true;
        contents.remove_prefix(kBom.size());
    }
    document.m_sections.emplace_back();
    bool eolKnown = false;
    while (!contents.empty()) {
        Line line;
        const size_t newline = contents.find('\n');
        std::string_view text = contents.substr(0, newline);
        if (newline == std::string_view::npos) {
            contents = {};
        } else {
            contents.remove_prefix(newline + 1);
            if (!text.empty() && text.back() == '\r') {
                text.remove_suffix(1);
                line.m_eol = "\r\n";
            } else {
                line.m_eol = "\n";
            }
            if (!eolKnown) {
                document.m_eol = line.m_eol;
                eolKnown = true;
            }
        }
        line.m_text = std::string(text);
        if (const auto name = HeaderName(text)) {
            Section section;
            section.m_nameFolded = Fold(*name);
            section.m_hasHeader = true;
            document.m_sections.push_back(std::move(section));
        } else if (const auto key = KeyOf(text)) {
            line.m_keyFolded = Fold(*key);
        }
        document.m_sections.back().m_lines.push_back(std::move(line));
    }
    for (Section& section : document.m_sections)
        section.Reindex();
    document.ReindexSections();
    return document;
}

std::string IniDocument::Serialize() const
{
    std::string out;
    size_t total = m_bom ? kBom.size() : 0;
    for (const Section& section : m_sections) {
        for (const Line& line : section.m_lines)
            total += line.m_text.size() + line.m_eol.size();
    }
    out.reserve(total);
    if (m_bom)
        out += kBom;
    for (const Section& section : m_sections) {
        for (const Line& line : section.m_lines) {
            out += line.m_text;
            out += line.m_eol;
        }
    }
    return out;
}

void IniDocument::ReindexSections()
{
    m_firstSection.clear();
    for (size_t i = 1; i < m_sections.size(); ++i)
        m_firstSection.try_emplace(m_sections[i].m_nameFolded, i);
}

const IniDocument::Section* IniDocument::FindSection(std::string_view section) const
{
    const auto found = m_firstSection.find(section);
    return found == m_firstSection.end() ? nullptr : &m_sections[found->second];
}

IniDocument::Section* IniDocument::FindSection(std::string_view section)
{
    return const_cast<Section*>(std::as_const(*this).FindSection(section));
}

std::optional<std::string> IniDocument::Find(std::string_view section, std::string_view key) const
{
    const Section* found = FindSection(section);
    if (found == nullptr)
        return std::nullopt;
    const auto line = found->m_firstKey.find(key);
    if (line == found->m_firstKey.end())
        return std::nullopt;
    return std::string(ValueOf(found->m_lines[line->second].m_text));
}

std::string IniDocument::Get(std::string_view section, std::string_view key, std::string_view defaultValue,
                             size_t bufferChars) const
{
    const size_t maxUnits = bufferChars == 0 ? 0 : bufferChars - 1;
    if (auto value = Find(section, key)) {
        value->resize(Utf16PrefixBytes(*value, maxUnits));
        return std::move(*value);
    }
    while (!defaultValue.empty() && IsBlank(defaultValue.back()))
        defaultValue.remove_suffix(1);
    return std::string(defaultValue.substr(0, Utf16PrefixBytes(defaultValue, maxUnits)));
}

bool IniDocument::HasSection(std::string_view section) const
{
    return FindSection(section) != nullptr;
}

std::vector<std::string> IniDocument::Keys(std::string_view section) const
{
    std::vector<std::string> keys;
    const Section* found = FindSection(section);
    if (found == nullptr)
        return keys;
    for (size_t i = 0; i < found->m_lines.size(); ++i) {
        const auto& folded = found->m_lines[i].m_keyFolded;
        if (folded.empty())
            continue;
        // Later duplicates are invisible, as they are to Get.
        if (found->m_firstKey.at(folded) == i)
            keys.emplace_back(*KeyOf(found->m_lines[i].m_text));
    }
    return keys;
}

bool IniDocument::ValidSectionName(std::string_view section)
{
    const std::string_view name = Trim(section);
    if (name.empty() || name.find_first_of("\r\n]") != std::string_view::npos) {
        LogError("INI section name cannot be stored: \"%.*s\"", static_cast<int>(section.size()), section.data());
        return false;
    }
    return true;
}

bool IniDocument::ValidKeyName(std::string_view key)
{
    const std::string_view name = Trim(key);
    if (name.empty() || name.find_first_of("\r\n=") != std::string_view::npos || IsComment(name)
        || name.front() == '[') {
        LogError("INI key name cannot be stored: \"%.*s\"", static_cast<int>(key.size()), key.data());
        return false;
    }
    return true;
}

bool IniDocument::Write(std::string_view section, std::optional<std::string_view> key,
                        std::optional<std::string_view> value)
{
    if (!ValidSectionName(section))
        return false;
    if (!key) {
        RemoveSection(Trim(section));
        return true;
    }
    if (!ValidKeyName(*key))
        return false;
    if (!value)
        RemoveKey(Trim(section), Trim(*key));
    else
        SetKey(Trim(section), Trim(*key), *value);
    return true;
}

bool IniDocument::ReplaceSection(std::string_view section,
                                 const std::vector<std::pair<std::string, std::string>>& entries)
{
    if (!ValidSectionName(section))
        return false;
    for (const auto& entry : entries) {
        if (!ValidKeyName(entry.first))
            return false;
    }
    const std::string folded = Fold(Trim(section));
    const auto first = m_firstSection.find(folded);
    if (first == m_firstSection.end()) {
        for (const auto& [key, value] : entries)
            SetKey(Trim(section), Trim(key), value);
        return true;
    }

    Section& old = m_sections[first->second];
    // The header and whatever precedes it stay, and so do the blank lines that close the section.
    size_t header = 0;
    while (!HeaderName(old.m_lines[header].m_text))
        ++header;
    size_t tail = old.m_lines.size();
    while (tail > header + 1 && Trim(old.m_lines[tail - 1].m_text).empty())
        --tail;
    std::vector<Line> lines(old.m_lines.begin(), old.m_lines.begin() + static_cast<std::ptrdiff_t>(header) + 1);
    for (const auto& [key, value] : entries)
        lines.push_back(Line { std::string(Trim(key)) + '=' + EncodeValue(value), m_eol, Fold(Trim(key)) });
    lines.insert(lines.end(), old.m_lines.begin() + static_cast<std::ptrdiff_t>(tail), old.m_lines.end());
    // The header may have been the file's last line, without a line end.
    for (size_t i = 0; i + 1 < lines.size(); ++i) {
        if (lines[i].m_eol.empty())
            lines[i].m_eol = m_eol;
    }

    const bool same = lines.size() == old.m_lines.size()
        && std::equal(lines.begin(), lines.end(), old.m_lines.begin(), [](const Line& a, const Line& b) {
               return a.m_text == b.m_text && a.m_eol == b.m_eol;
           });
    const bool duplicates = std::count_if(m_sections.begin(), m_sections.end(), [&](const Section& s) {
        return s.m_hasHeader && s.m_nameFolded == folded;
    }) > 1;
    if (same && !duplicates)
        return true;

    old.m_lines = std::move(lines);
    old.Reindex();
    const size_t keep = first->second;
    size_t index = 0;
    std::erase_if(m_sections, [&](const Section& s) {
        const bool drop = index != keep && s.m_hasHeader && s.m_nameFolded == folded;
        ++index;
        return drop;
    });
    ReindexSections();
    m_modified = true;
    return true;
}

void IniDocument::EnsureLastLineEnds()
{
    for (auto section = m_sections.rbegin(); section != m_sections.rend(); ++section) {
        if (!section->m_lines.empty()) {
            if (section->m_lines.back().m_eol.empty())
                section->m_lines.back().m_eol = m_eol;
            return;
        }
    }
}

void IniDocument::SetKey(std::string_view section, std::string_view key, std::string_view value)
{
    std::string encoded = EncodeValue(value);
    Section* found = FindSection(section);
    if (found == nullptr) {
        const bool emptyDocument = std::all_of(m_sections.begin(), m_sections.end(),
                                               [](const Section& s) { return s.m_lines.empty(); });
        EnsureLastLineEnds();
        Section added;
        added.m_nameFolded = Fold(section);
        added.m_hasHeader = true;
        if (!emptyDocument)
            added.m_lines.push_back(Line { {}, m_eol, {} });
        added.m_lines.push_back(Line { '[' + std::string(section) + ']', m_eol, {} });
        m_sections.push_back(std::move(added));
        m_firstSection.try_emplace(m_sections.back().m_nameFolded, m_sections.size() - 1);
        found = &m_sections.back();
    }
    const std::string folded = Fold(key);
    const auto existing = found->m_firstKey.find(folded);
    if (existing != found->m_firstKey.end()) {
        Line& line = found->m_lines[existing->second];
        if (ValueOf(line.m_text) == value)
            return;
        const size_t indent = line.m_text.find_first_not_of(" \t");
        std::string spelled(*KeyOf(line.m_text));
        line.m_text = line.m_text.substr(0, indent) + spelled + '=' + encoded;
        m_modified = true;
        return;
    }

    // After the last key line, or right after the header; comments and blank lines that close
    // the section stay below the new key.
    size_t insertAt = found->m_lines.size();
    while (insertAt > 0 && found->m_lines[insertAt - 1].m_keyFolded.empty()
           && !HeaderName(found->m_lines[insertAt - 1].m_text))
        --insertAt;
    if (insertAt > 0 && found->m_lines[insertAt - 1].m_eol.empty())
        found->m_lines[insertAt - 1].m_eol = m_eol;
    found->m_lines.insert(found->m_lines.begin() + static_cast<std::ptrdiff_t>(insertAt),
                          Line { std::string(key) + '=' + encoded, m_eol, folded });
    if (insertAt == found->m_lines.size() - 1) {
        found->m_firstKey.emplace(folded, insertAt);
    } else {
        found->Reindex();
    }
    m_modified = true;
}

void IniDocument::RemoveKey(std::string_view section, std::string_view key)
{
    Section* found = FindSection(section);
    if (found == nullptr)
        return;
    const std::string folded = Fold(key);
    if (found->m_firstKey.find(folded) == found->m_firstKey.end())
        return;
    std::erase_if(found->m_lines, [&](const Line& line) { return line.m_keyFolded == folded; });
    found->Reindex();
    m_modified = true;
}

void IniDocument::RemoveSection(std::string_view section)
{
    const std::string folded = Fold(section);
    const size_t before = m_sections.size();
    std::erase_if(m_sections, [&](const Section& s) { return s.m_hasHeader && s.m_nameFolded == folded; });
    if (m_sections.size() == before)
        return;
    ReindexSections();
    m_modified = true;
}

void IniDocument::Clear()
{
    const bool hadLines = std::any_of(m_sections.begin(), m_sections.end(),
                                      [](const Section& s) { return !s.m_lines.empty(); });
    m_sections.clear();
    m_sections.emplace_back();
    m_firstSection.clear();
    m_modified = m_modified || hadLines;
}

bool LoadIniFile(const std::string& path, IniDocument& document)
{
    FileLock lock(path, false);
    std::string contents;
    const ReadResult result = ReadWholeFile(path, contents);
    document = IniDocument::Parse(contents);
    return result != ReadResult::Failed;
}

bool ReplaceIniFile(const std::string& path, const IniDocument& document)
{
    FileLock lock(path, true);
    return ReplaceAtomically(path, document.Serialize());
}

bool UpdateIniFile(const std::string& path, const std::function<void(IniDocument&)>& edit)
{
    FileLock lock(path, true);
    std::string contents;
    if (ReadWholeFile(path, contents) == ReadResult::Failed) {
        LogError("Settings file \"%s\" left unchanged", path.c_str());
        return false;
    }
    IniDocument document = IniDocument::Parse(contents);
    edit(document);
    if (!document.Modified())
        return true;
    return ReplaceAtomically(path, document.Serialize());
}

std::string ProfileReadString(std::string_view section, std::string_view key, std::string_view defaultValue,
                              const std::string& path, size_t bufferChars)
{
    IniDocument document;
    LoadIniFile(path, document);
    return document.Get(section, key, defaultValue, bufferChars);
}

bool ProfileWriteString(std::string_view section, std::optional<std::string_view> key,
                        std::optional<std::string_view> value, const std::string& path)
{
    bool valid = true;
    const bool saved = UpdateIniFile(path, [&](IniDocument& document) { valid = document.Write(section, key, value); });
    return valid && saved;
}

} // namespace larimo
