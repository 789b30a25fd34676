// SPDX-License-Identifier: GPL-3.0-or-later
// What the wizard tests share: an application on the offscreen platform, a data root of the
// test's own with "test.wav", recorded message boxes, and a hand on the modal sheet.
#pragma once

#include "WizardSheet.h"
#include "config.h"
#include "error.h"

#include <QTimer>
#include <QVariant>
#include <QWidget>

#include <gtest/gtest.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace larimo {

class RecordedMessages : public MessageBoxSink {
public:
    int ShowMessageBox(void* owner, const std::string& text, const std::string& caption, unsigned style) override;
    void Clear();

    std::vector<std::string> texts;
    std::vector<std::string> captions;
    std::vector<unsigned> styles;
};

class WizardFixture : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

    std::filesystem::path m_root;
    Config m_settings;
    RecordedMessages m_messages;
};

struct SheetWatchState {
    bool shown = false;
    std::unique_ptr<QTimer> timer;
};
using SheetWatch = std::shared_ptr<SheetWatchState>;

/// Runs `action` once on the first wizard sheet that runs modally from now on; a sheet the
/// action leaves open is cancelled, so a failed expectation never hangs the test.
SheetWatch WatchForSheet(std::function<void(CWizardSheet&)> action);

/// Lets the event loop run until `done` holds or `timeoutMs` has passed.
bool WaitUntil(const std::function<bool()>& done, int timeoutMs = 3000);

/// A sine tone as 16-bit little-endian mono bytes at 44100 Hz.
std::vector<uint8_t> SineBytes(double hertz, int amplitude, std::size_t samples);

/// The samples of the shipped "test.wav", read straight from its data chunk.
std::vector<int16_t> TestWaveSamples();

/// A string-table text filled with one text argument.
std::string FillTextFor(unsigned id, const std::string& argument);

/// The page's control with the given id.
template <typename T>
T* Ctrl(QWidget& page, int id)
{
    for (T* widget : page.findChildren<T*>()) {
        if (widget->property("ctrlId").toInt() == id)
            return widget;
    }
    ADD_FAILURE() << "no control " << id;
    static T* none = nullptr;
    return none;
}

} // namespace larimo
