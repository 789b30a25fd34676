// SPDX-License-Identifier: GPL-3.0-or-later
// What the tests of the options sheet and its pages share: an app folder with a real voice
// service, the settings the panel would hold, message boxes answered as a test chooses, and
// what the service was asked, read from its log.
#pragma once

#include "../server/ServiceProcess.h"
#include "OptionsSheet.h"
#include "config.h"
#include "error.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace larimo {
class CMoListBox;
}

namespace larimo::test {

/// Keeps every message box and answers questions with `m_answer` (Yes unless a test says).
class AnsweringSink final : public MessageBoxSink {
public:
    int ShowMessageBox(void* owner, const std::string& text, const std::string& caption, unsigned style) override;

    std::vector<std::string> m_texts;
    std::vector<std::string> m_captions;
    int m_answer = IDYES;
};

/// The English texts of the source tree, the panel's settings in `[sys]`, and `extra` sections.
std::string PanelSettings(const std::string& extra);

class OptionsTest : public ::testing::Test {
protected:
    explicit OptionsTest(const std::string& configIni);

    static void SetUpTestSuite();
    static void TearDownTestSuite();
    /// Skips the case away from the private sound server; loads the settings and the texts
    /// from the service's app folder and installs the message sink.
    void SetUp() override;
    void TearDown() override;

    /// Starts the service and makes its client the panel's.
    void Connect();
    /// How many commands of `code` the service has logged, after a moment for late ones.
    int Requests(uint32_t code) const;
    /// A file of the app folder as text.
    std::string File(const std::string& name) const;
    /// Opens a sheet with every page on the real settings, shown, with page `index` active.
    COptionsSheet& OpenSheet(int index, CMoListBox* funSounds = nullptr);
    template <typename Page>
    Page& OpenPage(int index)
    {
        return *qobject_cast<Page*>(OpenSheet(index).Page(index));
    }

    ServiceProcess m_service;
    AnsweringSink m_sink;
    std::unique_ptr<Config> m_settings;
    std::atomic<bool> m_connected{false};
    std::unique_ptr<COptionsSheet> m_sheet;
};

} // namespace larimo::test
