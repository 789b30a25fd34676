// SPDX-License-Identifier: GPL-3.0-or-later
// A separate program the multi-process tests start, so that a fresh process image (not a fork
// of the test) opens the user's object table:
//   own MUTEX READY [GO]   takes the mutex, sets READY; then waits for GO and exits still
//                          owning it, or without GO sleeps until killed
//   serve BASE SIZE READY  creates the objects a voice service creates, prints what it found,
//                          sets READY and sleeps until killed
//   hold BASE READY        opens those objects like a client, sets READY, sleeps until killed
#include "platform/NamedObjects.h"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

using namespace larimo;

[[noreturn]] void SleepUntilKilled()
{
    for (;;)
        pause();
}

bool SetReady(const char* name)
{
    const ObjHandle ready = OpenNamedEvent(name);
    return ready != 0 && SetNamedEvent(ready);
}

int Own(int argc, char** argv)
{
    const ObjHandle mutex = CreateNamedMutex(argv[2], false);
    if (mutex == 0 || WaitForObject(mutex, 5000) > kWaitAbandoned0 || !SetReady(argv[3]))
        return 2;
    if (argc < 5)
        SleepUntilKilled();
    const ObjHandle go = OpenNamedEvent(argv[4]);
    if (go == 0 || WaitForObject(go, 10000) != kWaitObject0)
        return 3;
    return 0;
}

int Serve(char** argv)
{
    const std::string base = argv[2];
    const ObjHandle work = CreateNamedMutex(base + "work", true);
    const uint32_t workError = LastObjectError();
    const ObjHandle request = CreateNamedEvent(base + "req", false, false);
    const uint32_t requestError = LastObjectError();
    const ObjHandle mem = CreateNamedMapping(base + "mem", std::strtoul(argv[3], nullptr, 10));
    const uint32_t memError = LastObjectError();
    size_t size = 0;
    auto* view = static_cast<char*>(MapNamedMapping(mem, &size));
    if (work == 0 || request == 0 || view == nullptr)
        return 2;
    bool zero = true;
    for (size_t i = 0; i < size; ++i)
        zero = zero && view[i] == 0;
    const uint32_t wait = WaitForObject(work, 2000);
    std::strcpy(view, "served");
    std::printf("work=%u req=%u mem=%u size=%zu zero=%d wait=%u\n", workError, requestError, memError, size,
                zero ? 1 : 0, wait);
    std::fflush(stdout);
    if (!SetReady(argv[4]))
        return 3;
    SleepUntilKilled();
}

int Hold(char** argv)
{
    const std::string base = argv[2];
    if (OpenNamedMutex(base + "work") == 0 || OpenNamedEvent(base + "req") == 0
        || OpenNamedMapping(base + "mem") == 0 || !SetReady(argv[3]))
        return 2;
    SleepUntilKilled();
}

} // namespace

int main(int argc, char** argv)
{
    const std::string command = argc > 1 ? argv[1] : "";
    if (command == "own" && argc >= 4)
        return Own(argc, argv);
    if (command == "serve" && argc >= 5)
        return Serve(argv);
    if (command == "hold" && argc >= 4)
        return Hold(argv);
    std::fprintf(stderr, "usage: own MUTEX READY [GO] | serve BASE SIZE READY | hold BASE READY\n");
    return 1;
}
