// SPDX-License-Identifier: GPL-3.0-or-later
#include "platform/ProcessInfo.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <array>

namespace larimo {

std::string ExecutablePath()
{
    std::array<char, 4096> buffer{};
    const ssize_t length = readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
    if (length <= 0)
        return {};
    return std::string(buffer.data(), static_cast<size_t>(length));
}

unsigned CurrentThreadId()
{
    return static_cast<unsigned>(syscall(SYS_gettid));
}

} // namespace larimo
