// SPDX-License-Identifier: GPL-3.0-or-later
// A sound the voice service mixes in (a background loop or a fun sound): the whole file
// decoded to 44100 Hz mono 16-bit samples, read once off the audio thread and then shared,
// unchanged, by every mix plan that plays it.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace larimo {

struct PipelineSound {
    std::string path;
    std::vector<int16_t> samples;
};

/// Reads and converts the WAV file at `path`. Null, with a text for the errors list in
/// `errorText`, when it cannot be read, converted or holds no samples. Not on the audio thread.
std::shared_ptr<const PipelineSound> LoadPipelineSound(const std::string& path, std::string& errorText);

} // namespace larimo
