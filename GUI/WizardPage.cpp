// SPDX-License-Identifier: GPL-3.0-or-later
#include "WizardPage.h"

#include "error.h"
#include "help.h"
#include "mlog.h"
#include "texts.h"

#include <QComboBox>
#include <QKeyEvent>
#include <QLabel>
#include <QSignalBlocker>

#include <algorithm>
#include <cctype>

namespace larimo {


unsigned WizardButtonsFor(bool playbackPage, bool deviceChosen, int pageCount)
{
    const bool twoPages = pageCount > 1;
    if (!playbackPage) {
        if (deviceChosen)
            return twoPages ? kWizNext : kWizFinish;
        return twoPages ? 0U : kWizDisabledFinish;
    }
    const unsigned back = twoPages ? kWizBack : 0U;
    return back | (deviceChosen ? kWizFinish : kWizDisabledFinish);
}

int VolumeToPosition(uint32_t volume)
{
    const uint32_t clamped = std::min<uint32_t>(volume, 65535U);
    return static_cast<int>((clamped * 100U + 32767U) / 65535U);
}

uint32_t PositionToVolume(int position)
{
    const int clamped = std::clamp(position, 0, 100);
    // Exact in integers, where 100 * 655.35 in floating point falls just short of 65535.
    return (static_cast<uint32_t>(clamped) * 65535U / 100U) & 0xFFFFU;
}

CWizardPage::CWizardPage(Config& settings, int pageCount, int dialogId, QWidget* parent)
    : QWizardPage(parent)
    , m_settings(settings)
    , m_pageCount(pageCount)
    , m_dialogId(dialogId)
{
    setFocusPolicy(Qt::StrongFocus);
}

void CWizardPage::Activate()
{
    if (!m_initialised) {
        m_initialised = true;
        OnInitDialog();
    }
    OnSetActive();
}

bool CWizardPage::isComplete() const
{
    return (m_buttons & (kWizNext | kWizFinish)) != 0;
}

void CWizardPage::SetWizardButtons(bool playbackPage)
{
    const unsigned buttons = WizardButtonsFor(playbackPage, !SelectedDevice().empty(), m_pageCount);
    if (buttons != m_buttons) {
        m_buttons = buttons;
        emit completeChanged();
    }
}

void CWizardPage::FillDevices(const std::vector<std::string>& names, unsigned noneText, unsigned oneText,
                              unsigned severalText)
{
    const QSignalBlocker blocker(m_devices);
    m_devices->clear();
    const unsigned text = names.empty() ? noneText : names.size() == 1 ? oneText : severalText;
    m_message->setText(QString::fromStdString(GetText(text)));
    m_devices->setEnabled(names.size() > 1);
    for (const std::string& name : names)
        m_devices->addItem(QString::fromStdString(name));
    // A list of several starts with nothing chosen, so the user has to pick one.
    m_devices->setCurrentIndex(names.size() == 1 ? 0 : -1);
}

std::string CWizardPage::SelectedDevice() const
{
    if (m_devices == nullptr || m_devices->currentIndex() < 0)
        return {};
    return m_devices->currentText().toStdString();
}

void CWizardPage::SetHeaderTexts(unsigned titleId, unsigned subTitleId)
{
    // The header's own labels take their colour from a palette Qt keeps private; rich text
    // carries the colour with it.
    auto coloured = [](unsigned id, const char* colour) {
        return QStringLiteral("<span style=\"color:%1\">%2</span>")
            .arg(QLatin1String(colour), QString::fromStdString(GetText(id)).toHtmlEscaped());
    };
    setTitle(coloured(titleId, "#e8eaf2"));
    setSubTitle(coloured(subTitleId, "#aab1c7"));
}

void CWizardPage::Warn(unsigned style, const std::string& text)
{
    ShowMessage(nullptr, style, "%s", text.c_str());
}

void CWizardPage::keyPressEvent(QKeyEvent* event)
{
    if (event->key() == Qt::Key_F1) {
        HelpShow(this, m_dialogId);
        event->accept();
        return;
    }
    QWizardPage::keyPressEvent(event);
}

void CWizardPage::OnMixerControlChange(uint32_t controlId)
{
    // The sound system's thread: widgets are touched only on the window thread.
    QMetaObject::invokeMethod(this, [this, controlId] { OnMixerChange(controlId); }, Qt::QueuedConnection);
}

} // namespace larimo
