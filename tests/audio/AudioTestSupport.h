// SPDX-License-Identifier: GPL-3.0-or-later
// An engine that records what its callbacks see, and a fixture that installs simulated devices.
#pragma once

#include "platform/virtual/VirtualAudio.h"
#include "wmme.h"

#include "../WaveTestFiles.h"

#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace larimo::test {

/// Opens a log file in a fresh temporary folder once per test program and returns its path.
const std::string& TestLogPath();
std::string ReadTestLog();

class CallbackEngine : public PortAudio {
public:
    CallbackEngine();
    ~CallbackEngine() override;

    struct Seen {
        PaBuffer buffer;
        std::vector<char> bytes;
    };

    /// Waits (at most a few seconds, a liveness bound) until at least `count` of each arrived.
    bool WaitInputs(std::size_t count);
    bool WaitOutputs(std::size_t count);
    std::vector<Seen> Inputs();
    std::vector<Seen> Outputs();

    std::function<void(PaBuffer)> m_onInput;
    std::function<void(PaBuffer)> m_onOutput;

protected:
    void OnInputData(PaBuffer buffer) override;
    void OnOutputDone(PaBuffer buffer) override;

private:
    bool WaitFor(const std::function<bool()>& done);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<Seen> m_inputs;
    std::vector<Seen> m_outputs;
};

/// Installs a VirtualAudio with the given devices for the length of a test.
class VirtualAudioTest : public ::testing::Test {
protected:
    explicit VirtualAudioTest(std::vector<std::string> inputs = {"Microphone (USB Audio Device)", "Line In"},
                              std::vector<std::string> outputs = {"Speakers", "Headphones"});
    void SetUp() override;
    void TearDown() override;

    std::shared_ptr<VirtualAudio> m_audio;

private:
    std::shared_ptr<AudioBackend> m_previous;
};

/// Runs a case against the private sound server of the CTest fixture, through the PulseAudio
/// backend; skipped elsewhere, so a test never changes the defaults of a desktop's own server.
class PrivateSoundServerTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

private:
    std::shared_ptr<AudioBackend> m_previous;
    bool m_installed = false;
};

/// Opens a 16-bit 44.1 kHz recording stream on the device `name` finds (as the service finds
/// its devices) on `engine`, of `count` buffers of `bufferMs`, and starts it.
::testing::AssertionResult StartRecording(CallbackEngine& engine, PaStreamIn& stream, const std::string& name,
                                          uint32_t bufferMs, uint32_t count);

/// Waits, bounded, until `done` holds.
bool Eventually(const std::function<bool()>& done, std::chrono::milliseconds limit = std::chrono::seconds(5));

} // namespace larimo::test
