// SPDX-License-Identifier: GPL-3.0-or-later
#include "RadioVoice.h"
#include "VstPlugin.h"

namespace larimo::fx {

vst::AEffect* CreatePluginEffect()
{
    return VstPlugin::Create<RadioVoice>(RadioVoice::kInfo);
}

} // namespace larimo::fx
