// SPDX-License-Identifier: GPL-3.0-or-later
#include "EffectTestSupport.h"

#include "mlog.h"

#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <numbers>
#include <sstream>

#include <dlfcn.h>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer keeps SIGSEGV to itself unless told to let the program install a handler,
// and the plug-ins that crash on purpose need the crash guard's.
extern "C" __attribute__((used, visibility("default"))) const char* __asan_default_options()
{
    return "allow_user_segv_handler=1";
}
#endif

namespace larimo::test {

std::string TestPluginPath(const std::string& kind)
{
    return std::string(LARIMO_TEST_PLUGIN_DIR) + "/" + kind + ".so";
}

TestPluginProbe::TestPluginProbe(const std::string& kind)
    : m_handle(dlopen(TestPluginPath(kind).c_str(), RTLD_NOW | RTLD_LOCAL))
{
    if (m_handle == nullptr) {
        ADD_FAILURE() << "cannot load " << kind << ": " << dlerror();
        return;
    }
    m_calls = reinterpret_cast<TestPluginCallsProc>(dlsym(m_handle, "LarimoTestPluginCalls"));
    m_hostVersion = reinterpret_cast<TestPluginHostVersionProc>(dlsym(m_handle, "LarimoTestPluginHostVersion"));
    m_processCount = reinterpret_cast<TestPluginProcessCountProc>(dlsym(m_handle, "LarimoTestPluginProcessCount"));
    const auto reset = reinterpret_cast<TestPluginResetProc>(dlsym(m_handle, "LarimoTestPluginReset"));
    if (m_calls == nullptr || m_hostVersion == nullptr || m_processCount == nullptr || reset == nullptr)
        ADD_FAILURE() << kind << " lacks its test functions";
    else
        reset();
}

TestPluginProbe::~TestPluginProbe()
{
    if (m_handle != nullptr)
        dlclose(m_handle);
}

std::vector<int32_t> TestPluginProbe::Calls() const
{
    std::vector<int32_t> calls(256);
    if (m_calls == nullptr)
        return {};
    calls.resize(static_cast<size_t>(m_calls(calls.data(), static_cast<int>(calls.size()))));
    return calls;
}

intptr_t TestPluginProbe::HostVersion() const
{
    return m_hostVersion != nullptr ? m_hostVersion() : -1;
}

int TestPluginProbe::ProcessCount() const
{
    return m_processCount != nullptr ? m_processCount() : -1;
}

LogCapture::LogCapture()
{
    static int s_count = 0;
    m_path = (std::filesystem::temp_directory_path() /
              ("larimo-effect-test-" + std::to_string(getpid()) + "-" + std::to_string(++s_count) + ".log"))
                 .string();
    std::filesystem::remove(m_path);
    LogOpen(m_path, false, false, false, false, false);
}

LogCapture::~LogCapture()
{
    LogOpen("", false, false, false, false, false);
    std::error_code ignored;
    std::filesystem::remove(m_path, ignored);
}

std::string LogCapture::Text() const
{
    std::ifstream in(m_path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

RecordingMessageSink::RecordingMessageSink()
{
    SetMessageBoxSink(this);
}

RecordingMessageSink::~RecordingMessageSink()
{
    SetMessageBoxSink(nullptr);
}

int RecordingMessageSink::ShowMessageBox(void* owner, const std::string& text, const std::string& caption,
                                         unsigned style)
{
    m_messages.push_back({owner, text, caption, style});
    return IDOK;
}

std::vector<int16_t> SineSamples(double hz, double amplitude, size_t count)
{
    std::vector<int16_t> samples(count);
    for (size_t i = 0; i < count; ++i)
        samples[i] = static_cast<int16_t>(
            std::lround(amplitude * 32767.0 * std::sin(2.0 * std::numbers::pi * hz * static_cast<double>(i) / 44100.0)));
    return samples;
}

namespace {

// Energy of one frequency over the whole signal (Goertzel), with a Hann window so that a
// strong tone does not leak into its neighbours.
double Energy(const std::vector<int16_t>& samples, double rate, double hz)
{
    const double coefficient = 2.0 * std::cos(2.0 * std::numbers::pi * hz / rate);
    const double n = static_cast<double>(samples.size());
    double previous = 0.0;
    double beforePrevious = 0.0;
    for (size_t i = 0; i < samples.size(); ++i) {
        const double window = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * static_cast<double>(i) / n);
        const double current = window * samples[i] + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    return previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
}

} // namespace

double DominantFrequency(const std::vector<int16_t>& samples, double rate, double lowHz, double highHz)
{
    auto best = [&](double from, double to, double step) {
        double bestHz = from;
        double bestEnergy = -1.0;
        for (double hz = from; hz <= to; hz += step) {
            const double energy = Energy(samples, rate, hz);
            if (energy > bestEnergy) {
                bestEnergy = energy;
                bestHz = hz;
            }
        }
        return bestHz;
    };
    const double coarse = best(lowHz, highHz, 5.0);
    return best(coarse - 5.0, coarse + 5.0, 0.5);
}

} // namespace larimo::test
