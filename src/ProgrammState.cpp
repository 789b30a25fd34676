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
    auto shared = std::make_shared<Shared>();
    shared->stopEvent = CreateNamedEvent(m_stopName, false, false);
    if (shared->stopEvent == 0) {
        LogScopeInfo("ProgrammState::ObserverStart", "Create event error: %u", LastObjectError());
    } else {
        if (context != nullptr)
            m_context = context;
        shared->context = m_context;
        try {
            m_thread = std::thread([this, shared] { ThreadServerState(shared); });
            m_shared = std::move(shared);
            started = true;
        } catch (const std::system_error& error) {
            LogScopeInfo("ProgrammState::ObserverStart", "Create thread error: %u",
                         static_cast<unsigned>(error.code().value()));
            CloseObject(shared->stopEvent);
        }
    }
    LogLeaveResult("ProgrammState::ObserverStart", started);
    return started;
}

void ProgrammState::ObserverStop()
{
    if (!m_shared)
        return;
    LogInfo("ProgrammState::ObserverStop");
    Shared& shared = *m_shared;
    bool ended = true;
    if (m_thread.joinable()) {
        SetNamedEvent(shared.stopEvent);
        // Still inside a callback after the limit: it ends by itself when the callback
        // returns, and closes its handles then.
        ended = shared.end.WaitOrGiveUp(m_thread, kObserverStopWait);
        if (!ended)
            LogError("The service observer did not end within %d ms.", static_cast<int>(kObserverStopWait.count()));
    }
    if (ended)
        CloseObject(shared.stopEvent);
    m_shared.reset();
    m_context = nullptr;
}

void ProgrammState::ThreadServerState(const std::shared_ptr<Shared>& state)
{
    Shared& shared = *state;
    LogEnter("ProgrammState::ThreadServerState");
    // Objects are private to the user, so every program of the user can set the run event.
    ObjHandle isWork = 0;
    const ObjHandle runEvent = CreateNamedEvent(m_runName, false, false);
    if (runEvent == 0) {
        LogInfo("CreateEvent error: %u", LastObjectError());
    } else {
        // Copied now: once the observer has been given up on, this object may be gone.
        const std::string isWorkName = m_isWorkName;
        // Every callback is made through the object, so none may be made after it gave up.
        const auto report = [this, &shared](bool started) {
            if (shared.end.GivenUp())
                return false;
            if (started)
                OnServStart(shared.context);
            else
                OnServStop(shared.context);
            return !shared.end.GivenUp();
        };
        std::vector<ObjHandle> waitSet{shared.stopEvent, runEvent};
        isWork = OpenNamedMutex(isWorkName);
        bool running = true;
        if (isWork != 0) {
            waitSet.push_back(isWork);
            running = report(true);
        }
        while (running) {
            const uint32_t wait = WaitForAnyObject(waitSet.data(), waitSet.size(), kInfinite);
            if (wait == kWaitObject0) {
                running = false;
            } else if (wait == kWaitObject0 + 1) {
                if (isWork != 0)
                    CloseObject(isWork);
                waitSet.resize(2);
                isWork = OpenNamedMutex(isWorkName);
                if (isWork != 0)
                    waitSet.push_back(isWork);
                running = report(true);
            } else if (wait == kWaitObject0 + 2 || wait == kWaitAbandoned0 + 2) {
                // The wait made this thread the owner; hand the mutex back so that a
                // restarted service can own it again.
                ReleaseNamedMutex(isWork);
                CloseObject(isWork);
                isWork = 0;
                waitSet.resize(2);
                running = report(false);
            } else if (wait == kWaitFailed) {
                LogError("Waiting for the service state failed: %u", LastObjectError());
                running = false;
            }
            // Pause between rounds so that a flapping service cannot spin this thread; a
            // stop request ends the pause at once.
            if (running && WaitForObject(shared.stopEvent, kObserverPauseMs) == kWaitObject0)
                running = false;
        }
        if (isWork != 0)
            CloseObject(isWork);
        CloseObject(runEvent);
    }
    LogLeave("ProgrammState::ThreadServerState");
    if (shared.end.Done())
        CloseObject(shared.stopEvent);
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
