// SPDX-License-Identifier: GPL-3.0-or-later
// The application object: prepares the environment, makes sure the voice service can run,
// shows the main window and cleans up after it.
#pragma once

#include <functional>
#include <string>

namespace larimo {

class CLarimoDlg;
class Config;
class MessageBoxSink;

/// Main thread, with a QApplication in existence.
class CMoApp {
public:
    /// How a run ended.
    enum class Outcome {
        kClosed,          ///< the main window was shown and closed
        kTextsFailed,     ///< the texts could not start; nothing was shown
        kDriverMissing,   ///< the virtual microphone is missing
        kMutexFailed,     ///< the single-instance mutex could not be made
        kAlreadyRunning,  ///< another panel holds the single-instance mutex
        kWizardCancelled, ///< the first-start wizard did not complete
        kInstallFailed,   ///< the service could not be installed or upgraded
        kRunFailed,       ///< the service could not be started
        kSkinFailed,      ///< the main window's skin could not be loaded
    };

    /// What a caller may put in place of the defaults; tests use them to run start-up in a
    /// temporary app folder and to look at the main window.
    struct Hooks {
        /// The app folder; empty: the folder of the running program.
        std::string programFolder;
        /// The first-start step; by default the configuration wizard.
        std::function<bool(Config&)> wizard;
        /// Called once the main window is shown; the run goes on until it closes.
        std::function<void(CLarimoDlg&)> mainWindowShown;
        /// Every message box goes here; null: QMessageBox.
        MessageBoxSink* messageSink = nullptr;
    };

    CMoApp();
    explicit CMoApp(Hooks hooks);

    /// The whole start-up, the main window's run and the shutdown.
    Outcome InitInstance();

    static const char* OutcomeName(Outcome outcome);

private:
    bool ShowWizard();

    Hooks m_hooks;
};

} // namespace larimo
