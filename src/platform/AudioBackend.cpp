// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/AudioBackend.h"

#include "platform/pulse/PulseBackend.h"

#include <mutex>

namespace larimo {

namespace {

std::mutex g_backendMutex;
std::shared_ptr<AudioBackend> g_installed;
std::shared_ptr<AudioBackend> g_pulse;

} // namespace

unsigned PrepareWaveHeader(WaveHeader& header)
{
    if ((header.flags.load() & kWhdrInQueue) != 0)
        return kWaveErrStillPlaying;
    header.flags.fetch_or(kWhdrPrepared);
    return kMmOk;
}

unsigned UnprepareWaveHeader(WaveHeader& header)
{
    if ((header.flags.load() & kWhdrInQueue) != 0)
        return kWaveErrStillPlaying;
    header.flags.fetch_and(~kWhdrPrepared);
    return kMmOk;
}

std::shared_ptr<AudioBackend> CurrentAudioBackend()
{
    std::lock_guard lock(g_backendMutex);
    if (g_installed)
        return g_installed;
    if (!g_pulse)
        g_pulse = CreatePulseBackend();
    return g_pulse;
}

std::shared_ptr<AudioBackend> SetAudioBackend(std::shared_ptr<AudioBackend> backend)
{
    std::lock_guard lock(g_backendMutex);
    std::shared_ptr<AudioBackend> previous = std::move(g_installed);
    g_installed = std::move(backend);
    return previous;
}

} // namespace larimo
