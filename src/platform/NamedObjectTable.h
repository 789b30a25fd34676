// SPDX-License-Identifier: GPL-3.0-or-later
// The per-user shared segment behind NamedObjects.h: one table of every named object of the
// user, its state and which processes hold it, guarded by one robust process-shared mutex.
// Internal to the named-object layer; other code uses NamedObjects.h.
#pragma once

#include <pthread.h>
#include <sys/types.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace larimo {

enum class ObjectKind : uint32_t {
    Free = 0,
    Mutex = 1,
    Event = 2,
    Mapping = 3,
};

constexpr uint32_t kMaxNamedObjects = 1024;
constexpr uint32_t kMaxObjectProcesses = 128;
// 259 UTF-16 units take at most 3 bytes each in UTF-8.
constexpr uint32_t kMaxObjectNameUnits = 259;
constexpr uint32_t kMaxObjectNameBytes = kMaxObjectNameUnits * 3 + 1;
constexpr uint32_t kNoProcess = 0xFFFFFFFF;

/// The state of one object. Every field is read and written only under the table lock.
struct ObjectSlot {
    uint32_t kind;
    uint32_t generation;      // raised on every reuse of the slot, so stale handles fail
    uint32_t nameHash;
    uint32_t nameLength;      // bytes; 0 for an unnamed object
    uint32_t totalRefs;       // sum of the row in SharedObjectTable::refs
    uint32_t recursion;       // mutex: levels held by the owner; 0 = free
    int32_t ownerPid;
    int32_t ownerTid;
    uint64_t ownerStart;      // start time of the owner thread, against tid reuse
    uint32_t abandoned;       // mutex: the owner ended while holding it
    uint32_t manualReset;     // event
    uint32_t signalled;       // event
    uint32_t reserved;
    uint64_t mappingSize;     // mapping: bytes in its data file
};

struct ProcessSlot {
    int32_t pid;
    uint32_t inUse;
    uint64_t startTime;
    uint32_t sleepers;        // its threads now asleep in SleepForChange
    uint32_t reserved;
};

struct SharedObjectTable {
    uint32_t magic;
    uint32_t layoutVersion;
    uint64_t tableSize;
    pthread_mutex_t lock;
    // Raised and futex-woken on every change a waiter could be waiting for. Waiters sleep on
    // it with the lock released, so a waiter that dies leaves nothing behind (a process-shared
    // condition variable would keep a dead waiter's group reference and block broadcasts).
    uint32_t changeSequence;
    uint32_t sleepers;        // sum of ProcessSlot::sleepers, so a dead process's go with it
    ProcessSlot processes[kMaxObjectProcesses];
    ObjectSlot objects[kMaxNamedObjects];
    char names[kMaxNamedObjects][kMaxObjectNameBytes];
    uint32_t refs[kMaxNamedObjects][kMaxObjectProcesses];
};

/// Ids of the calling process and thread, cached (and refreshed in a forked child) because
/// every operation needs them and a system call is costly in some sandboxes.
pid_t NamedObjectPid();
pid_t NamedObjectTid();

/// Start time of a task in clock ticks since boot, or 0 when it no longer runs (gone, zombie).
/// `tid` 0 asks for the process `pid` as a whole.
uint64_t TaskStartTime(pid_t pid, pid_t tid);

/// The process-wide connection to the user's table. Any thread; the table is opened on first use.
class NamedObjectTable {
public:
    /// The table, or null with `*error` set when it cannot be opened or created.
    static NamedObjectTable* Get(uint32_t* error);

    /// Holds the table lock; repairs the table when the previous holder died inside.
    class Lock {
    public:
        explicit Lock(NamedObjectTable& table);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;
        bool Held() const { return m_held; }
        /// Releases the lock while sleeping until a change or `timeoutNs` passes.
        void SleepForChange(int64_t timeoutNs);

    private:
        bool Acquire();
        NamedObjectTable& m_table;
        bool m_held = false;
    };

    SharedObjectTable& Shared() { return *m_shared; }

    /// This process's slot, registering it on first use (under the lock); kNoProcess if full.
    uint32_t OwnProcess();

    /// Index of the live object called `name`, or -1. Holders that died are pruned first, so a
    /// name whose every holder is gone is free again.
    int FindByName(std::string_view name);

    /// Takes a free slot for a new object and names it; -1 when the table is full.
    int Allocate(ObjectKind kind, std::string_view name);

    void AddRef(uint32_t object, uint32_t process);
    /// Drops one reference of `process`; the object is freed with its last reference.
    void DropRef(uint32_t object, uint32_t process);

    /// Drops every reference of a process that ended and abandons the mutexes it owned.
    void ReleaseProcess(uint32_t process);
    /// Releases every process that no longer runs; returns how many.
    uint32_t PruneDeadProcesses();

    /// Whether the owner of a mutex slot is still running.
    static bool OwnerAlive(const ObjectSlot& slot);
    /// Marks mutexes owned by the given thread abandoned and frees them.
    void AbandonOwnedBy(pid_t pid, pid_t tid);

    /// Records a change every waiter should look at; they are woken when the lock is left.
    void NotifyChange();

    /// Path of the data file of a mapping slot.
    std::string MappingPath(uint32_t object) const;

private:
    NamedObjectTable(SharedObjectTable* shared, std::string folder);
    void Repair();
    void FreeObject(uint32_t object);

    SharedObjectTable* m_shared;
    std::string m_folder;     // where the table and the mapping files are
    uint32_t m_process = kNoProcess;
    pid_t m_processPid = 0;
};

/// The object namespace LARIMO_OBJECT_NAMESPACE names, or "" for the user's own objects (also
/// when the name is not plain letters, digits and underscores of at most 32).
std::string NamedObjectNamespace();

/// The folders, best first, that may hold the calling user's objects outside any namespace.
std::vector<std::string> NamedObjectBaseCandidates(uid_t user);

/// The folder of the calling user's table and mapping files (in the current namespace), made
/// if missing; "" when no folder that only the user controls can be had.
std::string NamedObjectFolder();

/// The file of the calling user's table; "" as NamedObjectFolder.
std::string NamedObjectTablePath();

} // namespace larimo
