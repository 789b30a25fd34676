// SPDX-License-Identifier: GPL-3.0-or-later
// The wizard sheet: a modern-style QWizard with a header banner, holding the recording page
// and/or the playback page.
#pragma once

#include "config.h"

#include <QPixmap>
#include <QWizard>

namespace larimo {

class CPgWzInput;
class CPgWzMonitor;

class CWizardSheet : public QWizard {
    Q_OBJECT

public:
    /// Window thread. At least one page should be shown.
    CWizardSheet(Config& settings, bool showInput, bool showMonitor, QWidget* parent = nullptr);
    ~CWizardSheet() override;

    /// Null when the page is not shown.
    CPgWzInput* InputPage() const { return m_input; }
    CPgWzMonitor* MonitorPage() const { return m_monitor; }

    /// Every page lets go of its sound devices before the sheet closes, whichever way.
    void done(int result) override;

private:
    void OnPageChanged(int id);

    CPgWzInput* m_input = nullptr;
    CPgWzMonitor* m_monitor = nullptr;
};

/// The header banner in the default skin's look, `size` device-independent pixels, drawn for
/// `devicePixelRatio`. Window thread.
QPixmap WizardBanner(QSize size, qreal devicePixelRatio = 1.0);

} // namespace larimo
