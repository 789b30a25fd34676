// SPDX-License-Identifier: GPL-3.0-or-later
#include "ProgrammState.h"

#include "mlog.h"
#include "server/moipc_cmds.h"

#include <chrono>
#include <vector>

namespace larimo {

namespace {
constexpr uint32_t kObserverPauseMs = 300;
constexpr auto kObserverStopWait = std::chrono::milliseconds(2000);
} // namespace

ProgrammState::ProgrammState(const std::string& baseName)
    : m_stopName(baseName + kStopClSuffix)
    , m_runName(baseName + kServRunSuffix)
    , m_isWorkName(baseName + kServIsWorkSuffix)
{
}

ProgrammState::~ProgrammState()
{
    ObserverStop();
}

void ProgrammState::OnServStart(void*) { }

void ProgrammState::OnServStop(void*) { }

bool ProgrammState::ObserverStart(void* context)
{
    LogEnter("ProgrammState::ObserverStart");
    bool started = false;
    m_stopEvent = CreateNamedEvent(m_stopName, false, false);
    if (m_stopEvent == 0) {
        LogScopeInfo("ProgrammState::ObserverStart", "Create event error: %u", LastObjectError());
    } else {
        if (context != nullptr)
            m_context = context;
        {
            std::lock_guard lock(m_doneMutex);
            m_done = false;
        }
        try {
            m_thread = std::thread([this] { ThreadServerState(); });
            started = true;
        } catch (const std::system_error& error) {
            LogScopeInfo("ProgrammState::ObserverStart", "Create thread error: %u",
                         static_cast<unsigned>(error.code().value()));
            CloseObject(m_stopEvent);
            m_stopEvent = 0;
        }
    }
    LogLeaveResult("ProgrammState::ObserverStart", started);
    return started;
}

void ProgrammState::ObserverStop()
{
    if (m_stopEvent == 0 && !m_thread.joinable())
        return;
    LogInfo("ProgrammState::ObserverStop");
    if (m_stopEvent != 0 && m_thread.joinable()) {
        SetNamedEvent(m_stopEvent);
        std::unique_lock lock(m_doneMutex);
        if (!m_doneSignal.wait_for(lock, kObserverStopWait, [this] { return m_done; }))
            LogError("The service observer did not end within %d ms.",
                     static_cast<int>(kObserverStopWait.count()));
    }
    // A callback stuck past the limit still has to return before the object may go.
    if (m_thread.joinable())
        m_thread.join();
    if (m_stopEvent != 0)
        CloseObject(m_stopEvent);
    m_stopEvent = 0;
    m_context = nullptr;
}

void ProgrammState::ThreadServerState()
{
    LogEnter("ProgrammState::ThreadServerState");
    if (m_stopEvent != 0) {
        // Objects are private to the user, so every program of the user can set the run event.
        m_runEvent = CreateNamedEvent(m_runName, false, false);
        if (m_runEvent == 0) {
            LogInfo("CreateEvent error: %u", LastObjectError());
        } else {
            std::vector<ObjHandle> waitSet{m_stopEvent, m_runEvent};
            m_isWork = OpenNamedMutex(m_isWorkName);
            if (m_isWork != 0) {
                waitSet.push_back(m_isWork);
                OnServStart(m_context);
            }
            bool running = true;
            while (running) {
                const uint32_t wait = WaitForAnyObject(waitSet.data(), waitSet.size(), kInfinite);
                if (wait == kWaitObject0) {
                    running = false;
                } else if (wait == kWaitObject0 + 1) {
                    if (m_isWork != 0)
                        CloseObject(m_isWork);
                    waitSet.resize(2);
                    m_isWork = OpenNamedMutex(m_isWorkName);
                    if (m_isWork != 0)
                        waitSet.push_back(m_isWork);
                    OnServStart(m_context);
                } else if (wait == kWaitObject0 + 2 || wait == kWaitAbandoned0 + 2) {
                    // The wait made this thread the owner; hand the mutex back so that a
                    // restarted service can own it again.
                    ReleaseNamedMutex(m_isWork);
                    CloseObject(m_isWork);
                    m_isWork = 0;
                    waitSet.resize(2);
                    OnServStop(m_context);
                } else if (wait == kWaitFailed) {
                    LogError("Waiting for the service state failed: %u", LastObjectError());
                    running = false;
                }
                // Pause between rounds so that a flapping service cannot spin this thread; a
                // stop request ends the pause at once.
                if (running && WaitForObject(m_stopEvent, kObserverPauseMs) == kWaitObject0)
                    running = false;
            }
            if (m_isWork != 0)
                CloseObject(m_isWork);
            CloseObject(m_runEvent);
            m_isWork = 0;
            m_runEvent = 0;
        }
    }
    LogLeave("ProgrammState::ThreadServerState");
    std::lock_guard lock(m_doneMutex);
    m_done = true;
    m_doneSignal.notify_all();
}

ServState::~ServState()
{
    // Stop here, while the overrides still exist.
    ObserverStop();
}

void ServState::OnServStart(void* context)
{
    if (context != nullptr)
        static_cast<ServiceLinkListener*>(context)->ServOnStart();
}

void ServState::OnServStop(void* context)
{
    if (context != nullptr)
        static_cast<ServiceLinkListener*>(context)->ServOnStop();
}

} // namespace larimo
