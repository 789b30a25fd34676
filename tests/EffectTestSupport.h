// SPDX-License-Identifier: GPL-3.0-or-later
// Helpers for the plug-in host's tests: the test plug-ins and a look into them, the log of a
// test, and a message box that only records.
#pragma once

#include "error.h"
#include "tests/vstplugins/TestPluginKinds.h"

#include <cstdint>
#include <string>
#include <vector>

namespace larimo::test {

/// The file of a test plug-in, by its kind's name ("Stereo" gives ".../Stereo.so").
std::string TestPluginPath(const std::string& kind);

/// Holds a test plug-in loaded for the test itself, so that its state outlives the host's
/// loads and unloads, and asks it what happened.
class TestPluginProbe {
public:
    explicit TestPluginProbe(const std::string& kind);
    ~TestPluginProbe();
    TestPluginProbe(const TestPluginProbe&) = delete;
    TestPluginProbe& operator=(const TestPluginProbe&) = delete;

    std::vector<int32_t> Calls() const;
    intptr_t HostVersion() const;
    int ProcessCount() const;

private:
    void* m_handle = nullptr;
    TestPluginCallsProc m_calls = nullptr;
    TestPluginHostVersionProc m_hostVersion = nullptr;
    TestPluginProcessCountProc m_processCount = nullptr;
};

/// Sends the log to a fresh file for the lifetime of the object.
class LogCapture {
public:
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::string Text() const;

private:
    std::string m_path;
};

/// Records message boxes instead of showing them, while it lives.
class RecordingMessageSink : public MessageBoxSink {
public:
    struct Message {
        void* owner;
        std::string text;
        std::string caption;
        unsigned style;
    };
    RecordingMessageSink();
    ~RecordingMessageSink() override;
    RecordingMessageSink(const RecordingMessageSink&) = delete;
    RecordingMessageSink& operator=(const RecordingMessageSink&) = delete;
    int ShowMessageBox(void* owner, const std::string& text, const std::string& caption, unsigned style) override;

    std::vector<Message> m_messages;
};

/// A mono 16-bit sine.
std::vector<int16_t> SineSamples(double hz, double amplitude, size_t count);
/// The frequency with the most energy between `lowHz` and `highHz`, to about 1 Hz.
double DominantFrequency(const std::vector<int16_t>& samples, double rate, double lowHz, double highHz);

} // namespace larimo::test
