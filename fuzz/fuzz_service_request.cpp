// SPDX-License-Identifier: GPL-3.0-or-later
// Random requests against the service's command rules: a code, then the payload.
#include "server/CommandDispatcher.h"

#include <cstring>

using namespace larimo;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static CommandDispatcher dispatcher(
        [] {
            ServiceState state;
            state.funSounds.resize(5);
            return state;
        },
        512);
    // Feed a sequence of requests: [u16 code selector][u8 length][payload]...
    static const uint32_t kCodes[] = {101, 102, 103, 104, 105, 106, 201, 202, 301,
                                      302, 303, 401, 402, 403, 405, 406, 0,   999};
    size_t pos = 0;
    while (pos + 2 <= size) {
        const uint32_t code = kCodes[data[pos] % (sizeof kCodes / sizeof kCodes[0])];
        const size_t length = std::min<size_t>(data[pos + 1], size - pos - 2);
        const auto result = dispatcher.Handle(code, std::span<const uint8_t>(data + pos + 2, length));
        if (result.answer.size() > 512)
            __builtin_trap();
        pos += 2 + length;
    }
    const ServiceState& state = dispatcher.State();
    if (state.activeEffect < -1 || state.activeEffect > 2 || state.activeBackSound < -1 ||
        state.activeBackSound > 2 || state.monitorVol > 100)
        __builtin_trap();
    return 0;
}
