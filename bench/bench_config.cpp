// SPDX-License-Identifier: GPL-3.0-or-later
// Loading and saving a large set of settings: 300 fun sounds and 100 voice effects of 20
// parameters each. Goal: each well under 2 ms.
#include "config.h"

#include "keyboard.h"

#include <benchmark/benchmark.h>

#include <stdlib.h>

#include <filesystem>
#include <stdexcept>
#include <string>

namespace {

namespace fs = std::filesystem;

class LargeSettings {
public:
    explicit LargeSettings(const fs::path& parent)
    {
        std::string pattern = (parent / "larimo-bench-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("cannot create a folder in " + parent.string());
        m_root = pattern + "/";

        larimo::Config config(m_root);
        config.LoadAll();
        for (int i = 0; i < 300; ++i) {
            const std::string n = std::to_string(i);
            config.m_emotics.push_back({ "Fun sound number " + n, "Category " + std::to_string(i % 12) + "\\Sound" + n + ".wav" });
        }
        for (int e = 0; e < 100; ++e) {
            larimo::VoiceEffect effect { "plugin" + std::to_string(e % 7), "Voice effect " + std::to_string(e), {} };
            for (int p = 0; p < 20; ++p)
                effect.m_values.push_back({ static_cast<float>((e * 20 + p) % 1000) / 1000.0f, "" });
            config.m_effects.push_back(std::move(effect));
        }
        config.m_effectSlots = { "Voice effect 1", "Voice effect 50", "Voice effect 99" };
        for (size_t i = 0; i < config.m_shortcuts.size(); ++i)
            config.m_shortcuts[i] = larimo::MakeShortcut(static_cast<uint32_t>(65 + i), larimo::kModCtrl);
        if (!config.SaveAll())
            throw std::runtime_error("cannot save the settings in " + m_root);
    }
    ~LargeSettings()
    {
        std::error_code ignored;
        fs::remove_all(m_root, ignored);
    }
    LargeSettings(const LargeSettings&) = delete;
    LargeSettings& operator=(const LargeSettings&) = delete;

    const std::string& Root() const { return m_root; }

private:
    std::string m_root;
};

fs::path Parent(bool memory)
{
    // /dev/shm shows the cost of our own code without the disk's flush time.
    if (memory && fs::is_directory("/dev/shm"))
        return "/dev/shm";
    return fs::temp_directory_path();
}

void BM_LoadAll(benchmark::State& state)
{
    const LargeSettings settings(Parent(state.range(0) != 0));
    for (auto _ : state) {
        larimo::Config config(settings.Root());
        config.LoadAll();
        benchmark::DoNotOptimize(config.m_effects.data());
    }
}
BENCHMARK(BM_LoadAll)->ArgName("shm")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

void BM_SaveAll(benchmark::State& state)
{
    const LargeSettings settings(Parent(state.range(0) != 0));
    larimo::Config config(settings.Root());
    config.LoadAll();
    for (auto _ : state) {
        // A change in config.ini each time, so both files are really written.
        config.m_monitorVol = static_cast<uint8_t>(config.m_monitorVol == 100 ? 99 : 100);
        if (!config.SaveAll())
            state.SkipWithError("SaveAll failed");
    }
}
BENCHMARK(BM_SaveAll)->ArgName("shm")->Arg(0)->Arg(1)->Unit(benchmark::kMicrosecond);

} // namespace
