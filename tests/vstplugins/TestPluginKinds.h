// SPDX-License-Identifier: GPL-3.0-or-later
// The behaviours of the plug-ins built for the host's tests, and what they let a test ask them.
#pragma once

#include <cstdint>

namespace larimo::test {

enum class TestPluginKind {
    Stereo,         ///< two inputs, two outputs, four parameters, an editor that automates
    BothEntries,    ///< exports "main" and "VSTPluginMain", naming the one it was entered by
    NoOutputs,      ///< an effect without audio outputs
    CrashOnLoad,    ///< faults in effOpen
    CrashOnProcess, ///< replaces the fault handlers when opened, then faults while processing
    CrashOnEditor,  ///< faults in effEditOpen
    WrongMagic,     ///< hands back a structure that is not an effect
    NullEffect,     ///< the entry point returns null
    NoEntry,        ///< exports its entry point under a name hosts do not look for
    Accumulating,   ///< only the old accumulating process function
    NoParams,       ///< no parameters and no editor
    CrashOnParameter, ///< faults when a parameter is set
};

// Functions every test plug-in exports besides its entry points, for the tests to look into it.
// The state lives in the plug-in, so a test holding its own handle sees it across loads.
using TestPluginCallsProc = int (*)(int32_t* opcodes, int capacity); ///< dispatcher opcodes received
using TestPluginResetProc = void (*)();
using TestPluginHostVersionProc = intptr_t (*)(); ///< the host's answer to the version query
using TestPluginProcessCountProc = int (*)();     ///< calls of a process function

} // namespace larimo::test
