// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/CrashGuard.h"

#include <atomic>
#include <cfenv>
#include <csetjmp>
#include <csignal>
#include <mutex>

#include <pthread.h>
#include <sys/mman.h>
#include <ucontext.h>
#include <unistd.h>

namespace larimo {

namespace {

constexpr int kFaultSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr size_t kAltStackSize = 64 * 1024;
// An alternate stack someone else (the sanitizer runtime) already gave the thread is kept when
// it is at least this large: the handler needs little, and replacing a stack its owner will
// unmap at thread exit would end in a double unmap.
constexpr size_t kMinUsableAltStack = 16 * 1024;
// How far around the low end of the thread's stack a faulting address counts as an overflow:
// the guard area below it, and the last frames a deep recursion was pushing.
constexpr uintptr_t kOverflowBelow = 1024 * 1024;
constexpr uintptr_t kOverflowAbove = 64 * 1024;

// Trivially constructible and destructible, so that thread_local access needs no lazy
// initialisation: it is read inside the signal handler and on the audio thread.
struct ThreadGuard {
    sigjmp_buf* volatile armed;
    ExceptionRecord* volatile record;
    uintptr_t stackLow;
    bool prepared;
};

thread_local ThreadGuard t_guard;

std::atomic<bool> g_installed{false};
std::atomic<unsigned> g_replaced{0};
std::mutex g_installMutex;
struct sigaction g_action;

pthread_once_t g_keyOnce = PTHREAD_ONCE_INIT;
pthread_key_t g_altStackKey;
bool g_keyReady = false;

size_t PageSize()
{
    const long size = sysconf(_SC_PAGESIZE);
    return size > 0 ? static_cast<size_t>(size) : 4096;
}

void ReleaseAltStack(void* base)
{
    const size_t page = PageSize();
    stack_t current{};
    if (sigaltstack(nullptr, &current) == 0 && current.ss_sp == static_cast<char*>(base) + page) {
        stack_t off{};
        off.ss_flags = SS_DISABLE;
        sigaltstack(&off, nullptr);
    }
    munmap(base, kAltStackSize + page);
}

void MakeAltStackKey()
{
    g_keyReady = pthread_key_create(&g_altStackKey, &ReleaseAltStack) == 0;
}

void DieAsUsual(int signal, const siginfo_t* info)
{
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    sigaction(signal, &fallback, nullptr);
    // A fault comes back by itself when the instruction runs again; a signal sent by kill()
    // does not, so send it anew. It stays blocked until the handler returns.
    if (info == nullptr || info->si_code <= 0)
        raise(signal);
}

void FillRecord(ExceptionRecord& record, int signal, const siginfo_t* info, const void* context,
                uintptr_t stackLow)
{
    record.signal = signal;
    record.signalCode = info->si_code;
    record.code = ExceptionCodeFromSignal(signal, info->si_code);
    const auto address = reinterpret_cast<uintptr_t>(info->si_addr);
    record.instruction = info->si_addr;
    bool write = false;
#if defined(__x86_64__)
    const auto* machine = static_cast<const ucontext_t*>(context);
    record.instruction = reinterpret_cast<const void*>(machine->uc_mcontext.gregs[REG_RIP]);
    // Bit 1 of the page-fault error code is set for a write access.
    write = (machine->uc_mcontext.gregs[REG_ERR] & 2) != 0;
#else
    (void)context;
#endif
    if (signal == SIGSEGV || (signal == SIGBUS && record.code == kExceptionInPageError)) {
        record.numberParameters = 2;
        record.information[0] = write ? 1 : 0;
        record.information[1] = address;
        if (signal == SIGSEGV && stackLow != 0 && address + kOverflowBelow >= stackLow &&
            address < stackLow + kOverflowAbove)
            record.code = kExceptionStackOverflow;
    } else {
        record.numberParameters = 0;
        record.information[0] = 0;
        record.information[1] = 0;
    }
}

void OnFault(int signal, siginfo_t* info, void* context)
{
    ThreadGuard& guard = t_guard;
    sigjmp_buf* target = guard.armed;
    ExceptionRecord* record = guard.record;
    if (target == nullptr || record == nullptr || info == nullptr) {
        DieAsUsual(signal, info);
        return;
    }
    FillRecord(*record, signal, info, context, guard.stackLow);
    // A second fault before the jump lands must not come back here.
    guard.armed = nullptr;
    siglongjmp(*target, 1);
}

bool IsOurs(const struct sigaction& action)
{
    return (action.sa_flags & SA_SIGINFO) != 0 && action.sa_sigaction == &OnFault &&
           (action.sa_flags & SA_ONSTACK) != 0;
}

void RestoreHandlersIfReplaced()
{
    if (!g_installed.load(std::memory_order_acquire))
        return;
    for (int signal : kFaultSignals) {
        struct sigaction current {};
        if (sigaction(signal, nullptr, &current) == 0 && !IsOurs(current)) {
            sigaction(signal, &g_action, nullptr);
            g_replaced.fetch_add(1, std::memory_order_relaxed);
        }
    }
}

uintptr_t StackLowEnd()
{
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0)
        return 0;
    void* address = nullptr;
    size_t size = 0;
    const int result = pthread_attr_getstack(&attributes, &address, &size);
    pthread_attr_destroy(&attributes);
    return result == 0 ? reinterpret_cast<uintptr_t>(address) : 0;
}

// Restores what the guarded call saved, on a normal return, after a fault and when a C++
// exception leaves the call. Built before sigsetjmp and never changed after it, so its members
// keep their values across the jump.
class Arming {
public:
    Arming(ThreadGuard& guard, ExceptionRecord& record)
        : m_guard(guard), m_outerArmed(guard.armed), m_outerRecord(guard.record)
    {
        m_guard.record = &record;
    }
    ~Arming()
    {
        m_guard.armed = m_outerArmed;
        m_guard.record = m_outerRecord;
        std::atomic_signal_fence(std::memory_order_seq_cst);
        RestoreHandlersIfReplaced();
    }
    Arming(const Arming&) = delete;
    Arming& operator=(const Arming&) = delete;

private:
    ThreadGuard& m_guard;
    sigjmp_buf* const m_outerArmed;
    ExceptionRecord* const m_outerRecord;
};

} // namespace

uint32_t ExceptionCodeFromSignal(int signal, int signalCode)
{
    switch (signal) {
    case SIGSEGV:
        return kExceptionAccessViolation;
    case SIGBUS:
        return signalCode == BUS_ADRALN ? kExceptionDatatypeMisalignment : kExceptionInPageError;
    case SIGILL:
        return (signalCode == ILL_PRVOPC || signalCode == ILL_PRVREG) ? kExceptionPrivInstruction
                                                                      : kExceptionIllegalInstruction;
    case SIGFPE:
        switch (signalCode) {
        case FPE_INTDIV:
            return kExceptionIntDivideByZero;
        case FPE_INTOVF:
            return kExceptionIntOverflow;
        case FPE_FLTDIV:
            return kExceptionFltDivideByZero;
        case FPE_FLTOVF:
            return kExceptionFltOverflow;
        case FPE_FLTUND:
            return kExceptionFltUnderflow;
        case FPE_FLTRES:
            return kExceptionFltInexactResult;
        case FPE_FLTSUB:
            return kExceptionArrayBoundsExceeded;
        default:
            return kExceptionFltInvalidOperation;
        }
    default:
        return 0;
    }
}

bool CrashGuard::Install()
{
    if (g_installed.load(std::memory_order_acquire))
        return true;
    std::lock_guard<std::mutex> lock(g_installMutex);
    if (g_installed.load(std::memory_order_relaxed))
        return true;
    struct sigaction action {};
    action.sa_sigaction = &OnFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigemptyset(&action.sa_mask);
    bool installed = true;
    for (int signal : kFaultSignals) {
        struct sigaction check {};
        // Read back: a runtime that intercepts sigaction may refuse quietly.
        if (sigaction(signal, &action, nullptr) != 0 || sigaction(signal, nullptr, &check) != 0 ||
            !IsOurs(check))
            installed = false;
    }
    g_action = action;
    g_installed.store(installed, std::memory_order_release);
    return installed;
}

bool CrashGuard::PrepareThread()
{
    Install();
    ThreadGuard& guard = t_guard;
    if (guard.prepared)
        return true;
    guard.prepared = true;
    guard.stackLow = StackLowEnd();

    stack_t current{};
    if (sigaltstack(nullptr, &current) == 0 && (current.ss_flags & SS_DISABLE) == 0 &&
        current.ss_size >= kMinUsableAltStack)
        return true;

    pthread_once(&g_keyOnce, &MakeAltStackKey);
    if (!g_keyReady)
        return false;
    const size_t page = PageSize();
    void* base = mmap(nullptr, kAltStackSize + page, PROT_READ | PROT_WRITE,
                      MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (base == MAP_FAILED)
        return false;
    // A page below the handler's stack that faults, rather than memory it would overwrite.
    mprotect(base, page, PROT_NONE);
    stack_t ours{};
    ours.ss_sp = static_cast<char*>(base) + page;
    ours.ss_size = kAltStackSize;
    if (sigaltstack(&ours, nullptr) != 0 || pthread_setspecific(g_altStackKey, base) != 0) {
        ReleaseAltStack(base);
        return false;
    }
    return true;
}

bool CrashGuard::Call(void (*function)(void*), void* context, ExceptionRecord& record)
{
    ThreadGuard& guard = t_guard;
    if (!guard.prepared)
        PrepareThread();
    record = ExceptionRecord{};
    // The plug-in may leave the floating-point control word in any state when it faults.
    std::fenv_t environment;
    const bool savedEnvironment = fegetenv(&environment) == 0;
    Arming arming(guard, record);
    sigjmp_buf target;
    if (sigsetjmp(target, 1) != 0) {
        if (savedEnvironment)
            fesetenv(&environment);
        return false;
    }
    guard.armed = &target;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    function(context);
    return true;
}

unsigned CrashGuard::ReplacedHandlerCount()
{
    return g_replaced.load(std::memory_order_relaxed);
}

} // namespace larimo
