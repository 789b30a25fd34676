// SPDX-License-Identifier: GPL-3.0-or-later
#include "PgWzMonitor.h"

#include "error.h"
#include "filltext.h"
#include "mlog.h"
#include "osci.h"
#include "texts.h"
#include "wintools.h"

#include <QComboBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QSignalBlocker>
#include <QSlider>
#include <QVBoxLayout>

#include <algorithm>

namespace larimo {

namespace {

constexpr int kMessageId = 1119;
constexpr int kDeviceListId = 1120;
constexpr int kTestButtonId = 1028;
constexpr int kVolumeId = 1073;
constexpr int kOsciId = 1083;
constexpr const char* kTestWave = "test.wav";

} // namespace

CPgWzMonitor::CPgWzMonitor(Config& settings, int pageCount, QWidget* parent)
    : CWizardPage(settings, pageCount, kDialogId, parent)
{
    SetHeaderTexts(116, 117);

    m_message = new QLabel(this);
    m_message->setWordWrap(true);
    SetCtrlId(m_message, kMessageId);
    m_devices = new QComboBox(this);
    SetCtrlId(m_devices, kDeviceListId);
    m_test = new QPushButton(QString::fromStdString(GetText(110)), this);
    SetCtrlId(m_test, kTestButtonId);
    m_volume = new QSlider(Qt::Vertical, this);
    m_volume->setRange(0, 100);
    m_volume->setPageStep(10);
    SetCtrlId(m_volume, kVolumeId);
    m_osci = new OSCI(this, kOsciId);
    m_osci->setProperty(kCtrlIdProperty, kOsciId);
    m_osci->setObjectName(QStringLiteral("ctrl%1").arg(kOsciId));
    m_osci->setMinimumWidth(320);
    m_osci->setFixedHeight(120);

    auto* deviceRow = new QHBoxLayout;
    deviceRow->addWidget(m_devices, 1);
    deviceRow->addWidget(m_test);
    auto* signalRow = new QHBoxLayout;
    signalRow->addWidget(m_osci, 1);
    signalRow->addWidget(m_volume);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(m_message);
    layout->addLayout(deviceRow);
    layout->addSpacing(8);
    layout->addLayout(signalRow);
    layout->addStretch(1);

    connect(m_devices, &QComboBox::currentIndexChanged, this, [this] { OnDeviceChanged(); });
    connect(m_test, &QPushButton::clicked, this, [this] { OnTestClicked(); });
    connect(m_volume, &QSlider::valueChanged, this, [this](int position) { OnVolumeMoved(position); });
}

CPgWzMonitor::~CPgWzMonitor()
{
    StopStreams();
}

void CPgWzMonitor::OnInitDialog()
{
    LogScopeInfo("CPgWzMonitor::OnInitDialog");
    FillDevices(SoundDeviceChoices(2), 107, 108, 109);
    if (m_devices->count() == 1)
        OnDeviceChanged();
}

void CPgWzMonitor::OnSetActive()
{
    LogScopeInfo("CPgWzMonitor::OnSetActive");
    SetWizardButtons(true);
    // Leaving the page lets go of the mixer; coming back takes it again.
    const std::string device = SelectedDevice();
    if (!device.empty() && !m_mixer.IsOpen())
        SelectOutMixer(device);
}

void CPgWzMonitor::OnDeviceChanged()
{
    SetWizardButtons(true);
    StopTest();
    const std::string device = SelectedDevice();
    if (device.empty()) {
        m_mixer.Close();
        m_volumeControl = -1;
    } else {
        SelectOutMixer(device);
    }
}

void CPgWzMonitor::SelectOutMixer(const std::string& device)
{
    LogEnter("CPgWzMonitor::SelectOutMixer", "soundCard=%s", device.c_str());
    m_volumeControl = -1;
    unsigned mixerId = 0;
    const unsigned result = PaGetMixerId(device, 2, mixerId);
    if (result != kMmeSuccess)
        Warn(MB_ICONWARNING, MmeErrorText(result));
    if (result != kMmeSuccess || !m_mixer.Open(mixerId, kMixerObjectWaveOut | kMixerCallbackWindow, this)) {
        m_mixer.Close();
        Warn(MB_ICONWARNING, FillText(235, device.c_str()));
    }
    // The sound system models a playback device's volume as its speaker destination; there
    // is no separate wave-output line to prefer over it.
    int64_t control = -1;
    if (m_mixer.IsOpen() && m_mixer.GetVolControl(MixerComponent::DstSpeakers, control))
        m_volumeControl = control;
    if (m_volumeControl < 0) {
        Warn(MB_ICONWARNING, GetText(236));
        LogWarning("Volume control not found");
    } else {
        SetSliderFromControl();
    }
    LogLeaveResult("CPgWzMonitor::SelectOutMixer", m_volumeControl);
}

void CPgWzMonitor::SetSliderFromControl()
{
    if (m_volumeControl < 0)
        return;
    const int64_t volume = m_mixer.GetVolume(m_volumeControl);
    if (volume < 0)
        return;
    const QSignalBlocker blocker(m_volume);
    m_volume->setValue(VolumeToPosition(static_cast<uint32_t>(volume)));
}

void CPgWzMonitor::OnVolumeMoved(int position)
{
    if (m_volumeControl >= 0)
        m_mixer.SetVolume(m_volumeControl, PositionToVolume(position));
}

void CPgWzMonitor::OnMixerChange(uint32_t controlId)
{
    if (m_volumeControl >= 0 && static_cast<int64_t>(controlId) == m_volumeControl)
        SetSliderFromControl();
}

void CPgWzMonitor::OnTestClicked()
{
    if (m_playing) {
        StopTest();
        return;
    }
    const std::string device = SelectedDevice();
    if (device.empty())
        Warn(MB_ICONWARNING, GetText(232));
    else
        StartTest(device);
}

void CPgWzMonitor::StartTest(const std::string& device)
{
    LogEnter("CPgWzMonitor::StartTest", "soundCard=%s", device.c_str());
    StartEngine();
    int number = kNoDevice;
    PaGetDevNByName(device, 2, number);
    const unsigned result = m_stream.Open(ThreadId(), number, 16, 44100, m_settings.m_inBuffSizeMs,
                                          m_settings.m_inBuffsN);
    if (result != kMmeSuccess) {
        Warn(MB_ICONERROR, FillText(233, MmeErrorText(result).c_str()));
        m_stream.Close();
        LogLeaveResult("CPgWzMonitor::StartTest", result);
        return;
    }
    const unsigned loaded = m_sound.Load(DataRoot() + kTestWave);
    if (loaded != 0) {
        LogError("%s: %s", kTestWave, WizardTestSound::ErrorText(loaded).c_str());
        Warn(MB_ICONERROR, GetText(237));
        m_stream.Close();
        m_sound.Clear();
        LogLeaveResult("CPgWzMonitor::StartTest", loaded);
        return;
    }
    m_stream.Activate();
    if (m_mixBuffer.empty())
        m_mixBuffer.resize(m_stream.SamplesPerBuffer());
    {
        // The engine may ask for the next buffer while the first ones are still being primed.
        m_stream.Lock();
        for (int i = 0; i < kPrimedBuffers; ++i)
            PlayNextBufferRT();
        m_stream.Unlock();
    }
    m_playing = true;
    m_test->setText(QString::fromStdString(GetText(111)));
    LogLeaveResult("CPgWzMonitor::StartTest", 0);
}

void CPgWzMonitor::PlayNextBufferRT()
{
    if (m_mixBuffer.empty())
        return;
    std::fill(m_mixBuffer.begin(), m_mixBuffer.end(), int16_t{0});
    m_sound.MixInto(m_mixBuffer.data(), m_mixBuffer.size());
    const auto bytes = static_cast<uint32_t>(m_mixBuffer.size() * sizeof(int16_t));
    if (m_stream.Write(m_mixBuffer.data(), bytes, false) == kMmeSuccess)
        m_osci->SetData(m_mixBuffer.data(), m_mixBuffer.size());
}

void CPgWzMonitor::OnOutputDone(PaBuffer /*buffer*/)
{
    PlayNextBufferRT();
}

void CPgWzMonitor::StopTest()
{
    m_test->setEnabled(false);
    m_stream.Close();
    m_sound.Clear();
    m_mixBuffer.clear();
    m_mixBuffer.shrink_to_fit();
    m_osci->ClearData();
    m_playing = false;
    m_test->setText(QString::fromStdString(GetText(110)));
    m_test->setEnabled(true);
}

bool CPgWzMonitor::validatePage()
{
    LogScopeInfo("CPgWzMonitor::OnWizardFinish");
    StopStreams();
    m_settings.m_monitor = SelectedDevice();
    return true;
}

void CPgWzMonitor::cleanupPage()
{
    LogScopeInfo("CPgWzMonitor::OnWizardBack");
    StopStreams();
}

void CPgWzMonitor::StopStreams()
{
    StopTest();
    StopEngine();
    m_mixer.Close();
    m_volumeControl = -1;
}

} // namespace larimo
