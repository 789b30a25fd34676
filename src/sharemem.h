// SPDX-License-Identifier: GPL-3.0-or-later
// A named shared-memory view with its companion lock mutex (the mapping's name + "lock").
// The voice service creates both; the panel and larimoctl open them.
#pragma once

#include "platform/NamedObjects.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace larimo {

/// Results of ShareMem operations. WriteAt and ReadAt throw them.
enum ShmErrorNum : int {
    kShmSuccess = 0,
    kShmCreateFile = 1,
    kShmOpenFile = 2,
    kShmMapping = 3,
    kShmNoFile = 4,
    kShmNoView = 5,
    kShmWriteFault = 6,
    kShmReadFault = 7,
    kShmEvent = 8,
};

/// Text of a ShmErrorNum; numbers outside the family give "Undefined error".
std::string ShmErrorText(int error);

/// Access asked of Open; only write access (read and write) exists here.
constexpr uint32_t kFileMapWrite = 2;

/// Not thread-safe by itself: one thread opens and closes it; reads and writes of several
/// threads are serialised by Lock/Unlock. Never used on the audio thread.
class ShareMem {
public:
    ShareMem() = default;
    ~ShareMem();
    ShareMem(const ShareMem&) = delete;
    ShareMem& operator=(const ShareMem&) = delete;

    /// Opens the named mapping and its lock; 0 or the ShmErrorNum of the failure.
    int Open(const std::string& name, uint32_t access);
    /// Creates the mapping (zero-filled, `size` bytes) and its lock: the service's side.
    int Create(const std::string& name, size_t size);
    /// Unmaps and closes everything; always 0. Safe to call repeatedly.
    int Close();

    /// Waits at most 2000 ms for the lock; true when obtained (also from an owner that died).
    bool Lock();
    void Unlock();

    /// Copy into / out of the view. Throw kShmNoView without a view, kShmWriteFault /
    /// kShmReadFault (after an Error record) when the range passes the end of the mapping.
    void WriteAt(const void* bytes, size_t count, size_t offset);
    void ReadAt(void* bytes, size_t count, size_t offset) const;

    bool IsOpen() const { return m_view != nullptr; }
    size_t Size() const { return m_size; }
    uint8_t* View() const { return m_view; }

private:
    static constexpr uint32_t kLockTimeoutMs = 2000;

    ObjHandle m_mapping = 0;
    ObjHandle m_lock = 0;
    uint32_t m_reserved[2] = {0, 0};
    uint8_t* m_view = nullptr;
    size_t m_size = 0;
};

} // namespace larimo
