// SPDX-License-Identifier: GPL-3.0-or-later
// What the voice service holds: the slots and switches the panel commands, and the settings
// they came from. The audio pipeline receives each new state whole, as an immutable snapshot.
#pragma once

#include "moipc_cmds.h"

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace larimo {

class Config;

struct BackSoundSlot {
    std::string file; ///< library file name with ".wav", empty for an empty slot
    int volume = 100; ///< 0..100
    bool operator==(const BackSoundSlot&) const = default;
};

struct FunSoundSlot {
    std::string file;    ///< path relative to the fun sound folder, backslash form
    bool playing = false;
    uint32_t starts = 0; ///< counts plays, so the pipeline restarts a sound played again
    bool operator==(const FunSoundSlot&) const = default;
};

struct ServiceState {
    int activeEffect = -1;
    std::array<std::string, kEffectSlots> effectSlots;
    int activeBackSound = -1;
    std::array<BackSoundSlot, kBackSoundSlots> backSounds;
    std::vector<FunSoundSlot> funSounds;
    bool monitorOn = false;
    int monitorVol = 100;

    /// The settings the state was read from: devices, buffers, listen mode, effect
    /// definitions. Shared and never changed after loading.
    std::shared_ptr<const Config> settings;

    bool operator==(const ServiceState& other) const;
};

/// Where the command layer hands every new state. The audio pipeline implements it; Apply
/// must not block (it swaps the snapshot in). Called on the service's control thread.
class StateSink {
public:
    virtual ~StateSink() = default;
    virtual void Apply(std::shared_ptr<const ServiceState> state) = 0;
    /// Waits at most `timeoutMs` until the newest state handed to Apply has been acted on, so
    /// that what it failed to load is already reported. False when the time ran out.
    virtual bool WaitApplied(uint32_t timeoutMs)
    {
        (void)timeoutMs;
        return true;
    }
};

/// Reads the service's state from "config.ini" and "voiceeffects.ini" under `dataRoot`.
ServiceState LoadServiceState(const std::string& dataRoot);

} // namespace larimo
