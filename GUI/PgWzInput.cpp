// SPDX-License-Identifier: GPL-3.0-or-later
#include "PgWzInput.h"

#include "error.h"
#include "filltext.h"
#include "mlog.h"
#include "osci.h"
#include "texts.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QSignalBlocker>
#include <QSlider>
#include <QVBoxLayout>

#include <algorithm>

namespace larimo {

namespace {

constexpr int kMessageId = 1119;
constexpr int kDeviceListId = 1120;
constexpr int kChannelLabelId = 1121;
constexpr int kChannelListId = 1122;
constexpr int kLevelId = 1073;
constexpr int kOsciId = 1083;

} // namespace

CPgWzInput::CPgWzInput(Config& settings, int pageCount, QWidget* parent)
    : CWizardPage(settings, pageCount, kDialogId, parent)
{
    SetHeaderTexts(118, 119);

    m_message = new QLabel(this);
    m_message->setWordWrap(true);
    SetCtrlId(m_message, kMessageId);
    m_devices = new QComboBox(this);
    SetCtrlId(m_devices, kDeviceListId);
    m_channelLabel = new QLabel(this);
    m_channelLabel->setWordWrap(true);
    SetCtrlId(m_channelLabel, kChannelLabelId);
    m_channels = new QComboBox(this);
    SetCtrlId(m_channels, kChannelListId);
    m_level = new QSlider(Qt::Vertical, this);
    m_level->setRange(0, 100);
    m_level->setPageStep(10);
    SetCtrlId(m_level, kLevelId);
    m_osci = new OSCI(this, kOsciId);
    m_osci->setProperty(kCtrlIdProperty, kOsciId);
    m_osci->setObjectName(QStringLiteral("ctrl%1").arg(kOsciId));
    m_osci->setMinimumWidth(320);
    m_osci->setFixedHeight(120);

    auto* signalRow = new QHBoxLayout;
    signalRow->addWidget(m_osci, 1);
    signalRow->addWidget(m_level);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_message);
    layout->addWidget(m_devices);
    layout->addSpacing(8);
    layout->addWidget(m_channelLabel);
    layout->addWidget(m_channels);
    layout->addSpacing(8);
    layout->addLayout(signalRow);
    layout->addStretch(1);

    m_channelLabel->hide();
    m_channels->hide();

    connect(m_devices, &QComboBox::currentIndexChanged, this, [this] { OnDeviceChanged(); });
    connect(m_channels, &QComboBox::currentIndexChanged, this, [this] { OnChannelChanged(); });
    connect(m_level, &QSlider::valueChanged, this, [this](int position) { OnLevelMoved(position); });
}

CPgWzInput::~CPgWzInput()
{
    StopStreams();
}

void CPgWzInput::OnInitDialog()
{
    LogScopeInfo("CPgWzInput::OnInitDialog");
    HideChannels();
    FillDevices(SoundDeviceChoices(1), 103, 104, 102);
    if (m_devices->count() == 1)
        OnDeviceChanged();
}

void CPgWzInput::OnSetActive()
{
    LogScopeInfo("CPgWzInput::OnSetActive");
    OnDeviceChanged();
    SetWizardButtons(false);
}

void CPgWzInput::OnDeviceChanged()
{
    SetWizardButtons(false);
    StopRecordingTest();
    const std::string device = SelectedDevice();
    if (!device.empty())
        StartRecordingTest(device);
    ShowChannels(device);
}

void CPgWzInput::StartRecordingTest(const std::string& device)
{
    LogEnter("CPgWzInput::StartRecordingTest", "soundCard=%s", device.c_str());
    StartEngine();
    int number = kNoDevice;
    PaGetDevNByName(device, 1, number);
    unsigned result = m_stream.Open(ThreadId(), number, 16, 44100, m_settings.m_inBuffSizeMs,
                                    m_settings.m_inBuffsN);
    if (result != kMmeSuccess) {
        Warn(MB_ICONERROR, FillText(233, MmeErrorText(result).c_str()));
        m_stream.Close();
    } else {
        result = m_stream.Start();
        if (result != kMmeSuccess) {
            Warn(MB_ICONERROR, FillText(234, MmeErrorText(result).c_str()));
            m_stream.Close();
        }
    }
    LogLeaveResult("CPgWzInput::StartRecordingTest", result);
}

void CPgWzInput::StopRecordingTest()
{
    m_stream.Close();
    m_osci->ClearData();
}

bool CPgWzInput::Recording()
{
    return m_stream.IsActive();
}

void CPgWzInput::OnInputData(PaBuffer buffer)
{
    m_osci->SetData(reinterpret_cast<const int16_t*>(buffer.data), buffer.validBytes / sizeof(int16_t));
}

void CPgWzInput::HideChannels()
{
    m_channelLabel->hide();
    m_channels->hide();
}

void CPgWzInput::ShowChannels(const std::string& device)
{
    {
        const QSignalBlocker blocker(m_channels);
        m_channels->clear();
    }
    if (device.empty()) {
        HideChannels();
        m_mixer.Close();
    } else {
        unsigned mixerId = 0;
        const unsigned result = PaGetMixerId(device, 1, mixerId);
        if (result != kMmeSuccess)
            Warn(MB_ICONWARNING, MmeErrorText(result));
        if (result != kMmeSuccess || !m_mixer.Open(mixerId, kMixerObjectWaveIn | kMixerCallbackWindow, this)) {
            m_mixer.Close();
            Warn(MB_ICONWARNING, FillText(112, device.c_str()));
            HideChannels();
        } else {
            std::vector<RecSource> sources;
            m_mixer.GetRecSources(sources);
            std::vector<QString> names;
            for (const RecSource& source : sources)
                names.push_back(QString::fromStdString(source.name));
            std::stable_sort(names.begin(), names.end(), [](const QString& a, const QString& b) {
                return QString::compare(a, b, Qt::CaseInsensitive) < 0;
            });
            const QSignalBlocker blocker(m_channels);
            for (const QString& name : names)
                m_channels->addItem(name);
            m_channels->setCurrentIndex(-1);
        }
    }
    UpdateMixer();
}

void CPgWzInput::UpdateMixer()
{
    if (!m_mixer.IsOpen()) {
        const QSignalBlocker blocker(m_level);
        m_level->setEnabled(false);
        m_level->setValue(0);
        return;
    }
    const QSignalBlocker channelBlocker(m_channels);
    std::string selected;
    m_mixer.GetRecSourceName(selected);
    std::string microphone;
    if (FindMicLine(m_mixer, microphone)) {
        m_channels->setCurrentIndex(m_channels->findText(QString::fromStdString(microphone)));
        m_channelLabel->setText(QString::fromStdString(GetText(105)));
        m_channels->setEnabled(false);
        if (selected != microphone)
            m_mixer.SelectRecSource(microphone);
    } else {
        m_channelLabel->setText(QString::fromStdString(GetText(106)));
        m_channels->setEnabled(m_mixer.HasMux());
        m_channels->setCurrentIndex(m_channels->findText(QString::fromStdString(selected)));
    }
    m_channelLabel->show();
    m_channels->show();

    const QSignalBlocker levelBlocker(m_level);
    uint32_t volume = 0;
    if (m_mixer.GetRecVolume(volume)) {
        m_level->setEnabled(true);
        m_level->setValue(VolumeToPosition(volume));
    } else {
        m_level->setEnabled(false);
        m_level->setValue(0);
    }
}

void CPgWzInput::OnChannelChanged()
{
    const std::string channel = m_channels->currentText().toStdString();
    LogInfo("chanel=%s", channel.c_str());
    if (m_mixer.IsOpen())
        m_mixer.SelectRecSource(channel);
}

void CPgWzInput::OnLevelMoved(int position)
{
    if (m_mixer.IsOpen())
        m_mixer.SetRecVolume(PositionToVolume(position));
}

void CPgWzInput::OnMixerChange(uint32_t controlId)
{
    if (!m_mixer.IsOpen())
        return;
    // The page shows the line selection and the line volumes; the speaker volume that a
    // recording device's mixer also carries is none of its business.
    if (static_cast<int64_t>(controlId) == m_mixer.MasterVolume().volumeId)
        return;
    UpdateMixer();
}

bool CPgWzInput::validatePage()
{
    LogScopeInfo("CPgWzInput::OnWizardNext");
    StopRecordingTest();
    StopEngine();
    m_settings.m_input = SelectedDevice();
    m_settings.m_mixInSrc.clear();
    if (m_mixer.HasMux() && m_channels->currentIndex() >= 0)
        m_settings.m_mixInSrc = m_channels->currentText().toStdString();
    m_mixer.Close();
    return true;
}

void CPgWzInput::cleanupPage()
{
    LogScopeInfo("CPgWzInput::OnWizardBack");
    StopStreams();
}

void CPgWzInput::StopStreams()
{
    StopRecordingTest();
    StopEngine();
    m_mixer.Close();
}

} // namespace larimo
