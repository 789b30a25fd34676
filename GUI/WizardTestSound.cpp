// SPDX-License-Identifier: GPL-3.0-or-later
#include "WizardTestSound.h"

#include "mix.h"

namespace larimo {

WizardTestSound::WizardTestSound() : m_sound(std::make_unique<MixSound>()) {}

WizardTestSound::~WizardTestSound() = default;

unsigned WizardTestSound::Load(const std::string& path)
{
    const unsigned result = m_sound->Load(path);
    m_sound->SetLoop(true);
    return result;
}

std::string WizardTestSound::ErrorText(unsigned error)
{
    return WaveErrorText(error);
}

void WizardTestSound::Clear()
{
    m_sound->Clear();
}

void WizardTestSound::MixInto(std::int16_t* samples, std::size_t count)
{
    if (m_sound->Loaded())
        m_sound->MixInto(samples, count);
}

} // namespace larimo
