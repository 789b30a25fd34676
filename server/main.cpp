// SPDX-License-Identifier: GPL-3.0-or-later
// LarimoServer: the voice service. Runs from the app folder, one per user.
#include "AudioPipeline.h"
#include "LarimoServer.h"

#include "mlog.h"
#include "modb.h"
#include "texts.h"
#include "wintools.h"

#include <csignal>
#include <cstdio>
#include <cstring>
#include <pthread.h>
#include <thread>

using namespace larimo;

int main(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            std::printf("Usage: LarimoServer\n\n"
                        "The Larimo voice service. It reads config.ini and voiceeffects.ini from its own\n"
                        "folder and serves the control panel and larimoctl until SIGTERM or SIGINT.\n");
            return 0;
        }
        std::fprintf(stderr, "LarimoServer: unknown argument \"%s\" (try --help)\n", argv[i]);
        return 2;
    }

    // Signals go to one thread that turns them into a quit request; every other thread,
    // created after this, inherits the blocked mask.
    sigset_t quitSignals;
    sigemptyset(&quitSignals);
    sigaddset(&quitSignals, SIGTERM);
    sigaddset(&quitSignals, SIGINT);
    sigaddset(&quitSignals, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &quitSignals, nullptr);

    const std::string root = ProgramFolder();
    SetDataRoot(root);
    LogOpen(root + "larimosrv.log", true, true, false, false, false);
    LogStartBanner();

    LibInit(root);
    if (!StartTexts())
        LogWarning("LarimoServer: no language file; error texts are in English");

    // The pipeline reports through the server, which hands it every state; the server pointer
    // is set before the first state can arrive (in Run).
    LarimoServer* reportTo = nullptr;
    AudioPipeline::Events events;
    events.funSoundEnded = [&reportTo](size_t slot, uint32_t starts) { reportTo->FunSoundEnded(slot, starts); };
    events.error = [&reportTo](std::string text) { reportTo->ReportError(std::move(text)); };
    events.trace = [&reportTo](const int16_t* samples, size_t count) { reportTo->PublishTrace(samples, count); };
    AudioPipeline pipeline({}, std::move(events));
    LarimoServer server({root}, &pipeline);
    reportTo = &server;
    std::thread([&server, quitSignals] {
        int signal = 0;
        if (sigwait(&quitSignals, &signal) == 0) {
            LogInfo("LarimoServer: signal %d, ending", signal);
            server.Quit();
        }
    }).detach();

    const int result = server.Run();
    pipeline.Stop();
    if (result == LarimoServer::kExitAlreadyRunning)
        std::fprintf(stderr, "LarimoServer is already running.\n");
    else if (result != LarimoServer::kExitOk)
        std::fprintf(stderr, "LarimoServer could not create its objects; see larimosrv.log.\n");
    return result;
}
