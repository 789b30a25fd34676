// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ProcessExitWatch.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <thread>

namespace larimo {
namespace {

bool Eventually(const std::function<bool()>& done)
{
    const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(5);
    while (!done()) {
        if (std::chrono::steady_clock::now() > limit)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

// A child that lives until its pipe is closed, or is killed. `other`: the pipe of an earlier
// child, which this one must not keep open.
pid_t StartChild(int* hold, int other = -1)
{
    int ends[2];
    if (pipe(ends) != 0)
        return -1;
    const pid_t child = fork();
    if (child == 0) {
        close(ends[1]);
        if (other >= 0)
            close(other);
        char byte = 0;
        (void)!read(ends[0], &byte, 1);
        _exit(0);
    }
    close(ends[0]);
    *hold = ends[1];
    return child;
}

TEST(ProcessExitWatch, CallsBackWhenAWatchedProcessEndsAndOnlyThen)
{
    static std::atomic<int> calls { 0 };
    static ProcessExitWatch* const watch = new ProcessExitWatch([] { ++calls; });

    int holdFirst = -1;
    int holdSecond = -1;
    const pid_t first = StartChild(&holdFirst);
    const pid_t second = StartChild(&holdSecond, holdFirst);
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    if (!watch->Watch(first))
        GTEST_SKIP() << "this system cannot watch processes (no pidfd_open)";
    EXPECT_TRUE(watch->Watch(first)); // the second time changes nothing
    EXPECT_TRUE(watch->Watch(second));
    EXPECT_EQ(watch->Count(), 2U);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(calls.load(), 0);

    // An orderly exit, not yet reaped: a zombie has ended all the same.
    close(holdFirst);
    EXPECT_TRUE(Eventually([] { return calls.load() == 1; }));
    EXPECT_EQ(watch->Count(), 1U);
    kill(second, SIGKILL);
    EXPECT_TRUE(Eventually([] { return calls.load() == 2; }));
    EXPECT_EQ(watch->Count(), 0U);
    waitpid(first, nullptr, 0);
    waitpid(second, nullptr, 0);
    close(holdSecond);

    // A process that is gone cannot be watched; the caller has to look for itself.
    EXPECT_FALSE(watch->Watch(first));
    EXPECT_FALSE(watch->Watch(0));
}

} // namespace
} // namespace larimo
