// SPDX-License-Identifier: GPL-3.0-or-later
// The settings object: the in-memory image of "config.ini" and of the voice effect definitions
// of "voiceeffects.ini", both in the data root.
//
// A value type with no shared state: every object reads and writes the files itself, and two
// objects over the same files see each other's changes only by reading again. One thread at a
// time per object (the window thread, or the observer thread under the main window's service
// lock). Each ReadX/WriteX touches only its own section; writes change single keys and keep the
// rest of the file. Paths stay in the settings' backslash form (".\skins\en\Default.sdf");
// SettingsPathToFs of wintools.h turns them into file-system paths.
#pragma once

#include "voiceconfig.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace larimo {

/// The help file the settings name when they name none: the help in the language of
/// `langFile` (German or English). Any thread.
std::string DefaultHelpFile(std::string_view langFile);

/// The name under which the virtual microphone appears; never stored.
inline constexpr std::string_view kVirtualDeviceName = "Larimo Microphone";
/// What `m_mixInSrc` holds until the sound cards are read: U+FFFF, a character no line name has.
inline constexpr std::string_view kMixInSrcUnread = "\xEF\xBF\xBF";

/// The hot-key actions, in the order `Config::m_shortcuts` holds them.
enum ShortcutAction : int {
    kScVoiceEffect1,
    kScVoiceEffect2,
    kScVoiceEffect3,
    kScListen,
    kScFunSound1,
    kScFunSound2,
    kScFunSound3,
    kScBackSound1,
    kScBackSound1VolAdd,
    kScBackSound1VolSub,
    kScBackSound2,
    kScBackSound2VolAdd,
    kScBackSound2VolSub,
    kScBackSound3,
    kScBackSound3VolAdd,
    kScBackSound3VolSub,
    kScStop,
    kShortcutCount,
};

/// The key of each action in the "Shortcuts" section, indexed by ShortcutAction.
extern const std::array<std::string_view, kShortcutCount> kShortcutKeys;

/// What an action does, in the user's language ("Voice Effect 2", "Background 1 Volume +"), as
/// the shortcut list and the desktop's shortcut settings show it. Texts must be started.
std::string ShortcutActionText(ShortcutAction action);

/// One background-sound slot (section "sound_<i>").
struct BackSound {
    std::string m_file; // library file name with its ".wav"; empty for an empty slot
    std::string m_descr;
    uint16_t m_volume = 100; // percent, at most 100 after reading

    bool operator==(const BackSound&) const = default;
};

/// One entry of the used fun sound list (section "emotics").
struct Emotic {
    std::string m_name;
    std::string m_file; // relative to the fun sound folder, ending in ".wav"

    bool operator==(const Emotic&) const = default;
};

class Config {
public:
    static constexpr int kSlotCount = 3;

    /// Both paths in the process-wide data root (DataRoot() of wintools.h).
    Config();
    /// Both paths in `dataRoot` (a trailing '/' is added when missing).
    explicit Config(std::string_view dataRoot);

    bool operator==(const Config&) const = default;

    // Reading replaces the fields of a section with the file's values (defaults where missing).
    void ReadGeneral();
    void ReadEffectSlots();
    /// Slot 0, 1 or 2; any other index does nothing.
    void ReadBackSound(int index);
    void ReadEmotics();
    void ReadSoundCards();
    void ReadStream();
    void ReadMonitor();
    void ReadShortcuts();
    void ReadVoice();
    void ReadEffects();

    // Writing returns false (a log record says why) when the file could not be written; the file
    // is then as it was. Callers that, like the options sheet, go on regardless may ignore it.
    bool WriteGeneral() const;
    bool WriteEffectSlots() const;
    /// Slot 0, 1 or 2; any other index does nothing (and gives true).
    bool WriteBackSound(int index) const;
    /// Replaces the whole "emotics" section.
    bool WriteEmotics() const;
    bool WriteSoundCards() const;
    bool WriteStream() const;
    bool WriteMonitor() const;
    bool WriteShortcuts() const;
    bool WriteVoice() const;
    /// Replaces the whole of "voiceeffects.ini".
    bool WriteEffects() const;

    /// Reads both files, each once: the definitions, then effect slots, background slots,
    /// fun sounds, sound cards, general keys, stream, monitor, shortcuts and voice.
    void LoadAll();
    /// Writes "config.ini" in one replacement (effect slots, background slots, fun sounds,
    /// sound cards, general keys, stream, monitor, shortcuts, voice, in this order) and replaces
    /// "voiceeffects.ini". True when both were written.
    bool SaveAll() const;

    /// Index of the first definition whose name equals `name` without regard to case, or -1.
    int FindEffect(std::string_view name) const;
    /// Empties every effect slot holding exactly the definition's name, then removes the
    /// definition. An index outside the list does nothing. Writes no file.
    void RemoveEffect(int index);

    const std::string& ConfigPath() const { return m_configPath; }
    const std::string& EffectsPath() const { return m_effectsPath; }

    // sys
    int32_t m_activeEffect = -1; // -1 none, else 0 to 2
    int32_t m_activeBackSound = -1; // -1 none, else 0 to 2
    bool m_wizard = false;
    std::string m_version;
    std::string m_langsPath;
    std::string m_langFile;
    std::string m_helpFile;
    std::string m_skinFile;
    std::string m_homePage; // the About box's link; empty shows none

    // effects, sound_0..2, emotics
    std::array<std::string, kSlotCount> m_effectSlots;
    std::array<BackSound, kSlotCount> m_backSounds;
    std::vector<Emotic> m_emotics;

    // voiceeffects.ini
    std::vector<VoiceEffect> m_effects;

    // soundcards
    std::string m_input;
    std::string m_monitor;
    std::string m_mixInSrc { kMixInSrcUnread };
    std::string m_virtualDevice;

    // stream
    uint16_t m_inBuffSizeMs = 0;
    uint8_t m_inBuffsN = 0;
    uint16_t m_outBuffSizeMs = 0;
    uint8_t m_outBuffsN = 0;
    uint16_t m_monBuffSizeMs = 0;
    uint8_t m_monBuffsN = 0;

    // monitors
    bool m_monitorOn = false;
    int32_t m_listen = 0; // 0 always, 1 only while a voice effect is active
    uint8_t m_monitorVol = 0;
    uint8_t m_testVolVEff = 0;
    uint8_t m_testVolBack = 0;
    uint8_t m_testVolEmotic = 0;
    uint8_t m_testVolEffStudio = 0;

    // Shortcuts, indexed by ShortcutAction (see keyboard.h for the value)
    std::array<uint64_t, kShortcutCount> m_shortcuts {};

    // voice: what the service does to the microphone before the voice effect
    bool m_noiseSuppression = true;
    int32_t m_noiseStrength = 25;  // dB the suppressor may take off, 6 to 50
    bool m_gate = false;
    int32_t m_gateThreshold = -50; // dBFS at which the gate opens, -80 to -10

private:
    void ReadGeneral(const IniDocument& document);
    void ReadEffectSlots(const IniDocument& document);
    void ReadBackSound(const IniDocument& document, int index);
    void ReadEmotics(const IniDocument& document);
    void ReadSoundCards(const IniDocument& document);
    void ReadStream(const IniDocument& document);
    void ReadMonitor(const IniDocument& document);
    void ReadShortcuts(const IniDocument& document);
    void ReadVoice(const IniDocument& document);

    void WriteGeneral(IniDocument& document) const;
    void WriteEffectSlots(IniDocument& document) const;
    void WriteBackSound(IniDocument& document, int index) const;
    void WriteEmotics(IniDocument& document) const;
    void WriteSoundCards(IniDocument& document) const;
    void WriteStream(IniDocument& document) const;
    void WriteMonitor(IniDocument& document) const;
    void WriteShortcuts(IniDocument& document) const;
    void WriteVoice(IniDocument& document) const;

    IniDocument LoadConfigFile() const;
    bool UpdateConfigFile(void (Config::*write)(IniDocument&) const) const;

    std::string m_configPath;
    std::string m_effectsPath;
};

} // namespace larimo
