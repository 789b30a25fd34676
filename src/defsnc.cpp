// SPDX-License-Identifier: GPL-3.0-or-later
#include "defsnc.h"

#include "config.h"
#include "error.h"
#include "filltext.h"
#include "mlog.h"
#include "wmme.h"

#include <cstdio>

namespace larimo {

namespace {

const std::string& VirtualName()
{
    static const std::string name(kVirtualDeviceName);
    return name;
}

void ReportControlFailure()
{
    std::fputs("sending iocontrol to mxcap device FAILED\n", stderr);
}

} // namespace

bool CheckSoundDriver()
{
    LogScopeInfo("CheckSoundDriver", "check virtual sound card driver...");
    std::string why;
    bool found = CurrentAudioBackend()->EnsureVirtualMicrophone(why);
    if (!found)
        LogError("CheckSoundDriver: the virtual microphone could not be made: %s", why.c_str());
    int device = kNoDevice;
    if (found)
        found = PaGetDevNByName(VirtualName(), 2, device) == kMmeSuccess;
    if (!found)
        ShowMessage(nullptr, MB_OK | MB_ICONERROR, "%s", FillText(157, VirtualName().c_str()).c_str());
    LogLeaveResult("CheckSoundDriver", found);
    return found;
}

bool SelectDefSndc()
{
    LogEnter("SelectDefSndc");
    bool result = true;
    CSoundDevices recording(CSoundDevices::kCapture);
    const int index = FindDeviceByName(recording, VirtualName());
    if (index >= 0 && index != recording.DefaultIndex()) {
        if (!SetDefaultDevice(recording, index))
            result = false;
        PaLogSoundDevices();
    }
    _ResetRenderLarimo();
    LogLeaveResult("SelectDefSndc", result);
    return result;
}

void _ResetRenderLarimo()
{
    LogEnter("_ResetRenderLarimo");
    CSoundDevices playback(CSoundDevices::kRender);
    if (playback.Count() >= 2) {
        const int index = FindDeviceByName(playback, VirtualName());
        if (index >= 0 && index == playback.DefaultIndex()) {
            SetDefaultDevice(playback, index == 0 ? 1 : 0);
            PaLogSoundDevices();
        }
    }
    LogLeave("_ResetRenderLarimo");
}

bool SetDefaultDevice(CSoundDevices& devices, int index)
{
    LogEnter("SetDefaultDevice", "index=%d", index);
    const bool result = devices.SetDefault(index);
    LogLeaveResult("SetDefaultDevice", result);
    return result;
}

int FindDeviceByName(const CSoundDevices& devices, const std::string& text)
{
    return devices.FindByName(text);
}

DriverControl::DriverControl(std::shared_ptr<AudioBackend> backend)
    : m_backend(std::move(backend))
    , m_recorders(m_backend ? m_backend->WatchVirtualMicrophone() : nullptr)
{
}

uint32_t DriverControl::Query(uint32_t value)
{
    if (value != 0 && value != 1)
        return 0;
    bool inUse = false;
    const int32_t recorders = m_recorders ? m_recorders->load(std::memory_order_acquire) : kRecordersUnknown;
    if (recorders != kRecordersUnknown) {
        inUse = recorders > 0;
    } else if (!m_backend || !m_backend->VirtualMicrophoneInUse(inUse)) {
        ReportControlFailure();
        return 0;
    }
    if (value == 1 && inUse) {
        ++m_counter;
        // 0 is what a failed request answers.
        if (m_counter == 0)
            m_counter = 1;
    }
    return m_counter;
}

void DriverControlOpen(std::unique_ptr<DriverControl>& handle)
{
    handle.reset();
    std::shared_ptr<AudioBackend> backend = CurrentAudioBackend();
    const CSoundDevices recording(CSoundDevices::kCapture, backend);
    if (recording.FindByName(VirtualName()) >= 0)
        handle = std::make_unique<DriverControl>(std::move(backend));
}

uint32_t DriverControlQuery(DriverControl* handle, uint32_t value)
{
    if (value != 0 && value != 1)
        return 0;
    if (handle == nullptr) {
        ReportControlFailure();
        return 0;
    }
    return handle->Query(value);
}

} // namespace larimo
