// SPDX-License-Identifier: GPL-3.0-or-later
// The wizard's playback page: where the user listens, with a looping test sound and the
// device's playback volume.
#pragma once

#include "WizardPage.h"
#include "WizardTestSound.h"

#include <cstdint>
#include <vector>

class QPushButton;
class QSlider;

namespace larimo {

class OSCI;

class CPgWzMonitor : public CWizardPage {
    Q_OBJECT

public:
    static constexpr int kDialogId = 136;
    /// Buffers queued ahead when the test starts.
    static constexpr int kPrimedBuffers = 6;

    /// Window thread.
    CPgWzMonitor(Config& settings, int pageCount, QWidget* parent = nullptr);
    ~CPgWzMonitor() override;

    void StopStreams() override;
    bool validatePage() override;
    void cleanupPage() override;

    /// Whether the test sound plays now. Window thread.
    bool Playing() const { return m_playing; }

protected:
    void OnInitDialog() override;
    void OnSetActive() override;
    void OnMixerChange(uint32_t controlId) override;
    void OnOutputDone(PaBuffer buffer) override;

private:
    void OnDeviceChanged();
    void SelectOutMixer(const std::string& device);
    void OnTestClicked();
    void StartTest(const std::string& device);
    void StopTest();
    void OnVolumeMoved(int position);
    void SetSliderFromControl();
    /// Mixes the next buffer of the test sound, queues it and shows it. Engine thread (from
    /// a callback) or window thread while priming.
    void PlayNextBufferRT();

    QPushButton* m_test = nullptr;
    QSlider* m_volume = nullptr;
    OSCI* m_osci = nullptr;
    PortMixer m_mixer;
    int64_t m_volumeControl = -1;
    PaStreamOut m_stream;
    WizardTestSound m_sound;
    std::vector<int16_t> m_mixBuffer;
    bool m_playing = false;
};

} // namespace larimo
