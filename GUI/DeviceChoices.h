// SPDX-License-Identifier: GPL-3.0-or-later
// The sound devices a user may choose in the panel: the sound server's devices by description,
// without Larimo's own virtual microphone and, for recording, without the monitors of
// playback devices (a monitor hears the speakers, not the user).
#pragma once

#include <string>
#include <vector>

namespace larimo {

/// The names of `type` (1 recording, 2 playback) to offer, sorted without regard to letter
/// case. Window thread.
std::vector<std::string> SoundDeviceChoices(int type);

} // namespace larimo
