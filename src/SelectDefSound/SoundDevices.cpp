// SPDX-License-Identifier: GPL-3.0-or-later
#include "SelectDefSound/SoundDevices.h"

#include "mlog.h"
#include "wintools.h"

namespace larimo {

namespace {

WaveDirection ToWaveDirection(int direction)
{
    return direction == CSoundDevices::kCapture ? WaveDirection::Capture : WaveDirection::Render;
}

// The endpoint id keeps the prefix callers know; it is cut to the 128 UTF-16 units it may hold.
std::string MakeEndpointId(int direction, const std::string& serverName)
{
    std::string id = (direction == CSoundDevices::kCapture ? "{0.0.1.00000000}." : "{0.0.0.00000000}.") + serverName;
    std::u16string units = Utf8ToUtf16(id);
    if (units.size() > CSoundDevices::kMaxEndpointIdUnits - 1) {
        units.resize(CSoundDevices::kMaxEndpointIdUnits - 1);
        id = Utf16ToUtf8(units);
    }
    return id;
}

} // namespace

CSoundDevices::CSoundDevices(int direction)
    : CSoundDevices(direction, CurrentAudioBackend())
{
}

CSoundDevices::CSoundDevices(int direction, std::shared_ptr<AudioBackend> backend)
    : m_direction(direction == kCapture ? kCapture : kRender)
    , m_backend(std::move(backend))
{
    Build();
}

void CSoundDevices::Build()
{
    m_entries.clear();
    m_defaultIndex = -1;
    m_listed = false;
    if (!m_backend)
        return;
    const WaveDirection direction = ToWaveDirection(m_direction);
    m_endpointModel = m_backend->HasEndpoints();
    const std::vector<std::string> waveNames = m_backend->WaveDeviceNames(direction);
    if (!m_endpointModel) {
        for (std::size_t i = 0; i < waveNames.size(); ++i) {
            SoundDeviceEntry entry;
            entry.waveDevice = static_cast<int>(i);
            entry.name = waveNames[i];
            m_entries.push_back(std::move(entry));
        }
        if (!m_entries.empty()) {
            const int preferred = m_backend->PreferredWaveDevice(direction);
            m_defaultIndex = FindByWaveDevice(preferred < 0 ? 0 : preferred);
        }
        m_listed = true;
        return;
    }
    std::vector<EndpointInfo> endpoints;
    std::string defaultName;
    if (!m_backend->ListEndpoints(direction, endpoints, defaultName)) {
        LogError("CSoundDevices: the sound server could not be asked for its %s devices",
                 m_direction == kCapture ? "recording" : "playback");
        return;
    }
    for (const EndpointInfo& endpoint : endpoints) {
        SoundDeviceEntry entry;
        for (std::size_t i = 0; i < waveNames.size(); ++i) {
            if (!waveNames[i].empty() && endpoint.name.find(waveNames[i]) != std::string::npos) {
                entry.waveDevice = static_cast<int>(i);
                break;
            }
        }
        if (entry.waveDevice >= 0) {
            entry.endpoint = true;
            entry.name = endpoint.name;
            entry.serverName = endpoint.serverName;
            entry.endpointId = MakeEndpointId(m_direction, endpoint.serverName);
            if (!defaultName.empty() && endpoint.serverName == defaultName)
                m_defaultIndex = static_cast<int>(m_entries.size());
        }
        m_entries.push_back(std::move(entry));
    }
    m_listed = true;
}

std::string CSoundDevices::Name(int index) const
{
    const SoundDeviceEntry* entry = Entry(index);
    return entry ? entry->name : std::string();
}

int CSoundDevices::WaveDevice(int index) const
{
    const SoundDeviceEntry* entry = Entry(index);
    return entry ? entry->waveDevice : -1;
}

const SoundDeviceEntry* CSoundDevices::Entry(int index) const
{
    if (index < 0 || index >= Count())
        return nullptr;
    return &m_entries[static_cast<std::size_t>(index)];
}

int CSoundDevices::FindByName(const std::string& text) const
{
    for (int i = 0; i < Count(); ++i) {
        if (m_entries[static_cast<std::size_t>(i)].name.find(text) != std::string::npos)
            return i;
    }
    return -1;
}

int CSoundDevices::FindByWaveDevice(int waveDevice) const
{
    for (int i = 0; i < Count(); ++i) {
        if (m_entries[static_cast<std::size_t>(i)].waveDevice == waveDevice)
            return i;
    }
    return -1;
}

bool CSoundDevices::SetDefault(int index)
{
    const SoundDeviceEntry* entry = Entry(index);
    if (entry == nullptr || !m_backend)
        return false;
    const WaveDirection direction = ToWaveDirection(m_direction);
    if (!m_endpointModel) {
        if (m_backend->SetPreferredWaveDevice(direction, entry->waveDevice) != kMmOk)
            return false;
        Build();
        m_defaultIndex = index;
        return true;
    }
    if (entry->serverName.empty() || !m_backend->SetDefaultEndpoint(direction, entry->serverName))
        return false;
    m_defaultIndex = index;
    return true;
}

} // namespace larimo
