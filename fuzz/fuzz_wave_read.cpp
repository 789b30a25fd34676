// SPDX-License-Identifier: GPL-3.0-or-later
// Reading a WAV image from memory, and converting what was read to the library format.
#include "wave.h"

#include <cstddef>
#include <cstdint>
#include <span>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    larimo::Wave wave;
    if (wave.ReadFromMemory(std::span<const std::uint8_t>(data, size)) != larimo::kWaveSuccess)
        return 0;
    // A very low rate multiplies the output many times over: correct, but too slow to fuzz.
    if (wave.Format().nSamplesPerSec < 4000 || wave.DataSize() > 65536)
        return 0;
    const larimo::WaveFormat before = wave.Format();
    const unsigned result = wave.ConvertToOneChanel16Bit();
    if (result == larimo::kConvertUnsupported && !(wave.Format() == before))
        __builtin_trap(); // a refused format must leave the sound as it was
    if (result == larimo::kConvertSuccess && !(wave.Format() == larimo::LibraryWaveFormat()))
        __builtin_trap();
    return 0;
}
