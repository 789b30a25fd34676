// SPDX-License-Identifier: GPL-3.0-or-later
// Named synchronisation objects shared between the processes of one user: mutexes with
// ownership, recursion and abandonment, auto- and manual-reset events, and shared memory
// mappings, all found by a text name ("Global\MOS_ipcwork"), plus waits on one or several
// of them.
//
// Every function may be called from any thread except the real-time audio thread (waits
// block, and creating or opening touches the file system). Handles are per process and may be
// used by every thread of it; a handle must not be used after it was closed. Names are kept
// exactly as given; each user has a namespace of its own that no other user can open. An empty
// name makes an unnamed object that only the creating process can reach (through its handle).
// A process that ends or dies releases all its handles; a mutex it owned is then abandoned.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace larimo {

/// A process-local handle; 0 means no object. Small numbers, printable with %u.
using ObjHandle = uint32_t;

constexpr uint32_t kInfinite = 0xFFFFFFFF;

constexpr uint32_t kWaitObject0 = 0;
constexpr uint32_t kWaitAbandoned0 = 0x80;
constexpr uint32_t kWaitTimeout = 258;
constexpr uint32_t kWaitFailed = 0xFFFFFFFF;

constexpr uint32_t kErrorSuccess = 0;
constexpr uint32_t kErrorFileNotFound = 2;
constexpr uint32_t kErrorAccessDenied = 5;
constexpr uint32_t kErrorInvalidHandle = 6;
constexpr uint32_t kErrorNotOwner = 288;
constexpr uint32_t kErrorAlreadyExists = 183;
constexpr uint32_t kErrorInvalidParameter = 87;
constexpr uint32_t kErrorNoSystemResources = 1450; // object, handle or process table full

/// Creates the named mutex, owned by the calling thread when `initialOwner` is set. If a mutex
/// of that name already exists, returns a handle to it without taking ownership and sets the
/// last error to kErrorAlreadyExists; otherwise sets kErrorSuccess. Returns 0 on failure (the
/// name belongs to an object of another kind, too many objects, no memory). Any thread.
ObjHandle CreateNamedMutex(const std::string& name, bool initialOwner);

/// Opens an existing named mutex; 0 and kErrorFileNotFound when there is none. Any thread.
ObjHandle OpenNamedMutex(const std::string& name);

/// Releases one level of ownership held by the calling thread; the mutex becomes free when the
/// count reaches zero. A thread that does not own it gets false and kErrorNotOwner. Any thread.
bool ReleaseNamedMutex(ObjHandle mutex);

/// Creates the named event (manual reset: stays set until reset and releases every waiter;
/// auto reset: one successful wait resets it). An existing event is opened instead, its state
/// unchanged, and the last error is kErrorAlreadyExists. Any thread.
ObjHandle CreateNamedEvent(const std::string& name, bool manualReset, bool initialState);

/// Opens an existing named event; 0 and kErrorFileNotFound when there is none. Any thread.
ObjHandle OpenNamedEvent(const std::string& name);

/// Sets the event. Any thread.
bool SetNamedEvent(ObjHandle event);

/// Resets the event. Any thread.
bool ResetNamedEvent(ObjHandle event);

/// Creates a zero-filled shared memory mapping of `size` bytes (at least 1). An existing
/// mapping is opened instead, keeping its size, and the last error is kErrorAlreadyExists.
/// Any thread.
ObjHandle CreateNamedMapping(const std::string& name, size_t size);

/// Opens an existing mapping; 0 and kErrorFileNotFound when there is none. Any thread.
ObjHandle OpenNamedMapping(const std::string& name);

/// Maps the whole mapping into this process, readable and writable; `*size` (if not null)
/// receives its real size so callers can refuse to go past it. Returns null on failure. The
/// view stays valid after the handle is closed, until UnmapNamedMapping. Any thread.
void* MapNamedMapping(ObjHandle mapping, size_t* size);

/// Unmaps a view returned by MapNamedMapping; false for anything else. Any thread.
bool UnmapNamedMapping(void* view);

/// Waits for one object: kWaitObject0 when signalled, kWaitAbandoned0 when a mutex was taken
/// over from an owner that ended without releasing it, kWaitTimeout, or kWaitFailed (bad handle,
/// a mapping). A successful wait on a mutex makes the calling thread its owner; on an
/// auto-reset event it resets the event. Any thread except the audio thread.
uint32_t WaitForObject(ObjHandle object, uint32_t timeoutMs);

/// Waits until any of `count` objects (1 to 64) is signalled and acts on the one with the
/// lowest index: returns kWaitObject0 + i or kWaitAbandoned0 + i, kWaitTimeout, or kWaitFailed
/// when an argument is bad. A mutex counts as signalled when it is free or already owned by the
/// calling thread. Any thread except the audio thread.
uint32_t WaitForAnyObject(const ObjHandle* objects, size_t count, uint32_t timeoutMs);

/// Closes a handle. The object goes when its last handle in any process is closed; a mutex
/// stays owned by its thread until released or until the thread ends. Any thread.
bool CloseObject(ObjHandle object);

/// The calling thread's last error, set by the functions above. Any thread.
uint32_t LastObjectError();

/// Sets the calling thread's last error. Any thread.
void SetLastObjectError(uint32_t error);

/// Removes the files of object namespace `name` (see LARIMO_OBJECT_NAMESPACE) of the calling
/// user and of every other user whose files this process may remove, and then the users'
/// object folders that are left empty. For tests, benchmarks and scripts that ran in a
/// namespace of their own; nothing of the namespace may be in use any more.
void RemoveNamedObjectNamespace(const std::string& name);

} // namespace larimo
