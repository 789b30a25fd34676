// SPDX-License-Identifier: GPL-3.0-or-later
#include "ipc.h"

#include "mlog.h"
#include "wintools.h"
#include "server/moipc_cmds.h"

#include <unistd.h>

#include <array>
#include <cstring>

namespace larimo {

IPC::IPC(const std::string& baseName)
    : m_workName(baseName + "work")
    , m_requestName(baseName + "req")
    , m_answerName(baseName + "answ")
    , m_memName(baseName + "mem")
    , m_messageName(baseName + "msg")
{
}

IPC::~IPC()
{
    Close();
}

bool IPC::Open()
{
    LogEnter("IPC::Open");
    Close();
    m_isWork = OpenNamedMutex(m_workName);
    m_request = OpenNamedEvent(m_requestName);
    m_answer = OpenNamedEvent(m_answerName);
    const int shmError = ShareMem::Open(m_memName, kFileMapWrite);

    bool opened = m_isWork != 0 && m_request != 0 && m_answer != 0 && shmError == kShmSuccess;
    // Another version's message area has another size: its frames are not ours to read.
    if (opened && Size() != kIpcMappingSize) {
        LogError("The service's shared memory holds %zu bytes, not %zu: it belongs to another version.", Size(),
                 kIpcMappingSize);
        opened = false;
    }
    if (opened) {
        SetPointers();
    } else {
        LogError("Open ipc connection.");
        LogInfo("%s(): hIsWork=%u, hReq=%u, hAnsw=%u, shmerror=%d", "IPC::Open", m_isWork, m_request,
                m_answer, shmError);
        Close();
    }
    LogLeaveResult("IPC::Open", opened);
    return opened;
}

void IPC::Close()
{
    LogInfo("IPC::Close");
    for (ObjHandle* handle : {&m_request, &m_answer, &m_isWork, &m_message}) {
        if (*handle != 0)
            CloseObject(*handle);
        *handle = 0;
    }
    ShareMem::Close();
    m_bound = false;
    m_dataOffset = 0;
    m_readPos = 0;
    m_writePos = 0;
}

void IPC::SetPointers()
{
    m_bound = true;
    m_dataOffset = kIpcDataOffset;
    ResetData();
}

void IPC::ResetData()
{
    if (!IsOpen())
        return;
    SetSizeWord(0);
    m_readPos = 0;
    m_writePos = 0;
}

uint32_t IPC::SizeWord() const
{
    uint32_t size = 0;
    ReadAt(&size, sizeof size, kIpcSizeWordOffset);
    return size;
}

size_t IPC::Remaining() const
{
    const size_t size = SizeWord();
    return size > m_readPos ? size - m_readPos : 0;
}

void IPC::SetSizeWord(uint32_t size)
{
    WriteAt(&size, sizeof size, kIpcSizeWordOffset);
}

void IPC::Write(const void* bytes, size_t count)
{
    if (!m_bound)
        throw kShmNoView;
    WriteAt(bytes, count, m_dataOffset + m_writePos);
    m_writePos += count;
    if (m_writePos > SizeWord())
        SetSizeWord(static_cast<uint32_t>(m_writePos));
}

void IPC::WriteString(const std::string& text)
{
    std::u16string wide = Utf8ToUtf16(text);
    wide.push_back(u'\0');
    // The wire is little-endian, as is every machine this runs on.
    Write(wide.data(), wide.size() * sizeof(char16_t));
}

void IPC::Read(void* bytes, size_t count, size_t* got)
{
    if (!m_bound)
        throw kShmNoView;
    const size_t size = SizeWord();
    const size_t left = size > m_readPos ? size - m_readPos : 0;
    const size_t n = count < left ? count : left;
    ReadAt(bytes, n, m_dataOffset + m_readPos);
    m_readPos += n;
    if (got != nullptr)
        *got = n;
}

void IPC::ReadString(std::string& text)
{
    if (!m_bound)
        throw kShmNoView;
    const size_t size = SizeWord();
    const size_t left = size > m_readPos ? size - m_readPos : 0;
    // Never measure past the size word or the mapping, whatever the service wrote.
    size_t available = left;
    if (m_dataOffset + m_readPos + available > Size())
        available = Size() > m_dataOffset + m_readPos ? Size() - m_dataOffset - m_readPos : 0;
    const uint8_t* start = View() + m_dataOffset + m_readPos;
    size_t units = 0;
    while ((units + 1) * 2 <= available) {
        char16_t unit = 0;
        std::memcpy(&unit, start + units * 2, 2);
        if (unit == 0)
            break;
        ++units;
    }
    const size_t bytes = std::min(units * 2 + 2, left);
    std::u16string wide(units, u'\0');
    ReadAt(wide.data(), units * 2, m_dataOffset + m_readPos);
    m_readPos += bytes;
    text = Utf16ToUtf8(wide);
}

bool IPC::SendMessageW(uint32_t code)
{
    LogEnter("IPC::SendMessageW", "%u", code);
    m_message = CreateNamedMutex(m_messageName, true);
    if (m_message != 0 && LastObjectError() == kErrorAlreadyExists) {
        // Another sender holds the channel. One that was stopped in the middle of a command
        // (Ctrl+Z on larimoctl) still counts as alive: waiting for it without a limit would
        // hang this thread, so after the command time-out the send fails as to a dead service.
        const uint32_t wait = WaitForObject(m_message, kIpcTimeoutMs);
        if (wait != kWaitObject0 && wait != kWaitAbandoned0) {
            LogError("SendMessage ipc error: the message channel stayed busy for %u ms", kIpcTimeoutMs);
            CloseObject(m_message);
            m_message = 0;
            Unlock();
            LogLeaveResult("IPC::SendMessageW", false);
            return false;
        }
    }

    ResetNamedEvent(m_answer);

    std::array<uint8_t, kIpcHeaderSize> header{};
    const uint32_t pid = static_cast<uint32_t>(getpid());
    std::memcpy(header.data() + kIpcPidOffset, &pid, sizeof pid);
    std::memcpy(header.data() + kIpcCommandOffset, &code, sizeof code);
    WriteAt(header.data(), header.size(), 0);

    SetNamedEvent(m_request);

    const ObjHandle waitSet[2] = {m_answer, m_isWork};
    const uint32_t wait = WaitForAnyObject(waitSet, 2, kIpcTimeoutMs);
    const bool answered = wait == kWaitObject0;
    if (!answered) {
        LogError("SendMessage ipc error.");
        LogInfo("%s(): hIsWork=%u, hReq=%u, hAnsw=%u", "IPC::SendMessageW", m_isWork, m_request, m_answer);
        // The wait made this thread the owner of the dead service's mutex; give it back so a
        // restarted service can take it.
        if (wait == kWaitObject0 + 1 || wait == kWaitAbandoned0 + 1)
            ReleaseNamedMutex(m_isWork);
        Unlock();
    }

    if (m_message != 0) {
        ReleaseNamedMutex(m_message);
        CloseObject(m_message);
    }
    m_message = 0;
    LogLeaveResult("IPC::SendMessageW", answered);
    return answered;
}

} // namespace larimo
