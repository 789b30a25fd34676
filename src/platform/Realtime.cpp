// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/Realtime.h"

#include "platform/SdBus.h"

#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <memory>

namespace larimo {

namespace {

constexpr const char* kRtkitService = "org.freedesktop.RealtimeKit1";
constexpr const char* kRtkitPath = "/org/freedesktop/RealtimeKit1";
constexpr const char* kRtkitInterface = "org.freedesktop.RealtimeKit1";

// The error's text, or the result code's where the call failed without one.
std::string ErrorText(const BusError& error, int result)
{
    return *error.Message() != '\0' ? error.Message() : std::strerror(-result);
}

int ClampPriority(int priority)
{
    return std::clamp(priority, sched_get_priority_min(SCHED_FIFO), sched_get_priority_max(SCHED_FIFO));
}

} // namespace

int AudioThreadRealtimePriority()
{
    // PulseAudio's threads run at 5 by default and PipeWire's far higher: the server must
    // always be able to take what was written.
    return sched_get_priority_min(SCHED_FIFO) + 3;
}

RealtimeResult MakeThreadRealtime(pid_t tid, int priority)
{
    RealtimeResult result;
    result.priority = ClampPriority(priority);
    sched_param param{};
    param.sched_priority = result.priority;
    // Programs this service starts (plug-in helpers, say) must not inherit the priority.
    if (sched_setscheduler(tid, SCHED_FIFO | SCHED_RESET_ON_FORK, &param) == 0) {
        result.ok = true;
        return result;
    }
    const int direct = errno;
    result = RequestRealtimeFromRtkit(tid, priority);
    if (!result.ok)
        result.error = std::string("not allowed to set it (") + std::strerror(direct) + "), and RealtimeKit: " +
                       result.error;
    return result;
}

RealtimeResult RequestRealtimeFromRtkit(pid_t tid, int priority)
{
    RealtimeResult result;
    sd_bus* opened = nullptr;
    int status = sd_bus_open_system(&opened);
    const BusPointer bus(opened);
    if (status < 0) {
        result.error = std::string("no system bus (") + std::strerror(-status) + ")";
        return result;
    }

    int32_t maxPriority = 0;
    {
        BusError error;
        status = sd_bus_get_property_trivial(bus.get(), kRtkitService, kRtkitPath, kRtkitInterface,
                                             "MaxRealtimePriority", error.Get(), 'i', &maxPriority);
        if (status < 0) {
            result.error = "not available (" + ErrorText(error, status) + ")";
            return result;
        }
    }
    int64_t maxRtTimeUs = 0;
    {
        BusError error;
        status = sd_bus_get_property_trivial(bus.get(), kRtkitService, kRtkitPath, kRtkitInterface, "RTTimeUSecMax",
                                             error.Get(), 'x', &maxRtTimeUs);
        if (status < 0) {
            result.error = "no time limit given (" + ErrorText(error, status) + ")";
            return result;
        }
    }
    if (maxPriority < 1 || maxRtTimeUs <= 0) {
        result.error = "it grants no real-time priority here";
        return result;
    }

    // The daemon only serves processes that cannot hog a core for longer than it allows: a
    // real-time thread that runs that long without a pause is stopped by the kernel.
    rlimit limit{};
    if (getrlimit(RLIMIT_RTTIME, &limit) != 0) {
        result.error = std::string("RLIMIT_RTTIME unreadable (") + std::strerror(errno) + ")";
        return result;
    }
    const auto allowed = static_cast<rlim_t>(maxRtTimeUs);
    if (limit.rlim_max == RLIM_INFINITY || limit.rlim_max > allowed)
        limit.rlim_max = allowed;
    limit.rlim_cur = std::min(limit.rlim_cur, limit.rlim_max);
    if (setrlimit(RLIMIT_RTTIME, &limit) != 0) {
        result.error = std::string("RLIMIT_RTTIME cannot be set (") + std::strerror(errno) + ")";
        return result;
    }

    result.priority = std::min(ClampPriority(priority), static_cast<int>(maxPriority));
    BusError error;
    sd_bus_message* reply = nullptr;
    status = sd_bus_call_method(bus.get(), kRtkitService, kRtkitPath, kRtkitInterface, "MakeThreadRealtime",
                                error.Get(), &reply, "tu", static_cast<uint64_t>(tid),
                                static_cast<uint32_t>(result.priority));
    const MessagePointer answer(reply);
    if (status < 0) {
        result.error = "refused (" + ErrorText(error, status) + ")";
        return result;
    }
    result.ok = true;
    result.throughRtkit = true;
    return result;
}

} // namespace larimo
