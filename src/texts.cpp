// SPDX-License-Identifier: GPL-3.0-or-later
#include "texts.h"

#include "StringTable.h"
#include "config.h"
#include "mlog.h"
#include "platform/ProcessInfo.h"
#include "wintools.h"

#include <array>
#include <atomic>
#include <bitset>
#include <memory>
#include <vector>

namespace larimo {

namespace {

constexpr std::size_t kCacheSlots = kLastStringId - kFirstStringId + 1;
// Room for the longest text a string-table entry may hold, with its terminator.
constexpr int kTranslateCapacity = 32000;

struct TextCache {
    std::array<std::string, kCacheSlots> texts;
    std::bitset<kCacheSlots> present;
};

// Written only by StartTexts and EndTexts on the main thread; readers take the pointer once.
std::atomic<const TextCache*> g_cache{nullptr};
std::unique_ptr<TextCache> g_cacheOwner;
bool g_started = false;

void WriteWord(LanguageRecord& record, std::size_t offset, std::uint32_t value)
{
    for (std::size_t i = 0; i < 4; ++i)
        record[offset + i] = static_cast<std::uint8_t>(value >> (8 * i));
}

bool WritePath(LanguageRecord& record, std::size_t offset, const std::string& path)
{
    const std::u16string units = Utf8ToUtf16(path);
    if (units.size() + 1 > kLanguageRecordPathUnits)
        return false;
    for (std::size_t i = 0; i < units.size(); ++i) {
        record[offset + 2 * i] = static_cast<std::uint8_t>(units[i] & 0xFF);
        record[offset + 2 * i + 1] = static_cast<std::uint8_t>(units[i] >> 8);
    }
    return true;
}

std::unique_ptr<TextCache> Preload()
{
    auto cache = std::make_unique<TextCache>();
    std::vector<char16_t> translated(kTranslateCapacity);
    for (const StringTableEntry& entry : StringTable()) {
        const std::size_t slot = entry.id - kFirstStringId;
        if (cache->present[slot])
            continue;
        const std::u16string source = Utf8ToUtf16(entry.text);
        if (GLTranslateString(translated.data(), source.c_str(), kTranslateCapacity) != 0)
            cache->texts[slot] = Utf16ToUtf8(translated.data());
        else
            cache->texts[slot] = entry.text;
        cache->present[slot] = true;
    }
    return cache;
}

} // namespace

std::string LanguageFullPath(std::string_view settingsPath, std::string_view programFolder)
{
    return SettingsPathToFs(settingsPath, programFolder);
}

std::optional<LanguageRecord> MakeLanguageRecord(std::string_view langsPath,
                                                 std::string_view langFile,
                                                 std::string_view programFolder,
                                                 std::string* why)
{
    const std::string file = LanguageFullPath(langFile, programFolder);
    const std::string folder = WithTrailingSlash(LanguageFullPath(langsPath, programFolder));

    LanguageRecord record{};
    WriteWord(record, 0, kLanguageRecordSize);
    if (!WritePath(record, kLanguageRecordFileOffset, file)) {
        if (why)
            *why = "the language file path is longer than 259 characters: " + file;
        return std::nullopt;
    }
    if (!WritePath(record, kLanguageRecordFolderOffset, folder)) {
        if (why)
            *why = "the language folder path is longer than 259 characters: " + folder;
        return std::nullopt;
    }
    WriteWord(record, kLanguageRecordWord1044, 0);
    WriteWord(record, kLanguageRecordWord1568, 1);
    WriteWord(record, kLanguageRecordWord1572, 0);
    WriteWord(record, kLanguageRecordWord1576, 0);
    return record;
}

bool StartTexts()
{
    Config settings;
    settings.ReadGeneral();
    return StartTexts(settings.m_langsPath, settings.m_langFile);
}

bool StartTexts(const std::string& langsPath, const std::string& langFile)
{
    LogEnter("StartTexts", "%s, %s", langsPath.c_str(), langFile.c_str());
    EndTexts();

    std::string why;
    const auto record = MakeLanguageRecord(langsPath, langFile, ProgramFolder(), &why);
    if (!record) {
        LogError("StartTexts: %s", why.c_str());
        LogLeaveResult("StartTexts", false);
        return false;
    }
    if (GLStart(record->data()) == 0) {
        LogError("StartTexts: the translation library refused the language file \"%s\"",
                 langFile.c_str());
        LogLeaveResult("StartTexts", false);
        return false;
    }
    g_started = true;
    g_cacheOwner = Preload();
    g_cache.store(g_cacheOwner.get(), std::memory_order_release);
    GLAddThread(CurrentThreadId());
    LogLeaveResult("StartTexts", true);
    return true;
}

const std::string& GetText(unsigned id)
{
    static const std::string notFound = kTextNotFound;
    const TextCache* cache = g_cache.load(std::memory_order_acquire);
    if (cache == nullptr || id < kFirstStringId || id > kLastStringId)
        return notFound;
    const std::size_t slot = id - kFirstStringId;
    return cache->present[slot] ? cache->texts[slot] : notFound;
}

void EndTexts()
{
    if (g_started) {
        GLEnd();
        g_started = false;
    }
    g_cache.store(nullptr, std::memory_order_release);
    g_cacheOwner.reset();
}

} // namespace larimo
