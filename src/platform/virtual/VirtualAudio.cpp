// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/virtual/VirtualAudio.h"

#include <algorithm>
#include <chrono>
#include <cstring>

namespace larimo {

namespace {

constexpr uint32_t kInLine = 0x10000;
constexpr uint32_t kSpeakerLine = 0x20000;
constexpr uint32_t kMuxControl = 1;
constexpr uint32_t kInVolumeControl = 2;
constexpr uint32_t kSpeakerVolumeControl = 3;
constexpr uint32_t kSourceVolumeBase = 0x100;
constexpr unsigned kOutputMixerBase = 0x1000;
constexpr uint32_t kFullVolume = 0xFFFF;
constexpr const char* kVirtualMicName = "Larimo Microphone";

std::size_t DirIndex(WaveDirection direction)
{
    return direction == WaveDirection::Capture ? 1 : 0;
}

} // namespace

struct VirtualAudio::Stream {
    WaveDirection direction = WaveDirection::Render;
    int device = 0;
    StreamFormat format;
    std::shared_ptr<ThreadMessageQueue> target;
    std::deque<WaveHeader*> queue;
    bool running = false;
    uint64_t startMicros = 0;
    uint64_t doneSamples = 0;
    uint32_t fill = 0;
    std::atomic<uint64_t> underruns{0};
    std::atomic<int64_t> clockCorrection{0};
    bool idleHint = false;
};

struct VirtualAudio::MixerState {
    VirtualMixerTopology topology;
    std::map<uint32_t, uint32_t> volumes;
};

// ---------------------------------------------------------------------------------------------

class VirtualAudio::InDevice final : public WaveInDevice {
public:
    InDevice(std::shared_ptr<VirtualAudio> owner, std::unique_ptr<Stream> stream)
        : m_owner(std::move(owner))
        , m_stream(std::move(stream))
    {
    }
    ~InDevice() override { m_owner->Detach(m_stream.get()); }

    unsigned AddBuffer(WaveHeader& header) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if ((header.flags.load() & kWhdrPrepared) == 0)
            return kWaveErrUnprepared;
        header.bytesRecorded = 0;
        header.flags.fetch_and(~kWhdrDone);
        header.flags.fetch_or(kWhdrInQueue);
        m_stream->queue.push_back(&header);
        return kMmOk;
    }

    void SetIdle(bool idle) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        m_stream->idleHint = idle;
    }

    unsigned Start() override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (!m_stream->running) {
            m_stream->running = true;
            m_stream->startMicros = m_owner->m_nowMicros;
            m_stream->doneSamples = 0;
        }
        return kMmOk;
    }

    unsigned Reset() override
    {
        std::lock_guard lock(m_owner->m_mutex);
        m_stream->running = false;
        bool head = true;
        for (WaveHeader* header : m_stream->queue) {
            header->bytesRecorded = head ? m_stream->fill : 0;
            head = false;
            header->flags.fetch_or(kWhdrDone);
            header->flags.fetch_and(~kWhdrInQueue);
            m_stream->target->Post(kMsgWaveInData, header);
        }
        m_stream->queue.clear();
        m_stream->fill = 0;
        return kMmOk;
    }

    unsigned Close() override
    {
        std::lock_guard lock(m_owner->m_mutex);
        return m_stream->queue.empty() ? kMmOk : kWaveErrStillPlaying;
    }

private:
    std::shared_ptr<VirtualAudio> m_owner;
    std::unique_ptr<Stream> m_stream;
};

class VirtualAudio::OutDevice final : public WaveOutDevice {
public:
    OutDevice(std::shared_ptr<VirtualAudio> owner, std::unique_ptr<Stream> stream)
        : m_owner(std::move(owner))
        , m_stream(std::move(stream))
    {
    }
    ~OutDevice() override { m_owner->Detach(m_stream.get()); }

    unsigned Write(WaveHeader& header) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (m_owner->m_outputGone[static_cast<std::size_t>(m_stream->device)])
            return kMmNoDriver;
        if ((header.flags.load() & kWhdrPrepared) == 0)
            return kWaveErrUnprepared;
        header.flags.fetch_and(~kWhdrDone);
        header.flags.fetch_or(kWhdrInQueue);
        m_stream->queue.push_back(&header);
        return kMmOk;
    }

    unsigned Reset() override
    {
        std::lock_guard lock(m_owner->m_mutex);
        for (WaveHeader* header : m_stream->queue) {
            header->flags.fetch_or(kWhdrDone);
            header->flags.fetch_and(~kWhdrInQueue);
            m_stream->target->Post(kMsgWaveOutDone, header);
        }
        m_stream->queue.clear();
        m_stream->fill = 0;
        return kMmOk;
    }

    unsigned Close() override
    {
        std::lock_guard lock(m_owner->m_mutex);
        return m_stream->queue.empty() ? kMmOk : kWaveErrStillPlaying;
    }

    uint64_t Underruns() const override { return m_stream->underruns.load(std::memory_order_relaxed); }
    int64_t ClockCorrectionFrames() const override
    {
        return m_stream->clockCorrection.load(std::memory_order_relaxed);
    }

private:
    std::shared_ptr<VirtualAudio> m_owner;
    std::unique_ptr<Stream> m_stream;
};

// ---------------------------------------------------------------------------------------------

class VirtualAudio::Mixer final : public MixerDevice {
public:
    Mixer(std::shared_ptr<VirtualAudio> owner, int input, std::shared_ptr<MixerState> state, MixerNotify* notify)
        : m_owner(std::move(owner))
        , m_input(input)
        , m_state(std::move(state))
        , m_notify(notify)
    {
        std::lock_guard lock(m_owner->m_mutex);
        m_owner->m_openMixers.push_back(this);
    }
    ~Mixer() override
    {
        std::lock_guard lock(m_owner->m_mutex);
        std::erase(m_owner->m_openMixers, this);
    }

    int Input() const { return m_input; }
    MixerNotify* Notify() const { return m_notify; }

    unsigned GetLineByComponent(MixerComponent component, MixerLine& line) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (component == MixerComponent::DstWaveIn && m_state)
            return Destination(line);
        if (component == MixerComponent::DstSpeakers) {
            line = MixerLine{kSpeakerLine, MixerComponent::DstSpeakers, "Speakers", 0};
            return kMmOk;
        }
        if (m_state) {
            const auto& sources = m_state->topology.sources;
            for (std::size_t i = 0; i < sources.size(); ++i) {
                if (sources[i].component == component)
                    return Source(i, line);
            }
        }
        return kMixErrInvalLine;
    }

    unsigned GetLineById(uint32_t lineId, MixerLine& line) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (lineId == kSpeakerLine) {
            line = MixerLine{kSpeakerLine, MixerComponent::DstSpeakers, "Speakers", 0};
            return kMmOk;
        }
        if (!m_state)
            return kMixErrInvalLine;
        if (lineId == kInLine)
            return Destination(line);
        return Source(lineId - kInLine - 1, line);
    }

    unsigned GetSourceLine(uint32_t destinationLineId, uint32_t index, MixerLine& line) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (destinationLineId != kInLine || !m_state)
            return kMixErrInvalLine;
        return Source(index, line);
    }

    unsigned GetLineControl(uint32_t lineId, MixerControlType type, MixerControl& control) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (lineId == kSpeakerLine) {
            if (type != MixerControlType::Volume)
                return kMixErrInvalControl;
            control = MixerControl{kSpeakerVolumeControl, "Master Volume", 0};
            return kMmOk;
        }
        if (!m_state)
            return kMixErrInvalLine;
        const VirtualMixerTopology& topology = m_state->topology;
        if (lineId == kInLine) {
            if (type == MixerControlType::Mux && topology.hasMux) {
                control = MixerControl{kMuxControl, "Recording Source",
                                       static_cast<uint32_t>(topology.sources.size())};
                return kMmOk;
            }
            if (type == MixerControlType::Volume && topology.destinationVolume) {
                control = MixerControl{kInVolumeControl, "Recording Volume", 0};
                return kMmOk;
            }
            return kMixErrInvalControl;
        }
        const uint32_t index = lineId - kInLine - 1;
        if (index >= topology.sources.size())
            return kMixErrInvalLine;
        if (type != MixerControlType::Volume || !topology.sources[index].hasVolume)
            return kMixErrInvalControl;
        control = MixerControl{kSourceVolumeBase + index, topology.sources[index].name + " Volume", 0};
        return kMmOk;
    }

    unsigned GetMuxItems(uint32_t controlId, std::vector<MixerItem>& items) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (!m_state || !m_state->topology.hasMux || controlId != kMuxControl)
            return kMmInvalParam;
        items.clear();
        const auto& sources = m_state->topology.sources;
        for (std::size_t i = 0; i < sources.size(); ++i)
            items.push_back(MixerItem{sources[i].name, kInLine + 1 + static_cast<uint32_t>(i)});
        return kMmOk;
    }

    unsigned GetMuxValues(uint32_t controlId, std::vector<bool>& values) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (!m_state || !m_state->topology.hasMux || controlId != kMuxControl)
            return kMmInvalParam;
        values.assign(m_state->topology.sources.size(), false);
        const int selected = m_state->topology.selected;
        if (selected >= 0 && static_cast<std::size_t>(selected) < values.size())
            values[static_cast<std::size_t>(selected)] = true;
        return kMmOk;
    }

    unsigned SetMuxValues(uint32_t controlId, const std::vector<bool>& values) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        if (!m_state || !m_state->topology.hasMux || controlId != kMuxControl)
            return kMmInvalParam;
        const auto it = std::find(values.begin(), values.end(), true);
        if (it == values.end() || static_cast<std::size_t>(it - values.begin()) >= m_state->topology.sources.size())
            return kMmInvalParam;
        m_state->topology.selected = static_cast<int>(it - values.begin());
        m_owner->NotifyMixers(m_input, kMuxControl);
        return kMmOk;
    }

    unsigned GetVolume(uint32_t controlId, uint32_t& value) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        std::map<uint32_t, uint32_t>* volumes = Volumes(controlId);
        if (volumes == nullptr)
            return kMixErrInvalControl;
        const auto it = volumes->find(controlId);
        value = it == volumes->end() ? kFullVolume : it->second;
        return kMmOk;
    }

    unsigned SetVolume(uint32_t controlId, uint32_t value) override
    {
        std::lock_guard lock(m_owner->m_mutex);
        std::map<uint32_t, uint32_t>* volumes = Volumes(controlId);
        if (volumes == nullptr || value > kFullVolume)
            return volumes == nullptr ? kMixErrInvalControl : kMmInvalParam;
        (*volumes)[controlId] = value;
        m_owner->NotifyMixers(m_input, controlId);
        return kMmOk;
    }

private:
    unsigned Destination(MixerLine& line) const
    {
        const auto count = static_cast<uint32_t>(m_state->topology.sources.size());
        line = MixerLine{kInLine, MixerComponent::DstWaveIn, "Recording Control", count};
        return kMmOk;
    }

    unsigned Source(std::size_t index, MixerLine& line) const
    {
        const auto& sources = m_state->topology.sources;
        if (index >= sources.size())
            return kMixErrInvalLine;
        line = MixerLine{kInLine + 1 + static_cast<uint32_t>(index), sources[index].component, sources[index].name, 0};
        return kMmOk;
    }

    std::map<uint32_t, uint32_t>* Volumes(uint32_t controlId)
    {
        if (controlId == kSpeakerVolumeControl)
            return &m_speakerVolumes;
        if (!m_state)
            return nullptr;
        const VirtualMixerTopology& topology = m_state->topology;
        if (controlId == kInVolumeControl && topology.destinationVolume)
            return &m_state->volumes;
        const uint32_t index = controlId - kSourceVolumeBase;
        if (controlId >= kSourceVolumeBase && index < topology.sources.size() && topology.sources[index].hasVolume)
            return &m_state->volumes;
        return nullptr;
    }

    std::shared_ptr<VirtualAudio> m_owner;
    int m_input;
    std::shared_ptr<MixerState> m_state;
    MixerNotify* m_notify;
    std::map<uint32_t, uint32_t> m_speakerVolumes;
};

// ---------------------------------------------------------------------------------------------

VirtualAudio::VirtualAudio(std::vector<std::string> inputs, std::vector<std::string> outputs)
    : m_inputs(std::move(inputs))
    , m_outputs(std::move(outputs))
    , m_inputGone(m_inputs.size(), false)
    , m_outputGone(m_outputs.size(), false)
{
}

VirtualAudio::~VirtualAudio()
{
    {
        std::lock_guard lock(m_mutex);
        m_quit = true;
    }
    m_clockChanged.notify_all();
    if (m_clock.joinable())
        m_clock.join();
}

void VirtualAudio::SetSpeed(double factor)
{
    {
        std::lock_guard lock(m_mutex);
        m_speed = factor > 0 ? factor : 0.0;
        if (m_speed > 0 && !m_clock.joinable())
            m_clock = std::thread([this] { RunClock(); });
    }
    m_clockChanged.notify_all();
}

void VirtualAudio::RunClock()
{
    using Clock = std::chrono::steady_clock;
    std::unique_lock lock(m_mutex);
    auto last = Clock::now();
    double carry = 0.0;
    while (!m_quit) {
        m_clockChanged.wait_for(lock, std::chrono::milliseconds(1));
        const auto now = Clock::now();
        const double elapsed = std::chrono::duration<double, std::micro>(now - last).count() * m_speed + carry;
        last = now;
        const auto whole = static_cast<uint64_t>(elapsed);
        carry = elapsed - static_cast<double>(whole);
        if (whole > 0)
            AdvanceLocked(whole);
    }
}

void VirtualAudio::Advance(uint32_t milliseconds)
{
    std::lock_guard lock(m_mutex);
    AdvanceLocked(static_cast<uint64_t>(milliseconds) * 1000);
}

void VirtualAudio::AdvanceLocked(uint64_t micros)
{
    m_nowMicros += micros;
    // Playback first, so what it loops back is there for the recording devices of this step.
    for (Stream* stream : m_streams) {
        if (stream->direction == WaveDirection::Render)
            RunStream(*stream);
    }
    for (Stream* stream : m_streams) {
        if (stream->direction == WaveDirection::Capture)
            RunStream(*stream);
    }
}

void VirtualAudio::RunStream(Stream& stream)
{
    if (!stream.running)
        return;
    const uint32_t block = std::max<uint32_t>(stream.format.blockAlign, 1);
    const uint64_t due = (m_nowMicros - stream.startMicros) * stream.format.samplesPerSec / 1000000;
    uint64_t bytes = (due - stream.doneSamples) * block;
    stream.doneSamples = due;
    if (stream.direction == WaveDirection::Render) {
        std::vector<uint8_t>& played = m_played[stream.device];
        const auto loop = m_loopbacks.find(stream.device);
        while (bytes > 0 && !stream.queue.empty()) {
            WaveHeader* header = stream.queue.front();
            const uint32_t take = static_cast<uint32_t>(std::min<uint64_t>(header->bufferLength - stream.fill, bytes));
            const auto* begin = reinterpret_cast<const uint8_t*>(header->data) + stream.fill;
            played.insert(played.end(), begin, begin + take);
            if (loop != m_loopbacks.end())
                m_inputFifo[loop->second].insert(m_inputFifo[loop->second].end(), begin, begin + take);
            stream.fill += take;
            bytes -= take;
            if (stream.fill >= header->bufferLength) {
                stream.queue.pop_front();
                stream.fill = 0;
                header->flags.fetch_or(kWhdrDone);
                header->flags.fetch_and(~kWhdrInQueue);
                stream.target->Post(kMsgWaveOutDone, header);
            }
        }
        return;
    }
    std::deque<uint8_t>& fifo = m_inputFifo[stream.device];
    while (bytes > 0) {
        if (stream.queue.empty()) {
            // Nobody gave a buffer: what arrives now is lost, as on a real device.
            const auto lost = static_cast<std::size_t>(std::min<uint64_t>(bytes, fifo.size()));
            fifo.erase(fifo.begin(), fifo.begin() + static_cast<std::ptrdiff_t>(lost));
            break;
        }
        WaveHeader* header = stream.queue.front();
        const uint32_t take = static_cast<uint32_t>(std::min<uint64_t>(header->bufferLength - stream.fill, bytes));
        auto* out = reinterpret_cast<uint8_t*>(header->data) + stream.fill;
        const auto fromFifo = static_cast<uint32_t>(std::min<std::size_t>(take, fifo.size()));
        std::copy_n(fifo.begin(), fromFifo, out);
        fifo.erase(fifo.begin(), fifo.begin() + fromFifo);
        std::memset(out + fromFifo, 0, take - fromFifo);
        stream.fill += take;
        bytes -= take;
        if (stream.fill >= header->bufferLength) {
            stream.queue.pop_front();
            stream.fill = 0;
            header->bytesRecorded = header->bufferLength;
            header->flags.fetch_or(kWhdrDone);
            header->flags.fetch_and(~kWhdrInQueue);
            stream.target->Post(kMsgWaveInData, header);
        }
    }
}

void VirtualAudio::SimulateUnderrun(int output)
{
    std::lock_guard lock(m_mutex);
    for (Stream* stream : m_streams) {
        if (stream->direction == WaveDirection::Render && stream->device == output)
            stream->underruns.fetch_add(1, std::memory_order_relaxed);
    }
}

void VirtualAudio::SetClockCorrection(int output, int64_t frames)
{
    std::lock_guard lock(m_mutex);
    for (Stream* stream : m_streams) {
        if (stream->direction == WaveDirection::Render && stream->device == output)
            stream->clockCorrection.store(frames, std::memory_order_relaxed);
    }
}

void VirtualAudio::SetLoopback(int output, int input)
{
    std::lock_guard lock(m_mutex);
    if (input < 0)
        m_loopbacks.erase(output);
    else
        m_loopbacks[output] = input;
}

void VirtualAudio::InjectInput(int input, std::span<const uint8_t> bytes)
{
    std::lock_guard lock(m_mutex);
    m_inputFifo[input].insert(m_inputFifo[input].end(), bytes.begin(), bytes.end());
}

std::vector<uint8_t> VirtualAudio::TakePlayed(int output)
{
    std::lock_guard lock(m_mutex);
    std::vector<uint8_t> played;
    played.swap(m_played[output]);
    return played;
}

void VirtualAudio::SetDeviceGone(WaveDirection direction, int device, bool gone)
{
    std::lock_guard lock(m_mutex);
    std::vector<bool>& list = direction == WaveDirection::Capture ? m_inputGone : m_outputGone;
    if (device >= 0 && static_cast<std::size_t>(device) < list.size())
        list[static_cast<std::size_t>(device)] = gone;
}

void VirtualAudio::SetMixerTopology(int input, VirtualMixerTopology topology)
{
    std::lock_guard lock(m_mutex);
    auto state = std::make_shared<MixerState>();
    state->topology = std::move(topology);
    m_mixers[input] = std::move(state);
}

void VirtualAudio::ChangeVolumeExternally(int input, uint32_t controlId, uint32_t value)
{
    std::lock_guard lock(m_mutex);
    const auto it = m_mixers.find(input);
    if (it == m_mixers.end())
        return;
    it->second->volumes[controlId] = value;
    NotifyMixers(input, controlId);
}

void VirtualAudio::NotifyMixers(int input, uint32_t controlId)
{
    for (Mixer* mixer : m_openMixers) {
        if (mixer->Input() == input && mixer->Notify() != nullptr)
            mixer->Notify()->OnMixerControlChange(controlId);
    }
}

void VirtualAudio::SetVirtualMicrophoneRefused(bool refused)
{
    std::lock_guard lock(m_mutex);
    m_micRefused = refused;
}

void VirtualAudio::SetDefaultDeviceRefused(bool refused)
{
    std::lock_guard lock(m_mutex);
    m_defaultRefused = refused;
}

bool VirtualAudio::RecordingHintedIdle(int input)
{
    std::lock_guard lock(m_mutex);
    for (const Stream* stream : m_streams) {
        if (stream->direction == WaveDirection::Capture && stream->device == input && stream->idleHint)
            return true;
    }
    return false;
}

int VirtualAudio::OpenCount(WaveDirection direction)
{
    std::lock_guard lock(m_mutex);
    return static_cast<int>(std::count_if(m_streams.begin(), m_streams.end(),
                                          [direction](const Stream* stream) { return stream->direction == direction; }));
}

std::vector<std::string> VirtualAudio::WaveDeviceNames(WaveDirection direction)
{
    std::lock_guard lock(m_mutex);
    return direction == WaveDirection::Capture ? m_inputs : m_outputs;
}

int VirtualAudio::ResolveDevice(WaveDirection direction, int device)
{
    const std::vector<std::string>& list = direction == WaveDirection::Capture ? m_inputs : m_outputs;
    if (device == -1)
        device = m_preferred[DirIndex(direction)];
    if (device < 0 || static_cast<std::size_t>(device) >= list.size())
        return -1;
    return device;
}

unsigned VirtualAudio::OpenWaveIn(int device, const StreamFormat& format, const WaveBufferShape& /*shape*/,
                                  ThreadMessageId target, std::unique_ptr<WaveInDevice>& opened)
{
    std::shared_ptr<ThreadMessageQueue> queue = ThreadMessageQueue::Find(target);
    std::lock_guard lock(m_mutex);
    const int resolved = ResolveDevice(WaveDirection::Capture, device);
    if (resolved < 0)
        return kMmBadDeviceId;
    if (m_inputGone[static_cast<std::size_t>(resolved)])
        return kMmNoDriver;
    if (!queue)
        return kMmInvalParam;
    if (format.formatTag != kStreamFormatPcm || format.channels == 0 || format.blockAlign == 0 || format.samplesPerSec == 0)
        return kWaveErrBadFormat;
    auto stream = std::make_unique<Stream>();
    stream->direction = WaveDirection::Capture;
    stream->device = resolved;
    stream->format = format;
    stream->target = std::move(queue);
    m_streams.push_back(stream.get());
    opened = std::make_unique<InDevice>(shared_from_this(), std::move(stream));
    return kMmOk;
}

unsigned VirtualAudio::OpenWaveOut(int device, const StreamFormat& format, const WaveBufferShape& /*shape*/,
                                  ThreadMessageId target, std::unique_ptr<WaveOutDevice>& opened)
{
    std::shared_ptr<ThreadMessageQueue> queue = ThreadMessageQueue::Find(target);
    std::lock_guard lock(m_mutex);
    const int resolved = ResolveDevice(WaveDirection::Render, device);
    if (resolved < 0)
        return kMmBadDeviceId;
    if (m_outputGone[static_cast<std::size_t>(resolved)])
        return kMmNoDriver;
    if (!queue)
        return kMmInvalParam;
    if (format.formatTag != kStreamFormatPcm || format.channels == 0 || format.blockAlign == 0 || format.samplesPerSec == 0)
        return kWaveErrBadFormat;
    auto stream = std::make_unique<Stream>();
    stream->direction = WaveDirection::Render;
    stream->device = resolved;
    stream->format = format;
    stream->target = std::move(queue);
    stream->running = true;
    stream->startMicros = m_nowMicros;
    m_streams.push_back(stream.get());
    opened = std::make_unique<OutDevice>(shared_from_this(), std::move(stream));
    return kMmOk;
}

void VirtualAudio::Detach(Stream* stream)
{
    std::lock_guard lock(m_mutex);
    std::erase(m_streams, stream);
    // A device that goes away with buffers still queued drops them without notifications.
    for (WaveHeader* header : stream->queue)
        header->flags.fetch_and(~kWhdrInQueue);
    stream->queue.clear();
}

bool VirtualAudio::ListEndpoints(WaveDirection, std::vector<EndpointInfo>&, std::string&)
{
    return false;
}

bool VirtualAudio::SetDefaultEndpoint(WaveDirection, const std::string&)
{
    return false;
}

int VirtualAudio::PreferredWaveDevice(WaveDirection direction)
{
    std::lock_guard lock(m_mutex);
    return m_preferred[DirIndex(direction)];
}

unsigned VirtualAudio::SetPreferredWaveDevice(WaveDirection direction, int device)
{
    std::lock_guard lock(m_mutex);
    const int resolved = ResolveDevice(direction, device);
    if (resolved < 0 || device < 0)
        return kMmBadDeviceId;
    if (m_defaultRefused)
        return kMmError;
    m_preferred[DirIndex(direction)] = resolved;
    return kMmOk;
}

unsigned VirtualAudio::GetMixerId(int device, WaveDirection direction, unsigned& mixerId)
{
    std::lock_guard lock(m_mutex);
    const int resolved = ResolveDevice(direction, device);
    if (resolved < 0)
        return kMmBadDeviceId;
    const std::vector<bool>& gone = direction == WaveDirection::Capture ? m_inputGone : m_outputGone;
    if (gone[static_cast<std::size_t>(resolved)])
        return kMmNoDriver;
    mixerId = direction == WaveDirection::Capture ? static_cast<unsigned>(resolved)
                                                  : kOutputMixerBase + static_cast<unsigned>(resolved);
    return kMmOk;
}

unsigned VirtualAudio::OpenMixer(unsigned mixerId, MixerNotify* notify, std::unique_ptr<MixerDevice>& opened)
{
    std::shared_ptr<MixerState> state;
    int input = -1;
    {
        std::lock_guard lock(m_mutex);
        if (mixerId < kOutputMixerBase) {
            if (mixerId >= m_inputs.size())
                return kMmBadDeviceId;
            input = static_cast<int>(mixerId);
            auto& slot = m_mixers[input];
            if (!slot)
                slot = std::make_shared<MixerState>();
            state = slot;
        } else if (mixerId - kOutputMixerBase >= m_outputs.size()) {
            return kMmBadDeviceId;
        }
    }
    opened = std::make_unique<Mixer>(shared_from_this(), input, std::move(state), notify);
    return kMmOk;
}

bool VirtualAudio::EnsureVirtualMicrophone(std::string& why)
{
    std::lock_guard lock(m_mutex);
    if (m_micRefused) {
        why = "the simulated sound system refuses to make the virtual microphone";
        return false;
    }
    const auto has = [](const std::vector<std::string>& list) {
        return std::any_of(list.begin(), list.end(),
                           [](const std::string& name) { return name.find(kVirtualMicName) != std::string::npos; });
    };
    if (!has(m_outputs)) {
        m_outputs.emplace_back(kVirtualMicName);
        m_outputGone.push_back(false);
    }
    if (!has(m_inputs)) {
        m_inputs.emplace_back(kVirtualMicName);
        m_inputGone.push_back(false);
    }
    return true;
}

bool VirtualAudio::VirtualMicrophoneInUse(bool& inUse)
{
    std::lock_guard lock(m_mutex);
    inUse = std::any_of(m_streams.begin(), m_streams.end(), [this](const Stream* stream) {
        return stream->direction == WaveDirection::Capture && stream->running &&
               m_inputs[static_cast<std::size_t>(stream->device)].find(kVirtualMicName) != std::string::npos;
    });
    return true;
}

} // namespace larimo
