// SPDX-License-Identifier: GPL-3.0-or-later
#include "TraceMemory.h"

#include <cstring>

namespace larimo {

namespace {

constexpr size_t kSizeWordBytes = 4;

} // namespace

std::optional<size_t> TraceSampleCount(uint32_t sizeWord, size_t mappingSize)
{
    if (mappingSize < kSizeWordBytes || sizeWord > mappingSize - kSizeWordBytes)
        return std::nullopt;
    return sizeWord / 2;
}

std::vector<int16_t> ReadTraceImage(const uint8_t* image, size_t size)
{
    std::vector<int16_t> samples;
    if (image == nullptr || size < kSizeWordBytes)
        return samples;
    uint32_t word = 0;
    std::memcpy(&word, image, kSizeWordBytes);
    const std::optional<size_t> count = TraceSampleCount(word, size);
    if (!count)
        return samples;
    samples.resize(*count);
    if (*count > 0)
        std::memcpy(samples.data(), image + kSizeWordBytes, *count * 2);
    return samples;
}

} // namespace larimo
