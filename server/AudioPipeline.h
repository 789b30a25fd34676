// SPDX-License-Identifier: GPL-3.0-or-later
// The voice service's audio: microphone -> voice effect -> background and fun sounds -> the
// virtual microphone, and the listen-in monitor, with every block copied to the trace.
//
// Two threads of its own. The control thread opens and closes the devices (again after the
// sound server went away), loads plug-ins and sounds, builds a mix plan for every new service
// state, and passes traces, ended fun sounds and errors on. The audio thread takes each
// recorded block, processes it after the newest plan and writes it out; it never allocates,
// logs, touches files or waits on anything but its device notifications.
#pragma once

#include "ServiceState.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

namespace larimo {

class AudioPipeline final : public StateSink {
public:
    /// Where the pipeline reports back. Called on its control thread, never on the audio thread.
    struct Events {
        std::function<void(size_t slot, uint32_t starts)> funSoundEnded;
        std::function<void(std::string text)> error;
        std::function<void(const int16_t* samples, size_t count)> trace;
    };

    struct Options {
        /// Stop processing while nobody records from the virtual microphone and listen-in is off.
        bool idleWhenUnused = true;
        /// How long to wait between attempts to reach the sound system again.
        uint32_t reconnectMs = 1000;
    };

    /// Counters since the start, for logs, tests and benchmarks. Any thread.
    struct Stats {
        uint64_t blocks = 0;         ///< recorded blocks handled
        uint64_t outputDropped = 0;  ///< blocks not written: every output buffer was still queued
        uint64_t traceDropped = 0;   ///< trace blocks the control thread had no room for
        uint64_t underruns = 0;      ///< times the virtual microphone ran out of data while fed
        uint64_t monitorUnderruns = 0; ///< the same for the listen-in device while listening
        uint64_t sessions = 0;       ///< times the devices were opened
        uint32_t blockSamples = 0;   ///< samples per block of the running session
        bool running = false;        ///< devices open and audio flowing
        bool idle = false;
    };

    AudioPipeline(Options options, Events events);
    ~AudioPipeline() override;
    AudioPipeline(const AudioPipeline&) = delete;
    AudioPipeline& operator=(const AudioPipeline&) = delete;

    /// Takes a new state; the first one starts the pipeline. Never blocks for long: the work
    /// happens on the control thread. Any thread except the audio thread.
    void Apply(std::shared_ptr<const ServiceState> state) override;
    /// The control thread has built the plan of the newest state: its voice effect and sounds
    /// are loaded or their errors reported. Any thread except the pipeline's own.
    bool WaitApplied(uint32_t timeoutMs) override;

    /// Closes the devices and ends both threads. Any thread except the pipeline's own.
    void Stop();

    Stats GetStats() const;

private:
    struct Control;
    std::unique_ptr<Control> m_control;
};

} // namespace larimo
