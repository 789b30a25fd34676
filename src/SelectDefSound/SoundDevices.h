// SPDX-License-Identifier: GPL-3.0-or-later
// A snapshot of the recording or playback devices, built at construction: the sound server's
// endpoints when the sound system has them, else the numbered wave devices.
#pragma once

#include "platform/AudioBackend.h"

#include <memory>
#include <string>
#include <vector>

namespace larimo {

struct SoundDeviceEntry {
    /// False for an endpoint no wave device matched (the entry is then empty).
    bool endpoint = false;
    int waveDevice = -1;
    std::string name;
    /// "{0.0.1.00000000}.<server name>" for recording, "{0.0.0.00000000}.<server name>" for
    /// playback endpoints; empty in the wave model.
    std::string endpointId;
    /// The sound server's own name of the endpoint.
    std::string serverName;
};

/// The device list of one direction. Caller thread; build one per query.
class CSoundDevices {
public:
    static constexpr int kRender = 0;
    static constexpr int kCapture = 1;
    static constexpr std::size_t kMaxEndpointIdUnits = 128;

    /// Lists the devices of `direction` (0 playback, 1 recording) from the current backend.
    explicit CSoundDevices(int direction);
    /// The same from a given backend.
    CSoundDevices(int direction, std::shared_ptr<AudioBackend> backend);

    int Direction() const { return m_direction; }
    int Count() const { return static_cast<int>(m_entries.size()); }
    /// The system's default device, -1 when not determined.
    int DefaultIndex() const { return m_defaultIndex; }
    /// Whether the list came from the server's endpoints.
    bool EndpointModel() const { return m_endpointModel; }
    /// False when the sound system could not be asked (the list is then empty).
    bool Listed() const { return m_listed; }

    /// Empty for a bad index.
    std::string Name(int index) const;
    /// -1 for a bad index.
    int WaveDevice(int index) const;
    /// Null for a bad index.
    const SoundDeviceEntry* Entry(int index) const;
    /// The first entry whose name contains `text` (case-sensitive), or -1.
    int FindByName(const std::string& text) const;
    int FindByWaveDevice(int waveDevice) const;

    /// Makes entry `index` the system's default; false for a bad index or a refusal.
    bool SetDefault(int index);

    const std::shared_ptr<AudioBackend>& Backend() const { return m_backend; }

private:
    void Build();

    int m_direction;
    int m_defaultIndex = -1;
    bool m_endpointModel = false;
    bool m_listed = false;
    std::vector<SoundDeviceEntry> m_entries;
    std::shared_ptr<AudioBackend> m_backend;
};

} // namespace larimo
