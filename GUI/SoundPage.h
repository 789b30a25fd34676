// SPDX-License-Identifier: GPL-3.0-or-later
// What the two sound tabs share: a Test button that plays a library sound through the sheet's
// preview stream and turns into Stop while it plays.
#pragma once

#include "OptionsPage.h"

#include <cstdint>
#include <string>

class QPushButton;

namespace larimo {

/// Window thread.
class CSoundPage : public COptionsPage {
    Q_OBJECT
public:
    CSoundPage(COptionsSheet& sheet, int templateId);

    bool IsPlaying() const { return m_playing; }
    QPushButton* TestButton() const { return m_test; }
    void OnTestStop() override;

protected:
    /// Plays the sound at `path` at `volume` percent; a sound that cannot be loaded is shown
    /// with the text `loadErrorText` (and the WAV error). True when it plays.
    bool StartPreview(const std::string& path, uint8_t volume, unsigned loadErrorText);
    /// Stops a preview of this page; `scope` names the page in the log.
    void StopPreview(const char* scope);

    QPushButton* m_test = nullptr;

private:
    void ShowPlaying(bool playing);

    bool m_playing = false;
};

} // namespace larimo
