// SPDX-License-Identifier: GPL-3.0-or-later
// Texts the voice service puts into its errors list. The service may run from a folder without
// language files; its texts then fall back to the English of the string table instead of the
// "not found" marker.
#pragma once

#include <string>

namespace larimo {

/// The translated text of `id`, or its English text when no language is loaded. Any thread.
std::string ServiceText(unsigned id);
/// ServiceText(id) with its first "%s" replaced by `argument`. Any thread.
std::string ServiceTextWith(unsigned id, const std::string& argument);
/// The text of a WaveErrorNum (reading a WAV file). Any thread.
std::string ServiceWaveErrorText(unsigned error);
/// The text of a MoVstErrorNum (loading a plug-in). Any thread.
std::string ServiceVstErrorText(unsigned error);

} // namespace larimo
