// SPDX-License-Identifier: GPL-3.0-or-later
#include "sharemem.h"

#include "mlog.h"
#include "StringTable.h"
#include "texts.h"

#include <cstring>

namespace larimo {

std::string ShmErrorText(int error)
{
    switch (error) {
    case kShmSuccess: {
        // Programs that never start the texts (the service, larimoctl) log the English word.
        const std::string& text = GetText(120);
        return text == kTextNotFound ? StringTableText(120) : text;
    }
    case kShmCreateFile:
        return "Error of create shared memory file";
    case kShmOpenFile:
        return "Error of open shared memory file";
    case kShmMapping:
        return "Error of file maping";
    case kShmNoFile:
        return "Error of open maping file. File no exists";
    case kShmNoView:
        return "Error of read/write maping file\nMemory not allocated!";
    case kShmWriteFault:
        return "Access violation writing location\nmemory page is accessible only for reading";
    case kShmReadFault:
        return "Access violation reading location\nmemory page is accessible only for reading";
    case kShmEvent:
        return "Error of crate or open event";
    default:
        return GetText(141);
    }
}

ShareMem::~ShareMem()
{
    Close();
}

int ShareMem::Open(const std::string& name, uint32_t access)
{
    LogEnter("ShareMem::Open", "\"%s\", access=%u", name.c_str(), access);
    Close();
    int result = kShmSuccess;
    m_mapping = OpenNamedMapping(name);
    if (m_mapping == 0) {
        result = LastObjectError() == kErrorFileNotFound ? kShmNoFile : kShmOpenFile;
    } else {
        m_view = static_cast<uint8_t*>(MapNamedMapping(m_mapping, &m_size));
        if (m_view == nullptr) {
            result = kShmMapping;
        } else {
            m_lock = OpenNamedMutex(name + "lock");
            if (m_lock == 0)
                result = kShmEvent;
        }
    }
    if (result != kShmSuccess)
        Close();
    LogLeaveResult("ShareMem::Open", ShmErrorText(result));
    return result;
}

int ShareMem::Create(const std::string& name, size_t size)
{
    LogEnter("ShareMem::Create", "\"%s\", size=%zu", name.c_str(), size);
    Close();
    int result = kShmSuccess;
    m_mapping = CreateNamedMapping(name, size);
    if (m_mapping == 0) {
        result = kShmCreateFile;
    } else {
        m_view = static_cast<uint8_t*>(MapNamedMapping(m_mapping, &m_size));
        if (m_view == nullptr) {
            result = kShmMapping;
        } else if (m_size != size) {
            // A mapping of that name that someone still holds, left by another version: it is
            // refused rather than used with a layout it was not made for.
            LogError("ShareMem::Create: \"%s\" exists with %zu bytes, not %zu", name.c_str(), m_size, size);
            result = kShmMapping;
        } else {
            m_lock = CreateNamedMutex(name + "lock", false);
            if (m_lock == 0)
                result = kShmEvent;
        }
    }
    if (result != kShmSuccess)
        Close();
    LogLeaveResult("ShareMem::Create", ShmErrorText(result));
    return result;
}

int ShareMem::Close()
{
    if (m_view != nullptr)
        UnmapNamedMapping(m_view);
    if (m_mapping != 0)
        CloseObject(m_mapping);
    if (m_lock != 0)
        CloseObject(m_lock);
    m_view = nullptr;
    m_size = 0;
    m_mapping = 0;
    m_lock = 0;
    m_reserved[0] = m_reserved[1] = 0;
    return kShmSuccess;
}

bool ShareMem::Lock()
{
    const uint32_t wait = WaitForObject(m_lock, kLockTimeoutMs);
    return wait == kWaitObject0 || wait == kWaitAbandoned0;
}

void ShareMem::Unlock()
{
    ReleaseNamedMutex(m_lock);
}

void ShareMem::WriteAt(const void* bytes, size_t count, size_t offset)
{
    if (m_view == nullptr)
        throw kShmNoView;
    if (offset > m_size || count > m_size - offset) {
        LogError("%s", ShmErrorText(kShmWriteFault).c_str());
        throw kShmWriteFault;
    }
    if (count > 0)
        std::memcpy(m_view + offset, bytes, count);
}

void ShareMem::ReadAt(void* bytes, size_t count, size_t offset) const
{
    if (m_view == nullptr)
        throw kShmNoView;
    if (offset > m_size || count > m_size - offset) {
        LogError("%s", ShmErrorText(kShmReadFault).c_str());
        throw kShmReadFault;
    }
    if (count > 0)
        std::memcpy(bytes, m_view + offset, count);
}

} // namespace larimo
