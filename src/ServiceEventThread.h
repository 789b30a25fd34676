// SPDX-License-Identifier: GPL-3.0-or-later
// The thread that follows the voice service's events: fun sounds that changed state and new
// oscilloscope traces. It exists so that the window thread never waits on the service.
#pragma once

#include "platform/NamedObjects.h"

#include <condition_variable>
#include <functional>
#include <mutex>
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
    /// Sets the exit event, waits for the thread (logging when it takes over 3000 ms) and closes
    /// every handle. Safe to call when not started. Any thread but the event thread.
    void Stop();

    bool IsRunning() const { return m_thread.joinable(); }

private:
    void Run();

    Handlers m_handlers;
    ObjHandle m_exitEvent = 0;
    ObjHandle m_emoticEvent = 0;
    ObjHandle m_osciEvent = 0;
    std::thread m_thread;
    std::mutex m_doneMutex;
    std::condition_variable m_doneSignal;
    bool m_done = false;
};

} // namespace larimo
