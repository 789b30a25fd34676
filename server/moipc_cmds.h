// SPDX-License-Identifier: GPL-3.0-or-later
// Command codes, object names and frame layout shared by the panel, larimoctl and the voice
// service. Both sides include this one header, so they can never disagree on the wire.
#pragma once

#include <cstddef>
#include <cstdint>

namespace larimo {

enum MoIpcCommand : uint32_t {
    kCmdSrvUpdate = 101,
    kCmdSrvGetErrors = 102,
    kCmdMonitorSet = 103,
    kCmdMonitorSetVol = 104,
    kCmdCliOnStarted = 105,
    kCmdCliOnClose = 106,
    kCmdEffectSetActive = 201,
    kCmdEffectSelect = 202,
    kCmdBackSoundSetActive = 301,
    kCmdBackSoundSelect = 302,
    kCmdBackSoundSetVol = 303,
    kCmdEmoticPlay = 401,
    kCmdEmoticStop = 402,
    kCmdEmoticSelect = 403,
    kCmdEmoticStopAll = 405,
    kCmdEmoticsStatus = 406,
};

/// Frame in the shared memory: a 16-byte header (reserved word, sender pid, two reserved
/// bytes, two bytes of no meaning, command code), the size word, then the data area.
constexpr size_t kIpcPidOffset = 4;
constexpr size_t kIpcCommandOffset = 12;
constexpr size_t kIpcHeaderSize = 16;
constexpr size_t kIpcSizeWordOffset = 16;
constexpr size_t kIpcDataOffset = 20;
/// Size of the mapping the service creates: room for any payload and any answer.
constexpr size_t kIpcMappingSize = 64 * 1024;

/// How long a client waits for an answer, and the shared-memory lock, in milliseconds.
constexpr uint32_t kIpcTimeoutMs = 2000;

// Names of the service's objects. The IPC objects are the base name plus a suffix.
inline constexpr const char* kIpcBaseName = "Global\\MOS_ipc";
inline constexpr const char* kServStateBaseName = "Global\\MO_ServState";
inline constexpr const char* kServIsWorkSuffix = "ServIsWork";
inline constexpr const char* kServRunSuffix = "ServRun";
inline constexpr const char* kStopClSuffix = "StopCl";
inline constexpr const char* kEmoticEventName = "Global\\MO_EV_EMOTIC";
inline constexpr const char* kOsciEventName = "Global\\MO_EV_OSCIUPDATE";
inline constexpr const char* kOsciMemName = "Global\\MO_SHM_OSCI";
inline constexpr const char* kServiceInstanceName = "Global\\LarimoServerInstance";

/// The trace memory: a 4-byte byte count, then that many bytes of 16-bit mono samples.
constexpr size_t kOsciMappingSize = 4 + 2 * 8192;

/// Slots of the panel: three voice effects, three background sounds. Fun sound slots are the
/// rows of the used fun sound list.
constexpr int kEffectSlots = 3;
constexpr int kBackSoundSlots = 3;
constexpr uint32_t kNoSlot = 0xFFFFFFFF;

} // namespace larimo
