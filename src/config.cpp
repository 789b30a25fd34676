// SPDX-License-Identifier: GPL-3.0-or-later
#include "config.h"

#include "filltext.h"
#include "texts.h"

#include "keyboard.h"
#include "mlog.h"
#include "profilenumber.h"
#include "wintools.h"

#include <algorithm>
#include <cstdint>

namespace larimo {

const std::array<std::string_view, kShortcutCount> kShortcutKeys {
    "VoiceEffect1", "VoiceEffect2", "VoiceEffect3", "Listen", "FunSound1", "FunSound2",
    "FunSound3", "BackSound1", "BackSound1_VolAdd", "BackSound1_VolSub", "BackSound2",
    "BackSound2_VolAdd", "BackSound2_VolSub", "BackSound3", "BackSound3_VolAdd",
    "BackSound3_VolSub", "Stop",
};

std::string ShortcutActionText(ShortcutAction action)
{
    switch (action) {
    case kScVoiceEffect1:
    case kScVoiceEffect2:
    case kScVoiceEffect3:
        return FillText(271, action - kScVoiceEffect1 + 1);
    case kScListen:
        return GetText(272);
    case kScFunSound1:
    case kScFunSound2:
    case kScFunSound3:
        return FillText(273, action - kScFunSound1 + 1);
    case kScStop:
        return GetText(275);
    case kShortcutCount:
        break;
    default: {
        // The background actions come in threes: select, louder, quieter.
        const int offset = action - kScBackSound1;
        const std::string slot = FillText(274, offset / 3 + 1);
        switch (offset % 3) {
        case 0:
            return slot;
        case 1:
            return slot + " " + GetText(278) + " +";
        default:
            return slot + " " + GetText(278) + " -";
        }
    }
    }
    return {};
}

namespace {

constexpr std::string_view kSys = "sys";
constexpr std::string_view kEffects = "effects";
constexpr std::string_view kEmotics = "emotics";
constexpr std::string_view kSoundCards = "soundcards";
constexpr std::string_view kStream = "stream";
constexpr std::string_view kMonitors = "monitors";
constexpr std::string_view kVoice = "voice";
constexpr std::string_view kShortcuts = "Shortcuts";

// Shortcut texts are read through a small buffer; longer texts are not shortcuts anyway.
constexpr size_t kShortcutBufferChars = 126;

constexpr uint16_t kMaxVolume = 100;

std::string SlotKey(int index)
{
    return "eff_" + FormatInteger(index);
}

std::string SoundSection(int index)
{
    return "sound_" + FormatInteger(static_cast<unsigned>(index));
}

bool ValidSlot(int index)
{
    return index >= 0 && index < Config::kSlotCount;
}

int32_t ActiveSlot(const IniDocument& document, std::string_view key)
{
    const auto slot = ReadProfileInteger<int32_t>(document, kSys, key, -1);
    return slot >= -1 && slot < Config::kSlotCount ? slot : -1;
}

// One past the highest index of a "name_<i>" or "file_<i>" key of the fun sound list.
uint32_t EmoticIndexBound(const IniDocument& document)
{
    int64_t bound = 0;
    for (const std::string& key : document.Keys(kEmotics)) {
        if (key.size() <= 5 || !(EqualsNoCase(key.substr(0, 5), "name_") || EqualsNoCase(key.substr(0, 5), "file_")))
            continue;
        const std::optional<int64_t> index = ScanInteger(std::string_view(key).substr(5));
        if (index && *index >= 0 && *index < INT32_MAX)
            bound = std::max(bound, *index + 1);
    }
    return static_cast<uint32_t>(bound);
}

const char* Flag(bool on)
{
    return on ? "1" : "0";
}

} // namespace

Config::Config()
    : Config(DataRoot())
{
}

Config::Config(std::string_view dataRoot)
    : m_configPath(WithTrailingSlash(dataRoot) + "config.ini")
    , m_effectsPath(WithTrailingSlash(dataRoot) + "voiceeffects.ini")
{
}

IniDocument Config::LoadConfigFile() const
{
    IniDocument document;
    LoadIniFile(m_configPath, document);
    return document;
}

bool Config::UpdateConfigFile(void (Config::*write)(IniDocument&) const) const
{
    return UpdateIniFile(m_configPath, [&](IniDocument& document) { (this->*write)(document); });
}

// --- sys ---------------------------------------------------------------------------------------

void Config::ReadGeneral()
{
    ReadGeneral(LoadConfigFile());
}

std::string DefaultHelpFile(std::string_view langFile)
{
    // "...\\larimo_de.tra" is German. The help is written in German and in English; every
    // other language reads the English one.
    const size_t slash = langFile.find_last_of("\\/");
    std::string_view name = slash == std::string_view::npos ? langFile : langFile.substr(slash + 1);
    constexpr std::string_view kGerman = "_de.tra";
    const bool german = name.size() >= kGerman.size() && EqualsNoCase(name.substr(name.size() - kGerman.size()), kGerman);
    return german ? "help\\larimo_de.chm" : "help\\en\\larimo_en.chm";
}

void Config::ReadGeneral(const IniDocument& document)
{
    m_activeEffect = ActiveSlot(document, "activeEffect");
    m_activeBackSound = ActiveSlot(document, "activeBackSound");
    m_wizard = document.Get(kSys, "wizard", "0") == "1";
    m_version = document.Get(kSys, "version", "0");
    m_langsPath = document.Get(kSys, "langsPath", ".\\lang\\");
    m_langFile = document.Get(kSys, "langFile", ".\\lang\\larimo_en.tra");
    m_helpFile = document.Get(kSys, "helpFile", DefaultHelpFile(m_langFile));
    m_skinFile = document.Get(kSys, "skinFile", ".\\skins\\en\\Default.sdf");
    m_homePage = document.Get(kSys, "homePage", "");
}

bool Config::WriteGeneral() const
{
    return UpdateConfigFile(&Config::WriteGeneral);
}

void Config::WriteGeneral(IniDocument& document) const
{
    document.Set(kSys, "activeEffect", FormatInteger(m_activeEffect));
    document.Set(kSys, "activeBackSound", FormatInteger(m_activeBackSound));
    document.Set(kSys, "wizard", Flag(m_wizard));
    document.Set(kSys, "version", m_version);
    document.Set(kSys, "langsPath", m_langsPath);
    document.Set(kSys, "langFile", m_langFile);
    document.Set(kSys, "helpFile", m_helpFile);
    document.Set(kSys, "skinFile", m_skinFile);
    // The web address is the distributor's to set; an object that never read one must not
    // erase it from the file.
    if (!m_homePage.empty())
        document.Set(kSys, "homePage", m_homePage);
}

// --- effects -----------------------------------------------------------------------------------

void Config::ReadEffectSlots()
{
    ReadEffectSlots(LoadConfigFile());
}

void Config::ReadEffectSlots(const IniDocument& document)
{
    for (int i = 0; i < kSlotCount; ++i)
        m_effectSlots[static_cast<size_t>(i)] = document.Get(kEffects, SlotKey(i), "");
}

bool Config::WriteEffectSlots() const
{
    return UpdateConfigFile(&Config::WriteEffectSlots);
}

void Config::WriteEffectSlots(IniDocument& document) const
{
    for (int i = 0; i < kSlotCount; ++i)
        document.Set(kEffects, SlotKey(i), m_effectSlots[static_cast<size_t>(i)]);
}

// --- sound_<i> ---------------------------------------------------------------------------------

void Config::ReadBackSound(int index)
{
    if (ValidSlot(index))
        ReadBackSound(LoadConfigFile(), index);
}

void Config::ReadBackSound(const IniDocument& document, int index)
{
    if (!ValidSlot(index))
        return;
    const std::string section = SoundSection(index);
    BackSound& slot = m_backSounds[static_cast<size_t>(index)];
    slot.m_file = document.Get(section, "file", "");
    slot.m_descr = document.Get(section, "descr", "");
    slot.m_volume = std::min(ReadProfileInteger<uint16_t>(document, section, "volume", kMaxVolume), kMaxVolume);
}

bool Config::WriteBackSound(int index) const
{
    if (!ValidSlot(index))
        return true;
    return UpdateIniFile(m_configPath, [&](IniDocument& document) { WriteBackSound(document, index); });
}

void Config::WriteBackSound(IniDocument& document, int index) const
{
    if (!ValidSlot(index))
        return;
    const std::string section = SoundSection(index);
    const BackSound& slot = m_backSounds[static_cast<size_t>(index)];
    document.Set(section, "file", slot.m_file);
    document.Set(section, "descr", slot.m_descr);
    document.Set(section, "volume", FormatInteger(slot.m_volume));
}

// --- emotics -----------------------------------------------------------------------------------

void Config::ReadEmotics()
{
    ReadEmotics(LoadConfigFile());
}

void Config::ReadEmotics(const IniDocument& document)
{
    m_emotics.clear();
    const auto count = ReadProfileInteger<uint32_t>(document, kEmotics, "num", 0);
    // Entries with a gap close up. Indexes beyond the highest one present cannot give an entry,
    // so a damaged count (billions) costs nothing.
    const uint32_t bound = std::min(count, EmoticIndexBound(document));
    for (uint32_t i = 0; i < bound; ++i) {
        const std::string index = FormatInteger(static_cast<int32_t>(i));
        Emotic entry { document.Get(kEmotics, "name_" + index, ""), document.Get(kEmotics, "file_" + index, "") };
        if (!entry.m_name.empty() && !entry.m_file.empty())
            m_emotics.push_back(std::move(entry));
    }
}

bool Config::WriteEmotics() const
{
    return UpdateConfigFile(&Config::WriteEmotics);
}

void Config::WriteEmotics(IniDocument& document) const
{
    std::vector<std::pair<std::string, std::string>> entries;
    entries.reserve(1 + 2 * m_emotics.size());
    entries.emplace_back("num", FormatInteger(m_emotics.size()));
    for (size_t i = 0; i < m_emotics.size(); ++i) {
        const std::string index = FormatInteger(i);
        entries.emplace_back("file_" + index, m_emotics[i].m_file);
        entries.emplace_back("name_" + index, m_emotics[i].m_name);
    }
    // The whole section is rewritten, so entries that closed up leave no stale keys behind.
    document.ReplaceSection(kEmotics, entries);
}

// --- soundcards --------------------------------------------------------------------------------

void Config::ReadSoundCards()
{
    ReadSoundCards(LoadConfigFile());
}

void Config::ReadSoundCards(const IniDocument& document)
{
    m_input = document.Get(kSoundCards, "input", "");
    m_monitor = document.Get(kSoundCards, "monitor", "");
    m_mixInSrc = document.Get(kSoundCards, "mixInSrc", "");
    m_virtualDevice = kVirtualDeviceName;
}

bool Config::WriteSoundCards() const
{
    return UpdateConfigFile(&Config::WriteSoundCards);
}

void Config::WriteSoundCards(IniDocument& document) const
{
    document.Set(kSoundCards, "input", m_input);
    document.Set(kSoundCards, "monitor", m_monitor);
    // The placeholder of an object that never read its sound cards is not a line name.
    document.Set(kSoundCards, "mixInSrc", m_mixInSrc == kMixInSrcUnread ? std::string_view {} : m_mixInSrc);
}

// --- stream ------------------------------------------------------------------------------------

void Config::ReadStream()
{
    ReadStream(LoadConfigFile());
}

void Config::ReadStream(const IniDocument& document)
{
    m_inBuffSizeMs = ReadProfileInteger<uint16_t>(document, kStream, "inBuffSizeMs", 25);
    m_inBuffsN = ReadProfileInteger<uint8_t>(document, kStream, "inBuffsN", 40);
    m_outBuffSizeMs = ReadProfileInteger<uint16_t>(document, kStream, "outBuffSizeMs", 25);
    m_outBuffsN = ReadProfileInteger<uint8_t>(document, kStream, "outBuffsN", 40);
    m_monBuffSizeMs = ReadProfileInteger<uint16_t>(document, kStream, "monBuffSizeMs", 25);
    m_monBuffsN = ReadProfileInteger<uint8_t>(document, kStream, "monBuffsN", 40);
}

bool Config::WriteStream() const
{
    return UpdateConfigFile(&Config::WriteStream);
}

void Config::WriteStream(IniDocument& document) const
{
    document.Set(kStream, "inBuffSizeMs", FormatInteger(m_inBuffSizeMs));
    document.Set(kStream, "inBuffsN", FormatInteger(m_inBuffsN));
    document.Set(kStream, "outBuffSizeMs", FormatInteger(m_outBuffSizeMs));
    document.Set(kStream, "outBuffsN", FormatInteger(m_outBuffsN));
    document.Set(kStream, "monBuffSizeMs", FormatInteger(m_monBuffSizeMs));
    document.Set(kStream, "monBuffsN", FormatInteger(m_monBuffsN));
}

// --- monitors ----------------------------------------------------------------------------------

void Config::ReadMonitor()
{
    ReadMonitor(LoadConfigFile());
}

void Config::ReadMonitor(const IniDocument& document)
{
    m_monitorOn = document.Get(kMonitors, "monitorOn", "0").starts_with('1');
    m_listen = document.Get(kMonitors, "listen", "always") == "always" ? 0 : 1;
    m_monitorVol = ReadProfileInteger<uint8_t>(document, kMonitors, "monitorVol", 100);
    m_testVolVEff = ReadProfileInteger<uint8_t>(document, kMonitors, "testVolVEff", 100);
    m_testVolBack = ReadProfileInteger<uint8_t>(document, kMonitors, "testVolBack", 100);
    m_testVolEmotic = ReadProfileInteger<uint8_t>(document, kMonitors, "testVolEmotic", 100);
    m_testVolEffStudio = ReadProfileInteger<uint8_t>(document, kMonitors, "testVolEffStudio", 100);
}

bool Config::WriteMonitor() const
{
    return UpdateConfigFile(&Config::WriteMonitor);
}

void Config::WriteMonitor(IniDocument& document) const
{
    document.Set(kMonitors, "monitorOn", Flag(m_monitorOn));
    document.Set(kMonitors, "listen", m_listen == 1 ? "only" : "always");
    document.Set(kMonitors, "monitorVol", FormatInteger(m_monitorVol));
    document.Set(kMonitors, "testVolVEff", FormatInteger(m_testVolVEff));
    document.Set(kMonitors, "testVolBack", FormatInteger(m_testVolBack));
    document.Set(kMonitors, "testVolEmotic", FormatInteger(m_testVolEmotic));
    document.Set(kMonitors, "testVolEffStudio", FormatInteger(m_testVolEffStudio));
}

// --- Shortcuts ---------------------------------------------------------------------------------

void Config::ReadShortcuts()
{
    ReadShortcuts(LoadConfigFile());
}

void Config::ReadShortcuts(const IniDocument& document)
{
    for (size_t i = 0; i < kShortcutCount; ++i)
        m_shortcuts[i] = ShortcutFromText(document.Get(kShortcuts, kShortcutKeys[i], "", kShortcutBufferChars));
}

bool Config::WriteShortcuts() const
{
    return UpdateConfigFile(&Config::WriteShortcuts);
}

void Config::WriteShortcuts(IniDocument& document) const
{
    for (size_t i = 0; i < kShortcutCount; ++i)
        document.Set(kShortcuts, kShortcutKeys[i], ShortcutToText(m_shortcuts[i]));
}

// --- voice -------------------------------------------------------------------------------------

void Config::ReadVoice()
{
    ReadVoice(LoadConfigFile());
}

void Config::ReadVoice(const IniDocument& document)
{
    m_noiseSuppression = document.Get(kVoice, "noiseSuppression", "1").starts_with('1');
    m_noiseStrength = std::clamp(ReadProfileInteger<int32_t>(document, kVoice, "noiseStrength", 25), 6, 50);
    m_gate = document.Get(kVoice, "gate", "0").starts_with('1');
    m_gateThreshold = std::clamp(ReadProfileInteger<int32_t>(document, kVoice, "gateThreshold", -50), -80, -10);
}

bool Config::WriteVoice() const
{
    return UpdateConfigFile(&Config::WriteVoice);
}

void Config::WriteVoice(IniDocument& document) const
{
    document.Set(kVoice, "noiseSuppression", Flag(m_noiseSuppression));
    document.Set(kVoice, "noiseStrength", FormatInteger(m_noiseStrength));
    document.Set(kVoice, "gate", Flag(m_gate));
    document.Set(kVoice, "gateThreshold", FormatInteger(m_gateThreshold));
}

// --- voiceeffects.ini --------------------------------------------------------------------------

void Config::ReadEffects()
{
    LoadVoiceEffects(m_effectsPath, m_effects);
}

bool Config::WriteEffects() const
{
    return SaveVoiceEffects(m_effectsPath, m_effects);
}

// --- all ---------------------------------------------------------------------------------------

void Config::LoadAll()
{
    LogEnter("Config::LoadAll", "%s", m_configPath.c_str());
    ReadEffects();
    const IniDocument document = LoadConfigFile();
    ReadEffectSlots(document);
    for (int i = 0; i < kSlotCount; ++i)
        ReadBackSound(document, i);
    ReadEmotics(document);
    ReadSoundCards(document);
    ReadGeneral(document);
    ReadStream(document);
    ReadMonitor(document);
    ReadShortcuts(document);
    ReadVoice(document);
    LogLeave("Config::LoadAll");
}

bool Config::SaveAll() const
{
    LogEnter("Config::SaveAll", "%s", m_configPath.c_str());
    const bool configSaved = UpdateIniFile(m_configPath, [&](IniDocument& document) {
        WriteEffectSlots(document);
        for (int i = 0; i < kSlotCount; ++i)
            WriteBackSound(document, i);
        WriteEmotics(document);
        WriteSoundCards(document);
        WriteGeneral(document);
        WriteStream(document);
        WriteMonitor(document);
        WriteShortcuts(document);
        WriteVoice(document);
    });
    const bool effectsSaved = WriteEffects();
    LogLeaveResult("Config::SaveAll", configSaved && effectsSaved);
    return configSaved && effectsSaved;
}

// --- definitions -------------------------------------------------------------------------------

int Config::FindEffect(std::string_view name) const
{
    for (size_t i = 0; i < m_effects.size(); ++i) {
        if (EqualsNoCase(m_effects[i].m_name, name))
            return static_cast<int>(i);
    }
    return -1;
}

void Config::RemoveEffect(int index)
{
    if (index < 0 || static_cast<size_t>(index) >= m_effects.size())
        return;
    const auto removed = m_effects.begin() + index;
    for (std::string& slot : m_effectSlots) {
        if (slot == removed->m_name)
            slot.clear();
    }
    m_effects.erase(removed);
}

} // namespace larimo
