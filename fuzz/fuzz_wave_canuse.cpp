// SPDX-License-Identifier: GPL-3.0-or-later
// The quick usability check against the full read. They may disagree only where the format
// chunk runs into the end of the file: the check wants all 18 header bytes, the read wants
// the codec's extra bytes as well.
#include "riff.h"
#include "wave.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace {

// Whether the format chunk's header, or the extra bytes it announces, are cut by the end.
bool FormatChunkCutByEnd(std::span<const std::uint8_t> bytes)
{
    larimo::MemorySource source(bytes);
    larimo::RiffReader riff(source);
    const auto form = riff.FindForm(larimo::FourCc("WAVE"));
    if (!form)
        return false;
    const auto fmt = riff.FindChunk(*form, larimo::FourCc("fmt "));
    if (!fmt)
        return false;
    std::uint8_t cb[2] = {};
    riff.Read(*fmt, 16, cb, sizeof cb);
    const std::uint64_t cbSize = static_cast<std::uint64_t>(cb[0] | cb[1] << 8);
    const std::uint64_t extra = fmt->size > 18 ? std::min<std::uint64_t>(cbSize, fmt->size - 18) : 0;
    return fmt->offset + 18 > bytes.size() || fmt->offset + 18 + extra > bytes.size();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::span<const std::uint8_t> bytes(data, size);
    const unsigned usable = larimo::WaveCanUseMemory(bytes);
    larimo::Wave wave;
    const unsigned read = wave.ReadFromMemory(bytes);
    if (usable != larimo::kWaveSuccess && usable != larimo::kWaveFormatError)
        __builtin_trap();
    const bool disagree = (usable == larimo::kWaveSuccess) != (read != larimo::kWaveFormatError);
    if (disagree && !FormatChunkCutByEnd(bytes))
        __builtin_trap();
    if (read == larimo::kWaveSuccess && wave.DataSize() > size)
        __builtin_trap();
    return 0;
}
