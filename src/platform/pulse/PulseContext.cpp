// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/pulse/PulseContext.h"

#include "platform/AudioBackend.h"
#include "platform/ProcessInfo.h"

#include <pulse/error.h>
#include <pulse/subscribe.h>
#include <pulse/volume.h>

#include <algorithm>

namespace larimo {

namespace {

void Signal(pa_threaded_mainloop* loop)
{
    pa_threaded_mainloop_signal(loop, 0);
}

struct ListQuery {
    pa_threaded_mainloop* loop;
    std::vector<PulseDevice>* devices;
};

template <typename Info>
PulseDevice CopyDevice(const Info& info)
{
    PulseDevice device;
    device.index = info.index;
    device.name = info.name != nullptr ? info.name : "";
    device.description = info.description != nullptr ? info.description : "";
    device.card = info.card;
    device.channels = info.channel_map.channels;
    device.volume = pa_cvolume_avg(&info.volume);
    for (uint32_t i = 0; i < info.n_ports; ++i) {
        const auto* port = info.ports[i];
        if (port == nullptr)
            continue;
        device.ports.push_back(PulsePort{port->name != nullptr ? port->name : "",
                                         port->description != nullptr ? port->description : ""});
    }
    if (info.active_port != nullptr && info.active_port->name != nullptr)
        device.activePort = info.active_port->name;
    return device;
}

void OnSourceInfo(pa_context*, const pa_source_info* info, int eol, void* userdata)
{
    auto* query = static_cast<ListQuery*>(userdata);
    if (eol == 0 && info != nullptr) {
        PulseDevice device = CopyDevice(*info);
        device.monitorOfSink = info->monitor_of_sink;
        query->devices->push_back(std::move(device));
    }
    if (eol != 0)
        Signal(query->loop);
}

void OnSinkInfo(pa_context*, const pa_sink_info* info, int eol, void* userdata)
{
    auto* query = static_cast<ListQuery*>(userdata);
    if (eol == 0 && info != nullptr)
        query->devices->push_back(CopyDevice(*info));
    if (eol != 0)
        Signal(query->loop);
}

struct SuccessQuery {
    pa_threaded_mainloop* loop;
    bool success = false;
};

void OnSuccess(pa_context*, int success, void* userdata)
{
    auto* query = static_cast<SuccessQuery*>(userdata);
    query->success = success != 0;
    Signal(query->loop);
}

} // namespace

PulseLock::PulseLock(pa_threaded_mainloop* loop)
    : m_loop(loop)
{
    pa_threaded_mainloop_lock(m_loop);
}

PulseLock::~PulseLock()
{
    pa_threaded_mainloop_unlock(m_loop);
}

void PulseOperationDeleter::operator()(pa_operation* operation) const
{
    pa_operation_unref(operation);
}

void PulseContext::LoopDeleter::operator()(pa_threaded_mainloop* loop) const
{
    pa_threaded_mainloop_stop(loop);
    pa_threaded_mainloop_free(loop);
}

void PulseContext::ContextDeleter::operator()(pa_context* context) const
{
    pa_context_set_state_callback(context, nullptr, nullptr);
    pa_context_set_subscribe_callback(context, nullptr, nullptr);
    pa_context_disconnect(context);
    pa_context_unref(context);
}

PulseContext::PulseContext()
    : m_loop(pa_threaded_mainloop_new())
{
    if (m_loop && pa_threaded_mainloop_start(m_loop.get()) < 0) {
        m_lastError = "the sound server's event loop could not be started";
        pa_threaded_mainloop_free(m_loop.release());
    }
}

unsigned PulseContext::LoopThreadId()
{
    if (!m_loop)
        return 0;
    struct Asked {
        pa_threaded_mainloop* loop;
        unsigned id = 0;
    } asked{m_loop.get()};
    PulseLock lock(m_loop.get());
    // A deferred event runs once on the loop thread, with the lock held.
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(m_loop.get());
    pa_defer_event* event = api->defer_new(
        api,
        [](pa_mainloop_api* loopApi, pa_defer_event* self, void* userdata) {
            auto* question = static_cast<Asked*>(userdata);
            question->id = CurrentThreadId();
            loopApi->defer_free(self);
            pa_threaded_mainloop_signal(question->loop, 0);
        },
        &asked);
    if (event == nullptr)
        return 0;
    while (asked.id == 0)
        pa_threaded_mainloop_wait(m_loop.get());
    return asked.id;
}

PulseContext::~PulseContext()
{
    if (!m_loop)
        return;
    {
        PulseLock lock(m_loop.get());
        DisconnectLocked();
    }
    m_loop.reset();
}

void PulseContext::DisconnectLocked()
{
    m_context.reset();
    // Queries still running were cancelled with the context: their answers never come.
    m_recounting = false;
    m_recountAgain = false;
    if (m_recorders)
        m_recorders->store(kRecordersUnknown, std::memory_order_release);
}

bool PulseContext::UsableLocked() const
{
    return m_context && pa_context_get_state(m_context.get()) == PA_CONTEXT_READY;
}

std::string PulseContext::LastError()
{
    if (!m_loop)
        return m_lastError;
    PulseLock lock(m_loop.get());
    return m_lastError;
}

bool PulseContext::Ensure()
{
    if (!m_loop)
        return false;
    PulseLock lock(m_loop.get());
    if (UsableLocked())
        return true;
    DisconnectLocked();
    m_context.reset(pa_context_new(pa_threaded_mainloop_get_api(m_loop.get()), "Larimo"));
    if (!m_context) {
        m_lastError = "no connection to the sound server could be made";
        return false;
    }
    pa_context_set_state_callback(
        m_context.get(),
        [](pa_context* context, void* userdata) {
            auto* self = static_cast<PulseContext*>(userdata);
            if (!PA_CONTEXT_IS_GOOD(pa_context_get_state(context)) && self->m_recorders)
                self->m_recorders->store(kRecordersUnknown, std::memory_order_release);
            Signal(self->m_loop.get());
        },
        this);
    pa_context_set_subscribe_callback(
        m_context.get(),
        [](pa_context*, pa_subscription_event_type_t type, uint32_t index, void* userdata) {
            auto* self = static_cast<PulseContext*>(userdata);
            const auto facility = static_cast<unsigned>(type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK);
            if (facility == PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT || facility == PA_SUBSCRIPTION_EVENT_SOURCE) {
                self->RecountLocked();
                if (facility == PA_SUBSCRIPTION_EVENT_SOURCE_OUTPUT)
                    return;
            }
            for (PulseEventListener* listener : self->m_listeners)
                listener->OnPulseEvent(type, index);
        },
        this);
    // Never start a sound server as a side effect: Larimo uses the one the session has.
    if (pa_context_connect(m_context.get(), nullptr, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        m_lastError = pa_strerror(pa_context_errno(m_context.get()));
        DisconnectLocked();
        return false;
    }
    for (;;) {
        const pa_context_state_t state = pa_context_get_state(m_context.get());
        if (state == PA_CONTEXT_READY)
            break;
        if (!PA_CONTEXT_IS_GOOD(state)) {
            m_lastError = pa_strerror(pa_context_errno(m_context.get()));
            DisconnectLocked();
            return false;
        }
        pa_threaded_mainloop_wait(m_loop.get());
    }
    const auto mask = static_cast<pa_subscription_mask_t>(PA_SUBSCRIPTION_MASK_SINK | PA_SUBSCRIPTION_MASK_SOURCE |
                                                          PA_SUBSCRIPTION_MASK_SOURCE_OUTPUT |
                                                          PA_SUBSCRIPTION_MASK_SERVER);
    PulseOperation(pa_context_subscribe(m_context.get(), mask, nullptr, nullptr));
    RecountLocked();
    m_lastError.clear();
    return true;
}

bool PulseContext::WaitLocked(const std::function<bool()>& done)
{
    while (!done()) {
        if (!UsableLocked())
            return done();
        pa_threaded_mainloop_wait(m_loop.get());
    }
    return true;
}

bool PulseContext::WaitStreamReadyLocked(pa_stream* stream)
{
    for (;;) {
        const pa_stream_state_t state = pa_stream_get_state(stream);
        if (state == PA_STREAM_READY)
            return true;
        if (!PA_STREAM_IS_GOOD(state) || !UsableLocked())
            return false;
        pa_threaded_mainloop_wait(m_loop.get());
    }
}

bool PulseContext::RunLocked(pa_operation* raw)
{
    PulseOperation operation(raw);
    if (!operation) {
        if (m_context)
            m_lastError = pa_strerror(pa_context_errno(m_context.get()));
        return false;
    }
    while (pa_operation_get_state(operation.get()) == PA_OPERATION_RUNNING) {
        if (!UsableLocked()) {
            pa_operation_cancel(operation.get());
            return false;
        }
        pa_threaded_mainloop_wait(m_loop.get());
    }
    return pa_operation_get_state(operation.get()) == PA_OPERATION_DONE;
}

bool PulseContext::ListSources(std::vector<PulseDevice>& sources)
{
    if (!Ensure())
        return false;
    PulseLock lock(m_loop.get());
    sources.clear();
    ListQuery query{m_loop.get(), &sources};
    return RunLocked(pa_context_get_source_info_list(m_context.get(), OnSourceInfo, &query));
}

bool PulseContext::ListSinks(std::vector<PulseDevice>& sinks)
{
    if (!Ensure())
        return false;
    PulseLock lock(m_loop.get());
    sinks.clear();
    ListQuery query{m_loop.get(), &sinks};
    return RunLocked(pa_context_get_sink_info_list(m_context.get(), OnSinkInfo, &query));
}

bool PulseContext::GetDefaults(PulseServerDefaults& defaults)
{
    if (!Ensure())
        return false;
    PulseLock lock(m_loop.get());
    struct Query {
        pa_threaded_mainloop* loop;
        PulseServerDefaults* defaults;
    } query{m_loop.get(), &defaults};
    return RunLocked(pa_context_get_server_info(
        m_context.get(),
        [](pa_context*, const pa_server_info* info, void* userdata) {
            auto* q = static_cast<Query*>(userdata);
            if (info != nullptr) {
                q->defaults->sink = info->default_sink_name != nullptr ? info->default_sink_name : "";
                q->defaults->source = info->default_source_name != nullptr ? info->default_source_name : "";
            }
            Signal(q->loop);
        },
        &query));
}

bool PulseContext::SetDefaultSource(const std::string& name)
{
    if (!Ensure())
        return false;
    PulseLock lock(m_loop.get());
    SuccessQuery query{m_loop.get()};
    return RunLocked(pa_context_set_default_source(m_context.get(), name.c_str(), OnSuccess, &query)) && query.success;
}

bool PulseContext::SetDefaultSink(const std::string& name)
{
    if (!Ensure())
        return false;
    PulseLock lock(m_loop.get());
    SuccessQuery query{m_loop.get()};
    return RunLocked(pa_context_set_default_sink(m_context.get(), name.c_str(), OnSuccess, &query)) && query.success;
}

bool PulseContext::SetSourcePort(const std::string& source, const std::string& port)
{
    if (!Ensure())
        return false;
    PulseLock lock(m_loop.get());
    SuccessQuery query{m_loop.get()};
    return RunLocked(pa_context_set_source_port_by_name(m_context.get(), source.c_str(), port.c_str(), OnSuccess,
                                                        &query)) &&
           query.success;
}

bool PulseContext::SetSourceVolume(const std::string& source, uint8_t channels, uint32_t volume)
{
    if (!Ensure() || channels == 0)
        return false;
    pa_cvolume cv;
    pa_cvolume_set(&cv, channels, static_cast<pa_volume_t>(volume));
    PulseLock lock(m_loop.get());
    SuccessQuery query{m_loop.get()};
    return RunLocked(pa_context_set_source_volume_by_name(m_context.get(), source.c_str(), &cv, OnSuccess, &query)) &&
           query.success;
}

bool PulseContext::SetSinkVolume(const std::string& sink, uint8_t channels, uint32_t volume)
{
    if (!Ensure() || channels == 0)
        return false;
    pa_cvolume cv;
    pa_cvolume_set(&cv, channels, static_cast<pa_volume_t>(volume));
    PulseLock lock(m_loop.get());
    SuccessQuery query{m_loop.get()};
    return RunLocked(pa_context_set_sink_volume_by_name(m_context.get(), sink.c_str(), &cv, OnSuccess, &query)) &&
           query.success;
}

bool PulseContext::LoadModule(const std::string& name, const std::string& arguments, uint32_t& index)
{
    if (!Ensure())
        return false;
    PulseLock lock(m_loop.get());
    struct Query {
        pa_threaded_mainloop* loop;
        uint32_t index = PA_INVALID_INDEX;
    } query{m_loop.get()};
    const bool ran = RunLocked(pa_context_load_module(
        m_context.get(), name.c_str(), arguments.c_str(),
        [](pa_context*, uint32_t moduleIndex, void* userdata) {
            auto* q = static_cast<Query*>(userdata);
            q->index = moduleIndex;
            Signal(q->loop);
        },
        &query));
    index = query.index;
    if (!ran || index == PA_INVALID_INDEX) {
        m_lastError = "the sound server refused to load " + name + ": " + pa_strerror(pa_context_errno(m_context.get()));
        return false;
    }
    return true;
}

bool PulseContext::ListSourceOutputs(std::vector<PulseSourceOutput>& outputs)
{
    if (!Ensure())
        return false;
    PulseLock lock(m_loop.get());
    outputs.clear();
    struct Query {
        pa_threaded_mainloop* loop;
        std::vector<PulseSourceOutput>* outputs;
    } query{m_loop.get(), &outputs};
    return RunLocked(pa_context_get_source_output_info_list(
        m_context.get(),
        [](pa_context*, const pa_source_output_info* info, int eol, void* userdata) {
            auto* q = static_cast<Query*>(userdata);
            if (eol == 0 && info != nullptr)
                q->outputs->push_back(PulseSourceOutput{info->index, info->source, info->corked != 0});
            if (eol != 0)
                Signal(q->loop);
        },
        &query));
}

std::shared_ptr<const std::atomic<int32_t>> PulseContext::WatchRecorders(const std::string& source)
{
    if (!m_loop)
        return nullptr;
    {
        PulseLock lock(m_loop.get());
        if (!m_recorders)
            m_recorders = std::make_shared<std::atomic<int32_t>>(kRecordersUnknown);
        if (m_watchedSource != source) {
            m_watchedSource = source;
            RecountLocked();
        }
    }
    Ensure();
    PulseLock lock(m_loop.get());
    return m_recorders;
}

void PulseContext::RecountLocked()
{
    if (!m_recorders || m_watchedSource.empty() || !UsableLocked())
        return;
    if (m_recounting) {
        m_recountAgain = true;
        return;
    }
    m_recounting = true;
    m_recountAgain = false;
    m_watchedIndex = PA_INVALID_INDEX;
    m_counted = 0;
    PulseOperation operation(pa_context_get_source_info_by_name(
        m_context.get(), m_watchedSource.c_str(),
        [](pa_context*, const pa_source_info* info, int eol, void* self) {
            static_cast<PulseContext*>(self)->OnWatchedSourceLocked(info, eol);
        },
        this));
    if (!operation)
        m_recounting = false;
}

void PulseContext::OnWatchedSourceLocked(const pa_source_info* info, int eol)
{
    if (eol == 0) {
        if (info != nullptr)
            m_watchedIndex = info->index;
        return;
    }
    // A source that does not exist (eol < 0) has nobody recording from it.
    if (m_watchedIndex == PA_INVALID_INDEX) {
        OnSourceOutputLocked(nullptr, 1);
        return;
    }
    PulseOperation operation(pa_context_get_source_output_info_list(
        m_context.get(),
        [](pa_context*, const pa_source_output_info* output, int end, void* self) {
            static_cast<PulseContext*>(self)->OnSourceOutputLocked(output, end);
        },
        this));
    if (!operation)
        OnSourceOutputLocked(nullptr, -1);
}

void PulseContext::OnSourceOutputLocked(const pa_source_output_info* info, int eol)
{
    if (eol == 0) {
        if (info != nullptr && info->source == m_watchedIndex && info->corked == 0)
            ++m_counted;
        return;
    }
    m_recorders->store(eol > 0 ? m_counted : kRecordersUnknown, std::memory_order_release);
    m_recounting = false;
    if (m_recountAgain)
        RecountLocked();
}

void PulseContext::AddListener(PulseEventListener* listener)
{
    if (!m_loop)
        return;
    PulseLock lock(m_loop.get());
    m_listeners.push_back(listener);
}

void PulseContext::RemoveListener(PulseEventListener* listener)
{
    if (!m_loop)
        return;
    PulseLock lock(m_loop.get());
    std::erase(m_listeners, listener);
}

} // namespace larimo
