// SPDX-License-Identifier: GPL-3.0-or-later
#include "ServiceEventThread.h"

#include "mlog.h"
#include "server/moipc_cmds.h"

#include <chrono>

namespace larimo {

namespace {
constexpr const char* kExitEventName = "MO_SrvCmdTreadExit";
constexpr auto kStopWait = std::chrono::milliseconds(3000);
} // namespace

ServiceEventThread::~ServiceEventThread()
{
    Stop();
}

bool ServiceEventThread::Start(Handlers handlers)
{
    Stop();
    m_handlers = std::move(handlers);
    m_exitEvent = CreateNamedEvent(kExitEventName, true, false);
    // A manual-reset event left set by an earlier run would end the new thread at once.
    if (m_exitEvent != 0)
        ResetNamedEvent(m_exitEvent);
    m_emoticEvent = OpenNamedEvent(kEmoticEventName);
    m_osciEvent = OpenNamedEvent(kOsciEventName);
    {
        std::lock_guard lock(m_doneMutex);
        m_done = false;
    }
    try {
        m_thread = std::thread([this] { Run(); });
    } catch (const std::system_error&) {
        LogError("Cannot start the service event thread.");
        return false;
    }
    return true;
}

void ServiceEventThread::Stop()
{
    if (m_exitEvent != 0)
        SetNamedEvent(m_exitEvent);
    if (m_thread.joinable()) {
        LogScopeInfo("CLarimoDlg::ServOnStop", "Stoping command thread...");
        std::unique_lock lock(m_doneMutex);
        if (!m_doneSignal.wait_for(lock, kStopWait, [this] { return m_done; }))
            LogError("Error of stop comand thread");
        lock.unlock();
        m_thread.join();
    }
    for (ObjHandle* handle : {&m_exitEvent, &m_emoticEvent, &m_osciEvent}) {
        if (*handle != 0)
            CloseObject(*handle);
        *handle = 0;
    }
}

void ServiceEventThread::Run()
{
    LogEnter("CLarimoDlg::SrvCommandsThread");
    const ObjHandle waitSet[3] = {m_exitEvent, m_emoticEvent, m_osciEvent};
    for (;;) {
        const uint32_t wait = WaitForAnyObject(waitSet, 3, kInfinite);
        if (wait == kWaitObject0 || wait == kWaitTimeout || wait == kWaitFailed)
            break;
        if (wait == kWaitObject0 + 1 && m_handlers.onEmotics)
            m_handlers.onEmotics();
        else if (wait == kWaitObject0 + 2 && m_handlers.onOsciUpdate)
            m_handlers.onOsciUpdate();
    }
    LogScopeInfo("CLarimoDlg::SrvCommandsThread", "exit handler");
    LogLeaveResult("CLarimoDlg::SrvCommandsThread", 0);
    std::lock_guard lock(m_doneMutex);
    m_done = true;
    m_doneSignal.notify_all();
}

} // namespace larimo
