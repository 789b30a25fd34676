// SPDX-License-Identifier: GPL-3.0-or-later
// The virtual microphone "Larimo Microphone" and the system's default devices: making sure the
// virtual microphone exists, making its recording side the default recording device and
// keeping it from being the default playback device, and the channel that tells whether some
// program records from it.
//
// Caller thread (start-up, the window thread); none of these may run on the audio thread.
#pragma once

#include "SelectDefSound/SoundDevices.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>

namespace larimo {

/// Makes sure the virtual microphone exists and finds it among the playback devices. False,
/// after an error message (text 157), when it is not there.
bool CheckSoundDriver();
/// Makes the virtual microphone the default recording device (false only when that failed),
/// then runs _ResetRenderLarimo.
bool SelectDefSndc();
/// Moves the default playback device off the virtual microphone when there is another one.
void _ResetRenderLarimo();
/// Makes entry `index` of `devices` the system's default device of its direction.
bool SetDefaultDevice(CSoundDevices& devices, int index);
/// The first entry whose name contains `text`, or -1.
int FindDeviceByName(const CSoundDevices& devices, const std::string& text);

/// The open control channel of the virtual microphone.
class DriverControl {
public:
    explicit DriverControl(std::shared_ptr<AudioBackend> backend);
    /// Value 1: a counter that moves on with every query while some program records from the
    /// virtual microphone. Value 0: the counter as it stands. Other values: 0, nothing asked.
    uint32_t Query(uint32_t value);

private:
    std::shared_ptr<AudioBackend> m_backend;
    // The count of recorders that the backend keeps from the sound system's own notifications,
    // where it can. Reading it never waits for the sound server, so a stalled server cannot
    // freeze the window that asks five times a second; the backend is asked directly only
    // while the count is unknown (no connection yet, or it broke).
    std::shared_ptr<const std::atomic<int32_t>> m_recorders;
    uint32_t m_counter = 1;
};

/// Opens the channel; `handle` stays null when the virtual microphone does not exist.
void DriverControlOpen(std::unique_ptr<DriverControl>& handle);
/// The channel's answer to `value` (0 or 1); 0 for other values, a null handle or a failure.
uint32_t DriverControlQuery(DriverControl* handle, uint32_t value);

} // namespace larimo
