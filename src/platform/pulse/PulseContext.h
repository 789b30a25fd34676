// SPDX-License-Identifier: GPL-3.0-or-later
// One connection to the sound server through libpulse's threaded main loop, with the
// synchronous queries the device lists, mixers and the virtual microphone need.
//
// Every method except those marked otherwise takes the main loop's lock itself and may block
// until the server answers; none may be called from the loop thread (the libpulse callbacks).
#pragma once

#include <pulse/context.h>
#include <pulse/introspect.h>
#include <pulse/stream.h>
#include <pulse/thread-mainloop.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace larimo {

struct PulsePort {
    std::string name;
    std::string description;
};

/// What Larimo needs of a source or sink, copied out of the server's answer.
struct PulseDevice {
    uint32_t index = 0;
    std::string name;
    std::string description;
    uint32_t monitorOfSink = 0xFFFFFFFFU; ///< sources only
    uint32_t card = 0xFFFFFFFFU;
    std::vector<PulsePort> ports;
    std::string activePort;
    uint8_t channels = 0;
    uint32_t volume = 0; ///< the average over the channels, PA_VOLUME_NORM = 100 %
};

struct PulseServerDefaults {
    std::string sink;
    std::string source;
};

struct PulseSourceOutput {
    uint32_t index = 0;
    uint32_t source = 0;
    bool corked = false;
};

/// Holds the main loop's lock for a scope. Not on the loop thread.
class PulseLock {
public:
    explicit PulseLock(pa_threaded_mainloop* loop);
    ~PulseLock();
    PulseLock(const PulseLock&) = delete;
    PulseLock& operator=(const PulseLock&) = delete;

private:
    pa_threaded_mainloop* m_loop;
};

/// Receives the server's change events for sources and sinks. Called on the loop thread with
/// the lock held: never call back into the context from it.
class PulseEventListener {
public:
    virtual ~PulseEventListener() = default;
    virtual void OnPulseEvent(pa_subscription_event_type_t type, uint32_t index) = 0;
};

class PulseContext {
public:
    PulseContext();
    ~PulseContext();
    PulseContext(const PulseContext&) = delete;
    PulseContext& operator=(const PulseContext&) = delete;

    /// Connects when not connected (again after the server went away). False when the server
    /// cannot be reached or refuses; `LastError` tells why.
    bool Ensure();
    std::string LastError();

    pa_threaded_mainloop* Loop() const { return m_loop.get(); }
    /// The loop thread's id (CurrentThreadId of ProcessInfo.h); 0 without a loop. Not on the
    /// loop thread.
    unsigned LoopThreadId();
    /// The context; use it only with the lock held and after Ensure succeeded.
    pa_context* Context() const { return m_context.get(); }
    /// Waits (lock held, not on the loop thread) until `done` is true or the context fails.
    bool WaitLocked(const std::function<bool()>& done);
    /// Waits for a stream to become ready, lock held; false when it failed.
    bool WaitStreamReadyLocked(pa_stream* stream);

    bool ListSources(std::vector<PulseDevice>& sources);
    bool ListSinks(std::vector<PulseDevice>& sinks);
    bool GetDefaults(PulseServerDefaults& defaults);
    bool SetDefaultSource(const std::string& name);
    bool SetDefaultSink(const std::string& name);
    bool SetSourcePort(const std::string& source, const std::string& port);
    /// Sets every channel to `volume` (PA_VOLUME_NORM = 100 %).
    bool SetSourceVolume(const std::string& source, uint8_t channels, uint32_t volume);
    bool SetSinkVolume(const std::string& sink, uint8_t channels, uint32_t volume);
    /// Loads a module; false (with the reason) when the server refused it.
    bool LoadModule(const std::string& name, const std::string& arguments, uint32_t& index);
    bool ListSourceOutputs(std::vector<PulseSourceOutput>& outputs);

    /// Starts keeping a count of the running recording streams on the source named `source`,
    /// current from the server's events (kRecordersUnknown while not connected; 0 while the
    /// source does not exist). One source is watched per context; a later call changes which.
    /// The count may be read on any thread, the audio thread included.
    std::shared_ptr<const std::atomic<int32_t>> WatchRecorders(const std::string& source);

    void AddListener(PulseEventListener* listener);
    void RemoveListener(PulseEventListener* listener);

private:
    struct LoopDeleter {
        void operator()(pa_threaded_mainloop* loop) const;
    };
    struct ContextDeleter {
        void operator()(pa_context* context) const;
    };

    void DisconnectLocked();
    // Counting runs on the loop thread as a chain of two queries; events that arrive while one
    // runs ask for another round after it, so a burst costs two rounds at most.
    void RecountLocked();
    void OnWatchedSourceLocked(const pa_source_info* info, int eol);
    void OnSourceOutputLocked(const pa_source_output_info* info, int eol);
    bool RunLocked(pa_operation* operation);
    bool UsableLocked() const;

    std::unique_ptr<pa_threaded_mainloop, LoopDeleter> m_loop;
    std::unique_ptr<pa_context, ContextDeleter> m_context;
    std::string m_lastError;
    std::vector<PulseEventListener*> m_listeners;

    std::string m_watchedSource;
    std::shared_ptr<std::atomic<int32_t>> m_recorders;
    bool m_recounting = false;
    bool m_recountAgain = false;
    uint32_t m_watchedIndex = 0xFFFFFFFFU;
    int32_t m_counted = 0;
};

/// RAII for a libpulse operation reference.
struct PulseOperationDeleter {
    void operator()(pa_operation* operation) const;
};
using PulseOperation = std::unique_ptr<pa_operation, PulseOperationDeleter>;

} // namespace larimo
