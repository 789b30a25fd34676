// SPDX-License-Identifier: GPL-3.0-or-later
#include "wizard.h"

#include "PgWzInput.h"
#include "PgWzMonitor.h"
#include "WizardSheet.h"
#include "error.h"
#include "mlog.h"
#include "texts.h"
#include "wmme.h"

#include <QAbstractButton>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QRadialGradient>

#include <cmath>

namespace larimo {

namespace {

// The default skin's palette.
const QColor kHeaderTop(0x23, 0x27, 0x35);
const QColor kHeaderBottom(0x12, 0x14, 0x1b);
const QColor kEdge(0x3a, 0x40, 0x55);
const QColor kAccentViolet(0x8b, 0x5c, 0xf6);
const QColor kAccentCyan(0x22, 0xc3, 0xee);

constexpr int kBannerHeight = 76;

// A voice-like trace: a few partials under a slow envelope, so the banner reads as sound.
double VoiceShape(double x, double phase)
{
    const double envelope = 0.55 + 0.45 * std::sin(x * 2.1 + phase);
    return envelope * (std::sin(x * 9.0 + phase) * 0.6 + std::sin(x * 17.0 + phase * 1.7) * 0.3 +
                       std::sin(x * 31.0 + phase * 0.6) * 0.1);
}

} // namespace

QPixmap WizardBanner(QSize size, qreal devicePixelRatio)
{
    QPixmap banner(size * devicePixelRatio);
    banner.setDevicePixelRatio(devicePixelRatio);
    QPainter painter(&banner);
    painter.setRenderHint(QPainter::Antialiasing);
    const QRectF area(QPointF(0, 0), QSizeF(size));

    QLinearGradient background(area.topLeft(), area.bottomLeft());
    background.setColorAt(0.0, kHeaderTop);
    background.setColorAt(1.0, kHeaderBottom);
    painter.fillRect(area, background);

    // A soft glow behind the trace, fading into the header on the left where the title sits.
    QRadialGradient glow(QPointF(area.width() * 0.78, area.height() * 0.5), area.height() * 2.2);
    QColor glowColor = kAccentViolet;
    glowColor.setAlpha(70);
    glow.setColorAt(0.0, glowColor);
    glow.setColorAt(1.0, Qt::transparent);
    painter.fillRect(area, glow);

    const double left = area.width() * 0.62;
    const double width = area.width() - left;
    for (int layer = 0; layer < 3; ++layer) {
        QPainterPath trace;
        const double phase = layer * 1.3;
        const double amplitude = area.height() * (0.34 - layer * 0.08);
        for (int i = 0; i <= 240; ++i) {
            const double t = i / 240.0;
            // Fade in from nothing so the trace grows out of the header.
            const double fade = std::min(1.0, t * 3.0);
            const QPointF point(left + t * width,
                                area.height() * 0.5 - fade * amplitude * VoiceShape(t * 3.0, phase));
            if (i == 0)
                trace.moveTo(point);
            else
                trace.lineTo(point);
        }
        QLinearGradient stroke(QPointF(left, 0), QPointF(area.width(), 0));
        QColor start = kAccentViolet;
        QColor end = kAccentCyan;
        start.setAlpha(layer == 0 ? 40 : 20);
        end.setAlpha(layer == 0 ? 255 : 110);
        stroke.setColorAt(0.0, start);
        stroke.setColorAt(1.0, end);
        painter.setPen(QPen(QBrush(stroke), layer == 0 ? 2.2 : 1.2, Qt::SolidLine, Qt::RoundCap, Qt::RoundJoin));
        painter.drawPath(trace);
    }

    painter.setPen(QPen(kEdge, 1.0));
    painter.drawLine(QPointF(0, area.height() - 0.5), QPointF(area.width(), area.height() - 0.5));
    QLinearGradient accentLine(area.bottomLeft(), area.bottomRight());
    accentLine.setColorAt(0.0, kAccentViolet);
    accentLine.setColorAt(1.0, kAccentCyan);
    painter.fillRect(QRectF(0, area.height() - 2, area.width() * 0.18, 2), accentLine);
    return banner;
}

CWizardSheet::CWizardSheet(Config& settings, bool showInput, bool showMonitor, QWidget* parent)
    : QWizard(parent)
{
    setWizardStyle(QWizard::ModernStyle);
    setOption(QWizard::HaveHelpButton, false);
    setOption(QWizard::NoBackButtonOnStartPage, false);
    setWindowTitle(QString::fromStdString(GetText(238)));
    setPixmap(QWizard::BannerPixmap, WizardBanner(QSize(640, kBannerHeight), devicePixelRatio()));
    setMinimumSize(620, 470);

    const int pageCount = (showInput ? 1 : 0) + (showMonitor ? 1 : 0);
    if (showInput) {
        m_input = new CPgWzInput(settings, pageCount, this);
        addPage(m_input);
    }
    if (showMonitor) {
        m_monitor = new CPgWzMonitor(settings, pageCount, this);
        addPage(m_monitor);
    }

    setTitleFormat(Qt::RichText);
    setSubTitleFormat(Qt::RichText);

    connect(this, &QWizard::currentIdChanged, this, &CWizardSheet::OnPageChanged);
}

CWizardSheet::~CWizardSheet()
{
    // Pages are Qt children and go with the sheet; their streams must stop first.
    if (m_input != nullptr)
        m_input->StopStreams();
    if (m_monitor != nullptr)
        m_monitor->StopStreams();
}

void CWizardSheet::OnPageChanged(int id)
{
    if (auto* wizardPage = qobject_cast<CWizardPage*>(page(id)))
        wizardPage->Activate();
}

void CWizardSheet::done(int result)
{
    // Finish validates (and so stores) the current page inside QWizard::done, which needs the
    // page's mixer still open; the streams stop right after, before exec() returns.
    QWizard::done(result);
    if (m_input != nullptr)
        m_input->StopStreams();
    if (m_monitor != nullptr)
        m_monitor->StopStreams();
}

bool RunWizardSheet(Config& settings, bool showInput, bool showMonitor)
{
    LogEnter("ShowWizard", "showIn=%d, showMon=%d", showInput ? 1 : 0, showMonitor ? 1 : 0);
    if (!showInput && !showMonitor) {
        LogLeaveResult("ShowWizard", true);
        return true;
    }
    CWizardSheet sheet(settings, showInput, showMonitor);
    const bool completed = sheet.exec() == QDialog::Accepted;
    LogLeaveResult("ShowWizard", completed);
    return completed;
}

bool WizardStart(Config& settings)
{
    LogEnter("WizardStart");
    LogInfo("Soundcard enuminate...");
    std::vector<std::string> inputs;
    std::vector<std::string> outputs;
    PaGetSoundDevList(inputs, 1);
    PaGetSoundDevList(outputs, 2);
    if (inputs.empty() || outputs.empty()) {
        ShowMessage(nullptr, MB_OK | MB_ICONERROR, "%s", GetText(240).c_str());
        LogLeaveResult("WizardStart", false);
        return false;
    }

    LogInfo("Page define...");
    bool showInput = true;
    bool showMonitor = true;
    if (inputs.size() == 1) {
        settings.m_input = inputs.front();
        std::string microphone;
        if (FindMicLine(settings.m_input, microphone)) {
            settings.m_mixInSrc = microphone;
            showInput = false;
        }
    }
    if (outputs.size() == 1) {
        settings.m_monitor = outputs.front();
        showMonitor = false;
    }
    const bool result = RunWizardSheet(settings, showInput, showMonitor);
    LogLeaveResult("WizardStart", result);
    return result;
}

bool ShowWizard(Config& settings)
{
    LogScopeInfo("ShowWizard", "wizard pages...");
    if (settings.m_wizard)
        return true;
    if (!WizardStart(settings))
        return false;
    settings.m_wizard = true;
    // The wizard's answers stand even if the disk refuses them now; the log says why.
    settings.WriteGeneral();
    settings.WriteSoundCards();
    return true;
}

} // namespace larimo
