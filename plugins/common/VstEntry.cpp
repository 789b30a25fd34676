// SPDX-License-Identifier: GPL-3.0-or-later
// The two exported entry points of a Larimo effect. Each plug-in defines CreatePluginEffect;
// this file, compiled into every module, gives hosts both names they look for. Larimo's effects
// need nothing from the host, so its callback is not kept.
#include "VstAbi.h"

namespace larimo::fx {
vst::AEffect* CreatePluginEffect();
}

namespace {

larimo::vst::AEffect* Enter()
{
    // No exception may reach the host; a null effect is how a plug-in says it could not start.
    try {
        return larimo::fx::CreatePluginEffect();
    } catch (...) {
        return nullptr;
    }
}

} // namespace

extern "C" __attribute__((visibility("default"))) larimo::vst::AEffect* VSTPluginMain(larimo::vst::HostCallback /*host*/)
{
    return Enter();
}

// Older Linux hosts look the entry up as "main"; C++ cannot name a function so, hence the label.
extern "C" __attribute__((visibility("default"))) larimo::vst::AEffect* LegacyVstMain(larimo::vst::HostCallback host)
    __asm__("main");
extern "C" larimo::vst::AEffect* LegacyVstMain(larimo::vst::HostCallback /*host*/)
{
    return Enter();
}
