// SPDX-License-Identifier: GPL-3.0-or-later
#include "MixPlan.h"

#include "mix.h"

#include <algorithm>

namespace larimo {

void TakeOverPlanRT(MixPlan& next, const MixPlan* previous) noexcept
{
    const bool sameBackground = previous != nullptr && previous->background == next.background;
    next.backgroundPosition = sameBackground ? previous->backgroundPosition : 0;

    for (size_t i = 0; i < next.funSounds.size() && i < next.voices.size(); ++i) {
        const MixPlan::FunSound& sound = next.funSounds[i];
        MixPlan::Voice& voice = next.voices[i];
        voice = {};
        if (!sound.playing || !sound.sound)
            continue;
        const bool known = previous != nullptr && i < previous->funSounds.size() && i < previous->voices.size();
        if (known && previous->funSounds[i].playing && previous->funSounds[i].starts == sound.starts &&
            previous->funSounds[i].sound == sound.sound) {
            // The same play goes on, or stays finished if it ended before the plan caught up.
            voice = previous->voices[i];
        } else {
            voice.active = true;
        }
    }
}

namespace {

inline int16_t Saturate(int32_t value)
{
    return static_cast<int16_t>(std::clamp<int32_t>(value, -32768, 32767));
}

} // namespace

void MixSoundsRT(MixPlan& plan, int16_t* samples, size_t count, bool audible, EndedFunSoundRing& ended) noexcept
{
    if (plan.background && !plan.background->samples.empty()) {
        const std::vector<int16_t>& loop = plan.background->samples;
        size_t position = plan.backgroundPosition % loop.size();
        if (audible) {
            const float gain = plan.backgroundGain;
            for (size_t i = 0; i < count; ++i) {
                samples[i] = Saturate(samples[i] + static_cast<int32_t>(static_cast<float>(loop[position]) * gain));
                if (++position == loop.size())
                    position = 0;
            }
        } else {
            position = (position + count) % loop.size();
        }
        plan.backgroundPosition = position;
    }

    for (size_t slot = 0; slot < plan.voices.size() && slot < plan.funSounds.size(); ++slot) {
        MixPlan::Voice& voice = plan.voices[slot];
        if (!voice.active)
            continue;
        const std::vector<int16_t>& data = plan.funSounds[slot].sound->samples;
        const size_t take = std::min(count, data.size() - std::min(voice.position, data.size()));
        if (audible) {
            const int16_t* source = data.data() + voice.position;
            for (size_t i = 0; i < take; ++i)
                samples[i] = Saturate(int32_t{samples[i]} + source[i]);
        }
        voice.position += take;
        if (voice.position >= data.size()) {
            voice.active = false;
            // A full ring loses the report; the panel then still shows the sound as playing
            // until the next stop, which is far better than blocking here.
            ended.Push({static_cast<uint32_t>(slot), plan.funSounds[slot].starts});
        }
    }
}

void ProcessEffectRT(MixPlan& plan, int16_t* samples, size_t count) noexcept
{
    if (plan.effect)
        plan.effect->host.ProcessMono(samples, count * 2);
}

void ScaleMonitorRT(int16_t* samples, size_t count, uint8_t percent) noexcept
{
    ScaleVolume(samples, count, percent);
}

} // namespace larimo
