// SPDX-License-Identifier: GPL-3.0-or-later
// Voice effect definitions: a plug-in plus the values of its parameters, kept in
// "voiceeffects.ini" (section "sys" with "numEffects", then "eff_0", "eff_1", ... each with
// "vst", "name", "numParams" and "param_0", "param_1", ...).
#pragma once

#include "platform/Profile.h"

#include <string>
#include <vector>

namespace larimo {

/// One value of one plug-in parameter. `m_text` is the parameter's name where the plug-in host
/// makes the list; it is never stored, so it is empty after loading.
struct ParamValue {
    float m_value = 0.0f;
    std::string m_text;

    bool operator==(const ParamValue&) const = default;
};

/// A named preset of a plug-in. `m_plugin` is the plug-in's file name without its extension
/// (empty once its plug-in was deleted); `m_name` is what the user sees and what effect slots
/// hold. Parameter i of the plug-in gets `m_values[i]`.
struct VoiceEffect {
    std::string m_plugin;
    std::string m_name;
    std::vector<ParamValue> m_values;

    bool operator==(const VoiceEffect&) const = default;
};

/// The definitions of a parsed "voiceeffects.ini", in file order. Sections with an empty name
/// are dropped; a missing parameter value reads as 0. Any thread.
std::vector<VoiceEffect> ReadVoiceEffects(const IniDocument& document);

/// A whole "voiceeffects.ini" for `effects`, sections numbered from 0, values as "%f". Any thread.
IniDocument VoiceEffectsDocument(const std::vector<VoiceEffect>& effects);

/// Reads the file at `path` (missing: an empty list). False, with a log record, when the file
/// exists but cannot be read; `effects` is then empty. Any thread.
bool LoadVoiceEffects(const std::string& path, std::vector<VoiceEffect>& effects);

/// Replaces the file at `path` with `effects`, atomically. False, with a log record, on failure;
/// the old file then stays as it was. Any thread.
bool SaveVoiceEffects(const std::string& path, const std::vector<VoiceEffect>& effects);

} // namespace larimo
