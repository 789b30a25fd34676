// SPDX-License-Identifier: GPL-3.0-or-later
#include "EchoEffect.h"
#include "VstPlugin.h"

namespace larimo::fx {

vst::AEffect* CreatePluginEffect()
{
    return VstPlugin::Create<EchoEffect>(EchoEffect::kInfo);
}

} // namespace larimo::fx
