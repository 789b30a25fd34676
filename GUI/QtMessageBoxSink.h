// SPDX-License-Identifier: GPL-3.0-or-later
// Message boxes of the core shown as QMessageBox, and help topics opened in the desktop's
// browser.
#pragma once

#include "error.h"
#include "help.h"

namespace larimo {

/// Installed at start-up. Calls from other threads are carried to the window thread and wait
/// there for the answer, so they must not hold a lock the window thread may want.
class QtMessageBoxSink final : public MessageBoxSink {
public:
    int ShowMessageBox(void* owner, const std::string& text, const std::string& caption,
                       unsigned style) override;
    /// The box on the window thread.
    static int ShowOnWindowThread(void* owner, const std::string& text, const std::string& caption,
                                  unsigned style);
};

/// Opens the page HelpTargetToLocation finds, at its fragment. Window thread.
class DesktopHelpViewer final : public HelpViewer {
public:
    void DisplayTopic(void* owner, const std::string& target) override;
};

} // namespace larimo
