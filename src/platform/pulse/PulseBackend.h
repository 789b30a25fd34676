// SPDX-License-Identifier: GPL-3.0-or-later
// The sound system through the sound server (PulseAudio, or PipeWire through pipewire-pulse).
//
// Wave devices are the server's sources and sinks in the server's order, named by their
// descriptions; the monitor of the virtual microphone's own sink is left out, so the virtual
// microphone is listed once per direction. Device -1 is the server's default.
#pragma once

#include "platform/AudioBackend.h"

#include <memory>

namespace larimo {

/// The server names of the virtual microphone's two halves.
inline constexpr const char* kVirtualMicSinkName = "larimo_mic";
inline constexpr const char* kVirtualMicSourceName = "larimo_mic_source";

/// A backend that connects on first use (and again after the server went away). Any thread.
std::shared_ptr<AudioBackend> CreatePulseBackend();

} // namespace larimo
