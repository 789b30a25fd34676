// SPDX-License-Identifier: GPL-3.0-or-later
// The wizard's recording page: which recording device and which of its lines is the
// microphone, with the live signal and the line's recording level.
#pragma once

#include "WizardPage.h"

class QSlider;

namespace larimo {

class OSCI;

class CPgWzInput : public CWizardPage {
    Q_OBJECT

public:
    static constexpr int kDialogId = 135;

    /// Window thread.
    CPgWzInput(Config& settings, int pageCount, QWidget* parent = nullptr);
    ~CPgWzInput() override;

    void StopStreams() override;
    bool validatePage() override;
    void cleanupPage() override;

    /// Whether the recording test stream runs now. Window thread.
    bool Recording();

protected:
    void OnInitDialog() override;
    void OnSetActive() override;
    void OnMixerChange(uint32_t controlId) override;
    void OnInputData(PaBuffer buffer) override;

private:
    void OnDeviceChanged();
    void StartRecordingTest(const std::string& device);
    void StopRecordingTest();
    void ShowChannels(const std::string& device);
    void UpdateMixer();
    void OnChannelChanged();
    void OnLevelMoved(int position);
    void HideChannels();

    QLabel* m_channelLabel = nullptr;
    QComboBox* m_channels = nullptr;
    QSlider* m_level = nullptr;
    OSCI* m_osci = nullptr;
    PortMixer m_mixer;
    PaStreamIn m_stream;
};

} // namespace larimo
