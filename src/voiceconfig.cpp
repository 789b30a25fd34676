// SPDX-License-Identifier: GPL-3.0-or-later
#include "voiceconfig.h"

#include "profilenumber.h"

#include <cstdint>

namespace larimo {

namespace {

constexpr std::string_view kSys = "sys";
constexpr std::string_view kNumEffects = "numEffects";

std::string EffectSection(size_t index)
{
    return "eff_" + FormatInteger(index);
}

std::string ParamKey(size_t index)
{
    return "param_" + FormatInteger(index);
}

} // namespace

std::vector<VoiceEffect> ReadVoiceEffects(const IniDocument& document)
{
    std::vector<VoiceEffect> effects;
    const auto count = ReadProfileInteger<uint16_t>(document, kSys, kNumEffects, 0);
    for (size_t i = 0; i < count; ++i) {
        const std::string section = EffectSection(i);
        VoiceEffect effect;
        effect.m_plugin = document.Get(section, "vst", "");
        effect.m_name = document.Get(section, "name", "");
        if (effect.m_name.empty())
            continue;
        const auto params = ReadProfileInteger<uint16_t>(document, section, "numParams", 0);
        effect.m_values.reserve(params);
        for (size_t j = 0; j < params; ++j)
            effect.m_values.push_back(ParamValue { ReadProfileFloat(document, section, ParamKey(j), 0.0f), {} });
        effects.push_back(std::move(effect));
    }
    return effects;
}

IniDocument VoiceEffectsDocument(const std::vector<VoiceEffect>& effects)
{
    IniDocument document;
    document.Set(kSys, kNumEffects, FormatInteger(effects.size()));
    for (size_t i = 0; i < effects.size(); ++i) {
        const VoiceEffect& effect = effects[i];
        const std::string section = EffectSection(i);
        document.Set(section, "vst", effect.m_plugin);
        document.Set(section, "name", effect.m_name);
        document.Set(section, "numParams", FormatInteger(effect.m_values.size()));
        for (size_t j = 0; j < effect.m_values.size(); ++j)
            document.Set(section, ParamKey(j), FormatFloat(effect.m_values[j].m_value));
    }
    return document;
}

bool LoadVoiceEffects(const std::string& path, std::vector<VoiceEffect>& effects)
{
    IniDocument document;
    const bool readable = LoadIniFile(path, document);
    effects = ReadVoiceEffects(document);
    return readable;
}

bool SaveVoiceEffects(const std::string& path, const std::vector<VoiceEffect>& effects)
{
    return ReplaceIniFile(path, VoiceEffectsDocument(effects));
}

} // namespace larimo
