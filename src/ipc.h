// SPDX-License-Identifier: GPL-3.0-or-later
// The client side of the link to the voice service: one shared-memory frame, a request and an
// answer event, the service's is-work mutex, and a message mutex that serialises whole
// exchanges among all clients of the user.
#pragma once

#include "sharemem.h"

#include <cstddef>
#include <cstdint>
#include <string>

namespace larimo {

/// One connection. The usual order for one command: Lock, ResetData, Write/WriteString,
/// SendMessageW, Read/ReadString when it succeeded, Unlock. Writes and reads throw
/// ShmErrorNum when the frame would pass the end of the mapping. One thread at a time uses
/// an object; several objects (threads, processes) are serialised by the named objects.
class IPC : public ShareMem {
public:
    explicit IPC(const std::string& baseName);
    ~IPC();
    IPC(const IPC&) = delete;
    IPC& operator=(const IPC&) = delete;

    /// Opens every object the service created; true when all are open.
    bool Open();
    /// Closes everything; safe to call repeatedly.
    void Close();
    /// Binds the frame after a successful open and empties the payload.
    void SetPointers();
    /// Size word, read and write positions to 0.
    void ResetData();

    void Write(const void* bytes, size_t count);
    /// Writes the text as UTF-16LE with its terminating zero (2 × length + 2 bytes).
    void WriteString(const std::string& text);
    /// Copies at most what the size word leaves from the read position; the count copied goes
    /// to `got` when given.
    void Read(void* bytes, size_t count, size_t* got = nullptr);
    /// Reads the zero-terminated UTF-16 text at the read position (cut at the size word).
    void ReadString(std::string& text);

    /// One exchange: true when the service answered within 2000 ms.
    bool SendMessageW(uint32_t code);

    uint32_t SizeWord() const;
    /// Bytes of the answer not read yet.
    size_t Remaining() const;
    const std::string& WorkName() const { return m_workName; }

private:
    void SetSizeWord(uint32_t size);

    ObjHandle m_request = 0;
    ObjHandle m_answer = 0;
    ObjHandle m_isWork = 0;
    ObjHandle m_message = 0;
    std::string m_workName;
    std::string m_requestName;
    std::string m_answerName;
    std::string m_memName;
    std::string m_messageName;
    bool m_bound = false;
    size_t m_dataOffset = 0;
    size_t m_readPos = 0;
    size_t m_writePos = 0;
};

} // namespace larimo
