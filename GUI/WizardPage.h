// SPDX-License-Identifier: GPL-3.0-or-later
// What the two wizard pages share: each page is an audio engine of its own, hears its mixer's
// change notifications, lists one kind of device without the virtual microphone, and decides
// its wizard buttons from whether a device is chosen.
#pragma once

#include "DeviceChoices.h"
#include "DialogTools.h"
#include "config.h"
#include "wmme.h"

#include <QWizardPage>

#include <string>
#include <vector>

class QComboBox;
class QLabel;

namespace larimo {

// The wizard buttons a page offers, as flags.
constexpr unsigned kWizBack = 0x1U;
constexpr unsigned kWizNext = 0x2U;
constexpr unsigned kWizFinish = 0x4U;
constexpr unsigned kWizDisabledFinish = 0x8U;

/// The buttons of the recording page (`playbackPage` false) or the playback page, by whether
/// a device is chosen and how many pages the sheet shows. Any thread.
unsigned WizardButtonsFor(bool playbackPage, bool deviceChosen, int pageCount);


/// A mixer volume (0 to 65535) as a slider position (0 to 100), to the nearest step, so a
/// position written and read back stays where the user left it. Any thread.
int VolumeToPosition(uint32_t volume);
/// A slider position (0 to 100) as a mixer volume: position x 655.35, truncated to 16 bits.
/// Any thread.
uint32_t PositionToVolume(int position);


class CWizardPage : public QWizardPage, public PortAudio, public MixerNotify {
    Q_OBJECT

public:
    /// Window thread.
    CWizardPage(Config& settings, int pageCount, int dialogId, QWidget* parent);

    /// The sheet calls this each time the page becomes the current one; the first call also
    /// fills the page. Window thread.
    void Activate();
    /// Stops everything that holds a sound device (streams, engine, mixer). Safe to call
    /// twice. Window thread.
    virtual void StopStreams() = 0;

    /// The buttons the page asks for now (kWiz* flags). Window thread.
    unsigned WizardButtons() const { return m_buttons; }
    int PageCount() const { return m_pageCount; }
    int DialogId() const { return m_dialogId; }

    bool isComplete() const override;

protected:
    virtual void OnInitDialog() = 0;
    virtual void OnSetActive() = 0;
    /// Posted to the window thread from the sound system's notification.
    virtual void OnMixerChange(uint32_t controlId) = 0;

    /// Recomputes the buttons from the device list and tells the sheet.
    void SetWizardButtons(bool playbackPage);
    /// Fills the message and device list from `names` with the three texts for none, one and
    /// several devices; with exactly one name it is selected.
    void FillDevices(const std::vector<std::string>& names, unsigned noneText, unsigned oneText,
                     unsigned severalText);
    /// The chosen device, empty when none.
    std::string SelectedDevice() const;
    /// Sets the header title and subtitle, coloured for the dark banner they lie on.
    void SetHeaderTexts(unsigned titleId, unsigned subTitleId);
    /// A warning or error message box (no owner; the caption is the application's title).
    static void Warn(unsigned style, const std::string& text);

    void keyPressEvent(QKeyEvent* event) override;

    Config& m_settings;
    QLabel* m_message = nullptr;
    QComboBox* m_devices = nullptr;

private:
    void OnMixerControlChange(uint32_t controlId) final;

    const int m_pageCount;
    const int m_dialogId;
    unsigned m_buttons = 0;
    bool m_initialised = false;
};


} // namespace larimo
