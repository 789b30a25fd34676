// SPDX-License-Identifier: GPL-3.0-or-later
#include "AlienVoice.h"
#include "VstPlugin.h"

namespace larimo::fx {

vst::AEffect* CreatePluginEffect()
{
    return VstPlugin::Create<AlienVoice>(AlienVoice::kInfo);
}

} // namespace larimo::fx
