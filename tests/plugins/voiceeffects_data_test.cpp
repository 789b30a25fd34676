// SPDX-License-Identifier: GPL-3.0-or-later
// The presets Larimo ships in data/: each names a shipped effect, gives it exactly its
// parameters, and makes sound; the three effect slots of the first start name presets.
#include "PluginHarness.h"
#include "config.h"
#include "voiceconfig.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <numbers>
#include <set>
#include <unistd.h>

namespace larimo::test {
namespace {

// The settings layer keeps lock files beside what it reads; the source tree must not get them.
std::string DataCopy()
{
    const std::filesystem::path dir = std::filesystem::temp_directory_path() /
                                      ("larimo-presets-" + std::to_string(::getpid()));
    std::filesystem::create_directories(dir);
    for (const char* name : { "voiceeffects.ini", "config.ini" })
        std::filesystem::copy_file(std::filesystem::path(LARIMO_SOURCE_DIR) / "data" / name, dir / name,
                                   std::filesystem::copy_options::overwrite_existing);
    return dir.string();
}

class ShippedPresetsTest : public ::testing::Test {
protected:
    ~ShippedPresetsTest() override { std::filesystem::remove_all(m_dir); }
    const std::string m_dir = DataCopy();
};

TEST_F(ShippedPresetsTest, EveryPresetDrivesAShippedEffect)
{
    std::vector<VoiceEffect> presets;
    ASSERT_TRUE(LoadVoiceEffects(m_dir + "/voiceeffects.ini", presets));
    ASSERT_GE(presets.size(), 8u);
    std::set<std::string> usedEffects;
    std::set<std::string> names;
    for (const VoiceEffect& preset : presets) {
        SCOPED_TRACE(preset.m_name);
        std::string folded = preset.m_name;
        std::transform(folded.begin(), folded.end(), folded.begin(), [](unsigned char c) { return std::tolower(c); });
        EXPECT_TRUE(names.insert(folded).second) << "names are matched without regard to case";
        ASSERT_TRUE(std::filesystem::exists(EffectPath(preset.m_plugin))) << preset.m_plugin;
        usedEffects.insert(preset.m_plugin);

        std::string error;
        auto plugin = PluginHarness::Load(EffectPath(preset.m_plugin), error);
        ASSERT_NE(plugin, nullptr) << error;
        plugin->Start(44100.0f);
        ASSERT_EQ(static_cast<int32_t>(preset.m_values.size()), plugin->Effect().numParams);
        for (size_t i = 0; i < preset.m_values.size(); ++i) {
            EXPECT_GE(preset.m_values[i].m_value, 0.0f);
            EXPECT_LE(preset.m_values[i].m_value, 1.0f);
            plugin->SetParameter(static_cast<int32_t>(i), preset.m_values[i].m_value);
        }
        // Half a second of a vowel comes out audible and finite.
        std::vector<float> vowel(22050);
        for (size_t n = 0; n < vowel.size(); ++n) {
            const double t = static_cast<double>(n) / 44100.0;
            vowel[n] = static_cast<float>(0.3 * std::sin(2.0 * std::numbers::pi * 130.0 * t) +
                                          0.2 * std::sin(2.0 * std::numbers::pi * 650.0 * t));
        }
        const std::vector<float> out = plugin->ProcessMono(vowel);
        double energy = 0.0;
        for (float v : out) {
            ASSERT_TRUE(std::isfinite(v));
            energy += static_cast<double>(v) * v;
        }
        EXPECT_GT(energy, 0.01 * static_cast<double>(vowel.size()) * 0.065);
    }
    for (const std::string& effect : ShippedEffects())
        EXPECT_TRUE(usedEffects.contains(effect)) << effect << " has no preset";
}

TEST_F(ShippedPresetsTest, FirstStartFillsTheSlotsAndStillRunsTheWizard)
{
    Config config(m_dir);
    config.LoadAll();
    EXPECT_FALSE(config.m_wizard);
    for (int slot = 0; slot < Config::kSlotCount; ++slot) {
        const std::string& name = config.m_effectSlots[static_cast<size_t>(slot)];
        EXPECT_FALSE(name.empty()) << "slot " << slot;
        EXPECT_GE(config.FindEffect(name), 0) << name;
    }
}

} // namespace
} // namespace larimo::test
