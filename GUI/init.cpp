// SPDX-License-Identifier: GPL-3.0-or-later
#include "init.h"

#include "VSTEditDialog.h"

#include "LarimoDlg.h"
#include "QtMessageBoxSink.h"
#include "wizard.h"

#include "NTService.h"
#include "VersionInfo.h"
#include "config.h"
#include "defsnc.h"
#include "error.h"
#include "help.h"
#include "mlog.h"
#include "modb.h"
#include "texts.h"
#include "wintools.h"
#include "wmme.h"
#include "platform/NamedObjects.h"

#include <QApplication>
#include <QEventLoop>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <unistd.h>

namespace larimo {

namespace {

constexpr const char* kAppMutexName = "LarimoAppMutex";

// Whatever way start-up ends, the mutex is closed once, the texts end and the message sink
// that pointed into this run is removed.
class RunResources {
public:
    ~RunResources()
    {
        if (m_mutex != 0)
            CloseObject(m_mutex);
        if (m_textsStarted)
            EndTexts();
        SetHelpViewer(nullptr);
        SetEffectParamWindowFactory(nullptr);
        if (m_sinkInstalled)
            SetMessageBoxSink(nullptr);
    }
    ObjHandle m_mutex = 0;
    bool m_textsStarted = false;
    bool m_sinkInstalled = false;
};

} // namespace

CMoApp::CMoApp() = default;

CMoApp::CMoApp(Hooks hooks)
    : m_hooks(std::move(hooks))
{
}

const char* CMoApp::OutcomeName(Outcome outcome)
{
    switch (outcome) {
    case Outcome::kClosed:
        return "closed";
    case Outcome::kTextsFailed:
        return "texts failed";
    case Outcome::kDriverMissing:
        return "virtual microphone missing";
    case Outcome::kMutexFailed:
        return "instance mutex failed";
    case Outcome::kAlreadyRunning:
        return "already running";
    case Outcome::kWizardCancelled:
        return "wizard cancelled";
    case Outcome::kInstallFailed:
        return "service installation failed";
    case Outcome::kRunFailed:
        return "service start failed";
    case Outcome::kSkinFailed:
        return "skin failed";
    }
    return "?";
}

CMoApp::Outcome CMoApp::InitInstance()
{
    LogScopeInfo("CMoApp::InitInstance");
    RunResources resources;

    std::string folder = m_hooks.programFolder.empty() ? ProgramFolder() : WithTrailingSlash(m_hooks.programFolder);
    if (!folder.empty() && chdir(folder.c_str()) != 0)
        LogError("CMoApp: cannot enter the program folder %s: %s", folder.c_str(), std::strerror(errno));
    SetDataRoot(folder);
    LibInit(folder);

    Config general;
    general.ReadGeneral();
    SetHelpFilePath(folder + general.m_helpFile);
    SetHelpViewer(std::make_unique<DesktopHelpViewer>());
    SetEffectParamWindowFactory(&VSTEditDialog::Make);

    if (!StartTexts(general.m_langsPath, general.m_langFile)) {
        // Nothing can be shown without texts and the log is not open yet: standard error is
        // the only place left to say why the program ends.
        const std::string file = LanguageFullPath(general.m_langFile, folder);
        std::error_code ec;
        const char* why = !std::filesystem::exists(file, ec) ? "it does not exist"
                                                              : "it cannot be read or is not a language file";
        std::fprintf(stderr, "larimo: the language file \"%s\" (langFile in config.ini) cannot be used: %s.\n",
                     file.c_str(), why);
        return Outcome::kTextsFailed;
    }
    resources.m_textsStarted = true;

    static QtMessageBoxSink qtSink;
    SetMessageBoxSink(m_hooks.messageSink != nullptr ? m_hooks.messageSink : &qtSink);
    resources.m_sinkInstalled = true;
    SetMessageDefaults(nullptr, GetText(113).c_str());

    LogOpen("larimocl.log", true, false, false, false, false);
    LogStartBanner();
    LogProgramVersion(folder + "larimo");
    PaLogSoundDevices();

    if (!CheckSoundDriver())
        return Outcome::kDriverMissing;
    if (!SelectDefSndc())
        ShowInfo("%s", GetText(160).c_str());

    resources.m_mutex = CreateNamedMutex(kAppMutexName, true);
    if (resources.m_mutex == 0) {
        ShowInfo("%s", GetText(158).c_str());
        return Outcome::kMutexFailed;
    }
    if (LastObjectError() == kErrorAlreadyExists) {
        ShowInfo("%s", GetText(159).c_str());
        return Outcome::kAlreadyRunning;
    }

    if (!ShowWizard())
        return Outcome::kWizardCancelled;
    if (!InstallServer())
        return Outcome::kInstallFailed;
    if (!RunServer())
        return Outcome::kRunFailed;

    LogScopeInfo("CMoApp::InitInstance", "Show main dialog...");
    CLarimoDlg dialog;
    if (!dialog.OnInitDialog())
        return Outcome::kSkinFailed;
    SetMessageDefaults(&dialog, nullptr);
    // Not QDialog::exec: that returns as soon as the window is hidden, and the panel hides
    // into the tray. It ends when its Exit finishes the dialog.
    QEventLoop loop;
    QObject::connect(&dialog, &QDialog::finished, &loop, &QEventLoop::quit);
    dialog.show();
    if (m_hooks.mainWindowShown)
        QMetaObject::invokeMethod(&dialog, [&] { m_hooks.mainWindowShown(dialog); }, Qt::QueuedConnection);
    loop.exec();
    SetMessageDefaults(nullptr, nullptr);
    return Outcome::kClosed;
}

bool CMoApp::ShowWizard()
{
    LogScopeInfo("ShowWizard", "wizard pages...");
    Config settings;
    settings.LoadAll();
    if (m_hooks.wizard) {
        if (settings.m_wizard)
            return true;
        if (!m_hooks.wizard(settings))
            return false;
        settings.m_wizard = true;
        settings.WriteGeneral();
        settings.WriteSoundCards();
        return true;
    }
    return larimo::ShowWizard(settings);
}

} // namespace larimo
