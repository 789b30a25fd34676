// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/pulse/PulseWave.h"

#include "platform/ClockMatch.h"
#include "platform/OutputLead.h"

#include <pulse/sample.h>

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <array>
#include <atomic>
#include <cstring>
#include <deque>
#include <vector>

namespace larimo {

namespace {

// How far a single figure of what waits ahead of the sink may exceed the lead by more than
// twice this before the surplus is skipped: enough that the ordinary swing of arriving buffers
// (about a recording fragment) never costs a skip.
constexpr uint32_t kTrimSlackMs = 6;
// How far the least that waited ahead over a second may exceed the lead before the surplus is
// skipped: the least swings by a fraction of a millisecond from one second to the next.
constexpr uint32_t kSettledSlackMs = 2;

// The whole frames of `format` that play in `micros` microseconds.
uint32_t AlignedBytes(const StreamFormat& format, uint64_t micros)
{
    const uint32_t align = std::max<uint16_t>(format.blockAlign, 1);
    return static_cast<uint32_t>(micros * format.avgBytesPerSec / 1'000'000 / align * align);
}

bool ToSampleSpec(const StreamFormat& format, pa_sample_spec& sampleSpec)
{
    if (format.formatTag != kStreamFormatPcm)
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

// Headers on their way from the thread that queues them to the loop thread. One thread pushes
// at a time (the device's caller), one pops at a time (whoever holds the main loop's lock);
// pushing never waits, so the audio thread can queue without taking that lock.
class HandOverRing {
public:
    static constexpr size_t kCapacity = 256; // more than a stream may queue (255)

    bool PushRT(WaveHeader* header) noexcept
    {
        const size_t head = m_head.load(std::memory_order_relaxed);
        if (head - m_tail.load(std::memory_order_acquire) == kCapacity)
            return false;
        m_slots[head % kCapacity] = header;
        m_head.store(head + 1, std::memory_order_release);
        return true;
    }

    WaveHeader* Pop() noexcept
    {
        const size_t tail = m_tail.load(std::memory_order_relaxed);
        if (m_head.load(std::memory_order_acquire) == tail)
            return nullptr;
        WaveHeader* header = m_slots[tail % kCapacity];
        m_tail.store(tail + 1, std::memory_order_release);
        return header;
    }

private:
    std::array<WaveHeader*, kCapacity> m_slots{};
    alignas(64) std::atomic<size_t> m_head{0};
    alignas(64) std::atomic<size_t> m_tail{0};
};

// What both directions share: the stream, its lock discipline and its buffer queue. Buffers
// arrive through the hand-over ring without the lock; everything else is touched only with
// the main loop's lock held (callbacks run with it held).
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
        if (m_wakeEvent != nullptr) {
            pa_mainloop_api* api = pa_threaded_mainloop_get_api(m_context->Loop());
            api->io_free(m_wakeEvent);
            m_wakeEvent = nullptr;
        }
        if (m_wakeFd >= 0) {
            close(m_wakeFd);
            m_wakeFd = -1;
        }
        m_alive.store(false, std::memory_order_release);
        TakeHandedLocked();
        if (m_stream != nullptr) {
            pa_stream_set_state_callback(m_stream, nullptr, nullptr);
            pa_stream_set_read_callback(m_stream, nullptr, nullptr);
            pa_stream_set_write_callback(m_stream, nullptr, nullptr);
            pa_stream_set_underflow_callback(m_stream, nullptr, nullptr);
            pa_stream_disconnect(m_stream);
            pa_stream_unref(m_stream);
            m_stream = nullptr;
        }
        // Buffers still queued go back to their owner silently: nobody waits for them now.
        for (WaveHeader* header : m_queue)
            header->flags.fetch_and(~kWhdrInQueue);
        m_queue.clear();
    }

    bool CreateLocked(const char* name, const StreamFormat& format)
    {
        pa_sample_spec sampleSpec{};
        if (!ToSampleSpec(format, sampleSpec) || m_context->Context() == nullptr)
            return false;
        m_stream = pa_stream_new(m_context->Context(), name, &sampleSpec, nullptr);
        if (m_stream == nullptr)
            return false;
        pa_stream_set_state_callback(
            m_stream,
            [](pa_stream* stream, void* self) {
                auto* base = static_cast<PulseStreamBase*>(self);
                base->m_alive.store(PA_STREAM_IS_GOOD(pa_stream_get_state(stream)), std::memory_order_release);
                pa_threaded_mainloop_signal(base->m_context->Loop(), 0);
            },
            this);
        m_alive.store(true, std::memory_order_release);
        return true;
    }

    bool Alive() const
    {
        return m_stream != nullptr && PA_STREAM_IS_GOOD(pa_stream_get_state(m_stream));
    }

    // Lets the caller wake the loop thread without its lock: an event counter the loop polls.
    bool CreateWakeLocked(pa_io_event_cb_t onWake, void* userdata)
    {
        m_wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (m_wakeFd < 0)
            return false;
        pa_mainloop_api* api = pa_threaded_mainloop_get_api(m_context->Loop());
        m_wakeEvent = api->io_new(api, m_wakeFd, PA_IO_EVENT_INPUT, onWake, userdata);
        return m_wakeEvent != nullptr;
    }

    // Wait-free, never takes the main loop's lock. RT call.
    unsigned EnqueueRT(WaveHeader& header) noexcept
    {
        if ((header.flags.load(std::memory_order_acquire) & kWhdrPrepared) == 0)
            return kWaveErrUnprepared;
        header.flags.fetch_and(~kWhdrDone);
        header.flags.fetch_or(kWhdrInQueue);
        if (!m_handed.PushRT(&header)) {
            header.flags.fetch_and(~kWhdrInQueue);
            return kMmNoMem;
        }
        return kMmOk;
    }

    // Wakes the loop thread. RT call.
    void WakeRT() const noexcept
    {
        const uint64_t one = 1;
        // A full counter (it never gets there) would still leave the loop woken.
        [[maybe_unused]] const ssize_t written = write(m_wakeFd, &one, sizeof one);
    }

    // Moves what the callers handed over into the queue; returns the shortest buffer taken.
    uint32_t TakeHandedLocked()
    {
        uint32_t shortest = UINT32_MAX;
        while (WaveHeader* header = m_handed.Pop()) {
            m_queue.push_back(header);
            shortest = std::min(shortest, header->bufferLength);
        }
        return shortest;
    }

    std::shared_ptr<PulseContext> m_context;
    std::shared_ptr<ThreadMessageQueue> m_target;
    pa_stream* m_stream = nullptr;
    std::deque<WaveHeader*> m_queue;
    uint32_t m_fill = 0;
    HandOverRing m_handed;
    std::atomic<bool> m_alive{false};
    int m_wakeFd = -1;
    pa_io_event* m_wakeEvent = nullptr;
};

class PulseWaveIn final : public WaveInDevice, private PulseStreamBase {
public:
    PulseWaveIn(std::shared_ptr<PulseContext> context, std::shared_ptr<ThreadMessageQueue> target)
        : PulseStreamBase(std::move(context), std::move(target))
    {
    }
    ~PulseWaveIn() override { ShutdownStream(); }

    unsigned Connect(const std::string& source, const StreamFormat& format, const WaveBufferShape& shape)
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
        // The server gathers a fragment before it sends one, and its source runs that far
        // behind: a whole buffer would hold data back by up to two buffers. Quarters cost a few
        // more wake-ups and cut that to little more than the buffer itself. Nor may a fragment be
        // as long as a short buffer: the source's own pieces never quite match it, so now and
        // then a buffer would wait for the next piece, a whole buffer late (at 5 ms buffers, once
        // a second; with 2.5 ms fragments what waited ahead of the virtual microphone was 7.2 ms
        // in the median instead of 8.5 ms).
        const uint32_t align = std::max<uint16_t>(format.blockAlign, 1);
        const uint32_t buffer = std::max<uint32_t>(shape.bufferBytes, align);
        const uint32_t floor = AlignedBytes(format, 2500);
        attr.fragsize = std::min(buffer, std::max({buffer / 4 / align * align, floor, align}));
        m_activeFragment = attr.fragsize;
        m_idleFragment = buffer;
        const auto flags = static_cast<pa_stream_flags_t>(PA_STREAM_ADJUST_LATENCY | PA_STREAM_START_CORKED);
        if (pa_stream_connect_record(m_stream, source.empty() ? nullptr : source.c_str(), &attr, flags) < 0 ||
            !m_context->WaitStreamReadyLocked(m_stream))
            return kMmNoDriver;
        return kMmOk;
    }

    /// Wait-free: the loop thread takes the buffer over when data next arrives. RT call.
    unsigned AddBuffer(WaveHeader& header) override { return EnqueueRT(header); }

    unsigned Start() override
    {
        PulseLock lock(m_context->Loop());
        if (!Alive())
            return kMmNoDriver;
        m_running = true;
        PulseOperation(pa_stream_cork(m_stream, 0, nullptr, nullptr));
        return kMmOk;
    }

    // Idle, whole buffers are enough: a quarter of the wake-ups, and a resumed voice is at
    // most one buffer late, once.
    void SetIdle(bool idle) override
    {
        PulseLock lock(m_context->Loop());
        if (!Alive() || idle == m_idle)
            return;
        m_idle = idle;
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = static_cast<uint32_t>(-1);
        attr.prebuf = static_cast<uint32_t>(-1);
        attr.minreq = static_cast<uint32_t>(-1);
        attr.fragsize = idle ? m_idleFragment : m_activeFragment;
        PulseOperation(pa_stream_set_buffer_attr(m_stream, &attr, nullptr, nullptr));
    }

    unsigned Reset() override
    {
        PulseLock lock(m_context->Loop());
        TakeHandedLocked();
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
        TakeHandedLocked();
        return m_queue.empty() ? kMmOk : kWaveErrStillPlaying;
    }

private:
    void ReadLocked()
    {
        TakeHandedLocked();
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
    bool m_idle = false;
    uint32_t m_activeFragment = 0; // bytes the server gathers before sending, recording for someone
    uint32_t m_idleFragment = 0;   // the same while nobody listens
};

class PulseWaveOut final : public WaveOutDevice, private PulseStreamBase {
public:
    PulseWaveOut(std::shared_ptr<PulseContext> context, std::shared_ptr<ThreadMessageQueue> target)
        : PulseStreamBase(std::move(context), std::move(target))
    {
    }
    ~PulseWaveOut() override { ShutdownStream(); }

    unsigned Connect(const std::string& sink, const StreamFormat& format, const WaveBufferShape& shape)
    {
        PulseLock lock(m_context->Loop());
        if (!CreateLocked("Larimo playback", format))
            return kWaveErrBadFormat;
        pa_stream_set_write_callback(
            m_stream, [](pa_stream*, size_t bytes, void* self) { static_cast<PulseWaveOut*>(self)->FeedLocked(bytes); },
            this);
        pa_stream_set_underflow_callback(
            m_stream, [](pa_stream*, void* self) { static_cast<PulseWaveOut*>(self)->OnUnderflowLocked(); }, this);
        const uint32_t align = std::max<uint16_t>(format.blockAlign, 1);
        const uint32_t buffer = std::max<uint32_t>(shape.bufferBytes, align);
        const uint32_t lead = shape.leadBytes / align * align;
        m_prebuf = buffer;
        m_written = buffer * std::max<uint32_t>(shape.bufferCount, 1);
        // The lead adapts to the machine (OutputLead): a busy machine settles at the smallest
        // lead that plays without gaps, a quiet one stays at the requested one.
        m_leadPolicy = OutputLead(lead, align, NowNs());
        m_clock = ClockMatch(format.samplesPerSec);
        m_lead.assign(m_leadPolicy.MaxBytes(), format.bitsPerSample == 8 ? char(0x80) : char(0));
        m_leadBytes = lead;
        m_align = align;
        m_bytesPerSecond = format.avgBytesPerSec;
        m_slack = AlignedBytes(format, kTrimSlackMs * 1000);
        m_settledSlack = AlignedBytes(format, kSettledSlackMs * 1000);
        m_leadDue = lead > 0;
        const pa_buffer_attr attr = BufferAttrLocked();
        if (!CreateWakeLocked([](pa_mainloop_api*, pa_io_event*, int fd, pa_io_event_flags_t, void* self) {
                uint64_t count = 0;
                [[maybe_unused]] const ssize_t got = read(fd, &count, sizeof count);
                static_cast<PulseWaveOut*>(self)->PumpLocked();
            }, this))
            return kMmNoMem;
        // With a lead, the server's clock tells how much waits ahead of the sink (BalanceLocked),
        // and the sink's latency is set by minreq (BufferAttrLocked).
        const auto flags = static_cast<pa_stream_flags_t>(
            lead == 0 ? PA_STREAM_ADJUST_LATENCY
                      : PA_STREAM_EARLY_REQUESTS | PA_STREAM_AUTO_TIMING_UPDATE | PA_STREAM_INTERPOLATE_TIMING);
        if (pa_stream_connect_playback(m_stream, sink.empty() ? nullptr : sink.c_str(), &attr, flags,
                                       nullptr, nullptr) < 0 ||
            !m_context->WaitStreamReadyLocked(m_stream))
            return kMmNoDriver;
        return kMmOk;
    }

    /// Wait-free: hands the buffer to the loop thread and wakes it, never taking the main
    /// loop's lock. RT call.
    unsigned Write(WaveHeader& header) override
    {
        if (!m_alive.load(std::memory_order_acquire))
            return kMmNoDriver;
        const unsigned result = EnqueueRT(header);
        if (result != kMmOk)
            return result;
        WakeRT();
        return kMmOk;
    }

    unsigned Reset() override
    {
        PulseLock lock(m_context->Loop());
        TakeHandedLocked();
        if (Alive())
            PulseOperation(pa_stream_flush(m_stream, nullptr, nullptr));
        for (WaveHeader* header : m_queue) {
            MarkReturned(*header);
            m_target->Post(kMsgWaveOutDone, header);
        }
        m_queue.clear();
        m_fill = 0;
        // The flushed stream waits for its start threshold again.
        m_leadDue = !m_lead.empty();
        return kMmOk;
    }

    uint64_t Underruns() const override { return m_underruns.load(std::memory_order_relaxed); }
    int64_t ClockCorrectionFrames() const override { return m_correction.load(std::memory_order_relaxed); }

    unsigned Close() override
    {
        PulseLock lock(m_context->Loop());
        TakeHandedLocked();
        return m_queue.empty() ? kMmOk : kWaveErrStillPlaying;
    }

private:
    void PumpLocked()
    {
        uint64_t before = 0;
        for (WaveHeader* header : m_queue)
            before += header->bufferLength;
        before -= m_fill;
        const uint32_t shortest = TakeHandedLocked();
        if (!Alive())
            return;
        if (shortest != UINT32_MAX && !m_lead.empty())
            BalanceLocked(before);
        const size_t writable = pa_stream_writable_size(m_stream);
        if (writable != static_cast<size_t>(-1))
            FeedLocked(writable);
        // A short final buffer would never reach the start threshold: start it anyway.
        if (shortest < m_prebuf)
            PulseOperation(pa_stream_trigger(m_stream, nullptr, nullptr));
    }

    // Keeps what is queued ahead of newly handed buffers at the lead. The writer keeps pace
    // with the sink's clock by the correction it is told (ClockMatch). Whatever waits beyond
    // the lead (a burst after a stall, a lead put back after an under-run while the rest was
    // still on its way) would delay the voice for good, so the oldest data not yet written is
    // skipped: a burst at once down to the lead and its slack, what stayed beyond the lead for
    // a whole second down to the lead. Single figures swing by about a recording fragment, so
    // nothing less than that is ever cut on one of them.
    void BalanceLocked(uint64_t clientAhead)
    {
        // While the stream waits for its start threshold (or is stopped) nothing is played, and
        // what waits ahead says nothing about the clocks.
        const pa_timing_info* timing = pa_stream_get_timing_info(m_stream);
        pa_usec_t latency = 0;
        int negative = 0;
        if (timing == nullptr || timing->playing == 0 || pa_stream_get_latency(m_stream, &latency, &negative) != 0 ||
            negative != 0)
            return;
        const uint64_t ahead = latency * m_bytesPerSecond / 1'000'000 + clientAhead;
        RelaxLeadLocked();
        m_clock.Observe(NowNs(), static_cast<int64_t>(ahead / m_align), m_leadBytes / m_align);
        m_correction.store(m_clock.TotalFrames(), std::memory_order_relaxed);
        uint64_t excess = 0;
        int64_t least = 0;
        if (ahead > m_leadBytes + 2 * m_slack)
            excess = ahead - m_leadBytes - m_slack;
        else if (m_clock.LeastAhead(least) && least > 0 &&
                 static_cast<uint64_t>(least) * m_align > m_leadBytes + m_settledSlack)
            excess = static_cast<uint64_t>(least) * m_align - m_leadBytes;
        excess = excess / m_align * m_align;
        uint64_t skipped = 0;
        while (excess > 0 && !m_queue.empty()) {
            WaveHeader* header = m_queue.front();
            const auto take = static_cast<uint32_t>(std::min<uint64_t>(header->bufferLength - m_fill, excess));
            m_fill += take;
            excess -= take;
            skipped += take;
            if (m_fill >= header->bufferLength) {
                m_queue.pop_front();
                m_fill = 0;
                MarkReturned(*header);
                m_target->Post(kMsgWaveOutDone, header);
            }
        }
        if (skipped > 0)
            m_clock.Skipped();
    }

    // The server holds the buffers written ahead plus the lead and its slack; anything beyond
    // waits here. With early requests the sink's latency is minreq: the sink takes what it plays
    // at most that far ahead of its clock, whatever the programs that record from it ask for (a
    // null sink hands on what it plays in pieces that long). A third of the lead leaves the rest
    // for a late block; left to the recording programs, one that records in 20 ms fragments let
    // the sink take 15 ms at once and the stream ran dry five times a minute.
    pa_buffer_attr BufferAttrLocked() const
    {
        pa_buffer_attr attr{};
        attr.maxlength = static_cast<uint32_t>(-1);
        attr.tlength = m_written + (m_leadBytes == 0 ? 0 : m_leadBytes + m_slack);
        attr.prebuf = m_prebuf + m_leadBytes;
        // With a lead the rest of a buffer that did not fit follows soon, not a buffer later.
        attr.minreq = m_leadBytes == 0 ? m_prebuf : std::max(m_align, m_leadBytes / 3 / m_align * m_align);
        attr.fragsize = static_cast<uint32_t>(-1);
        return attr;
    }

    void SetLeadLocked(uint32_t bytes)
    {
        if (bytes == m_leadBytes)
            return;
        m_leadBytes = bytes;
        const pa_buffer_attr attr = BufferAttrLocked();
        PulseOperation(pa_stream_set_buffer_attr(m_stream, &attr, nullptr, nullptr));
    }

    void OnUnderflowLocked()
    {
        m_underruns.fetch_add(1, std::memory_order_relaxed);
        // Played dry, the stream waits for its start threshold: the lead goes in first again,
        // a little longer each time, since this one was not enough here.
        m_leadDue = !m_lead.empty();
        SetLeadLocked(m_leadPolicy.OnUnderrun(NowNs()));
    }

    void RelaxLeadLocked() { SetLeadLocked(m_leadPolicy.Relax(NowNs())); }

    static int64_t NowNs()
    {
        return std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::steady_clock::now().time_since_epoch())
            .count();
    }

    void FeedLocked(size_t bytes)
    {
        TakeHandedLocked();
        if (m_leadDue && !m_queue.empty()) {
            if (pa_stream_write(m_stream, m_lead.data(), m_leadBytes, nullptr, 0, PA_SEEK_RELATIVE) < 0)
                return;
            m_leadDue = false;
            bytes -= std::min<size_t>(bytes, m_leadBytes);
        }
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
    uint32_t m_written = 0;    // the buffers the server may hold ahead, besides the lead
    std::vector<char> m_lead;  // silence for the longest lead
    OutputLead m_leadPolicy;
    ClockMatch m_clock;
    std::atomic<int64_t> m_correction{0};
    uint32_t m_leadBytes = 0;  // the lead now
    uint32_t m_slack = 0;
    uint32_t m_settledSlack = 0;
    uint32_t m_align = 1;
    uint64_t m_bytesPerSecond = 0;
    bool m_leadDue = false;
    std::atomic<uint64_t> m_underruns{0};
};

} // namespace

unsigned OpenPulseWaveIn(const std::shared_ptr<PulseContext>& context, const std::string& source,
                         const StreamFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
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
                          const StreamFormat& format, const WaveBufferShape& shape, ThreadMessageId target,
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
