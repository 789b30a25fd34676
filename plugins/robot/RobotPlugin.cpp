// SPDX-License-Identifier: GPL-3.0-or-later
#include "RobotVoice.h"
#include "VstPlugin.h"

namespace larimo::fx {

vst::AEffect* CreatePluginEffect()
{
    return VstPlugin::Create<RobotVoice>(RobotVoice::kInfo);
}

} // namespace larimo::fx
