// SPDX-License-Identifier: GPL-3.0-or-later
#include "DeviceChoices.h"

#include "platform/AudioBackend.h"

#include <algorithm>
#include <cctype>

namespace larimo {

namespace {

constexpr const char* kVirtualMicrophone = "Larimo Microphone";

// Drop-down lists sort without regard to letter case; equal names keep their order.
bool SortsBefore(const std::string& a, const std::string& b)
{
    return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), [](char x, char y) {
        return std::tolower(static_cast<unsigned char>(x)) < std::tolower(static_cast<unsigned char>(y));
    });
}

} // namespace

std::vector<std::string> SoundDeviceChoices(int type)
{
    const std::shared_ptr<AudioBackend> backend = CurrentAudioBackend();
    const bool recording = type == 1;
    const std::vector<std::string> all =
        backend->WaveDeviceNames(recording ? WaveDirection::Capture : WaveDirection::Render);
    std::vector<std::string> names;
    for (size_t device = 0; device < all.size(); ++device) {
        const std::string& name = all[device];
        if (name.empty() || name.find(kVirtualMicrophone) != std::string::npos)
            continue;
        if (recording && backend->IsMonitorDevice(static_cast<int>(device)))
            continue;
        names.push_back(name);
    }
    std::stable_sort(names.begin(), names.end(), SortsBefore);
    return names;
}

} // namespace larimo
