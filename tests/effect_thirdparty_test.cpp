// SPDX-License-Identifier: GPL-3.0-or-later
// The host against real third-party plug-ins: every VST 2 plug-in of Debian's dpf-plugins-vst.
#include "effect.h"

#include "modb.h"
#include "wave.h"

#include "EffectTestSupport.h"
#include "WaveTestFiles.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
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


// Compressors, limiters, saturators and gates work on the level of what they get, so they are
// where a host's scale shows: at their defaults a spoken sample must come out at about its
// own level. Each is imported into a library of its own first, as a user would.
struct Dynamics {
    const char* file;
    const char* kind;
};

class DynamicsPlugin : public ::testing::TestWithParam<Dynamics> {
protected:
    void SetUp() override { test::StartEnglishTexts(); }
    // A few seconds of speech with pauses, in the library format.
    static const std::vector<int16_t>& Speech()
    {
        static const std::vector<int16_t> speech = [] {
            test::ScratchFolder folder;
            const std::string spoken = folder.Path() + "spoken.wav";
            const std::string command = "espeak-ng -s 150 -w '" + spoken +
                                        "' 'The quick brown fox jumps over the lazy dog. "
                                        "She sells sea shells by the sea shore.' 2>/dev/null";
            std::vector<int16_t> samples;
            if (std::system(command.c_str()) != 0)
                return samples;
            LibInit(folder.Path());
            if (!LibImportBackSound(spoken))
                return samples;
            Wave wave;
            if (wave.ReadFromFile(LibBackSoundPath("spoken.wav")) != kWaveSuccess)
                return samples;
            samples.resize(wave.DataSize() / 2);
            std::memcpy(samples.data(), wave.Data().data(), samples.size() * 2);
            return samples;
        }();
        return speech;
    }
    // The level of the loud half of the sample: what a listener hears as its loudness.
    static double SpeechLevelDb(const std::vector<int16_t>& samples)
    {
        constexpr size_t kWindow = 2205;
        std::vector<double> windows;
        for (size_t i = 0; i + kWindow <= samples.size(); i += kWindow) {
            double sum = 0;
            for (size_t j = i; j < i + kWindow; ++j)
                sum += static_cast<double>(samples[j]) * samples[j];
            windows.push_back(sum / kWindow);
        }
        std::sort(windows.begin(), windows.end());
        double sum = 0;
        for (size_t i = windows.size() / 2; i < windows.size(); ++i)
            sum += windows[i];
        const double mean = sum / static_cast<double>(windows.size() - windows.size() / 2);
        return 10.0 * std::log10(std::max(mean, 1e-9) / (32768.0 * 32768.0));
    }

    test::ScratchFolder m_library;
};

TEST_P(DynamicsPlugin, KeepsSpeechAtItsLevel)
{
    const std::string source = std::string(kPluginFolder) + "/" + GetParam().file;
    if (!fs::exists(source))
        GTEST_FAIL() << source << " is missing: install zam-plugins (scripts/install-deps.sh)";
    const std::vector<int16_t>& speech = Speech();
    ASSERT_GT(speech.size(), 44100U) << "espeak-ng made no speech";
    LibInit(m_library.Path());
    ASSERT_TRUE(LibImportPlugin(source)) << LibGetLastError();
    MoAudioEffect effect;
    ASSERT_EQ(effect.SafeLoad(LibPluginPath(LibBaseName(source)), true, nullptr), kVstSuccess);

    std::vector<int16_t> processed = speech;
    Process(effect, processed);
    const double before = SpeechLevelDb(speech);
    const double after = SpeechLevelDb(processed);
    std::printf("%s (%s): speech %.1f dBFS in, %.1f dBFS out\n", GetParam().file, GetParam().kind, before, after);
    RecordProperty("level_change_db", std::to_string(after - before));
    EXPECT_NEAR(after, before, 12.0) << GetParam().kind << " at its defaults changes the voice's level too much";
    EXPECT_TRUE(effect.IsLoaded());
}

INSTANTIATE_TEST_SUITE_P(Debian, DynamicsPlugin,
                         ::testing::Values(Dynamics{"ZamComp-vst.so", "compressor"},
                                           Dynamics{"ZamCompX2-vst.so", "compressor"},
                                           Dynamics{"ZaMultiComp-vst.so", "multiband compressor"},
                                           Dynamics{"ZaMaximX2-vst.so", "limiter"},
                                           Dynamics{"ZamAutoSat-vst.so", "saturator"},
                                           Dynamics{"ZamTube-vst.so", "tube saturator"},
                                           Dynamics{"ZamGate-vst.so", "gate"},
                                           Dynamics{"ZamGateX2-vst.so", "gate"}),
                         [](const auto& testCase) {
                             std::string name = fs::path(testCase.param.file).stem().string();
                             std::replace(name.begin(), name.end(), '-', '_');
                             return name;
                         });

} // namespace
} // namespace larimo
