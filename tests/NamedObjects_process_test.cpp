// SPDX-License-Identifier: GPL-3.0-or-later
// Named objects between processes: a forked child, or the helper program for a process that
// starts from scratch.
#include "platform/NamedObjects.h"

#include "platform/NamedObjectTable.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

namespace larimo {
namespace {

using Clock = std::chrono::steady_clock;

std::string UniqueName(const std::string& stem)
{
    static std::atomic<int> counter { 0 };
    return "Global\\LarimoProcTest_" + std::to_string(getpid()) + "_" + std::to_string(counter++) + "_" + stem;
}

// A child process that is killed and reaped when the test ends, whatever happened.
class Child {
public:
    Child() = default;
    ~Child() { Kill(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    // Starts the helper program with its output on a pipe.
    bool Spawn(const std::vector<std::string>& arguments)
    {
        int output[2];
        if (pipe2(output, O_CLOEXEC) != 0)
            return false;
        m_pid = fork();
        if (m_pid == 0) {
            dup2(output[1], STDOUT_FILENO);
            std::vector<char*> argv;
            std::string program = NAMED_OBJECTS_HELPER;
            argv.push_back(program.data());
            std::vector<std::string> copies = arguments;
            for (std::string& argument : copies)
                argv.push_back(argument.data());
            argv.push_back(nullptr);
            execv(argv[0], argv.data());
            _exit(127);
        }
        close(output[1]);
        m_output = output[0];
        return m_pid > 0;
    }

    // Runs `body` in a forked copy of this process; its result is the exit code.
    template <typename Body>
    bool Fork(Body body)
    {
        m_pid = fork();
        if (m_pid == 0)
            _exit(body());
        return m_pid > 0;
    }

    std::string ReadLine(int timeoutMs = 5000)
    {
        std::string line;
        char c = 0;
        pollfd waitFor { m_output, POLLIN, 0 };
        while (poll(&waitFor, 1, timeoutMs) == 1 && read(m_output, &c, 1) == 1 && c != '\n')
            line += c;
        return line;
    }

    void Kill()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGKILL);
            Reap();
        }
        if (m_output >= 0) {
            close(m_output);
            m_output = -1;
        }
    }

    // Waits for the child to end and returns its exit code (-1 when killed or not started).
    int Reap()
    {
        if (m_pid <= 0)
            return -1;
        int status = 0;
        waitpid(m_pid, &status, 0);
        m_pid = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }

    pid_t Pid() const { return m_pid; }

private:
    pid_t m_pid = -1;
    int m_output = -1;
};

TEST(NamedObjectsProcesses, KilledOwnerAbandonsTheMutexAtOnce)
{
    std::vector<double> figuresMs;
    for (int round = 0; round < 5; ++round) {
        const std::string mutexName = UniqueName("killed");
        const std::string readyName = UniqueName("ready");
        const ObjHandle ready = CreateNamedEvent(readyName, false, false);
        const ObjHandle mutex = CreateNamedMutex(mutexName, false);
        Child owner;
        ASSERT_TRUE(owner.Spawn({ "own", mutexName, readyName }));
        ASSERT_EQ(WaitForObject(ready, 5000), kWaitObject0);
        EXPECT_EQ(WaitForObject(mutex, 0), kWaitTimeout);

        std::atomic<uint32_t> result { 0 };
        std::atomic<int64_t> seenAt { 0 };
        std::thread waiter([&] {
            result = WaitForObject(mutex, 5000);
            seenAt = Clock::now().time_since_epoch().count();
        });
        std::this_thread::sleep_for(std::chrono::milliseconds(40));
        const auto killedAt = Clock::now();
        // Not reaped before the waiter returns: a zombie owner is just as dead.
        kill(owner.Pid(), SIGKILL);
        waiter.join();
        owner.Reap();
        EXPECT_EQ(result.load(), kWaitAbandoned0);
        const double ms = std::chrono::duration<double, std::milli>(
                              Clock::time_point(Clock::duration(seenAt.load())) - killedAt)
                              .count();
        figuresMs.push_back(ms);
        EXPECT_LT(ms, 1000.0);
        // The waiter thread became the owner and ended: abandoned once more.
        EXPECT_EQ(WaitForObject(mutex, 1000), kWaitAbandoned0);
        ReleaseNamedMutex(mutex);
        CloseObject(mutex);
        CloseObject(ready);
    }
    std::sort(figuresMs.begin(), figuresMs.end());
    std::printf("abandonment seen %.1f ms (median) %.1f ms (max) after SIGKILL\n", figuresMs[2], figuresMs[4]);
    RecordProperty("abandon_median_ms", std::to_string(figuresMs[2]));
    RecordProperty("abandon_max_ms", std::to_string(figuresMs[4]));
}

TEST(NamedObjectsProcesses, ProcessThatExitsOwningTheMutexAbandonsIt)
{
    const std::string mutexName = UniqueName("exits");
    const std::string readyName = UniqueName("ready");
    const std::string goName = UniqueName("go");
    const ObjHandle ready = CreateNamedEvent(readyName, false, false);
    const ObjHandle go = CreateNamedEvent(goName, true, false);
    const ObjHandle mutex = CreateNamedMutex(mutexName, false);
    Child owner;
    ASSERT_TRUE(owner.Spawn({ "own", mutexName, readyName, goName }));
    ASSERT_EQ(WaitForObject(ready, 5000), kWaitObject0);
    SetNamedEvent(go);
    EXPECT_EQ(WaitForObject(mutex, 5000), kWaitAbandoned0);
    EXPECT_EQ(owner.Reap(), 0);
    EXPECT_TRUE(ReleaseNamedMutex(mutex));
    CloseObject(mutex);
    CloseObject(go);
    CloseObject(ready);
}

TEST(NamedObjectsProcesses, EventsAndMappingsAreSharedWithAnotherProcess)
{
    const std::string base = UniqueName("link");
    const ObjHandle ping = CreateNamedEvent(base + "ping", false, false);
    const ObjHandle pong = CreateNamedEvent(base + "pong", false, false);
    const ObjHandle mem = CreateNamedMapping(base + "mem", 3000);
    ASSERT_NE(mem, 0u);
    auto* view = static_cast<unsigned char*>(MapNamedMapping(mem, nullptr));
    ASSERT_NE(view, nullptr);

    Child child;
    ASSERT_TRUE(child.Fork([&base] {
        // Handles are not inherited: the child opens by name like any other process.
        if (WaitForObject(1, 0) != kWaitFailed)
            return 10;
        const ObjHandle childPing = OpenNamedEvent(base + "ping");
        const ObjHandle childPong = OpenNamedEvent(base + "pong");
        const ObjHandle childMem = OpenNamedMapping(base + "mem");
        size_t size = 0;
        auto* childView = static_cast<unsigned char*>(MapNamedMapping(childMem, &size));
        if (childPing == 0 || childPong == 0 || childView == nullptr)
            return 11;
        if (size != 3000)
            return 12;
        for (int round = 0; round < 100; ++round) {
            if (WaitForObject(childPing, 5000) != kWaitObject0)
                return 13;
            childView[size - 1] = static_cast<unsigned char>(childView[0] + 1);
            SetNamedEvent(childPong);
        }
        return 0;
    }));
    for (int round = 0; round < 100; ++round) {
        view[0] = static_cast<unsigned char>(round);
        ASSERT_TRUE(SetNamedEvent(ping));
        ASSERT_EQ(WaitForObject(pong, 5000), kWaitObject0) << round;
        ASSERT_EQ(view[2999], static_cast<unsigned char>(round + 1));
    }
    EXPECT_EQ(child.Reap(), 0);
    UnmapNamedMapping(view);
    CloseObject(mem);
    CloseObject(pong);
    CloseObject(ping);
}

struct ServeReport {
    unsigned work = 99, req = 99, mem = 99, zero = 9, wait = 99;
    size_t size = 0;
};

ServeReport ParseServe(const std::string& line)
{
    ServeReport report;
    std::sscanf(line.c_str(), "work=%u req=%u mem=%u size=%zu zero=%u wait=%u", &report.work, &report.req,
                &report.mem, &report.size, &report.zero, &report.wait);
    return report;
}

TEST(NamedObjectsProcesses, ServiceRestartedAfterACrashCreatesItsObjectsAfresh)
{
    const std::string base = UniqueName("Global\\MOS_ipc");
    const std::string readyName = UniqueName("ready");
    const ObjHandle ready = CreateNamedEvent(readyName, false, false);
    {
        Child service;
        Child client;
        ASSERT_TRUE(service.Spawn({ "serve", base, "4096", readyName }));
        const ServeReport first = ParseServe(service.ReadLine());
        EXPECT_EQ(first.work, kErrorSuccess);
        EXPECT_EQ(first.mem, kErrorSuccess);
        EXPECT_EQ(first.size, 4096u);
        EXPECT_EQ(first.zero, 1u);
        EXPECT_EQ(first.wait, kWaitObject0);
        ASSERT_EQ(WaitForObject(ready, 5000), kWaitObject0);
        ASSERT_TRUE(client.Spawn({ "hold", base, readyName }));
        ASSERT_EQ(WaitForObject(ready, 5000), kWaitObject0);
        // Both die without closing anything; only this process reaps them.
    }
    Child restarted;
    ASSERT_TRUE(restarted.Spawn({ "serve", base, "8192", readyName }));
    const ServeReport second = ParseServe(restarted.ReadLine());
    EXPECT_EQ(second.work, kErrorSuccess);
    EXPECT_EQ(second.req, kErrorSuccess);
    EXPECT_EQ(second.mem, kErrorSuccess);
    EXPECT_EQ(second.size, 8192u);
    EXPECT_EQ(second.zero, 1u);
    EXPECT_EQ(second.wait, kWaitObject0);
    CloseObject(ready);
}

TEST(NamedObjectsProcesses, RestartWhileAClientHoldsTheObjectsSeesThemAbandoned)
{
    const std::string base = UniqueName("Global\\MOS_ipc");
    const std::string readyName = UniqueName("ready");
    const ObjHandle ready = CreateNamedEvent(readyName, false, false);
    ObjHandle work = 0;
    ObjHandle mem = 0;
    {
        Child service;
        ASSERT_TRUE(service.Spawn({ "serve", base, "4096", readyName }));
        ASSERT_EQ(ParseServe(service.ReadLine()).work, kErrorSuccess);
        ASSERT_EQ(WaitForObject(ready, 5000), kWaitObject0);
        work = OpenNamedMutex(base + "work");
        mem = OpenNamedMapping(base + "mem");
        ASSERT_NE(work, 0u);
    }
    Child restarted;
    ASSERT_TRUE(restarted.Spawn({ "serve", base, "8192", readyName }));
    const ServeReport second = ParseServe(restarted.ReadLine());
    EXPECT_EQ(second.work, kErrorAlreadyExists);
    EXPECT_EQ(second.wait, kWaitAbandoned0);
    EXPECT_EQ(second.mem, kErrorAlreadyExists);
    EXPECT_EQ(second.size, 4096u);
    EXPECT_EQ(second.zero, 0u);
    EXPECT_EQ(second.req, kErrorSuccess);
    // The restarted service owns the mutex now.
    EXPECT_EQ(WaitForObject(work, 50), kWaitTimeout);
    CloseObject(mem);
    CloseObject(work);
    CloseObject(ready);
}

TEST(NamedObjectsProcesses, ProcessDyingInsideTheTableLeavesItRepaired)
{
    const std::string name = UniqueName("torn");
    const ObjHandle event = CreateNamedEvent(name, true, false);
    ASSERT_NE(event, 0u);
    Child child;
    ASSERT_TRUE(child.Fork([&name] {
        const ObjHandle mine = OpenNamedEvent(name);
        uint32_t error = 0;
        NamedObjectTable* table = NamedObjectTable::Get(&error);
        if (mine == 0 || table == nullptr)
            return 30;
        NamedObjectTable::Lock lock(*table);
        // Half an update: a reference count that matches no holder, then death with the lock.
        for (ObjectSlot& slot : table->Shared().objects) {
            if (slot.kind == static_cast<uint32_t>(ObjectKind::Event) && slot.totalRefs == 2)
                slot.totalRefs = 99;
        }
        _exit(0);
    }));
    EXPECT_EQ(child.Reap(), 0);
    // The next user of the table repairs it: counts are rebuilt, the dead holder is dropped,
    // and the last real handle still ends the object.
    EXPECT_TRUE(SetNamedEvent(event));
    EXPECT_EQ(WaitForObject(event, 0), kWaitObject0);
    EXPECT_TRUE(CloseObject(event));
    EXPECT_EQ(OpenNamedEvent(name), 0u);
    EXPECT_EQ(LastObjectError(), kErrorFileNotFound);
}

TEST(NamedObjectsProcesses, AnotherUserCannotReachTheObjects)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to run a child as another user";
    const std::string name = UniqueName("mine");
    const ObjHandle mutex = CreateNamedMutex(name, false);
    const ObjHandle mem = CreateNamedMapping(name + "mem", 64);
    ASSERT_NE(mutex, 0u);
    const std::string table = NamedObjectTablePath();

    Child stranger;
    ASSERT_TRUE(stranger.Fork([&] {
        if (setgid(65534) != 0 || setuid(65534) != 0)
            return 20;
        if (open(table.c_str(), O_RDWR) >= 0 || errno != EACCES)
            return 21;
        for (const ObjHandle handle : { OpenNamedMutex(name), OpenNamedMapping(name + "mem") }) {
            const uint32_t error = LastObjectError();
            if (handle != 0 || (error != kErrorFileNotFound && error != kErrorAccessDenied))
                return 22;
        }
        // Creating the same name makes an object of its own, not ours.
        const ObjHandle own = CreateNamedMutex(name, true);
        return own != 0 && LastObjectError() == kErrorSuccess ? 0 : 23;
    }));
    EXPECT_EQ(stranger.Reap(), 0);
    EXPECT_EQ(WaitForObject(mutex, 0), kWaitObject0);
    ReleaseNamedMutex(mutex);
    CloseObject(mem);
    CloseObject(mutex);
}

// Plays the stranger (root) against a user (nobody) whose objects have no runtime folder and
// so live in /dev/shm, where anyone may create entries first.
class PlantedByAnotherUser : public ::testing::Test {
protected:
    static constexpr uid_t kUser = 65534;

    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root to plant files for another user";
        RemoveUsersSharedFolders();
    }
    void TearDown() override
    {
        if (geteuid() == 0)
            RemoveUsersSharedFolders();
    }

    static std::string SharedFolder() { return "/dev/shm/larimo-" + std::to_string(kUser); }

    static void RemoveUsersSharedFolders()
    {
        std::error_code ignored;
        for (const auto& entry : std::filesystem::directory_iterator("/dev/shm", ignored)) {
            const std::string file = entry.path().filename().string();
            if (file.rfind("larimo-" + std::to_string(kUser), 0) == 0)
                std::filesystem::remove_all(entry.path(), ignored);
        }
    }

    // As the user: make a mutex it owns and a mapping with a word in it, and have a second
    // process of the user find both; the objects must live below `expectedIn`. 0 when all of
    // it works, the failed step otherwise.
    static int UseObjectsAsTheUser(const char* runtimeFolder, const std::string& expectedIn)
    {
        Child user;
        const std::string name = UniqueName("planted");
        const bool forked = user.Fork([&] {
            if (setgid(kUser) != 0 || setuid(kUser) != 0)
                return 10;
            if (runtimeFolder != nullptr)
                setenv("XDG_RUNTIME_DIR", runtimeFolder, 1);
            else
                unsetenv("XDG_RUNTIME_DIR");
            const ObjHandle mutex = CreateNamedMutex(name, true);
            const ObjHandle mapping = CreateNamedMapping(name + "mem", 64);
            if (mutex == 0 || mapping == 0)
                return 11;
            auto* words = static_cast<char*>(MapNamedMapping(mapping, nullptr));
            if (words == nullptr)
                return 12;
            std::strcpy(words, "ours");
            Child second;
            second.Fork([&] {
                const ObjHandle sameMutex = OpenNamedMutex(name);
                const ObjHandle sameMapping = OpenNamedMapping(name + "mem");
                if (sameMutex == 0 || sameMapping == 0)
                    return 13;
                const auto* seen = static_cast<const char*>(MapNamedMapping(sameMapping, nullptr));
                if (seen == nullptr || std::strcmp(seen, "ours") != 0)
                    return 14;
                return WaitForObject(sameMutex, 0) == kWaitTimeout ? 0 : 15;
            });
            const int result = second.Reap();
            // Every file of the user sits in a folder of the user's own.
            struct stat info {};
            const std::string folder = NamedObjectFolder();
            if (lstat(folder.c_str(), &info) != 0 || !S_ISDIR(info.st_mode) || info.st_uid != kUser
                || (info.st_mode & 077) != 0)
                return 16;
            if (folder.rfind(expectedIn + "/", 0) != 0)
                return 17;
            return result;
        });
        return forked ? user.Reap() : -1;
    }
};

TEST_F(PlantedByAnotherUser, FilesAndFoldersInSharedMemoryChangeNothing)
{
    const std::string folder = SharedFolder();
    const std::string space = NamedObjectNamespace();
    struct Plant {
        const char* what;
        void (*make)(const std::string& folder, const std::string& space);
    };
    const Plant plants[] = {
        { "nothing", [](const std::string&, const std::string&) {} },
        { "a table file under the user's name",
          [](const std::string& base, const std::string& name) {
              std::ofstream(base + "-" + name + "-objects-v2") << "not a table";
              std::ofstream(base + "-objects-v2") << "not a table";
          } },
        { "a folder open to everyone under the user's folder name",
          [](const std::string& base, const std::string&) {
              mkdir(base.c_str(), 0777);
              chmod(base.c_str(), 0777);
          } },
        { "a file under the user's folder name",
          [](const std::string& base, const std::string&) { std::ofstream(base) << "mine"; } },
        { "a link to the stranger's own folder",
          [](const std::string& base, const std::string&) {
              mkdir("/dev/shm/larimo-planted-target", 0777);
              symlink("/dev/shm/larimo-planted-target", base.c_str());
          } },
    };
    for (const Plant& plant : plants) {
        SCOPED_TRACE(plant.what);
        RemoveUsersSharedFolders();
        plant.make(folder, space);
        EXPECT_EQ(UseObjectsAsTheUser(nullptr, "/dev/shm"), 0);
    }
    std::error_code ignored;
    std::filesystem::remove_all("/dev/shm/larimo-planted-target", ignored);
    RemoveNamedObjectNamespace(space);
}

TEST_F(PlantedByAnotherUser, TheUsersRuntimeFolderIsPreferredAndAStrangersIsNot)
{
    char pattern[] = "/tmp/larimo-runtime-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string runtime = pattern;
    // The user's own runtime folder holds the objects, whatever lies in /dev/shm.
    ASSERT_EQ(chown(runtime.c_str(), kUser, kUser), 0);
    std::ofstream(SharedFolder()) << "mine";
    EXPECT_EQ(UseObjectsAsTheUser(runtime.c_str(), runtime), 0);
    // A runtime folder the user was handed but does not own (a root shell's, kept by sudo) is
    // passed over for a folder of the user's own.
    ASSERT_EQ(chown(runtime.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(runtime.c_str(), 0755), 0);
    RemoveUsersSharedFolders();
    EXPECT_EQ(UseObjectsAsTheUser(runtime.c_str(), "/dev/shm"), 0);
    struct stat info {};
    EXPECT_EQ(lstat(SharedFolder().c_str(), &info), 0);
    EXPECT_EQ(info.st_uid, kUser);
    RemoveNamedObjectNamespace(NamedObjectNamespace());
    std::error_code ignored;
    std::filesystem::remove_all(runtime, ignored);
}

} // namespace
} // namespace larimo
