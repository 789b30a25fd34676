// SPDX-License-Identifier: GPL-3.0-or-later
// The panel's reader of the service's trace memory, over any mapping image.
#include "TraceMemory.h"

#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::vector<int16_t> samples = larimo::ReadTraceImage(data, size);
    // Whatever the word says, never more than the image holds.
    if (samples.size() * 2 + 4 > size && !samples.empty())
        __builtin_trap();
    return 0;
}
