// SPDX-License-Identifier: GPL-3.0-or-later
// The first-run configuration wizard: which recording device and line carry the microphone,
// and where the user listens.
#pragma once

#include "config.h"

namespace larimo {

/// Start-up's wizard step. `settings` is a settings object of the step's own, read from the
/// files (Config::LoadAll) just before. When its `m_wizard` is already set nothing is shown and
/// the result is true. Otherwise the wizard runs on it; when the user completes it (or nothing
/// needed asking), `m_wizard` becomes true and the general and sound card keys are written
/// back, and the result is true. False means the program must end: the wizard was cancelled or
/// the machine has no recording or no playback device (the user has been told).
/// Window thread only, with a QApplication in existence.
bool ShowWizard(Config& settings);

/// Lists the devices, takes any device that is the only one of its kind without asking, and
/// asks the rest in the wizard sheet. Stores `m_input`, `m_mixInSrc` and `m_monitor` into
/// `settings` and writes no file. True when the program may go on. Window thread only.
bool WizardStart(Config& settings);

/// Shows the wizard sheet with the recording page and/or the playback page, modally. False
/// only when the user cancelled it; true at once when neither page is to be shown.
/// Window thread only.
bool RunWizardSheet(Config& settings, bool showInput, bool showMonitor);

} // namespace larimo
