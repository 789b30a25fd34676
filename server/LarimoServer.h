// SPDX-License-Identifier: GPL-3.0-or-later
// The voice service's command side: it owns every named object of the service link, serves
// the panel's and larimoctl's requests, and hands each new state to the audio pipeline.
#pragma once

#include "CommandDispatcher.h"
#include "ServiceState.h"
#include "sharemem.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace larimo {

class LarimoServer {
public:
    struct Options {
        std::string dataRoot;                      ///< folder of config.ini, ending in '/'
        std::string ipcBase = kIpcBaseName;        ///< base name of the IPC objects
        std::string stateBase = kServStateBaseName; ///< base name of the observer's objects
    };

    /// Exit codes of Run.
    enum : int { kExitOk = 0, kExitAlreadyRunning = 1, kExitObjectsFailed = 3 };

    LarimoServer(Options options, StateSink* sink);
    ~LarimoServer();
    LarimoServer(const LarimoServer&) = delete;
    LarimoServer& operator=(const LarimoServer&) = delete;

    /// Creates the objects, announces the service and serves requests until Quit. The thread
    /// that calls it owns the service's mutexes, so everything happens on it.
    int Run();

    /// Ends Run. Any thread (not a signal handler).
    void Quit();

    /// The pipeline reports a fun sound that ended by itself (`starts` as in its snapshot).
    /// Any thread; the control thread clears the flag and sets the fun-sound event.
    void FunSoundEnded(size_t slot, uint32_t starts);

    /// Adds a text to the errors list (load failures in the pipeline). Any thread.
    void ReportError(std::string text);

    /// Writes one trace block into the trace memory and sets the trace event. Not for the
    /// audio thread: the pipeline calls it from its own non-real-time thread.
    void PublishTrace(const int16_t* samples, size_t count);

private:
    bool CreateObjects();
    void ReleaseObjects();
    void ServeRequest();
    void TakePipelineNews();
    void Publish();

    Options m_options;
    StateSink* m_sink;
    std::unique_ptr<CommandDispatcher> m_dispatcher;

    ObjHandle m_instance = 0;
    ObjHandle m_ipcWork = 0;
    ObjHandle m_servIsWork = 0;
    ObjHandle m_request = 0;
    ObjHandle m_answer = 0;
    ObjHandle m_quit = 0;
    ObjHandle m_news = 0;
    ObjHandle m_emoticEvent = 0;
    ObjHandle m_osciEvent = 0;
    ShareMem m_memory;
    ShareMem m_trace;
    std::mutex m_traceLock;

    std::mutex m_newsLock;
    std::vector<std::pair<size_t, uint32_t>> m_endedSounds;
    std::vector<std::string> m_newErrors;
};

} // namespace larimo
