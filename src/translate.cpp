// SPDX-License-Identifier: GPL-3.0-or-later
#include "translate.h"

#include "PoCatalog.h"
#include "mlog.h"
#include "platform/ProcessInfo.h"
#include "wintools.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

namespace larimo {

namespace {

struct Library {
    std::mutex mutex;
    std::unique_ptr<const PoCatalog> catalog;
    std::string file;
    std::vector<unsigned> threads;
    std::vector<unsigned> warnedThreads;
};

Library& State()
{
    static Library library;
    return library;
}

std::uint32_t ReadWord(const std::uint8_t* record, std::size_t offset)
{
    return static_cast<std::uint32_t>(record[offset]) |
           static_cast<std::uint32_t>(record[offset + 1]) << 8 |
           static_cast<std::uint32_t>(record[offset + 2]) << 16 |
           static_cast<std::uint32_t>(record[offset + 3]) << 24;
}

// A zero-terminated UTF-16LE path field; false when it has no terminator.
bool ReadPath(const std::uint8_t* record, std::size_t offset, std::string& path)
{
    std::u16string units;
    for (std::size_t i = 0; i < kLanguageRecordPathUnits; ++i) {
        const auto unit = static_cast<char16_t>(record[offset + 2 * i] |
                                                record[offset + 2 * i + 1] << 8);
        if (unit == 0) {
            path = Utf16ToUtf8(units);
            return true;
        }
        units += unit;
    }
    return false;
}

bool ReadWholeFile(const std::string& path, std::string& content, std::string& why)
{
    std::error_code ec;
    const auto status = std::filesystem::status(path, ec);
    if (ec || !std::filesystem::exists(status)) {
        why = "the file does not exist";
        return false;
    }
    if (!std::filesystem::is_regular_file(status)) {
        why = "it is not a regular file";
        return false;
    }
    const auto size = std::filesystem::file_size(path, ec);
    if (ec) {
        why = ec.message();
        return false;
    }
    if (size > kPoMaxFileBytes) {
        why = "the file is larger than 16 MiB";
        return false;
    }
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        why = std::strerror(errno);
        return false;
    }
    content.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (in.bad()) {
        why = "read error";
        return false;
    }
    return true;
}

bool IsRegistered(const Library& library, unsigned threadId)
{
    return std::find(library.threads.begin(), library.threads.end(), threadId) !=
           library.threads.end();
}

} // namespace

int GLStart(const void* languageRecord)
{
    if (languageRecord == nullptr) {
        LogError("GLStart: no language record");
        return 0;
    }
    const auto* record = static_cast<const std::uint8_t*>(languageRecord);
    if (ReadWord(record, 0) != kLanguageRecordSize) {
        LogError("GLStart: the record is not a language record (size word %u)",
                 static_cast<unsigned>(ReadWord(record, 0)));
        return 0;
    }
    std::string file;
    std::string folder;
    if (!ReadPath(record, kLanguageRecordFileOffset, file) ||
        !ReadPath(record, kLanguageRecordFolderOffset, folder)) {
        LogError("GLStart: a path of the language record has no terminating zero");
        return 0;
    }
    if (file.empty()) {
        LogError("GLStart: the language record names no language file");
        return 0;
    }
    // A bare file name is looked for in the language folder.
    if (file.front() != '/' && !folder.empty())
        file = WithTrailingSlash(folder) + file;

    std::string content;
    std::string why;
    if (!ReadWholeFile(file, content, why)) {
        LogError("GLStart: cannot read language file \"%s\": %s", file.c_str(), why.c_str());
        return 0;
    }
    const PoParseResult parsed = ParsePo(content);
    if (!parsed.ok) {
        LogError("GLStart: language file \"%s\", line %u: %s", file.c_str(), parsed.errorLine,
                 parsed.error.c_str());
        return 0;
    }
    std::vector<std::string> warnings;
    auto catalog = std::make_unique<const PoCatalog>(PoCatalog::FromEntries(parsed.entries, &warnings));
    for (const std::string& warning : warnings)
        LogWarning("GLStart: language file \"%s\", %s", file.c_str(), warning.c_str());
    LogInfo("GLStart: language file \"%s\" with %u translations", file.c_str(),
            static_cast<unsigned>(catalog->Size()));

    Library& library = State();
    const std::lock_guard lock(library.mutex);
    library.catalog = std::move(catalog);
    library.file = file;
    library.threads.assign(1, CurrentThreadId());
    library.warnedThreads.clear();
    return 1;
}

void GLAddThread(unsigned threadId)
{
    Library& library = State();
    const std::lock_guard lock(library.mutex);
    if (!library.catalog) {
        LogWarning("GLAddThread: the translation library is not started");
        return;
    }
    if (!IsRegistered(library, threadId))
        library.threads.push_back(threadId);
}

int GLTranslateString(char16_t* destination, const char16_t* source, int capacity)
{
    if (destination == nullptr || source == nullptr || capacity <= 0)
        return 0;
    Library& library = State();
    const std::lock_guard lock(library.mutex);
    if (!library.catalog)
        return 0;
    const unsigned thread = CurrentThreadId();
    if (!IsRegistered(library, thread)) {
        if (std::find(library.warnedThreads.begin(), library.warnedThreads.end(), thread) ==
            library.warnedThreads.end()) {
            library.warnedThreads.push_back(thread);
            LogWarning("GLTranslateString: thread %u is not registered; texts stay English",
                       thread);
        }
        return 0;
    }
    const std::string* translation = library.catalog->Find(Utf16ToUtf8(source));
    if (translation == nullptr)
        return 0;
    const std::u16string units = Utf8ToUtf16(*translation);
    if (units.size() + 1 > static_cast<std::size_t>(capacity)) {
        LogWarning("GLTranslateString: translation of %u characters does not fit into %d",
                   static_cast<unsigned>(units.size()), capacity);
        return 0;
    }
    std::copy(units.begin(), units.end(), destination);
    destination[units.size()] = u'\0';
    return 1;
}

void GLEnd()
{
    Library& library = State();
    const std::lock_guard lock(library.mutex);
    library.catalog.reset();
    library.file.clear();
    library.threads.clear();
    library.warnedThreads.clear();
}

} // namespace larimo
