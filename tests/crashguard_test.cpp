// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/CrashGuard.h"

#include "exception.h"

#include <gtest/gtest.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cfenv>
#include <csignal>
#include <stdexcept>
#include <thread>
#include <tuple>

#if defined(__SANITIZE_ADDRESS__)
// AddressSanitizer keeps SIGSEGV to itself unless told to let the program install a handler.
extern "C" __attribute__((used, visibility("default"))) const char* __asan_default_options()
{
    return "allow_user_segv_handler=1";
}
#endif

namespace larimo {
namespace {

// Out of line and through a volatile copy, so the optimiser cannot see (and warn about) the
// bad address it is given.
__attribute__((noinline)) void WriteTo(uintptr_t address)
{
    const volatile uintptr_t where = address;
    *reinterpret_cast<volatile int*>(where) = 1;
}

__attribute__((noinline)) int ReadFrom(uintptr_t address)
{
    const volatile uintptr_t where = address;
    return *reinterpret_cast<volatile int*>(where);
}

#if defined(__x86_64__)
// In assembly so that neither the compiler nor the sanitizer sees the division by zero.
int DivideByZero(int dividend)
{
    int divisor = 0;
    int quotient = 0;
    asm volatile("cltd\n\tidivl %2" : "=a"(quotient) : "a"(dividend), "r"(divisor) : "edx");
    return quotient;
}

void IllegalInstruction()
{
    asm volatile("ud2");
}
#endif

volatile bool g_keepGoing = true;

__attribute__((noinline)) int RecurseForever(int depth)
{
    volatile char frame[512];
    frame[0] = static_cast<char>(depth);
    if (g_keepGoing)
        return RecurseForever(depth + 1) + frame[0];
    return frame[0];
}

// A page the test owns, so that faults on it have a known address.
class Page {
public:
    explicit Page(int protection)
        : m_size(static_cast<size_t>(sysconf(_SC_PAGESIZE))),
          m_base(mmap(nullptr, m_size, protection, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0))
    {
    }
    ~Page()
    {
        if (m_base != MAP_FAILED)
            munmap(m_base, m_size);
    }
    Page(const Page&) = delete;
    Page& operator=(const Page&) = delete;
    uintptr_t Address() const { return reinterpret_cast<uintptr_t>(m_base); }
    bool Valid() const { return m_base != MAP_FAILED; }

private:
    size_t m_size;
    void* m_base;
};

template <typename Function>
ExceptionRecord ExpectFault(Function function)
{
    ExceptionRecord record;
    EXPECT_FALSE(CrashGuard::Run(function, record));
    return record;
}

TEST(CrashGuard, MemoryFaultsBecomeAccessViolationsWithAccessAndAddress)
{
    ASSERT_TRUE(CrashGuard::Install());
    ExceptionRecord record = ExpectFault([] { WriteTo(0x10); });
    EXPECT_EQ(record.code, kExceptionAccessViolation);
    EXPECT_EQ(record.signal, SIGSEGV);
    EXPECT_EQ(DescribeException(record), "Unhandled exeption. Access violation writing location by address 0x10");

    const Page unreadable(PROT_NONE);
    ASSERT_TRUE(unreadable.Valid());
    const uintptr_t readAddress = unreadable.Address() + 8;
    record = ExpectFault([readAddress] { ReadFrom(readAddress); });
    EXPECT_EQ(record.code, kExceptionAccessViolation);
    EXPECT_EQ(record.numberParameters, 2U);
    EXPECT_EQ(record.information[0], 0U) << "a read";
    EXPECT_EQ(record.information[1], readAddress);

    const Page readOnly(PROT_READ);
    ASSERT_TRUE(readOnly.Valid());
    const uintptr_t writeAddress = readOnly.Address() + 64;
    record = ExpectFault([writeAddress] { WriteTo(writeAddress); });
    EXPECT_EQ(record.code, kExceptionAccessViolation);
    EXPECT_NE(record.information[0], 0U) << "a write";
    EXPECT_EQ(record.information[1], writeAddress);
}

#if defined(__x86_64__)
TEST(CrashGuard, ArithmeticAndInstructionFaultsHaveTheirCodes)
{
    ExceptionRecord record = ExpectFault([] { DivideByZero(7); });
    EXPECT_EQ(record.code, kExceptionIntDivideByZero);
    EXPECT_EQ(record.signal, SIGFPE);
    EXPECT_EQ(DescribeException(record), "Unhandled exeption. Exception code: EXCEPTION_INT_DIVIDE_BY_ZERO");

    record = ExpectFault([] { IllegalInstruction(); });
    EXPECT_EQ(record.code, kExceptionIllegalInstruction);
    EXPECT_EQ(record.signal, SIGILL);
    EXPECT_EQ(DescribeException(record), "Unhandled exeption. Exception code: EXCEPTION_ILLEGAL_INSTRUCTION");

    // A plug-in that unmasks floating-point traps and then faults leaves them unmasked; the
    // guard puts the caller's floating-point environment back.
    volatile double zero = 0.0;
    record = ExpectFault([&zero] {
        feenableexcept(FE_DIVBYZERO);
        volatile double result = 1.0 / zero;
        (void)result;
    });
    EXPECT_EQ(record.code, kExceptionFltDivideByZero);
    EXPECT_EQ(fegetexcept(), 0);
}
#endif

TEST(CrashGuard, UnboundedRecursionIsAStackOverflowOnAnyThread)
{
    g_keepGoing = true;
    ExceptionRecord record = ExpectFault([] { RecurseForever(0); });
    EXPECT_EQ(record.code, kExceptionStackOverflow);
    EXPECT_EQ(DescribeException(record), "Unhandled exeption. Exception code: EXCEPTION_STACK_OVERFLOW");

    ExceptionRecord threadRecord;
    bool returned = true;
    std::thread worker([&] {
        CrashGuard::PrepareThread();
        auto recurse = [] { RecurseForever(0); };
        returned = CrashGuard::Run(recurse, threadRecord);
    });
    worker.join();
    EXPECT_FALSE(returned);
    EXPECT_EQ(threadRecord.code, kExceptionStackOverflow);

    // The stack is usable again afterwards.
    int value = 0;
    auto normal = [&value] { value = 42; };
    ExceptionRecord after;
    EXPECT_TRUE(CrashGuard::Run(normal, after));
    EXPECT_EQ(value, 42);
}

TEST(CrashGuard, NormalCallsReturnAndNestedFaultsReturnFromTheInnermostCall)
{
    int result = 0;
    ExceptionRecord inner;
    bool innerReturned = true;
    auto outerCall = [&] {
        auto faulting = [] { WriteTo(0x20); };
        innerReturned = CrashGuard::Run(faulting, inner);
        result = 5;
    };
    ExceptionRecord outer;
    EXPECT_TRUE(CrashGuard::Run(outerCall, outer));
    EXPECT_FALSE(innerReturned);
    EXPECT_EQ(inner.information[1], 0x20U);
    EXPECT_EQ(result, 5);
    EXPECT_EQ(outer.code, 0U);

    // After a normal inner call, a fault belongs to the outer call.
    auto outerFaulting = [&] {
        auto fine = [&] { result = 6; };
        ExceptionRecord unused;
        CrashGuard::Run(fine, unused);
        WriteTo(0x30);
    };
    EXPECT_FALSE(CrashGuard::Run(outerFaulting, outer));
    EXPECT_EQ(result, 6);
    EXPECT_EQ(outer.information[1], 0x30U);
}

TEST(CrashGuard, KeepsWorkingAfterManyFaults)
{
    for (int round = 0; round < 12; ++round) {
        const uintptr_t address = 0x100 + static_cast<uintptr_t>(round) * 8;
        ExceptionRecord record = ExpectFault([address] { WriteTo(address); });
        ASSERT_EQ(record.code, kExceptionAccessViolation) << "round " << round;
        ASSERT_EQ(record.information[1], address);
#if defined(__x86_64__)
        record = ExpectFault([] { IllegalInstruction(); });
        ASSERT_EQ(record.code, kExceptionIllegalInstruction) << "round " << round;
#endif
    }
    int value = 0;
    auto normal = [&value] { value = 1; };
    ExceptionRecord record;
    EXPECT_TRUE(CrashGuard::Run(normal, record));
    EXPECT_EQ(value, 1);
}

TEST(CrashGuard, FaultsInOneThreadLeaveAnotherThreadsCallsAlone)
{
    std::atomic<bool> faulterDone{false};
    int caught = 0;
    std::thread faulter([&] {
        CrashGuard::PrepareThread();
        for (int i = 0; i < 200; ++i) {
            ExceptionRecord record;
            auto fault = [] { WriteTo(0x40); };
            if (!CrashGuard::Run(fault, record) && record.information[1] == 0x40)
                ++caught;
        }
        faulterDone = true;
    });
    long long total = 0;
    int normalCalls = 0;
    std::thread worker([&] {
        CrashGuard::PrepareThread();
        while (!faulterDone || normalCalls < 200) {
            ExceptionRecord record;
            auto add = [&total, normalCalls] { total += normalCalls; };
            if (CrashGuard::Run(add, record))
                ++normalCalls;
        }
    });
    faulter.join();
    worker.join();
    EXPECT_EQ(caught, 200);
    EXPECT_GE(normalCalls, 200);
    EXPECT_EQ(total, static_cast<long long>(normalCalls) * (normalCalls - 1) / 2);
}

void ForeignHandler(int) {}

TEST(CrashGuard, HandlersReplacedByGuardedCodeArePutBack)
{
    const unsigned before = CrashGuard::ReplacedHandlerCount();
    auto replacing = [] {
        std::signal(SIGSEGV, &ForeignHandler);
        std::signal(SIGFPE, SIG_DFL);
    };
    ExceptionRecord record;
    EXPECT_TRUE(CrashGuard::Run(replacing, record));
    EXPECT_EQ(CrashGuard::ReplacedHandlerCount(), before + 2);
    record = ExpectFault([] { WriteTo(0x50); });
    EXPECT_EQ(record.information[1], 0x50U);
}

TEST(CrashGuard, ExceptionsPassThroughAndDisarm)
{
    auto throwing = [] { throw std::runtime_error("from foreign code"); };
    ExceptionRecord record;
    EXPECT_THROW(CrashGuard::Run(throwing, record), std::runtime_error);
    record = ExpectFault([] { WriteTo(0x60); });
    EXPECT_EQ(record.information[1], 0x60U);
}

using CodeCase = std::tuple<int, int, uint32_t>;

class SignalCodes : public ::testing::TestWithParam<CodeCase> {};

TEST_P(SignalCodes, MapToExceptionCodes)
{
    const auto& [signal, signalCode, expected] = GetParam();
    EXPECT_EQ(ExceptionCodeFromSignal(signal, signalCode), expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SignalCodes,
    ::testing::Values(CodeCase{SIGSEGV, SEGV_MAPERR, 0xC0000005U}, CodeCase{SIGSEGV, SEGV_ACCERR, 0xC0000005U},
                      CodeCase{SIGBUS, BUS_ADRALN, 0x80000002U}, CodeCase{SIGBUS, BUS_ADRERR, 0xC0000006U},
                      CodeCase{SIGBUS, BUS_OBJERR, 0xC0000006U}, CodeCase{SIGFPE, FPE_INTDIV, 0xC0000094U},
                      CodeCase{SIGFPE, FPE_INTOVF, 0xC0000095U}, CodeCase{SIGFPE, FPE_FLTDIV, 0xC000008EU},
                      CodeCase{SIGFPE, FPE_FLTOVF, 0xC0000091U}, CodeCase{SIGFPE, FPE_FLTUND, 0xC0000093U},
                      CodeCase{SIGFPE, FPE_FLTRES, 0xC000008FU}, CodeCase{SIGFPE, FPE_FLTINV, 0xC0000090U},
                      CodeCase{SIGILL, ILL_ILLOPC, 0xC000001DU}, CodeCase{SIGILL, ILL_PRVOPC, 0xC0000096U},
                      CodeCase{SIGILL, ILL_PRVREG, 0xC0000096U}, CodeCase{SIGTERM, 0, 0U}));

enum class StrayFault { Write, IllegalInstruction, Sent, AfterThrow, OtherThread };

class FaultOutsideGuard : public ::testing::TestWithParam<std::tuple<StrayFault, int>> {};

// The child must die by the signal, exactly as it would without the guard installed.
TEST_P(FaultOutsideGuard, KillsTheProcessAsUsual)
{
    const auto [kind, expectedSignal] = GetParam();
#if !defined(__x86_64__)
    if (kind == StrayFault::IllegalInstruction)
        GTEST_SKIP() << "no ud2 here";
#endif
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const rlimit noCore{0, 0};
        setrlimit(RLIMIT_CORE, &noCore);
        CrashGuard::Install();
        ExceptionRecord record;
        switch (kind) {
        case StrayFault::Write:
            WriteTo(0x10);
            break;
        case StrayFault::IllegalInstruction:
#if defined(__x86_64__)
            IllegalInstruction();
#endif
            break;
        case StrayFault::Sent:
            kill(getpid(), SIGSEGV);
            break;
        case StrayFault::AfterThrow: {
            auto throwing = [] { throw std::runtime_error("x"); };
            try {
                CrashGuard::Run(throwing, record);
            } catch (const std::runtime_error&) {
            }
            WriteTo(0x10);
            break;
        }
        case StrayFault::OtherThread: {
            // One thread inside a guarded call does not make another thread's fault ours.
            std::atomic<bool> inside{false};
            std::thread guarded([&] {
                auto wait = [&] {
                    inside = true;
                    for (;;)
                        pause();
                };
                ExceptionRecord waitRecord;
                CrashGuard::Run(wait, waitRecord);
            });
            while (!inside)
                std::this_thread::yield();
            WriteTo(0x10);
            guarded.detach();
            break;
        }
        }
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "exit status " << (WIFEXITED(status) ? WEXITSTATUS(status) : -1);
    EXPECT_EQ(WTERMSIG(status), expectedSignal);
}

INSTANTIATE_TEST_SUITE_P(Kinds, FaultOutsideGuard,
                         ::testing::Values(std::make_tuple(StrayFault::Write, SIGSEGV),
                                           std::make_tuple(StrayFault::IllegalInstruction, SIGILL),
                                           std::make_tuple(StrayFault::Sent, SIGSEGV),
                                           std::make_tuple(StrayFault::AfterThrow, SIGSEGV),
                                           std::make_tuple(StrayFault::OtherThread, SIGSEGV)));

} // namespace
} // namespace larimo
