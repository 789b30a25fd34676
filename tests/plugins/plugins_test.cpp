// SPDX-License-Identifier: GPL-3.0-or-later
// Every shipped effect, loaded from its module as a host loads it, held to the same promises:
// it describes itself, stays silent on silence and bounded on noise, glides on parameter
// changes, runs at other rates and on two channels alike, and its processing allocates nothing.
#include "PluginHarness.h"
#include "TestSignals.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <cstdlib>
#include <new>
#include <string>

namespace {

std::atomic<long> g_allocations { 0 };
std::atomic<bool> g_countAllocations { false };

void* CountedAllocation(size_t size)
{
    if (g_countAllocations.load(std::memory_order_relaxed))
        g_allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size))
        return p;
    throw std::bad_alloc();
}

} // namespace

// Replacing the global allocation functions catches every operator new the modules make too:
// the executable's definitions take precedence over the C++ runtime's for the whole process.
void* operator new(size_t size)
{
    return CountedAllocation(size);
}
void* operator new[](size_t size)
{
    return CountedAllocation(size);
}
void operator delete(void* p) noexcept
{
    std::free(p);
}
void operator delete[](void* p) noexcept
{
    std::free(p);
}
void operator delete(void* p, size_t) noexcept
{
    std::free(p);
}
void operator delete[](void* p, size_t) noexcept
{
    std::free(p);
}

namespace larimo::test {
namespace {

constexpr float kRate = 44100.0f;

class ShippedEffectTest : public ::testing::TestWithParam<std::string> {
protected:
    std::unique_ptr<PluginHarness> Load(float rate = kRate)
    {
        std::string error;
        auto plugin = PluginHarness::Load(EffectPath(GetParam()), error);
        EXPECT_NE(plugin, nullptr) << error;
        if (plugin)
            plugin->Start(rate);
        return plugin;
    }
};

bool AllFinite(const std::vector<float>& signal)
{
    for (float v : signal)
        if (!std::isfinite(v))
            return false;
    return true;
}

bool AnySubnormal(const std::vector<float>& signal)
{
    for (float v : signal)
        if (std::fpclassify(v) == FP_SUBNORMAL)
            return true;
    return false;
}

TEST_P(ShippedEffectTest, DescribesItselfThroughTheInterface)
{
    auto plugin = Load();
    ASSERT_NE(plugin, nullptr);
    vst::AEffect& e = plugin->Effect();
    EXPECT_EQ(e.numInputs, 2);
    EXPECT_EQ(e.numOutputs, 2);
    EXPECT_NE(e.flags & vst::kFlagCanReplacing, 0);
    EXPECT_EQ(e.flags & vst::kFlagHasEditor, 0);
    EXPECT_NE(e.processReplacing, nullptr);
    EXPECT_GE(e.numParams, 2);
    EXPECT_EQ(plugin->Text(vst::effGetEffectName), "Larimo " + GetParam());
    EXPECT_EQ(plugin->Text(vst::effGetVendorString), "Larimo");
    EXPECT_EQ(plugin->Dispatch(vst::effGetPlugCategory), vst::kPlugCategoryEffect);
    EXPECT_EQ(plugin->Dispatch(vst::effGetVstVersion), vst::kHostVstVersion);
    // Latency within 10 ms; none of these is a delay by nature in its dry path.
    EXPECT_GE(e.initialDelay, 0);
    EXPECT_LE(e.initialDelay, static_cast<int32_t>(0.010 * kRate));

    for (int32_t i = 0; i < e.numParams; ++i) {
        SCOPED_TRACE("parameter " + std::to_string(i));
        const std::string name = plugin->Text(vst::effGetParamName, i);
        EXPECT_FALSE(name.empty());
        EXPECT_LE(name.size(), 8u) << name;
        const std::string label = plugin->Text(vst::effGetParamLabel, i);
        EXPECT_FALSE(label.empty());
        EXPECT_LE(label.size(), 8u) << label;
        const float initial = plugin->GetParameter(i);
        EXPECT_GE(initial, 0.0f);
        EXPECT_LE(initial, 1.0f);

        // The display follows the value, as a number, rising with it.
        plugin->SetParameter(i, 0.0f);
        const std::string low = plugin->Text(vst::effGetParamDisplay, i);
        plugin->SetParameter(i, 1.0f);
        const std::string high = plugin->Text(vst::effGetParamDisplay, i);
        EXPECT_FLOAT_EQ(plugin->GetParameter(i), 1.0f);
        char* end = nullptr;
        const double lowValue = std::strtod(low.c_str(), &end);
        EXPECT_EQ(*end, '\0') << low;
        const double highValue = std::strtod(high.c_str(), &end);
        EXPECT_EQ(*end, '\0') << high;
        EXPECT_LT(lowValue, highValue);
        // Values outside 0..1 are clamped, not stored.
        plugin->SetParameter(i, 7.0f);
        EXPECT_FLOAT_EQ(plugin->GetParameter(i), 1.0f);
        plugin->SetParameter(i, initial);
    }
    // Out-of-range indexes are ignored rather than trusted.
    EXPECT_EQ(plugin->GetParameter(e.numParams), 0.0f);
    plugin->SetParameter(-1, 0.5f);
    EXPECT_EQ(plugin->Text(vst::effGetParamName, e.numParams), "");
}

TEST_P(ShippedEffectTest, BothEntryPointsGiveTheEffect)
{
    for (const char* entry : { "VSTPluginMain", "main" }) {
        std::string error;
        auto plugin = PluginHarness::Load(EffectPath(GetParam()), error, entry);
        ASSERT_NE(plugin, nullptr) << entry << ": " << error;
        EXPECT_EQ(plugin->Text(vst::effGetEffectName), "Larimo " + GetParam());
    }
}

TEST_P(ShippedEffectTest, SilenceInGivesSilenceOut)
{
    auto plugin = Load();
    ASSERT_NE(plugin, nullptr);
    const std::vector<float> fresh = plugin->ProcessMono(std::vector<float>(static_cast<size_t>(kRate), 0.0f));
    EXPECT_EQ(Peak(fresh), 0.0);

    // After sound, the tail dies away into exact silence, without subnormal numbers on the way.
    plugin->ProcessMono(Noise(0.5, static_cast<size_t>(0.5 * kRate)));
    const std::vector<float> tail = plugin->ProcessMono(std::vector<float>(static_cast<size_t>(8 * kRate), 0.0f));
    EXPECT_TRUE(AllFinite(tail));
    EXPECT_FALSE(AnySubnormal(tail));
    EXPECT_EQ(Peak(tail, tail.size() - static_cast<size_t>(kRate)), 0.0);
}

TEST_P(ShippedEffectTest, StaysBoundedOnFullScaleNoise)
{
    auto plugin = Load();
    ASSERT_NE(plugin, nullptr);
    const int32_t params = plugin->Effect().numParams;
    const std::vector<float> noise = Noise(1.0, static_cast<size_t>(1.5 * kRate), 7);
    // Every parameter at its low end, at its high end, and alternating.
    for (int setting = 0; setting < 3; ++setting) {
        for (int32_t i = 0; i < params; ++i)
            plugin->SetParameter(i, setting == 2 ? static_cast<float>(i % 2) : static_cast<float>(setting));
        const std::vector<float> out = plugin->ProcessMono(noise);
        SCOPED_TRACE("setting " + std::to_string(setting));
        EXPECT_TRUE(AllFinite(out));
        EXPECT_LT(Peak(out), 8.0);
    }
}

TEST_P(ShippedEffectTest, ScalesWithItsInput)
{
    // Larimo's service feeds samples on the 16-bit scale (up to 32767), other hosts on -1..1;
    // an effect must sound the same on both, so nothing in it may depend on absolute level.
    const std::vector<float> voice = VoicedSignal(130.0, kRate, 1.0);
    std::vector<float> loud(voice.size());
    for (size_t i = 0; i < voice.size(); ++i)
        loud[i] = 32767.0f * voice[i];
    auto small = Load();
    auto large = Load();
    ASSERT_TRUE(small && large);
    const std::vector<float> a = small->ProcessMono(voice);
    const std::vector<float> b = large->ProcessMono(loud);
    double error = 0.0;
    for (size_t i = 0; i < a.size(); ++i)
        error = std::max(error, std::fabs(b[i] / 32767.0 - a[i]));
    EXPECT_LT(error, 1e-3 * Peak(a));
    EXPECT_GT(Rms(a), 0.05 * Rms(voice));
}

TEST_P(ShippedEffectTest, ParameterChangesGlideWithoutClicks)
{
    auto plugin = Load();
    ASSERT_NE(plugin, nullptr);
    const std::vector<float> tone = Sine(330.0, 0.5, kRate, 1.0);
    const size_t quarter = tone.size() / 4;
    for (int32_t i = 0; i < plugin->Effect().numParams; ++i) {
        SCOPED_TRACE("parameter " + plugin->Text(vst::effGetParamName, i));
        const float initial = plugin->GetParameter(i);
        for (const auto& [from, to] : { std::pair { 0.0f, 1.0f }, std::pair { 1.0f, 0.0f } }) {
            // Steady at each end first: the largest step each setting makes on its own.
            plugin->SetParameter(i, from);
            const std::vector<float> before = plugin->ProcessMono(tone);
            plugin->SetParameter(i, to);
            const std::vector<float> after = plugin->ProcessMono(tone);
            const std::vector<float> settled = plugin->ProcessMono(tone);
            const double steady = std::max(MaxStep(before, quarter, before.size()), MaxStep(settled, quarter, settled.size()));
            // The change happens at the start of `after`; its first 100 ms hold the glide.
            const double change = std::max<double>(std::fabs(after.front() - before.back()),
                                                   MaxStep(after, 0, static_cast<size_t>(0.1 * kRate)));
            EXPECT_LE(change, 1.5 * steady + 0.01) << "from " << from << " to " << to;
        }
        plugin->SetParameter(i, initial);
    }
}

class RateTest : public ::testing::TestWithParam<std::tuple<std::string, float>> {};

TEST_P(RateTest, WorksAtOtherRates)
{
    const auto& [name, rate] = GetParam();
    std::string error;
    auto plugin = PluginHarness::Load(EffectPath(name), error);
    ASSERT_NE(plugin, nullptr) << error;
    plugin->Start(rate);
    EXPECT_LE(plugin->Effect().initialDelay, static_cast<int32_t>(0.010 * rate));
    const std::vector<float> voice = VoicedSignal(140.0, rate, 1.5);
    const std::vector<float> out = plugin->ProcessMono(voice);
    EXPECT_TRUE(AllFinite(out));
    EXPECT_LT(Peak(out), 4.0);
    EXPECT_GT(Rms(out, out.size() / 2), 0.1 * Rms(voice, voice.size() / 2));
}

TEST_P(ShippedEffectTest, ChannelsAreIndependent)
{
    const std::vector<float> left = VoicedSignal(120.0, kRate, 1.0);
    const std::vector<float> right = GlidingVoice(180.0, 150.0, kRate, 1.0);
    auto stereo = Load();
    auto leftOnly = Load();
    auto rightOnly = Load();
    ASSERT_TRUE(stereo && leftOnly && rightOnly);
    const auto both = stereo->Process({ left, right });
    EXPECT_EQ(both[0], leftOnly->Process({ left, {} })[0]);
    EXPECT_EQ(both[1], rightOnly->Process({ right, {} })[0]);
    EXPECT_NE(both[0], both[1]);
}

TEST_P(ShippedEffectTest, BlockSizeDoesNotChangeTheResult)
{
    const std::vector<float> voice = GlidingVoice(110.0, 170.0, kRate, 0.6);
    std::vector<std::vector<float>> results;
    for (const int32_t block : { 1103, 64, 1 }) {
        auto plugin = Load();
        ASSERT_NE(plugin, nullptr);
        results.push_back(plugin->ProcessMono(voice, block));
    }
    EXPECT_EQ(results[0], results[1]);
    EXPECT_EQ(results[0], results[2]);
}

TEST_P(ShippedEffectTest, AccumulatingProcessAddsToTheOutput)
{
    auto replacing = Load();
    auto accumulating = Load();
    ASSERT_TRUE(replacing && accumulating);
    const std::vector<float> voice = VoicedSignal(150.0, kRate, 0.5);
    const std::vector<float> expected = replacing->ProcessMono(voice);
    std::vector<float> in0 = voice;
    std::vector<float> in1(voice.size(), 0.0f);
    std::vector<float> out0(voice.size(), 1.0f);
    std::vector<float> out1(voice.size(), 1.0f);
    float* ins[] = { in0.data(), in1.data() };
    float* outs[] = { out0.data(), out1.data() };
    // Odd lengths cross the glue's internal chunking.
    for (size_t done = 0; done < voice.size();) {
        const auto n = std::min<size_t>(700, voice.size() - done);
        float* inBlock[] = { ins[0] + done, ins[1] + done };
        float* outBlock[] = { outs[0] + done, outs[1] + done };
        accumulating->Effect().process(&accumulating->Effect(), inBlock, outBlock, static_cast<int32_t>(n));
        done += n;
    }
    for (size_t i = 0; i < voice.size(); ++i) {
        ASSERT_NEAR(out0[i], 1.0f + expected[i], 1e-5f) << "at " << i;
        ASSERT_EQ(out1[i], 1.0f) << "at " << i;
    }
}

TEST_P(ShippedEffectTest, ProcessingAllocatesNothing)
{
    auto plugin = Load();
    ASSERT_NE(plugin, nullptr);
    const std::vector<float> voice = GlidingVoice(100.0, 220.0, kRate, 2.0);
    std::vector<float> in0 = voice;
    std::vector<float> in1(voice.size(), 0.0f);
    std::vector<float> out0(voice.size());
    std::vector<float> out1(voice.size());
    vst::AEffect& e = plugin->Effect();
    const int32_t params = e.numParams;

    g_allocations = 0;
    g_countAllocations = true;
    for (size_t done = 0, block = 0; done + 1103 <= voice.size(); done += 1103, ++block) {
        // Parameter changes arrive between blocks, as a host's automation does.
        e.setParameter(&e, static_cast<int32_t>(block % static_cast<size_t>(params)),
                       static_cast<float>(block % 7) / 6.0f);
        float* ins[] = { in0.data() + done, in1.data() + done };
        float* outs[] = { out0.data() + done, out1.data() + done };
        e.processReplacing(&e, ins, outs, 1103);
        e.process(&e, ins, outs, 1103);
    }
    g_countAllocations = false;
    EXPECT_EQ(g_allocations.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Effects, ShippedEffectTest, ::testing::ValuesIn(ShippedEffects()),
                         [](const auto& param) { return param.param; });
INSTANTIATE_TEST_SUITE_P(Effects, RateTest,
                         ::testing::Combine(::testing::ValuesIn(ShippedEffects()), ::testing::Values(48000.0f, 96000.0f)),
                         [](const auto& param) {
                             return std::get<0>(param.param) + "At" + std::to_string(static_cast<int>(std::get<1>(param.param)));
                         });

} // namespace
} // namespace larimo::test
