// SPDX-License-Identifier: GPL-3.0-or-later
// The RIFF walker over arbitrary bytes: forms, chunk lists, nested LIST chunks and reads.
#include "riff.h"

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace {

void Visit(larimo::RiffReader& riff, const larimo::RiffChunk& parent, int depth)
{
    std::uint8_t buffer[64];
    for (const larimo::RiffChunk& chunk : riff.ListChunks(parent)) {
        riff.Read(chunk, 0, buffer, sizeof buffer);
        riff.Read(chunk, chunk.size, buffer, sizeof buffer);
        if (chunk.id == larimo::FourCc("LIST") && depth < 4)
            Visit(riff, chunk, depth + 1);
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    larimo::MemorySource source(std::span<const std::uint8_t>(data, size));
    larimo::RiffReader riff(source);
    if (const auto form = riff.FindForm(larimo::FourCc("WAVE"))) {
        riff.FindChunk(*form, larimo::FourCc("fmt "));
        riff.FindChunk(*form, larimo::FourCc("data"));
        Visit(riff, *form, 0);
    }
    if (size >= 12) {
        // Whatever form the input names, walk it as well.
        const std::uint32_t type = static_cast<std::uint32_t>(data[8]) | static_cast<std::uint32_t>(data[9]) << 8 |
                                   static_cast<std::uint32_t>(data[10]) << 16 | static_cast<std::uint32_t>(data[11]) << 24;
        if (const auto form = riff.FindForm(type))
            Visit(riff, *form, 0);
    }
    return 0;
}
