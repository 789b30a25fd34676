// SPDX-License-Identifier: GPL-3.0-or-later
// The general tab: the microphone the voice service records from and its input line, the
// speakers the listen-in plays to, the microphone's cleaning, starting with the desktop
// session, and a restart of the voice service.
#pragma once

#include "OptionsPage.h"
#include "wmme.h"

#include <functional>
#include <memory>
#include <string>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;

namespace larimo {

class CMicCleanupGroup;

/// Window thread, except the restart worker, which only posts to it.
class CPgSoundCard final : public COptionsPage {
    Q_OBJECT
public:
    static constexpr int kAutostartId = 1022;
    static constexpr int kRecordingId = 1044;
    static constexpr int kPlaybackId = 1045;
    static constexpr int kSourceId = 1071;
    static constexpr int kRestartId = 1105;
    static constexpr int kAutostartNoteId = 1106;
    /// How often and how long the restart looks for the service to have gone.
    static constexpr int kStopLooks = 20;
    static constexpr int kStopLookMs = 150;
    /// How long a closing page waits for a restart that still runs.
    static constexpr int kWorkerWaitMs = 5000;

    explicit CPgSoundCard(COptionsSheet& sheet);
    ~CPgSoundCard() override;

    // The handlers, as the controls run them.
    void OnAutostart(bool on);
    void OnRestart();
    /// Chooses the entry of a device list that begins with `name` (as the stored settings do).
    static void SelectByPrefix(QComboBox& list, const std::string& name);

    /// Whether a restart of the service is under way.
    bool RestartRunning() const;
    /// How the service is stopped and started (the service manager's calls by default); tests
    /// replace them. Each returns an NtService result and may run on the worker thread.
    using ServiceCall = std::function<int(const std::string& name)>;
    void SetServiceCalls(ServiceCall stop, ServiceCall start);

    QComboBox* Recording() const { return m_recording; }
    QComboBox* Playback() const { return m_playback; }
    QComboBox* Source() const { return m_source; }
    QCheckBox* Autostart() const { return m_autostart; }
    QLabel* AutostartNote() const { return m_autostartNote; }
    QPushButton* RestartButton() const { return m_restartButton; }
    CMicCleanupGroup* MicGroup() const { return m_mic; }

private:
    struct RestartJob;

    void ShowMixerLines(const std::string& device);
    void Store();
    void OnRecordingChanged();
    std::string ProgramPath() const;
    static void RunRestart(const std::shared_ptr<RestartJob>& job);

    QCheckBox* m_autostart = nullptr;
    QLabel* m_autostartNote = nullptr;
    QComboBox* m_recording = nullptr;
    QComboBox* m_playback = nullptr;
    QComboBox* m_source = nullptr;
    QPushButton* m_restartButton = nullptr;
    CMicCleanupGroup* m_mic = nullptr;
    PortMixer m_mixer;
    ServiceCall m_stop;
    ServiceCall m_start;
    std::shared_ptr<RestartJob> m_restart;
};

} // namespace larimo
