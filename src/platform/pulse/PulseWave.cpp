// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/pulse/PulseWave.h"

#include <pulse/sample.h>

#include <algorithm>
#include <cstring>
#include <deque>

namespace larimo {

namespace {

bool ToSampleSpec(const WaveFormat& format, pa_sample_spec& sampleSpec)
{
    if (format.formatTag != kWaveFormatPcm)
        return false;
    switch (format.bitsPerSample) {
    case 8:
        sampleSpec.format = PA_SAMPLE_U8;
        break;
    case 16:
        sampleSpec.format = PA_SAMPLE_S16LE;
        break;
    case 24:
        sampleSpec.format = PA_SAMPLE_S24LE;
        break;
    case 32:
        sampleSpec.format = PA_SAMPLE_S32LE;
        break;
    default:
        return false;
    }
    sampleSpec.rate = format.samplesPerSec;
    sampleSpec.channels = static_cast<uint8_t>(format.channels);
    return pa_sample_spec_valid(&sampleSpec) != 0;
}

void MarkReturned(WaveHeader& header)
{
    header.flags.fetch_or(kWhdrDone);
    header.flags.fetch_and(~kWhdrInQueue);
}

// What both directions share: the stream, its lock discipline and its buffer queue. Every
// member is touched only with the main loop's lock held (callbacks run with it held).
class PulseStreamBase {
protected:
    PulseStreamBase(std::shared_ptr<PulseContext> context, std::shared_ptr<ThreadMessageQueue> target)
        : m_context(std::move(context))
        , m_target(std::move(target))
    {
    }

    ~PulseStreamBase() { ShutdownStream(); }

    // Called first by the derived destructors, so no callback reaches a half-destroyed device.
    void ShutdownStream()
    {
        PulseLock lock(m_context->Loop());
        if (m_stream != nullptr) {
            pa_stream_set_state_callback(m_stream, nullptr, nullptr);
            pa_stream_set_read_callback(m_stream, nullptr, nullptr);
            pa_stream_set_write_callback(m_stream, nullptr, nullptr);
            pa_stream_disconnect(m_stream);
            pa_stream_unref(m_stream);
            m_stream = nullptr;
        }
        // Buffers still queued go back to their owner silently: nobody waits for them now.
        for (WaveHeader* header : m_queue)
            header->flags.fetch_and(~kWhdrInQueue);
        m_queue.clear();
    }

    bool CreateLocked(const char* name, const WaveFormat& format)
    {
        pa_sample_spec sampleSpec{};
        if (!ToSampleSpec(format, sampleSpec) || m_context->Context() == nullptr)
            return false;
        m_stream = pa_stream_new(m_context->Context(), name, &sampleSpec, nullptr);
        if (m_stream == nullptr)
            return false;
        pa_stream_set_state_callback(
            m_stream,
            [](pa_stream*, void* loop) { pa_threaded_mainloop_signal(static_cast<pa_threaded_mainloop*>(loop), 0); },
            m_context->Loop());
        return true;
    }

    bool Alive() const
    {
        return m_stream != nullptr && PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream));
    }

    unsigned Enqueue(WaveHeader& header)
    {
        if ((header.flags.load() & kWhdrPrepared) == 0)
            return kWaveErrUnprepared;
        header.flags.fetch_and(~kWhdrDone);
        header.flags.fetch_or(kWhdrInQueue);
        m_queue.push_back(&header);
        return kMmOk;
    }

    std::shared_ptr<PulseContext> m_context;
    std::shared_ptr<ThreadMessageQueue> m_target;
    pa_stream* m_stream = nullptr;
    std::deque<WaveHeader*> m_queue;
    uint32_t m_fill = 0;
};

class PulseWaveIn final : public WaveInDevice, private PulseStreamBase {
public:
    PulseWaveIn(std::shared_ptr<PulseContext> context, std::shared_ptr<ThreadMessageQueue> target)
        : PulseStreamBase(std::move(context), std::move(target))
    {
    }
    ~PulseWaveIn() override { ShutdownStream(); }

    unsigned Connect(const std::string& source, const WaveFormat& format, const WaveBufferShape& shape)
    {
        PulseLock lock(m_context->Loop());
        if (!CreateLocked("Larimo recording", format))
            return kWaveErrBadFormat;
        pa_stream_set_read_callback(
            m_stream, [](pa_stream*, size_t, void* self) { static_cast<PulseWaveIn*>(self)->ReadLocked(); }, this);
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = static_cast<uint32_t>(-1);
        attr.prebuf = static_cast<uint32_t>(-1);
        attr.minreq = static_cast<uint32_t>(-1);
        attr.fragsize = std::max<uint32_t>(shape.bufferBytes, format.blockAlign);
        const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_START_CORKED);
        if (pa_stream_connect_record(m_stream, source.empty() ? nullptr : source.c_str(), &attr, flags) < 0 ||
            !m_context->WaitStreamReadyLocked(m_stream))
            return kMmNoDriver;
        return kMmOk;
    }

    unsigned AddBuffer(WaveHeader& header) override
    {
        PulseLock lock(m_context->Loop());
        return Enqueue(header);
    }

    unsigned Start() override
    {
        PulseLock lock(m_context->Loop());
        if (!Alive())
            return kMmNoDriver;
        m_running = true;
        PulseOperation(pa_stream_cork(m_stream, 0, nullptr, nullptr));
        return kMmOk;
    }

    unsigned Reset() override
    {
        PulseLock lock(m_context->Loop());
        m_running = false;
        if (Alive()) {
            PulseOperation(pa_stream_cork(m_stream, 1, nullptr, nullptr));
            PulseOperation(pa_stream_flush(m_stream, nullptr, nullptr));
        }
        bool head = true;
        for (WaveHeader* header : m_queue) {
            header->bytesRecorded = head ? m_fill : 0;
            head = false;
            MarkReturned(*header);
            m_target->Post(kMsgWaveInData, header);
        }
        m_queue.clear();
        m_fill = 0;
        return kMmOk;
    }

    unsigned Close() override
    {
        PulseLock lock(m_context->Loop());
        return m_queue.empty() ? kMmOk : kWaveErrStillPlaying;
    }

private:
    void ReadLocked()
    {
        const void* data = nullptr;
        size_t size = 0;
        while (pa_stream_peek(m_stream, &data, &size) == 0 && size > 0) {
            // A hole (no data) is dropped like data, or the stream would stall on it.
            if (data != nullptr && m_running)
                DeliverLocked(static_cast<const char*>(data), size);
            pa_stream_drop(m_stream);
        }
    }

    void DeliverLocked(const char* data, size_t size)
    {
        while (size > 0 && !m_queue.empty()) {
            WaveHeader* header = m_queue.front();
            const auto take = static_cast<uint32_t>(std::min<size_t>(header->bufferLength - m_fill, size));
            std::memcpy(header->data + m_fill, data, take);
            m_fill += take;
            data += take;
            size -= take;
            if (m_fill >= header->bufferLength) {
                m_queue.pop_front();
                header->bytesRecorded = m_fill;
                m_fill = 0;
                MarkReturned(*header);
                m_target->Post(kMsgWaveInData, header);
            }
        }
        // Without a queued buffer the rest is lost, as a device overrun loses it.
    }

    bool m_running = false;
};

class PulseWaveOut final : public WaveOutDevice, private PulseStreamBase {
public:
    PulseWaveOut(std::shared_ptr<PulseContext> context, std::shared_ptr<ThreadMessageQueue> target)
        : PulseStreamBase(std::move(context), std::move(target))
    {
    }
    ~PulseWaveOut() override { ShutdownStream(); }

    unsigned Connect(const std::string& sink, const WaveFormat& format, const WaveBufferShape& shape)
    {
        PulseLock lock(m_context->Loop());
        if (!CreateLocked("Larimo playback", format))
            return kWaveErrBadFormat;
        pa_stream_set_write_callback(
            m_stream, [](pa_stream*, size_t bytes, void* self) { static_cast<PulseWaveOut*>(self)->FeedLocked(bytes); },
            this);
        const uint32_t buffer = std::max<uint32_t>(shape.bufferBytes, format.blockAlign);
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = buffer * std::max<uint32_t>(shape.bufferCount, 1);
        attr.prebuf = buffer;
        attr.minreq = buffer;
        attr.fragsize = static_cast<uint32_t>(-1);
        m_prebuf = buffer;
        if (pa_stream_connect_playback(m_stream, sink.empty() ? nullptr : sink.c_str(), &attr, PA_STREAM_ADJUST_LATENCY,
                                       nullptr, nullptr) < 0 ||
            !m_context->WaitStreamReadyLocked(m_stream))
            return kMmNoDriver;
        return kMmOk;
    }

    unsigned Write(WaveHeader& header) override
    {
        PulseLock lock(m_context->Loop());
        if (!Alive())
            return kMmNoDriver;
        const unsigned result = Enqueue(header);
        if (result != kMmOk)
            return result;
        const size_t writable = pa_stream_writable_size(m_stream);
        if (writable != static_cast<size_t>(-1))
            FeedLocked(writable);
        // A short final buffer would never reach the start threshold: start it anyway.
        if (header.bufferLength < m_prebuf)
            PulseOperation(pa_stream_trigger(m_stream, nullptr, nullptr));
        return kMmOk;
    }

    unsigned Reset() override
    {
        PulseLock lock(m_context->Loop());
        if (Alive())
            PulseOperation(pa_stream_flush(m_stream, nullptr, nullptr));
        for (WaveHeader* header : m_queue) {
            MarkReturned(*header);
            m_target->Post(kMsgWaveOutDone, header);
        }
        m_queue.clear();
        m_fill = 0;
        return kMmOk;
    }

    unsigned Close() override
    {
        PulseLock lock(m_context->Loop());
        return m_queue.empty() ? kMmOk : kWaveErrStillPlaying;
    }

private:
    void FeedLocked(size_t bytes)
    {
        while (bytes > 0 && !m_queue.empty()) {
            WaveHeader* header = m_queue.front();
            const auto take = static_cast<uint32_t>(std::min<size_t>(header->bufferLength - m_fill, bytes));
            if (take > 0 && pa_stream_write(m_stream, header->data + m_fill, take, nullptr, 0, PA_SEEK_RELATIVE) < 0)
                return;
            m_fill += take;
            bytes -= take;
            if (m_fill >= header->bufferLength) {
                m_queue.pop_front();
                m_fill = 0;
                MarkReturned(*header);
                m_target->Post(kMsgWaveOutDone, header);
            }
        }
    }

    uint32_t m_prebuf = 0;
};

} // namespace

unsigned OpenPulseWaveIn(const std::shared_ptr<PulseContext>& context, const std::string& source,
                         const WaveFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
                         std::unique_ptr<WaveInDevice>& opened)
{
    std::shared_ptr<ThreadMessageQueue> queue = ThreadMessageQueue::Find(target);
    if (!queue)
        return kMmInvalParam;
    if (!context->Ensure())
        return kMmNoDriver;
    auto device = std::make_unique<PulseWaveIn>(context, std::move(queue));
    const unsigned result = device->Connect(source, format, shape);
    if (result == kMmOk)
        opened = std::move(device);
    return result;
}

unsigned OpenPulseWaveOut(const std::shared_ptr<PulseContext>& context, const std::string& sink,
                          const WaveFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
                          std::unique_ptr<WaveOutDevice>& opened)
{
    std::shared_ptr<ThreadMessageQueue> queue = ThreadMessageQueue::Find(target);
    if (!queue)
        return kMmInvalParam;
    if (!context->Ensure())
        return kMmNoDriver;
    auto device = std::make_unique<PulseWaveOut>(context, std::move(queue));
    const unsigned result = device->Connect(sink, format, shape);
    if (result == kMmOk)
        opened = std::move(device);
    return result;
}

} // namespace larimo
