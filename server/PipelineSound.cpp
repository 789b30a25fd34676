// SPDX-License-Identifier: GPL-3.0-or-later
#include "PipelineSound.h"

#include "ServiceTexts.h"
#include "mlog.h"
#include "wave.h"

#include <cstring>

namespace larimo {

std::shared_ptr<const PipelineSound> LoadPipelineSound(const std::string& path, std::string& errorText)
{
    Wave wave;
    unsigned result = wave.ReadFromFile(path);
    if (result != kWaveSuccess) {
        errorText = ServiceTextWith(211, path) + "\n" + ServiceWaveErrorText(result);
        return nullptr;
    }
    // Library sounds are in the mixing format already; a file put there by hand may not be.
    result = wave.ConvertToOneChanel16Bit();
    if (result != kConvertSuccess) {
        errorText = ServiceTextWith(211, path) + "\n" + WaveConvertFailureText(wave.Format(), result);
        return nullptr;
    }
    auto sound = std::make_shared<PipelineSound>();
    sound->path = path;
    sound->samples.resize(wave.DataSize() / 2);
    if (sound->samples.empty()) {
        errorText = ServiceTextWith(211, path) + "\nThe file holds no samples.";
        return nullptr;
    }
    std::memcpy(sound->samples.data(), wave.Data().data(), sound->samples.size() * 2);
    LogInfo("Loaded sound \"%s\": %zu samples", path.c_str(), sound->samples.size());
    return sound;
}

} // namespace larimo
