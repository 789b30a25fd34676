// SPDX-License-Identifier: GPL-3.0-or-later
#include "PitchShifter.h"
#include "VstPlugin.h"

namespace larimo::fx {

vst::AEffect* CreatePluginEffect()
{
    return VstPlugin::Create<PitchShifter>(PitchShifter::kInfo);
}

} // namespace larimo::fx
