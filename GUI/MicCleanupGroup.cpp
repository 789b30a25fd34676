// SPDX-License-Identifier: GPL-3.0-or-later
#include "MicCleanupGroup.h"

#include "WizardPage.h"
#include "filltext.h"
#include "mlog.h"
#include "texts.h"

#include <QCheckBox>
#include <QGridLayout>
#include <QLabel>
#include <QPainter>
#include <QSlider>
#include <QTimerEvent>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace larimo {

namespace {

QString Text(unsigned id)
{
    return QString::fromStdString(GetText(id));
}

QString Filled(unsigned id, int value)
{
    return QString::fromStdString(FillText(id, value));
}

float PeakDb(const int16_t* samples, size_t count)
{
    int peak = 0;
    for (size_t i = 0; i < count; ++i)
        peak = std::max(peak, std::abs(static_cast<int>(samples[i])));
    return peak > 0 ? std::max(CMicLevelMeter::kFloorDb, 20.0f * std::log10(static_cast<float>(peak) / 32768.0f))
                    : CMicLevelMeter::kFloorDb;
}

constexpr int kMeterIntervalMs = 50;

} // namespace

// --- the meter ---------------------------------------------------------------------------------

CMicLevelMeter::CMicLevelMeter(QWidget* parent)
    : QWidget(parent)
{
    setMinimumHeight(18);
    setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QSize CMicLevelMeter::sizeHint() const
{
    return {240, 20};
}

void CMicLevelMeter::SetLevels(float rawDb, float cleanedDb, bool gateOpen)
{
    if (rawDb == m_rawDb && cleanedDb == m_cleanedDb && gateOpen == m_gateOpen)
        return;
    m_rawDb = rawDb;
    m_cleanedDb = cleanedDb;
    m_gateOpen = gateOpen;
    update();
}

void CMicLevelMeter::SetThreshold(bool gateOn, int thresholdDb)
{
    m_gateOn = gateOn;
    m_thresholdDb = thresholdDb;
    update();
}

int CMicLevelMeter::XForDb(float db) const
{
    const float share = (std::clamp(db, kFloorDb, 0.0f) - kFloorDb) / -kFloorDb;
    return static_cast<int>(std::lround(share * static_cast<float>(width() - 2))) + 1;
}

void CMicLevelMeter::paintEvent(QPaintEvent* /*event*/)
{
    QPainter painter(this);
    const QRect frame = rect().adjusted(0, 0, -1, -1);
    painter.fillRect(frame, palette().color(QPalette::Base));
    const int top = 2;
    const int barHeight = height() - 4;
    const QColor open = QColor(0x3c, 0xb0, 0x4a);
    const QColor closed = palette().color(QPalette::Mid);
    // The raw level faintly behind, what the service will send in front.
    QColor raw = m_gateOpen || !m_gateOn ? open : closed;
    raw.setAlpha(70);
    painter.fillRect(QRect(1, top, XForDb(m_rawDb) - 1, barHeight), raw);
    painter.fillRect(QRect(1, top + barHeight / 4, XForDb(m_cleanedDb) - 1, barHeight / 2),
                     m_gateOpen || !m_gateOn ? open : closed);
    if (m_gateOn) {
        painter.setPen(QPen(palette().color(QPalette::Text), 2));
        const int x = XForDb(static_cast<float>(m_thresholdDb));
        painter.drawLine(x, 0, x, height());
        painter.setPen(QPen(palette().color(QPalette::Text), 1, Qt::DashLine));
        const int closeX = XForDb(static_cast<float>(m_thresholdDb) - VoiceCleaner::kHysteresisDb);
        painter.drawLine(closeX, 0, closeX, height());
    }
    painter.setPen(palette().color(QPalette::Mid));
    painter.drawRect(frame);
}

// --- the group ---------------------------------------------------------------------------------

CMicCleanupGroup::CMicCleanupGroup(Config& settings, QWidget* parent)
    : QGroupBox(Text(390), parent)
    , m_settings(settings)
{
    m_noise = new QCheckBox(Text(391), this);
    SetCtrlId(m_noise, kNoiseCheck);
    m_strength = new QSlider(Qt::Horizontal, this);
    SetCtrlId(m_strength, kStrengthSlider);
    m_strength->setRange(VoiceCleaner::kMinStrengthDb, VoiceCleaner::kMaxStrengthDb);
    m_strength->setPageStep(5);
    m_strengthText = new QLabel(this);
    m_gate = new QCheckBox(Text(393), this);
    SetCtrlId(m_gate, kGateCheck);
    m_threshold = new QSlider(Qt::Horizontal, this);
    SetCtrlId(m_threshold, kThresholdSlider);
    m_threshold->setRange(VoiceCleaner::kMinThresholdDb, VoiceCleaner::kMaxThresholdDb);
    m_threshold->setPageStep(5);
    m_thresholdText = new QLabel(this);
    m_meter = new CMicLevelMeter(this);
    SetCtrlId(m_meter, kMeter);
    m_note = new QLabel(this);
    SetCtrlId(m_note, kMeterNote);
    m_note->setWordWrap(true);
    // Its text changes while shown; room for three lines keeps the layout from squeezing it.
    m_note->setMinimumHeight(m_note->fontMetrics().lineSpacing() * 3 + 4);

    auto* grid = new QGridLayout(this);
    grid->addWidget(m_noise, 0, 0, 1, 2);
    grid->addWidget(m_strength, 1, 0);
    grid->addWidget(m_strengthText, 1, 1);
    grid->addWidget(m_gate, 2, 0, 1, 2);
    grid->addWidget(m_threshold, 3, 0);
    grid->addWidget(m_thresholdText, 3, 1);
    grid->addWidget(m_meter, 4, 0, 1, 2);
    grid->addWidget(m_note, 5, 0, 1, 2);
    grid->setColumnStretch(0, 1);

    ShowValues();
    connect(m_noise, &QCheckBox::toggled, this, &CMicCleanupGroup::OnControlsChanged);
    connect(m_gate, &QCheckBox::toggled, this, &CMicCleanupGroup::OnControlsChanged);
    connect(m_strength, &QSlider::valueChanged, this, &CMicCleanupGroup::OnControlsChanged);
    connect(m_threshold, &QSlider::valueChanged, this, &CMicCleanupGroup::OnControlsChanged);
}

CMicCleanupGroup::~CMicCleanupGroup()
{
    StopMeter();
}

void CMicCleanupGroup::ShowValues()
{
    const QSignalBlocker noiseBlocker(m_noise);
    const QSignalBlocker strengthBlocker(m_strength);
    const QSignalBlocker gateBlocker(m_gate);
    const QSignalBlocker thresholdBlocker(m_threshold);
    const VoiceCleanup cleanup = VoiceCleaner::Clamped(
        {m_settings.m_noiseSuppression, m_settings.m_noiseStrength, m_settings.m_gate, m_settings.m_gateThreshold});
    m_noise->setChecked(cleanup.noiseSuppression);
    // The suppressor's frame at the service's block length: what it adds to the latency.
    const uint32_t blockMs = m_settings.m_inBuffSizeMs != 0 ? m_settings.m_inBuffSizeMs : 25;
    const uint32_t frame = VoiceCleaner::FrameFor(VoiceCleaner::BlockFor(blockMs, 44100), 44100);
    m_noise->setToolTip(Filled(400, static_cast<int>(std::lround(frame * 1000.0 / 44100))));
    m_strength->setValue(cleanup.noiseStrengthDb);
    m_gate->setChecked(cleanup.gate);
    m_threshold->setValue(cleanup.gateThresholdDb);
    m_strength->setEnabled(cleanup.noiseSuppression);
    m_threshold->setEnabled(cleanup.gate);
    m_strengthText->setText(Filled(392, cleanup.noiseStrengthDb));
    m_thresholdText->setText(Filled(394, cleanup.gateThresholdDb));
    m_meter->SetThreshold(cleanup.gate, cleanup.gateThresholdDb);
    m_noiseOn.store(cleanup.noiseSuppression);
    m_strengthDb.store(cleanup.noiseStrengthDb);
    m_gateOn.store(cleanup.gate);
    m_thresholdDb.store(cleanup.gateThresholdDb);
}

void CMicCleanupGroup::OnControlsChanged()
{
    m_settings.m_noiseSuppression = m_noise->isChecked();
    m_settings.m_noiseStrength = m_strength->value();
    m_settings.m_gate = m_gate->isChecked();
    m_settings.m_gateThreshold = m_threshold->value();
    ShowValues();
    emit Changed();
}

VoiceCleanup CMicCleanupGroup::CurrentCleanup() const
{
    return {m_noiseOn.load(), m_strengthDb.load(), m_gateOn.load(), m_thresholdDb.load()};
}

void CMicCleanupGroup::Refresh()
{
    ShowValues();
    if (isVisible()) {
        StopMeter();
        StartMeter();
    }
}

bool CMicCleanupGroup::Metering()
{
    return m_stream.IsActive();
}

void CMicCleanupGroup::showEvent(QShowEvent* event)
{
    QGroupBox::showEvent(event);
    StartMeter();
}

void CMicCleanupGroup::hideEvent(QHideEvent* event)
{
    StopMeter();
    QGroupBox::hideEvent(event);
}

void CMicCleanupGroup::StartMeter()
{
    if (m_stream.IsOpen())
        return;
    // The microphone the service records from: the chosen one, or the first real one when the
    // choice is left to the system (whose default is Larimo's own microphone).
    std::string device = m_settings.m_input;
    if (device.empty()) {
        const std::vector<std::string> choices = SoundDeviceChoices(1);
        if (!choices.empty())
            device = choices.front();
    }
    int number = kNoDevice;
    if (device.empty() || PaGetDevNByName(device, 1, number) != kMmeSuccess || number < 0) {
        m_note->setText(Text(398));
        return;
    }
    const uint32_t blockMs = m_settings.m_inBuffSizeMs != 0 ? m_settings.m_inBuffSizeMs : 25;
    const uint32_t buffers = std::max<uint32_t>(m_settings.m_inBuffsN, 3);
    m_cleaner = std::make_unique<VoiceCleaner>(blockMs * 44100 / 1000, 44100);
    m_work.assign(blockMs * 44100 / 1000, 0);
    StartEngine();
    unsigned result = m_stream.Open(ThreadId(), number, 16, 44100, blockMs, buffers);
    if (result == kMmeSuccess)
        result = m_stream.Start();
    if (result != kMmeSuccess) {
        LogWarning("CMicCleanupGroup: the meter cannot record from \"%s\": %s", device.c_str(),
                   MmeErrorText(result).c_str());
        m_note->setText(QString::fromStdString(FillText(399, MmeErrorText(result).c_str())));
        m_stream.Close();
        StopEngine();
        return;
    }
    m_note->setText(Text(397));
    m_timer = startTimer(kMeterIntervalMs);
}

void CMicCleanupGroup::StopMeter()
{
    if (m_timer != 0) {
        killTimer(m_timer);
        m_timer = 0;
    }
    m_stream.Close();
    StopEngine();
    m_cleaner.reset();
    m_rawDb.store(CMicLevelMeter::kFloorDb);
    m_cleanedDb.store(CMicLevelMeter::kFloorDb);
    m_gateOpen.store(false);
    m_meter->SetLevels(CMicLevelMeter::kFloorDb, CMicLevelMeter::kFloorDb, false);
}

void CMicCleanupGroup::timerEvent(QTimerEvent* event)
{
    if (event->timerId() != m_timer) {
        QGroupBox::timerEvent(event);
        return;
    }
    m_meter->SetLevels(m_rawDb.load(), m_cleanedDb.load(), m_gateOpen.load());
    m_meter->setToolTip(Text(m_gateOpen.load() ? 395 : 396));
}

void CMicCleanupGroup::OnInputData(PaBuffer buffer)
{
    const size_t count = std::min<size_t>(buffer.validBytes / 2, m_work.size());
    if (m_cleaner == nullptr || count == 0)
        return;
    const auto* samples = reinterpret_cast<const int16_t*>(buffer.data);
    std::copy_n(samples, count, m_work.begin());
    m_rawDb.store(PeakDb(m_work.data(), count));
    m_cleaner->ProcessRT(m_work.data(), count, CurrentCleanup());
    m_cleanedDb.store(PeakDb(m_work.data(), count));
    m_gateOpen.store(m_cleaner->GateOpen());
}

} // namespace larimo
