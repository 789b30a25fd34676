// SPDX-License-Identifier: GPL-3.0-or-later
// Guarded calls into foreign code (VST plug-ins): a hardware fault raised inside the call ends
// the call instead of the process and is reported as a structured exception record.
#pragma once

#include <cstdint>
#include <type_traits>

namespace larimo {

// Structured exception codes the guard reports.
constexpr uint32_t kExceptionDatatypeMisalignment = 0x80000002U;
constexpr uint32_t kExceptionAccessViolation = 0xC0000005U;
constexpr uint32_t kExceptionInPageError = 0xC0000006U;
constexpr uint32_t kExceptionIllegalInstruction = 0xC000001DU;
constexpr uint32_t kExceptionArrayBoundsExceeded = 0xC000008CU;
constexpr uint32_t kExceptionFltDivideByZero = 0xC000008EU;
constexpr uint32_t kExceptionFltInexactResult = 0xC000008FU;
constexpr uint32_t kExceptionFltInvalidOperation = 0xC0000090U;
constexpr uint32_t kExceptionFltOverflow = 0xC0000091U;
constexpr uint32_t kExceptionFltUnderflow = 0xC0000093U;
constexpr uint32_t kExceptionIntDivideByZero = 0xC0000094U;
constexpr uint32_t kExceptionIntOverflow = 0xC0000095U;
constexpr uint32_t kExceptionPrivInstruction = 0xC0000096U;
constexpr uint32_t kExceptionStackOverflow = 0xC00000FDU;

/// The fault that ended a guarded call.
struct ExceptionRecord {
    uint32_t code = 0;
    /// Address of the faulting instruction, where the system tells it.
    const void* instruction = nullptr;
    /// How many of `information` are meaningful (2 for memory faults, 0 otherwise).
    uint32_t numberParameters = 0;
    /// Memory faults: [0] non-zero when the access was a write, [1] the address accessed.
    uintptr_t information[2] = {0, 0};
    /// The signal behind the record and its si_code.
    int signal = 0;
    int signalCode = 0;
};

/// The structured exception code for a fault signal (SIGSEGV, SIGBUS, SIGFPE, SIGILL) with
/// the given si_code; 0 for any other signal. A SIGSEGV is an access violation here: telling a
/// stack overflow needs the faulting address. Any thread, async-signal-safe.
uint32_t ExceptionCodeFromSignal(int signal, int signalCode);

/// Runs functions so that SIGSEGV, SIGBUS, SIGFPE and SIGILL raised inside them return to the
/// caller with an ExceptionRecord. A fault outside any guarded call keeps the system's default
/// action (the process dies with a core dump).
///
/// Guarded calls may be made from any thread, the real-time audio thread included: arming and
/// disarming neither allocate nor lock, provided the thread was prepared first. Guarded calls
/// nest; a fault returns from the innermost one.
///
/// A fault unwinds nothing: objects with destructors living in the faulting frames are
/// abandoned, and state the foreign code was changing is left as it was. Never call code that
/// faulted again.
class CrashGuard {
public:
    /// Installs the fault handlers for the process (once; later calls only report). Any
    /// thread, not real-time: it may lock.
    static bool Install();

    /// Gives the calling thread an alternate signal stack, so that a stack overflow can be
    /// caught, and notes the bounds of its stack. Allocates; call on a thread before its first
    /// guarded call, off the real-time path (the first guarded call on an unprepared thread
    /// does it itself). Returns false when the thread could not get an alternate stack.
    static bool PrepareThread();

    /// Calls `function(context)`. Returns true when it returned normally, false when a fault
    /// ended it, with `record` describing the fault. C++ exceptions pass through unchanged.
    /// After the call the handlers are put back if the called code replaced them.
    static bool Call(void (*function)(void*), void* context, ExceptionRecord& record);

    /// Call for any callable, without allocating.
    template <typename Function>
    static bool Run(Function&& function, ExceptionRecord& record)
    {
        using Callable = std::remove_reference_t<Function>;
        return Call([](void* context) { (*static_cast<Callable*>(context))(); },
                    const_cast<std::remove_const_t<Callable>*>(&function), record);
    }

    /// How many times the handlers had to be put back after a guarded call. Any thread.
    static unsigned ReplacedHandlerCount();
};

} // namespace larimo
