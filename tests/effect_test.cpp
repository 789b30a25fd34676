// SPDX-License-Identifier: GPL-3.0-or-later
#include "effect.h"

#include "EffectTestSupport.h"
#include "WaveTestFiles.h"
#include "exception.h"

#include <gtest/gtest.h>

#include <cmath>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

namespace larimo {
namespace {

using test::TestPluginPath;
using test::TestPluginProbe;
using vst::effClose;
using vst::effGetEffectName;
using vst::effMainsChanged;
using vst::effOpen;
using vst::effSetBlockSize;
using vst::effSetSampleRate;
using vst::effStartProcess;
using vst::effStopProcess;

// What the test plug-ins report for a fault at their bad address.
constexpr char kCrashText[] = "Unhandled exeption. Access violation writing location by address 0x10";

class Effect : public ::testing::Test {
protected:
    void SetUp() override { test::StartEnglishTexts(); }
};

TEST_F(Effect, EveryLoadResultHasItsText)
{
    EXPECT_EQ(MoVstErrorText(kVstSuccess), "Success");
    EXPECT_EQ(MoVstErrorText(kVstLoadError), "Error loading VST plug-in");
    EXPECT_EQ(MoVstErrorText(kVstNotFound), "VST plug-in could not be found");
    EXPECT_EQ(MoVstErrorText(kVstBadFormat), "Incorrect format of VST plug-in");
    EXPECT_EQ(MoVstErrorText(kVstNoEffect),
              "VST plug-in doesn't contain VST effect \n(number of audio input or audio output channels equal nil).");
    EXPECT_EQ(MoVstErrorText(kVstException), "Undefined error");
    EXPECT_EQ(MoVstErrorText(6), "Undefined error");
    EXPECT_EQ(MoVstErrorText(0xFFFFFFFFU), "Undefined error");
}

struct LoadCase {
    const char* kind;
    MoVstErrorNum result;
};

class LoadResults : public ::testing::TestWithParam<LoadCase> {
protected:
    void SetUp() override { test::StartEnglishTexts(); }
};

TEST_P(LoadResults, AreReturnedAndLeaveNothingLoadedOnFailure)
{
    TestPluginProbe probe(GetParam().kind);
    MoAudioEffect effect;
    EXPECT_EQ(effect.SecureLoad(TestPluginPath(GetParam().kind), true), GetParam().result);
    EXPECT_EQ(effect.IsLoaded(), GetParam().result == kVstSuccess);
    EXPECT_EQ(effect.IsProcessingEnabled(), GetParam().result == kVstSuccess);
    if (GetParam().result != kVstSuccess) {
        EXPECT_EQ(effect.GetNumParams(), 0);
        EXPECT_EQ(effect.ModulePath(), "");
        EXPECT_EQ(effect.EffectName(), "");
    }
}

INSTANTIATE_TEST_SUITE_P(TestPlugins, LoadResults,
                         ::testing::Values(LoadCase{"Stereo", kVstSuccess}, LoadCase{"BothEntries", kVstSuccess},
                                           LoadCase{"Accumulating", kVstSuccess},
                                           LoadCase{"NoOutputs", kVstNoEffect},
                                           LoadCase{"WrongMagic", kVstBadFormat},
                                           LoadCase{"NullEffect", kVstBadFormat},
                                           LoadCase{"NoEntry", kVstBadFormat},
                                           LoadCase{"CrashOnLoad", kVstException}),
                         [](const auto& testCase) { return std::string(testCase.param.kind); });

TEST_F(Effect, MissingFilesAndFilesThatAreNoLibrariesAreTold)
{
    test::ScratchFolder folder;
    test::LogCapture log;
    MoAudioEffect effect;
    EXPECT_EQ(effect.SecureLoad(folder / "Missing.so", false), kVstNotFound);
    {
        std::ofstream(folder / "Text.so") << "not a shared object\n";
    }
    EXPECT_EQ(effect.SecureLoad(folder / "Text.so", false), kVstLoadError);
    std::filesystem::create_directory(folder / "Folder.so");
    EXPECT_EQ(effect.SecureLoad(folder / "Folder.so", false), kVstLoadError);
    // A shared object, but no plug-in.
    EXPECT_EQ(effect.SecureLoad(TestPluginPath("NoEntry"), false), kVstBadFormat);
    EXPECT_FALSE(effect.IsLoaded());
    const std::string written = log.Text();
    EXPECT_NE(written.find("Error of load vst plug-in. Error code: 2"), std::string::npos) << written;
    EXPECT_NE(written.find("Error of load vst plug-in. Error code: 8"), std::string::npos) << written;
}

TEST_F(Effect, LoadingNamesTheEffectActivatesItAndUnloadingReversesIt)
{
    TestPluginProbe probe("Stereo");
    MoAudioEffect effect;
    ASSERT_EQ(effect.SecureLoad(TestPluginPath("Stereo"), false), kVstSuccess);
    EXPECT_EQ(effect.EffectName(), "Larimo Test Effect");
    EXPECT_EQ(effect.FileName(), "Stereo.so");
    EXPECT_EQ(effect.BaseName(), "Stereo");
    EXPECT_EQ(effect.ModulePath(), TestPluginPath("Stereo"));
    EXPECT_EQ(effect.NumInputs(), 2);
    EXPECT_EQ(effect.NumOutputs(), 2);
    EXPECT_FALSE(effect.IsProcessingEnabled());
    EXPECT_EQ(probe.HostVersion(), 2400);
    EXPECT_EQ(probe.Calls(), (std::vector<int32_t>{effOpen, effGetEffectName, effSetSampleRate, effSetBlockSize,
                                                     effMainsChanged, effStartProcess}));

    effect.UnLoad();
    EXPECT_FALSE(effect.IsLoaded());
    EXPECT_EQ(effect.EffectName(), "");
    const std::vector<int32_t> calls = probe.Calls();
    ASSERT_EQ(calls.size(), 9U);
    EXPECT_EQ(std::vector<int32_t>(calls.begin() + 6, calls.end()),
              (std::vector<int32_t>{effStopProcess, effMainsChanged, effClose}));
    // Unloading twice, and processing afterwards, do nothing.
    effect.UnLoad();
    std::vector<int16_t> samples{1, 2, 3};
    effect.ProcessMono(samples.data(), samples.size() * 2);
    EXPECT_EQ(samples, (std::vector<int16_t>{1, 2, 3}));
    EXPECT_EQ(probe.Calls().size(), 9U);
}

TEST_F(Effect, AnEffectWithoutOutputsIsClosedAgain)
{
    TestPluginProbe probe("NoOutputs");
    MoAudioEffect effect;
    EXPECT_EQ(effect.SecureLoad(TestPluginPath("NoOutputs"), true), kVstNoEffect);
    EXPECT_EQ(probe.Calls(), (std::vector<int32_t>{effOpen, effGetEffectName, effClose}));
}

TEST_F(Effect, APluginExportingBothEntryPointsIsEnteredThroughMain)
{
    MoAudioEffect effect;
    ASSERT_EQ(effect.SecureLoad(TestPluginPath("BothEntries"), false), kVstSuccess);
    EXPECT_EQ(effect.EffectName(), "Entered through main");
}

TEST_F(Effect, MonoRunsThroughTheFirstChannelAtFullScaleClippedAndRounded)
{
    TestPluginProbe probe("Stereo");
    MoAudioEffect effect;
    ASSERT_EQ(effect.SecureLoad(TestPluginPath("Stereo"), true), kVstSuccess);

    // The plug-in gives 2 * in + 0.9, plus 1000 times its second input, which must be silent;
    // its second output is rubbish that must not come back. It works at +-1.0 full scale:
    // 5243 is 0.16, which comes back as 1.22 and is clipped to 32767; -32768 comes back as
    // -1.1 and is clipped to -32768.
    std::vector<int16_t> samples{20000, -20000, 6, -6, 0, 16383, -16384, 5243, -32768, -29491};
    effect.ProcessMono(samples.data(), samples.size() * 2);
    EXPECT_EQ(samples, (std::vector<int16_t>{32767, -10509, 29503, 29479, 29491, 32767, -3277, 32767, -32768, -29491}));

    // More than one block, and an odd byte left over.
    std::vector<int16_t> longer(3000);
    for (size_t i = 0; i < longer.size(); ++i)
        longer[i] = static_cast<int16_t>(static_cast<int>(i % 200) - 100);
    const std::vector<int16_t> original = longer;
    effect.ProcessMono(longer.data(), longer.size() * 2 - 1);
    for (size_t i = 0; i + 1 < longer.size(); ++i) {
        const float out = 2.0f * (static_cast<float>(original[i]) / 32768.0f) + 0.9f;
        ASSERT_EQ(longer[i], static_cast<int16_t>(std::lrint(out * 32768.0f))) << "sample " << i;
    }
    EXPECT_EQ(longer.back(), original.back());
    EXPECT_EQ(probe.ProcessCount(), 1 + 3);

    effect.SetProcessingEnabled(false);
    std::vector<int16_t> untouched{100, 200};
    effect.ProcessMono(untouched.data(), untouched.size() * 2);
    EXPECT_EQ(untouched, (std::vector<int16_t>{100, 200}));
    EXPECT_EQ(probe.ProcessCount(), 4);
}

TEST_F(Effect, TheAccumulatingFormGetsCleanOutputsEveryTime)
{
    MoAudioEffect effect;
    ASSERT_EQ(effect.SecureLoad(TestPluginPath("Accumulating"), true), kVstSuccess);
    for (int round = 0; round < 3; ++round) {
        std::vector<int16_t> samples{100, -100, 7};
        effect.ProcessMono(samples.data(), samples.size() * 2);
        // 2 * in + 0.9 at full scale, with nothing left over from the round before.
        EXPECT_EQ(samples, (std::vector<int16_t>{29691, 29291, 29505})) << "round " << round;
    }
}

TEST_F(Effect, ParameterNamesAreTrimmedAndNamelessOnesNumbered)
{
    TestPluginProbe probe("Stereo");
    MoAudioEffect effect;
    EXPECT_EQ(effect.GetNumParams(), 0);
    EXPECT_EQ(effect.GetParamName(0), "");
    EXPECT_EQ(effect.GetParameter(0), 0.0f);
    ASSERT_EQ(effect.SecureLoad(TestPluginPath("Stereo"), false), kVstSuccess);

    ASSERT_EQ(effect.GetNumParams(), 4);
    std::vector<ParamValue> params{{9.0f, "stale"}};
    effect.GetParams(params);
    EXPECT_EQ(params, (std::vector<ParamValue>{
                          {0.5f, "Gain"}, {0.25f, "Mix"}, {0.0f, "Tone"}, {1.0f, "Undefined parameter 3"}}));

    // Entries beyond the effect's parameters, and indexes out of range, are left alone.
    effect.SetParams({{0.1f, ""}, {0.2f, ""}, {0.3f, ""}, {0.4f, ""}, {0.5f, ""}, {0.6f, ""}});
    effect.SetParameter(-1, 0.9f);
    effect.SetParameter(4, 0.9f);
    EXPECT_EQ(effect.GetParameter(4), 0.0f);
    EXPECT_EQ(effect.GetParamName(-1), "");
    effect.GetParams(params);
    ASSERT_EQ(params.size(), 4U);
    EXPECT_FLOAT_EQ(params[0].m_value, 0.1f);
    EXPECT_FLOAT_EQ(params[3].m_value, 0.4f);
    effect.SetParams({{0.7f, ""}});
    EXPECT_FLOAT_EQ(effect.GetParameter(0), 0.7f);
    EXPECT_FLOAT_EQ(effect.GetParameter(1), 0.2f);
}

struct Automation {
    void* context = nullptr;
    int index = -1;
    ParamValue value;
    int calls = 0;
};

TEST_F(Effect, TheEditorIsOpenedSizedAndItsChangesReported)
{
    TestPluginProbe probe("Stereo");
    MoAudioEffect effect;
    ASSERT_EQ(effect.SecureLoad(TestPluginPath("Stereo"), false), kVstSuccess);
    Automation seen;
    effect.SetListenerContext(&seen);
    effect.SetParamAutomateListener([](void* context, int index, const ParamValue& value) {
        auto* automation = static_cast<Automation*>(context);
        automation->context = context;
        automation->index = index;
        automation->value = value;
        ++automation->calls;
    });

    EXPECT_TRUE(effect.HasEditor());
    EXPECT_TRUE(effect.EditOpen(0x2A00001, "Larimo Test Effect"));
    vst::ERect rect{};
    ASSERT_TRUE(effect.EditGetRect(rect));
    EXPECT_EQ(rect.right - rect.left, 30);
    EXPECT_EQ(rect.bottom - rect.top, 20);
    EXPECT_FALSE(effect.ParamsModified());
    effect.EditIdle();
    EXPECT_TRUE(effect.ParamsModified());
    EXPECT_EQ(seen.calls, 1);
    EXPECT_EQ(seen.context, &seen);
    EXPECT_EQ(seen.index, 1);
    EXPECT_EQ(seen.value, (ParamValue{0.75f, ""}));
    effect.EditClose();
    EXPECT_TRUE(effect.IsLoaded());
}

class FakeParamWindow : public EffectParamWindow {
public:
    static inline int s_shown = 0;
    static inline int s_closed = 0;
    static inline std::string s_baseName;
    static inline bool s_refuse = false;

    bool ShowNotModal(void* /*parent*/) override
    {
        ++s_shown;
        return !s_refuse;
    }
    void Close() override { ++s_closed; }
};

TEST_F(Effect, ConfigOpensTheParameterWindowOnlyWhereThereIsOne)
{
    MoAudioEffect effect;
    int owner = 0;
    EXPECT_FALSE(effect.Config(nullptr, &owner));
    ASSERT_EQ(effect.SecureLoad(TestPluginPath("Stereo"), false), kVstSuccess);
    SetEffectParamWindowFactory(nullptr);
    EXPECT_FALSE(effect.Config(nullptr, &owner));

    SetEffectParamWindowFactory([](MoAudioEffect&, const std::string& baseName, void*) {
        FakeParamWindow::s_baseName = baseName;
        return std::unique_ptr<EffectParamWindow>(std::make_unique<FakeParamWindow>());
    });
    FakeParamWindow::s_shown = FakeParamWindow::s_closed = 0;
    EXPECT_TRUE(effect.Config(nullptr, &owner));
    EXPECT_EQ(FakeParamWindow::s_baseName, "Stereo");
    EXPECT_EQ(effect.ListenerContext(), &owner);
    // A second window replaces the first.
    EXPECT_TRUE(effect.Config(nullptr, &owner));
    EXPECT_EQ(FakeParamWindow::s_closed, 1);
    effect.CloseConfig();
    effect.CloseConfig();
    EXPECT_EQ(FakeParamWindow::s_closed, 2);

    FakeParamWindow::s_refuse = true;
    EXPECT_FALSE(effect.Config(nullptr, &owner));
    effect.CloseConfig();
    EXPECT_EQ(FakeParamWindow::s_closed, 2);
    FakeParamWindow::s_refuse = false;
    SetEffectParamWindowFactory(nullptr);
}

TEST_F(Effect, AFaultWhileLoadingIsReportedAndLarimoGoesOn)
{
    TestPluginProbe probe("CrashOnLoad");
    test::LogCapture log;
    test::RecordingMessageSink sink;
    MoAudioEffect effect;
    const std::string path = TestPluginPath("CrashOnLoad");
    int owner = 0;

    EXPECT_EQ(effect.SafeLoad(path, true, &owner), kVstException);
    EXPECT_FALSE(effect.IsLoaded());
    // Dropped without being closed.
    EXPECT_EQ(probe.Calls(), (std::vector<int32_t>{effOpen}));
    const std::string message = std::string(kCrashText) + "\n\nEffect: \"" + path + "\"";
    ASSERT_EQ(sink.m_messages.size(), 1U);
    EXPECT_EQ(sink.m_messages[0].owner, &owner);
    EXPECT_EQ(sink.m_messages[0].text, message);
    EXPECT_EQ(sink.m_messages[0].caption, "Larimo");
    EXPECT_EQ(sink.m_messages[0].style, MB_ICONERROR);
    EXPECT_NE(log.Text().find(message), std::string::npos) << log.Text();

    // Without an owner the fault is only logged.
    EXPECT_EQ(effect.SafeLoad(path, false, nullptr), kVstException);
    EXPECT_EQ(sink.m_messages.size(), 1U);

    ASSERT_EQ(effect.SafeLoad(TestPluginPath("Stereo"), true, &owner), kVstSuccess);
    std::vector<int16_t> samples{10};
    effect.ProcessMono(samples.data(), 2);
    EXPECT_EQ(samples[0], 29511);
}

TEST_F(Effect, AFaultWhileProcessingStopsTheEffectForGood)
{
    TestPluginProbe probe("CrashOnProcess");
    test::LogCapture log;
    MoAudioEffect effect;
    const std::string path = TestPluginPath("CrashOnProcess");
    const unsigned replacedBefore = CrashGuard::ReplacedHandlerCount();
    ASSERT_EQ(effect.SafeLoad(path, true, nullptr), kVstSuccess);

    std::vector<int16_t> samples{1, 2, 3};
    effect.ProcessMono(samples.data(), samples.size() * 2);
    EXPECT_EQ(samples, (std::vector<int16_t>{1, 2, 3}));
    EXPECT_FALSE(effect.IsLoaded());
    // The plug-in had put its own handlers in place while it was opened.
    EXPECT_GT(CrashGuard::ReplacedHandlerCount(), replacedBefore);

    effect.ProcessMono(samples.data(), samples.size() * 2);
    EXPECT_EQ(probe.ProcessCount(), 1);
    EXPECT_EQ(samples, (std::vector<int16_t>{1, 2, 3}));

    // The report waits for the control thread, which finds the effect gone.
    EXPECT_EQ(log.Text().find(kCrashText), std::string::npos);
    EXPECT_EQ(effect.GetNumParams(), 0);
    EXPECT_NE(log.Text().find(std::string("MoAudioEffect::ProcessMono(): ") + kCrashText + ". Module: " + path),
              std::string::npos)
        << log.Text();
    effect.UnLoad();
    const std::vector<int32_t> calls = probe.Calls();
    EXPECT_EQ(std::count(calls.begin(), calls.end(), effClose), 0);
}

TEST_F(Effect, AFaultOpeningTheEditorClosesItAndTheEffect)
{
    TestPluginProbe probe("CrashOnEditor");
    test::LogCapture log;
    test::RecordingMessageSink sink;
    MoAudioEffect effect;
    ASSERT_EQ(effect.SafeLoad(TestPluginPath("CrashOnEditor"), false, nullptr), kVstSuccess);
    EXPECT_TRUE(effect.HasEditor());
    int owner = 0;
    EXPECT_FALSE(effect.EditOpen(0x2A00001, "Crashing editor", &owner));
    EXPECT_FALSE(effect.IsLoaded());
    ASSERT_EQ(sink.m_messages.size(), 1U);
    EXPECT_EQ(sink.m_messages[0].owner, &owner);
    EXPECT_EQ(sink.m_messages[0].text, std::string(kCrashText) + "\nEffect editor will be closed");
    EXPECT_EQ(sink.m_messages[0].caption, "Crashing editor");
    EXPECT_EQ(sink.m_messages[0].style, MB_ICONERROR);
    EXPECT_NE(log.Text().find("Unhandled exception in effect Crashing editor"), std::string::npos);
    // Never called again.
    effect.EditIdle();
    effect.UnLoad();
    const std::vector<int32_t> calls = probe.Calls();
    EXPECT_EQ(calls.back(), vst::effEditOpen);
}

TEST_F(Effect, ProcessingWhileTheEffectIsReloadedNeverSeesAHalfLoadedOne)
{
    MoAudioEffect effect;
    ASSERT_TRUE(CrashGuard::PrepareThread());
    std::atomic<bool> stop{false};
    std::atomic<int> wrong{0};
    std::thread audio([&] {
        CrashGuard::PrepareThread();
        std::vector<int16_t> block(512);
        while (!stop.load()) {
            std::fill(block.begin(), block.end(), int16_t{50});
            effect.ProcessMono(block.data(), block.size() * 2);
            // Either untouched or fully processed by one of the two plug-ins.
            for (int16_t sample : block)
                if (sample != 50 && sample != 29591)
                    wrong.fetch_add(1);
        }
    });
    for (int round = 0; round < 40; ++round) {
        ASSERT_EQ(effect.SecureLoad(TestPluginPath(round % 2 == 0 ? "Stereo" : "Accumulating"), true), kVstSuccess);
        std::this_thread::yield();
        if (round % 3 == 0)
            effect.UnLoad();
    }
    stop.store(true);
    audio.join();
    EXPECT_EQ(wrong.load(), 0);
}

} // namespace
} // namespace larimo
