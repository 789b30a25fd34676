// SPDX-License-Identifier: GPL-3.0-or-later
// The "Microphone" group of the general options: noise suppression and the noise gate of the
// voice service, with a live meter that shows the microphone before and after cleaning and
// whether the gate is open, so the user sees where to put the threshold.
#pragma once

#include "VoiceCleaner.h"
#include "config.h"
#include "wmme.h"

#include <QGroupBox>
#include <QWidget>

#include <atomic>
#include <memory>
#include <string>

class QCheckBox;
class QLabel;
class QSlider;

namespace larimo {

/// A horizontal level meter from -80 to 0 dBFS: the raw level faint, the cleaned level strong
/// (green while the gate is open), and a mark at the gate's threshold. Window thread.
class CMicLevelMeter : public QWidget {
    Q_OBJECT

public:
    static constexpr float kFloorDb = -80.0f;

    explicit CMicLevelMeter(QWidget* parent = nullptr);

    void SetLevels(float rawDb, float cleanedDb, bool gateOpen);
    /// The threshold mark; no mark while the gate is off.
    void SetThreshold(bool gateOn, int thresholdDb);

    float RawDb() const { return m_rawDb; }
    float CleanedDb() const { return m_cleanedDb; }
    bool GateOpen() const { return m_gateOpen; }

    QSize sizeHint() const override;

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    int XForDb(float db) const;

    float m_rawDb = kFloorDb;
    float m_cleanedDb = kFloorDb;
    bool m_gateOpen = false;
    bool m_gateOn = false;
    int m_thresholdDb = -50;
};

/// The group itself. It edits the `voice` fields of a settings object (the options' working
/// copy) and says so with Changed(); while shown it records the chosen microphone and runs a
/// cleaner of its own over it for the meter. Window thread, except OnInputData.
class CMicCleanupGroup : public QGroupBox, public PortAudio {
    Q_OBJECT

public:
    // Control ids of the group's controls.
    enum ControlId : int {
        kNoiseCheck = 1300,
        kStrengthSlider = 1301,
        kGateCheck = 1302,
        kThresholdSlider = 1303,
        kMeter = 1304,
        kMeterNote = 1305,
    };

    CMicCleanupGroup(Config& settings, QWidget* parent = nullptr);
    ~CMicCleanupGroup() override;

    /// Shows the settings' values again and restarts the meter on their recording device
    /// (after the user chose another microphone).
    void Refresh();
    /// Whether the meter records now.
    bool Metering();
    CMicLevelMeter* Meter() const { return m_meter; }

signals:
    /// The user changed a setting in the group.
    void Changed();

protected:
    void showEvent(QShowEvent* event) override;
    void hideEvent(QHideEvent* event) override;
    void timerEvent(QTimerEvent* event) override;
    /// Engine thread: cleans a copy of the block as the service would and keeps the levels.
    void OnInputData(PaBuffer buffer) override;

private:
    void ShowValues();
    void OnControlsChanged();
    void StartMeter();
    void StopMeter();
    VoiceCleanup CurrentCleanup() const;

    Config& m_settings;
    QCheckBox* m_noise = nullptr;
    QSlider* m_strength = nullptr;
    QLabel* m_strengthText = nullptr;
    QCheckBox* m_gate = nullptr;
    QSlider* m_threshold = nullptr;
    QLabel* m_thresholdText = nullptr;
    CMicLevelMeter* m_meter = nullptr;
    QLabel* m_note = nullptr;
    int m_timer = 0;

    PaStreamIn m_stream;
    // Made before the stream starts and used only by the engine thread while it runs.
    std::unique_ptr<VoiceCleaner> m_cleaner;
    std::vector<int16_t> m_work;
    // What the user chose, for the engine thread.
    std::atomic<bool> m_noiseOn{true};
    std::atomic<int> m_strengthDb{25};
    std::atomic<bool> m_gateOn{false};
    std::atomic<int> m_thresholdDb{-50};
    // What the engine thread measured, for the window thread.
    std::atomic<float> m_rawDb{CMicLevelMeter::kFloorDb};
    std::atomic<float> m_cleanedDb{CMicLevelMeter::kFloorDb};
    std::atomic<bool> m_gateOpen{false};
};

} // namespace larimo
