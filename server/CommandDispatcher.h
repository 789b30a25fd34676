// SPDX-License-Identifier: GPL-3.0-or-later
// The voice service's side of every command: checks a request, changes the state, and
// writes the answer. No IPC here, so every rule can be tested (and fuzzed) directly.
#pragma once

#include "ServiceState.h"

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <vector>

namespace larimo {

/// Control thread only.
class CommandDispatcher {
public:
    using Loader = std::function<ServiceState()>;

    /// `loader` reads the state from the settings files (at start and on SrvUpdate);
    /// `answerCapacity` is the room the data area has for an answer.
    CommandDispatcher(Loader loader, size_t answerCapacity);

    struct Result {
        bool valid = true;            ///< false: malformed; answered with no data, nothing changed
        bool stateChanged = false;    ///< hand the new state to the pipeline
        bool funSoundsChanged = false; ///< set the fun-sound event
        std::vector<uint8_t> answer;  ///< the answer's bytes (u32 count and the rest)
    };

    /// Checks the request and acts on it.
    Result Handle(uint32_t code, std::span<const uint8_t> payload);

    /// A fun sound ended by itself (from the pipeline): clears its flag. Returns whether
    /// anything changed.
    bool FunSoundEnded(size_t slot, uint32_t starts);

    /// Adds a text for SrvGetErrors (load failures of the pipeline, bad requests).
    void AddError(std::string text);

    const ServiceState& State() const { return m_state; }
    const std::vector<std::string>& Errors() const { return m_errors; }

private:
    Result Reject(uint32_t code, const char* why);
    std::vector<uint8_t> TakeErrors();

    Loader m_loader;
    size_t m_answerCapacity;
    ServiceState m_state;
    std::vector<std::string> m_errors;
};

/// Most texts the service keeps for SrvGetErrors; older ones give way.
constexpr size_t kMaxServiceErrors = 100;

} // namespace larimo
