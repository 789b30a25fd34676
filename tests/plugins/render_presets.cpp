// SPDX-License-Identifier: GPL-3.0-or-later
// Renders a recording through every preset of a voiceeffects.ini, one WAV file per preset,
// for listening and for spectrograms:
//   render_presets VOICEEFFECTS.INI INPUT.WAV OUTPUT_DIR
#include "PluginHarness.h"
#include "voiceconfig.h"

#include <sndfile.h>

#include <cstdio>
#include <string>
#include <vector>

int main(int argc, char** argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s VOICEEFFECTS.INI INPUT.WAV OUTPUT_DIR\n", argv[0]);
        return 2;
    }
    std::vector<larimo::VoiceEffect> presets;
    if (!larimo::LoadVoiceEffects(argv[1], presets) || presets.empty()) {
        std::fprintf(stderr, "no presets in %s\n", argv[1]);
        return 1;
    }
    SF_INFO info {};
    SNDFILE* in = sf_open(argv[2], SFM_READ, &info);
    if (in == nullptr || info.channels != 1) {
        std::fprintf(stderr, "%s: need a mono WAV file\n", argv[2]);
        return 1;
    }
    std::vector<float> voice(static_cast<size_t>(info.frames));
    sf_readf_float(in, voice.data(), info.frames);
    sf_close(in);

    for (const larimo::VoiceEffect& preset : presets) {
        std::string error;
        auto plugin = larimo::test::PluginHarness::Load(larimo::test::EffectPath(preset.m_plugin), error);
        if (!plugin) {
            std::fprintf(stderr, "%s: %s\n", preset.m_name.c_str(), error.c_str());
            return 1;
        }
        plugin->Start(static_cast<float>(info.samplerate));
        for (size_t i = 0; i < preset.m_values.size(); ++i)
            plugin->SetParameter(static_cast<int32_t>(i), preset.m_values[i].m_value);
        // The voice service works on the 16-bit scale; so does this.
        std::vector<float> scaled(voice.size() + static_cast<size_t>(info.samplerate)); // a second for the tail
        for (size_t i = 0; i < voice.size(); ++i)
            scaled[i] = 32767.0f * voice[i];
        std::vector<float> out = plugin->ProcessMono(scaled);
        for (float& v : out)
            v /= 32768.0f;
        std::string path = std::string(argv[3]) + "/" + preset.m_name + ".wav";
        SF_INFO outInfo { 0, info.samplerate, 1, SF_FORMAT_WAV | SF_FORMAT_PCM_16, 0, 0 };
        SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &outInfo);
        if (file == nullptr) {
            std::fprintf(stderr, "%s: cannot write\n", path.c_str());
            return 1;
        }
        sf_command(file, SFC_SET_CLIPPING, nullptr, SF_TRUE);
        sf_writef_float(file, out.data(), static_cast<sf_count_t>(out.size()));
        sf_close(file);
        std::printf("%s\n", path.c_str());
    }
    return 0;
}
