// SPDX-License-Identifier: GPL-3.0-or-later
// The observer of the voice service's running state. A thread of its own watches the
// service's is-work mutex and run event and reports each start and stop.
#pragma once

#include "ThreadEnd.h"
#include "platform/NamedObjects.h"

#include <memory>
#include <string>
#include <thread>

namespace larimo {

/// Start and stop callbacks run on the observer thread. They must not wait for the window
/// thread without a time limit (post to it instead).
class ProgrammState {
public:
    /// Names: base + "StopCl", base + "ServRun", base + "ServIsWork".
    explicit ProgrammState(const std::string& baseName);
    virtual ~ProgrammState();
    ProgrammState(const ProgrammState&) = delete;
    ProgrammState& operator=(const ProgrammState&) = delete;

    /// Starts the observer thread; `context` is handed to the callbacks. Window thread.
    bool ObserverStart(void* context);
    /// Ends the observer thread: waits up to 2000 ms for it; a thread still inside a callback
    /// then is logged and left to end by itself (it touches nothing of this object once the
    /// callback returns), so the panel's shutdown ends within the limit. Window thread.
    void ObserverStop();

    const std::string& IsWorkName() const { return m_isWorkName; }
    const std::string& RunName() const { return m_runName; }

protected:
    /// The service was seen running. Observer thread.
    virtual void OnServStart(void* context);
    /// The service was seen stopped (released its mutex or died). Observer thread.
    virtual void OnServStop(void* context);

private:
    // What the thread uses, shared with it so that a thread given up on finds it still there.
    struct Shared {
        ObjHandle stopEvent = 0;
        void* context = nullptr;
        ThreadEnd end;
    };
    void ThreadServerState(const std::shared_ptr<Shared>& shared);

    std::string m_stopName;
    std::string m_runName;
    std::string m_isWorkName;
    std::shared_ptr<Shared> m_shared;
    std::thread m_thread;
    void* m_context = nullptr;
};

/// What the observer reports to: the main window, or any other client of the service link.
class ServiceLinkListener {
public:
    virtual ~ServiceLinkListener() = default;
    virtual void ServOnStart() = 0;
    virtual void ServOnStop() = 0;
};

/// The observer the main window uses: its context is a ServiceLinkListener.
class ServState : public ProgrammState {
public:
    using ProgrammState::ProgrammState;
    ~ServState() override;

protected:
    void OnServStart(void* context) override;
    void OnServStop(void* context) override;
};

} // namespace larimo
