// SPDX-License-Identifier: GPL-3.0-or-later
// The binary interface of VST 2 effect plug-ins on 64-bit Linux, written from its published
// description: the effect structure a plug-in hands to its host, the dispatcher and host
// callback opcodes Larimo uses, and the editor rectangle. Shared by the host and by the plug-ins
// Larimo ships, so both sides agree on every offset.
#pragma once

#include <cstddef>
#include <cstdint>

namespace larimo::vst {

struct AEffect;

/// dispatcher(effect, opcode, index, value, ptr, opt) and the host callback share this shape.
using DispatcherProc = intptr_t (*)(AEffect* effect, int32_t opcode, int32_t index, intptr_t value, void* ptr,
                                    float opt);
using HostCallback = DispatcherProc;
using ProcessProc = void (*)(AEffect* effect, float** inputs, float** outputs, int32_t frames);
using ProcessDoubleProc = void (*)(AEffect* effect, double** inputs, double** outputs, int32_t frames);
using SetParameterProc = void (*)(AEffect* effect, int32_t index, float value);
using GetParameterProc = float (*)(AEffect* effect, int32_t index);
/// The entry point a plug-in exports as "VSTPluginMain" (or "main").
using EntryProc = AEffect* (*)(HostCallback host);

/// 'VstP' read as a big-endian four-character constant.
constexpr int32_t kEffectMagic = 0x56737450;

struct AEffect {
    int32_t magic;
    int32_t padding0;
    DispatcherProc dispatcher;
    ProcessProc process; ///< old accumulating form: adds into the outputs
    SetParameterProc setParameter;
    GetParameterProc getParameter;
    int32_t numPrograms;
    int32_t numParams;
    int32_t numInputs;
    int32_t numOutputs;
    int32_t flags;
    int32_t padding1;
    intptr_t hostReserved1;
    intptr_t hostReserved2;
    int32_t initialDelay;
    int32_t unused1;
    int32_t unused2;
    float ioRatio;
    void* object;
    void* user;
    int32_t uniqueID;
    int32_t version;
    ProcessProc processReplacing;
    ProcessDoubleProc processDoubleReplacing;
    char reserved[56];
};

static_assert(sizeof(void*) == 8, "this layout is the one of 64-bit plug-ins");
static_assert(sizeof(AEffect) == 192);
static_assert(offsetof(AEffect, magic) == 0);
static_assert(offsetof(AEffect, dispatcher) == 8);
static_assert(offsetof(AEffect, process) == 16);
static_assert(offsetof(AEffect, setParameter) == 24);
static_assert(offsetof(AEffect, getParameter) == 32);
static_assert(offsetof(AEffect, numPrograms) == 40);
static_assert(offsetof(AEffect, numParams) == 44);
static_assert(offsetof(AEffect, numInputs) == 48);
static_assert(offsetof(AEffect, numOutputs) == 52);
static_assert(offsetof(AEffect, flags) == 56);
static_assert(offsetof(AEffect, hostReserved1) == 64);
static_assert(offsetof(AEffect, hostReserved2) == 72);
static_assert(offsetof(AEffect, initialDelay) == 80);
static_assert(offsetof(AEffect, ioRatio) == 92);
static_assert(offsetof(AEffect, object) == 96);
static_assert(offsetof(AEffect, user) == 104);
static_assert(offsetof(AEffect, uniqueID) == 112);
static_assert(offsetof(AEffect, version) == 116);
static_assert(offsetof(AEffect, processReplacing) == 120);
static_assert(offsetof(AEffect, processDoubleReplacing) == 128);
static_assert(offsetof(AEffect, reserved) == 136);

/// Editor size as the plug-in reports it.
struct ERect {
    int16_t top;
    int16_t left;
    int16_t bottom;
    int16_t right;
};
static_assert(sizeof(ERect) == 8);

enum EffectFlags : int32_t {
    kFlagHasEditor = 1 << 0,
    kFlagCanReplacing = 1 << 4,
    kFlagProgramChunks = 1 << 5,
    kFlagIsSynth = 1 << 8,
    kFlagNoSoundInStop = 1 << 9,
    kFlagCanDoubleReplacing = 1 << 12,
};

/// Host to plug-in.
enum EffectOpcode : int32_t {
    effOpen = 0,
    effClose = 1,
    effSetProgram = 2,
    effGetProgram = 3,
    effGetProgramName = 5,
    effGetParamLabel = 6,
    effGetParamDisplay = 7,
    effGetParamName = 8,
    effSetSampleRate = 10,
    effSetBlockSize = 11,
    effMainsChanged = 12,
    effEditGetRect = 13,
    effEditOpen = 14,
    effEditClose = 15,
    effEditIdle = 19,
    effGetPlugCategory = 35,
    effGetEffectName = 45,
    effGetVendorString = 47,
    effGetProductString = 48,
    effGetVendorVersion = 49,
    effCanDo = 51,
    effGetVstVersion = 58,
    effStartProcess = 71,
    effStopProcess = 72,
};

/// Plug-in to host.
enum HostOpcode : int32_t {
    audioMasterAutomate = 0,
    audioMasterVersion = 1,
    audioMasterCurrentId = 2,
    audioMasterIdle = 3,
    audioMasterGetTime = 7,
    audioMasterProcessEvents = 8,
    audioMasterSizeWindow = 15,
    audioMasterGetSampleRate = 16,
    audioMasterGetBlockSize = 17,
    audioMasterGetCurrentProcessLevel = 23,
    audioMasterGetVendorString = 32,
    audioMasterGetProductString = 33,
    audioMasterCanDo = 37,
    audioMasterUpdateDisplay = 42,
    audioMasterBeginEdit = 43,
    audioMasterEndEdit = 44,
};

/// What a host answers to audioMasterVersion; some plug-ins refuse to load on 0.
constexpr intptr_t kHostVstVersion = 2400;

/// Text buffers: nominal limits are smaller, but plug-ins write past them, so hosts give more.
constexpr size_t kParamTextBuffer = 64;
constexpr size_t kNameTextBuffer = 64;
constexpr size_t kVendorTextBuffer = 64;

/// effGetPlugCategory answer for an effect.
constexpr intptr_t kPlugCategoryEffect = 1;

} // namespace larimo::vst
