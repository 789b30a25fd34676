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
    m_shared = std::make_shared<Shared>();
    Shared& shared = *m_shared;
    shared.handlers = std::move(handlers);
    shared.exitEvent = CreateNamedEvent(kExitEventName, true, false);
    // A manual-reset event left set by an earlier run would end the new thread at once.
    if (shared.exitEvent != 0)
        ResetNamedEvent(shared.exitEvent);
    shared.emoticEvent = OpenNamedEvent(kEmoticEventName);
    shared.osciEvent = OpenNamedEvent(kOsciEventName);
    try {
        m_thread = std::thread([state = m_shared] { Run(state); });
    } catch (const std::system_error&) {
        LogError("Cannot start the service event thread.");
        CloseHandles(shared);
        m_shared.reset();
        return false;
    }
    return true;
}

void ServiceEventThread::Stop()
{
    if (!m_shared)
        return;
    Shared& shared = *m_shared;
    if (shared.exitEvent != 0)
        SetNamedEvent(shared.exitEvent);
    bool ended = true;
    if (m_thread.joinable()) {
        LogScopeInfo("CLarimoDlg::ServOnStop", "Stoping command thread...");
        // Still inside a handler after the limit: it ends by itself when the handler returns,
        // and closes the handles then.
        ended = shared.end.WaitOrGiveUp(m_thread, kStopWait);
        if (!ended)
            LogError("Error of stop comand thread");
    }
    if (ended)
        CloseHandles(shared);
    m_shared.reset();
}

void ServiceEventThread::CloseHandles(Shared& shared)
{
    for (ObjHandle* handle : {&shared.exitEvent, &shared.emoticEvent, &shared.osciEvent}) {
        if (*handle != 0)
            CloseObject(*handle);
        *handle = 0;
    }
}

void ServiceEventThread::Run(const std::shared_ptr<Shared>& state)
{
    Shared& shared = *state;
    LogEnter("CLarimoDlg::SrvCommandsThread");
    const ObjHandle waitSet[3] = {shared.exitEvent, shared.emoticEvent, shared.osciEvent};
    for (;;) {
        const uint32_t wait = WaitForAnyObject(waitSet, 3, kInfinite);
        if (wait == kWaitObject0 || wait == kWaitTimeout || wait == kWaitFailed)
            break;
        if (wait == kWaitObject0 + 1 && shared.handlers.onEmotics)
            shared.handlers.onEmotics();
        else if (wait == kWaitObject0 + 2 && shared.handlers.onOsciUpdate)
            shared.handlers.onOsciUpdate();
        if (shared.end.GivenUp())
            break;
    }
    LogScopeInfo("CLarimoDlg::SrvCommandsThread", "exit handler");
    LogLeaveResult("CLarimoDlg::SrvCommandsThread", 0);
    if (shared.end.Done())
        CloseHandles(shared);
}

} // namespace larimo
