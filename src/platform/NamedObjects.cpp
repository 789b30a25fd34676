// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/NamedObjects.h"

#include "platform/NamedObjectTable.h"
#include "platform/ProcessExitWatch.h"

#include <fcntl.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <ctime>
#include <filesystem>
#include <mutex>
#include <new>
#include <string_view>
#include <vector>

namespace larimo {
namespace {

constexpr size_t kMaxHandles = 4096;
constexpr size_t kMaxWaitObjects = 64;
constexpr uint32_t kMaxRecursion = 0x7FFFFFFF;
// How often a waiter looks whether the owner of a mutex it waits for still runs, and how
// long it sleeps at most while such an owner might die unseen.
constexpr int64_t kLivenessIntervalNs = 10'000'000;
constexpr int64_t kOwnerPollNs = 20'000'000;
// With the owner's process watched (ProcessExitWatch), its death wakes the waiters at once;
// only the end of the owning thread alone (a fault of the owner's) is still found by looking.
constexpr int64_t kWatchedOwnerPollNs = 500'000'000;
// Waits with nothing to poll still wake now and then, in case a change was never announced
// (its announcer died inside the table).
constexpr int64_t kIdlePollNs = 1'000'000'000;

thread_local uint32_t t_lastError = kErrorSuccess;

struct HandleEntry {
    uint32_t object = 0;
    uint32_t generation = 0;
    ObjectKind kind = ObjectKind::Free;
};

struct MappedView {
    void* address;
    size_t size;
};

// Handles and views of this process. Never destroyed (see NamedObjectTable::Get).
struct LocalObjects {
    std::mutex lock;
    std::array<HandleEntry, kMaxHandles> handles{};
    std::vector<MappedView> views;
};

LocalObjects& Local();

ProcessExitWatch& OwnerExits();

// Handles are not inherited over fork: the child starts with none (its views stay mapped).
void LockBeforeFork()
{
    Local().lock.lock();
    OwnerExits().LockForFork();
}
void UnlockAfterFork()
{
    OwnerExits().UnlockAfterFork();
    Local().lock.unlock();
}
void ResetInChild()
{
    OwnerExits().UnlockAfterFork();
    LocalObjects& local = Local();
    local.handles.fill(HandleEntry{});
    local.lock.unlock();
}

// Ends the wait of every thread, in every process of the user, that waits for a mutex owned
// by a process that just ended: the next table user releases what the dead process held.
ProcessExitWatch& OwnerExits()
{
    static ProcessExitWatch* const watch = new ProcessExitWatch([] {
        uint32_t error = kErrorSuccess;
        if (NamedObjectTable* table = NamedObjectTable::Get(&error)) {
            NamedObjectTable::Lock lock(*table);
            if (lock.Held())
                table->PruneDeadProcesses();
        }
    });
    return *watch;
}

LocalObjects& Local()
{
    alignas(LocalObjects) static unsigned char storage[sizeof(LocalObjects)];
    static LocalObjects* local = [] {
        LocalObjects* created = ::new (storage) LocalObjects();
        pthread_atfork(LockBeforeFork, UnlockAfterFork, ResetInChild);
        return created;
    }();
    return *local;
}

bool Fail(uint32_t error)
{
    t_lastError = error;
    return false;
}

ObjHandle FailHandle(uint32_t error)
{
    t_lastError = error;
    return 0;
}

int64_t MonotonicNs()
{
    timespec now {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

size_t Utf16Length(std::string_view text)
{
    size_t units = 0;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if ((byte & 0xC0) != 0x80)
            units += byte >= 0xF0 ? 2 : 1;
    }
    return units;
}

struct ThreadIdentity {
    pid_t pid;
    pid_t tid;
    uint64_t start;
};

ThreadIdentity CurrentThread()
{
    // The start time guards against a later thread that gets the same id; it is read once per
    // thread (and again in a forked child, whose thread id differs).
    thread_local pid_t cachedTid = 0;
    thread_local uint64_t cachedStart = 0;
    const pid_t pid = NamedObjectPid();
    const pid_t tid = NamedObjectTid();
    if (cachedTid != tid) {
        cachedTid = tid;
        cachedStart = TaskStartTime(pid, tid);
    }
    return ThreadIdentity { pid, tid, cachedStart };
}

bool IsOwner(const ObjectSlot& slot, const ThreadIdentity& me)
{
    return slot.recursion > 0 && slot.ownerPid == me.pid && slot.ownerTid == me.tid && slot.ownerStart == me.start;
}

// A thread that ends while owning mutexes abandons them at once, instead of leaving waiters
// to notice on their next look at the owner.
struct OwnerExitHook {
    bool armed = false;
    OwnerExitHook() = default;
    OwnerExitHook(const OwnerExitHook&) = delete;
    OwnerExitHook& operator=(const OwnerExitHook&) = delete;
    ~OwnerExitHook()
    {
        if (!armed)
            return;
        uint32_t error = 0;
        NamedObjectTable* table = NamedObjectTable::Get(&error);
        if (table == nullptr)
            return;
        NamedObjectTable::Lock lock(*table);
        if (lock.Held())
            table->AbandonOwnedBy(NamedObjectPid(), NamedObjectTid());
    }
};

thread_local OwnerExitHook t_exitHook;

void TakeOwnership(ObjectSlot& slot, const ThreadIdentity& me)
{
    slot.ownerPid = me.pid;
    slot.ownerTid = me.tid;
    slot.ownerStart = me.start;
    slot.recursion = 1;
    slot.abandoned = 0;
    t_exitHook.armed = true;
}

// Resolves a handle to a copy of its entry; false (and the last error) for a bad handle.
bool Resolve(ObjHandle handle, HandleEntry* entry)
{
    if (handle == 0 || handle > kMaxHandles)
        return Fail(kErrorInvalidHandle);
    LocalObjects& local = Local();
    std::lock_guard<std::mutex> guard(local.lock);
    *entry = local.handles[handle - 1];
    if (entry->kind == ObjectKind::Free)
        return Fail(kErrorInvalidHandle);
    return true;
}

// The slot behind a resolved handle, or null when the object went meanwhile (the table
// lock must be held).
ObjectSlot* SlotOf(NamedObjectTable& table, const HandleEntry& entry)
{
    ObjectSlot& slot = table.Shared().objects[entry.object];
    if (slot.kind != static_cast<uint32_t>(entry.kind) || slot.generation != entry.generation)
        return nullptr;
    return &slot;
}

uint32_t CreateMappingFile(NamedObjectTable& table, uint32_t object, size_t size)
{
    const std::string path = table.MappingPath(object);
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0 && errno == EEXIST) {
        // Left over from a process that died between making the file and recording it.
        if (unlink(path.c_str()) != 0)
            return kErrorAccessDenied;
        fd = open(path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    }
    if (fd < 0)
        return errno == EACCES || errno == EPERM ? kErrorAccessDenied : kErrorNoSystemResources;
    // Reserving the pages now turns a full /dev/shm into an error here rather than a SIGBUS
    // on some later write through a view.
    const bool ok = fchmod(fd, 0600) == 0 && size <= static_cast<size_t>(INT64_MAX)
        && posix_fallocate(fd, 0, static_cast<off_t>(size)) == 0;
    close(fd);
    if (!ok) {
        unlink(path.c_str());
        return kErrorNoSystemResources;
    }
    return kErrorSuccess;
}

ObjHandle CreateObject(ObjectKind kind, const std::string& name, bool initialOwner, bool manualReset,
                       bool initialState, size_t mappingSize)
{
    if (Utf16Length(name) > kMaxObjectNameUnits || name.size() >= kMaxObjectNameBytes)
        return FailHandle(kErrorInvalidParameter);
    if (kind == ObjectKind::Mapping && mappingSize == 0)
        return FailHandle(kErrorInvalidParameter);
    uint32_t error = kErrorSuccess;
    NamedObjectTable* table = NamedObjectTable::Get(&error);
    if (table == nullptr)
        return FailHandle(error);

    LocalObjects& local = Local();
    std::lock_guard<std::mutex> guard(local.lock);
    const auto free = std::find_if(local.handles.begin(), local.handles.end(),
                                   [](const HandleEntry& entry) { return entry.kind == ObjectKind::Free; });
    if (free == local.handles.end())
        return FailHandle(kErrorNoSystemResources);

    NamedObjectTable::Lock lock(*table);
    if (!lock.Held())
        return FailHandle(kErrorInvalidHandle);
    const uint32_t process = table->OwnProcess();
    if (process == kNoProcess)
        return FailHandle(kErrorNoSystemResources);

    const int existing = name.empty() ? -1 : table->FindByName(name);
    if (existing >= 0) {
        const ObjectSlot& slot = table->Shared().objects[existing];
        if (slot.kind != static_cast<uint32_t>(kind))
            return FailHandle(kErrorInvalidHandle);
        table->AddRef(static_cast<uint32_t>(existing), process);
        *free = HandleEntry { static_cast<uint32_t>(existing), slot.generation, kind };
        t_lastError = kErrorAlreadyExists;
        return static_cast<ObjHandle>(free - local.handles.begin() + 1);
    }

    const int created = table->Allocate(kind, name);
    if (created < 0)
        return FailHandle(kErrorNoSystemResources);
    const auto object = static_cast<uint32_t>(created);
    ObjectSlot& slot = table->Shared().objects[object];
    switch (kind) {
    case ObjectKind::Mutex:
        if (initialOwner)
            TakeOwnership(slot, CurrentThread());
        break;
    case ObjectKind::Event:
        slot.manualReset = manualReset ? 1 : 0;
        slot.signalled = initialState ? 1 : 0;
        break;
    case ObjectKind::Mapping:
        error = CreateMappingFile(*table, object, mappingSize);
        slot.mappingSize = mappingSize;
        break;
    case ObjectKind::Free:
        break;
    }
    // The reference is added even on failure so that dropping it frees the slot.
    table->AddRef(object, process);
    if (error != kErrorSuccess) {
        table->DropRef(object, process);
        return FailHandle(error);
    }
    *free = HandleEntry { object, slot.generation, kind };
    t_lastError = kErrorSuccess;
    return static_cast<ObjHandle>(free - local.handles.begin() + 1);
}

ObjHandle OpenObject(ObjectKind kind, const std::string& name)
{
    if (name.empty() || Utf16Length(name) > kMaxObjectNameUnits || name.size() >= kMaxObjectNameBytes)
        return FailHandle(name.empty() ? kErrorInvalidParameter : kErrorFileNotFound);
    uint32_t error = kErrorSuccess;
    NamedObjectTable* table = NamedObjectTable::Get(&error);
    if (table == nullptr)
        return FailHandle(error);

    LocalObjects& local = Local();
    std::lock_guard<std::mutex> guard(local.lock);
    NamedObjectTable::Lock lock(*table);
    if (!lock.Held())
        return FailHandle(kErrorInvalidHandle);
    const uint32_t process = table->OwnProcess();
    if (process == kNoProcess)
        return FailHandle(kErrorNoSystemResources);
    const int found = table->FindByName(name);
    if (found < 0)
        return FailHandle(kErrorFileNotFound);
    const ObjectSlot& slot = table->Shared().objects[found];
    if (slot.kind != static_cast<uint32_t>(kind))
        return FailHandle(kErrorInvalidHandle);
    const auto free = std::find_if(local.handles.begin(), local.handles.end(),
                                   [](const HandleEntry& entry) { return entry.kind == ObjectKind::Free; });
    if (free == local.handles.end())
        return FailHandle(kErrorNoSystemResources);
    table->AddRef(static_cast<uint32_t>(found), process);
    *free = HandleEntry { static_cast<uint32_t>(found), slot.generation, kind };
    t_lastError = kErrorSuccess;
    return static_cast<ObjHandle>(free - local.handles.begin() + 1);
}

// Runs `change` on the live slot of a handle of the given kind under the table lock.
template <typename Change>
bool ChangeObject(ObjHandle handle, ObjectKind kind, Change change)
{
    HandleEntry entry;
    if (!Resolve(handle, &entry))
        return false;
    if (entry.kind != kind)
        return Fail(kErrorInvalidHandle);
    uint32_t error = kErrorSuccess;
    NamedObjectTable* table = NamedObjectTable::Get(&error);
    if (table == nullptr)
        return Fail(error);
    NamedObjectTable::Lock lock(*table);
    if (!lock.Held())
        return Fail(kErrorInvalidHandle);
    ObjectSlot* slot = SlotOf(*table, entry);
    if (slot == nullptr)
        return Fail(kErrorInvalidHandle);
    return change(*table, *slot);
}

} // namespace

ObjHandle CreateNamedMutex(const std::string& name, bool initialOwner)
{
    return CreateObject(ObjectKind::Mutex, name, initialOwner, false, false, 0);
}

ObjHandle OpenNamedMutex(const std::string& name)
{
    return OpenObject(ObjectKind::Mutex, name);
}

bool ReleaseNamedMutex(ObjHandle mutex)
{
    const ThreadIdentity me = CurrentThread();
    return ChangeObject(mutex, ObjectKind::Mutex, [&me](NamedObjectTable& table, ObjectSlot& slot) {
        if (!IsOwner(slot, me))
            return Fail(kErrorNotOwner);
        if (--slot.recursion == 0) {
            slot.ownerPid = 0;
            slot.ownerTid = 0;
            slot.ownerStart = 0;
            table.NotifyChange();
        }
        return true;
    });
}

ObjHandle CreateNamedEvent(const std::string& name, bool manualReset, bool initialState)
{
    return CreateObject(ObjectKind::Event, name, false, manualReset, initialState, 0);
}

ObjHandle OpenNamedEvent(const std::string& name)
{
    return OpenObject(ObjectKind::Event, name);
}

bool SetNamedEvent(ObjHandle event)
{
    return ChangeObject(event, ObjectKind::Event, [](NamedObjectTable& table, ObjectSlot& slot) {
        if (slot.signalled == 0) {
            slot.signalled = 1;
            table.NotifyChange();
        }
        return true;
    });
}

bool ResetNamedEvent(ObjHandle event)
{
    return ChangeObject(event, ObjectKind::Event, [](NamedObjectTable&, ObjectSlot& slot) {
        slot.signalled = 0;
        return true;
    });
}

ObjHandle CreateNamedMapping(const std::string& name, size_t size)
{
    return CreateObject(ObjectKind::Mapping, name, false, false, false, size);
}

ObjHandle OpenNamedMapping(const std::string& name)
{
    return OpenObject(ObjectKind::Mapping, name);
}

void* MapNamedMapping(ObjHandle mapping, size_t* size)
{
    int fd = -1;
    const bool opened = ChangeObject(mapping, ObjectKind::Mapping, [&fd](NamedObjectTable& table, ObjectSlot& slot) {
        const auto object = static_cast<uint32_t>(&slot - table.Shared().objects);
        fd = open(table.MappingPath(object).c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd < 0)
            return Fail(errno == EACCES ? kErrorAccessDenied : kErrorFileNotFound);
        return true;
    });
    if (!opened)
        return nullptr;
    struct stat info {};
    if (fstat(fd, &info) != 0 || info.st_uid != geteuid() || info.st_size <= 0) {
        close(fd);
        Fail(kErrorAccessDenied);
        return nullptr;
    }
    const auto length = static_cast<size_t>(info.st_size);
    void* view = mmap(nullptr, length, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (view == MAP_FAILED) {
        Fail(kErrorNoSystemResources);
        return nullptr;
    }
    LocalObjects& local = Local();
    {
        std::lock_guard<std::mutex> guard(local.lock);
        local.views.push_back(MappedView { view, length });
    }
    if (size != nullptr)
        *size = length;
    t_lastError = kErrorSuccess;
    return view;
}

bool UnmapNamedMapping(void* view)
{
    LocalObjects& local = Local();
    std::lock_guard<std::mutex> guard(local.lock);
    const auto found = std::find_if(local.views.begin(), local.views.end(),
                                    [view](const MappedView& entry) { return entry.address == view; });
    if (view == nullptr || found == local.views.end())
        return Fail(kErrorInvalidParameter);
    munmap(found->address, found->size);
    local.views.erase(found);
    return true;
}

uint32_t WaitForObject(ObjHandle object, uint32_t timeoutMs)
{
    return WaitForAnyObject(&object, 1, timeoutMs);
}

uint32_t WaitForAnyObject(const ObjHandle* objects, size_t count, uint32_t timeoutMs)
{
    if (objects == nullptr || count == 0 || count > kMaxWaitObjects) {
        t_lastError = kErrorInvalidParameter;
        return kWaitFailed;
    }
    std::array<HandleEntry, kMaxWaitObjects> entries;
    for (size_t i = 0; i < count; ++i) {
        if (!Resolve(objects[i], &entries[i]))
            return kWaitFailed;
        if (entries[i].kind == ObjectKind::Mapping) {
            t_lastError = kErrorInvalidHandle;
            return kWaitFailed;
        }
    }
    uint32_t error = kErrorSuccess;
    NamedObjectTable* table = NamedObjectTable::Get(&error);
    if (table == nullptr) {
        t_lastError = error;
        return kWaitFailed;
    }

    const ThreadIdentity me = CurrentThread();
    const int64_t start = MonotonicNs();
    const int64_t deadline = timeoutMs == kInfinite ? INT64_MAX : start + static_cast<int64_t>(timeoutMs) * 1'000'000;
    int64_t lastLivenessCheck = start - kLivenessIntervalNs;
    NamedObjectTable::Lock lock(*table);
    while (lock.Held()) {
        const int64_t now = MonotonicNs();
        const bool checkOwners = now - lastLivenessCheck >= kLivenessIntervalNs;
        if (checkOwners)
            lastLivenessCheck = now;
        bool ownedElsewhere = false;
        bool ownersWatched = true;
        for (size_t i = 0; i < count; ++i) {
            ObjectSlot* slot = SlotOf(*table, entries[i]);
            if (slot == nullptr) {
                t_lastError = kErrorInvalidHandle;
                return kWaitFailed;
            }
            const auto index = static_cast<uint32_t>(i);
            if (entries[i].kind == ObjectKind::Event) {
                if (slot->signalled == 0)
                    continue;
                if (slot->manualReset == 0)
                    slot->signalled = 0;
                return kWaitObject0 + index;
            }
            if (slot->recursion == 0) {
                const bool abandoned = slot->abandoned != 0;
                TakeOwnership(*slot, me);
                return (abandoned ? kWaitAbandoned0 : kWaitObject0) + index;
            }
            if (IsOwner(*slot, me)) {
                if (slot->recursion >= kMaxRecursion) {
                    t_lastError = kErrorNoSystemResources;
                    return kWaitFailed;
                }
                ++slot->recursion;
                return kWaitObject0 + index;
            }
            if (checkOwners && !NamedObjectTable::OwnerAlive(*slot)) {
                TakeOwnership(*slot, me);
                return kWaitAbandoned0 + index;
            }
            ownedElsewhere = true;
            if (slot->ownerPid == NamedObjectPid() || !OwnerExits().Watch(slot->ownerPid))
                ownersWatched = false;
        }
        if (now >= deadline)
            return kWaitTimeout;
        const int64_t poll = !ownedElsewhere ? kIdlePollNs : ownersWatched ? kWatchedOwnerPollNs : kOwnerPollNs;
        const int64_t sleep = std::min(deadline - now, poll);
        lock.SleepForChange(std::max<int64_t>(sleep, 1));
    }
    t_lastError = kErrorInvalidHandle;
    return kWaitFailed;
}

bool CloseObject(ObjHandle object)
{
    if (object == 0 || object > kMaxHandles)
        return Fail(kErrorInvalidHandle);
    uint32_t error = kErrorSuccess;
    NamedObjectTable* table = NamedObjectTable::Get(&error);
    if (table == nullptr)
        return Fail(error);
    LocalObjects& local = Local();
    std::lock_guard<std::mutex> guard(local.lock);
    HandleEntry& entry = local.handles[object - 1];
    if (entry.kind == ObjectKind::Free)
        return Fail(kErrorInvalidHandle);
    const HandleEntry closing = entry;
    entry = HandleEntry{};
    NamedObjectTable::Lock lock(*table);
    if (!lock.Held())
        return true;
    if (SlotOf(*table, closing) != nullptr) {
        const uint32_t process = table->OwnProcess();
        if (process != kNoProcess)
            table->DropRef(closing.object, process);
    }
    return true;
}

uint32_t LastObjectError()
{
    return t_lastError;
}

void SetLastObjectError(uint32_t error)
{
    t_lastError = error;
}

void RemoveNamedObjectNamespace(const std::string& name)
{
    if (name.empty() || name.find('/') != std::string::npos || name == "." || name == "..")
        return;
    std::vector<std::string> bases = NamedObjectBaseCandidates(geteuid());
    // A test that ran children as other users has namespaces of theirs as well.
    std::error_code ignored;
    for (const char* root : { "/dev/shm", "/run/user" }) {
        for (const auto& entry : std::filesystem::directory_iterator(root, ignored)) {
            const std::string file = entry.path().filename().string();
            if (std::string_view(root) == "/run/user")
                bases.push_back(entry.path().string() + "/larimo");
            else if (file.rfind("larimo-", 0) == 0)
                bases.push_back(entry.path().string());
        }
    }
    std::sort(bases.begin(), bases.end());
    bases.erase(std::unique(bases.begin(), bases.end()), bases.end());
    for (const std::string& base : bases) {
        if (!std::filesystem::is_directory(std::filesystem::symlink_status(base, ignored)))
            continue;
        std::filesystem::remove_all(base + "/" + name, ignored);
        rmdir(base.c_str());
    }
}

} // namespace larimo
