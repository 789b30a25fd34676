// SPDX-License-Identifier: GPL-3.0-or-later
#include "LarimoServer.h"

#include "mlog.h"
#include "moipc_cmds.h"

#include <cstring>

namespace larimo {

namespace {

// How long a request for errors waits for the pipeline to finish what it is loading: well
// within the time a client waits for its answer, so the texts the answer carries reach it.
constexpr uint32_t kErrorsWaitMs = kIpcTimeoutMs / 4;

// Creates a mutex owned by the calling thread. If a client still holds a handle, the mutex
// exists already; it is then free (its old owner ended) and is taken over by a wait.
ObjHandle CreateOwnedMutex(const std::string& name)
{
    const ObjHandle mutex = CreateNamedMutex(name, true);
    if (mutex == 0 || LastObjectError() != kErrorAlreadyExists)
        return mutex;
    const uint32_t wait = WaitForObject(mutex, kIpcTimeoutMs);
    if (wait == kWaitObject0 || wait == kWaitAbandoned0)
        return mutex;
    CloseObject(mutex);
    return 0;
}

} // namespace

LarimoServer::LarimoServer(Options options, StateSink* sink)
    : m_options(std::move(options))
    , m_sink(sink)
{
    m_quit = CreateNamedEvent("", true, false);
    m_news = CreateNamedEvent("", false, false);
}

LarimoServer::~LarimoServer()
{
    ReleaseObjects();
    CloseObject(m_quit);
    CloseObject(m_news);
}

bool LarimoServer::CreateObjects()
{
    LogEnter("LarimoServer::CreateObjects");
    bool created = false;
    const std::string ipc = m_options.ipcBase;
    m_ipcWork = CreateOwnedMutex(ipc + "work");
    m_request = CreateNamedEvent(ipc + "req", false, false);
    m_answer = CreateNamedEvent(ipc + "answ", false, false);
    // A panel that still holds the events keeps them, set or not. A request set while no
    // service ran was answered as to a dead service, and its frame may be half rewritten by
    // the client's next command by now: serving it would read a mixed frame.
    if (m_request != 0)
        ResetNamedEvent(m_request);
    m_emoticEvent = CreateNamedEvent(kEmoticEventName, false, false);
    m_osciEvent = CreateNamedEvent(kOsciEventName, false, false);
    const int trace = m_trace.Create(kOsciMemName, kOsciMappingSize);
    // Clients take the open mapping as the sign that the service is there, and the panel's
    // observer the running-state mutex: both come last, so neither sees a service whose other
    // objects are still missing. A request set from then on waits in its event until the loop
    // runs.
    const int memory = m_memory.Create(ipc + "mem", kIpcMappingSize);
    m_servIsWork = CreateOwnedMutex(m_options.stateBase + kServIsWorkSuffix);
    if (m_ipcWork == 0 || m_servIsWork == 0 || m_request == 0 || m_answer == 0 || m_emoticEvent == 0 ||
        m_osciEvent == 0 || memory != kShmSuccess || trace != kShmSuccess) {
        LogError("Cannot create the service's objects: work=%u, isWork=%u, req=%u, answ=%u, emotic=%u, "
                 "osci=%u, mem=%d, trace=%d, last error %u",
                 m_ipcWork, m_servIsWork, m_request, m_answer, m_emoticEvent, m_osciEvent, memory, trace,
                 LastObjectError());
    } else {
        created = true;
    }
    LogLeaveResult("LarimoServer::CreateObjects", created);
    return created;
}

void LarimoServer::ReleaseObjects()
{
    for (ObjHandle* mutex : {&m_servIsWork, &m_ipcWork, &m_instance}) {
        if (*mutex != 0) {
            ReleaseNamedMutex(*mutex);
            CloseObject(*mutex);
        }
        *mutex = 0;
    }
    for (ObjHandle* event : {&m_request, &m_answer, &m_emoticEvent, &m_osciEvent}) {
        if (*event != 0)
            CloseObject(*event);
        *event = 0;
    }
    m_memory.Close();
    std::lock_guard lock(m_traceLock);
    m_trace.Close();
}

int LarimoServer::Run()
{
    LogEnter("LarimoServer::Run", "%s", m_options.dataRoot.c_str());
    m_instance = CreateNamedMutex(kServiceInstanceName, true);
    if (m_instance != 0 && LastObjectError() == kErrorAlreadyExists) {
        const uint32_t wait = WaitForObject(m_instance, 0);
        if (wait != kWaitObject0 && wait != kWaitAbandoned0) {
            CloseObject(m_instance);
            m_instance = 0;
            LogError("LarimoServer is already running.");
            LogLeaveResult("LarimoServer::Run", static_cast<int>(kExitAlreadyRunning));
            return kExitAlreadyRunning;
        }
    }

    const std::string root = m_options.dataRoot;
    m_dispatcher = std::make_unique<CommandDispatcher>([root] { return LoadServiceState(root); },
                                                       kIpcMappingSize - kIpcDataOffset);
    if (m_instance == 0 || !CreateObjects()) {
        ReleaseObjects();
        LogLeaveResult("LarimoServer::Run", static_cast<int>(kExitObjectsFailed));
        return kExitObjectsFailed;
    }
    Publish();

    // Tell a panel that is already watching.
    if (const ObjHandle run = OpenNamedEvent(m_options.stateBase + kServRunSuffix); run != 0) {
        SetNamedEvent(run);
        CloseObject(run);
    }
    LogInfo("LarimoServer::Run(): serving");

    const ObjHandle waitSet[3] = {m_quit, m_request, m_news};
    for (;;) {
        const uint32_t wait = WaitForAnyObject(waitSet, 3, kInfinite);
        if (wait == kWaitObject0 + 1)
            ServeRequest();
        else if (wait == kWaitObject0 + 2)
            TakePipelineNews();
        else
            break;
    }

    ReleaseObjects();
    LogLeaveResult("LarimoServer::Run", static_cast<int>(kExitOk));
    return kExitOk;
}

void LarimoServer::Quit()
{
    SetNamedEvent(m_quit);
}

void LarimoServer::ServeRequest()
{
    uint8_t* view = m_memory.View();
    const size_t capacity = m_memory.Size() - kIpcDataOffset;
    uint32_t code = 0;
    uint32_t size = 0;
    std::memcpy(&code, view + kIpcCommandOffset, 4);
    std::memcpy(&size, view + kIpcSizeWordOffset, 4);
    // One line per command: what the service was asked, in order, is what support needs first.
    LogInfo("Request %u, %u bytes", code, size);

    CommandDispatcher::Result result;
    if (size > capacity) {
        LogError("Rejected command %u: size word %u passes the data area", code, size);
        m_dispatcher->AddError("The voice service rejected a malformed command (" + std::to_string(code) +
                               "): its size passes the message area");
        result.valid = false;
    } else {
        if (code == kCmdSrvGetErrors && m_sink != nullptr) {
            // Effects and sounds load on the pipeline's own thread. Asked for errors right after
            // choosing a broken plug-in, the panel must hear of it now, not at its next question.
            if (!m_sink->WaitApplied(kErrorsWaitMs))
                LogWarning("The audio pipeline is still loading; errors may follow later");
            TakePipelineNews();
        }
        // Copy first: the payload and the answer share the data area.
        const std::vector<uint8_t> payload(view + kIpcDataOffset, view + kIpcDataOffset + size);
        result = m_dispatcher->Handle(code, payload);
    }

    const uint32_t answerSize = static_cast<uint32_t>(result.answer.size());
    if (answerSize > 0)
        std::memcpy(view + kIpcDataOffset, result.answer.data(), answerSize);
    std::memcpy(view + kIpcSizeWordOffset, &answerSize, 4);
    SetNamedEvent(m_answer);

    if (result.stateChanged)
        Publish();
    if (result.funSoundsChanged)
        SetNamedEvent(m_emoticEvent);
}

void LarimoServer::Publish()
{
    if (m_sink != nullptr)
        m_sink->Apply(std::make_shared<const ServiceState>(m_dispatcher->State()));
}

void LarimoServer::FunSoundEnded(size_t slot, uint32_t starts)
{
    {
        std::lock_guard lock(m_newsLock);
        m_endedSounds.emplace_back(slot, starts);
    }
    SetNamedEvent(m_news);
}

void LarimoServer::ReportError(std::string text)
{
    {
        std::lock_guard lock(m_newsLock);
        m_newErrors.push_back(std::move(text));
    }
    SetNamedEvent(m_news);
}

void LarimoServer::TakePipelineNews()
{
    std::vector<std::pair<size_t, uint32_t>> ended;
    std::vector<std::string> errors;
    {
        std::lock_guard lock(m_newsLock);
        ended.swap(m_endedSounds);
        errors.swap(m_newErrors);
    }
    for (std::string& error : errors)
        m_dispatcher->AddError(std::move(error));
    bool changed = false;
    for (const auto& [slot, starts] : ended)
        changed |= m_dispatcher->FunSoundEnded(slot, starts);
    if (changed) {
        Publish();
        SetNamedEvent(m_emoticEvent);
    }
}

void LarimoServer::PublishTrace(const int16_t* samples, size_t count)
{
    std::lock_guard lock(m_traceLock);
    if (!m_trace.IsOpen() || !m_trace.Lock())
        return;
    const uint32_t bytes = static_cast<uint32_t>(std::min(count * 2, m_trace.Size() - 4));
    m_trace.WriteAt(&bytes, 4, 0);
    m_trace.WriteAt(samples, bytes, 4);
    m_trace.Unlock();
    SetNamedEvent(m_osciEvent);
}

} // namespace larimo
