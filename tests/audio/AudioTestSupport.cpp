// SPDX-License-Identifier: GPL-3.0-or-later
#include "audio/AudioTestSupport.h"
#include "platform/pulse/PulseBackend.h"

#include "mlog.h"
#include "texts.h"

#include <cstring>
#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <thread>

namespace larimo::test {

const std::string& TestLogPath()
{
    // A death test's child process inherits the path, so both write one log.
    static const std::string path = [] {
        if (const char* inherited = std::getenv("LARIMO_AUDIO_TEST_LOG"); inherited != nullptr) {
            LogOpen(inherited, false, false, false, false, false);
            return std::string(inherited);
        }
        std::string pattern = (std::filesystem::temp_directory_path() / "larimo-audio-XXXXXX").string();
        const char* folder = mkdtemp(pattern.data());
        const std::string file = std::string(folder != nullptr ? folder : ".") + "/larimocl.log";
        setenv("LARIMO_AUDIO_TEST_LOG", file.c_str(), 1);
        LogOpen(file, false, false, false, false, false);
        return file;
    }();
    return path;
}

std::string ReadTestLog()
{
    std::ifstream in(TestLogPath());
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds limit)
{
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

::testing::AssertionResult StartRecording(CallbackEngine& engine, PaStreamIn& stream, const std::string& name,
                                          uint32_t bufferMs, uint32_t count)
{
    int device = kNoDevice;
    if (PaGetDevNByName(name, 1, device) != kMmeSuccess)
        return ::testing::AssertionFailure() << "no recording device \"" << name << "\"";
    if (const uint32_t error = stream.Open(engine.ThreadId(), device, 16, 44100, bufferMs, count); error != kMmeSuccess)
        return ::testing::AssertionFailure() << "\"" << name << "\" did not open (" << error << ")";
    if (const uint32_t error = stream.Start(); error != kMmeSuccess)
        return ::testing::AssertionFailure() << "\"" << name << "\" did not start (" << error << ")";
    return ::testing::AssertionSuccess();
}

CallbackEngine::CallbackEngine() = default;

CallbackEngine::~CallbackEngine()
{
    StopEngine();
}

void CallbackEngine::OnInputData(PaBuffer buffer)
{
    if (m_onInput)
        m_onInput(buffer);
    std::lock_guard lock(m_mutex);
    m_inputs.push_back(Seen{buffer, std::vector<char>(buffer.data, buffer.data + buffer.validBytes)});
    m_changed.notify_all();
}

void CallbackEngine::OnOutputDone(PaBuffer buffer)
{
    if (m_onOutput)
        m_onOutput(buffer);
    std::lock_guard lock(m_mutex);
    m_outputs.push_back(Seen{buffer, {}});
    m_changed.notify_all();
}

bool CallbackEngine::WaitFor(const std::function<bool()>& done)
{
    std::unique_lock lock(m_mutex);
    return m_changed.wait_for(lock, std::chrono::seconds(5), done);
}

bool CallbackEngine::WaitInputs(std::size_t count)
{
    return WaitFor([&] { return m_inputs.size() >= count; });
}

bool CallbackEngine::WaitOutputs(std::size_t count)
{
    return WaitFor([&] { return m_outputs.size() >= count; });
}

std::vector<CallbackEngine::Seen> CallbackEngine::Inputs()
{
    std::lock_guard lock(m_mutex);
    return m_inputs;
}

std::vector<CallbackEngine::Seen> CallbackEngine::Outputs()
{
    std::lock_guard lock(m_mutex);
    return m_outputs;
}

VirtualAudioTest::VirtualAudioTest(std::vector<std::string> inputs, std::vector<std::string> outputs)
    : m_audio(std::make_shared<VirtualAudio>(std::move(inputs), std::move(outputs)))
{
}

void VirtualAudioTest::SetUp()
{
    StartEnglishTexts();
    TestLogPath();
    m_previous = SetAudioBackend(m_audio);
}

void VirtualAudioTest::TearDown()
{
    SetAudioBackend(m_previous);
}

void PrivateSoundServerTest::SetUp()
{
    const char* server = std::getenv("PULSE_SERVER");
    if (server == nullptr || std::strstr(server, "soundserver") == nullptr)
        GTEST_SKIP() << "needs the private sound server of the CTest fixture (PULSE_SERVER)";
    StartEnglishTexts();
    TestLogPath();
    m_previous = SetAudioBackend(CreatePulseBackend());
    m_installed = true;
}

void PrivateSoundServerTest::TearDown()
{
    if (m_installed)
        SetAudioBackend(m_previous);
}

} // namespace larimo::test
