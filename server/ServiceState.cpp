// SPDX-License-Identifier: GPL-3.0-or-later
#include "ServiceState.h"

#include "config.h"

namespace larimo {

bool ServiceState::operator==(const ServiceState& other) const
{
    return activeEffect == other.activeEffect && effectSlots == other.effectSlots &&
           activeBackSound == other.activeBackSound && backSounds == other.backSounds &&
           funSounds == other.funSounds && monitorOn == other.monitorOn && monitorVol == other.monitorVol &&
           settings == other.settings;
}

ServiceState LoadServiceState(const std::string& dataRoot)
{
    auto settings = std::make_shared<Config>(dataRoot);
    settings->LoadAll();

    ServiceState state;
    state.activeEffect = settings->m_activeEffect;
    state.effectSlots = settings->m_effectSlots;
    state.activeBackSound = settings->m_activeBackSound;
    for (int i = 0; i < kBackSoundSlots; ++i)
        state.backSounds[i] = {settings->m_backSounds[i].m_file, settings->m_backSounds[i].m_volume};
    for (const Emotic& emotic : settings->m_emotics)
        state.funSounds.push_back({emotic.m_file});
    state.monitorOn = settings->m_monitorOn;
    state.monitorVol = std::min<int>(settings->m_monitorVol, 100);
    state.settings = std::move(settings);
    return state;
}

} // namespace larimo
