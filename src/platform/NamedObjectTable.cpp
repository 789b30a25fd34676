// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/NamedObjectTable.h"

#include "platform/NamedObjects.h"

#include <dirent.h>
#include <fcntl.h>
#include <linux/futex.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <string_view>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <mutex>
#include <new>
#include <string>
#include <utility>
#include <vector>

namespace larimo {
namespace {

constexpr uint32_t kTableMagic = 0x4C4E4F54; // "LNOT"
// Part of the file name as well: a build with another layout gets a table of its own instead
// of misreading this one.
constexpr uint32_t kTableLayout = 2;

static_assert(sizeof(SharedObjectTable) < 8u * 1024u * 1024u, "the table should stay small");

const std::string kTableFileName = "objects-v" + std::to_string(kTableLayout);
// How many names in /dev/shm are tried before giving up on a private folder there.
constexpr int kSharedFolderCandidates = 16;

// Whether no one but `user` can add, remove or replace entries in `path`: a real folder (not
// a link to one) of that user that nobody else may write to. errno is EACCES when it is not.
bool IsPrivateFolder(const std::string& path, uid_t user)
{
    struct stat info {};
    if (lstat(path.c_str(), &info) != 0)
        return false;
    if (!S_ISDIR(info.st_mode) || info.st_uid != user || (info.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        errno = EACCES;
        return false;
    }
    return true;
}

bool MakePrivateFolder(const std::string& path, uid_t user)
{
    if (mkdir(path.c_str(), 0700) != 0 && errno != EEXIST)
        return false;
    return IsPrivateFolder(path, user);
}

// Set inside a critical section, acted on once the lock is left, so woken waiters do not
// run straight into the lock still held by the notifier.
thread_local bool t_wakePending = false;

uint32_t ErrnoToObjectError(int error)
{
    switch (error) {
    case ENOENT:
        return kErrorFileNotFound;
    case EACCES:
    case EPERM:
    case ELOOP:
        return kErrorAccessDenied;
    case ENOSPC:
    case ENOMEM:
    case EMFILE:
    case ENFILE:
        return kErrorNoSystemResources;
    default:
        return kErrorInvalidParameter;
    }
}

uint32_t NameHash(std::string_view name)
{
    uint32_t hash = 2166136261u;
    for (const char c : name) {
        hash ^= static_cast<unsigned char>(c);
        hash *= 16777619u;
    }
    return hash;
}

long Futex(uint32_t* word, int operation, uint32_t value, const timespec* timeout)
{
    return syscall(SYS_futex, word, operation, value, timeout, nullptr, 0);
}

bool ReadSmallFile(const char* path, char* buffer, size_t capacity, size_t* length)
{
    const int fd = open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0)
        return false;
    ssize_t got;
    do {
        got = read(fd, buffer, capacity - 1);
    } while (got < 0 && errno == EINTR);
    close(fd);
    if (got <= 0)
        return false;
    buffer[got] = '\0';
    *length = static_cast<size_t>(got);
    return true;
}

// A process whose first thread has ended but whose other threads still run shows that first
// thread as a zombie; only a process with nothing left in its task folder is really gone.
bool HasOtherTasks(pid_t pid)
{
    char path[64];
    std::snprintf(path, sizeof path, "/proc/%d/task", static_cast<int>(pid));
    DIR* dir = opendir(path);
    if (dir == nullptr)
        return false;
    int tasks = 0;
    while (const dirent* entry = readdir(dir)) {
        if (entry->d_name[0] != '.')
            ++tasks;
    }
    closedir(dir);
    return tasks > 1;
}

struct MappedTable {
    SharedObjectTable* table = nullptr;
};

void InitialiseTable(SharedObjectTable& table)
{
    table.magic = kTableMagic;
    table.layoutVersion = kTableLayout;
    table.tableSize = sizeof(SharedObjectTable);
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_setpshared(&attributes, PTHREAD_PROCESS_SHARED);
    pthread_mutexattr_setrobust(&attributes, PTHREAD_MUTEX_ROBUST);
    pthread_mutex_init(&table.lock, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

uint32_t MapTableFile(int fd, MappedTable* mapped)
{
    struct stat info {};
    if (fstat(fd, &info) != 0)
        return ErrnoToObjectError(errno);
    // The folder is the user's own; still, a file that someone else made, or that others may
    // read, is not ours to trust.
    if (!S_ISREG(info.st_mode) || info.st_uid != geteuid() || (info.st_mode & 077) != 0)
        return kErrorAccessDenied;
    if (static_cast<uint64_t>(info.st_size) != sizeof(SharedObjectTable))
        return kErrorInvalidParameter;
    void* address = mmap(nullptr, sizeof(SharedObjectTable), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (address == MAP_FAILED)
        return ErrnoToObjectError(errno);
    auto* table = static_cast<SharedObjectTable*>(address);
    if (table->magic != kTableMagic || table->layoutVersion != kTableLayout
        || table->tableSize != sizeof(SharedObjectTable)) {
        munmap(address, sizeof(SharedObjectTable));
        return kErrorInvalidParameter;
    }
    mapped->table = table;
    return kErrorSuccess;
}

// The table appears under its final name only once initialised (written under a private
// name, then hard-linked), so no process ever sees a half-made table, and a creator that dies
// halfway leaves only a stray private file.
uint32_t OpenOrCreateTable(const std::string& folder, MappedTable* mapped)
{
    const std::string path = folder + "/" + kTableFileName;
    for (int attempt = 0; attempt < 3; ++attempt) {
        const int fd = open(path.c_str(), O_RDWR | O_CLOEXEC | O_NOFOLLOW);
        if (fd >= 0) {
            const uint32_t error = MapTableFile(fd, mapped);
            close(fd);
            return error;
        }
        if (errno != ENOENT)
            return ErrnoToObjectError(errno);

        const std::string fresh = path + ".new-" + std::to_string(getpid()) + "-" + std::to_string(gettid());
        unlink(fresh.c_str());
        const int newFd = open(fresh.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
        if (newFd < 0)
            return ErrnoToObjectError(errno);
        uint32_t error = kErrorSuccess;
        if (fchmod(newFd, 0600) != 0 || posix_fallocate(newFd, 0, sizeof(SharedObjectTable)) != 0) {
            error = kErrorNoSystemResources;
        } else {
            void* address = mmap(nullptr, sizeof(SharedObjectTable), PROT_READ | PROT_WRITE, MAP_SHARED, newFd, 0);
            if (address == MAP_FAILED) {
                error = ErrnoToObjectError(errno);
            } else {
                InitialiseTable(*static_cast<SharedObjectTable*>(address));
                munmap(address, sizeof(SharedObjectTable));
                if (link(fresh.c_str(), path.c_str()) != 0 && errno != EEXIST)
                    error = ErrnoToObjectError(errno);
            }
        }
        close(newFd);
        unlink(fresh.c_str());
        if (error != kErrorSuccess)
            return error;
        // Whether our link won or another creator's did, open what is there now.
    }
    return kErrorAccessDenied;
}

// Both trivially destructible: the table stays usable from static destructors of other
// modules, which run in an order we do not control.
std::mutex g_instanceLock;
NamedObjectTable* g_instance = nullptr;
uid_t g_instanceUser = 0;

std::atomic<pid_t> g_pid { 0 };
// A forked child may change its user before its next call (a helper dropping root).
std::atomic<bool> g_checkUser { true };
thread_local pid_t t_tid = 0;

void RefreshIdsInChild()
{
    g_pid.store(getpid(), std::memory_order_relaxed);
    g_checkUser.store(true, std::memory_order_relaxed);
    t_tid = 0;
}

} // namespace

std::string NamedObjectNamespace()
{
    const char* space = std::getenv("LARIMO_OBJECT_NAMESPACE");
    if (space == nullptr)
        return {};
    const std::string_view name(space);
    const bool plain = !name.empty() && name.size() <= 32 && std::all_of(name.begin(), name.end(), [](char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_';
    });
    return plain ? std::string(name) : std::string();
}

std::vector<std::string> NamedObjectBaseCandidates(uid_t user)
{
    std::vector<std::string> candidates;
    // The session's runtime folder belongs to the user alone (the login manager makes it with
    // mode 0700), so no one else can plant a file where our objects go. /run/user/<uid> is
    // tried as well, so that a process started without the variable (from cron, or an ssh
    // login without a session) still meets the user's other processes.
    if (const char* runtime = std::getenv("XDG_RUNTIME_DIR"); runtime != nullptr && runtime[0] == '/')
        candidates.push_back(std::string(runtime) + "/larimo");
    const std::string standard = "/run/user/" + std::to_string(user) + "/larimo";
    if (candidates.empty() || candidates.front() != standard)
        candidates.push_back(standard);
    // Without a runtime folder: a folder of our own in /dev/shm. Anyone may create entries
    // there, so a name someone else took first is passed over for the next one; every process
    // of the user walks the same list and stops at the same folder.
    const std::string shared = "/dev/shm/larimo-" + std::to_string(user);
    candidates.push_back(shared);
    for (int n = 1; n < kSharedFolderCandidates; ++n)
        candidates.push_back(shared + "." + std::to_string(n));
    return candidates;
}

std::string NamedObjectFolder()
{
    const uid_t user = geteuid();
    const std::string space = NamedObjectNamespace();
    // Another process that ends its namespace may remove an empty base folder between our
    // making it and making the namespace in it: then all is done again.
    for (int attempt = 0; attempt < 3; ++attempt) {
        std::string base;
        for (const std::string& candidate : NamedObjectBaseCandidates(user)) {
            const std::string parent = candidate.substr(0, candidate.rfind('/'));
            const bool runtime = parent != "/dev/shm";
            if (runtime && !IsPrivateFolder(parent, user))
                continue;
            if (MakePrivateFolder(candidate, user)) {
                base = candidate;
                break;
            }
            // A runtime folder that is the user's own holds nothing planted by anyone else;
            // if our folder cannot be made there, the next place is no better.
            if (runtime && errno != ENOENT)
                return {};
        }
        if (base.empty())
            return {};
        if (space.empty())
            return base;
        const std::string folder = base + "/" + space;
        if (MakePrivateFolder(folder, user))
            return folder;
        if (errno != ENOENT)
            return {};
    }
    return {};
}

pid_t NamedObjectPid()
{
    pid_t pid = g_pid.load(std::memory_order_relaxed);
    if (pid == 0) {
        pid = getpid();
        g_pid.store(pid, std::memory_order_relaxed);
    }
    return pid;
}

pid_t NamedObjectTid()
{
    if (t_tid == 0)
        t_tid = gettid();
    return t_tid;
}

std::string NamedObjectTablePath()
{
    const std::string folder = NamedObjectFolder();
    return folder.empty() ? std::string() : folder + "/" + kTableFileName;
}

uint64_t TaskStartTime(pid_t pid, pid_t tid)
{
    if (pid <= 0)
        return 0;
    char path[64];
    if (tid > 0)
        std::snprintf(path, sizeof path, "/proc/%d/task/%d/stat", static_cast<int>(pid), static_cast<int>(tid));
    else
        std::snprintf(path, sizeof path, "/proc/%d/stat", static_cast<int>(pid));
    char text[1024];
    size_t length = 0;
    if (!ReadSmallFile(path, text, sizeof text, &length))
        return 0;
    // The command name in parentheses may itself hold blanks and parentheses.
    const char* cursor = std::strrchr(text, ')');
    if (cursor == nullptr || cursor[1] != ' ')
        return 0;
    cursor += 2;
    const char state = *cursor;
    if (state == 'Z' || state == 'X' || state == 'x') {
        if (tid > 0 || !HasOtherTasks(pid))
            return 0;
    }
    // After the state come 18 fields before the start time.
    for (int field = 0; field < 19; ++field) {
        cursor = std::strchr(cursor, ' ');
        if (cursor == nullptr)
            return 0;
        ++cursor;
    }
    char* end = nullptr;
    const unsigned long long start = std::strtoull(cursor, &end, 10);
    if (end == cursor)
        return 0;
    // Never 0, which stands for "not running".
    return static_cast<uint64_t>(start) + 1;
}

NamedObjectTable* NamedObjectTable::Get(uint32_t* error)
{
    std::lock_guard<std::mutex> guard(g_instanceLock);
    static const bool forkHandler = pthread_atfork(nullptr, nullptr, RefreshIdsInChild) == 0;
    (void)forkHandler;
    // A process that changed its user (a forked child that dropped root) must not keep using
    // the table it inherited: it gets the table of the user it is now. The old one stays
    // mapped, as another thread may still be inside it.
    if (g_instance != nullptr && !g_checkUser.load(std::memory_order_relaxed))
        return g_instance;
    g_checkUser.store(false, std::memory_order_relaxed);
    if (g_instance != nullptr && g_instanceUser == geteuid())
        return g_instance;
    const std::string folder = NamedObjectFolder();
    if (folder.empty()) {
        *error = kErrorAccessDenied;
        return nullptr;
    }
    MappedTable mapped;
    const uint32_t result = OpenOrCreateTable(folder, &mapped);
    if (result != kErrorSuccess) {
        *error = result;
        return nullptr;
    }
    // Room for a few changes of user; none is ever reused while a thread might be inside it.
    constexpr int kTables = 4;
    alignas(NamedObjectTable) static unsigned char storage[kTables][sizeof(NamedObjectTable)];
    static int used = 0;
    if (used == kTables) {
        munmap(mapped.table, sizeof(SharedObjectTable));
        *error = kErrorNoSystemResources;
        return nullptr;
    }
    g_instance = ::new (storage[used++]) NamedObjectTable(mapped.table, folder);
    g_instanceUser = geteuid();
    return g_instance;
}

NamedObjectTable::NamedObjectTable(SharedObjectTable* shared, std::string folder)
    : m_shared(shared)
    , m_folder(std::move(folder))
{
}

NamedObjectTable::Lock::Lock(NamedObjectTable& table)
    : m_table(table)
{
    m_held = Acquire();
}

NamedObjectTable::Lock::~Lock()
{
    if (m_held)
        pthread_mutex_unlock(&m_table.m_shared->lock);
    if (t_wakePending) {
        t_wakePending = false;
        Futex(&m_table.m_shared->changeSequence, FUTEX_WAKE, INT_MAX, nullptr);
    }
}

bool NamedObjectTable::Lock::Acquire()
{
    const int result = pthread_mutex_lock(&m_table.m_shared->lock);
    if (result == 0)
        return true;
    if (result == EOWNERDEAD) {
        pthread_mutex_consistent(&m_table.m_shared->lock);
        m_table.Repair();
        return true;
    }
    return false;
}

void NamedObjectTable::Lock::SleepForChange(int64_t timeoutNs)
{
    SharedObjectTable& shared = *m_table.m_shared;
    const uint32_t seen = std::atomic_ref<uint32_t>(shared.changeSequence).load(std::memory_order_acquire);
    // Without a process slot the sleeper is not counted and relies on its poll interval.
    const uint32_t process = m_table.OwnProcess();
    if (process != kNoProcess) {
        ++shared.processes[process].sleepers;
        ++shared.sleepers;
    }
    pthread_mutex_unlock(&shared.lock);
    m_held = false;
    if (t_wakePending) {
        t_wakePending = false;
        Futex(&shared.changeSequence, FUTEX_WAKE, INT_MAX, nullptr);
    }
    if (timeoutNs > 0) {
        const timespec timeout { static_cast<time_t>(timeoutNs / 1000000000), static_cast<long>(timeoutNs % 1000000000) };
        Futex(&shared.changeSequence, FUTEX_WAIT, seen, &timeout);
    }
    m_held = Acquire();
    // Our slot may have been repaired away meanwhile; then there is nothing to take back.
    if (m_held && process != kNoProcess && process == m_table.OwnProcess() && shared.processes[process].sleepers > 0) {
        --shared.processes[process].sleepers;
        if (shared.sleepers > 0)
            --shared.sleepers;
    }
}

void NamedObjectTable::NotifyChange()
{
    std::atomic_ref<uint32_t>(m_shared->changeSequence).fetch_add(1, std::memory_order_release);
    if (m_shared->sleepers > 0)
        t_wakePending = true;
}

uint32_t NamedObjectTable::OwnProcess()
{
    const pid_t pid = NamedObjectPid();
    if (m_process != kNoProcess && m_processPid == pid) {
        const ProcessSlot& slot = m_shared->processes[m_process];
        if (slot.inUse != 0 && slot.pid == pid)
            return m_process;
    }
    // First use in this process (or in a child after fork): clear out the crashed, and any
    // earlier process that had our pid.
    m_process = kNoProcess;
    const uint64_t start = TaskStartTime(pid, 0);
    for (uint32_t i = 0; i < kMaxObjectProcesses; ++i) {
        const ProcessSlot& slot = m_shared->processes[i];
        if (slot.inUse != 0 && slot.pid == pid && slot.startTime != start)
            ReleaseProcess(i);
    }
    m_processPid = pid;
    PruneDeadProcesses();
    for (uint32_t i = 0; i < kMaxObjectProcesses; ++i) {
        ProcessSlot& slot = m_shared->processes[i];
        if (slot.inUse != 0 && slot.pid == pid) {
            m_process = i;
            return i;
        }
    }
    for (uint32_t i = 0; i < kMaxObjectProcesses; ++i) {
        ProcessSlot& slot = m_shared->processes[i];
        if (slot.inUse == 0) {
            slot.pid = pid;
            slot.startTime = start;
            slot.inUse = 1;
            m_process = i;
            return i;
        }
    }
    return kNoProcess;
}

int NamedObjectTable::FindByName(std::string_view name)
{
    if (name.empty() || name.size() >= kMaxObjectNameBytes)
        return -1;
    const uint32_t hash = NameHash(name);
    const uint32_t self = m_processPid == NamedObjectPid() ? m_process : kNoProcess;
    for (uint32_t i = 0; i < kMaxNamedObjects; ++i) {
        const ObjectSlot& slot = m_shared->objects[i];
        if (slot.kind == static_cast<uint32_t>(ObjectKind::Free) || slot.nameHash != hash
            || slot.nameLength != name.size() || std::memcmp(m_shared->names[i], name.data(), name.size()) != 0)
            continue;
        // Processes that died without closing still count as holders until someone looks.
        for (uint32_t p = 0; p < kMaxObjectProcesses; ++p) {
            if (m_shared->refs[i][p] == 0 || p == self)
                continue;
            const ProcessSlot& holder = m_shared->processes[p];
            if (holder.inUse == 0 || TaskStartTime(holder.pid, 0) != holder.startTime)
                ReleaseProcess(p);
        }
        if (slot.kind == static_cast<uint32_t>(ObjectKind::Free))
            return -1;
        return static_cast<int>(i);
    }
    return -1;
}

int NamedObjectTable::Allocate(ObjectKind kind, std::string_view name)
{
    if (name.size() >= kMaxObjectNameBytes)
        return -1;
    for (int pass = 0; pass < 2; ++pass) {
        for (uint32_t i = 0; i < kMaxNamedObjects; ++i) {
            ObjectSlot& slot = m_shared->objects[i];
            if (slot.kind != static_cast<uint32_t>(ObjectKind::Free))
                continue;
            const uint32_t generation = slot.generation + 1;
            std::memset(&slot, 0, sizeof slot);
            slot.generation = generation;
            slot.kind = static_cast<uint32_t>(kind);
            slot.nameHash = NameHash(name);
            slot.nameLength = static_cast<uint32_t>(name.size());
            std::memcpy(m_shared->names[i], name.data(), name.size());
            m_shared->names[i][name.size()] = '\0';
            std::memset(m_shared->refs[i], 0, sizeof m_shared->refs[i]);
            return static_cast<int>(i);
        }
        if (PruneDeadProcesses() == 0)
            break;
    }
    return -1;
}

void NamedObjectTable::AddRef(uint32_t object, uint32_t process)
{
    ++m_shared->refs[object][process];
    ++m_shared->objects[object].totalRefs;
}

void NamedObjectTable::DropRef(uint32_t object, uint32_t process)
{
    ObjectSlot& slot = m_shared->objects[object];
    if (m_shared->refs[object][process] == 0)
        return;
    --m_shared->refs[object][process];
    if (slot.totalRefs > 0)
        --slot.totalRefs;
    if (slot.totalRefs == 0)
        FreeObject(object);
}

void NamedObjectTable::FreeObject(uint32_t object)
{
    ObjectSlot& slot = m_shared->objects[object];
    if (slot.kind == static_cast<uint32_t>(ObjectKind::Mapping))
        unlink(MappingPath(object).c_str());
    const uint32_t generation = slot.generation;
    std::memset(&slot, 0, sizeof slot);
    slot.generation = generation;
    std::memset(m_shared->refs[object], 0, sizeof m_shared->refs[object]);
    NotifyChange();
}

void NamedObjectTable::ReleaseProcess(uint32_t process)
{
    ProcessSlot& holder = m_shared->processes[process];
    const pid_t pid = holder.pid;
    for (uint32_t i = 0; i < kMaxNamedObjects; ++i) {
        ObjectSlot& slot = m_shared->objects[i];
        if (slot.kind == static_cast<uint32_t>(ObjectKind::Free))
            continue;
        if (slot.kind == static_cast<uint32_t>(ObjectKind::Mutex) && slot.recursion > 0 && slot.ownerPid == pid) {
            slot.recursion = 0;
            slot.ownerPid = 0;
            slot.ownerTid = 0;
            slot.ownerStart = 0;
            slot.abandoned = 1;
            NotifyChange();
        }
        const uint32_t count = m_shared->refs[i][process];
        if (count == 0)
            continue;
        m_shared->refs[i][process] = 0;
        slot.totalRefs = slot.totalRefs > count ? slot.totalRefs - count : 0;
        if (slot.totalRefs == 0)
            FreeObject(i);
    }
    m_shared->sleepers = m_shared->sleepers > holder.sleepers ? m_shared->sleepers - holder.sleepers : 0;
    std::memset(&holder, 0, sizeof holder);
    if (process == m_process)
        m_process = kNoProcess;
}

uint32_t NamedObjectTable::PruneDeadProcesses()
{
    uint32_t released = 0;
    const pid_t self = NamedObjectPid();
    for (uint32_t p = 0; p < kMaxObjectProcesses; ++p) {
        const ProcessSlot& holder = m_shared->processes[p];
        if (holder.inUse == 0 || holder.pid == self)
            continue;
        if (TaskStartTime(holder.pid, 0) != holder.startTime) {
            ReleaseProcess(p);
            ++released;
        }
    }
    return released;
}

bool NamedObjectTable::OwnerAlive(const ObjectSlot& slot)
{
    const uint64_t start = TaskStartTime(slot.ownerPid, slot.ownerTid);
    return start != 0 && (slot.ownerStart == 0 || start == slot.ownerStart);
}

void NamedObjectTable::AbandonOwnedBy(pid_t pid, pid_t tid)
{
    for (ObjectSlot& slot : m_shared->objects) {
        if (slot.kind == static_cast<uint32_t>(ObjectKind::Mutex) && slot.recursion > 0 && slot.ownerPid == pid
            && slot.ownerTid == tid) {
            slot.recursion = 0;
            slot.ownerPid = 0;
            slot.ownerTid = 0;
            slot.ownerStart = 0;
            slot.abandoned = 1;
            NotifyChange();
        }
    }
}

std::string NamedObjectTable::MappingPath(uint32_t object) const
{
    return m_folder + "/map-" + std::to_string(object) + "-" + std::to_string(m_shared->objects[object].generation);
}

// A process died holding the lock, so one update may be half done: bring every slot back to
// a state the rest of the code can rely on.
void NamedObjectTable::Repair()
{
    for (uint32_t p = 0; p < kMaxObjectProcesses; ++p) {
        if (m_shared->processes[p].inUse != 0 && m_shared->processes[p].pid <= 0)
            std::memset(&m_shared->processes[p], 0, sizeof m_shared->processes[p]);
    }
    for (uint32_t i = 0; i < kMaxNamedObjects; ++i) {
        ObjectSlot& slot = m_shared->objects[i];
        if (slot.kind > static_cast<uint32_t>(ObjectKind::Mapping) || slot.nameLength >= kMaxObjectNameBytes) {
            const uint32_t generation = slot.generation;
            std::memset(&slot, 0, sizeof slot);
            slot.generation = generation;
        }
        uint32_t total = 0;
        for (uint32_t p = 0; p < kMaxObjectProcesses; ++p) {
            if (m_shared->processes[p].inUse == 0)
                m_shared->refs[i][p] = 0;
            total += m_shared->refs[i][p];
        }
        if (slot.kind == static_cast<uint32_t>(ObjectKind::Free))
            continue;
        slot.totalRefs = total;
        if (slot.recursion == 0 || slot.ownerPid <= 0) {
            slot.recursion = 0;
            slot.ownerPid = 0;
            slot.ownerTid = 0;
            slot.ownerStart = 0;
        }
        slot.signalled = slot.signalled != 0 ? 1 : 0;
        if (total == 0)
            FreeObject(i);
    }
    if (m_process != kNoProcess && m_shared->processes[m_process].pid != m_processPid)
        m_process = kNoProcess;
    PruneDeadProcesses();
    uint32_t sleepers = 0;
    for (const ProcessSlot& holder : m_shared->processes)
        sleepers += holder.inUse != 0 ? holder.sleepers : 0;
    m_shared->sleepers = sleepers;
    NotifyChange();
}

} // namespace larimo
