// SPDX-License-Identifier: GPL-3.0-or-later
// What the panel's controls and hot keys do to the settings and the voice service, in one
// place for the main window and larimoctl: each action changes the settings object, writes
// its section at once and, while a service is connected, sends one command.
#pragma once

#include <memory>

namespace larimo {

class Config;
class MoIpcCli;

/// Window thread (panel) or the main thread (larimoctl). Commands that fail are logged and
/// do not undo the settings change; the service reads the settings when it starts.
class PanelActions {
public:
    explicit PanelActions(Config& settings);

    /// Active voice effect slot (0..2) or -1; writes the general keys.
    void SelectEffect(int index);
    /// Active background slot (0..2) or -1; writes the general keys.
    void SelectSound(int index);
    /// Hot-key form: the slot becomes active, or inactive when it already was. Returns the
    /// new active index.
    int ToggleEffect(int slot);
    int ToggleSound(int slot);

    /// A background slot's volume, 0..100 (clamped); writes that slot.
    void ChangeSound(int slot, int volume);
    /// Up or down by 10, clamped; returns the new volume.
    int StepBackSoundVolume(int slot, bool up);

    /// Listen-in on or off; writes the monitor section.
    void SetMonitor(bool on);
    void ToggleMonitor();
    /// Listen-in volume 0..100 (clamped); writes the monitor section.
    void ChangeMonitorLvl(int level);

    /// What the service does to the microphone before the voice effect: noise suppression on or
    /// off, the gate on or off, or the gate on at `thresholdDb` dBFS (clamped to -80..-10). Each
    /// writes the voice section and has the service read the settings again.
    void SetNoiseSuppression(bool on);
    void SetGate(bool on);
    void SetGateThreshold(int thresholdDb);

    /// Background and effect off, every fun sound stopped.
    void StopAll();

    /// Starts or stops fun sound `row`. Only a connected service plays sounds: returns whether
    /// the command was answered.
    bool PlayFunSound(int row, bool play);

    /// The connected client, or null.
    static std::shared_ptr<MoIpcCli> Client();

private:
    void ApplyVoice(const char* scope);

    Config& m_settings;
};

} // namespace larimo
