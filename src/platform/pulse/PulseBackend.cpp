// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/pulse/PulseBackend.h"

#include "platform/pulse/PulseContext.h"
#include "platform/pulse/PulseWave.h"

#include <pulse/subscribe.h>
#include <pulse/volume.h>

#include <algorithm>
#include <cctype>
#include <cmath>
#include <mutex>

namespace larimo {

namespace {

constexpr uint32_t kInLine = 0x10000;
constexpr uint32_t kSpeakerLine = 0x20000;
constexpr uint32_t kPortControl = 1;
constexpr uint32_t kSourceVolumeControl = 2;
constexpr uint32_t kSinkVolumeControl = 3;
constexpr unsigned kOutputMixerBase = 0x10000;
constexpr uint32_t kMixerFullScale = 0xFFFF;
constexpr const char* kVirtualMicDescription = "Larimo Microphone";

uint32_t ToMixerVolume(uint32_t volume)
{
    const double scaled = std::round(static_cast<double>(volume) * kMixerFullScale / PA_VOLUME_NORM);
    return static_cast<uint32_t>(std::min<double>(scaled, kMixerFullScale));
}

uint32_t ToPulseVolume(uint32_t value)
{
    return static_cast<uint32_t>(std::round(static_cast<double>(std::min(value, kMixerFullScale)) * PA_VOLUME_NORM /
                                            kMixerFullScale));
}

bool ContainsNoCase(const std::string& text, const char* part)
{
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return lower.find(part) != std::string::npos;
}

const PulseDevice* FindByName(const std::vector<PulseDevice>& devices, const std::string& name)
{
    for (const PulseDevice& device : devices) {
        if (device.name == name)
            return &device;
    }
    return nullptr;
}

// The virtual microphone's sink monitor is an implementation detail: programs see its remap
// source, so the monitor stays out of the lists.
bool HiddenSource(const PulseDevice& source)
{
    return source.name == std::string(kVirtualMicSinkName) + ".monitor";
}

// A recording device's mixer: the source's ports are the selector's items, the source volume
// is the recording volume, and the matching sink is the speaker side.
class PulseMixer final : public MixerDevice, public PulseEventListener {
public:
    PulseMixer(std::shared_ptr<PulseContext> context, std::string source, std::string sink, MixerNotify* notify)
        : m_context(std::move(context))
        , m_source(std::move(source))
        , m_sink(std::move(sink))
        , m_notify(notify)
    {
        PulseDevice device;
        if (Source(device))
            m_sourceIndex = device.index;
        if (Sink(device))
            m_sinkIndex = device.index;
        if (m_notify != nullptr)
            m_context->AddListener(this);
    }

    ~PulseMixer() override
    {
        if (m_notify != nullptr)
            m_context->RemoveListener(this);
    }

    void OnPulseEvent(pa_subscription_event_type_t type, uint32_t index) override
    {
        const auto facility = static_cast<unsigned>(type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK);
        if ((type & PA_SUBSCRIPTION_EVENT_TYPE_MASK) != PA_SUBSCRIPTION_EVENT_CHANGE)
            return;
        if (facility == PA_SUBSCRIPTION_EVENT_SOURCE && index == m_sourceIndex) {
            m_notify->OnMixerControlChange(kSourceVolumeControl);
            m_notify->OnMixerControlChange(kPortControl);
        } else if (facility == PA_SUBSCRIPTION_EVENT_SINK && index == m_sinkIndex) {
            m_notify->OnMixerControlChange(kSinkVolumeControl);
        }
    }

    unsigned GetLineByComponent(MixerComponent component, MixerLine& line) override
    {
        PulseDevice device;
        if (component == MixerComponent::DstSpeakers)
            return SpeakerLine(line);
        if (!Source(device))
            return kMixErrInvalLine;
        if (component == MixerComponent::DstWaveIn)
            return InLine(device, line);
        for (uint32_t i = 0; i < device.ports.size(); ++i) {
            PortLine(device, i, line);
            if (line.component == component)
                return kMmOk;
        }
        return kMixErrInvalLine;
    }

    unsigned GetLineById(uint32_t lineId, MixerLine& line) override
    {
        if (lineId == kSpeakerLine)
            return SpeakerLine(line);
        PulseDevice device;
        if (!Source(device))
            return kMixErrInvalLine;
        if (lineId == kInLine)
            return InLine(device, line);
        if (lineId <= kInLine || lineId - kInLine - 1 >= device.ports.size())
            return kMixErrInvalLine;
        PortLine(device, lineId - kInLine - 1, line);
        return kMmOk;
    }

    unsigned GetSourceLine(uint32_t destinationLineId, uint32_t index, MixerLine& line) override
    {
        PulseDevice device;
        if (destinationLineId != kInLine || !Source(device) || index >= device.ports.size())
            return kMixErrInvalLine;
        PortLine(device, index, line);
        return kMmOk;
    }

    unsigned GetLineControl(uint32_t lineId, MixerControlType type, MixerControl& control) override
    {
        PulseDevice device;
        if (lineId == kSpeakerLine) {
            if (!Sink(device))
                return kMixErrInvalLine;
            if (type != MixerControlType::Volume)
                return kMixErrInvalControl;
            control = MixerControl{kSinkVolumeControl, device.description, 0};
            return kMmOk;
        }
        if (!Source(device))
            return kMixErrInvalLine;
        if (lineId != kInLine && (lineId <= kInLine || lineId - kInLine - 1 >= device.ports.size()))
            return kMixErrInvalLine;
        if (type == MixerControlType::Volume) {
            // Ports share their source's one volume.
            control = MixerControl{kSourceVolumeControl, device.description, 0};
            return kMmOk;
        }
        if (type == MixerControlType::Mux && lineId == kInLine && !device.ports.empty()) {
            control = MixerControl{kPortControl, "Port", static_cast<uint32_t>(device.ports.size())};
            return kMmOk;
        }
        return kMixErrInvalControl;
    }

    unsigned GetMuxItems(uint32_t controlId, std::vector<MixerItem>& items) override
    {
        PulseDevice device;
        if (controlId != kPortControl)
            return kMmInvalParam;
        if (!Source(device))
            return kMmNoDriver;
        items.clear();
        for (uint32_t i = 0; i < device.ports.size(); ++i)
            items.push_back(MixerItem{device.ports[i].description, kInLine + 1 + i});
        return kMmOk;
    }

    unsigned GetMuxValues(uint32_t controlId, std::vector<bool>& values) override
    {
        PulseDevice device;
        if (controlId != kPortControl)
            return kMmInvalParam;
        if (!Source(device))
            return kMmNoDriver;
        values.assign(device.ports.size(), false);
        for (std::size_t i = 0; i < device.ports.size(); ++i)
            values[i] = device.ports[i].name == device.activePort;
        return kMmOk;
    }

    unsigned SetMuxValues(uint32_t controlId, const std::vector<bool>& values) override
    {
        PulseDevice device;
        if (controlId != kPortControl)
            return kMmInvalParam;
        if (!Source(device))
            return kMmNoDriver;
        const auto it = std::find(values.begin(), values.end(), true);
        const auto index = static_cast<std::size_t>(it - values.begin());
        if (it == values.end() || index >= device.ports.size())
            return kMmInvalParam;
        return m_context->SetSourcePort(m_source, device.ports[index].name) ? kMmOk : kMmError;
    }

    unsigned GetVolume(uint32_t controlId, uint32_t& value) override
    {
        PulseDevice device;
        if (controlId == kSourceVolumeControl) {
            if (!Source(device))
                return kMmNoDriver;
        } else if (controlId == kSinkVolumeControl) {
            if (!Sink(device))
                return kMmNoDriver;
        } else {
            return kMixErrInvalControl;
        }
        value = ToMixerVolume(device.volume);
        return kMmOk;
    }

    unsigned SetVolume(uint32_t controlId, uint32_t value) override
    {
        if (value > kMixerFullScale)
            return kMmInvalParam;
        PulseDevice device;
        if (controlId == kSourceVolumeControl) {
            if (!Source(device))
                return kMmNoDriver;
            return m_context->SetSourceVolume(m_source, device.channels, ToPulseVolume(value)) ? kMmOk : kMmError;
        }
        if (controlId == kSinkVolumeControl) {
            if (!Sink(device))
                return kMmNoDriver;
            return m_context->SetSinkVolume(m_sink, device.channels, ToPulseVolume(value)) ? kMmOk : kMmError;
        }
        return kMixErrInvalControl;
    }

private:
    bool Source(PulseDevice& device)
    {
        std::vector<PulseDevice> sources;
        if (m_source.empty() || !m_context->ListSources(sources))
            return false;
        const PulseDevice* found = FindByName(sources, m_source);
        if (found != nullptr)
            device = *found;
        return found != nullptr;
    }

    bool Sink(PulseDevice& device)
    {
        std::vector<PulseDevice> sinks;
        if (m_sink.empty() || !m_context->ListSinks(sinks))
            return false;
        const PulseDevice* found = FindByName(sinks, m_sink);
        if (found != nullptr)
            device = *found;
        return found != nullptr;
    }

    static unsigned InLine(const PulseDevice& device, MixerLine& line)
    {
        line = MixerLine{kInLine, MixerComponent::DstWaveIn, device.description,
                         static_cast<uint32_t>(device.ports.size())};
        return kMmOk;
    }

    static void PortLine(const PulseDevice& device, uint32_t index, MixerLine& line)
    {
        const PulsePort& port = device.ports[index];
        const bool mic = ContainsNoCase(port.name, "mic") || ContainsNoCase(port.description, "mic");
        line = MixerLine{kInLine + 1 + index, mic ? MixerComponent::SrcMicrophone : MixerComponent::SrcLine,
                         port.description, 0};
    }

    unsigned SpeakerLine(MixerLine& line)
    {
        PulseDevice device;
        if (!Sink(device))
            return kMixErrInvalLine;
        line = MixerLine{kSpeakerLine, MixerComponent::DstSpeakers, device.description, 0};
        return kMmOk;
    }

    std::shared_ptr<PulseContext> m_context;
    std::string m_source;
    std::string m_sink;
    MixerNotify* m_notify;
    uint32_t m_sourceIndex = PA_INVALID_INDEX;
    uint32_t m_sinkIndex = PA_INVALID_INDEX;
};

class PulseBackend final : public AudioBackend {
public:
    PulseBackend()
        : m_context(std::make_shared<PulseContext>())
    {
    }

    std::vector<std::string> WaveDeviceNames(WaveDirection direction) override
    {
        std::vector<PulseDevice> devices;
        std::vector<std::string> names;
        if (WaveDevices(direction, devices)) {
            for (const PulseDevice& device : devices)
                names.push_back(device.description);
        }
        return names;
    }

    unsigned OpenWaveIn(int device, const StreamFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
                        std::unique_ptr<WaveInDevice>& opened) override
    {
        std::string name;
        const unsigned result = ResolveName(WaveDirection::Capture, device, name);
        return result != kMmOk ? result : OpenPulseWaveIn(m_context, name, format, shape, target, opened);
    }

    unsigned OpenWaveOut(int device, const StreamFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
                         std::unique_ptr<WaveOutDevice>& opened) override
    {
        std::string name;
        const unsigned result = ResolveName(WaveDirection::Render, device, name);
        return result != kMmOk ? result : OpenPulseWaveOut(m_context, name, format, shape, target, opened);
    }

    bool HasEndpoints() override { return true; }

    bool ListEndpoints(WaveDirection direction, std::vector<EndpointInfo>& endpoints,
                       std::string& defaultServerName) override
    {
        std::vector<PulseDevice> devices;
        PulseServerDefaults defaults;
        if (!WaveDevices(direction, devices) || !m_context->GetDefaults(defaults))
            return false;
        endpoints.clear();
        for (const PulseDevice& device : devices)
            endpoints.push_back(EndpointInfo{device.description, device.name});
        defaultServerName = direction == WaveDirection::Capture ? defaults.source : defaults.sink;
        return true;
    }

    bool SetDefaultEndpoint(WaveDirection direction, const std::string& serverName) override
    {
        return direction == WaveDirection::Capture ? m_context->SetDefaultSource(serverName)
                                                   : m_context->SetDefaultSink(serverName);
    }

    int PreferredWaveDevice(WaveDirection direction) override
    {
        std::vector<PulseDevice> devices;
        PulseServerDefaults defaults;
        if (!WaveDevices(direction, devices) || !m_context->GetDefaults(defaults))
            return -1;
        const std::string& name = direction == WaveDirection::Capture ? defaults.source : defaults.sink;
        for (std::size_t i = 0; i < devices.size(); ++i) {
            if (devices[i].name == name)
                return static_cast<int>(i);
        }
        return -1;
    }

    bool IsMonitorDevice(int device) override
    {
        std::vector<PulseDevice> devices;
        return device >= 0 && WaveDevices(WaveDirection::Capture, devices) &&
               static_cast<std::size_t>(device) < devices.size() &&
               devices[static_cast<std::size_t>(device)].monitorOfSink != PA_INVALID_INDEX;
    }

    unsigned SetPreferredWaveDevice(WaveDirection direction, int device) override
    {
        std::string name;
        const unsigned result = ResolveName(direction, device, name);
        if (result != kMmOk)
            return result;
        if (name.empty())
            return kMmOk;
        return SetDefaultEndpoint(direction, name) ? kMmOk : kMmError;
    }

    unsigned GetMixerId(int device, WaveDirection direction, unsigned& mixerId) override
    {
        std::vector<PulseDevice> devices;
        if (!WaveDevices(direction, devices))
            return kMmNoDriver;
        if (device == -1)
            device = PreferredWaveDevice(direction);
        if (device < 0 || static_cast<std::size_t>(device) >= devices.size())
            return kMmBadDeviceId;
        mixerId = (direction == WaveDirection::Capture ? 0U : kOutputMixerBase) + static_cast<unsigned>(device);
        return kMmOk;
    }

    unsigned OpenMixer(unsigned mixerId, MixerNotify* notify, std::unique_ptr<MixerDevice>& opened) override
    {
        std::vector<PulseDevice> sources;
        std::vector<PulseDevice> sinks;
        if (!WaveDevices(WaveDirection::Capture, sources) || !WaveDevices(WaveDirection::Render, sinks))
            return kMmNoDriver;
        PulseServerDefaults defaults;
        m_context->GetDefaults(defaults);
        std::string source;
        std::string sink;
        if (mixerId < kOutputMixerBase) {
            if (mixerId >= sources.size())
                return kMmBadDeviceId;
            const PulseDevice& device = sources[mixerId];
            source = device.name;
            sink = MatchingSink(device, sinks, defaults);
        } else {
            const unsigned index = mixerId - kOutputMixerBase;
            if (index >= sinks.size())
                return kMmBadDeviceId;
            sink = sinks[index].name;
            for (const PulseDevice& device : sources) {
                if (device.monitorOfSink == sinks[index].index)
                    source = device.name;
            }
        }
        opened = std::make_unique<PulseMixer>(m_context, source, sink, notify);
        return kMmOk;
    }

    bool EnsureVirtualMicrophone(std::string& why) override
    {
        std::lock_guard lock(m_micMutex);
        std::vector<PulseDevice> sinks;
        std::vector<PulseDevice> sources;
        if (!m_context->ListSinks(sinks) || !m_context->ListSources(sources)) {
            why = m_context->LastError();
            return false;
        }
        const std::string quotedDescription = std::string("'device.description=\"") + kVirtualMicDescription + "\"'";
        uint32_t module = 0;
        if (FindByName(sinks, kVirtualMicSinkName) == nullptr &&
            !m_context->LoadModule("module-null-sink",
                                   std::string("sink_name=") + kVirtualMicSinkName + " sink_properties=" +
                                       quotedDescription,
                                   module)) {
            why = m_context->LastError();
            return false;
        }
        if (FindByName(sources, kVirtualMicSourceName) == nullptr &&
            !m_context->LoadModule("module-remap-source",
                                   std::string("master=") + kVirtualMicSinkName + ".monitor source_name=" +
                                       kVirtualMicSourceName + " source_properties=" + quotedDescription,
                                   module)) {
            why = m_context->LastError();
            return false;
        }
        return true;
    }

    bool VirtualMicrophoneInUse(bool& inUse) override
    {
        std::vector<PulseDevice> sources;
        std::vector<PulseSourceOutput> outputs;
        if (!m_context->ListSources(sources) || !m_context->ListSourceOutputs(outputs))
            return false;
        const PulseDevice* mic = FindByName(sources, kVirtualMicSourceName);
        inUse = mic != nullptr && std::any_of(outputs.begin(), outputs.end(), [mic](const PulseSourceOutput& output) {
                    return output.source == mic->index && !output.corked;
                });
        return true;
    }

    std::shared_ptr<const std::atomic<int32_t>> WatchVirtualMicrophone() override
    {
        return m_context->WatchRecorders(kVirtualMicSourceName);
    }

    unsigned StreamThreadId() override { return m_context->LoopThreadId(); }

private:
    bool WaveDevices(WaveDirection direction, std::vector<PulseDevice>& devices)
    {
        if (direction == WaveDirection::Render)
            return m_context->ListSinks(devices);
        if (!m_context->ListSources(devices))
            return false;
        std::erase_if(devices, HiddenSource);
        return true;
    }

    unsigned ResolveName(WaveDirection direction, int device, std::string& name)
    {
        if (device == -1) {
            name.clear();
            return kMmOk;
        }
        std::vector<PulseDevice> devices;
        if (!WaveDevices(direction, devices))
            return kMmNoDriver;
        if (device < 0 || static_cast<std::size_t>(device) >= devices.size())
            return kMmBadDeviceId;
        name = devices[static_cast<std::size_t>(device)].name;
        return kMmOk;
    }

    static std::string MatchingSink(const PulseDevice& source, const std::vector<PulseDevice>& sinks,
                                    const PulseServerDefaults& defaults)
    {
        for (const PulseDevice& sink : sinks) {
            if (sink.index == source.monitorOfSink)
                return sink.name;
        }
        if (source.card != PA_INVALID_INDEX) {
            for (const PulseDevice& sink : sinks) {
                if (sink.card == source.card)
                    return sink.name;
            }
        }
        return defaults.sink;
    }

    std::shared_ptr<PulseContext> m_context;
    std::mutex m_micMutex;
};

} // namespace

std::shared_ptr<AudioBackend> CreatePulseBackend()
{
    return std::make_shared<PulseBackend>();
}

} // namespace larimo
