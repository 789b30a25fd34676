// SPDX-License-Identifier: GPL-3.0-or-later
// Region files shape windows and buttons: any bytes must give a region or a refusal, and what
// was accepted must read back the same once written out again.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <span>

#include "DynRgn.h"

namespace {

void Check(bool condition)
{
    if (!condition)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::span<const std::uint8_t> bytes(data, size);
    larimo::CDynRgn region;
    if (!region.LoadFromData(bytes, 1.0, 1.0)) {
        Check(region.IsNull() && !region.LastError().empty());
        return 0;
    }
    larimo::CDynRgn again;
    Check(again.LoadFromData(larimo::CDynRgn::Serialize(region.Region()), 1.0, 1.0));
    Check(again.Region() == region.Region());

    const double scale = size > 0 ? 0.25 + data[0] / 64.0 : 1.0;
    larimo::CDynRgn scaled;
    scaled.LoadFromData(bytes, scale, 1.0 / scale);
    return 0;
}
