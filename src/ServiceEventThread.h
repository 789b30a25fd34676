// SPDX-License-Identifier: GPL-3.0-or-later
// The thread that follows the voice service's events: fun sounds that changed state and new
// oscilloscope traces. It exists so that the window thread never waits on the service.
#pragma once

#include "ThreadEnd.h"
#include "platform/NamedObjects.h"

#include <functional>
#include <memory>
#include <thread>

namespace larimo {

class ServiceEventThread {
public:
    /// Both run on the event thread.
    struct Handlers {
        std::function<void()> onEmotics;
        std::function<void()> onOsciUpdate;
    };

    ServiceEventThread() = default;
    ~ServiceEventThread();
    ServiceEventThread(const ServiceEventThread&) = delete;
    ServiceEventThread& operator=(const ServiceEventThread&) = delete;

    /// Creates the exit event, opens the service's two events and starts the thread. A missing
    /// service event makes the thread end at once (its wait fails), as after a service stop.
    /// Returns whether the thread runs. Any thread but the event thread.
    bool Start(Handlers handlers);
    /// Sets the exit event and waits up to 3000 ms for the thread. A thread still inside a
    /// handler then is logged and left to end by itself: it touches nothing of this object
    /// once the handler returns, so Stop, and the panel's shutdown, end within the limit. Safe
    /// to call when not started. Any thread but the event thread.
    void Stop();

    bool IsRunning() const { return m_thread.joinable(); }

private:
    // What the thread uses, shared with it so that a thread given up on finds it still there.
    struct Shared {
        Handlers handlers;
        ObjHandle exitEvent = 0;
        ObjHandle emoticEvent = 0;
        ObjHandle osciEvent = 0;
        ThreadEnd end;
    };
    static void Run(const std::shared_ptr<Shared>& shared);
    static void CloseHandles(Shared& shared);

    std::shared_ptr<Shared> m_shared;
    std::thread m_thread;
};

} // namespace larimo
