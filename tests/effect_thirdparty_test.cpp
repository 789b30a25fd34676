// SPDX-License-Identifier: GPL-3.0-or-later
// The host against real third-party plug-ins: every VST 2 plug-in of Debian's dpf-plugins-vst.
#include "effect.h"

#include "EffectTestSupport.h"
#include "WaveTestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <set>

namespace larimo {
namespace {

namespace fs = std::filesystem;

constexpr char kPluginFolder[] = "/usr/lib/vst";
constexpr size_t kAudioBlock = 512;

std::vector<std::string> InstalledPlugins()
{
    std::vector<std::string> paths;
    std::error_code ec;
    for (fs::recursive_directory_iterator it(kPluginFolder, ec), end; !ec && it != end; it.increment(ec))
        if (it->path().extension() == ".so" && it->is_regular_file(ec))
            paths.push_back(it->path().string());
    std::sort(paths.begin(), paths.end());
    return paths;
}

// The package's instruments: they have no audio input, so they are no voice effects.
bool IsInstrument(const std::string& path)
{
    static const std::set<std::string> kInstruments = {"Kars-vst.so", "Nekobi-vst.so"};
    return kInstruments.count(fs::path(path).filename().string()) != 0;
}

// Runs `samples` through the effect in blocks the size an audio engine uses.
void Process(MoAudioEffect& effect, std::vector<int16_t>& samples)
{
    for (size_t i = 0; i < samples.size(); i += kAudioBlock)
        effect.ProcessMono(samples.data() + i, std::min(kAudioBlock, samples.size() - i) * 2);
}

TEST(ThirdPartyPlugins, TheDebianPackageIsInstalled)
{
    EXPECT_GE(InstalledPlugins().size(), 10U) << "install dpf-plugins-vst (scripts/install-deps.sh)";
}

class ThirdPartyPlugin : public ::testing::TestWithParam<std::string> {
protected:
    void SetUp() override { test::StartEnglishTexts(); }
};

TEST_P(ThirdPartyPlugin, LoadsProcessesAndTakesItsParameters)
{
    MoAudioEffect effect;
    const MoVstErrorNum result = effect.SafeLoad(GetParam(), true, nullptr);
    if (IsInstrument(GetParam())) {
        EXPECT_EQ(result, kVstNoEffect);
        return;
    }
    ASSERT_EQ(result, kVstSuccess);
    EXPECT_FALSE(effect.EffectName().empty());
    EXPECT_GE(effect.NumInputs(), 1);
    EXPECT_GE(effect.NumOutputs(), 1);

    std::vector<int16_t> samples = test::SineSamples(440.0, 0.5, 44100);
    Process(effect, samples);
    EXPECT_TRUE(effect.IsLoaded());

    std::vector<ParamValue> params;
    effect.GetParams(params);
    ASSERT_EQ(static_cast<int>(params.size()), effect.GetNumParams());
    for (size_t i = 0; i < params.size(); ++i) {
        SCOPED_TRACE(params[i].m_text);
        const int index = static_cast<int>(i);
        EXPECT_FALSE(params[i].m_text.empty());
        EXPECT_GE(params[i].m_value, 0.0f);
        EXPECT_LE(params[i].m_value, 1.0f);
        for (float value : {0.0f, 1.0f}) {
            effect.SetParameter(index, value);
            EXPECT_NEAR(effect.GetParameter(index), value, 1e-3);
        }
    }
    effect.SetParams(params);
    std::vector<ParamValue> restored;
    effect.GetParams(restored);
    ASSERT_EQ(restored.size(), params.size());
    for (size_t i = 0; i < params.size(); ++i)
        EXPECT_NEAR(restored[i].m_value, params[i].m_value, 1e-3) << params[i].m_text;

    Process(effect, samples);
    EXPECT_TRUE(effect.IsLoaded());
    effect.UnLoad();
    EXPECT_FALSE(effect.IsLoaded());
}

INSTANTIATE_TEST_SUITE_P(Debian, ThirdPartyPlugin, ::testing::ValuesIn(InstalledPlugins()),
                         [](const auto& testCase) {
                             std::string name = fs::path(testCase.param).stem().string();
                             std::replace_if(name.begin(), name.end(), [](char c) { return std::isalnum(static_cast<unsigned char>(c)) == 0; }, '_');
                             return name;
                         });
GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(ThirdPartyPlugin);

struct PitchCase {
    float ratioParameter; ///< normalised: the plug-in maps 0..1 onto ratios 0.25..4
    double expectedHz;
};

class PitchShifter : public ::testing::TestWithParam<PitchCase> {
protected:
    void SetUp() override { test::StartEnglishTexts(); }
};

TEST_P(PitchShifter, MovesATestToneToTheExpectedFrequency)
{
    const std::string path = std::string(kPluginFolder) + "/MaPitchshift-vst.so";
    MoAudioEffect effect;
    ASSERT_EQ(effect.SafeLoad(path, true, nullptr), kVstSuccess);
    int ratio = -1;
    for (int i = 0; i < effect.GetNumParams(); ++i)
        if (effect.GetParamName(i) == "ratio")
            ratio = i;
    ASSERT_GE(ratio, 0) << "no ratio parameter";
    effect.SetParameter(ratio, GetParam().ratioParameter);

    std::vector<int16_t> samples = test::SineSamples(440.0, 0.5, 44100);
    Process(effect, samples);
    // The second half, once the shifter's window has filled.
    const std::vector<int16_t> settled(samples.begin() + 22050, samples.end());
    EXPECT_NEAR(test::DominantFrequency(settled, 44100.0, 50.0, 3000.0), GetParam().expectedHz, 3.0);
    const auto peak = std::max_element(settled.begin(), settled.end());
    EXPECT_GT(*peak, 8000) << "the shifted tone lost most of its level";
}

INSTANTIATE_TEST_SUITE_P(Ratios, PitchShifter,
                         ::testing::Values(PitchCase{0.2f, 440.0}, PitchCase{1.0f / 15.0f, 220.0},
                                           PitchCase{7.0f / 15.0f, 880.0}),
                         [](const auto& testCase) { return std::to_string(static_cast<int>(testCase.param.expectedHz)); });

} // namespace
} // namespace larimo
