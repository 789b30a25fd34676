// SPDX-License-Identifier: GPL-3.0-or-later
#include "PgSoundCard.h"

#include "DeviceChoices.h"
#include "DialogTools.h"
#include "MicCleanupGroup.h"
#include "NTService.h"
#include "OptionsSheet.h"
#include "config.h"
#include "filltext.h"
#include "mlog.h"
#include "modb.h"
#include "platform/Autostart.h"
#include "texts.h"
#include "wintools.h"

#include <QCheckBox>
#include <QComboBox>
#include <QCoreApplication>
#include <QFormLayout>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QLabel>
#include <QPointer>
#include <QPushButton>
#include <QSignalBlocker>
#include <QVBoxLayout>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace larimo {

namespace {

constexpr unsigned kRestartingText = 114;
constexpr unsigned kRestartText = 115;
constexpr unsigned kServiceErrorText = 207;
constexpr unsigned kAutostartText = 344;
constexpr unsigned kRecordingText = 345;
constexpr unsigned kPlaybackText = 346;
constexpr unsigned kSourceText = 347;
constexpr unsigned kAutostartFailedText = 348;
constexpr unsigned kDevicesText = 349;
constexpr unsigned kServiceText = 350;

// Runs `call` on the window thread later; from any thread.
void OnWindowThread(std::function<void()> call)
{
    QMetaObject::invokeMethod(QCoreApplication::instance(), std::move(call), Qt::QueuedConnection);
}

} // namespace

// A restart of the service. The worker reads nothing of the page: what it must change there
// it posts to the window thread, where the page may be gone already.
struct CPgSoundCard::RestartJob {
    QPointer<CPgSoundCard> page;
    const std::atomic<bool>* connected = nullptr;
    ServiceCall stop;
    ServiceCall start;
    std::mutex lock;
    std::condition_variable finished;
    bool done = false;
    std::thread thread;
};

CPgSoundCard::CPgSoundCard(COptionsSheet& sheet)
    : COptionsPage(sheet, kPageSoundCard)
    , m_stop(&NtServiceStop)
    , m_start(&NtServiceStart)
{
    auto* devices = new QGroupBox(UiText(kDevicesText), this);
    m_recording = new QComboBox(devices);
    m_playback = new QComboBox(devices);
    m_source = new QComboBox(devices);
    SetCtrlId(m_recording, kRecordingId);
    SetCtrlId(m_playback, kPlaybackId);
    SetCtrlId(m_source, kSourceId);
    auto* form = new QFormLayout(devices);
    form->addRow(UiText(kRecordingText), m_recording);
    form->addRow(UiText(kSourceText), m_source);
    form->addRow(UiText(kPlaybackText), m_playback);

    m_mic = new CMicCleanupGroup(Working(), this);
    connect(m_mic, &CMicCleanupGroup::Changed, this, [this] { SetModified(true); });

    auto* service = new QGroupBox(UiText(kServiceText), this);
    m_autostart = new QCheckBox(UiText(kAutostartText), service);
    SetCtrlId(m_autostart, kAutostartId);
    m_autostartNote = new QLabel(service);
    SetCtrlId(m_autostartNote, kAutostartNoteId);
    m_autostartNote->setWordWrap(true);
    m_autostartNote->hide();
    m_restartButton = MakeButton(service, kRestartText, kRestartId);
    auto* serviceLayout = new QVBoxLayout(service);
    auto* row = new QHBoxLayout;
    row->addWidget(m_autostart, 1);
    row->addWidget(m_restartButton);
    serviceLayout->addLayout(row);
    serviceLayout->addWidget(m_autostartNote);

    auto* layout = new QVBoxLayout(this);
    layout->addWidget(devices);
    layout->addWidget(m_mic);
    layout->addWidget(service);
    layout->addStretch(1);

    // What the page starts with.
    m_autostart->setChecked(AutostartEnabled(ProgramPath()));
    m_recording->addItem(QString());
    m_playback->addItem(QString());
    for (const std::string& name : SoundDeviceChoices(1))
        m_recording->addItem(QString::fromStdString(name));
    for (const std::string& name : SoundDeviceChoices(2))
        m_playback->addItem(QString::fromStdString(name));
    SelectByPrefix(*m_recording, Working().m_input);
    SelectByPrefix(*m_playback, Working().m_monitor);
    ShowMixerLines(Working().m_input);

    connect(m_autostart, &QCheckBox::clicked, this, &CPgSoundCard::OnAutostart);
    connect(m_recording, &QComboBox::currentIndexChanged, this, [this] { OnRecordingChanged(); });
    connect(m_playback, &QComboBox::currentIndexChanged, this, [this] {
        SetModified(true);
        Store();
    });
    connect(m_source, &QComboBox::currentIndexChanged, this, [this] {
        SetModified(true);
        Store();
    });
    connect(m_restartButton, &QPushButton::clicked, this, &CPgSoundCard::OnRestart);
}

CPgSoundCard::~CPgSoundCard()
{
    if (const std::shared_ptr<RestartJob> job = m_restart) {
        std::unique_lock lock(job->lock);
        const bool ended =
            job->finished.wait_for(lock, std::chrono::milliseconds(kWorkerWaitMs), [&] { return job->done; });
        lock.unlock();
        if (ended) {
            job->thread.join();
        } else {
            // It only posts to pages that still exist; it may finish on its own.
            LogWarning("CPgSoundCard: the service restart still runs as the page closes");
            job->thread.detach();
        }
    }
    m_mixer.Close();
}

std::string CPgSoundCard::ProgramPath() const
{
    return LibProgramFolder() + "larimo";
}

void CPgSoundCard::SelectByPrefix(QComboBox& list, const std::string& name)
{
    const QSignalBlocker blocker(&list);
    const QString prefix = QString::fromStdString(name);
    for (int i = 0; i < list.count(); ++i) {
        if (list.itemText(i).startsWith(prefix, Qt::CaseInsensitive) && (!prefix.isEmpty() || i == 0)) {
            list.setCurrentIndex(i);
            return;
        }
    }
    list.setCurrentIndex(0);
}

void CPgSoundCard::ShowMixerLines(const std::string& device)
{
    {
        const QSignalBlocker blocker(m_source);
        m_source->clear();
        if (device.empty()) {
            m_source->setEnabled(false);
            m_mixer.Close();
        } else {
            unsigned mixerId = 0;
            const unsigned result = PaGetMixerId(device, 1, mixerId);
            if (result != kMmeSuccess) {
                m_mixer.Close();
                m_source->setEnabled(false);
                WarningBox(MmeErrorText(result));
            } else if (m_mixer.Open(mixerId, 0, nullptr)) {
                std::vector<RecSource> sources;
                m_mixer.GetRecSources(sources);
                for (const RecSource& source : sources)
                    m_source->addItem(QString::fromStdString(source.name));
                std::string selected;
                m_mixer.GetRecSourceName(selected);
                SelectByPrefix(*m_source, selected);
                m_source->setEnabled(m_mixer.HasMux());
            } else {
                m_source->setEnabled(false);
            }
        }
    }
    Store();
}

void CPgSoundCard::Store()
{
    Config& working = Working();
    if (m_recording->currentIndex() > 0) {
        working.m_input = m_recording->currentText().toStdString();
        working.m_mixInSrc = m_mixer.IsOpen() && m_mixer.HasMux() ? m_source->currentText().toStdString() : std::string();
    } else {
        working.m_input.clear();
        working.m_mixInSrc.clear();
    }
    working.m_monitor = m_playback->currentIndex() > 0 ? m_playback->currentText().toStdString() : std::string();
}

void CPgSoundCard::OnRecordingChanged()
{
    SetModified(true);
    ShowMixerLines(m_recording->currentIndex() > 0 ? m_recording->currentText().toStdString() : std::string());
    // The meter follows the microphone the user is choosing.
    m_mic->Refresh();
}

void CPgSoundCard::OnAutostart(bool on)
{
    std::string error;
    if (SetAutostart(on, ProgramPath(), error)) {
        m_autostartNote->hide();
        LogInfo("CPgSoundCard: start with the desktop session %s", on ? "on" : "off");
    } else {
        LogError("CPgSoundCard: the autostart entry: %s", error.c_str());
        m_autostartNote->setText(QString::fromStdString(FillText(kAutostartFailedText, error.c_str())));
        m_autostartNote->show();
    }
    const QSignalBlocker blocker(m_autostart);
    m_autostart->setChecked(AutostartEnabled(ProgramPath()));
}

void CPgSoundCard::SetServiceCalls(ServiceCall stop, ServiceCall start)
{
    m_stop = std::move(stop);
    m_start = std::move(start);
}

bool CPgSoundCard::RestartRunning() const
{
    if (!m_restart)
        return false;
    const std::lock_guard lock(m_restart->lock);
    return !m_restart->done;
}

void CPgSoundCard::OnRestart()
{
    if (RestartRunning())
        return;
    if (m_restart && m_restart->thread.joinable())
        m_restart->thread.join();
    auto job = std::make_shared<RestartJob>();
    job->page = this;
    job->connected = Sheet().ConnectedFlag();
    job->stop = m_stop;
    job->start = m_start;
    m_restart = job;
    m_restartButton->setEnabled(false);
    m_restartButton->setText(UiText(kRestartingText));
    job->thread = std::thread([job] { RunRestart(job); });
}

void CPgSoundCard::RunRestart(const std::shared_ptr<RestartJob>& job)
{
    const auto report = [](int result) {
        const std::string text =
            FillText(kServiceErrorText, NtServiceErrorText(result).c_str(), static_cast<unsigned>(errno));
        LogError("CPgSoundCard: restart of the service: %s", text.c_str());
        OnWindowThread([text] { larimo::ErrorBox(nullptr, text); });
    };
    int result = job->stop(kServiceName);
    if (result != 0) {
        report(result);
    } else {
        bool stopped = false;
        for (int look = 0; look < kStopLooks; ++look) {
            if (job->connected == nullptr || !job->connected->load()) {
                stopped = true;
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(kStopLookMs));
        }
        if (stopped) {
            result = job->start(kServiceName);
            if (result != 0)
                report(result);
        } else {
            LogWarning("CPgSoundCard: the service did not stop in time; it is not started again");
        }
    }
    const QPointer<CPgSoundCard> page = job->page;
    OnWindowThread([page] {
        if (page) {
            page->m_restartButton->setEnabled(true);
            page->m_restartButton->setText(UiText(kRestartText));
        }
    });
    const std::lock_guard lock(job->lock);
    job->done = true;
    job->finished.notify_all();
}

} // namespace larimo
