// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/NamedObjects.h"

#include "platform/NamedObjectTable.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

namespace larimo {
namespace {

// Test programs run side by side and share the user's namespace: keep names apart.
std::string UniqueName(const std::string& stem)
{
    static std::atomic<int> counter { 0 };
    return "Global\\LarimoTest_" + std::to_string(getpid()) + "_" + std::to_string(counter++) + "_" + stem;
}

// Closes the handle at the end of a scope.
class Handle {
public:
    explicit Handle(ObjHandle handle) : m_handle(handle) {}
    ~Handle()
    {
        if (m_handle != 0)
            CloseObject(m_handle);
    }
    Handle(const Handle&) = delete;
    Handle& operator=(const Handle&) = delete;
    ObjHandle get() const { return m_handle; }

private:
    ObjHandle m_handle;
};

template <typename Function>
uint32_t OnOtherThread(Function function)
{
    uint32_t result = 0;
    std::thread thread([&] { result = function(); });
    thread.join();
    return result;
}

TEST(NamedObjects, OpenAndCreateReportTheLastError)
{
    const std::string name = UniqueName("lookup");
    SetLastObjectError(kErrorSuccess);
    EXPECT_EQ(OpenNamedMutex(name), 0u);
    EXPECT_EQ(LastObjectError(), kErrorFileNotFound);
    EXPECT_EQ(OpenNamedEvent(name), 0u);
    EXPECT_EQ(LastObjectError(), kErrorFileNotFound);
    EXPECT_EQ(OpenNamedMapping(name), 0u);
    EXPECT_EQ(LastObjectError(), kErrorFileNotFound);

    Handle first(CreateNamedEvent(name, true, false));
    ASSERT_NE(first.get(), 0u);
    EXPECT_EQ(LastObjectError(), kErrorSuccess);
    Handle second(CreateNamedEvent(name, false, true));
    ASSERT_NE(second.get(), 0u);
    EXPECT_EQ(LastObjectError(), kErrorAlreadyExists);
    EXPECT_NE(first.get(), second.get());
    // The existing event keeps its state and manual reset: both handles see one object.
    EXPECT_EQ(WaitForObject(second.get(), 0), kWaitTimeout);
    ASSERT_TRUE(SetNamedEvent(first.get()));
    EXPECT_EQ(WaitForObject(second.get(), 0), kWaitObject0);
    EXPECT_EQ(WaitForObject(second.get(), 0), kWaitObject0);

    Handle opened(OpenNamedEvent(name));
    EXPECT_NE(opened.get(), 0u);
    EXPECT_EQ(LastObjectError(), kErrorSuccess);

    // One namespace for all kinds.
    EXPECT_EQ(CreateNamedMutex(name, false), 0u);
    EXPECT_EQ(LastObjectError(), kErrorInvalidHandle);
    EXPECT_EQ(OpenNamedMapping(name), 0u);
    EXPECT_EQ(LastObjectError(), kErrorInvalidHandle);

    EXPECT_EQ(OpenNamedMutex(""), 0u);
    EXPECT_EQ(LastObjectError(), kErrorInvalidParameter);
}

TEST(NamedObjects, NamesKeepTheirExactText)
{
    const std::string base = UniqueName("Case");
    const std::vector<std::string> names = {
        base, base + "\\x", base + "/x", base + "_X", base + "_x", base + "_\xC3\xA4", // a-umlaut
    };
    std::vector<ObjHandle> handles;
    for (const std::string& name : names) {
        handles.push_back(CreateNamedMutex(name, false));
        EXPECT_NE(handles.back(), 0u) << name;
        EXPECT_EQ(LastObjectError(), kErrorSuccess) << name;
    }
    for (const ObjHandle handle : handles)
        CloseObject(handle);

    // 259 UTF-16 units fit; 260 do not. A character outside the BMP counts two.
    const std::string stem = UniqueName("");
    const std::string longest = stem + std::string(259 - stem.size(), 'n');
    Handle fits(CreateNamedEvent(longest, false, false));
    EXPECT_NE(fits.get(), 0u);
    EXPECT_EQ(CreateNamedEvent(longest + "n", false, false), 0u);
    EXPECT_EQ(LastObjectError(), kErrorInvalidParameter);
    const std::string wide = stem + std::string(257 - stem.size(), 'n') + "\xF0\x9F\x8E\xA4"; // microphone
    EXPECT_EQ(CreateNamedEvent(wide + "n", false, false), 0u);
    Handle wideFits(CreateNamedEvent(wide, false, false));
    EXPECT_NE(wideFits.get(), 0u);
}

TEST(NamedObjects, BadHandlesAndArgumentsFail)
{
    EXPECT_FALSE(CloseObject(0));
    EXPECT_EQ(LastObjectError(), kErrorInvalidHandle);
    EXPECT_FALSE(CloseObject(123456));
    EXPECT_EQ(WaitForObject(0, 0), kWaitFailed);
    EXPECT_EQ(LastObjectError(), kErrorInvalidHandle);

    const ObjHandle mutex = CreateNamedMutex("", false);
    const ObjHandle event = CreateNamedEvent("", false, false);
    const ObjHandle mapping = CreateNamedMapping("", 100);
    ASSERT_NE(mutex, 0u);
    ASSERT_NE(event, 0u);
    ASSERT_NE(mapping, 0u);
    EXPECT_FALSE(SetNamedEvent(mutex));
    EXPECT_EQ(LastObjectError(), kErrorInvalidHandle);
    EXPECT_FALSE(ReleaseNamedMutex(event));
    EXPECT_EQ(LastObjectError(), kErrorInvalidHandle);
    EXPECT_EQ(MapNamedMapping(event, nullptr), nullptr);
    EXPECT_EQ(WaitForObject(mapping, 0), kWaitFailed);
    EXPECT_EQ(LastObjectError(), kErrorInvalidHandle);

    const ObjHandle many[65] = {};
    EXPECT_EQ(WaitForAnyObject(many, 0, 0), kWaitFailed);
    EXPECT_EQ(LastObjectError(), kErrorInvalidParameter);
    EXPECT_EQ(WaitForAnyObject(many, 65, 0), kWaitFailed);
    EXPECT_EQ(WaitForAnyObject(nullptr, 1, 0), kWaitFailed);
    EXPECT_EQ(CreateNamedMapping(UniqueName("empty"), 0), 0u);
    EXPECT_EQ(LastObjectError(), kErrorInvalidParameter);

    int notAView = 0;
    EXPECT_FALSE(UnmapNamedMapping(&notAView));
    EXPECT_FALSE(UnmapNamedMapping(nullptr));

    EXPECT_TRUE(CloseObject(event));
    EXPECT_FALSE(CloseObject(event));
    EXPECT_EQ(LastObjectError(), kErrorInvalidHandle);
    EXPECT_FALSE(SetNamedEvent(event));
    CloseObject(mutex);
    CloseObject(mapping);
}

TEST(NamedObjects, MutexIsRecursiveAndOnlyItsOwnerReleasesIt)
{
    const std::string name = UniqueName("recursive");
    Handle mutex(CreateNamedMutex(name, true));
    ASSERT_NE(mutex.get(), 0u);
    EXPECT_EQ(WaitForObject(mutex.get(), 0), kWaitObject0);

    Handle again(CreateNamedMutex(name, true));
    EXPECT_EQ(LastObjectError(), kErrorAlreadyExists);
    EXPECT_EQ(OnOtherThread([&] { return WaitForObject(again.get(), 30); }), kWaitTimeout);
    EXPECT_EQ(OnOtherThread([&] {
                  const bool released = ReleaseNamedMutex(mutex.get());
                  return released ? 0u : LastObjectError();
              }),
              kErrorNotOwner);

    EXPECT_TRUE(ReleaseNamedMutex(mutex.get()));
    EXPECT_EQ(OnOtherThread([&] { return WaitForObject(mutex.get(), 0); }), kWaitTimeout);
    EXPECT_TRUE(ReleaseNamedMutex(again.get()));
    EXPECT_FALSE(ReleaseNamedMutex(mutex.get()));
    EXPECT_EQ(LastObjectError(), kErrorNotOwner);

    // Free now: another thread takes it, and its creation with initial ownership was ignored.
    EXPECT_EQ(OnOtherThread([&] {
                  const uint32_t result = WaitForObject(again.get(), 0);
                  ReleaseNamedMutex(again.get());
                  return result;
              }),
              kWaitObject0);
}

TEST(NamedObjects, ThreadThatEndsOwningAMutexAbandonsIt)
{
    Handle mutex(CreateNamedMutex(UniqueName("abandon"), false));
    Handle event(CreateNamedEvent("", false, false));
    std::thread owner([&] { ASSERT_EQ(WaitForObject(mutex.get(), 0), kWaitObject0); });
    owner.join();

    const ObjHandle both[] = { event.get(), mutex.get() };
    EXPECT_EQ(WaitForAnyObject(both, 2, 1000), kWaitAbandoned0 + 1);
    // The new owner holds it normally; once released it is plain signalled again.
    EXPECT_EQ(WaitForObject(mutex.get(), 0), kWaitObject0);
    EXPECT_TRUE(ReleaseNamedMutex(mutex.get()));
    EXPECT_TRUE(ReleaseNamedMutex(mutex.get()));
    EXPECT_EQ(OnOtherThread([&] {
                  const uint32_t result = WaitForObject(mutex.get(), 0);
                  ReleaseNamedMutex(mutex.get());
                  return result;
              }),
              kWaitObject0);
}

struct EventCase {
    bool manualReset;
    int waiters;
};

class EventRelease : public ::testing::TestWithParam<EventCase> {};

TEST_P(EventRelease, SetReleasesOneWaiterOrAll)
{
    const EventCase param = GetParam();
    Handle event(CreateNamedEvent(UniqueName("event"), param.manualReset, false));
    std::atomic<int> released { 0 };
    std::vector<std::thread> threads;
    for (int i = 0; i < param.waiters; ++i) {
        threads.emplace_back([&] {
            if (WaitForObject(event.get(), 5000) == kWaitObject0)
                ++released;
        });
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(released.load(), 0);

    ASSERT_TRUE(SetNamedEvent(event.get()));
    if (param.manualReset) {
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(released.load(), param.waiters);
        EXPECT_EQ(WaitForObject(event.get(), 0), kWaitObject0);
        ASSERT_TRUE(ResetNamedEvent(event.get()));
        EXPECT_EQ(WaitForObject(event.get(), 0), kWaitTimeout);
        return;
    }
    // One set, one release; the event is reset by the wait it satisfied.
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    EXPECT_EQ(released.load(), 1);
    for (int i = 1; i < param.waiters; ++i) {
        const int before = released.load();
        ASSERT_TRUE(SetNamedEvent(event.get()));
        for (int spin = 0; spin < 200 && released.load() == before; ++spin)
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        EXPECT_EQ(released.load(), before + 1);
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(WaitForObject(event.get(), 0), kWaitTimeout);
}

INSTANTIATE_TEST_SUITE_P(NamedObjects, EventRelease,
                         ::testing::Values(EventCase { false, 1 }, EventCase { false, 4 }, EventCase { true, 1 },
                                           EventCase { true, 4 }),
                         [](const ::testing::TestParamInfo<EventCase>& test) {
                             return std::string(test.param.manualReset ? "Manual" : "Auto")
                                 + std::to_string(test.param.waiters);
                         });

TEST(NamedObjects, WaitAnyTakesTheLowestSignalledIndexOrTimesOut)
{
    Handle first(CreateNamedEvent("", false, false));
    Handle second(CreateNamedEvent("", false, false));
    Handle mutex(CreateNamedMutex("", false));
    const ObjHandle set[] = { first.get(), second.get() };

    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(WaitForAnyObject(set, 2, 60), kWaitTimeout);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(60));

    SetNamedEvent(second.get());
    SetNamedEvent(first.get());
    EXPECT_EQ(WaitForAnyObject(set, 2, 0), kWaitObject0);
    EXPECT_EQ(WaitForAnyObject(set, 2, 0), kWaitObject0 + 1);
    EXPECT_EQ(WaitForAnyObject(set, 2, 0), kWaitTimeout);

    // A mutex held elsewhere is not signalled; one held by the caller is.
    std::atomic<bool> held { false };
    std::atomic<bool> done { false };
    std::thread owner([&] {
        WaitForObject(mutex.get(), 0);
        held = true;
        while (!done)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        ReleaseNamedMutex(mutex.get());
    });
    while (!held)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const ObjHandle mixed[] = { first.get(), mutex.get(), second.get() };
    EXPECT_EQ(WaitForAnyObject(mixed, 3, 30), kWaitTimeout);
    SetNamedEvent(second.get());
    EXPECT_EQ(WaitForAnyObject(mixed, 3, 1000), kWaitObject0 + 2);

    // A set event wakes a waiter that is already asleep.
    std::thread setter([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        SetNamedEvent(first.get());
    });
    EXPECT_EQ(WaitForAnyObject(mixed, 3, 5000), kWaitObject0);
    setter.join();
    done = true;
    owner.join();

    EXPECT_EQ(WaitForAnyObject(mixed, 3, 0), kWaitObject0 + 1);
    EXPECT_EQ(WaitForAnyObject(mixed, 3, 0), kWaitObject0 + 1);
    EXPECT_TRUE(ReleaseNamedMutex(mutex.get()));
    EXPECT_TRUE(ReleaseNamedMutex(mutex.get()));
}

TEST(NamedObjects, MappingIsZeroFilledSharedAndSized)
{
    const std::string name = UniqueName("mem");
    Handle created(CreateNamedMapping(name, 5000));
    ASSERT_NE(created.get(), 0u);
    size_t size = 0;
    auto* view = static_cast<unsigned char*>(MapNamedMapping(created.get(), &size));
    ASSERT_NE(view, nullptr);
    EXPECT_EQ(size, 5000u);
    for (size_t i = 0; i < size; ++i)
        ASSERT_EQ(view[i], 0) << i;

    Handle bigger(CreateNamedMapping(name, 9000));
    EXPECT_EQ(LastObjectError(), kErrorAlreadyExists);
    Handle opened(OpenNamedMapping(name));
    size_t openedSize = 0;
    auto* second = static_cast<unsigned char*>(MapNamedMapping(opened.get(), &openedSize));
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(openedSize, 5000u);
    EXPECT_NE(second, view);
    std::memcpy(view + 4990, "larimo", 6);
    EXPECT_EQ(std::memcmp(second + 4990, "larimo", 6), 0);

    EXPECT_TRUE(UnmapNamedMapping(second));
    EXPECT_FALSE(UnmapNamedMapping(second));
    EXPECT_TRUE(UnmapNamedMapping(view));
}

TEST(NamedObjects, LastCloseEndsTheObjectAndItsFiles)
{
    const std::string name = UniqueName("lifetime");
    const ObjHandle mapping = CreateNamedMapping(name, 64);
    ASSERT_NE(mapping, 0u);
    auto* view = static_cast<char*>(MapNamedMapping(mapping, nullptr));
    ASSERT_NE(view, nullptr);
    std::strcpy(view, "kept");
    EXPECT_TRUE(CloseObject(mapping));
    // The view outlives the handle; the name does not.
    EXPECT_STREQ(view, "kept");
    EXPECT_EQ(OpenNamedMapping(name), 0u);
    EXPECT_EQ(LastObjectError(), kErrorFileNotFound);
    UnmapNamedMapping(view);

    Handle fresh(CreateNamedMapping(name, 64));
    EXPECT_EQ(LastObjectError(), kErrorSuccess);
    auto* again = static_cast<char*>(MapNamedMapping(fresh.get(), nullptr));
    ASSERT_NE(again, nullptr);
    EXPECT_EQ(again[0], '\0');
    UnmapNamedMapping(again);

    const ObjHandle event = CreateNamedEvent(name + "ev", true, true);
    CloseObject(event);
    Handle recreated(CreateNamedEvent(name + "ev", true, false));
    EXPECT_EQ(LastObjectError(), kErrorSuccess);
    EXPECT_EQ(WaitForObject(recreated.get(), 0), kWaitTimeout);
}

TEST(NamedObjects, FilesArePrivateToTheUser)
{
    Handle mapping(CreateNamedMapping(UniqueName("private"), 16));
    ASSERT_NE(mapping.get(), 0u);
    const std::string folder = NamedObjectFolder();
    ASSERT_FALSE(folder.empty());
    struct stat info {};
    ASSERT_EQ(lstat(folder.c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(info.st_uid, geteuid());
    int files = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (stat(entry.path().c_str(), &info) != 0)
            continue; // closed by a test running beside this one
        ++files;
        EXPECT_EQ(info.st_mode & 0777, 0600u) << entry.path();
        EXPECT_EQ(info.st_uid, geteuid()) << entry.path();
    }
    EXPECT_GE(files, 2); // the table and this mapping at least
}

TEST(NamedObjects, TheSessionsRuntimeFolderHoldsTheObjects)
{
    // Only where the folder is, not the table this program already uses, follows the variable.
    char pattern[] = "/tmp/larimo-runtime-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    const std::string runtime = pattern;
    const char* saved = std::getenv("XDG_RUNTIME_DIR");
    const std::string before = saved != nullptr ? saved : "";

    setenv("XDG_RUNTIME_DIR", runtime.c_str(), 1);
    const std::string folder = NamedObjectFolder();
    EXPECT_EQ(folder, runtime + "/larimo/" + NamedObjectNamespace());
    // A runtime folder others may write to is no place for them.
    ASSERT_EQ(chmod(runtime.c_str(), 0777), 0);
    EXPECT_EQ(NamedObjectFolder().rfind(runtime, 0), std::string::npos);
    // Nor is a relative path.
    setenv("XDG_RUNTIME_DIR", "relative/run", 1);
    EXPECT_EQ(NamedObjectFolder().find("relative"), std::string::npos);

    if (saved != nullptr)
        setenv("XDG_RUNTIME_DIR", before.c_str(), 1);
    else
        unsetenv("XDG_RUNTIME_DIR");
    RemoveNamedObjectNamespace(NamedObjectNamespace());
    std::error_code ignored;
    std::filesystem::remove_all(runtime, ignored);
}

} // namespace
} // namespace larimo
