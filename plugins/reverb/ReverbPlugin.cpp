// SPDX-License-Identifier: GPL-3.0-or-later
#include "ReverbEffect.h"
#include "VstPlugin.h"

namespace larimo::fx {

vst::AEffect* CreatePluginEffect()
{
    return VstPlugin::Create<ReverbEffect>(ReverbEffect::kInfo);
}

} // namespace larimo::fx
