// SPDX-License-Identifier: GPL-3.0-or-later
// Real-time scheduling for the threads that carry the voice. A process with the right to it
// (root, or a raised RLIMIT_RTPRIO) sets SCHED_FIFO itself; a desktop user normally has no
// such right and asks the system's RealtimeKit daemon over the system bus instead, as sound
// servers do.
#pragma once

#include <sys/types.h>

#include <string>

namespace larimo {

/// The SCHED_FIFO priority Larimo's audio threads run at: a little above the lowest, so they
/// come before ordinary threads but stay below the sound server's own, which they feed.
/// Any thread.
int AudioThreadRealtimePriority();

/// How a thread got its priority, or why it did not.
struct RealtimeResult {
    bool ok = false;
    bool throughRtkit = false; ///< granted by RealtimeKit rather than set directly
    int priority = 0;          ///< the SCHED_FIFO priority the thread runs at when ok
    std::string error;         ///< why not, in English, when !ok
};

/// Puts thread `tid` (CurrentThreadId of ProcessInfo.h) of this process under SCHED_FIFO at `priority`: directly where allowed,
/// otherwise through RealtimeKit (which may lower the priority to its maximum). Blocks for a
/// bus round trip at most; never call it on a thread that must not block. Any thread.
RealtimeResult MakeThreadRealtime(pid_t tid, int priority);

/// Only the RealtimeKit route of MakeThreadRealtime. It first limits the process's real-time
/// CPU time without a pause (RLIMIT_RTTIME) to what the daemon demands. The system bus is the
/// one DBUS_SYSTEM_BUS_ADDRESS names, or the standard one.
RealtimeResult RequestRealtimeFromRtkit(pid_t tid, int priority);

} // namespace larimo
